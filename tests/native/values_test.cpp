// The value objects. A row is one operation from one starting Value: the
// Value it leaves and the error it raises. Integer operations test before
// they store (an error row leaves the start); floating ones store, then check.
#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <functional>
#include <limits>
#include <thread>
#include <vector>

#include "values/boolean_data.h"
#include "values/double_data.h"
#include "values/integer_data.h"
#include "values/long_data.h"
#include "values/single_data.h"

#include "test_support.h"

namespace valmetra {
namespace {

using test::error_of;
constexpr int E5 = 5, E6 = 6, E11 = 11;

template <class D>
using ValueOf = std::remove_cvref_t<decltype(std::declval<const D&>().Value())>;

template <class T>
auto bits(T v) {
  if constexpr (std::is_floating_point_v<T>) {
    return std::bit_cast<std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>(v);
  } else {
    return v;
  }
}
template <class T>
T from_bits(std::uint64_t b) {
  if constexpr (sizeof(T) == 4) return std::bit_cast<T>(static_cast<std::uint32_t>(b)); else return std::bit_cast<T>(b);
}
// Same bits, or both NaN (a generated NaN's sign and payload are the hardware's).
// Looked at as bits: a comparison would trap on a signalling NaN under a host's traps.
template <class T>
bool same(T a, T b) {
  if constexpr (std::is_floating_point_v<T>) {
    const auto inf = bits(std::numeric_limits<T>::infinity()) << 1;  // the sign shifted out
    if (decltype(inf)(bits(a) << 1) > inf && decltype(inf)(bits(b) << 1) > inf) return true;
  }
  return bits(a) == bits(b);
}

template <class D>
struct Row {
  const char* what;
  std::function<void(D&)> op;
  ValueOf<D> start, expected;
  int error = 0;
};
#define OP(call) #call, [&](auto& d) { d.call; }
// A getter's result made the row's Value.
#define GET(steps, getter) #steps " " #getter, [](auto& d) { d.steps; d.Value(d.getter); }

template <class D>
void run(const std::vector<Row<D>>& rows) {
  for (const auto& r : rows) {
    D d;
    d.Value(r.start);
    EXPECT_EQ(error_of([&] { r.op(d); }), r.error) << r.what << " from " << +r.start;
    EXPECT_TRUE(same(d.Value(), r.expected)) << r.what << " from " << +r.start << ": " << +d.Value();
  }
}

class WithFreshHistory : public ::testing::Test {
 protected:
  void SetUp() override { release_thread_history(); }
  void TearDown() override { release_thread_history(); }
};

template <class D>
class Integral : public WithFreshHistory {};
using IntegralClasses = ::testing::Types<IntegerData, LongData>;
TYPED_TEST_SUITE(Integral, IntegralClasses);

TYPED_TEST(Integral, Operations) {
  using C = TypeParam;
  constexpr ValueOf<C> max = std::numeric_limits<ValueOf<C>>::max(), min = std::numeric_limits<ValueOf<C>>::min();
  constexpr Integer width = std::numeric_limits<ValueOf<C>>::digits + 1;
  auto madd = [](ValueOf<C> lower, ValueOf<C> upper, ValueOf<C> amount) {
    return [=](C& c) { c.SetTheLimits(lower, upper); c.ModuloAdd(amount); };
  };
  run<C>({
      {OP(Add(1)), max, max, E6}, {OP(Add(-1)), min, min, E6}, {OP(Subtract(1)), min, min, E6},
      {OP(Subtract(min)), -1, max}, {OP(Multiply(-1)), min, min, E6}, {OP(Multiply(3)), -5, -15},
      {OP(DoubleYourself()), max / 2 + 1, max / 2 + 1, E6}, {OP(DoubleYourself()), min / 2, min},
      {OP(IncrementYourself()), 4, 5}, {OP(IncrementYourself()), max, max, E6}, {OP(Increment()), max, max, E6},
      {OP(IncrementAndGet()), -1, 0}, {OP(IncrementAndGet()), max, max, E6}, {OP(DecrementYourself()), 0, -1},
      {OP(Decrement()), min, min, E6}, {OP(Decrement()), 2, 1}, {OP(IDivide(0)), 5, 5, E11},
      {OP(IDivide(-1)), min, min, E6}, {OP(IDivide(2)), -7, -3}, {OP(IDivide(-2)), min, min / -2},
      // Divide: in floating point, the quotient rounded half to even
      {OP(Divide(2)), 5, 2}, {OP(Divide(2)), -7, -4}, {OP(Divide(3)), 2, 1}, {OP(Divide(2)), max, max / 2 + 1},
      {OP(Divide(0)), 5, 5, E11}, {OP(Divide(0)), 0, 0, E6}, {OP(Divide(-1)), min, min, E6},
      {OP(HalveYourself()), -7, -3}, {OP(Halve()), min, min / 2}, {OP(RaiseYourself(-1)), 2, 0},
      {OP(RaiseYourself(-1)), -1, -1}, {OP(RaiseYourself(0)), 0, 1}, {OP(RaiseYourself(3)), -2, -8},
      {OP(RaiseYourself(width - 2)), 2, max / 2 + 1}, {OP(Raise(width - 1)), -2, min},
      {OP(RaiseYourself(width - 1)), 2, 2, E6}, {OP(RaiseYourself(-1)), 0, 0, E11},
      {OP(RaiseYourself(-1070)), 2, 0},  // a denormal power
      {OP(GreaterOfTheTwo(3, -8)), 50, 3}, {OP(GreaterOfTheTwo(-8, 3)), 50, 3}, {OP(LesserOfTheTwo(3, -8)), -50, -8},
      {OP(LesserOfTheTwo(-8, 3)), 50, -8}, {OP(Zapp()), 8, -1}, {OP(Zero()), 8, 0},
      // counting against limit arguments
      {OP(IncrementToLimit(13)), 12, 13}, {OP(IncrementToLimit(13)), 13, 1},
      {OP(IncrementToLimit(max)), max - 1, max}, {OP(IncrementToMaximum(5)), 4, 5}, {OP(IncrementToMaximum(5)), 5, 5},
      {OP(IncrementToMaximum(max)), max, max}, {OP(IncrementToBottomLimit(10, 3)), 9, 10},
      {OP(IncrementToBottomLimit(10, 3)), 10, 3}, {OP(IncrementToBottomLimit(max, 0)), max, max, E6},
      {OP(ZincrementToLimit(5)), 4, 5}, {OP(ZincrementToLimit(5)), 5, 0}, {OP(ZincrementToLimit(max)), max, max, E6},
      {OP(IncrementToZeroLimit(3)), 3, 0}, {OP(ZdecrementToLimit(5)), 2, 1}, {OP(ZdecrementToLimit(5)), 1, 5},
      {OP(ZdecrementToLimit(5)), min, min, E6}, {OP(DecrementToZero()), 3, 2}, {OP(DecrementToZero()), 1, 0},
      {OP(DecrementToZero()), 0, 0}, {OP(DecrementToZero()), -4, -4},
      // ModuloAdd: inside the stored limits (both inclusive); a sum above the
      // upper limit gives the upper limit minus the amount
      {"1..13 +5", madd(1, 13, 5), 10, 8}, {"1..13 +1", madd(1, 13, 1), 3, 4}, {"1..13 +0", madd(1, 13, 0), 3, 3},
      {"1..13 +14", madd(1, 13, 14), 3, 3}, {"1..13 +13", madd(1, 13, 13), 0, 13},
      {"0..10 +3", madd(0, 10, 3), 50, 7}, {"10..5 +7", madd(10, 5, 7), 2, 2},
      {"0..max +1", madd(0, max, 1), max, max, E6},
      // the limits: Limit is LowerLimit, no ordering check; Default is Value
      {GET(Limit(7), LowerLimit()), 1, 7}, {GET(LowerLimit(4), Limit()), 1, 4}, {GET(Default(-9), Value()), 1, -9},
      {GET(SetTheLimits(9, -9), LowerLimit()), 1, 9}, {GET(SetTheLimits(9, -9), UpperLimit()), 1, -9},
      {GET(UpperLimit(3), LowerLimit()), 1, 0}, {GET(LowerLimit(3), UpperLimit()), 1, 0},
  });
}

template <class T>
constexpr T kSignallingNaN = std::is_same_v<T, float> ? std::bit_cast<float>(0x7FA00000u)
                                                      : T(std::bit_cast<double>(0x7FF4000000000000ull));

TEST(IntegerDataOnly, Operations) {
  using C = IntegerData;
  auto to_this_limit = [](Integer lower, Integer amount) {
    return [=](C& c) { c.LowerLimit(lower); c.ModuloAddToThisLimit(amount); EXPECT_EQ(c.UpperLimit(), amount); };
  };
  Integer other = 9;
  run<C>({
      {OP(AddToBottomLimit(5, 10, 2)), 6, 2}, {OP(AddToBottomLimit(5, 10, 2)), 5, 10},
      {OP(AddToBottomLimit(32767, 5, 0)), 1, 1, E6}, {OP(AddToMaximum(3, 5)), 4, 4}, {OP(AddToMaximum(1, 5)), 4, 5},
      {OP(AddToMaximum(32767, 5)), 1, 1, E6}, {OP(DecrementToBottomLimit(3, 9)), 3, 9},
      {OP(DecrementToBottomLimit(3, 9)), 5, 4}, {OP(DecrementToBottomLimit(-32768, 9)), -32768, -32768, E6},
      {OP(DecrementToUpperLimit(13)), 1, 13}, {OP(DecrementToUpperLimit(13)), 2, 1},
      {OP(DecrementToUpperLimit(13)), -5, 13}, {OP(DecrementToUpperLimit(13)), 9, 8}, {OP(DecrementABS()), 0, -1},
      {OP(DecrementABS()), 5, 4}, {OP(DecrementABS()), -1, 0}, {OP(DecrementABS()), -32768, -32767},
      {"lower 0, 7", to_this_limit(0, 7), 3, 0}, {"lower 0, 7", to_this_limit(0, 7), -2, 5},
      {"lower 10, 7", to_this_limit(10, 7), 3, 3}, {"-32768..-1", to_this_limit(-32768, -1), -32768, -32768, E6},
      {OP(Swap(other)), 2, 9}, {OP(ValueBe4Increment()), 5, 6}, {GET(Value(5), ValueBe4Increment()), 0, 5},
      {GET(Value(5), ValueAfterIncrement()), 0, 6},
      {OP(ValueBe4Increment()), 32767, 32767, E6}, {OP(ValueAfterIncrement()), 32767, 32767, E6},
      // flags are -1 or 0; IsBetween takes its bounds in either order, both inclusive
      {GET(Value(1), IsBetween(1, 5)), 0, -1}, {GET(Value(5), IsBetween(1, 5)), 0, -1},
      {GET(Value(3), IsBetween(5, 1)), 0, -1}, {GET(Value(5), IsBetween(5, 1)), 0, -1},
      {GET(Value(1), IsBetween(5, 1)), 0, -1}, {GET(Value(0), IsBetween(1, 5)), 9, 0},
      {GET(Value(6), IsBetween(5, 1)), 9, 0}, {GET(Value(-4), IsBetween(-4, -4)), 0, -1},
      {GET(Value(2), IsBetween(-4, -4)), 9, 0}, {GET(Value(-3), IsBetween(-2, -9)), 0, -1},
      {GET(Value(-32768), IsBetween(-32768, 32767)), 0, -1},
      {GET(Value(6), IsEven()), 0, -1}, {GET(Value(-3), IsEven()), 9, 0}, {GET(Value(-32768), IsEven()), 0, -1},
      {GET(Value(5), IsOdd()), 0, -1}, {GET(Value(-3), IsOdd()), 0, -1}, {GET(Value(-4), IsOdd()), 9, 0},
  });
  EXPECT_EQ(other, 2);
}

TEST_F(WithFreshHistory, BooleanData) {
  using C = BooleanData;
  std::vector<Row<C>> rows;
  for (Flag start : {Flag{0}, Flag{-1}, Flag{1}, Flag{0x7FFF}}) {  // setters store exactly -1 or 0
    rows.insert(rows.end(), {{OP(No()), start, 0}, {OP(Reset()), start, 0}, {OP(ResetThis()), start, 0},
                             {OP(SetThis()), start, -1}, {OP(Yes()), start, -1}, {OP(ToggleThis()), start, -1},
                             {OP(Toggle()), start, -1}, {OP(Default(0x1234)), start, 0x1234},
                             {OP(Drop()), start, start}});
  }
  run<C>(rows);
  EXPECT_EQ(BooleanData().Value(), 0);
  // The history never touches Value; Drop calls nothing (the newest flag stays).
  BooleanData a, b;
  b.Push(-1);
  b.Push(5);
  b.Drop();
  EXPECT_EQ(a.Pop(), 5);
  Flag variable = -1;
  b.Value(7);
  b.PushAndSet(variable, 0);
  EXPECT_EQ(variable, 0);
  EXPECT_EQ(b.Value(), 7);
  EXPECT_EQ(b.Pop(), -1);
  EXPECT_EQ(b.Pop(), -1);
  Integer i = -1;
  history().PushInteger(i);  // not the flag history
  EXPECT_TRUE(test::history_empty_error([&] { b.Pop(); }, u"Boolean"));
  b.Push(-1);
  std::thread([] {  // another thread has a history of its own
    EXPECT_EQ(error_of([] { BooleanData().Pop(); }), E5);
    release_thread_history();
  }).join();
}

template <class D>
class Floating : public WithFreshHistory {};
using FloatingClasses = ::testing::Types<SingleData, DoubleData>;
TYPED_TEST_SUITE(Floating, FloatingClasses);

TYPED_TEST(Floating, Operations) {
  using T = ValueOf<TypeParam>;
  constexpr bool single = std::is_same_v<T, float>;
  static constexpr T inf = std::numeric_limits<T>::infinity(), max = std::numeric_limits<T>::max(),
                     nan = std::numeric_limits<T>::quiet_NaN(), snan = kSignallingNaN<T>,
                     tiny = std::numeric_limits<T>::denorm_min();
  const T third = from_bits<T>(single ? 0x3EAAAAAB : 0x3FD5555555555555);
  run<TypeParam>({
      {OP(Subtract(2)), 1, -1}, {OP(IncrementYourself()), -1, 0}, {OP(DecrementYourself()), 0, -1},
      {OP(Increment()), 2, 3}, {OP(Decrement()), 2, 1}, {OP(Add(-0.0)), 0.0, 0.0}, {OP(Multiply(0.0)), -1, -0.0},
      {OP(Divide(3)), 1, third}, {OP(Multiply(0.5)), -tiny, -0.0}, {OP(Multiply(0.5)), tiny, 0.0},
      // the three conditions, the result stored first
      {OP(Divide(0.0)), 1, inf, E11}, {OP(Divide(-0.0)), 1, -inf, E11}, {OP(Divide(0.0)), 0.0, nan, E6},
      {OP(Add(-inf)), inf, nan, E6}, {OP(DoubleYourself()), max, inf, E6}, {OP(Multiply(-2)), max, -inf, E6},
      {OP(IncrementYourself()), max, max},          // inexact only
      // infinities and quiet NaNs as operands raise nothing new; a signalling NaN does
      {OP(Add(1)), inf, inf}, {OP(Divide(0.0)), inf, inf}, {OP(Add(1)), nan, nan}, {OP(Divide(0.0)), nan, nan},
      {OP(Add(1)), snan, nan, E6}, {OP(Add(snan)), 1, nan, E6},
      // a whole 1 from any positive value
      {OP(DecrementToZero()), 0.5, -0.5}, {OP(DecrementToZero()), 0.0, 0.0}, {OP(DecrementToZero()), -2, -2},
      {OP(DecrementToZero()), nan, nan},
      // whole numbers through Long, halves to even: never -0, Overflow outside Long or for NaN
      {OP(HalveYourself()), 7.75, 4}, {OP(HalveYourself()), 2.5, 1}, {OP(HalveYourself()), 3.5, 2},
      {OP(HalveYourself()), -7, -3}, {OP(HalveYourself()), -1, 0.0},
      {OP(HalveYourself()), -2147483648.0, -1073741824.0}, {OP(HalveYourself()), 3e9, 3e9, E6},
      {OP(HalveYourself()), nan, nan, E6}, {OP(Halve()), 5, 2}, {OP(IDivide(2.5)), 7.75, 4},
      {OP(IDivide(2)), -7.5, -4}, {OP(IDivide(-2)), 7, -3}, {OP(IDivide(1.5)), 2.5, 1}, {OP(IDivide(2)), -1, 0.0},
      {OP(IDivide(0.5)), 7.75, 7.75, E11}, {OP(IDivide(-1)), -2147483648.0, -2147483648.0, E6},
      {OP(IDivide(3e9)), 1, 1, E6}, {OP(IDivide(0.0)), 3e9, 3e9, E6}, {OP(IDivide(nan)), 1, 1, E6},
      // powers: the power service's errors leave the field as it was
      {OP(RaiseYourself(-1)), 2, 0.5}, {OP(RaiseYourself(3)), -2, -8}, {OP(RaiseYourself(0)), nan, 1},
      {OP(RaiseYourself(-32768)), -1, 1}, {OP(RaiseYourself(-1)), 0.0, 0.0, E11},
      {OP(RaiseYourself(-3)), -0.0, -0.0, E11}, {OP(RaiseYourself(2)), inf, inf, E6},
      {OP(RaiseYourself(1)), nan, nan, E5}, {OP(RaiseYourself(400)), 10, 10, E6}, {OP(Raise(3)), 2, 8},
      {OP(Zapp()), 8, -1}, {OP(Zero()), -0.0, 0.0},
      {OP(Default(-0.0)), 1, -0.0},                 {OP(Value(snan)), 1, snan},  // bits copied
  });
  if constexpr (single) {  // one rounding to float, ties to even; beyond float only at the end
    run<TypeParam>({
        {OP(IncrementYourself()), 16777216.0f, 16777216.0f}, {OP(Add(1)), 16777218.0f, 16777220.0f},
        {OP(Add(from_bits<T>(0x33800001))), 1, from_bits<T>(0x3F800001)},
        {OP(Subtract(tiny)), from_bits<T>(0x00800000), from_bits<T>(0x007FFFFF)},
        {OP(Multiply(1.5f)), tiny, from_bits<T>(2)}, {OP(Add(from_bits<T>(0x73000000))), max, inf, E6},
        {OP(Add(from_bits<T>(0x72800000))), max, max},
        {OP(HalveYourself()), from_bits<T>(0x4EFFFFFF), from_bits<T>(0x4E7FFFFF)},
        {OP(HalveYourself()), 2147483648.0f, 2147483648.0f, E6},
        {OP(IDivide(3)), 1073741824.0f, from_bits<T>(0x4DAAAAAB)},
        {OP(IDivide(9)), 1073742592.0f, from_bits<T>(0x4CE38E44)},   // 119304732: tie up
        {OP(IDivide(11)), 1073742080.0f, from_bits<T>(0x4CBA2E8E)},  // 97612916: tie down
        {OP(RaiseYourself(39)), 10, inf}, {OP(RaiseYourself(127)), 2, from_bits<T>(0x7F000000)},
        {OP(RaiseYourself(-150)), 2, 0.0},
    });
  } else {
    run<TypeParam>({
        {OP(IncrementYourself()), 9007199254740992.0, 9007199254740992.0},
        {OP(Add(from_bits<T>(0x7C90000000000000))), max, inf, E6}, {OP(RaiseYourself(1024)), 2, 2, E6},
        {OP(RaiseYourself(1023)), 2, 0x1p1023},
    });
  }
}

TEST(SingleDataOnly, LimitsModuloAddAndChoosing) {
  constexpr float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN(),
                  max = std::numeric_limits<float>::max(), snan = kSignallingNaN<float>;
  using C = SingleData;
  auto madd = [](float lower, float upper, float amount) {
    return [=](C& c) { c.SetTheLimits(lower, upper); c.ModuloAdd(amount); };
  };
  run<C>({
      {GET(Limit(2.5f), LowerLimit()), 0, 2.5f}, {GET(LowerLimit(-0.0f), Limit()), 0, -0.0f},
      {GET(SetTheLimits(10, 5), LowerLimit()), 0, 10}, {GET(SetTheLimits(10, 5), UpperLimit()), 0, 5},
      {"0..10 +5", madd(0, 10, 5), 8, 5}, {"0..10 +2", madd(0, 10, 2), 8, 10}, {"0..10 +0", madd(0, 10, 0), 8, 8},
      {"0..10 +10", madd(0, 10, 10), -5, 5}, {"0..10 +10.5", madd(0, 10, 10.5f), 8, 8},
      {"0..10 -0.5", madd(0, 10, -0.5f), 8, 8}, {"0..10 +NaN", madd(0, 10, nan), 8, 8},
      {"NaN..10 +1", madd(nan, 10, 1), 8, 8}, {"0..NaN +1", madd(0, nan, 1), 8, 8},
      {"10..5 +7", madd(10, 5, 7), 3, 3},
      {"0..10 +1", madd(0, 10, 1), nan, nan},       // a NaN sum does not pass the limit
      {"0..inf +max", madd(0, inf, max), max, max, E6},  // checked before storing
      {"-max..max -max", madd(-max, max, -max), inf, inf, E6},
      // IEEE comparisons: Value2 whenever false; bits copied
      {OP(GreaterOfTheTwo(1, 2)), 0, 2}, {OP(GreaterOfTheTwo(2, 1)), 0, 2}, {OP(LesserOfTheTwo(1, 2)), 0, 1},
      {OP(LesserOfTheTwo(2, 1)), 0, 1}, {OP(GreaterOfTheTwo(0.0f, -0.0f)), 1, -0.0f},
      {OP(LesserOfTheTwo(0.0f, -0.0f)), 1, -0.0f}, {OP(GreaterOfTheTwo(nan, 1)), 0, 1},
      {OP(LesserOfTheTwo(1, snan)), 0, snan},
  });
}

}  // namespace
}  // namespace valmetra
