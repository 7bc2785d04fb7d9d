// Checked integer arithmetic and the conversions every class shares.
// Written once here; the classes never re-implement them.
#pragma once

#include <bit>
#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>

#include "frame/error.h"

namespace valmetra {

using Integer = std::int16_t;
using Long = std::int32_t;
using Single = float;
using Double = double;
// 16-bit flag: true is -1, false is 0; puts store whatever 16 bits they get.
using Flag = std::int16_t;
inline constexpr Flag kTrue = -1;
inline constexpr Flag kFalse = 0;
constexpr Flag to_flag(bool b) noexcept { return b ? kTrue : kFalse; }

template <class T>
concept CheckedInt = std::is_same_v<T, Integer> || std::is_same_v<T, Long>;

// Exact result in T's width, or the Overflow error. Nothing is stored by
// these functions, so a caller that assigns the result leaves its field
// unchanged on failure.
template <CheckedInt T>
T checked_add(T a, T b) {
  T r;
  if (__builtin_add_overflow(a, b, &r)) raise_overflow();
  return r;
}
template <CheckedInt T>
T checked_sub(T a, T b) {
  T r;
  if (__builtin_sub_overflow(a, b, &r)) raise_overflow();
  return r;
}
template <CheckedInt T>
T checked_mul(T a, T b) {
  T r;
  if (__builtin_mul_overflow(a, b, &r)) raise_overflow();
  return r;
}
// Quotient truncated toward zero; Division by zero for b == 0, Overflow for
// the most negative value divided by -1.
template <CheckedInt T>
T checked_div(T a, T b) {
  if (b == 0) raise_division_by_zero();
  if (a == std::numeric_limits<T>::min() && b == -1) raise_overflow();
  return static_cast<T>(a / b);
}

// Floating to integer: nearest, halves to the even neighbour; Overflow when
// the rounded value is out of range or the value is not a number. Exact
// whatever rounding mode the caller has set, but the comparisons may record
// flags (invalid for a NaN, denormal): call these, and round_half_even,
// inside an fp::Scope so nothing reaches the host's environment.
Integer to_integer(double x);
Long to_long(double x);
// Round to the nearest whole number, halves to even, as a double (NaN stays
// NaN, infinities stay). Independent of the current rounding mode.
double round_half_even(double x) noexcept;

// 64-bit float to 32-bit float, round to nearest; Overflow when the value
// lies beyond the 32-bit range (an infinity included). NaN passes as NaN.
Single to_single(double x);
// to_single's shortcut: the Single of x when x is zero or has at most 24
// significant bits within the normal Single range. Such a Double converts
// without rounding and without raising anything, whatever the environment,
// so it needs no floating scope; every other Double (a denormal Single's
// included) answers nothing and takes the scoped conversion. Inline: as a
// call it made to_single about 7 ns slower.
inline std::optional<Single> exact_single(double x) noexcept {
  const auto bits = std::bit_cast<std::uint64_t>(x);
  const int exponent = static_cast<int>((bits >> 52) & 0x7FF) - 1023;
  if ((bits << 1) == 0 || ((bits & 0x1FFFFFFFu) == 0 && exponent >= -126 && exponent <= 127))
    return static_cast<float>(x);
  return std::nullopt;
}

// The power service: x raised to y. No floating check follows it; a result
// that is not finite raises the service's error:
//   0 to a negative power        -> Division by zero (11)
//   an infinite result           -> Overflow (6)
//   a result that is not a number -> Invalid procedure call or argument (5)
double power(double x, double y);

}  // namespace valmetra
