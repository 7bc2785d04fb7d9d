// Number text (stats/number_text.h) and number strings (stats/average.h).
// Input: a selector byte, 4 bytes of host environment, then by selector % 4:
//   0  texts read with text_to_number (Input::text, each ended by 0xFF);
//   1  Singles (4 bytes each) written with single_to_text;
//   2  actions on a SingleAverage and an IntegerAverage, one byte a each:
//      a % 4 == 0 HereIsAStringOfNumbers(text), 1 IncludeThisStringOfNumbers(text),
//      2 AddAPieceOfData(number), 3 AddNumericData(number) (numbers: 4 bytes);
//   3  Singles (4 bytes each) shown with percent_display_text.
// Every call runs in the hostile environment (fuzz_support.h); a text or
// number result must equal the one in the default environment.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <regex>
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
  for (char16_t c : s.substr(0, 200)) out += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '?';
  return out;
}
std::string show(float v) { return std::to_string(v) + " (" + std::to_string(std::bit_cast<std::uint32_t>(v)) + ")"; }

template <class T>  // bit for bit
bool same(const T& a, const T& b) {
  if constexpr (std::is_arithmetic_v<T>) return std::memcmp(&a, &b, sizeof a) == 0;
  else return a == b;
}

// f() in env and in the default environment: its result in env and the
// error, both the same as in the default environment.
template <class F>
auto both(const Env& env, F f, const std::string& what) {
  decltype(f()) r{}, calm{};
  const int e = fuzz::call(env, [&] { r = f(); });
  FUZZ_CHECK(fuzz::call(Env{}, [&] { calm = f(); }) == e && same(r, calm), what + ": another result in the host's environment");
  return std::pair{r, e};
}

// A number, Type mismatch or Overflow; never a non-finite number.
std::pair<std::uint64_t, int> parse(std::u16string_view t, const Env& env) {
  const std::string what = "\"" + narrow(t) + "\"";
  const auto [v, e] = both(env, [&] { return std::bit_cast<std::uint64_t>(text_to_number(t)); }, what);
  FUZZ_CHECK((e == 0 && std::isfinite(std::bit_cast<double>(v))) || e == 6 || e == 13, what + ": error " + std::to_string(e));
  return {v, e};
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
  const auto [s, e] = both(env, [&] { return single_to_text(v); }, show(v));
  FUZZ_CHECK(e == 0, show(v) + ": writing failed");
  return s;
}

// The standard text: "NaN", "[-]Infinity", "0", or at most 7 significant
// digits without trailing zeros, plain for first-digit exponents -4..6 and
// d[.ddd]E(+|-)dd otherwise. Read back it gives a Single within half a unit
// of the 7th digit (plus the rounding to a Single), whose own text reads back
// as exactly that Single.
void check_single_text(float v, const Env& env) {
  static const std::regex kForm(
      "-?([1-9][0-9]{0,6}(\\.[0-9]*[1-9])?|0\\.0{0,3}[1-9]([0-9]*[1-9])?|[1-9](\\.[0-9]*[1-9])?E(-(0[5-9]|[1-9][0-9]+)|\\+(0[7-9]|[1-9][0-9]+)))");
  const std::u16string s = format(v, env);
  const std::string what = show(v) + " written as " + narrow(s), m = narrow(s.substr(0, s.find(u'E')));
  if (!std::isfinite(v) || v == 0) {
    FUZZ_CHECK(s == (std::isnan(v) ? u"NaN" : v == 0 ? u"0" : v > 0 ? u"Infinity" : u"-Infinity"), what);
    return;
  }
  const std::size_t first = m.find_first_not_of("-0.");
  FUZZ_CHECK(std::regex_match(narrow(s), kForm) && (s[0] == u'-') == std::signbit(v) &&
                 std::count_if(m.begin() + first, m.end(), [](char c) { return c != '.'; }) <= 7,
             what);
  const auto read = parse(s, env);
  float back = 0;
  FUZZ_CHECK(read.second == 0 && fuzz::call(env, [&] { back = to_single(std::bit_cast<double>(read.first)); }) == 0, what);
  FUZZ_CHECK(std::fabs(double{back} - v) <= 7e-7 * std::fabs(v) && std::signbit(back) == std::signbit(v),
             what + " reads back as " + show(back));
  const auto [again, error2] = parse(format(back, env), env);
  FUZZ_CHECK(error2 == 0 && static_cast<float>(std::bit_cast<double>(again)) == back, what + ": " + show(back) + " does not read back");
}

// "##%": the ratio times 100 rounded to a whole number, halves away from
// zero, without leading zeros or a digit for 0, '-' before a negative one.
void check_percent_display(float v, const Env& env) {
  static const std::regex kForm("-?([1-9][0-9]*)?%");
  const auto [s, e] = both(env, [&] { return percent_display_text(v); }, show(v));
  const std::string what = show(v) + " shows " + narrow(s), digits = narrow(s.substr(s[0] == u'-', s.size() - (s[0] == u'-') - 1));
  FUZZ_CHECK(e == (std::isfinite(v) ? 0 : 6), what);
  if (e != 0) return;
  const double want = std::fabs(double{v}) * 100, shown = digits.empty() ? 0 : std::strtod(digits.c_str(), nullptr);
  FUZZ_CHECK(std::regex_match(narrow(s), kForm) && (s[0] == u'-') == (std::signbit(v) && !digits.empty()), what);
  FUZZ_CHECK(std::fabs(shown - want) < 0.5 || (std::fabs(shown - want) == 0.5 && shown > want), what);
}

// Number strings: cutting keeps every character but the spaces around the
// pieces; both averages cut alike; the statistics keep their ranges.
void check_number_strings(fuzz::Input& in, const Env& env) {
  SingleAverage sa;
  IntegerAverage ia;
  std::size_t items = 0, budget = 200000;  // items: at most this many
  bool texts_only = true, finite = true;
  auto list = [&](auto& avg) { return both(env, [&] { return avg.GiveMeYourNumbers().str(); }, "listing"); };
  for (int n = 0; n < 64 && !in.empty(); ++n) {
    const int action = in.byte() % 4;
    if (action <= 1) {
      const std::u16string t = in.text(std::min<std::size_t>(70000, budget));
      budget -= t.size();
      auto cut = [&](auto& avg) { return fuzz::call(env, [&] { action ? avg.IncludeThisStringOfNumbers(t) : avg.HereIsAStringOfNumbers(t); }); };
      const int e = cut(sa);
      FUZZ_CHECK(e == cut(ia) && (e == 0 || (e == 6 && t.size() >= 32767)), "cutting: error " + std::to_string(e));
      if (action == 0) items = 0, texts_only = finite = true;
      items += std::count(t.begin(), t.end(), u',') + 1;
      if (action != 0 || e != 0 || t.size() >= 32767) continue;
      const auto [ls, es] = list(sa);
      const auto strip = [](std::u16string s) { return std::erase_if(s, [](char16_t c) { return c == u' ' || c == u','; }), s; };
      const auto commas = std::count(t.begin(), t.end(), u',') - (t.size() >= 2 && t.back() == u',');
      FUZZ_CHECK(es == 0 && list(ia) == list(sa) && strip(ls) == strip(t) && std::count(ls.begin(), ls.end(), u',') == commas,
                 "\"" + narrow(t) + "\" is listed as \"" + narrow(ls) + "\"");
    } else {
      const std::uint32_t b = in.u32();
      const float x = (b & 0xFF) < 0xC0 ? static_cast<std::int16_t>(b >> 8) / 4.0f : std::bit_cast<float>(b);
      FUZZ_CHECK(fuzz::call(env, [&] { action == 2 ? sa.AddAPieceOfData(x) : sa.AddNumericData(x); }) == 0, "adding");
      FUZZ_CHECK(fuzz::call(env, [&] { action == 2 ? ia.AddAPieceOfData(Integer(b)) : ia.AddNumericData(Integer(b)); }) == 0, "adding");
      ++items, texts_only = false, finite = finite && (std::isfinite(x) || (action == 3 && !(x > 0)));
    }
  }
  const auto ls = list(sa), li = list(ia);
  FUZZ_CHECK(ls.second == li.second && (ls.second == 0 || items >= 32768), "listing: error " + std::to_string(ls.second));
  FUZZ_CHECK(!texts_only || ls == li, "the averages list the same texts differently");
  auto statistics = [&](auto& avg) {
    const auto mean = both(env, [&] { return avg.DataAverage(); }, "DataAverage"), again = both(env, [&] { return avg.Average(); }, "Average");
    const auto high = both(env, [&] { return float(avg.DataHighest()); }, "DataHighest"), low = both(env, [&] { return float(avg.DataLowest()); }, "DataLowest");
    FUZZ_CHECK(again.second == mean.second && (mean.second || same(again.first, mean.first)), "Average is not DataAverage");
    for (int k : {mean.second, high.second, low.second}) FUZZ_CHECK(k == 0 || k == 6 || k == 13, "statistic: error " + std::to_string(k));
    const float m = mean.first, h = high.first, l = low.first;
    FUZZ_CHECK(mean.second != 0 || !finite || std::isfinite(m), "DataAverage " + show(m) + " over finite items");
    FUZZ_CHECK(high.second != 0 || (h >= 0 && h <= 32767 && h == std::trunc(h)), "DataHighest " + show(h));
    FUZZ_CHECK(low.second != 0 || (l <= 0 && l >= -32768 && l == std::trunc(l)), "DataLowest " + show(l));
    return std::array{mean, high, low};
  };
  const auto s = statistics(sa), i = statistics(ia);
  FUZZ_CHECK(!texts_only || (s[1] == i[1] && s[2] == i[2]), "the averages' extremes of the same texts differ");
  FUZZ_CHECK(i[0].second || i[1].second || i[2].second || (i[0].first >= i[2].first - 2 && i[0].first <= i[1].first + 1),
             "IntegerAverage's mean outside its extremes");
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
