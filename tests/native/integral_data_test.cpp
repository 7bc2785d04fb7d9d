// IntegerData and LongData. Operations both classes have run as typed tests
// over both, with the limits of each width; the 16-bit-only ones follow.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "values/integer_data.h"
#include "values/long_data.h"

#include "test_support.h"

namespace valmetra {
namespace {

constexpr int E5 = 5, E6 = 6, E11 = 11;

// Number of the error `f` raised, 0 when it succeeded.
using test::error_of;

template <class C>
using ValueOf = decltype(std::declval<const C&>().Value());
template <class C>
constexpr ValueOf<C> kMax = std::numeric_limits<ValueOf<C>>::max();
template <class C>
constexpr ValueOf<C> kMin = std::numeric_limits<ValueOf<C>>::min();
template <class C>
constexpr Integer kBits = std::numeric_limits<ValueOf<C>>::digits + 1;

// One operation from one starting Value: the Value it leaves, or the error it
// raises (and then Value must be the start).
template <class C>
struct Case {
  const char* what;
  ValueOf<C> start;
  std::function<void(C&)> op;
  ValueOf<C> expected;
  int error = 0;
};

template <class C>
void run(const std::vector<Case<C>>& cases) {
  for (const auto& c : cases) {
    C obj;
    obj.Value(c.start);
    EXPECT_EQ(error_of([&] { c.op(obj); }), c.error) << c.what << " from " << +c.start;
    EXPECT_EQ(obj.Value(), c.error ? c.start : c.expected) << c.what << " from " << +c.start;
  }
}

template <class C>
class IntegralData : public ::testing::Test {};
using Classes = ::testing::Types<IntegerData, LongData>;
TYPED_TEST_SUITE(IntegralData, Classes);

// SetTheLimits is covered by the ModuloAdd tables (reversed limits included).
TYPED_TEST(IntegralData, NewObjectReadsZeroAndLimitIsLowerLimit) {
  TypeParam a{};  // as the COM objects hold their core
  EXPECT_EQ(a.Value(), 0);
  EXPECT_EQ(a.LowerLimit(), 0);
  EXPECT_EQ(a.UpperLimit(), 0);
  a.Limit(7);
  EXPECT_EQ(a.LowerLimit(), 7);
  a.LowerLimit(4);
  EXPECT_EQ(a.Limit(), 4);
  a.Default(-9);
  EXPECT_EQ(a.Value(), -9);
}

TYPED_TEST(IntegralData, CheckedArithmeticFailsAtTheLimitsWithoutStoring) {
  using C = TypeParam;
  run<C>({
      {"Add 1", kMax<C>, [](C& c) { c.Add(1); }, 0, E6},
      {"Add -1", kMin<C>, [](C& c) { c.Add(-1); }, 0, E6},
      {"Subtract 1", kMin<C>, [](C& c) { c.Subtract(1); }, 0, E6},
      {"Subtract -1", kMax<C>, [](C& c) { c.Subtract(-1); }, 0, E6},
      {"Subtract max", -1, [](C& c) { c.Subtract(kMax<C>); }, kMin<C>},
      {"Subtract min", -1, [](C& c) { c.Subtract(kMin<C>); }, kMax<C>},
      {"Multiply -1", kMin<C>, [](C& c) { c.Multiply(-1); }, 0, E6},
      {"DoubleYourself", kMax<C> / 2 + 1, [](C& c) { c.DoubleYourself(); }, 0, E6},
      {"DoubleYourself", kMin<C> / 2, [](C& c) { c.DoubleYourself(); }, kMin<C>},
      {"IncrementYourself", kMax<C>, [](C& c) { c.IncrementYourself(); }, 0, E6},
      {"Increment", kMax<C>, [](C& c) { c.Increment(); }, 0, E6},
      {"IncrementAndGet", kMax<C>, [](C& c) { c.IncrementAndGet(); }, 0, E6},
      {"DecrementYourself", kMin<C>, [](C& c) { c.DecrementYourself(); }, 0, E6},
      {"Decrement", kMin<C>, [](C& c) { c.Decrement(); }, 0, E6},
      {"IDivide 0", 5, [](C& c) { c.IDivide(0); }, 0, E11},
      {"IDivide -1", kMin<C>, [](C& c) { c.IDivide(-1); }, 0, E6},
      {"IDivide -2", kMin<C>, [](C& c) { c.IDivide(-2); }, kMin<C> / -2},
      {"Divide 0", 5, [](C& c) { c.Divide(0); }, 0, E11},
      {"Divide 0", 0, [](C& c) { c.Divide(0); }, 0, E6},
      {"Divide -1", kMin<C>, [](C& c) { c.Divide(-1); }, 0, E6},
      {"RaiseYourself bits-1", 2, [](C& c) { c.RaiseYourself(kBits<C> - 1); }, 0, E6},
      {"RaiseYourself 0 to -1", 0, [](C& c) { c.RaiseYourself(-1); }, 0, E11},
      {"IncrementToBottomLimit", kMax<C>, [](C& c) { c.IncrementToBottomLimit(kMax<C>, 0); }, 0, E6},
      {"ZincrementToLimit", kMax<C>, [](C& c) { c.ZincrementToLimit(kMax<C>); }, 0, E6},
      {"ZdecrementToLimit", kMin<C>, [](C& c) { c.ZdecrementToLimit(5); }, 0, E6},
      {"IncrementToMaximum max", kMax<C>, [](C& c) { c.IncrementToMaximum(kMax<C>); }, kMax<C>},
      {"IncrementToLimit max", kMax<C> - 1, [](C& c) { c.IncrementToLimit(kMax<C>); }, kMax<C>},
  });
}

TYPED_TEST(IntegralData, DivisionAndPowersRoundHalvesToEven) {
  using C = TypeParam;
  run<C>({
      {"Divide 2", 5, [](C& c) { c.Divide(2); }, 2},
      {"Divide 2", 7, [](C& c) { c.Divide(2); }, 4},
      {"Divide 2", -7, [](C& c) { c.Divide(2); }, -4},
      {"Divide 3", 2, [](C& c) { c.Divide(3); }, 1},
      {"Divide 2", kMax<C>, [](C& c) { c.Divide(2); }, kMax<C> / 2 + 1},  // ...x.5, even above
      {"IDivide 2", -7, [](C& c) { c.IDivide(2); }, -3},
      {"HalveYourself", -7, [](C& c) { c.HalveYourself(); }, -3},
      {"Halve", kMin<C>, [](C& c) { c.Halve(); }, kMin<C> / 2},
      {"RaiseYourself -1", 2, [](C& c) { c.RaiseYourself(-1); }, 0},  // 0.5
      {"RaiseYourself -1", -1, [](C& c) { c.RaiseYourself(-1); }, -1},
      {"RaiseYourself 0", 0, [](C& c) { c.RaiseYourself(0); }, 1},
      {"RaiseYourself 3", -2, [](C& c) { c.RaiseYourself(3); }, -8},
      {"RaiseYourself bits-2", 2, [](C& c) { c.RaiseYourself(kBits<C> - 2); }, kMax<C> / 2 + 1},
      {"Raise bits-1", -2, [](C& c) { c.Raise(kBits<C> - 1); }, kMin<C>},
  });
}

TYPED_TEST(IntegralData, CountingWrapsOrSaturatesAtTheLimitArgument) {
  using C = TypeParam;
  run<C>({
      {"IncrementToLimit 13", 12, [](C& c) { c.IncrementToLimit(13); }, 13},
      {"IncrementToLimit 13", 13, [](C& c) { c.IncrementToLimit(13); }, 1},
      {"IncrementToMaximum 5", 4, [](C& c) { c.IncrementToMaximum(5); }, 5},
      {"IncrementToMaximum 5", 5, [](C& c) { c.IncrementToMaximum(5); }, 5},
      {"IncrementToBottomLimit 10 3", 10, [](C& c) { c.IncrementToBottomLimit(10, 3); }, 3},
      {"IncrementToBottomLimit 10 3", 9, [](C& c) { c.IncrementToBottomLimit(10, 3); }, 10},
      {"ZincrementToLimit 5", 5, [](C& c) { c.ZincrementToLimit(5); }, 0},
      {"ZincrementToLimit 5", 4, [](C& c) { c.ZincrementToLimit(5); }, 5},
      {"IncrementToZeroLimit 3", 3, [](C& c) { c.IncrementToZeroLimit(3); }, 0},
      {"ZdecrementToLimit 5", 1, [](C& c) { c.ZdecrementToLimit(5); }, 5},
      {"ZdecrementToLimit 5", 2, [](C& c) { c.ZdecrementToLimit(5); }, 1},
      {"DecrementToZero", 3, [](C& c) { c.DecrementToZero(); }, 2},
      {"DecrementToZero", 0, [](C& c) { c.DecrementToZero(); }, 0},
      {"DecrementToZero", -4, [](C& c) { c.DecrementToZero(); }, -4},
      {"GreaterOfTheTwo", 50, [](C& c) { c.GreaterOfTheTwo(3, -8); }, 3},
      {"LesserOfTheTwo", -50, [](C& c) { c.LesserOfTheTwo(3, -8); }, -8},
      {"Zapp", 8, [](C& c) { c.Zapp(); }, -1},
      {"Zero", 8, [](C& c) { c.Zero(); }, 0},
  });
}

TYPED_TEST(IntegralData, ModuloAddGivesUpperLimitMinusTheAmountAboveIt) {
  using C = TypeParam;
  auto madd = [](ValueOf<C> lower, ValueOf<C> upper, ValueOf<C> amount) {
    return [=](C& c) {
      c.SetTheLimits(lower, upper);
      c.ModuloAdd(amount);
    };
  };
  run<C>({
      {"1..13 +5", 10, madd(1, 13, 5), 8},
      {"1..13 +1", 3, madd(1, 13, 1), 4},  // both limits inclusive
      {"1..13 +0", 3, madd(1, 13, 0), 3},
      {"1..13 +14", 3, madd(1, 13, 14), 3},
      {"1..13 +13", 0, madd(1, 13, 13), 13},
      {"0..10 +3", 50, madd(0, 10, 3), 7},  // a Value outside the limits is not required
      {"10..5 +7", 2, madd(10, 5, 7), 2},  // reversed limits accept nothing
      {"overflow", kMax<C>, madd(0, kMax<C>, 1), 0, E6},
  });
}

template <class C>
class IntegralDataHistory : public ::testing::Test {
 protected:
  void SetUp() override { release_thread_history(); }
  void TearDown() override { release_thread_history(); }
};
TYPED_TEST_SUITE(IntegralDataHistory, Classes);

TYPED_TEST(IntegralDataHistory, SharedByTheObjectsOfOneThread) {
  TypeParam a, b;
  a.Value(1);
  a.Push();
  a.Value(2);
  a.PushAndSet(4);  // records 2, then the service sets Value
  EXPECT_EQ(a.Value(), 4);
  a.Push();
  b.Drop();  // discards a's 4
  b.Pop();
  EXPECT_EQ(b.Value(), 2);
  b.Pop();
  EXPECT_EQ(b.Value(), 1);
  b.Value(7);
  // Empty: the service's own error, passed on unchanged (it names the type,
  // so this also shows which history b used); Value stays.
  const auto type = std::is_same_v<TypeParam, IntegerData> ? u"Integer" : u"Long";
  EXPECT_TRUE(test::history_empty_error([&] { b.Pop(); }, type));
  EXPECT_TRUE(test::history_empty_error([&] { b.Drop(); }, type));
  EXPECT_EQ(b.Value(), 7);
}

TYPED_TEST(IntegralDataHistory, EachThreadHasItsOwn) {
  TypeParam mine;
  mine.Value(5);
  mine.Push();
  int other_pop_error = 0;
  int other_value = 0;
  std::thread other([&] {
    TypeParam theirs;
    theirs.Value(9);
    other_pop_error = error_of([&] { theirs.Pop(); });
    other_value = theirs.Value();
    theirs.Push();
    release_thread_history();
  });
  other.join();
  EXPECT_EQ(other_pop_error, E5);
  EXPECT_EQ(other_value, 9);
  mine.Zero();
  mine.Pop();
  EXPECT_EQ(mine.Value(), 5);  // not the other thread's 9
  EXPECT_EQ(error_of([&] { mine.Pop(); }), E5);
}

// A host that unmasked the floating-point traps gets errors, never a signal,
// and finds its environment exactly as it left it.
TYPED_TEST(IntegralData, DivideUnderHostTrapsKeepsTheEnvironment) {
  test::as_host(test::unmask_traps, [] {
    const auto before = test::observe_env();
    TypeParam a;
    a.Value(7);
    a.Divide(2);
    EXPECT_EQ(a.Value(), 4);
    EXPECT_EQ(error_of([&] { a.Divide(0); }), E11);
    EXPECT_EQ(a.Value(), 4);
    a.Zero();
    EXPECT_EQ(error_of([&] { a.Divide(0); }), E6);
    EXPECT_EQ(error_of([&] { a.RaiseYourself(-1); }), E11);
    a.Value(kMin<TypeParam>);
    EXPECT_EQ(error_of([&] { a.Divide(-1); }), E6);
    EXPECT_EQ(test::observe_env(), before);
  });
}

// The 16-bit-only operations.

TEST(IntegerData, AddAndDecrementAgainstLimitArguments) {
  using C = IntegerData;
  run<C>({
      {"AddToBottomLimit 5 10 2", 6, [](C& c) { c.AddToBottomLimit(5, 10, 2); }, 2},
      {"AddToBottomLimit 5 10 2", 5, [](C& c) { c.AddToBottomLimit(5, 10, 2); }, 10},
      {"AddToBottomLimit", 1, [](C& c) { c.AddToBottomLimit(32767, 5, 0); }, 0, E6},
      {"AddToMaximum 3 5", 4, [](C& c) { c.AddToMaximum(3, 5); }, 4},
      {"AddToMaximum 1 5", 4, [](C& c) { c.AddToMaximum(1, 5); }, 5},
      {"AddToMaximum 32767 5", 1, [](C& c) { c.AddToMaximum(32767, 5); }, 0, E6},
      {"DecrementToBottomLimit 3 9", 3, [](C& c) { c.DecrementToBottomLimit(3, 9); }, 9},
      {"DecrementToBottomLimit 3 9", 5, [](C& c) { c.DecrementToBottomLimit(3, 9); }, 4},
      {"DecrementToBottomLimit", -32768, [](C& c) { c.DecrementToBottomLimit(-32768, 9); }, 0, E6},
      {"DecrementToUpperLimit 13", 1, [](C& c) { c.DecrementToUpperLimit(13); }, 13},
      {"DecrementToUpperLimit 13", 2, [](C& c) { c.DecrementToUpperLimit(13); }, 1},
      {"DecrementABS", 0, [](C& c) { c.DecrementABS(); }, -1},
      {"DecrementABS", -1, [](C& c) { c.DecrementABS(); }, 0},
      {"DecrementABS", -32768, [](C& c) { c.DecrementABS(); }, -32767},
  });
}

TEST(IntegerData, ModuloAddToThisLimitMakesTheAmountTheUpperLimit) {
  using C = IntegerData;
  auto to_this_limit = [](Integer lower, Integer amount) {
    return [=](C& c) {
      c.LowerLimit(lower);
      c.ModuloAddToThisLimit(amount);
      EXPECT_EQ(c.UpperLimit(), amount);  // also when ModuloAdd then fails
    };
  };
  run<C>({
      {"lower 0, 7", 3, to_this_limit(0, 7), 0},
      {"lower 0, 7", -2, to_this_limit(0, 7), 5},
      {"lower 10, 7", 3, to_this_limit(10, 7), 3},
      {"overflow", -32768, to_this_limit(-32768, -1), 0, E6},
  });
}

TEST(IntegerData, BetweenEvenAndOddGiveExactFlags) {
  struct Case { Integer value, a, b; Flag between, even; };
  const Case cases[] = {
      {1, 1, 5, kTrue, kFalse},      {3, 5, 1, kTrue, kFalse},  {5, 5, 1, kTrue, kFalse},
      {1, 5, 1, kTrue, kFalse},
      {0, 1, 5, kFalse, kTrue},      {6, 5, 1, kFalse, kTrue},  {-4, -4, -4, kTrue, kTrue},
      {-3, -2, -9, kTrue, kFalse},   {-32768, -32768, 32767, kTrue, kTrue},
  };
  for (const auto& c : cases) {
    IntegerData d;
    d.Value(c.value);
    EXPECT_EQ(d.IsBetween(c.a, c.b), c.between) << c.value << " in " << c.a << ", " << c.b;
    EXPECT_EQ(d.IsEven(), c.even) << c.value;
    EXPECT_EQ(d.IsOdd(), c.even == kTrue ? kFalse : kTrue) << c.value;
  }
}

TEST(IntegerData, ReadingTheIncrementPropertiesCounts) {
  IntegerData d;
  d.Value(5);
  EXPECT_EQ(d.ValueBe4Increment(), 5);
  EXPECT_EQ(d.Value(), 6);
  EXPECT_EQ(d.ValueAfterIncrement(), 7);
  EXPECT_EQ(d.Value(), 7);
  d.Value(32767);
  EXPECT_EQ(error_of([&] { d.ValueBe4Increment(); }), E6);
  EXPECT_EQ(error_of([&] { d.ValueAfterIncrement(); }), E6);
  EXPECT_EQ(d.Value(), 32767);
}

TEST(IntegerData, SwapExchangesWithTheCallersVariable) {
  IntegerData d;
  d.Value(2);
  Integer variable = 9;
  d.Swap(variable);
  EXPECT_EQ(d.Value(), 9);
  EXPECT_EQ(variable, 2);
}

}  // namespace
}  // namespace valmetra
