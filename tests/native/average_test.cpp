#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "frame/error.h"
#include "stats/average.h"

#include "test_support.h"

namespace valmetra {
namespace {

using test::error_of;

std::u16string repeat(std::size_t n, char16_t c) { return std::u16string(n, c); }
std::string narrow(std::u16string_view s) { return std::string(s.begin(), s.end()); }

template <class Average>
class SampleAverages : public ::testing::Test {};
using AverageTypes = ::testing::Types<SingleAverage, IntegerAverage>;
TYPED_TEST_SUITE(SampleAverages, AverageTypes);

TYPED_TEST(SampleAverages, NewObjectReadsZero) {
  TypeParam a;
  EXPECT_EQ(a.Average(), 0);
  EXPECT_EQ(a.DataAverage(), 0);
  EXPECT_EQ(a.DataHighest(), 0);
  EXPECT_EQ(a.DataLowest(), 0);
  EXPECT_EQ(a.GiveMeYourNumbers().str(), u"");
  a.AddAPieceOfData(5);
  for (auto v : {a.DataMedian(), a.DataMean(), a.DataMode(), a.WeightedMean(), a.WeightedMode()}) {
    EXPECT_EQ(v, 0);
  }
}

// Cutting, seen through the listing: items are joined with ", ".
TYPED_TEST(SampleAverages, CuttingNumberStrings) {
  struct Case { const char16_t* in; const char16_t* listed; };
  for (auto c : {Case{u"4, 5,6", u"4, 5, 6"}, Case{u"4, 5, 6", u"4, 5,  6"}, Case{u"4,,6", u"4, , 6"},
                 Case{u",4", u",4"}, Case{u"7,", u"7"}, Case{u"", u""}, Case{u"   ", u"   "},
                 Case{u",,", u","}, Case{u",4,5", u",4, 5"}, Case{u" 4 ,  5 , 6 ", u"4, 5,  6 "},
                 Case{u"\t4\t,5", u"\t4\t, 5"}, Case{u"a, b", u"a,  b"}, Case{u"1,2,", u"1, 2"}}) {
    TypeParam a;
    a.AddAPieceOfData(9);
    a.HereIsAStringOfNumbers(c.in);
    EXPECT_EQ(a.GiveMeYourNumbers().str(), c.listed);
    TypeParam b;
    b.AddAPieceOfData(9);
    b.IncludeThisStringOfNumbers(c.in);
    EXPECT_EQ(b.GiveMeYourNumbers().str(), std::u16string(u"9") + (*c.in ? u", " : u"") + c.listed);
  }
}

TYPED_TEST(SampleAverages, StatisticsOverCutText) {
  TypeParam a;
  a.HereIsAStringOfNumbers(u"4, 5,6");
  EXPECT_EQ(a.DataAverage(), 5);
  EXPECT_EQ(a.Average(), 5);
  EXPECT_EQ(a.DataHighest(), 6);
  a.IncludeThisStringOfNumbers(u"-3,1e1");
  EXPECT_EQ(a.DataLowest(), -3);
  EXPECT_EQ(a.DataHighest(), 10);
  EXPECT_EQ(a.DataAverage(), 22.0f / 5);
  for (const char16_t* bad : {u"4,,6", u"4,x", u"&H10", u"4,  "}) {
    a.HereIsAStringOfNumbers(bad);
    EXPECT_EQ(error_of([&] { a.DataAverage(); }), 13) << narrow(bad);
    EXPECT_EQ(error_of([&] { a.Average(); }), 13);
    EXPECT_EQ(error_of([&] { a.DataHighest(); }), 13);
    EXPECT_EQ(error_of([&] { a.DataLowest(); }), 13);
  }
}

TYPED_TEST(SampleAverages, NumericDataTakesOnlyPositiveValues) {
  TypeParam a;
  for (int v : {0, -3, 4, -1, 2}) a.AddNumericData(v);
  EXPECT_EQ(a.GiveMeYourNumbers().str(), u"4, 2");
  EXPECT_EQ(a.DataLowest(), 0);
  EXPECT_EQ(a.DataAverage(), 3);
}

TYPED_TEST(SampleAverages, PositionLimitsOfTheCut) {
  struct Case { std::u16string in; int error; std::u16string listed; };
  const std::u16string ones = repeat(32766, u'1');
  const std::vector<Case> cases = {
      {ones + u"," + u"2", 6, ones},                        // comma at 32,767: piece kept, then Overflow
      {ones + u"1,2", 6, u""},                              // comma at 32,768: nothing appended
      {repeat(32765, u'1') + u",2", 0, repeat(32765, u'1') + u", 2"},
      {u"5," + repeat(32767, u'1'), 0, u"5, " + repeat(32767, u'1')},
      {u"5," + repeat(32768, u'1'), 6, u"5"},               // last piece too long
      {repeat(32767, u'7'), 0, repeat(32767, u'7')},
      {repeat(32768, u'7'), 6, u""},
  };
  for (const Case& c : cases) {
    TypeParam a;
    a.AddAPieceOfData(3);
    EXPECT_EQ(error_of([&] { a.HereIsAStringOfNumbers(c.in); }), c.error) << c.in.size();
    EXPECT_EQ(a.GiveMeYourNumbers().str(), c.listed) << c.in.size();
  }
}

// The longest cut (32,766 items from one text), the longest listing
// (32,767 items) and the counter's Overflow at the 32,768th.
TYPED_TEST(SampleAverages, LongLists) {
  TypeParam a;
  a.HereIsAStringOfNumbers(u"a" + repeat(32765, u',') + u"b");
  std::u16string expected = u"a";
  for (int i = 0; i < 32765; ++i) expected += u", ";
  expected += u"b";
  EXPECT_EQ(a.GiveMeYourNumbers().str(), expected);
  a.AddAPieceOfData(7);
  EXPECT_EQ(a.GiveMeYourNumbers().str(), expected + u", 7");
  a.AddAPieceOfData(8);
  EXPECT_EQ(error_of([&] { a.GiveMeYourNumbers().str(); }), 6);

  std::u16string halves = u"0";
  for (int i = 0; i < 16383; ++i) halves += u",1";  // last comma at 32,766
  TypeParam b;
  b.HereIsAStringOfNumbers(halves);
  b.IncludeThisStringOfNumbers(halves);
  EXPECT_EQ(b.DataAverage(), 16383.0f / 16384);
  EXPECT_EQ(b.DataHighest(), 1);
}

TEST(IntegerAverageTest, NumberItems) {
  IntegerAverage a;
  for (Integer v : {3, 4, 8}) a.AddAPieceOfData(v);
  EXPECT_EQ(a.DataAverage(), 5);
  EXPECT_EQ(a.DataHighest(), 8);
  EXPECT_EQ(a.DataLowest(), 0);
  EXPECT_EQ(a.GiveMeYourNumbers().str(), u"3, 4, 8");
}

TEST(IntegerAverageTest, TextIsRoundedDownForTheMeanAndToEvenForTheExtremes) {
  struct Case { const char16_t* text; float average; Integer highest, lowest; };
  for (auto c : {Case{u"2.7", 2, 3, 0}, Case{u"-2.7", -3, 0, -3}, Case{u"2.5", 2, 2, 0},
                 Case{u"3.5", 3, 4, 0}, Case{u"-2, -7", -4.5f, 0, -7}, Case{u" 1e2 ", 100, 100, 0}}) {
    IntegerAverage a;
    a.HereIsAStringOfNumbers(c.text);
    EXPECT_EQ(a.DataAverage(), c.average) << narrow(c.text);
    EXPECT_EQ(a.DataHighest(), c.highest) << narrow(c.text);
    EXPECT_EQ(a.DataLowest(), c.lowest) << narrow(c.text);
  }
}

TEST(IntegerAverageTest, SixteenBitSumOverflowsInItemOrder) {
  IntegerAverage a;
  for (Integer v : {30000, 30000, -30000}) a.AddAPieceOfData(v);
  EXPECT_EQ(error_of([&] { a.DataAverage(); }), 6);
  EXPECT_EQ(a.DataHighest(), 30000);
  EXPECT_EQ(a.GiveMeYourNumbers().str(), u"30000, 30000, -30000");  // list unchanged
  IntegerAverage b;
  for (Integer v : {-30000, 30000, 30000}) b.AddAPieceOfData(v);
  EXPECT_EQ(b.DataAverage(), 10000);
  IntegerAverage c;
  c.HereIsAStringOfNumbers(u"40000");
  EXPECT_EQ(error_of([&] { c.DataAverage(); }), 6);
  EXPECT_EQ(error_of([&] { c.DataHighest(); }), 6);
  EXPECT_EQ(c.DataLowest(), 0);  // never becomes the extreme, never converted
  c.HereIsAStringOfNumbers(u"1e400");
  EXPECT_EQ(error_of([&] { c.DataAverage(); }), 6);
}

TEST(SingleAverageTest, NumberItems) {
  SingleAverage a;
  a.AddAPieceOfData(1.5f);
  a.AddAPieceOfData(2.5f);
  EXPECT_EQ(a.DataAverage(), 2);
  EXPECT_EQ(a.DataHighest(), 2);  // 2.5 to even
  EXPECT_EQ(a.DataLowest(), 0);
  SingleAverage c;
  c.AddAPieceOfData(40000);
  EXPECT_EQ(error_of([&] { c.DataHighest(); }), 6);
  EXPECT_EQ(c.DataAverage(), 40000);
  c.AddAPieceOfData(3e38f);
  c.AddAPieceOfData(3e38f);
  EXPECT_EQ(error_of([&] { c.DataAverage(); }), 6);  // the Single sum overflows
  SingleAverage d;
  d.HereIsAStringOfNumbers(u"1e39");
  EXPECT_EQ(error_of([&] { d.DataAverage(); }), 6);
}

// Number items are listed in their standard text, which cuts and reads back.
TEST(SingleAverageTest, ListingRoundTrip) {
  SingleAverage a;
  for (float v : {1.5f, 1e20f, 1.5e-7f, -0.1f, 1.0f / 3, 16777216.0f}) a.AddAPieceOfData(v);
  EXPECT_EQ(a.GiveMeYourNumbers().str(), u"1.5, 1E+20, 1.5E-07, -0.1, 0.3333333, 1.677722E+07");
  SingleAverage c;
  for (float v : {1.5f, 1.5e-7f, -0.1f, 2.25f}) c.AddAPieceOfData(v);
  SingleAverage d;
  d.HereIsAStringOfNumbers(c.GiveMeYourNumbers().str());
  EXPECT_EQ(d.DataAverage(), c.DataAverage());
  EXPECT_EQ(d.DataHighest(), c.DataHighest());
  EXPECT_EQ(d.DataLowest(), c.DataLowest());
}

}  // namespace
}  // namespace valmetra
