// The statistics: percent counters, sample averages, and number text (reading,
// its quick route included, the standard Single text and the percent display).
// Last, the faults the fuzz targets found, as a regression table.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cfloat>
#include <cmath>
#include <cfenv>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "stats/average.h"
#include "stats/number_text.h"
#include "stats/percent.h"
#include "frame/arith.h"
#include "frame/fp.h"
#include "values/integer_data.h"
#include "values/long_data.h"
#include "values/single_data.h"

#include "test_support.h"

namespace valmetra {
namespace {

using test::error_of;
using test::in_mode;
constexpr int E6 = 6, E13 = 13;
constexpr int kModes[] = {FE_TONEAREST, FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO};
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN(), kInf = std::numeric_limits<float>::infinity(),
                kTiny = std::numeric_limits<float>::denorm_min(), kSNaN = std::bit_cast<float>(0x7FA00000u);
std::string narrow(std::u16string_view s) { return std::string(s.begin(), s.end()); }
std::u16string widen(std::string_view s) { return std::u16string(s.begin(), s.end()); }
std::uint64_t bits(double d) { return std::bit_cast<std::uint64_t>(d); }
// f()'s result as a float and the error it raised (0 and the error when it raised one).
std::pair<int, float> outcome(auto&& f) {
  float v = 0;
  const int e = error_of([&] { v = static_cast<float>(f()); });
  return {e, e ? 0.0f : v};
}

template <class C>
class Percent : public ::testing::Test {};
using Counters = ::testing::Types<DoublePercentData, SinglePercentData, LongPercentData, IntegerPercent>;
TYPED_TEST_SUITE(Percent, Counters);

// Every other occurrence is recorded by assigning Default, which counts one
// whatever the value. Results are rounded to nearest in any host mode.
TYPED_TEST(Percent, RatioPercentAndDisplay) {
  using Count = decltype(TypeParam().Default());
  struct Row { int occurrences, samples; float raw, percent; std::u16string_view display; };
  for (auto r : {Row{0, 0, 0, 0, u"%"}, Row{0, 7, 0, 0, u"%"}, Row{1, 3, 0.33333334f, 33.333336f, u"33%"},
                 Row{1, 8, 0.125f, 12.5f, u"13%"}, Row{2, 3, 0.6666667f, 66.66667f, u"67%"},
                 Row{2, 0, 2, 200, u"200%"}, Row{3, 1, 3, 300, u"300%"}, Row{5, 4, 1.25f, 125, u"125%"},
                 Row{29, 200, 0.145f, 14.5f, u"14%"}}) {  // the Single of 0.145 lies just below it
    TypeParam c;
    for (int i = 0; i < r.occurrences; ++i) {
      if (i % 2) c.Occured(); else c.Default(Count{100});
    }
    for (int i = 0; i < r.samples; ++i) c.AnotherSampleOccured();
    EXPECT_EQ(c.Default(), r.occurrences);
    for (int mode : kModes) {
      SCOPED_TRACE(testing::Message() << r.occurrences << "/" << r.samples << " mode " << mode);
      EXPECT_EQ(in_mode(mode, [&] { return c.RawPercent(); }), r.raw);
      EXPECT_EQ(in_mode(mode, [&] { return c.Percent(); }), r.percent);
      EXPECT_EQ(in_mode(mode, [&] { return c.PercentDisplay(); }), r.display);
    }
  }
}

// Integer counts stop with Overflow at their maximum, floating ones silently
// where adding 1 gives the same number back (in any host mode).
TEST(PercentCounting, TheTopOfEachCount) {
  EXPECT_EQ(next_count<Integer>(32766), 32767);
  EXPECT_EQ(error_of([] { next_count<Integer>(32767); }), E6);
  EXPECT_EQ(next_count<Long>(2147483646), 2147483647);
  EXPECT_EQ(error_of([] { next_count<Long>(2147483647); }), E6);
  constexpr double two53 = 9007199254740992.0;
  for (int mode : kModes) {
    for (auto [from, to] : {std::pair<float, float>{0, 1}, {16777215, 16777216}, {16777216, 16777216}}) {
      EXPECT_EQ(in_mode(mode, [from] { return next_count<Single>(from); }), to) << from << " mode " << mode;
    }
    for (auto [from, to] : {std::pair{two53 - 1, two53}, {two53, two53}}) {
      EXPECT_EQ(in_mode(mode, [from] { return next_count<Double>(from); }), to) << from << " mode " << mode;
    }
  }
  IntegerPercent c;
  for (int i = 0; i < 32767; ++i) c.Occured();
  for (int i = 0; i < 32767; ++i) c.AnotherSampleOccured();
  EXPECT_EQ(error_of([&] { c.Occured(); }), E6);
  EXPECT_EQ(error_of([&] { c.Default(Integer{5}); }), E6);
  EXPECT_EQ(error_of([&] { c.AnotherSampleOccured(); }), E6);
  EXPECT_EQ(c.Default(), 32767);
  EXPECT_EQ(c.PercentDisplay(), u"100%");  // the sample count kept 32767 too
}

template <class A>
class Averages : public ::testing::Test {};
using AverageTypes = ::testing::Types<SingleAverage, IntegerAverage>;
TYPED_TEST_SUITE(Averages, AverageTypes);

// Cutting, seen through the listing (items joined with ", "): replacing the
// list, and appending to an item 9. Positions are 16-bit: a comma at 32,767
// keeps its piece, then Overflow; one at 32,768 appends nothing; a last piece
// over 32,767 characters is refused.
TYPED_TEST(Averages, CuttingNumberStrings) {
  auto n = [](std::size_t count, char16_t c) { return std::u16string(count, c); };
  struct Row { std::u16string in, listed; int error = 0; };
  for (const auto& r : {Row{u"4, 5,6", u"4, 5, 6"}, Row{u"4, 5, 6", u"4, 5,  6"}, Row{u"4,,6", u"4, , 6"},
                        Row{u",4", u",4"}, Row{u"7,", u"7"}, Row{u"", u""}, Row{u"   ", u"   "}, Row{u",,", u","},
                        Row{u",4,5", u",4, 5"}, Row{u" 4 ,  5 , 6 ", u"4, 5,  6 "}, Row{u"\t4\t,5", u"\t4\t, 5"},
                        Row{u"1,2,", u"1, 2"}, Row{n(32766, u'1') + u",2", n(32766, u'1'), E6},
                        Row{n(32767, u'1') + u",2", u"", E6}, Row{n(32765, u'1') + u",2", n(32765, u'1') + u", 2"},
                        Row{u"5," + n(32767, u'1'), u"5, " + n(32767, u'1')}, Row{u"5," + n(32768, u'1'), u"5", E6},
                        Row{n(32767, u'7'), n(32767, u'7')}, Row{n(32768, u'7'), u"", E6}}) {
    TypeParam a, b;
    a.AddAPieceOfData(9);
    b.AddAPieceOfData(9);
    EXPECT_EQ(error_of([&] { a.HereIsAStringOfNumbers(r.in); }), r.error) << r.in.size();
    EXPECT_EQ(error_of([&] { b.IncludeThisStringOfNumbers(r.in); }), r.error) << r.in.size();
    EXPECT_EQ(a.GiveMeYourNumbers().str(), r.listed) << narrow(r.in.substr(0, 20));
    EXPECT_EQ(b.GiveMeYourNumbers().str(), u"9" + std::u16string(r.in.empty() || r.listed.empty() ? u"" : u", ") + r.listed);
  }
}

// The statistics as text: DataAverage, DataHighest, DataLowest (Ennn for an
// error). Average is DataAverage.
std::string stats(auto&& a) {
  EXPECT_EQ(outcome([&] { return a.Average(); }), outcome([&] { return a.DataAverage(); }));
  std::string out;
  for (auto [e, v] : {outcome([&] { return a.DataAverage(); }), outcome([&] { return a.DataHighest(); }),
                      outcome([&] { return a.DataLowest(); })}) {
    char buf[32];
    e ? std::snprintf(buf, sizeof buf, " E%d", e) : std::snprintf(buf, sizeof buf, " %.9g", double{v});
    out += buf;
  }
  return out.substr(1);
}

// Text both classes read alike; an error row raises it from every statistic.
TYPED_TEST(Averages, StatisticsOverText) {
  struct Row { std::u16string_view text; const char* stats; };
  for (auto r : {Row{u"", "0 0 0"}, Row{u"4, 5,6", "5 6 0"}, Row{u"4, 5,6,-3,1e1", "4.4000001 10 -3"},
                 Row{u"-2, -7", "-4.5 0 -7"}, Row{u" 1e2 ", "100 100 0"}, Row{u"4,,6", "E13 E13 E13"},
                 Row{u"4,x", "E13 E13 E13"}, Row{u"&H10", "E13 E13 E13"}, Row{u"4,  ", "E13 E13 E13"},
                 Row{u"1e400", "E6 E6 E6"}, Row{u"1e39", "E6 E6 0"}}) {
    TypeParam a;
    a.HereIsAStringOfNumbers(r.text);
    EXPECT_EQ(stats(a), r.stats) << narrow(r.text);
  }
  TypeParam a;
  a.AddAPieceOfData(5);
  for (auto v : {a.DataMedian(), a.DataMean(), a.DataMode(), a.WeightedMean(), a.WeightedMode()}) EXPECT_EQ(v, 0);
}

// IntegerAverage rounds a text down for its 16-bit sum (in item order) and to
// even for the extremes; AddNumericData takes only numbers above 0.
template <class A, class T>
void check_numbers(std::u16string_view text, std::initializer_list<T> added, bool numeric, const char* want,
                   std::u16string_view listed) {
  A a;
  a.HereIsAStringOfNumbers(text);
  for (T v : added) numeric ? a.AddNumericData(v) : a.AddAPieceOfData(v);
  EXPECT_EQ(stats(a), want) << narrow(listed);
  EXPECT_EQ(a.GiveMeYourNumbers().str(), listed);
}
TEST(AveragesOfNumbers, StatisticsAndListing) {
  using I = Integer;
  check_numbers<IntegerAverage, I>(u"2.7", {}, false, "2 3 0", u"2.7");
  check_numbers<IntegerAverage, I>(u"-2.7", {}, false, "-3 0 -3", u"-2.7");
  check_numbers<IntegerAverage, I>(u"2.5", {}, false, "2 2 0", u"2.5");
  check_numbers<IntegerAverage, I>(u"3.5", {}, false, "3 4 0", u"3.5");
  check_numbers<IntegerAverage, I>(u"0.5,-0.5", {}, false, "-0.5 0 0", u"0.5, -0.5");
  check_numbers<IntegerAverage, I>(u"40000", {}, false, "E6 E6 0", u"40000");  // never the lowest
  check_numbers<IntegerAverage, I>(u"", {30000, 30000, -30000}, false, "E6 30000 -30000", u"30000, 30000, -30000");
  check_numbers<IntegerAverage, I>(u"", {-30000, 30000, 30000}, false, "10000 30000 -30000", u"-30000, 30000, 30000");
  check_numbers<IntegerAverage, I>(u"", {0, -3, 4, -1, 2, 1}, true, "2.33333325 4 0", u"4, 2, 1");
  check_numbers<SingleAverage, float>(u"", {1.5f, 2.5f}, false, "2 2 0", u"1.5, 2.5");  // 2.5 to even
  check_numbers<SingleAverage, float>(u"", {40000}, false, "40000 E6 0", u"40000");
  check_numbers<SingleAverage, float>(u"", {3e38f, 3e38f}, false, "E6 E6 0", u"3E+38, 3E+38");  // the sum overflows
  check_numbers<SingleAverage, float>(u"", {0.0f, -3.0f, 0.5f, -0.0f, kNaN, kTiny, 1.0f}, true, "0.5 1 0",
                                      u"0.5, 1E-45, 1");
  check_numbers<SingleAverage, float>(u"", {1.5f, 1e20f, 1.5e-7f, -0.1f, 1.0f / 3, 16777216.0f}, false,
                                      "1.66666666e+19 E6 0", u"1.5, 1E+20, 1.5E-07, -0.1, 0.3333333, 1.677722E+07");
}

// A copy of text that ends where an unreadable page begins: a read past its
// end crashes.
std::u16string_view at_page_end(std::u16string_view text) {
  constexpr std::size_t kRoom = 8 << 12;
  static char16_t* const end = [] {
    auto* p = static_cast<char*>(mmap(nullptr, kRoom + 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(p + kRoom, 4096, PROT_NONE);
    return reinterpret_cast<char16_t*>(p + kRoom);
  }();
  return {std::copy_backward(text.begin(), text.end(), end), text.size()};
}

// Reading number text, in every host rounding mode: the Double nearest the
// text (compared as bits), or the error; nothing after the text is read.
TEST(NumberText, Reading) {
  struct Row { std::u16string_view text; double value; int error = 0; };
  // Beyond the Double range, huge or tiny is told by the magnitude, leading zeros and exponent alike.
  const std::u16string zeros = std::u16string(400, u'0') + u"1e-330", tiny = u"0." + std::u16string(429, u'0') + u"1e100",
                       huge = u"1" + std::u16string(10999, u'0') + u"e-9999";
  const Row rows[] = {
      {u"5", 5}, {u"  42  ", 42}, {u"\t-3.5\t", -3.5}, {u"+7", 7}, {u"-5", -5}, {u"5.", 5}, {u".5", 0.5},
      {u"-.25", -0.25}, {u"1e3", 1000}, {u"-2.5E+1", -25}, {u"1.5E-07", 1.5e-7}, {u"2.7", 2.7}, {u"0.1", 0.1},
      {u"00012.50e+02", 1250}, {u"-0", -0.0}, {u"0e999", 0}, {u"-1e-400", -0.0}, {u"100000e-400", 0},
      {u"4.9e-324", 4.9e-324}, {u"1.7976931348623157e308", 1.7976931348623157e308}, {u"1e00002", 100},
      {u"0.0000000001e-320", 0}, {zeros, 0}, {tiny, 0}, {huge, 0, E6},
      {u"12345678901234567890", 12345678901234567890.0}, {u"-1e-5", -1e-5},
      {u"9007199254740995", 9007199254740996.0}, {u"-9007199254740993", -9007199254740992.0},
      {u"1844674407370955161.6", 1844674407370955161.6}, {u"1e309", 0, E6}, {u"-1e400", 0, E6},
      {u"0.00000000001e320", 0, E6}, {u"1e99999999999999999999", 0, E6}, {u"", 0, E13}, {u"   ", 0, E13},
      {u".", 0, E13}, {u"-", 0, E13}, {u"+-1", 0, E13}, {u"1e", 0, E13}, {u"1e+", 0, E13}, {u"e5", 0, E13},
      {u"1.2.3", 0, E13}, {u"1,5", 0, E13}, {u"&H10", 0, E13}, {u"0x10", 0, E13}, {u"inf", 0, E13}, {u"nan", 0, E13},
      {u"1 000", 0, E13}, {u"- 5", 0, E13}, {u"\xff11", 0, E13}, {u"1d5", 0, E13}, {u"\x00a0" u"5", 0, E13},
      {u"5\n", 0, E13}, {u"1e5.5", 0, E13},
      {u"1e+-5", 0, E13}, {u"5e5x", 0, E13}, {u"5-", 0, E13}};
  for (int mode : kModes) {
    for (const auto& r : rows) {
      double got = 0;
      const int error = in_mode(mode, [&] { return error_of([&] { got = text_to_number(at_page_end(r.text)); }); });
      EXPECT_EQ(error, r.error) << narrow(r.text) << " mode " << mode;
      EXPECT_EQ(bits(got), bits(r.error ? 0.0 : r.value)) << narrow(r.text) << " mode " << mode;
    }
  }
}

// The quick route's limits (2^53, 19 digits: 2^64 would wrap to 0, four
// exponent digits, 10^22): the texts it answers, with the value the reader
// gives, and those it leaves to the general reader.
TEST(NumberText, QuickRoute) {
  struct Row { std::u16string_view text; double value; bool quick; };
  for (auto r : {Row{u"+10", 10, true}, Row{u"-.25", -0.25, true}, Row{u"5.", 5, true}, Row{u"2.5e1", 25, true},
                 Row{u"-0.0e5", -0.0, true}, Row{u"1e+0002", 100, true}, Row{u"1E-0002", 0.01, true},
                 Row{u"1e00002", 100, false}, Row{u"0000000000000000001", 1, true}, Row{u"00000000000000000001", 1, false},
                 Row{u"18446744073709551616", 18446744073709551616.0, false}, Row{u"9007199254740992", 0x1p53, true},
                 Row{u"9007199254740993", 0x1p53, false}, Row{u"900719925474099.3e1", 9007199254740993.0, false},
                 Row{u"4503599627370496e1", 45035996273704960.0, true}, Row{u"1e22", 1e22, true}, Row{u"1e23", 1e23, false},
                 Row{u"-3e-22", -3e-22, true}, Row{u"1e-23", 1e-23, false}, Row{u"9007199254740991e-22", 9007199254740991e-22, true}}) {
    EXPECT_EQ(bits(text_to_number(r.text)), bits(r.value)) << narrow(r.text);
    const auto quick = quick_text_to_number(at_page_end(r.text));
    EXPECT_EQ(quick.has_value(), r.quick) << narrow(r.text);
    if (quick) { EXPECT_EQ(bits(*quick), bits(r.value)) << narrow(r.text); }
  }
  for (auto text : {u"", u"-", u".", u"1e", u"1e-", u"e5", u" 5", u"5 ", u"1.2.3"}) {
    EXPECT_FALSE(quick_text_to_number(at_page_end(text))) << narrow(text);
  }
}

// Random texts (quick route and general reader alike) against the C library.
TEST(NumberText, ReadingAgreesWithStrtod) {
  std::mt19937_64 rng(20240611);
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<std::uint64_t>(n)); };
  for (int k = 0, mismatches = 0; k < 100000 && mismatches < 10; ++k) {
    std::string s = pick(3) == 0 ? "-" : pick(2) ? "+" : "";
    const int digits = 1 + pick(21), point = pick(digits + 2);
    for (int i = 0; i < digits; ++i) s += (i == point ? "." : "") + std::string(1, char('0' + pick(10)));
    if (point == digits) s += '.';
    if (pick(2)) s += (pick(2) ? "E" : "e") + std::string(pick(2) ? "+" : "") + std::to_string(pick(61) - 30);
    if (s.find("+-") != std::string::npos) continue;
    if (bits(text_to_number(at_page_end(widen(s)))) != bits(std::strtod(s.c_str(), nullptr))) {
      ++mismatches;
      ADD_FAILURE() << s;
    }
  }
}

// The standard text of a Single, in every host rounding mode.
TEST(NumberText, SingleText) {
  struct Row { float value; std::u16string_view text; };
  const Row rows[] = {
      {0.0f, u"0"}, {-0.0f, u"0"}, {1, u"1"}, {-2.5f, u"-2.5"}, {0.1f, u"0.1"}, {0.145f, u"0.145"},
      {123456.7f, u"123456.7"}, {1234567, u"1234567"}, {9999999, u"9999999"}, {1e7f, u"1E+07"},
      {16777216, u"1.677722E+07"}, {10000005, u"1E+07"}, {10000015, u"1.000002E+07"}, {1e20f, u"1E+20"},
      {1.5e-7f, u"1.5E-07"}, {0.0001f, u"0.0001"}, {0.00012345f, u"0.00012345"}, {0.00001f, u"1E-05"},
      {-1e-10f, u"-1E-10"}, {1.0f / 3, u"0.3333333"}, {2.0f / 3, u"0.6666667"}, {0.99999994f, u"0.9999999"},
      {999999.94f, u"999999.9"}, {1.9999999f, u"2"}, {-9.9999997e-5f, u"-0.0001"}, {1.0000001f, u"1"},
      {1e6f, u"1000000"}, {3.4028235e38f, u"3.402823E+38"}, {1e-45f, u"1E-45"}, {1.1754942e-38f, u"1.175494E-38"},
      {1e10f, u"1E+10"}, {1.25e-10f, u"1.25E-10"}, {kInf, u"Infinity"}, {-kInf, u"-Infinity"}, {kNaN, u"NaN"},
      {std::bit_cast<float>(0x800116C3u), u"-1.00001E-40"}};  // the shortest, not 7 digits
  for (int mode : kModes) {
    for (const auto& r : rows) EXPECT_EQ(in_mode(mode, [&] { return single_to_text(r.value); }), r.text) << r.value;
  }
}

// The "##%" display rounds the exact binary value, halves away from zero.
TEST(NumberText, PercentDisplay) {
  struct Row { float ratio; std::u16string_view text; };
  for (auto r : {Row{0, u"%"}, Row{-0.0f, u"%"}, Row{0.004f, u"%"}, Row{0.005f, u"%"}, Row{0.00501f, u"1%"},
                 Row{0.125f, u"13%"}, Row{-0.125f, u"-13%"}, Row{0.5f, u"50%"}, Row{1.0f / 3, u"33%"},
                 Row{2.0f / 3, u"67%"}, Row{0.145f, u"14%"}, Row{0.135f, u"14%"}, Row{0.155f, u"16%"},
                 Row{2, u"200%"}, Row{1.25f, u"125%"}, Row{0.995f, u"100%"}, Row{0.99499994f, u"99%"},
                 Row{1e10f, u"1000000000000%"}, Row{1e-45f, u"%"}, Row{0x1p-32f * 3, u"%"}, Row{0x1p-41f, u"%"},
                 Row{3.4028235e38f, u"34028234663852885981170418348451692544000%"}}) {
    EXPECT_EQ(percent_display_text(r.ratio), r.text) << r.ratio;
  }
  for (float f : {kInf, -kInf, kNaN}) EXPECT_EQ(error_of([f] { percent_display_text(f); }), E6) << f;
}

#if defined(__x86_64__) && defined(__GLIBC__)
// Hosts with environments of their own: traps unmasked, another rounding
// mode, flush-to-zero and denormals-are-zero, exception flags pending.
void arm_trapping_host() {
  std::feclearexcept(FE_ALL_EXCEPT);
  std::feraiseexcept(FE_INEXACT);
  std::fesetround(FE_TOWARDZERO);
  feenableexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW | FE_UNDERFLOW);
}
void set_mxcsr_bits(std::uint32_t bits) {
  std::uint32_t mxcsr;
  asm volatile("stmxcsr %0" : "=m"(mxcsr));
  mxcsr |= bits;
  asm volatile("ldmxcsr %0" : : "m"(mxcsr));
}
struct Host { const char* what; void (*arm)(); };
constexpr Host kHosts[] = {
    {"traps unmasked, toward zero, inexact pending", arm_trapping_host}, {"traps unmasked", test::unmask_traps},
    {"upward, flush-to-zero and denormals-are-zero, inexact and underflow pending",
     [] { std::fesetround(FE_UPWARD); std::feraiseexcept(FE_INEXACT | FE_UNDERFLOW); set_mxcsr_bits(0x8040); }},
    {"denormals-are-zero", [] { set_mxcsr_bits(0x0040); }}};

TEST(FloatingTrapsDeathTest, UnguardedDivisionTrapsInTheTrappingHost) {
  // The table below is meaningful: the same step outside a scope traps there.
  EXPECT_EXIT(test::as_host(arm_trapping_host, [] {
                volatile double zero = 0.0;
                volatile double r = 1.0 / zero;
                (void)r;
              }), ::testing::ExitedWithCode(test::kTrapExit), "");
}

// What a call gives, as text made without floating operations (converting a
// signalling NaN would trap): a result's bits, or the library error.
template <class T>
std::string text_of(T v) {
  if constexpr (std::is_floating_point_v<T>) return std::to_string(std::bit_cast<std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>(v));
  else if constexpr (std::is_integral_v<T>) return std::to_string(v);
  else return narrow(v);
}
std::string outcome_text(auto f) {
  std::string text;
  const int e = error_of([&] { text = text_of(f()); });
  return text + "/" + std::to_string(e);
}
template <class D, class T>
std::string value_outcome(T start, void (*op)(D&)) {
  D d;
  d.Value(start);
  const int e = error_of([&] { op(d); });
  return text_of(d.Value()) + "/" + std::to_string(e);
}
#define CALL(expr) #expr, [=] { return outcome_text([&] { return expr; }); }
#define S(start, call) "Single " #start " " #call, [] { return value_outcome<SingleData, float>(start, [](SingleData& d) { d.call; }); }

// Every step that could raise a condition, and the faults fuzzing found
// (floating comparisons and classifications made in the host's environment:
// a NaN or denormal argument set a sticky flag of the host or trapped, a
// host with denormals-are-zero changed a result). As each host calls it: no
// trap, the result of the default environment, the host's environment back
// bit for bit.
TEST(FuzzRegressions, HostEnvironmentUntouched) {
  auto listing = [](float v) { SingleAverage a; a.AddNumericData(v); return a.GiveMeYourNumbers().str(); };
  auto extreme = [](float v, bool high) { SingleAverage a; a.AddAPieceOfData(v); return high ? a.DataHighest() : a.DataLowest(); };
  auto whole_parts = [](std::u16string_view text) { IntegerAverage a; a.HereIsAStringOfNumbers(text); return a.DataAverage(); };
  auto power_of_two = [](auto d) { d.Value(2); d.RaiseYourself(-1070); return d.Value(); };  // a denormal power
  struct Row { const char* what; std::function<std::string()> call; };
  const Row rows[] = {
      {S(1, Divide(3))}, {S(1, Divide(0))}, {S(0, Divide(0))}, {S(FLT_MAX, DoubleYourself())}, {S(kTiny, Multiply(0.5))},
      {S(kSNaN, Add(1))}, {S(kNaN, HalveYourself())}, {S(kSNaN, DecrementToZero())}, {S(7.5, IDivide(0.25))},
      {S(1, IDivide(kNaN))}, {S(0, RaiseYourself(-1))}, {S(0x1p30, IDivide(3))}, {S(10, RaiseYourself(39))},
      {S(kSNaN, Push(); d.Zero(); d.Pop())}, {S(FLT_MAX, SetTheLimits(0, kInf); d.ModuloAdd(FLT_MAX))},
      {S(0, GreaterOfTheTwo(kSNaN, 1))},
      {CALL(fp::checked([] { return fp::opaque(1.0) / fp::opaque(0.0); }))},
      {CALL(fp::checked([] { return fp::opaque(0.0) / fp::opaque(0.0); }))}, {CALL(to_single(1e300))},
      {CALL([] { fp::Scope s; return to_integer(NAN); }())}, {CALL(power(0.0, -1.0))}, {CALL(power(10.0, 400.0))},
      {CALL(power(2.0, 0.5))}, {CALL(to_single(1.0 + 0x1p-30))}, {CALL(to_single(1.0 + 0x1p-52))},
      {CALL(to_single(0x1p-149))}, {CALL(to_single(0x1p-127))},
      {CALL(single_to_text(kTiny))}, {CALL(percent_display_text(kTiny))}, {CALL(listing(kNaN))}, {CALL(listing(kTiny))},
      {CALL(extreme(kNaN, true))}, {CALL(extreme(-kTiny, false))}, {CALL(power_of_two(IntegerData()))},
      {CALL(power_of_two(LongData()))}, {CALL(whole_parts(u"2.7, 1e-310, -0.5"))},
  };
  for (const auto& r : rows) {
    const std::string calm = r.call();
    for (const auto& host : kHosts) {
      std::string result;
      test::FpEnv before, after;
      test::as_host(host.arm, [&] {
        before = test::observe_env();
        result = r.call();
        after = test::observe_env();
      });
      EXPECT_EQ(result, calm) << r.what << ", " << host.what;
      EXPECT_EQ(after, before) << r.what << ", " << host.what;
    }
  }
}
#endif

}  // namespace
}  // namespace valmetra
