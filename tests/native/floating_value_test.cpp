// SingleData and DoubleData: the shared floating semantics as typed tests,
// the precision-specific results as bit patterns, SingleData's limits, and
// the behaviour under a host environment with unmasked traps.
#include <gtest/gtest.h>

#include <bit>
#include <cfenv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "frame/history.h"
#include "values/double_data.h"
#include "values/single_data.h"

#include "test_support.h"

namespace valmetra {
namespace {

template <class T>
using BitsOf = std::conditional_t<std::is_same_v<T, float>, std::uint32_t, std::uint64_t>;

template <class T>
BitsOf<T> bits(T v) {
  return std::bit_cast<BitsOf<T>>(v);
}
float f32(std::uint32_t b) { return std::bit_cast<float>(b); }
double f64(std::uint64_t b) { return std::bit_cast<double>(b); }

// Same bits, or both NaN (the sign and payload of a generated NaN are the
// hardware's and not pinned).
template <class T>
bool same(T a, T b) {
  return bits(a) == bits(b) || (std::isnan(a) && std::isnan(b));
}

template <class T>
std::string show(T v) {
  char text[64];
  std::snprintf(text, sizeof text, "%.9g [0x%llx]", static_cast<double>(v),
                static_cast<unsigned long long>(bits(v)));
  return text;
}

using test::error_of;

enum class Op {
  Add, Subtract, Multiply, Divide, DoubleYourself, IncrementYourself, DecrementYourself,
  Increment, Decrement, DecrementToZero, HalveYourself, Halve, IDivide, RaiseYourself, Raise,
};
const char* name(Op op) {
  static const char* const names[] = {
      "Add", "Subtract", "Multiply", "Divide", "DoubleYourself", "IncrementYourself",
      "DecrementYourself", "Increment", "Decrement", "DecrementToZero", "HalveYourself",
      "Halve", "IDivide", "RaiseYourself", "Raise"};
  return names[static_cast<int>(op)];
}

template <class Data, class T>
void apply(Data& d, Op op, T operand) {
  switch (op) {
    case Op::Add: return d.Add(operand);
    case Op::Subtract: return d.Subtract(operand);
    case Op::Multiply: return d.Multiply(operand);
    case Op::Divide: return d.Divide(operand);
    case Op::DoubleYourself: return d.DoubleYourself();
    case Op::IncrementYourself: return d.IncrementYourself();
    case Op::DecrementYourself: return d.DecrementYourself();
    case Op::Increment: return d.Increment();
    case Op::Decrement: return d.Decrement();
    case Op::DecrementToZero: return d.DecrementToZero();
    case Op::HalveYourself: return d.HalveYourself();
    case Op::Halve: return d.Halve();
    case Op::IDivide: return d.IDivide(operand);
    // the exponent is a whole number that the operand holds exactly
    case Op::RaiseYourself: return d.RaiseYourself(static_cast<Integer>(operand));
    case Op::Raise: return d.Raise(static_cast<Integer>(operand));
  }
}

// start op operand -> expected, with the error number (0: none). Where an
// error leaves Value unchanged, expected is the start value.
template <class T>
struct Case {
  Op op;
  T start, operand, expected;
  int error;
};

template <class Data, class T>
void run(const std::vector<Case<T>>& cases) {
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(name(c.op)) + " " + show(c.start) + " with " + show(c.operand));
    Data d;
    d.Value(c.start);
    EXPECT_EQ(error_of([&] { apply(d, c.op, c.operand); }), c.error);
    EXPECT_TRUE(same(d.Value(), c.expected)) << "got " << show(d.Value()) << ", want "
                                             << show(c.expected);
  }
}

constexpr int kOverflow = 6;
constexpr int kDivisionByZero = 11;
constexpr int kInvalidCall = 5;

// What differs between the two classes: the results that depend on the
// precision, as bit patterns.
template <class Data>
struct Precision;

template <>
struct Precision<SingleData> {
  using T = Single;
  static T snan() { return f32(0x7FA00000); }
  static constexpr std::uint32_t kThird = 0x3EAAAAAB;     // 1/3 to nearest
  static constexpr std::uint32_t kBigThird = 0x4DAAAAAB;  // 357913941 to nearest float

  static std::vector<Case<T>> cases() {
    const T max = f32(0x7F7FFFFF), tiny = f32(0x00000001);
    return {
        // one rounding to float, ties to the even neighbour
        {Op::IncrementYourself, 16777216.0f, 0, f32(0x4B800000), 0},  // tie, down
        {Op::Add, 16777218.0f, 1.0f, f32(0x4B800002), 0},             // tie, up
        {Op::Add, 1.0f, f32(0x33800001), f32(0x3F800001), 0},         // just above a tie
        {Op::Divide, 1.0f, 3.0f, f32(kThird), 0},
        // denormals: kept, rounded, never an error
        {Op::Subtract, f32(0x00800000), tiny, f32(0x007FFFFF), 0},
        {Op::Multiply, tiny, 0.5f, f32(0x00000000), 0},   // 2^-150: tie to 0
        {Op::Multiply, tiny, 1.5f, f32(0x00000002), 0},   // tie, up to even
        {Op::Multiply, -tiny, 0.5f, f32(0x80000000), 0},  // -0
        // next to FLT_MAX: half an ulp above rounds to even, which is 2^128
        {Op::Add, max, f32(0x73000000), f32(0x7F800000), kOverflow},  // + 2^103
        {Op::Add, max, f32(0x72800000), f32(0x7F7FFFFF), 0},          // + 2^102
        // whole numbers: the largest float below 2^31, and 2^31
        {Op::HalveYourself, f32(0x4EFFFFFF), 0, f32(0x4E7FFFFF), 0},
        {Op::HalveYourself, 2147483648.0f, 0, 2147483648.0f, kOverflow},
        // quotients above 2^24 are rounded to the nearest float, ties to even
        {Op::IDivide, 1073741824.0f, 3.0f, f32(kBigThird), 0},
        {Op::IDivide, 1073742592.0f, 9.0f, f32(0x4CE38E44), 0},   // 119304732: tie up
        {Op::IDivide, 1073742080.0f, 11.0f, f32(0x4CBA2E8E), 0},  // 97612916: tie down
        // a power beyond float but within double: an infinity, no error
        {Op::RaiseYourself, 10.0f, 39, f32(0x7F800000), 0},
        {Op::RaiseYourself, 2.0f, 127, f32(0x7F000000), 0},
        {Op::RaiseYourself, 2.0f, -150, f32(0x00000000), 0},  // tie to even
        // beyond double: the power service's error, Value unchanged
        {Op::RaiseYourself, 10.0f, 400, 10.0f, kOverflow},
    };
  }
};

template <>
struct Precision<DoubleData> {
  using T = Double;
  static T snan() { return f64(0x7FF4000000000000); }
  static constexpr std::uint64_t kThird = 0x3FD5555555555555;
  static constexpr std::uint64_t kBigThird = 0x41B5555555000000;  // 357913941, exact

  static std::vector<Case<T>> cases() {
    const T max = f64(0x7FEFFFFFFFFFFFFF), tiny = f64(1);
    return {
        {Op::IncrementYourself, 9007199254740992.0, 0, f64(0x4340000000000000), 0},
        {Op::Divide, 1.0, 3.0, f64(kThird), 0},
        {Op::Multiply, tiny, 0.5, f64(0), 0},
        {Op::Multiply, -tiny, 0.5, f64(0x8000000000000000), 0},
        {Op::Add, max, f64(0x7C90000000000000), f64(0x7FF0000000000000), kOverflow},  // + 2^970
        {Op::RaiseYourself, 2.0, 1024, 2.0, kOverflow},
        {Op::RaiseYourself, 2.0, 1023, f64(0x7FE0000000000000), 0},
    };
  }
};

template <class T>
struct Ieee {
  static constexpr T inf = std::numeric_limits<T>::infinity();
  static constexpr T max = std::numeric_limits<T>::max();
  static constexpr T nan = std::numeric_limits<T>::quiet_NaN();
  static constexpr T tiny = std::numeric_limits<T>::denorm_min();
};

template <class Data>
class FloatingValueTest : public ::testing::Test {
 protected:
  void SetUp() override { release_thread_history(); }
  void TearDown() override { release_thread_history(); }
};

using FloatingClasses = ::testing::Types<SingleData, DoubleData>;
TYPED_TEST_SUITE(FloatingValueTest, FloatingClasses);

// Stored, then checked: the field keeps the infinity or NaN of a failed step.
// Whole-number operations round each operand half to even first.
TYPED_TEST(FloatingValueTest, Operations) {
  using P = Precision<TypeParam>;
  using T = typename P::T;
  const T inf = Ieee<T>::inf, max = Ieee<T>::max, nan = Ieee<T>::nan;
  // Not const: with -frounding-math, GCC 12 lays out this braced list with
  // the wrong element size when it holds const floats whose initialisers it
  // cannot fold (seen as garbage cases, never as passing ones).
  T seven_six = static_cast<T>(7.6);
  const std::vector<Case<T>> cases = {
      {Op::Subtract, 1, 2, -1, 0},
      {Op::IncrementYourself, -1, 0, 0, 0},
      {Op::DecrementYourself, 0, 0, -1, 0},
      {Op::Increment, 2, 0, 3, 0},
      {Op::Decrement, 2, 0, 1, 0},
      {Op::Add, 0.0, -0.0, 0.0, 0},
      {Op::Multiply, -1, 0.0, -0.0, 0},
      // the three conditions, result stored first
      {Op::Divide, 1, 0.0, inf, kDivisionByZero},
      {Op::Divide, 1, -0.0, -inf, kDivisionByZero},
      {Op::Divide, 0.0, 0.0, nan, kOverflow},
      {Op::Add, inf, -inf, nan, kOverflow},
      {Op::DoubleYourself, max, 0, inf, kOverflow},
      {Op::Multiply, max, -2, -inf, kOverflow},
      {Op::IncrementYourself, max, 0, max, 0},  // inexact only
      // infinities and quiet NaNs as operands raise nothing new
      {Op::Add, inf, 1, inf, 0},
      {Op::Divide, inf, 0.0, inf, 0},
      {Op::Add, nan, 1, nan, 0},
      {Op::Divide, nan, 0.0, nan, 0},
      // a signalling NaN is an invalid operand
      {Op::Add, P::snan(), 1, nan, kOverflow},
      {Op::Add, 1, P::snan(), nan, kOverflow},
      // DecrementToZero subtracts a whole 1 from any positive value
      {Op::DecrementToZero, 0.5, 0, -0.5, 0},
      {Op::DecrementToZero, 0.0, 0, 0.0, 0},
      {Op::DecrementToZero, -2, 0, -2, 0},
      // whole numbers: never -0, Overflow outside Long or for NaN
      {Op::HalveYourself, seven_six, 0, 4, 0},
      {Op::HalveYourself, 2.5, 0, 1, 0},  // 2 (half to even), then 1
      {Op::HalveYourself, 3.5, 0, 2, 0},  // 4, then 2
      {Op::HalveYourself, -7, 0, -3, 0},
      {Op::HalveYourself, -1, 0, 0.0, 0},
      {Op::HalveYourself, -2147483648.0, 0, -1073741824.0, 0},
      {Op::HalveYourself, 3e9, 0, 3e9, kOverflow},
      {Op::HalveYourself, nan, 0, nan, kOverflow},
      {Op::Halve, 5, 0, 2, 0},
      {Op::IDivide, seven_six, 2.5, 4, 0},  // 8 \ 2
      {Op::IDivide, -7.5, 2, -4, 0},        // -8 \ 2
      {Op::IDivide, 7, -2, -3, 0},
      {Op::IDivide, 2.5, 1.5, 1, 0},        // 2 \ 2: the divisor is rounded too
      {Op::IDivide, -1, 2, 0.0, 0},
      {Op::IDivide, seven_six, 0.5, seven_six, kDivisionByZero},
      {Op::IDivide, -2147483648.0, -1, -2147483648.0, kOverflow},
      {Op::IDivide, 1, 3e9, 1, kOverflow},
      {Op::IDivide, 3e9, 0.0, 3e9, kOverflow},  // the value is rounded first
      // powers: the power service's errors leave the field as it was
      {Op::RaiseYourself, 2, -1, 0.5, 0},
      {Op::RaiseYourself, -2, 3, -8, 0},
      {Op::RaiseYourself, nan, 0, 1, 0},
      {Op::RaiseYourself, -1, -32768, 1, 0},
      {Op::RaiseYourself, 0.0, -1, 0.0, kDivisionByZero},
      {Op::RaiseYourself, -0.0, -3, -0.0, kDivisionByZero},
      {Op::RaiseYourself, inf, 2, inf, kOverflow},
      {Op::RaiseYourself, nan, 1, nan, kInvalidCall},
      {Op::Raise, 2, 3, 8, 0},
  };
  run<TypeParam>(cases);
  run<TypeParam>(P::cases());
}

TYPED_TEST(FloatingValueTest, PropertiesZappAndZeroCopyBits) {
  using T = typename Precision<TypeParam>::T;
  TypeParam d;
  EXPECT_EQ(bits(d.Value()), 0u);
  for (T p : {T(-0.0), Precision<TypeParam>::snan(), -Ieee<T>::nan}) {
    d.Value(p);
    EXPECT_EQ(bits(d.Value()), bits(p));
    EXPECT_EQ(bits(d.Default()), bits(p));
    d.Zero();
    EXPECT_EQ(bits(d.Value()), 0u);
    d.Default(p);
    EXPECT_EQ(bits(d.Value()), bits(p));
  }
  d.Zapp();
  EXPECT_EQ(bits(d.Value()), bits(T(-1)));
}

TYPED_TEST(FloatingValueTest, HistoryKeepsBitsAndIsSharedByTheThread) {
  using T = typename Precision<TypeParam>::T;
  TypeParam a, b;
  a.Value(Precision<TypeParam>::snan());
  a.Push();
  a.Value(-0.0);
  a.Push();
  a.Value(5);
  b.Pop();  // another object of the thread pops what a pushed
  EXPECT_EQ(bits(b.Value()), bits(T(-0.0)));
  EXPECT_EQ(bits(a.Value()), bits(T(5)));
  b.Pop();
  EXPECT_EQ(bits(b.Value()), bits(Precision<TypeParam>::snan()));

  a.PushAndSet(4);  // records 5, then the service sets Value
  EXPECT_EQ(a.Value(), 4);
  a.Push();
  a.Value(9);
  a.Drop();  // discards the 4 and leaves Value alone
  EXPECT_EQ(a.Value(), 9);
  a.Pop();
  EXPECT_EQ(a.Value(), 5);
  // empty: the service's error passes on and Value stays
  const auto type = std::is_same_v<T, Single> ? u"Single" : u"Double";
  EXPECT_TRUE(test::history_empty_error([&] { a.Pop(); }, type));
  EXPECT_TRUE(test::history_empty_error([&] { a.Drop(); }, type));
  EXPECT_EQ(a.Value(), 5);
}

TEST(FloatingValueHistory, SingleAndDoubleHistoriesAreSeparate) {
  release_thread_history();
  SingleData s;
  DoubleData d;
  s.Value(1.5f);
  s.Push();
  EXPECT_EQ(error_of([&] { d.Pop(); }), kHistoryEmptyNumber);
  d.Value(2.5);
  d.Push();
  s.Value(0);
  s.Pop();
  EXPECT_EQ(s.Value(), 1.5f);
  d.Value(0);
  d.Pop();
  EXPECT_EQ(d.Value(), 2.5);
  release_thread_history();
}

// SingleData's limits

TEST(SingleDataLimits, LimitIsLowerLimit) {
  SingleData d;
  d.Limit(2.5f);
  EXPECT_EQ(d.LowerLimit(), 2.5f);
  d.LowerLimit(-0.0f);
  EXPECT_EQ(bits(d.Limit()), 0x80000000u);
  EXPECT_EQ(bits(d.UpperLimit()), 0u);
  d.SetTheLimits(10, 5);  // no ordering check
  EXPECT_EQ(d.LowerLimit(), 10);
  EXPECT_EQ(d.UpperLimit(), 5);
}

TEST(SingleDataLimits, ModuloAdd) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float max = std::numeric_limits<float>::max();
  struct M { float lower, upper, start, add, expected; int error; };
  const M cases[] = {
      {0, 10, 8, 5, 5, 0},          // 13 passes 10: 10 - 5
      {0, 10, 8, 2, 10, 0},         // reaching the upper limit is fine
      {0, 10, 8, 0, 8, 0},          // both limits inclusive
      {0, 10, 8, 10.5f, 8, 0},      // outside the limits: nothing
      {0, 10, 8, -0.5f, 8, 0},
      {0, 10, 8, nan, 8, 0},
      {nan, 10, 8, 1, 8, 0},
      {0, nan, 8, 1, 8, 0},
      {10, 5, 3, 7, 3, 0},          // reversed limits accept nothing
      {10, 5, 3, 11, 3, 0},
      {0, 10, nan, 1, nan, 0},      // a NaN sum does not pass the limit
      {0, inf, max, max, max, kOverflow},     // sum checked before storing
      {-max, max, inf, -max, inf, kOverflow}, // difference checked before storing
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(show(c.lower) + ".." + show(c.upper) + " " + show(c.start) + " + " + show(c.add));
    SingleData d;
    d.SetTheLimits(c.lower, c.upper);
    d.Value(c.start);
    EXPECT_EQ(error_of([&] { d.ModuloAdd(c.add); }), c.error);
    EXPECT_TRUE(same(d.Value(), c.expected)) << show(d.Value());
  }
}

// IEEE comparisons: Value2 whenever the comparison is false; bits copied.
TEST(SingleDataLimits, GreaterAndLesserOfTheTwo) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float snan = Precision<SingleData>::snan();
  struct G { float v1, v2, greater, lesser; };
  const G cases[] = {
      {1, 2, 2, 1}, {2, 1, 2, 1}, {0.0f, -0.0f, -0.0f, -0.0f}, {nan, 1, 1, 1}, {1, snan, snan, snan},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(show(c.v1) + ", " + show(c.v2));
    SingleData d;
    d.GreaterOfTheTwo(c.v1, c.v2);
    EXPECT_EQ(bits(d.Value()), bits(c.greater));
    d.LesserOfTheTwo(c.v1, c.v2);
    EXPECT_EQ(bits(d.Value()), bits(c.lesser));
  }
}

// A host with unmasked traps, rounding toward zero and a sticky flag of its own.
void arm_trapping_host() {
  std::feclearexcept(FE_ALL_EXCEPT);
  std::feraiseexcept(FE_INEXACT);
  std::fesetround(FE_TOWARDZERO);
  feenableexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW | FE_UNDERFLOW);
}

TEST(FloatingValueTrapsDeathTest, UnguardedDivisionTrapsInThisEnvironment) {
  // Shows the test below is meaningful: the same conditions outside a scope
  // do raise SIGFPE here.
  EXPECT_EXIT(test::as_host(arm_trapping_host,
                            [] {
                              volatile double zero = 0.0;
                              volatile double r = 1.0 / zero;
                              (void)r;
                            }),
              ::testing::ExitedWithCode(test::kTrapExit), "");
}

// Every step that could raise a condition runs under the host's unmasked
// traps: each error arrives as an error, no SIGFPE ends the process, results
// are rounded to nearest, and the environment is bit-identical afterwards.
TYPED_TEST(FloatingValueTest, UnmaskedTrapsNeitherFireNorChange) {
  using P = Precision<TypeParam>;
  using T = typename P::T;
  constexpr bool kFloat = std::is_same_v<T, float>;
  // Only exact constants here: GCC may convert an inexact one where it is
  // used, inside the armed environment.
  const T one = 1, zero = 0, three = 3, ten = 10, half = 0.5, quarter = 0.25, seven_half = 7.5,
          big = 1073741824.0, max = Ieee<T>::max, tiny = Ieee<T>::tiny, inf = Ieee<T>::inf,
          nan = Ieee<T>::nan, snan = P::snan();
  struct Step { T start; std::function<void(TypeParam&)> op; int error; BitsOf<T> value; };
  std::vector<Step> steps = {
      {one, [&](TypeParam& x) { x.Divide(three); }, 0, P::kThird},  // to nearest, not toward zero
      {one, [&](TypeParam& x) { x.Divide(zero); }, kDivisionByZero, bits(inf)},
      {zero, [&](TypeParam& x) { x.Divide(zero); }, kOverflow, bits(nan)},
      {max, [&](TypeParam& x) { x.DoubleYourself(); }, kOverflow, bits(inf)},
      {tiny, [&](TypeParam& x) { x.Multiply(half); }, 0, 0},
      {snan, [&](TypeParam& x) { x.Add(one); }, kOverflow, bits(nan)},
      {nan, [&](TypeParam& x) { x.HalveYourself(); }, kOverflow, bits(nan)},
      {snan, [&](TypeParam& x) { x.DecrementToZero(); }, 0, bits(snan)},
      {seven_half, [&](TypeParam& x) { x.IDivide(quarter); }, kDivisionByZero, bits(seven_half)},
      {one, [&](TypeParam& x) { x.IDivide(nan); }, kOverflow, bits(one)},
      {big, [&](TypeParam& x) { x.IDivide(three); }, 0, P::kBigThird},  // float: rounded
      {zero, [&](TypeParam& x) { x.RaiseYourself(-1); }, kDivisionByZero, 0},
      // float: 10^39 overflows only in the final rounding; double: exact
      {ten, [&](TypeParam& x) { x.RaiseYourself(kFloat ? 39 : 22); }, 0,
       kFloat ? bits(inf) : bits(T(1e22))},
      {snan, [&](TypeParam& x) { x.Push(); x.Zero(); x.Pop(); }, 0, bits(snan)},
  };
  if constexpr (kFloat) {
    steps.push_back({max, [&](TypeParam& x) { x.SetTheLimits(zero, inf); x.ModuloAdd(max); },
                     kOverflow, bits(max)});
    steps.push_back({one, [&](TypeParam& x) { x.GreaterOfTheTwo(snan, one); }, 0, bits(one)});
  }
  std::vector<std::pair<int, BitsOf<T>>> got;
  got.reserve(steps.size());
  test::as_host(arm_trapping_host, [&] {
    const auto host = test::observe_env();
    for (const Step& step : steps) {
      TypeParam d;
      d.Value(step.start);
      const int error = error_of([&] { step.op(d); });
      got.emplace_back(error, bits(d.Value()));
    }
    EXPECT_EQ(test::observe_env(), host);
  });
  ASSERT_EQ(got.size(), steps.size());
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].first, steps[i].error) << "step " << i;
    if (steps[i].value == bits(nan)) {  // a generated NaN: any NaN will do
      EXPECT_TRUE(std::isnan(std::bit_cast<T>(got[i].second))) << "step " << i;
    } else {
      EXPECT_EQ(got[i].second, steps[i].value) << "step " << i;
    }
  }
}

}  // namespace
}  // namespace valmetra
