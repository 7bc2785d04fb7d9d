// The shortcuts of the number conversions against references: text_to_number
// reads most texts without std::from_chars (digits up to 2^53, decimal
// exponent within -22..22) and to_single converts exactly representable
// Doubles without a floating scope (its edges are in fp_test.cpp). Both must
// give exactly what the general path gives, on either side of their limits
// and under any rounding mode the host may have set.
#include <gtest/gtest.h>

#include <bit>
#include <cfenv>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>

#include "frame/arith.h"
#include "stats/number_text.h"

namespace valmetra {
namespace {

std::u16string widen(const std::string& s) { return std::u16string(s.begin(), s.end()); }

// A random number text: sign, 1 to 21 digits (leading zeros possible), a
// point anywhere or none, an exponent of -30..30 in one of its spellings.
std::string random_number_text(std::mt19937_64& rng) {
  auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<std::uint64_t>(n)); };
  std::string s;
  const int sign = pick(3);
  if (sign == 1) s += '-';
  if (sign == 2) s += '+';
  const int digits = 1 + pick(21);
  const int point = pick(digits + 2);  // digits + 1: no point
  for (int k = 0; k < digits; ++k) {
    if (k == point) s += '.';
    s += static_cast<char>('0' + pick(10));
  }
  if (point == digits) s += '.';
  if (pick(2)) {
    s += pick(2) ? 'E' : 'e';
    const int exponent = pick(61) - 30;
    if (exponent >= 0 && pick(2)) s += '+';
    s += std::to_string(exponent);
  }
  return s;
}

TEST(NumberFastPath, TextToNumberAgreesWithStrtod) {
  std::mt19937_64 rng(20240611);
  int mismatches = 0;
  for (int n = 0; n < 100000 && mismatches < 10; ++n) {
    const std::string text = random_number_text(rng);
    const double expected = std::strtod(text.c_str(), nullptr);
    const double got = text_to_number(widen(text));
    if (std::bit_cast<std::uint64_t>(got) != std::bit_cast<std::uint64_t>(expected)) {
      ++mismatches;
      ADD_FAILURE() << text << ": " << got << " instead of " << expected;
    }
  }
}

TEST(NumberFastPath, LimitsOfTheShortcut) {
  struct Case {
    const char* text;
    double expected;
  };
  const Case cases[] = {
      {"9007199254740992", 9007199254740992.0},    // 2^53: still the shortcut
      {"9007199254740993", 9007199254740992.0},    // beyond: general path, ties to even
      {"9007199254740995", 9007199254740996.0},
      {"1e22", 1e22},           {"1e23", 1e23},  // 10^23 is no exact Double
      {"1e-22", 1e-22},         {"1e-23", 1e-23},
      {"123456789012345678", 123456789012345678.0},
      {"-0", -0.0},             {"0e999", 0.0},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(std::bit_cast<std::uint64_t>(text_to_number(widen(c.text))),
              std::bit_cast<std::uint64_t>(c.expected))
        << c.text;
  }
}

// Reading and writing numbers round to nearest whatever the host has set.
TEST(NumberFastPath, SameResultsUnderTheHostsRoundingMode) {
  const char* texts[] = {"0.1", "-0.3333333333333333", "1234.5678", "1e-7", "99.875", "2.5e21",
                         "1e23", "12345678901234567890"};
  double nearest[std::size(texts)];
  for (std::size_t i = 0; i < std::size(texts); ++i) nearest[i] = std::strtod(texts[i], nullptr);
  for (int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
    std::fesetround(mode);
    for (std::size_t i = 0; i < std::size(texts); ++i)
      EXPECT_EQ(text_to_number(widen(texts[i])), nearest[i]) << texts[i] << " in mode " << mode;
    // 0.5 + 2^-25 + 2^-29 rounds up to 0.5 + 2^-24 (an exact literal: nothing
    // is computed in the host's mode).
    EXPECT_EQ(to_single(0x1.0000011p-1), 0x1.000002p-1f) << mode;
    EXPECT_EQ(single_to_text(0.1f), u"0.1") << mode;
    std::fesetround(FE_TONEAREST);
  }
}

}  // namespace
}  // namespace valmetra
