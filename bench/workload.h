// Inputs shared by the native and the Windows benchmarks, so that both
// measure the same work.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace valmetra::bench {

// Texts read as numbers (text-to-number benchmarks): plain, signed,
// fractional and exponent forms, short and long.
inline constexpr const char16_t* kNumberTexts[] = {u"12",  u"3.5",   u"-0.25", u"1234.5678",
                                                   u"1E+07", u"0.001", u"42",    u"99.875"};
inline constexpr std::size_t kNumberTextCount = sizeof kNumberTexts / sizeof kNumberTexts[0];

// Singles written as text (number-text benchmarks): whole, fractional,
// 7-digit and exponent results.
inline constexpr float kTextValues[] = {12.0f, 3.5f, -0.25f, 1234.5678f, 1e7f, 0.001f, 42.0f, 99.875f};
inline constexpr std::size_t kTextValueCount = sizeof kTextValues / sizeof kTextValues[0];

// Ratios shown as "##%" (percent display benchmarks).
inline constexpr float kRatios[] = {0.145f, 0.5f, 0.0732f, 1.0f, 0.3333333f, 0.0f, 2.0f, 0.0049f};
inline constexpr std::size_t kRatioCount = sizeof kRatios / sizeof kRatios[0];

// The sample-average round trip: item i is ((i * 7919) mod 2000) / 8,
// written as its whole part and, when there is one, its eighths as a
// decimal fraction ("187", "12.5", "249.875").
inline std::u16string average_item(int i) {
  const int v = static_cast<int>((static_cast<long long>(i) * 7919) % 2000);
  std::u16string s;
  std::string digits = std::to_string(v / 8);
  static constexpr const char* kEighths[] = {"", ".125", ".25", ".375", ".5", ".625", ".75", ".875"};
  digits += kEighths[v % 8];
  for (char c : digits) s += static_cast<char16_t>(c);
  return s;
}

// The items 0..count-1 as comma-separated number strings, cut between items
// so that each string stays below `limit` characters (a number string puts
// its commas at 16-bit positions, so one string cannot hold 32,767 items):
// the first string goes to HereIsAStringOfNumbers, the others to
// IncludeThisStringOfNumbers.
inline std::vector<std::u16string> average_strings(int count, std::size_t limit = 32000) {
  std::vector<std::u16string> out(1);
  for (int i = 0; i < count; ++i) {
    const std::u16string item = average_item(i);
    if (!out.back().empty() && out.back().size() + 1 + item.size() >= limit) out.emplace_back();
    if (!out.back().empty()) out.back() += u',';
    out.back() += item;
  }
  return out;
}

// What GiveMeYourNumbers must return for `count` items: their length.
inline std::size_t average_listing_length(int count) {
  std::size_t n = 0;
  for (int i = 0; i < count; ++i) n += average_item(i).size();
  return count > 0 ? n + 2 * static_cast<std::size_t>(count - 1) : 0;
}

// DataAverage of the items 0..count-1, as a SingleAverage computes it: a
// 32-bit running sum (every item is a multiple of 1/8 below 250, so each
// item is exact and only the additions round), divided in 64 bits and
// rounded to a 32-bit float.
inline float average_mean(int count) {
  float sum = 0;
  for (int i = 0; i < count; ++i)
    sum += static_cast<float>((static_cast<long long>(i) * 7919) % 2000) / 8.0f;
  return count > 0 ? static_cast<float>(static_cast<double>(sum) / count) : 0.0f;
}

}  // namespace valmetra::bench
