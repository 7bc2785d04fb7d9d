// Locale-invariant conversions between numbers and text.
//
// The sample averages read number strings that a user typed and write their
// items back as text; the percent counters show a ratio as percentage text.
// None of this depends on the user's locale or the C library's locale: the
// decimal point is always '.', there are no grouping separators, and the
// conversions are done with std::from_chars / std::to_chars and integer
// arithmetic, never with streams or printf. They run in the library's own
// floating environment (fp::Scope), so the caller's rounding mode does not
// change a result. The full rules, with examples,
// are in docs/number-text.md; in short:
//
// Text to number (text_to_number):
//   [blanks] [+|-] digits [. digits] [(E|e) [+|-] digits] [blanks]
//   - blanks are the space and the tab character;
//   - the mantissa needs at least one digit, before or after the point
//     ("5.", ".5" and "-.5" are numbers, "." is not);
//   - no hexadecimal or octal forms ("&H10", "0x10"), no grouping
//     separators, no currency signs, no "Infinity" or "NaN";
//   - the result is the Double nearest to the decimal value;
//   - text that does not match, the empty text and blanks alone included,
//     raises the Type mismatch error; a number beyond the Double range
//     raises the Overflow error; one too small for the smallest denormal
//     Double reads as zero (with its sign).
//
// Standard text of a Single (append_single_text):
//   - the shortest decimal that reads back as the same Single when it has
//     at most 7 significant digits, otherwise the value rounded to 7
//     significant digits (nearest, ties to even, on the exact binary value);
//     trailing zeros are never written. Preferring the shortest form gives a
//     few values (mostly denormals) fewer digits than plain 7-digit rounding:
//     the smallest denormal is "1E-45";
//   - with X the decimal exponent of the first significant digit (after
//     rounding), plain notation for -5 < X < 7 ("0.0001", "1234567",
//     "-2.5") and exponent notation otherwise ("1E-05", "1.5E-07",
//     "1E+07", "1E+20"): mantissa, 'E', the exponent's sign and at least
//     two exponent digits;
//   - zero of either sign is "0", a leading zero is written before the
//     point ("0.5"); the non-finite values are "Infinity", "-Infinity" and
//     "NaN".
//
// Percent display (percent_display_text) is the "##%" pattern: the ratio
// times 100, rounded to a whole number with halves away from zero, digits
// without grouping or leading zeros, no digit at all for zero, and '%' at the
// end ("%", "13%", "200%"). The rounding works on the exact binary value of
// the Single, not on its shortest decimal form: the Single nearest 0.145 is
// 0.144999995827..., so it shows "14%" (while its shortest decimal would
// suggest 14.5 and "15%").
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "frame/arith.h"

namespace valmetra {

// Reads a number from text; see above. Raises Type mismatch (13) for text
// that is not a number and Overflow (6) beyond the Double range.
double text_to_number(std::u16string_view text);

// The quick route of text_to_number for the common case, given the text
// without its surrounding blanks: a well-formed number of at most 19 digits
// (leading zeros included) forming a whole number m up to 2^53, with at most
// four exponent digits, whose decimal exponent e after moving the point
// behind the last digit lies in -22..22. Then m and 10^|e| are exact Doubles,
// and the value is m itself (e = 0: no floating step at all) or one
// correctly rounded multiplication or division in the library's floating
// environment. Answers nothing for every other text, errors included, which
// the general reader then takes; both give the same value for every text
// this one answers. Declared here so that its domain, which the reading
// benchmark depends on, is tested.
std::optional<double> quick_text_to_number(std::u16string_view trimmed);

// Appends the standard text of a Single.
void append_single_text(std::u16string& out, Single value);
std::u16string single_to_text(Single value);

// Appends the decimal digits of an Integer, with '-' when negative.
void append_integer_text(std::u16string& out, Integer value);

// The "##%" display text of a ratio. A ratio that is not finite has no
// display text and raises the Overflow error.
std::u16string percent_display_text(Single ratio);

}  // namespace valmetra
