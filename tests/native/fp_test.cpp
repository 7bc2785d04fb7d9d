// The floating check and the shared conversions, including what a host with
// unmasked floating-point exceptions and another rounding mode sees.
#include <gtest/gtest.h>

#include <bit>
#include <cfenv>
#include <cfloat>
#include <cstdint>
#include <limits>

#include "frame/arith.h"
#include "frame/fp.h"

#include "test_support.h"

namespace valmetra {
namespace {

using test::as_host;
using test::error_of;
using test::observe_env;

TEST(FloatingCheck, ReportsExactlyTheThreeConditions) {
  struct Case { const char* what; double a, b; int expected; };
  const Case cases[] = {
      {"1/0", 1.0, 0.0, 11},         {"0/0", 0.0, 0.0, 6},
      {"overflow", DBL_MAX, 0.5, 6}, {"underflow", DBL_MIN, 1e10, 0},
      {"inexact", 1.0, 3.0, 0},      {"denormal", 4.9e-324, 1.0, 0},
  };
  for (const auto& c : cases) {
    // Constants: folding or moving the division would lose the flag.
    EXPECT_EQ(error_of([&] { fp::checked([&] { return c.a / c.b; }); }), c.expected) << c.what;
  }
}

TEST(FloatingCheck, ClearForgetsEarlierConditions) {
  EXPECT_EQ(error_of([] {
              fp::Scope s;
              volatile double r = fp::opaque(1.0) / fp::opaque(0.0);
              (void)r;
              fp::clear();
              fp::check();
            }),
            0);
}

TEST(FloatingCheck, HostWithUnmaskedTrapsGetsErrorsNotSignals) {
  as_host(test::unmask_traps, [] {
    const auto before = observe_env();
    EXPECT_EQ(error_of([] { fp::checked([] { return fp::opaque(1.0) / fp::opaque(0.0); }); }), 11);
    EXPECT_EQ(observe_env(), before);
    EXPECT_EQ(error_of([] { to_single(1e300); }), 6);
    EXPECT_EQ(observe_env(), before);
    EXPECT_EQ(error_of([] { power(0.0, -1.0); }), 11);
    EXPECT_EQ(error_of([] { power(10.0, 400.0); }), 6);
    EXPECT_EQ(observe_env(), before);
  });
}

TEST(FloatingCheck, HostRoundingModeFlushToZeroAndStickyFlagsSurvive) {
  auto arm = [] {
    std::fesetround(FE_UPWARD);
    std::feraiseexcept(FE_INEXACT | FE_UNDERFLOW);
#if defined(__x86_64__)
    std::uint32_t mxcsr;
    asm volatile("stmxcsr %0" : "=m"(mxcsr));
    mxcsr |= 0x8040;  // flush-to-zero, denormals-are-zero
    asm volatile("ldmxcsr %0" : : "m"(mxcsr));
#endif
  };
  as_host(arm, [] {
    const auto before = observe_env();
    // 1 + 2^-30 rounds to 1.0f to nearest, to the next float upward.
    EXPECT_EQ(to_single(1.0 + 0x1p-30), 1.0f);
    // A denormal Single is not flushed (compared as bits: the host's
    // denormals-are-zero would make it equal 0).
    EXPECT_EQ(std::bit_cast<std::uint32_t>(to_single(0x1p-149)), 1u);
    EXPECT_EQ(power(2.0, 0.5), 1.4142135623730951);
    EXPECT_EQ(error_of([] { fp::checked([] { return fp::opaque(0.0) / fp::opaque(0.0); }); }), 6);
    EXPECT_EQ(observe_env(), before);
    EXPECT_EQ(std::fegetround(), FE_UPWARD);
    EXPECT_TRUE(std::fetestexcept(FE_INEXACT) && std::fetestexcept(FE_UNDERFLOW));
  });
}

TEST(Conversions, RoundHalvesToEvenAndCheckRange) {
  // Just beside a half (floor(x + 0.5) gives 1 for the first).
  EXPECT_EQ(round_half_even(0.49999999999999994), 0);
  EXPECT_EQ(round_half_even(2.5000000000000004), 3);
  struct Case { double in; int expected_value; int expected_error; };
  const Case to16[] = {{2.5, 2, 0},       {3.5, 4, 0},        {-2.5, -2, 0},     {-3.5, -4, 0},
                       {32767.4, 32767, 0}, {32767.5, 0, 6}, {-32768.5, -32768, 0}, {-32769, 0, 6},
                       {std::numeric_limits<double>::quiet_NaN(), 0, 6},
                       {std::numeric_limits<double>::infinity(), 0, 6}};
  for (const auto& c : to16) {
    int got = 0;
    EXPECT_EQ(error_of([&] { got = to_integer(c.in); }), c.expected_error) << c.in;
    if (c.expected_error == 0) { EXPECT_EQ(got, c.expected_value) << c.in; }
  }
  const Case to32[] = {{2147483647.4, 2147483647, 0}, {2147483647.5, 0, 6}, {-2147483648.5, INT32_MIN, 0},
                       {-2147483649.0, 0, 6}, {-0.5, 0, 0}, {4.5, 4, 0}};
  for (const auto& c : to32) {
    int got = 0;
    EXPECT_EQ(error_of([&] { got = to_long(c.in); }), c.expected_error) << c.in;
    if (c.expected_error == 0) { EXPECT_EQ(got, c.expected_value) << c.in; }
  }
}

TEST(Conversions, DoubleToSingleRoundsToNearestAndOverflows) {
  struct Case { double in; std::uint32_t bits; int error; };
  const Case cases[] = {
      // exactly representable normal Singles are converted directly
      {double(FLT_MAX), 0x7f7fffff, 0},
      {0x1p-126, 0x00800000, 0},
      {double(FLT_MAX) * (1 + 0x1p-25), 0x7f7fffff, 0},  // below the halfway point to 2^128
      {0x1p128, 0, 6},
      {0x1p-149, 0x00000001, 0},    // smallest denormal
      {0x1p-150, 0x00000000, 0},    // halfway to zero: ties to even
      {-0.0, 0x80000000, 0},
      {1.0 + 0x1p-24, 0x3f800000, 0},               // tie: even neighbour 1.0
      {1.0 + 0x1p-24 + 0x1p-40, 0x3f800001, 0},     // just above the tie
  };
  for (const auto& c : cases) {
    float got = 0;
    EXPECT_EQ(error_of([&] { got = to_single(c.in); }), c.error) << c.in;
    if (c.error == 0) { EXPECT_EQ(std::bit_cast<std::uint32_t>(got), c.bits) << c.in; }
  }
}

}  // namespace
}  // namespace valmetra
