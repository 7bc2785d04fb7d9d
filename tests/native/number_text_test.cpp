#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include "frame/error.h"
#include "stats/number_text.h"

#include "test_support.h"

namespace valmetra {
namespace {

using test::error_of;

TEST(NumberTextRead, AcceptedForms) {
  struct Case { const char16_t* text; double value; };
  for (auto c : {Case{u"5", 5}, Case{u"  42  ", 42}, Case{u"\t-3.5\t", -3.5}, Case{u"+7", 7},
                 Case{u"5.", 5}, Case{u".5", 0.5}, Case{u"-.25", -0.25}, Case{u"1e3", 1000},
                 Case{u"1.5E-07", 1.5e-7}, Case{u"2.7", 2.7}, Case{u"00012.50e+02", 1250},
                 Case{u"0.1", 0.1}, Case{u"-0", 0}, Case{u"4.9e-324", 4.9e-324},
                 Case{u"1.7976931348623157e308", 1.7976931348623157e308},
                 Case{u"100000e-400", 0}, Case{u"0.0000000001e-320", 0}}) {
    EXPECT_EQ(text_to_number(c.text), c.value) << std::string(c.text, c.text + std::char_traits<char16_t>::length(c.text));
  }
  EXPECT_TRUE(std::signbit(text_to_number(u"-1e-400")));
}

TEST(NumberTextRead, RejectedForms) {
  for (const char16_t* text : {u"", u"   ", u"\t", u".", u"-", u"+-1", u"--1", u"1e", u"1e+", u"e5",
                               u"1.2.3", u"1,5", u"&H10", u"0x10", u"inf", u"Infinity", u"nan",
                               u"1 000", u"5 %", u"- 5", u"\xff11", u"1d5", u"$5", u"\x00a0" u"5",
                               u"5\n", u"1e5.5"}) {
    EXPECT_EQ(error_of([&] { text_to_number(text); }), 13)
        << std::string(text, text + std::char_traits<char16_t>::length(text));
  }
}

TEST(NumberTextRead, BeyondTheDoubleRangeOverflows) {
  for (const char16_t* text : {u"1e309", u"-1e400", u"0.00000000001e320", u"1e99999999999999999999"}) {
    EXPECT_EQ(error_of([&] { text_to_number(text); }), 6);
  }
}

TEST(NumberTextWrite, StandardSingleText) {
  struct Case { float value; const char16_t* text; };
  const float inf = std::numeric_limits<float>::infinity();
  for (auto c : {Case{0.0f, u"0"}, Case{-0.0f, u"0"}, Case{1, u"1"}, Case{-2.5f, u"-2.5"},
                 Case{0.1f, u"0.1"}, Case{0.145f, u"0.145"}, Case{123456.7f, u"123456.7"},
                 Case{1234567, u"1234567"}, Case{9999999, u"9999999"}, Case{1e7f, u"1E+07"},
                 Case{16777216, u"1.677722E+07"}, Case{10000005, u"1E+07"},  // tie to even
                 Case{10000015, u"1.000002E+07"}, Case{1e20f, u"1E+20"}, Case{1.5e-7f, u"1.5E-07"},
                 Case{0.0001f, u"0.0001"}, Case{0.00012345f, u"0.00012345"}, Case{0.00001f, u"1E-05"},
                 Case{-1e-10f, u"-1E-10"}, Case{1.0f / 3, u"0.3333333"}, Case{2.0f / 3, u"0.6666667"},
                 Case{0.99999994f, u"0.9999999"}, Case{999999.94f, u"999999.9"}, Case{1.9999999f, u"2"}, Case{-9.9999997e-5f, u"-0.0001"}, Case{1.0000001f, u"1"}, Case{1e6f, u"1000000"},
                 Case{3.4028235e38f, u"3.402823E+38"}, Case{1e-45f, u"1E-45"}, Case{1.1754942e-38f, u"1.175494E-38"},
                 Case{inf, u"Infinity"}, Case{-inf, u"-Infinity"},
                 Case{std::numeric_limits<float>::quiet_NaN(), u"NaN"}}) {
    EXPECT_EQ(single_to_text(c.value), c.text) << c.value;
  }
}

// Reading the text back gives the same Single when 7 digits suffice, and the
// Single nearest the 7-digit rounding otherwise.
TEST(NumberTextWrite, ReadsBack) {
  for (std::uint32_t bits = 0x00000001; bits < 0x7F800000; bits += 0x1F3D1) {
    const float f = std::bit_cast<float>(bits);
    for (float v : {f, -f}) {
      const std::u16string text = single_to_text(v);
      const float back = static_cast<float>(text_to_number(text));
      const double error = std::fabs(static_cast<double>(back) - v);
      // 7 significant digits: off by at most half a unit of the 7th digit
      // plus half a Single step.
      const double digit = std::pow(10.0, std::floor(std::log10(std::fabs(static_cast<double>(v)))) - 6);
      EXPECT_LE(error, 0.5 * digit + std::fabs(v) * 6e-8) << v;
    }
  }
  for (float v : {0.1f, 0.2f, 0.3f, 1.1f, 3.14159f, 2.5e-7f, 6.02e23f, 1e-38f, 33.33333f}) {
    EXPECT_EQ(static_cast<float>(text_to_number(single_to_text(v))), v) << v;
  }
}

TEST(NumberTextWrite, IntegerText) {
  for (auto [value, text] : {std::pair<Integer, const char16_t*>{0, u"0"}, {7, u"7"}, {-7, u"-7"},
                             {32767, u"32767"}, {-32768, u"-32768"}}) {
    std::u16string out = u"x";
    append_integer_text(out, value);
    EXPECT_EQ(out, std::u16string(u"x") + text);
  }
}

TEST(PercentDisplayText, PatternTable) {
  struct Case { float ratio; const char16_t* text; };
  for (auto c : {Case{0, u"%"}, Case{-0.0f, u"%"}, Case{0.004f, u"%"}, Case{0.005f, u"%"},  // 0.4999999888
                 Case{0.00501f, u"1%"}, Case{0.125f, u"13%"}, Case{-0.125f, u"-13%"},
                 Case{0.5f, u"50%"}, Case{1.0f / 3, u"33%"}, Case{2.0f / 3, u"67%"},
                 Case{0.145f, u"14%"}, Case{0.135f, u"14%"}, Case{0.155f, u"16%"},
                 Case{2, u"200%"}, Case{1.25f, u"125%"}, Case{0.995f, u"100%"}, Case{0.99499994f, u"99%"},
                 Case{1e10f, u"1000000000000%"}, Case{1e-45f, u"%"},
                 Case{3.4028235e38f, u"34028234663852885981170418348451692544000%"}}) {
    EXPECT_EQ(percent_display_text(c.ratio), c.text) << c.ratio;
  }
  EXPECT_EQ(error_of([] { percent_display_text(std::numeric_limits<float>::infinity()); }), 6);
}

}  // namespace
}  // namespace valmetra
