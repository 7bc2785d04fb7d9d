#include "stats/number_text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <system_error>

#include "frame/fp.h"

namespace valmetra {

namespace {

constexpr bool is_digit(char c) noexcept { return c >= '0' && c <= '9'; }

// A run of decimal digits. The scans of the general reader below need no
// bounds checks: s[s.size()] is the string's terminating NUL, which is no
// digit, sign, point or exponent letter.
struct DigitRun {
  std::size_t count = 0;          // digits in the run
  std::size_t leading_zeros = 0;  // zeros before the first non-zero digit
  bool all_zero = true;
};

// Scans the run starting at i and leaves i after it.
DigitRun scan_digits(const std::string& s, std::size_t& i) {
  DigitRun run;
  for (; is_digit(s[i]); ++i) {
    if (s[i] != '0') run.all_zero = false;
    if (run.all_zero) ++run.leading_zeros;
    ++run.count;
  }
  return run;
}

constexpr bool is_digit16(char16_t c) noexcept { return c >= u'0' && c <= u'9'; }

// The powers of ten that a Double holds exactly.
constexpr double kExactPowersOfTen[] = {
    1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
    1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
constexpr std::uint64_t kExactIntegerLimit = std::uint64_t{1} << 53;

// quick_text_to_number's work. It answers through a flag and an out-parameter:
// returning a std::optional made text_to_number about 4 ns slower.
bool quick_route(std::u16string_view text, double& out) {
  std::size_t i = 0;
  const std::size_t last = text.size();
  bool negative = false;
  if (i < last && (text[i] == u'+' || text[i] == u'-')) {
    negative = text[i] == u'-';
    ++i;
  }
  std::uint64_t m = 0;
  int digits = 0;
  int fraction_digits = 0;
  for (; i < last && is_digit16(text[i]); ++i, ++digits) m = m * 10 + static_cast<unsigned>(text[i] - u'0');
  if (i < last && text[i] == u'.') {
    for (++i; i < last && is_digit16(text[i]); ++i, ++digits, ++fraction_digits)
      m = m * 10 + static_cast<unsigned>(text[i] - u'0');
  }
  if (digits == 0 || digits > 19) return false;
  int exponent = 0;
  if (i < last && (text[i] == u'e' || text[i] == u'E')) {
    ++i;
    bool exponent_negative = false;
    if (i < last && (text[i] == u'+' || text[i] == u'-')) {
      exponent_negative = text[i] == u'-';
      ++i;
    }
    int exponent_digits = 0;
    for (; i < last && is_digit16(text[i]); ++i, ++exponent_digits) {
      if (exponent_digits == 4) return false;
      exponent = exponent * 10 + (text[i] - u'0');
    }
    if (exponent_digits == 0) return false;
    if (exponent_negative) exponent = -exponent;
  }
  if (i != last) return false;
  if (m > kExactIntegerLimit) return false;
  const int e = exponent - fraction_digits;
  double magnitude;
  if (e == 0) {
    magnitude = static_cast<double>(m);  // exact: no floating step at all
  } else if (e >= -22 && e <= 22) {
    fp::Scope scope;  // the one rounding step must round to nearest
    const double power = fp::opaque(kExactPowersOfTen[static_cast<std::size_t>(std::abs(e))]);
    const double whole = fp::opaque(static_cast<double>(m));
    magnitude = fp::opaque(e > 0 ? whole * power : whole / power);
  } else {
    return false;
  }
  out = negative ? -magnitude : magnitude;
  return true;
}

}  // namespace

std::optional<double> quick_text_to_number(std::u16string_view text) {
  double v;
  if (quick_route(text, v)) return v;
  return std::nullopt;
}

double text_to_number(std::u16string_view text) {
  constexpr std::u16string_view kBlanks = u" \t";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::u16string_view::npos) raise_type_mismatch();
  text = text.substr(first, text.find_last_not_of(kBlanks) + 1 - first);
  if (double quick; quick_route(text, quick)) return quick;

  // Only ASCII can be part of a number; narrow it once.
  std::string s;
  for (const char16_t c : text) {
    if (c > 0x7F) raise_type_mismatch();
    s.push_back(static_cast<char>(c));
  }

  // Check the whole grammar here: std::from_chars alone would accept "inf",
  // "nan" and stop early at anything it does not know. A mantissa without
  // digits ("." or "-e5") passes this scan; std::from_chars refuses it.
  std::size_t i = 0;
  bool negative = false;
  if (s[i] == '+' || s[i] == '-') {
    negative = s[i] == '-';
    ++i;
  }
  const std::size_t mantissa = i;
  const DigitRun whole = scan_digits(s, i);
  DigitRun fraction;
  if (s[i] == '.') fraction = scan_digits(s, ++i);
  long long exponent = 0;
  if (s[i] == 'e' || s[i] == 'E') {
    ++i;
    bool exponent_negative = false;
    if (s[i] == '+' || s[i] == '-') {
      exponent_negative = s[i] == '-';
      ++i;
    }
    if (!is_digit(s[i])) raise_type_mismatch();
    for (; is_digit(s[i]); ++i) {
      if (exponent < 1'000'000'000) exponent = exponent * 10 + (s[i] - '0');
    }
    if (exponent_negative) exponent = -exponent;
  }
  if (i != s.size()) raise_type_mismatch();

  double magnitude = 0.0;
  std::from_chars_result r;
  {
    fp::Scope scope;  // the conversion's fast path relies on round to nearest
    r = std::from_chars(s.data() + mantissa, s.data() + s.size(), magnitude,
                        std::chars_format::general);
  }
  if (r.ec == std::errc::result_out_of_range) {
    // Tell a huge value from a tiny one by where its first non-zero digit
    // stands: the value lies between 10^(place - 1) and 10^place. Out of
    // range means above 10^308 or below 10^-323, so the sign of place decides.
    const long long place = exponent + (whole.all_zero ? -static_cast<long long>(fraction.leading_zeros)
                                                       : static_cast<long long>(whole.count - whole.leading_zeros));
    if (place > 0) raise_overflow();
    magnitude = 0.0;
  } else if (r.ec != std::errc() || r.ptr != s.data() + s.size()) {
    raise_type_mismatch();
  }
  return negative ? -magnitude : magnitude;
}

void append_single_text(std::u16string& out, Single value) {
  // All of it in the library's environment: even classifying or comparing a
  // denormal or a NaN would raise a condition in the caller's environment (or
  // trap there), and a caller's denormals-are-zero would make a denormal 0.
  fp::Scope scope;
  value = fp::opaque(value);
  if (std::isnan(value)) {
    out += u"NaN";
    return;
  }
  if (std::isinf(value)) {
    out += std::signbit(value) ? u"-Infinity" : u"Infinity";
    return;
  }
  if (value == 0.0f) {
    out += u'0';
    return;
  }

  const bool negative = std::signbit(value);
  const Single magnitude = std::fabs(value);

  // Scientific form of the magnitude, d[.ddd]e(+|-)dd: the shortest, or
  // rounded to 7 significant digits when the shortest has more. Its digits
  // (at most nine) go to `digits`; p stops at the 'e'.
  std::array<char, 48> buf{};
  std::to_chars_result r{};
  std::string digits;
  const char* p = nullptr;
  auto scientific = [&](auto... precision) {
    r = std::to_chars(buf.data(), buf.data() + buf.size(), magnitude, std::chars_format::scientific, precision...);
    digits.clear();
    for (p = buf.data(); *p != 'e'; ++p) {
      if (is_digit(*p)) digits += *p;
    }
  };
  scientific();
  if (digits.size() > 7) scientific(6);
  const char* const end = r.ptr;
  // No trailing zeros; the first digit of a value that is not zero is never 0.
  while (digits.back() == '0') digits.pop_back();
  const std::size_t n = digits.size();
  // After the 'e': the exponent's sign and at least two digits, as the
  // exponent form writes them.
  const char* const exponent_text = p + 1;
  int exponent = 0;
  std::from_chars(exponent_text + 1, end, exponent);
  if (*exponent_text == '-') exponent = -exponent;

  if (negative) out += u'-';
  if (exponent <= -5 || exponent >= 7) {
    out += static_cast<char16_t>(digits[0]);
    if (n > 1) {
      out += u'.';
      for (std::size_t k = 1; k < n; ++k) out += static_cast<char16_t>(digits[k]);
    }
    out += u'E';
    for (const char* q = exponent_text; q != end; ++q) out += static_cast<char16_t>(*q);
  } else if (exponent >= 0) {
    const std::size_t whole = static_cast<std::size_t>(exponent) + 1;
    for (std::size_t k = 0; k < whole; ++k) out += static_cast<char16_t>(k < n ? digits[k] : '0');
    if (n > whole) {
      out += u'.';
      for (std::size_t k = whole; k < n; ++k) out += static_cast<char16_t>(digits[k]);
    }
  } else {
    out += u"0.";
    out.append(static_cast<std::size_t>(-exponent - 1), u'0');
    for (std::size_t k = 0; k < n; ++k) out += static_cast<char16_t>(digits[k]);
  }
}

std::u16string single_to_text(Single value) {
  std::u16string out;
  append_single_text(out, value);
  return out;
}

void append_integer_text(std::u16string& out, Integer value) {
  const std::string text = std::to_string(value);  // no locale reaches an int's digits
  out.append(text.begin(), text.end());
}

namespace {

// Decimal digits of m * 2^shift for a whole number m, most significant first.
std::string whole_decimal(std::uint64_t m, unsigned shift) {
  // Little-endian limbs of base 10^9; at most 2^31 * 2^104 here, 14 limbs.
  constexpr std::uint32_t kBase = 1'000'000'000;
  std::array<std::uint32_t, 16> limbs{};
  std::size_t used = 0;
  while (m != 0) {
    limbs[used++] = static_cast<std::uint32_t>(m % kBase);
    m /= kBase;
  }
  for (unsigned s = 0; s < shift; ++s) {
    std::uint32_t carry = 0;
    for (std::size_t k = 0; k < used; ++k) {
      const std::uint64_t v = static_cast<std::uint64_t>(limbs[k]) * 2 + carry;
      limbs[k] = static_cast<std::uint32_t>(v % kBase);
      carry = static_cast<std::uint32_t>(v / kBase);
    }
    if (carry != 0) limbs[used++] = carry;
  }
  std::string text;
  for (std::size_t k = used; k-- > 0;) {
    const std::string limb = std::to_string(limbs[k]);
    if (k + 1 != used) text.append(9 - limb.size(), '0');  // inner limbs keep their zeros
    text += limb;
  }
  return text;
}

}  // namespace

std::u16string percent_display_text(Single ratio) {
  // ratio = m * 2^e exactly, with m a 24-bit whole number. Classified by its
  // bits: a floating comparison of a denormal would raise a condition in the
  // caller's environment.
  const auto bits = std::bit_cast<std::uint32_t>(ratio);
  const bool negative = (bits >> 31) != 0;
  const std::uint32_t biased = (bits >> 23) & 0xFF;
  if (biased == 0xFF) raise_overflow();  // an infinity or a NaN has no display text
  const std::uint32_t fraction = bits & 0x7FFFFF;
  const std::uint64_t m = biased == 0 ? fraction : (fraction | 0x800000u);
  const int e = static_cast<int>(std::max(biased, 1u)) - 150;  // a denormal has the smallest normal's exponent
  const std::uint64_t hundred_m = 100 * m;  // below 2^31

  std::string digits;
  if (e >= 0) {
    digits = whole_decimal(hundred_m, static_cast<unsigned>(e));
  } else {
    // hundred_m / 2^s, rounded half away from zero on the magnitude.
    const unsigned s = static_cast<unsigned>(-e);
    std::uint64_t whole = 0;
    if (s < 64) {
      whole = hundred_m >> s;
      const std::uint64_t rest = hundred_m - (whole << s);
      if (2 * rest >= (std::uint64_t{1} << s)) ++whole;
    }  // from 2^64 on the quotient is below 2^31 / 2^64: rounds to 0
    if (whole != 0) digits = whole_decimal(whole, 0);
  }

  std::u16string out;
  if (negative && !digits.empty()) out += u'-';
  for (char c : digits) out += static_cast<char16_t>(c);
  out += u'%';
  return out;
}

}  // namespace valmetra
