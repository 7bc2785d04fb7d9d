// Number text (stats/number_text.h) and number strings (stats/average.h).
//
// Input: a selector byte, 4 bytes of host environment, then by selector % 4:
//   0  texts read with text_to_number (Input::text, each ended by 0xFF);
//   1  Singles (4 bytes each) written with single_to_text;
//   2  actions on a SingleAverage and an IntegerAverage, each one byte a:
//      a % 4 == 0 HereIsAStringOfNumbers(text), 1 IncludeThisStringOfNumbers(text),
//      2 AddAPieceOfData(number), 3 AddNumericData(number) (numbers: 4 bytes);
//   3  Singles (4 bytes each) shown with percent_display_text.
// Every call runs in the hostile environment (fuzz_support.h); where a result
// is text or a number it must also equal the result in the default one.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <string>

#include "frame/arith.h"
#include "fuzz_support.h"
#include "stats/average.h"
#include "stats/number_text.h"

namespace {

using namespace valmetra;
using fuzz::Env;

std::string narrow(std::u16string_view s) {
  std::string out;
  for (char16_t c : s) out += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
  return out.size() > 200 ? out.substr(0, 200) + "..." : out;
}

std::string show(float v) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%.9g (%08x)", v, std::bit_cast<std::uint32_t>(v));
  return buf;
}

// The result and the error of text_to_number, in env and in the default one.
std::pair<std::uint64_t, int> parse(std::u16string_view t, const Env& env) {
  double v = 0, calm = 0;
  const int e = fuzz::call(env, [&] { v = text_to_number(t); });
  const int e_calm = fuzz::call(Env{}, [&] { calm = text_to_number(t); });
  FUZZ_CHECK(e == e_calm && std::bit_cast<std::uint64_t>(v) == std::bit_cast<std::uint64_t>(calm),
             "\"" + narrow(t) + "\" reads differently in the host's environment");
  FUZZ_CHECK(e == 0 || e == 6 || e == 13, "\"" + narrow(t) + "\": error " + std::to_string(e));
  FUZZ_CHECK(e != 0 || std::isfinite(v), "\"" + narrow(t) + "\" reads as a non-finite number");
  return {std::bit_cast<std::uint64_t>(v), e};
}

// Blanks around a number change nothing; a sign before it negates it exactly.
void check_reading(const std::u16string& t, const Env& env) {
  const auto plain = parse(t, env);
  FUZZ_CHECK(parse(u" \t" + t + u"\t ", env) == plain, "blanks around \"" + narrow(t) + "\"");
  if (t.empty() || !(t[0] == u'.' || (t[0] >= u'0' && t[0] <= u'9'))) return;
  FUZZ_CHECK(parse(u"+" + t, env) == plain, "\"+" + narrow(t) + "\"");
  const auto minus = parse(u"-" + t, env);
  FUZZ_CHECK(minus.second == plain.second && (plain.second != 0 || minus.first == (plain.first ^ 1ull << 63)),
             "\"-" + narrow(t) + "\" is not the negation");
}

std::u16string format(float v, const Env& env) {
  std::u16string s, calm;
  FUZZ_CHECK(fuzz::call(env, [&] { s = single_to_text(v); }) == 0, show(v) + ": writing failed");
  fuzz::call(Env{}, [&] { calm = single_to_text(v); });
  FUZZ_CHECK(s == calm, show(v) + " is written differently in the host's environment");
  return s;
}

// The standard text: "NaN", "[-]Infinity", "0", or at most 7 significant
// digits without trailing zeros, plain for first-digit exponents -4..6 and
// d[.ddd]E(+|-)dd otherwise. Read back it gives a Single within half a unit
// of the 7th digit (plus the rounding to a Single), whose own text reads back
// as exactly that Single.
void check_single_text(float v, const Env& env) {
  const std::u16string s = format(v, env);
  const std::string what = show(v) + " written as " + narrow(s);
  if (!std::isfinite(v) || v == 0) {
    FUZZ_CHECK(s == (std::isnan(v) ? u"NaN" : v == 0 ? u"0" : v > 0 ? u"Infinity" : u"-Infinity"), what);
    return;
  }
  const std::size_t e_at = s.find(u'E'), start = s[0] == u'-' ? 1 : 0;
  const std::u16string m = s.substr(start, e_at - start);
  const std::size_t point = m.find(u'.'), first = m.find_first_not_of(u"0.");
  const std::size_t digits = m.size() - first - (point != std::u16string::npos && point > first);
  FUZZ_CHECK((s[0] == u'-') == std::signbit(v) && digits <= 7 && first != std::u16string::npos, what);
  FUZZ_CHECK(m.find_first_not_of(u"0123456789.") == std::u16string::npos && m.find(u'.', point + 1) == m.npos, what);
  FUZZ_CHECK(point == std::u16string::npos || (m.back() != u'0' && m.back() != u'.' && point > 0), what);
  if (e_at != std::u16string::npos) {
    const std::u16string x = s.substr(e_at + 1);
    const int exponent = std::stoi(narrow(x));
    FUZZ_CHECK(first == 0 && (point == 1 || m.size() == 1) && (exponent <= -5 || exponent >= 7), what);
    FUZZ_CHECK((x[0] == u'+' || x[0] == u'-') && x.size() >= 3 && (x.size() == 3 || x[1] != u'0'), what);
  } else {
    FUZZ_CHECK(first == 0 ? (point == std::u16string::npos ? m.size() : point) <= 7 : m[0] == u'0' && point == 1
                                                                                        && first <= 5, what);
  }
  const auto read = parse(s, env);
  float back = 0;
  FUZZ_CHECK(read.second == 0 && fuzz::call(env, [&] { back = to_single(std::bit_cast<double>(read.first)); }) == 0,
             what);
  FUZZ_CHECK(std::fabs(double{back} - v) <= 7e-7 * std::fabs(v) && std::signbit(back) == std::signbit(v),
             what + " reads back as " + show(back));
  const auto [again, error2] = parse(format(back, env), env);
  FUZZ_CHECK(error2 == 0 && static_cast<float>(std::bit_cast<double>(again)) == back, what + ": " + show(back) + " does not read back");
}

// "##%": the ratio times 100 rounded to a whole number, halves away from
// zero, without leading zeros or a digit for 0, '-' before a negative one.
void check_percent_display(float v, const Env& env) {
  std::u16string s, calm;
  const int e = fuzz::call(env, [&] { s = percent_display_text(v); });
  fuzz::call(Env{}, [&] { calm = percent_display_text(v); });
  FUZZ_CHECK(e == (std::isfinite(v) ? 0 : 6) && s == calm, show(v) + ": " + narrow(s));
  if (e != 0) return;
  const std::size_t start = s[0] == u'-' ? 1 : 0;
  const std::string digits = narrow(s.substr(start, s.size() - start - 1));
  const double want = std::fabs(double{v}) * 100, shown = digits.empty() ? 0 : std::strtod(digits.c_str(), nullptr);
  FUZZ_CHECK(s.back() == u'%' && (start == 1) == (std::signbit(v) && !digits.empty()) && digits[0] != '0' &&
                 digits.find_first_not_of("0123456789") == std::string::npos,
             show(v) + ": " + narrow(s));
  FUZZ_CHECK(std::fabs(shown - want) < 0.5 || (std::fabs(shown - want) == 0.5 && shown > want),
             show(v) + " shows " + narrow(s));
}

// Number strings: cutting keeps every character but the spaces around the
// pieces; both averages cut alike; the statistics keep their ranges.
void check_number_strings(fuzz::Input& in, const Env& env) {
  SingleAverage sa;
  IntegerAverage ia;
  std::size_t items = 0, budget = 200000;  // items: at most this many
  bool texts_only = true, finite = true;
  for (int n = 0; n < 64 && !in.empty(); ++n) {
    const int action = in.byte() % 4;
    if (action <= 1) {
      const std::u16string t = in.text(std::min<std::size_t>(70000, budget));
      budget -= t.size();
      auto cut = [&](auto& avg) {
        return fuzz::call(env, [&] { action == 0 ? avg.HereIsAStringOfNumbers(t) : avg.IncludeThisStringOfNumbers(t); });
      };
      const int e = cut(sa);
      FUZZ_CHECK(e == cut(ia) && (e == 0 || (e == 6 && t.size() >= 32767)), "cutting: error " + std::to_string(e));
      if (action == 0) items = 0, texts_only = finite = true;
      items += std::count(t.begin(), t.end(), u',') + 1;
      if (action != 0 || e != 0 || t.size() >= 32767) continue;
      std::u16string ls, li;
      FUZZ_CHECK(fuzz::call(env, [&] { ls = sa.GiveMeYourNumbers().str(); }) == 0, "listing failed");
      FUZZ_CHECK(fuzz::call(env, [&] { li = ia.GiveMeYourNumbers().str(); }) == 0, "listing failed");
      auto strip = [](std::u16string s) { return std::erase_if(s, [](char16_t c) { return c == u' ' || c == u','; }), s; };
      const auto commas = std::count(t.begin(), t.end(), u',') - (t.size() >= 2 && t.back() == u',');
      FUZZ_CHECK(ls == li && strip(ls) == strip(t) && std::count(ls.begin(), ls.end(), u',') == commas,
                 "\"" + narrow(t) + "\" is listed as \"" + narrow(ls) + "\"");
    } else {
      const std::uint32_t b = in.u32();
      const float x = (b & 0xFF) < 0xC0 ? static_cast<std::int16_t>(b >> 8) / 4.0f : std::bit_cast<float>(b);
      FUZZ_CHECK(fuzz::call(env, [&] { action == 2 ? sa.AddAPieceOfData(x) : sa.AddNumericData(x); }) == 0, "adding");
      FUZZ_CHECK(fuzz::call(env, [&] { action == 2 ? ia.AddAPieceOfData(Integer(b)) : ia.AddNumericData(Integer(b)); }) == 0, "adding");
      ++items, texts_only = false, finite = finite && (std::isfinite(x) || (action == 3 && !(x > 0)));
    }
  }
  std::u16string ls, li;
  const int e = fuzz::call(env, [&] { ls = sa.GiveMeYourNumbers().str(); });
  FUZZ_CHECK(e == fuzz::call(env, [&] { li = ia.GiveMeYourNumbers().str(); }) && (e == 0 || items >= 32768),
             "listing: error " + std::to_string(e));
  FUZZ_CHECK(!texts_only || ls == li, "the averages list the same texts differently");
  auto statistics = [&](auto& avg, float& mean, float& high, float& low) {
    float again = 0;
    std::array<int, 3> e{};
    e[0] = fuzz::call(env, [&] { mean = avg.DataAverage(); });
    FUZZ_CHECK(fuzz::call(env, [&] { again = avg.Average(); }) == e[0] &&
                   (e[0] != 0 || std::bit_cast<std::uint32_t>(again) == std::bit_cast<std::uint32_t>(mean)), "Average");
    e[1] = fuzz::call(env, [&] { high = avg.DataHighest(); });
    e[2] = fuzz::call(env, [&] { low = avg.DataLowest(); });
    for (int k : e) FUZZ_CHECK(k == 0 || k == 6 || k == 13, "statistic: error " + std::to_string(k));
    FUZZ_CHECK(e[0] != 0 || !finite || std::isfinite(mean), "DataAverage " + show(mean) + " over finite items");
    FUZZ_CHECK(e[1] != 0 || (high >= 0 && high <= 32767 && high == std::trunc(high)), "DataHighest " + show(high));
    FUZZ_CHECK(e[2] != 0 || (low <= 0 && low >= -32768 && low == std::trunc(low)), "DataLowest " + show(low));
    return e;
  };
  float mean = 0, high = 0, low = 0, imean = 0, ihigh = 0, ilow = 0;
  const auto es = statistics(sa, mean, high, low), ei = statistics(ia, imean, ihigh, ilow);
  FUZZ_CHECK(!texts_only || (es[1] == ei[1] && es[2] == ei[2] && (es[1] || high == ihigh) && (es[2] || low == ilow)),
             "the averages' extremes of the same texts differ");
  FUZZ_CHECK(ei[0] || ei[1] || ei[2] || (imean >= ilow - 2 && imean <= ihigh + 1),
             "IntegerAverage mean " + show(imean) + " outside " + show(ilow) + ".." + show(ihigh));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input in{data, data + size};
  const int selector = in.byte() % 4;
  const Env env = fuzz::hostile_env(in.u32());
  if (selector == 2) check_number_strings(in, env);
  while (selector != 2 && !in.empty()) {
    if (selector == 0) check_reading(in.text(4096), env);
    if (selector == 1) check_single_text(std::bit_cast<float>(in.u32()), env);
    if (selector == 3) check_percent_display(std::bit_cast<float>(in.u32()), env);
  }
  return 0;
}
