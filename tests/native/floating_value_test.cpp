// SingleData and DoubleData: the shared floating semantics as typed tests,
// the precision-specific results as bit patterns, SingleData's limits, and
// the behaviour under a host environment with unmasked traps.
#include <gtest/gtest.h>

#include <bit>
#include <cfenv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "frame/history.h"
#include "values/double_data.h"
#include "values/single_data.h"

#include "test_support.h"

namespace valmetra {
namespace {

// Compiles only when the member has this signature: the generated COM layer
// calls these (ref parameters by value, the exponent a 16-bit Integer).
static_assert(requires { static_cast<void (SingleData::*)(Single)>(&SingleData::Add); });
static_assert(requires { static_cast<Single (SingleData::*)() const>(&SingleData::Default); });
static_assert(requires { static_cast<void (SingleData::*)(Single)>(&SingleData::Default); });
static_assert(requires {
  static_cast<void (SingleData::*)(Single, Single)>(&SingleData::SetTheLimits); });
static_assert(requires { static_cast<void (SingleData::*)(Integer)>(&SingleData::Raise); });
static_assert(requires { static_cast<void (SingleData::*)(Single)>(&SingleData::PushAndSet); });
static_assert(requires { static_cast<Double (DoubleData::*)() const>(&DoubleData::Value); });
static_assert(requires { static_cast<void (DoubleData::*)(Integer)>(&DoubleData::RaiseYourself); });
static_assert(requires { static_cast<void (DoubleData::*)(Double)>(&DoubleData::IDivide); });

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
  T start;
  T operand;
  T expected;
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
  static constexpr std::uint32_t kSignalingNaN = 0x7FA00000;
  static T snan() { return f32(kSignalingNaN); }
  static constexpr std::uint32_t kThird = 0x3EAAAAAB;           // 1/3 to nearest
  static constexpr std::uint32_t kBigThird = 0x4DAAAAAB;  // 357913941 to nearest float

  static std::vector<Case<T>> arithmetic() {
    const T max = f32(0x7F7FFFFF), tiny = f32(0x00000001);
    return {
        // ties at float precision go to the even neighbour
        {Op::IncrementYourself, 16777216.0f, 0, f32(0x4B800000), 0},
        {Op::Add, 16777218.0f, 1.0f, f32(0x4B800002), 0},
        {Op::Add, 1.0f, f32(0x33800000), f32(0x3F800000), 0},   // 1 + 2^-24: tie, stays 1
        {Op::Add, 1.0f, f32(0x33800001), f32(0x3F800001), 0},   // just above the tie
        {Op::Add, 1.0f, f32(0x34400000), f32(0x3F800002), 0},   // 1 + 3*2^-24: tie, up
        {Op::Subtract, 1.0f, f32(0x33000000), f32(0x3F800000), 0},  // 1 - 2^-25: tie
        {Op::Divide, 1.0f, 3.0f, f32(kThird), 0},
        {Op::Divide, 2.0f, 3.0f, f32(0x3F2AAAAB), 0},
        // denormals: kept, rounded, never an error
        {Op::Add, tiny, tiny, f32(0x00000002), 0},
        {Op::Subtract, f32(0x00800000), tiny, f32(0x007FFFFF), 0},
        {Op::Multiply, tiny, 0.5f, f32(0x00000000), 0},    // 2^-150: tie to 0
        {Op::Multiply, tiny, 0.75f, f32(0x00000001), 0},
        {Op::Multiply, tiny, 1.5f, f32(0x00000002), 0},    // tie to even
        {Op::Multiply, -tiny, 0.5f, f32(0x80000000), 0},   // -0
        {Op::Divide, f32(0x00800000), 3.0f, f32(0x002AAAAB), 0},
        // next to FLT_MAX: half an ulp above rounds to even, which is 2^128
        {Op::Add, max, f32(0x73000000), f32(0x7F800000), kOverflow},   // + 2^103
        {Op::Add, max, f32(0x72800000), f32(0x7F7FFFFF), 0},           // + 2^102
        {Op::Subtract, -max, f32(0x73000000), f32(0xFF800000), kOverflow},
        {Op::DoubleYourself, 3e38f, 0, f32(0x7F800000), kOverflow},
        {Op::Multiply, f32(0x7F000000), 1.5f, f32(0x7F400000), 0},     // 2^127 * 1.5
    };
  }
  static std::vector<Case<T>> whole() {
    return {
        {Op::HalveYourself, f32(0x4EFFFFFF), 0, f32(0x4E7FFFFF), 0},   // 2147483520
        {Op::HalveYourself, 2147483648.0f, 0, 2147483648.0f, kOverflow},
        // quotients above 2^24 are rounded to nearest float, ties to even
        {Op::IDivide, 1073741824.0f, 3.0f, f32(kBigThird), 0},
        {Op::IDivide, 1073742592.0f, 9.0f, f32(0x4CE38E44), 0},        // 119304732: tie up
        {Op::IDivide, 1073742080.0f, 11.0f, f32(0x4CBA2E8E), 0},       // 97612916: tie down
    };
  }
  static std::vector<Case<T>> powers() {
    return {
        // beyond float but within double: an infinity, no error
        {Op::RaiseYourself, 10.0f, 39, f32(0x7F800000), 0},
        {Op::RaiseYourself, -10.0f, 39, f32(0xFF800000), 0},
        {Op::RaiseYourself, 2.0f, 128, f32(0x7F800000), 0},
        {Op::RaiseYourself, 2.0f, 127, f32(0x7F000000), 0},
        {Op::RaiseYourself, 2.0f, -149, f32(0x00000001), 0},
        {Op::RaiseYourself, 2.0f, -150, f32(0x00000000), 0},   // tie to even
        {Op::RaiseYourself, 3.0f, -1, f32(kThird), 0},
        // beyond double: the power service's error, Value unchanged
        {Op::RaiseYourself, 10.0f, 400, 10.0f, kOverflow},
    };
  }
};

template <>
struct Precision<DoubleData> {
  using T = Double;
  static constexpr std::uint64_t kSignalingNaN = 0x7FF4000000000000;
  static T snan() { return f64(kSignalingNaN); }
  static constexpr std::uint64_t kThird = 0x3FD5555555555555;
  static constexpr std::uint64_t kBigThird = 0x41B5555555000000;  // 357913941, exact

  static std::vector<Case<T>> arithmetic() {
    const T max = f64(0x7FEFFFFFFFFFFFFF), tiny = f64(1);
    return {
        {Op::IncrementYourself, 9007199254740992.0, 0, f64(0x4340000000000000), 0},
        {Op::Add, 9007199254740994.0, 1.0, f64(0x4340000000000002), 0},
        {Op::Add, 1.0, f64(0x3CA0000000000000), f64(0x3FF0000000000000), 0},  // 1 + 2^-53
        {Op::Add, 1.0, f64(0x3CB8000000000000), f64(0x3FF0000000000002), 0},  // 1 + 3*2^-53
        {Op::Divide, 1.0, 3.0, f64(kThird), 0},
        {Op::Add, tiny, tiny, f64(2), 0},
        {Op::Subtract, f64(0x0010000000000000), tiny, f64(0x000FFFFFFFFFFFFF), 0},
        {Op::Multiply, tiny, 0.5, f64(0), 0},
        {Op::Multiply, tiny, 0.75, f64(1), 0},
        {Op::Multiply, -tiny, 0.5, f64(0x8000000000000000), 0},
        {Op::Add, max, f64(0x7C90000000000000), f64(0x7FF0000000000000), kOverflow},  // + 2^970
        {Op::Add, max, f64(0x7C80000000000000), f64(0x7FEFFFFFFFFFFFFF), 0},          // + 2^969
        {Op::Multiply, 1e200, 1e200, f64(0x7FF0000000000000), kOverflow},
    };
  }
  static std::vector<Case<T>> whole() {
    return {
        {Op::HalveYourself, 2147483646.5, 0, 1073741823.0, 0},
        {Op::HalveYourself, 2147483647.5, 0, 2147483647.5, kOverflow},   // rounds to 2^31
        {Op::HalveYourself, -2147483648.5, 0, -1073741824.0, 0},        // rounds to -2^31
        {Op::HalveYourself, 1e10, 0, 1e10, kOverflow},
        {Op::IDivide, 1073741824.0, 3.0, f64(kBigThird), 0},
        {Op::IDivide, 2147483647.0, 1.0, 2147483647.0, 0},
    };
  }
  static std::vector<Case<T>> powers() {
    return {
        {Op::RaiseYourself, 10.0, 400, 10.0, kOverflow},
        {Op::RaiseYourself, 2.0, 1024, 2.0, kOverflow},
        {Op::RaiseYourself, 2.0, 1023, f64(0x7FE0000000000000), 0},
        {Op::RaiseYourself, 2.0, -1074, f64(1), 0},
        {Op::RaiseYourself, 3.0, -1, f64(kThird), 0},
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

TYPED_TEST(FloatingValueTest, NewObjectReadsPositiveZero) {
  TypeParam d;
  EXPECT_EQ(bits(d.Value()), 0u);
  EXPECT_EQ(bits(d.Default()), 0u);
}

// Stored, then checked: the field keeps the infinity or NaN of a failed step.
TYPED_TEST(FloatingValueTest, ArithmeticStoresThenChecks) {
  using T = typename Precision<TypeParam>::T;
  const T inf = Ieee<T>::inf, max = Ieee<T>::max, nan = Ieee<T>::nan, tiny = Ieee<T>::tiny;
  const std::vector<Case<T>> cases = {
      {Op::Add, 1, 2, 3, 0},
      {Op::Subtract, 1, 2, -1, 0},
      {Op::Multiply, 3, -4, -12, 0},
      {Op::Divide, 7, 2, 3.5, 0},
      {Op::DoubleYourself, -2.5, 0, -5, 0},
      {Op::IncrementYourself, -1, 0, 0, 0},
      {Op::DecrementYourself, 0, 0, -1, 0},
      {Op::Increment, 2, 0, 3, 0},
      {Op::Decrement, 2, 0, 1, 0},
      // signed zeros
      {Op::Add, -0.0, -0.0, -0.0, 0},
      {Op::Add, 0.0, -0.0, 0.0, 0},
      {Op::Subtract, -0.0, 0.0, -0.0, 0},
      {Op::Subtract, 1, 1, 0.0, 0},
      {Op::Multiply, -1, 0.0, -0.0, 0},
      {Op::Divide, 1, -inf, -0.0, 0},
      // the three conditions, result stored first
      {Op::Divide, 1, 0.0, inf, kDivisionByZero},
      {Op::Divide, -1, 0.0, -inf, kDivisionByZero},
      {Op::Divide, 1, -0.0, -inf, kDivisionByZero},
      {Op::Divide, 0.0, 0.0, nan, kOverflow},
      {Op::Add, inf, -inf, nan, kOverflow},
      {Op::Multiply, inf, 0.0, nan, kOverflow},
      {Op::Divide, inf, inf, nan, kOverflow},
      {Op::DoubleYourself, max, 0, inf, kOverflow},
      {Op::DoubleYourself, -max, 0, -inf, kOverflow},
      {Op::Multiply, max, -2, -inf, kOverflow},
      {Op::IncrementYourself, max, 0, max, 0},  // inexact only
      // what a failed step leaves behind works on as IEEE says: infinities
      // and quiet NaNs as operands raise nothing new
      {Op::Add, inf, 1, inf, 0},
      {Op::DecrementYourself, -inf, 0, -inf, 0},
      {Op::Divide, inf, 0.0, inf, 0},
      {Op::Add, nan, 1, nan, 0},
      {Op::Multiply, nan, 0.0, nan, 0},
      {Op::IncrementYourself, nan, 0, nan, 0},
      {Op::Divide, nan, 0.0, nan, 0},
      // a signalling NaN is an invalid operand
      {Op::Add, Precision<TypeParam>::snan(), 1, nan, kOverflow},
      {Op::Add, 1, Precision<TypeParam>::snan(), nan, kOverflow},
      // underflow is no error
      {Op::Multiply, tiny, 0.5, 0.0, 0},
      {Op::Divide, tiny, -4, -0.0, 0},
      // DecrementToZero subtracts a whole 1 from any positive value
      {Op::DecrementToZero, 0.5, 0, -0.5, 0},
      {Op::DecrementToZero, 0.25, 0, -0.75, 0},
      {Op::DecrementToZero, 1, 0, 0.0, 0},
      {Op::DecrementToZero, tiny, 0, -1, 0},
      {Op::DecrementToZero, 0.0, 0, 0.0, 0},
      {Op::DecrementToZero, -0.0, 0, -0.0, 0},
      {Op::DecrementToZero, -2, 0, -2, 0},
      {Op::DecrementToZero, nan, 0, nan, 0},
      {Op::DecrementToZero, inf, 0, inf, 0},
  };
  run<TypeParam>(cases);
  run<TypeParam>(Precision<TypeParam>::arithmetic());
}

TYPED_TEST(FloatingValueTest, WholeNumberHalvingAndDivision) {
  using T = typename Precision<TypeParam>::T;
  const T inf = Ieee<T>::inf, nan = Ieee<T>::nan;
  // Not const: with -frounding-math, GCC 12 lays out this braced list with
  // the wrong element size when it holds const floats whose initialisers it
  // cannot fold (seen as garbage cases, never as passing ones).
  T seven_six = static_cast<T>(7.6), two_fifths = static_cast<T>(0.4);
  const std::vector<Case<T>> cases = {
      {Op::HalveYourself, 5, 0, 2, 0},
      {Op::HalveYourself, seven_six, 0, 4, 0},
      {Op::HalveYourself, 2.5, 0, 1, 0},    // 2 (half to even), then 1
      {Op::HalveYourself, 3.5, 0, 2, 0},    // 4, then 2
      {Op::HalveYourself, 1.5, 0, 1, 0},
      {Op::HalveYourself, -7, 0, -3, 0},
      {Op::HalveYourself, -2.5, 0, -1, 0},
      {Op::HalveYourself, -1, 0, 0.0, 0},   // never -0
      {Op::HalveYourself, -0.5, 0, 0.0, 0},
      {Op::HalveYourself, -2147483648.0, 0, -1073741824.0, 0},
      {Op::HalveYourself, 3e9, 0, 3e9, kOverflow},
      {Op::HalveYourself, -3e9, 0, -3e9, kOverflow},
      {Op::HalveYourself, inf, 0, inf, kOverflow},
      {Op::HalveYourself, nan, 0, nan, kOverflow},
      {Op::Halve, 5, 0, 2, 0},
      {Op::IDivide, seven_six, 2.5, 4, 0},      // 8 \ 2
      {Op::IDivide, -7.5, 2, -4, 0},         // -8 \ 2
      {Op::IDivide, 7, -2, -3, 0},
      {Op::IDivide, 2.5, 1.5, 1, 0},         // 2 \ 2
      {Op::IDivide, -1, 2, 0.0, 0},
      {Op::IDivide, seven_six, two_fifths, seven_six, kDivisionByZero},
      {Op::IDivide, seven_six, 0.5, seven_six, kDivisionByZero},
      {Op::IDivide, seven_six, -0.0, seven_six, kDivisionByZero},
      {Op::IDivide, -2147483648.0, -1, -2147483648.0, kOverflow},
      {Op::IDivide, 1, 3e9, 1, kOverflow},
      {Op::IDivide, 1, nan, 1, kOverflow},
      {Op::IDivide, 3e9, 0.0, 3e9, kOverflow},   // the value is rounded first
      {Op::IDivide, nan, 1, nan, kOverflow},
  };
  run<TypeParam>(cases);
  run<TypeParam>(Precision<TypeParam>::whole());
}

TYPED_TEST(FloatingValueTest, Powers) {
  using T = typename Precision<TypeParam>::T;
  const T inf = Ieee<T>::inf, nan = Ieee<T>::nan;
  const std::vector<Case<T>> cases = {
      {Op::RaiseYourself, 2, -1, 0.5, 0},
      {Op::RaiseYourself, 2, -2, 0.25, 0},
      {Op::RaiseYourself, -2, 3, -8, 0},
      {Op::RaiseYourself, 10, 2, 100, 0},
      {Op::RaiseYourself, 0.0, 0, 1, 0},
      {Op::RaiseYourself, nan, 0, 1, 0},
      {Op::RaiseYourself, -1, -32768, 1, 0},
      {Op::RaiseYourself, 0.0, -1, 0.0, kDivisionByZero},   // the field keeps its old value
      {Op::RaiseYourself, -0.0, -3, -0.0, kDivisionByZero},
      {Op::RaiseYourself, inf, 2, inf, kOverflow},
      {Op::RaiseYourself, nan, 1, nan, kInvalidCall},
      {Op::Raise, 2, 3, 8, 0},
      {Op::Raise, 0.0, -1, 0.0, kDivisionByZero},
  };
  run<TypeParam>(cases);
  run<TypeParam>(Precision<TypeParam>::powers());
}

TYPED_TEST(FloatingValueTest, PropertiesZappAndZeroCopyBits) {
  using T = typename Precision<TypeParam>::T;
  const T tenth = static_cast<T>(0.1);
  const T patterns[] = {-0.0, Precision<TypeParam>::snan(), std::bit_cast<T>(static_cast<BitsOf<T>>(
                                                 Precision<TypeParam>::kSignalingNaN | 1)),
                        -Ieee<T>::nan, Ieee<T>::tiny, -Ieee<T>::inf, tenth};
  for (T p : patterns) {
    TypeParam d;
    d.Value(p);
    EXPECT_EQ(bits(d.Value()), bits(p));
    EXPECT_EQ(bits(d.Default()), bits(p));
    d.Zero();
    d.Default(p);
    EXPECT_EQ(bits(d.Value()), bits(p));
  }
  TypeParam d;
  d.Value(Ieee<T>::nan);
  d.Zapp();
  EXPECT_EQ(bits(d.Value()), bits(T(-1)));
  d.Value(-0.0);
  d.Zero();
  EXPECT_EQ(bits(d.Value()), 0u);
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

  a.PushAndSet(4);
  EXPECT_EQ(a.Value(), 4);
  a.Value(9);
  a.Pop();
  EXPECT_EQ(a.Value(), 5);

  a.Value(1);
  a.Push();
  a.Value(2);
  a.Push();
  a.Drop();
  a.Pop();
  EXPECT_EQ(a.Value(), 1);
}

TYPED_TEST(FloatingValueTest, HistoryErrorsPassOnAndLeaveValue) {
  TypeParam d;
  d.Value(7);
  for (auto op : {+[](TypeParam& x) { x.Pop(); }, +[](TypeParam& x) { x.Drop(); }}) {
    try {
      op(d);
      ADD_FAILURE() << "an empty history gave something";
    } catch (const Error& e) {
      EXPECT_EQ(e.number(), kHistoryEmptyNumber);
      EXPECT_EQ(e.source(), kHistorySource);
    }
    EXPECT_EQ(d.Value(), 7);
  }
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
  EXPECT_EQ(bits(d.Limit()), 0u);
  d.Limit(2.5f);
  EXPECT_EQ(d.LowerLimit(), 2.5f);
  d.LowerLimit(-0.0f);
  EXPECT_EQ(bits(d.Limit()), 0x80000000u);
  EXPECT_EQ(bits(d.UpperLimit()), 0u);
  d.SetTheLimits(10, 5);  // no ordering check
  EXPECT_EQ(d.LowerLimit(), 10);
  EXPECT_EQ(d.UpperLimit(), 5);
  d.Value(3);
  for (float add : {-1.0f, 0.0f, 5.0f, 7.0f, 10.0f, 11.0f}) {
    d.ModuloAdd(add);
    EXPECT_EQ(d.Value(), 3) << add;
  }
}

TEST(SingleDataLimits, ModuloAdd) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float max = std::numeric_limits<float>::max();
  struct M { float lower, upper, start, add, expected; int error; };
  const M cases[] = {
      {0, 10, 8, 5, 5, 0},          // 13 passes 10: 10 - 5
      {0, 10, 8, 2, 10, 0},         // reaching the upper limit is fine
      {0, 10, 1, 10, 0, 0},         // 11 passes: 10 - 10
      {0, 10, 8, 0, 8, 0},          // both limits inclusive
      {0, 10, 8, 10.5f, 8, 0},      // outside the limits: nothing
      {0, 10, 8, -0.5f, 8, 0},
      {0, 10, 8, nan, 8, 0},
      {nan, 10, 8, 1, 8, 0},
      {0, nan, 8, 1, 8, 0},
      {-10, 10, 3, -5, -2, 0},
      {0, 10, 16777216, 1, 9, 0},   // the rounded sum passes: 10 - 1
      {0, 2, 1, f32(0x33800000), 1, 0},   // the sum rounds like Add
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

TEST(SingleDataLimits, GreaterAndLesserOfTheTwo) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const float snan = f32(0x7FA00000);
  struct G { float v1, v2, greater, lesser; };
  const G cases[] = {
      {3, 3, 3, 3},         {1, 2, 2, 1},       {2, 1, 2, 1},
      {0.0f, -0.0f, -0.0f, -0.0f},  // equal: Value2 both times
      {-0.0f, 0.0f, 0.0f, 0.0f},
      {nan, 1, 1, 1},       {1, nan, nan, nan},
      {snan, 1, 1, 1},      {1, snan, snan, snan},
      {-inf, inf, inf, -inf},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(show(c.v1) + ", " + show(c.v2));
    SingleData d;
    d.Value(99);
    d.GreaterOfTheTwo(c.v1, c.v2);
    EXPECT_EQ(bits(d.Value()), bits(c.greater));
    d.Value(99);
    d.LesserOfTheTwo(c.v1, c.v2);
    EXPECT_EQ(bits(d.Value()), bits(c.lesser));
  }
}

// A host with unmasked traps and another rounding mode.

// Arms the environment for one test and puts the thread's original one back
// at the end, whatever happens in between.
class TrappingHost {
 public:
  TrappingHost() {
    std::fegetenv(&original_);
    std::feclearexcept(FE_ALL_EXCEPT);
    std::feraiseexcept(FE_INEXACT);  // a sticky flag of the host's own
    std::fesetround(FE_TOWARDZERO);
    feenableexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW | FE_UNDERFLOW);
    std::fegetenv(&armed_);
  }
  ~TrappingHost() { std::fesetenv(&original_); }
  TrappingHost(const TrappingHost&) = delete;
  TrappingHost& operator=(const TrappingHost&) = delete;

  bool untouched() const {
    std::fenv_t now;
    std::fegetenv(&now);
    return std::memcmp(&now, &armed_, sizeof now) == 0;
  }

 private:
  std::fenv_t original_;
  std::fenv_t armed_;
};

TEST(FloatingValueTrapsDeathTest, UnguardedDivisionTrapsInThisEnvironment) {
  // Shows the test below is meaningful: the same conditions outside a scope
  // do raise SIGFPE here.
  EXPECT_DEATH(
      {
        TrappingHost host;
        volatile double zero = 0.0;
        volatile double r = 1.0 / zero;
        (void)r;
      },
      "");
}

// Every step that could raise a condition runs under the host's unmasked
// traps: each error arrives as an error, no SIGFPE ends the process, results
// are rounded to nearest, and the environment is bit-identical afterwards.
TYPED_TEST(FloatingValueTest, UnmaskedTrapsNeitherFireNorChange) {
  using T = typename Precision<TypeParam>::T;
  using P = Precision<TypeParam>;
  constexpr bool kFloat = std::is_same_v<T, float>;
  const T one = 1, zero = 0, three = 3, max = Ieee<T>::max, tiny = Ieee<T>::tiny, half = 0.5;
  // Only exact constants here: GCC may convert an inexact one where it is
  // used, inside the armed environment.
  const T snan = Precision<TypeParam>::snan(), nan = Ieee<T>::nan, ten = 10, seven_half = 7.5,
          quarter = 0.25, big = 1073741824.0;
  struct Step { int error; BitsOf<T> value; };
  std::vector<Step> got;
  TypeParam d;
  {
    TrappingHost host;
    auto step = [&](T start, auto&& op) {
      d.Value(start);
      const int e = error_of([&] { op(d); });
      got.push_back({e, bits(d.Value())});
    };
    step(one, [&](TypeParam& x) { x.Divide(three); });
    step(one, [&](TypeParam& x) { x.Divide(zero); });
    step(zero, [&](TypeParam& x) { x.Divide(zero); });
    step(max, [&](TypeParam& x) { x.DoubleYourself(); });
    step(tiny, [&](TypeParam& x) { x.Multiply(half); });
    step(snan, [&](TypeParam& x) { x.Add(one); });
    step(nan, [&](TypeParam& x) { x.HalveYourself(); });
    step(snan, [&](TypeParam& x) { x.DecrementToZero(); });
    step(seven_half, [&](TypeParam& x) { x.IDivide(quarter); });
    step(one, [&](TypeParam& x) { x.IDivide(nan); });
    step(big, [&](TypeParam& x) { x.IDivide(three); });  // float: rounds the quotient
    step(zero, [&](TypeParam& x) { x.RaiseYourself(-1); });
    // float: 10^39 overflows only in the final rounding; double: exact
    step(ten, [&](TypeParam& x) { x.RaiseYourself(kFloat ? 39 : 22); });
    step(snan, [&](TypeParam& x) {
      x.Push();
      x.Zero();
      x.Pop();
    });
    if constexpr (kFloat) {
      step(max, [&](TypeParam& x) {
        x.SetTheLimits(zero, std::numeric_limits<T>::infinity());
        x.ModuloAdd(max);
      });
      step(one, [&](TypeParam& x) { x.GreaterOfTheTwo(snan, one); });
    }
    EXPECT_TRUE(host.untouched());
  }
  const T inf = Ieee<T>::inf;
  std::vector<Step> want = {
      {0, P::kThird},  // to nearest, not toward zero
      {kDivisionByZero, bits(inf)},
      {kOverflow, bits(nan)},
      {kOverflow, bits(inf)},
      {0, 0},
      {kOverflow, bits(nan)},
      {kOverflow, bits(nan)},
      {0, bits(snan)},
      {kDivisionByZero, bits(seven_half)},
      {kOverflow, bits(one)},
      {0, P::kBigThird},
      {kDivisionByZero, 0},
      {0, kFloat ? bits(inf) : bits(T(1e22))},
      {0, bits(snan)},
  };
  if constexpr (kFloat) {
    want.push_back({kOverflow, bits(max)});
    want.push_back({0, bits(one)});
  }
  ASSERT_EQ(got.size(), want.size());
  for (std::size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].error, want[i].error) << "step " << i;
    if (want[i].value == bits(nan)) {  // a generated NaN: any NaN will do
      EXPECT_TRUE(std::isnan(std::bit_cast<T>(got[i].value))) << "step " << i;
    } else {
      EXPECT_EQ(got[i].value, want[i].value) << "step " << i;
    }
  }
}

}  // namespace
}  // namespace valmetra
