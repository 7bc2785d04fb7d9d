#include <gtest/gtest.h>

#include <cfenv>
#include <cstdint>
#include <limits>
#include <string>

#include "frame/error.h"
#include "stats/percent.h"

#include "test_support.h"

namespace valmetra {
namespace {

using test::error_of;

template <class Counter>
class PercentCounters : public ::testing::Test {};
using CounterTypes = ::testing::Types<DoublePercentData, SinglePercentData, LongPercentData, IntegerPercent>;
TYPED_TEST_SUITE(PercentCounters, CounterTypes);

TYPED_TEST(PercentCounters, RatioPercentAndDisplay) {
  struct Case { int occurrences, samples; float raw, percent; const char16_t* display; };
  for (auto c : {Case{0, 0, 0, 0, u"%"}, Case{0, 7, 0, 0, u"%"},
                 Case{1, 3, 0.33333334f, 33.333336f, u"33%"}, Case{1, 8, 0.125f, 12.5f, u"13%"},
                 Case{2, 3, 0.6666667f, 66.66667f, u"67%"}, Case{2, 0, 2, 200, u"200%"},
                 Case{5, 4, 1.25f, 125, u"125%"},
                 // The ratio's Single lies just below 0.145: the display rounds the
                 // exact value down, while Percent rounds to the Single 14.5.
                 Case{29, 200, 0.145f, 14.5f, u"14%"}}) {
    TypeParam counter;
    for (int i = 0; i < c.occurrences; ++i) counter.Occured();
    for (int i = 0; i < c.samples; ++i) counter.AnotherSampleOccured();
    EXPECT_EQ(counter.Default(), c.occurrences);
    // rounded to nearest whatever rounding the caller has set
    for (int mode : {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
      std::fesetround(mode);
      const float raw = counter.RawPercent(), percent = counter.Percent();
      const std::u16string display = counter.PercentDisplay();
      std::fesetround(FE_TONEAREST);
      SCOPED_TRACE(testing::Message() << c.occurrences << "/" << c.samples << " in mode " << mode);
      EXPECT_EQ(raw, c.raw);
      EXPECT_EQ(percent, c.percent);
      EXPECT_EQ(display, c.display);
    }
  }
}

TYPED_TEST(PercentCounters, AssigningDefaultRecordsOneOccurrence) {
  TypeParam counter;
  using Count = decltype(counter.Default());
  counter.Default(Count{100});
  EXPECT_EQ(counter.Default(), 1);
  counter.Default(Count{0});
  EXPECT_EQ(counter.Default(), 2);
  counter.AnotherSampleOccured();  // samples never touch the occurrence count
  EXPECT_EQ(counter.Default(), 2);
  EXPECT_EQ(counter.RawPercent(), 2.0f);
}

TEST(PercentCounting, IntegerPercentStopsWithOverflowAtItsMaximum) {
  IntegerPercent counter;
  for (int i = 0; i < 32767; ++i) {
    counter.Occured();
    counter.AnotherSampleOccured();
  }
  EXPECT_EQ(error_of([&] { counter.Occured(); }), 6);
  EXPECT_EQ(error_of([&] { counter.Default(Integer{5}); }), 6);
  EXPECT_EQ(counter.Default(), 32767);
  EXPECT_EQ(error_of([&] { counter.AnotherSampleOccured(); }), 6);
  EXPECT_EQ(counter.RawPercent(), 1.0f);  // the sample count kept 32767 too
  EXPECT_EQ(counter.PercentDisplay(), u"100%");
}

TEST(PercentCounting, CheckedStepForLongCounts) {
  EXPECT_EQ(next_count<Long>(0), 1);
  EXPECT_EQ(next_count<Long>(2147483646), 2147483647);
  EXPECT_EQ(error_of([] { next_count<Long>(std::numeric_limits<Long>::max()); }), 6);
}

TEST(PercentCounting, FloatingCountsSaturateSilently) {
  constexpr double two53 = 9007199254740992.0;
  EXPECT_EQ(next_count<Single>(16777215.0f), 16777216.0f);
  EXPECT_EQ(next_count<Single>(16777216.0f), 16777216.0f);
  EXPECT_EQ(next_count<Double>(two53 - 1), two53);
  EXPECT_EQ(next_count<Double>(two53), two53);
  EXPECT_EQ(next_count<Single>(0.0f), 1.0f);
  std::fesetround(FE_UPWARD);  // the step rounds to nearest regardless
  const float up = next_count<Single>(16777216.0f);
  const double up53 = next_count<Double>(two53);
  std::fesetround(FE_TONEAREST);
  EXPECT_EQ(up, 16777216.0f);
  EXPECT_EQ(up53, two53);
}

}  // namespace
}  // namespace valmetra
