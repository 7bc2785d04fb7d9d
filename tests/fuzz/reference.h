// Slow, independent references the fuzz targets compare the core with.
//
// Each is written from the documented rules (docs/number-text.md,
// src/stats/average.h, src/stats/number_text.h), not from the core's code,
// and by other means: the C library's strtod / strtof / snprintf for decimal
// conversions (correctly rounded in the harness's default environment),
// arbitrary-precision integers for the percent display, a literal transcript
// of the 1-based cutting rules. All of them run in the harness's default
// floating-point environment (round to nearest, masked), never in a hostile one.
#pragma once

#include <cfenv>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace fuzz::ref {

// ---------------------------------------------------------------------------
// Text to number: [blanks] [+|-] mantissa [exponent] [blanks], blanks space
// and tab, ASCII only; the nearest Double; Overflow beyond the Double range.

enum class Kind { Number, TypeMismatch, Overflow };
struct Parsed {
  Kind kind = Kind::TypeMismatch;
  double value = 0.0;
};

inline bool is_blank(char16_t c) { return c == u' ' || c == u'\t'; }
inline bool is_digit(char c) { return c >= '0' && c <= '9'; }

inline Parsed text_to_number(std::u16string_view text) {
  std::size_t b = 0;
  std::size_t e = text.size();
  while (b < e && is_blank(text[b])) ++b;
  while (e > b && is_blank(text[e - 1])) --e;
  std::string s;
  for (std::size_t i = b; i < e; ++i) {
    if (text[i] > 0x7F) return {};
    s += static_cast<char>(text[i]);
  }
  const std::size_t n = s.size();
  std::size_t i = 0;
  if (i < n && (s[i] == '+' || s[i] == '-')) ++i;
  std::size_t mantissa_digits = 0;
  while (i < n && is_digit(s[i])) ++i, ++mantissa_digits;
  if (i < n && s[i] == '.') {
    ++i;
    while (i < n && is_digit(s[i])) ++i, ++mantissa_digits;
  }
  if (mantissa_digits == 0) return {};
  if (i < n && (s[i] == 'e' || s[i] == 'E')) {
    ++i;
    if (i < n && (s[i] == '+' || s[i] == '-')) ++i;
    std::size_t exponent_digits = 0;
    while (i < n && is_digit(s[i])) ++i, ++exponent_digits;
    if (exponent_digits == 0) return {};
  }
  if (i != n) return {};
  char* stop = nullptr;
  const double v = std::strtod(s.c_str(), &stop);
  if (stop != s.c_str() + n) return {};  // cannot happen for this grammar
  if (std::isinf(v)) return {Kind::Overflow, 0.0};
  return {Kind::Number, v};
}

// Nearest whole number, halves to even, in [lo, hi]; false when out of range
// or not a number.
inline bool round_to_int(double x, std::int64_t lo, std::int64_t hi, std::int64_t& out) {
  if (std::isnan(x)) return false;
  const double r = std::nearbyint(x);  // default environment: ties to even
  if (!(r >= static_cast<double>(lo) && r <= static_cast<double>(hi))) return false;
  out = static_cast<std::int64_t>(r);
  return true;
}

// ---------------------------------------------------------------------------
// Standard text of a Single.

// Significant digits and decimal exponent of a positive decimal "d.ddde±x".
struct Decimal {
  std::string digits;  // no leading zero; trailing zeros stripped
  int exponent = 0;    // of the first digit
};

inline Decimal scientific(double a, int precision) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*e", precision, a);
  Decimal d;
  const char* p = buf;
  for (; *p != 'e'; ++p)
    if (is_digit(*p)) d.digits += *p;
  d.exponent = std::atoi(p + 1);
  return d;
}

inline void strip_zeros(Decimal& d) {
  while (d.digits.size() > 1 && d.digits.back() == '0') d.digits.pop_back();
}

// d plus delta (+1 or -1) in its last digit, renormalised.
inline bool step_last_digit(Decimal& d, int delta) {
  std::string& s = d.digits;
  if (delta > 0) {
    std::size_t k = s.size();
    while (k > 0 && s[k - 1] == '9') s[--k] = '0';
    if (k == 0) {
      s.insert(s.begin(), '1');
      s.pop_back();
      ++d.exponent;
    } else {
      ++s[k - 1];
    }
  } else if (s[0] == '1' && s.find_first_not_of('0', 1) == std::string::npos) {
    s.assign(s.size(), '9');  // 1.00e+x less one unit is 9.99e+(x-1)
    --d.exponent;
  } else {
    std::size_t k = s.size();
    while (k > 0 && s[k - 1] == '0') s[--k] = '9';
    --s[k - 1];
  }
  return true;
}

inline float read_float(const Decimal& d) {
  std::string t = d.digits.substr(0, 1);
  if (d.digits.size() > 1) t += "." + d.digits.substr(1);
  t += "e" + std::to_string(d.exponent);
  return std::strtof(t.c_str(), nullptr);
}

// The digits the standard text uses: the shortest decimal that reads back as
// `a` (the nearest such when there are several) when it has at most 7 digits,
// else `a` rounded to 7 significant digits. `a` is positive and finite.
inline Decimal single_digits(float a) {
  for (int p = 1; p <= 7; ++p) {
    const Decimal nearest = scientific(static_cast<double>(a), p - 1);
    if (read_float(nearest) == a) {
      Decimal d = nearest;
      strip_zeros(d);
      return d;
    }
    // Near a power of two the interval that reads back is lopsided: the next
    // decimal on the wide side may read back where the nearest one does not.
    for (int delta : {1, -1}) {
      Decimal d = nearest;
      if (step_last_digit(d, delta) && read_float(d) == a) {
        strip_zeros(d);
        return d;
      }
    }
  }
  Decimal d = scientific(static_cast<double>(a), 6);
  strip_zeros(d);
  return d;
}

inline std::string single_text(float v) {
  if (std::isnan(v)) return "NaN";
  if (std::isinf(v)) return v < 0 ? "-Infinity" : "Infinity";
  if (v == 0.0f) return "0";
  std::string out = std::signbit(v) ? "-" : "";
  const Decimal d = single_digits(std::fabs(v));
  const int x = d.exponent;
  if (x <= -5 || x >= 7) {
    out += d.digits[0];
    if (d.digits.size() > 1) out += "." + d.digits.substr(1);
    char buf[16];
    std::snprintf(buf, sizeof buf, "E%c%02d", x < 0 ? '-' : '+', x < 0 ? -x : x);
    out += buf;
  } else if (x >= 0) {
    const std::size_t whole = static_cast<std::size_t>(x) + 1;
    std::string w = d.digits.substr(0, whole);
    w.resize(whole, '0');
    out += w;
    if (d.digits.size() > whole) out += "." + d.digits.substr(whole);
  } else {
    out += "0." + std::string(static_cast<std::size_t>(-x - 1), '0') + d.digits;
  }
  return out;
}

inline std::u16string widen(std::string_view s) { return std::u16string(s.begin(), s.end()); }

// ---------------------------------------------------------------------------
// Percent display: arbitrary-precision unsigned integers, base 2^32.

class Big {
 public:
  explicit Big(std::uint64_t v = 0) {
    while (v != 0) {
      limbs_.push_back(static_cast<std::uint32_t>(v));
      v >>= 32;
    }
  }
  bool zero() const { return limbs_.empty(); }
  Big& shift_left(unsigned bits) {
    if (zero()) return *this;
    limbs_.insert(limbs_.begin(), bits / 32, 0u);
    const unsigned r = bits % 32;
    if (r != 0) {
      std::uint32_t carry = 0;
      for (auto& l : limbs_) {
        const std::uint32_t next = l >> (32 - r);
        l = (l << r) | carry;
        carry = next;
      }
      if (carry != 0) limbs_.push_back(carry);
    }
    return *this;
  }
  Big& shift_right(unsigned bits) {
    const std::size_t drop = bits / 32;
    if (drop >= limbs_.size()) {
      limbs_.clear();
      return *this;
    }
    limbs_.erase(limbs_.begin(), limbs_.begin() + static_cast<std::ptrdiff_t>(drop));
    const unsigned r = bits % 32;
    if (r != 0) {
      for (std::size_t k = 0; k < limbs_.size(); ++k) {
        const std::uint32_t high = k + 1 < limbs_.size() ? limbs_[k + 1] << (32 - r) : 0;
        limbs_[k] = (limbs_[k] >> r) | high;
      }
    }
    trim();
    return *this;
  }
  Big& add(const Big& o) {
    if (o.limbs_.size() > limbs_.size()) limbs_.resize(o.limbs_.size(), 0);
    std::uint64_t carry = 0;
    for (std::size_t k = 0; k < limbs_.size(); ++k) {
      const std::uint64_t s = carry + limbs_[k] + (k < o.limbs_.size() ? o.limbs_[k] : 0);
      limbs_[k] = static_cast<std::uint32_t>(s);
      carry = s >> 32;
    }
    if (carry != 0) limbs_.push_back(static_cast<std::uint32_t>(carry));
    return *this;
  }
  // Decimal digits by repeated division by 10.
  std::string decimal() const {
    if (zero()) return "0";
    std::vector<std::uint32_t> n = limbs_;
    std::string out;
    while (!n.empty()) {
      std::uint64_t rem = 0;
      for (std::size_t k = n.size(); k-- > 0;) {
        const std::uint64_t cur = (rem << 32) | n[k];
        n[k] = static_cast<std::uint32_t>(cur / 10);
        rem = cur % 10;
      }
      out.insert(out.begin(), static_cast<char>('0' + rem));
      while (!n.empty() && n.back() == 0) n.pop_back();
    }
    return out;
  }

 private:
  void trim() {
    while (!limbs_.empty() && limbs_.back() == 0) limbs_.pop_back();
  }
  std::vector<std::uint32_t> limbs_;
};

// "##%" of a finite Single: ratio * 100 rounded half away from zero.
inline std::string percent_display(float ratio) {
  std::uint32_t bits;
  std::memcpy(&bits, &ratio, sizeof bits);
  const bool negative = (bits >> 31) != 0;
  const int biased = static_cast<int>((bits >> 23) & 0xFF);
  const std::uint64_t frac = bits & 0x7FFFFF;
  const std::uint64_t m = biased == 0 ? frac : frac | 0x800000;
  const int e = biased == 0 ? -149 : biased - 150;  // ratio = m * 2^e
  Big n(100 * m);
  if (e >= 0) {
    n.shift_left(static_cast<unsigned>(e));
  } else {
    // floor((2n + 2^s) / 2^(s+1)) = floor(n / 2^s + 1/2)
    const unsigned s = static_cast<unsigned>(-e);
    Big half(1);
    half.shift_left(s);
    n.shift_left(1).add(half).shift_right(s + 1);
  }
  std::string out;
  if (!n.zero()) out = (negative ? "-" : "") + n.decimal();
  return out + "%";
}

// The exact quotient occurrences / samples (divisor 1 for no samples) rounded
// once to a Single. Counts below 2^53: the 64-bit long double quotient rounds
// to the same Single as the exact one.
inline float ratio(std::uint64_t occurrences, std::uint64_t samples) {
  const long double q = static_cast<long double>(occurrences) /
                        static_cast<long double>(samples == 0 ? 1 : samples);
  return static_cast<float>(q);
}

// ---------------------------------------------------------------------------
// Sample averages.

inline constexpr long kMaxPosition = 32767;

struct Cut {
  std::vector<std::u16string> pieces;
  bool overflow = false;
};

inline std::u16string trim_spaces(std::u16string_view s) {
  std::size_t b = 0;
  std::size_t e = s.size();
  while (b < e && s[b] == u' ') ++b;
  while (e > b && s[e - 1] == u' ') --e;
  return std::u16string(s.substr(b, e - b));
}

// Literal transcript of the cutting rules, positions from 1.
inline Cut cut(std::u16string_view s) {
  Cut out;
  const long length = static_cast<long>(s.size());
  auto find_comma = [&](long from) -> long {
    for (long pos = from; pos <= length; ++pos)
      if (s[static_cast<std::size_t>(pos - 1)] == u',') return pos;
    return 0;
  };
  long start = 1;
  long comma = find_comma(2);
  while (comma != 0) {
    if (comma > kMaxPosition) {
      out.overflow = true;
      return out;
    }
    out.pieces.push_back(
        trim_spaces(s.substr(static_cast<std::size_t>(start - 1), static_cast<std::size_t>(comma - start))));
    if (comma + 1 > kMaxPosition) {
      out.overflow = true;
      return out;
    }
    start = comma + 1;
    comma = find_comma(start);
  }
  const long rest = length - start + 1;
  if (rest > kMaxPosition) {
    out.overflow = true;
    return out;
  }
  if (rest > 0) out.pieces.emplace_back(s.substr(static_cast<std::size_t>(start - 1)));
  return out;
}

template <class Element>
using Item = std::variant<Element, std::u16string>;

template <class Element>
std::u16string item_text(const Item<Element>& item) {
  if (const auto* t = std::get_if<std::u16string>(&item)) return *t;
  if constexpr (std::is_same_v<Element, float>) {
    return widen(single_text(std::get<0>(item)));
  } else {
    return widen(std::to_string(std::get<0>(item)));
  }
}

// The listing, or nullopt-like `ok = false` when the 16-bit item counter
// overflows (at the 32,768th item).
template <class Element>
bool listing(const std::vector<Item<Element>>& items, std::u16string& out) {
  out.clear();
  if (items.size() >= 32768) return false;
  for (std::size_t k = 0; k < items.size(); ++k) {
    if (k != 0) out += u", ";
    out += item_text<Element>(items[k]);
  }
  return true;
}

// A statistic's outcome: error number (0 for none) and value.
struct Stat {
  int error = 0;
  double value = 0.0;
};

// The value of an item as a number for comparing, or an error.
template <class Element>
int item_number(const Item<Element>& item, double& out) {
  if (const auto* t = std::get_if<std::u16string>(&item)) {
    const Parsed p = text_to_number(*t);
    if (p.kind == Kind::TypeMismatch) return 13;
    if (p.kind == Kind::Overflow) return 6;
    out = p.value;
    return 0;
  }
  out = static_cast<double>(std::get<0>(item));
  return 0;
}

template <class Element>
Stat average(const std::vector<Item<Element>>& items) {
  if constexpr (std::is_same_v<Element, float>) {
    float sum = 0.0f;
    for (const auto& item : items) {
      float x;
      if (const auto* t = std::get_if<std::u16string>(&item)) {
        const Parsed p = text_to_number(*t);
        if (p.kind == Kind::TypeMismatch) return {13, 0};
        if (p.kind == Kind::Overflow) return {6, 0};
        x = static_cast<float>(p.value);
        if (std::isinf(x)) return {6, 0};  // beyond the Single range
      } else {
        x = std::get<0>(item);
      }
      // IEEE single addition and its floating check.
      std::feclearexcept(FE_ALL_EXCEPT);
      volatile float a = sum;
      volatile float b = x;
      const float r = a + b;
      volatile float keep = r;
      const int raised = std::fetestexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW);
      std::feclearexcept(FE_ALL_EXCEPT);
      if (raised & FE_DIVBYZERO) return {11, 0};
      if (raised != 0) return {6, 0};
      sum = keep;
    }
    if (items.empty()) return {0, 0.0};
    return {0, static_cast<double>(static_cast<float>(static_cast<double>(sum) /
                                                      static_cast<double>(items.size())))};
  } else {
    std::int64_t sum = 0;
    for (const auto& item : items) {
      std::int64_t x;
      if (const auto* t = std::get_if<std::u16string>(&item)) {
        const Parsed p = text_to_number(*t);
        if (p.kind == Kind::TypeMismatch) return {13, 0};
        if (p.kind == Kind::Overflow) return {6, 0};
        if (!round_to_int(std::floor(p.value), -32768, 32767, x)) return {6, 0};
      } else {
        x = std::get<0>(item);
      }
      sum += x;
      if (sum < -32768 || sum > 32767) return {6, 0};
    }
    if (items.empty()) return {0, 0.0};
    return {0, static_cast<double>(static_cast<float>(static_cast<double>(sum) /
                                                      static_cast<double>(items.size())))};
  }
}

// DataHighest (highest = true) or DataLowest.
template <class Element>
Stat extreme(const std::vector<Item<Element>>& items, bool highest) {
  std::int64_t running = 0;
  for (const auto& item : items) {
    double d = 0;
    if (const int err = item_number<Element>(item, d)) return {err, 0};
    if (std::isnan(d)) continue;  // never beyond anything
    const bool beyond = highest ? d > static_cast<double>(running) : d < static_cast<double>(running);
    if (beyond && !round_to_int(d, -32768, 32767, running)) return {6, 0};
  }
  return {0, static_cast<double>(running)};
}

}  // namespace fuzz::ref
