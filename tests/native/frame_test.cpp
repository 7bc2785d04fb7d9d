// The frame: error vocabulary, checked arithmetic, conversions, the power
// service and the floating check, also as a host with unmasked traps, another
// rounding mode or pending flags of its own sees them.
#include <gtest/gtest.h>

#include <bit>
#include <cfenv>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>

#include "frame/arith.h"
#include "frame/fp.h"

#include "test_support.h"

namespace valmetra {
namespace {

using test::error_of;
using test::observe_env;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(Errors, VocabularyAndSource) {
  struct Row { std::int32_t number; std::u16string_view text; };
  for (auto r : {Row{5, u"Invalid procedure call or argument"}, Row{6, u"Overflow"}, Row{7, u"Out of memory"},
                 Row{11, u"Division by zero"}, Row{13, u"Type mismatch"}, Row{0, u""}, Row{12, u""}}) {
    EXPECT_EQ(describe(r.number), r.text) << r.number;
  }
  try {
    raise_type_mismatch();
    ADD_FAILURE();
  } catch (const Error& e) {
    EXPECT_EQ(e.number(), 13);
    EXPECT_EQ(e.description(), u"Type mismatch");
    EXPECT_EQ(e.source(), u"KARVO_Valmetra");
  }
}

// a op b in T: the exact result, or the error (nothing else to store).
struct ArithRow { char op; std::int64_t a, b, result; int error; };
template <class T>
void check_arith(std::initializer_list<ArithRow> rows) {
  for (const auto& r : rows) {
    const T a = static_cast<T>(r.a), b = static_cast<T>(r.b);
    T got = 0;
    const int error = error_of([&] {
      got = r.op == '+' ? checked_add(a, b) : r.op == '-' ? checked_sub(a, b)
          : r.op == '*' ? checked_mul(a, b) : checked_div(a, b);
    });
    EXPECT_EQ(error, r.error) << r.a << r.op << r.b;
    if (r.error == 0) { EXPECT_EQ(got, r.result) << r.a << r.op << r.b; }
  }
}

TEST(CheckedArithmetic, ExactOrError) {
  check_arith<Integer>({{'+', 32766, 1, 32767, 0}, {'+', 32767, 1, 0, 6}, {'+', -32768, -1, 0, 6},
                        {'-', -1, 32767, -32768, 0}, {'-', -32768, 1, 0, 6}, {'-', 0, -32768, 0, 6},
                        {'*', -16384, 2, -32768, 0}, {'*', 16384, 2, 0, 6}, {'*', -32768, -1, 0, 6},
                        {'/', -7, 2, -3, 0}, {'/', 7, -1, -7, 0}, {'/', 7, 1, 7, 0}, {'/', 7, 0, 0, 11},
                        {'/', 0, 0, 0, 11}, {'/', -32768, -1, 0, 6}, {'/', -32768, -2, 16384, 0},
                        {'/', -32768, 1, -32768, 0}});
  check_arith<Long>({{'+', 2147483647, 1, 0, 6}, {'-', -2147483647, 1, INT32_MIN, 0},
                     {'*', -65536, 32768, INT32_MIN, 0}, {'*', 65536, 32768, 0, 6},
                     {'/', INT32_MIN, -1, 0, 6}, {'/', INT32_MIN, -2, 1073741824, 0}, {'/', 9, 0, 0, 11}});
}

TEST(Conversions, RoundHalfEven) {
  struct Row { double in, out; };
  for (auto r : {Row{0.49999999999999994, 0}, Row{0.5, 0}, Row{1.5, 2}, Row{2.5, 2}, Row{3.5, 4},
                 Row{-2.5, -2}, Row{-3.5, -4}, Row{2.5000000000000004, 3}, Row{-0.7, -1},
                 Row{4503599627370495.5, 4503599627370496.0}, Row{9007199254740993.0, 9007199254740992.0},
                 Row{kInf, kInf}}) {
    EXPECT_EQ(round_half_even(r.in), r.out) << r.in;
  }
  EXPECT_TRUE(std::isnan(round_half_even(kNaN)));
}

TEST(Conversions, ToIntegerAndToLong) {
  struct Row { double in; std::int64_t out; int error; };
  for (auto r : {Row{32767.4, 32767, 0}, Row{32767.5, 0, 6}, Row{-32768.5, -32768, 0}, Row{-32768.6, 0, 6},
                 Row{-32769, 0, 6}, Row{40000, 0, 6}, Row{2.5, 2, 0}, Row{-0.5, 0, 0}, Row{kNaN, 0, 6},
                 Row{kInf, 0, 6}, Row{-kInf, 0, 6}}) {
    Integer got = 0;
    EXPECT_EQ(error_of([&] { got = to_integer(r.in); }), r.error) << r.in;
    if (r.error == 0) { EXPECT_EQ(got, r.out) << r.in; }
  }
  for (auto r : {Row{2147483647.4, 2147483647, 0}, Row{2147483647.5, 0, 6}, Row{-2147483648.5, INT32_MIN, 0},
                 Row{-2147483649.0, 0, 6}, Row{4.5, 4, 0}, Row{3e9, 0, 6}, Row{kNaN, 0, 6}}) {
    Long got = 0;
    EXPECT_EQ(error_of([&] { got = to_long(r.in); }), r.error) << r.in;
    if (r.error == 0) { EXPECT_EQ(got, r.out) << r.in; }
  }
}

TEST(Conversions, ToSingleRoundsToNearestAndOverflows) {
  struct Row { double in; std::uint32_t bits; int error; };
  for (auto r : {Row{double(FLT_MAX), 0x7f7fffff, 0}, Row{0x1p-126, 0x00800000, 0}, Row{2.0, 0x40000000, 0},
                 Row{double(FLT_MAX) * (1 + 0x1p-25), 0x7f7fffff, 0}, Row{0x1p128, 0, 6}, Row{1e300, 0, 6},
                 Row{0x1p1000, 0, 6}, Row{-kInf, 0, 6}, Row{0x1p-149, 0x00000001, 0}, Row{0x1p-150, 0, 0},
                 Row{-0.0, 0x80000000, 0},
                 Row{1.0 + 0x1p-24, 0x3f800000, 0}, Row{1.0 + 0x1p-24 + 0x1p-40, 0x3f800001, 0}}) {
    float got = 0;
    EXPECT_EQ(error_of([&] { got = to_single(r.in); }), r.error) << r.in;
    if (r.error == 0) { EXPECT_EQ(std::bit_cast<std::uint32_t>(got), r.bits) << r.in; }
  }
  EXPECT_TRUE(std::isnan(to_single(kNaN)));
  // The shortcut takes zero and Doubles of at most 24 bits in the normal range, nothing else.
  for (double x : {0.0, -0.0, 2.0, -0x1p127, 0x1p-126, 1 + 0x1p-23, double(FLT_MAX)}) EXPECT_TRUE(exact_single(x)) << x;
  for (double x : {0x1p128, 0x1p-127, 1 + 0x1p-24, 0.1, kInf, kNaN}) EXPECT_FALSE(exact_single(x)) << x;
}

TEST(Conversions, PowerService) {
  struct Row { double x, y, out; int error; };
  for (auto r : {Row{2, 0.5, 1.4142135623730951, 0}, Row{-2, 3, -8, 0}, Row{0, 0, 1, 0}, Row{kNaN, 0, 1, 0},
                 Row{0, -1, 0, 11}, Row{-0.0, -3, 0, 11}, Row{10, 400, 0, 6}, Row{0.5, -2000, 0, 6},
                 Row{-8, 1.0 / 3, 0, 5}, Row{kNaN, 1, 0, 5}}) {
    double got = 0;
    EXPECT_EQ(error_of([&] { got = power(r.x, r.y); }), r.error) << r.x << "^" << r.y;
    if (r.error == 0) { EXPECT_EQ(got, r.out) << r.x << "^" << r.y; }
  }
}

TEST(FloatingCheck, ReportsExactlyTheThreeConditions) {
  struct Row { const char* what; double a, b; int error; };
  for (auto r : {Row{"1/0", 1.0, 0.0, 11}, Row{"0/0", 0.0, 0.0, 6}, Row{"overflow", DBL_MAX, 0.5, 6},
                 Row{"underflow", DBL_MIN, 1e10, 0}, Row{"inexact", 1.0, 3.0, 0}, Row{"denormal", 4.9e-324, 1.0, 0},
                 Row{"exact", 1.0, 2.0, 0}}) {
    EXPECT_EQ(error_of([&] { fp::checked([&] { return r.a / r.b; }); }), r.error) << r.what;
  }
  EXPECT_EQ(error_of([] {
              fp::Scope s;
              volatile double r = fp::opaque(1.0) / fp::opaque(0.0);
              (void)r;
              fp::clear();  // forgets what was recorded before
              fp::check();
            }), 0);
}

#if defined(__x86_64__) && defined(__GLIBC__)
// Which units a scope covers on x86-64: compiled code uses SSE alone, so a
// plain scope leaves the x87 unit as the caller had it; a WithX87 scope (for
// runtime routines computing in extended precision) masks the x87 traps and
// puts back the caller's control word and pending flags.
long double x87_overflow() {
  volatile long double big = LDBL_MAX;
  return big * big;
}

TEST(FloatingUnits, X87ScopeMasksTrapsAndLeavesNothingPending) {
  test::as_host(test::unmask_traps, [] {
    const auto before = observe_env();
    {
      fp::Scope scope(fp::Units::WithX87);
      volatile long double r = x87_overflow();  // would trap with the caller's masks
      (void)r;
    }
    EXPECT_EQ(observe_env(), before);
  });
}

// The caller's pending x87 flags: a scope covering the x87 unit clears
// invalid (0x01) and overflow (0x08) for its duration, but leaves masked
// inexact (0x20), underflow (0x10) and denormal (0x02) set.
TEST(FloatingUnits, ScopesKeepTheCallersControlWordAndPendingX87Flags) {
  struct Row { long double a, b; std::uint16_t pending, inside_x87; };
  for (const auto r : {Row{0.0L, 0.0L, 0x01, 0}, Row{1.0L, 3.0L, 0x20, 0x20}, Row{LDBL_MAX, LDBL_MIN, 0x28, 0},
                       Row{LDBL_TRUE_MIN, 2.0L, 0x32, 0x32}})
  for (const auto units : {fp::Units::Compiled, fp::Units::WithX87}) {
    const bool x87 = units == fp::Units::WithX87;
    test::as_host([] { std::fesetround(FE_UPWARD); }, [&] {
      volatile long double a = r.a, b = r.b;
      volatile long double host = a / b;  // the caller's own pending x87 flag
      (void)host;
      const auto before = observe_env();
      ASSERT_EQ(before.x87_flags, r.pending);
      {
        fp::Scope scope(units);
        EXPECT_EQ(observe_env().x87_flags, x87 ? r.inside_x87 : r.pending) << x87 << " " << r.pending;
        EXPECT_EQ(observe_env().mxcsr, 0x1F80u) << "SSE: masked, to nearest, flags clear";
        EXPECT_EQ(error_of([] { fp::checked([] { return fp::opaque(1.0) / fp::opaque(0.0); }); }), 11);
        if (x87) {
          volatile long double big = x87_overflow();
          (void)big;
        }
      }
      EXPECT_EQ(observe_env(), before) << x87 << " " << r.pending;
    });
  }
}
#endif

}  // namespace
}  // namespace valmetra
