// Conversions between the platform's text and Variant and the core's.
//
// A VARIANT reaching the core (valmetra::Variant) keeps its number type
// where the core has one and widens where it has not:
//   VT_EMPTY, VT_NULL, VT_ERROR (a missing argument), objects and arrays
//                                  -> empty (the core has no form for them)
//   VT_I2, VT_BOOL (-1/0), VT_I1, VT_UI1          -> Integer
//   VT_I4, VT_INT, VT_UI2                          -> Long
//   VT_UI4, VT_UINT, VT_I8, VT_UI8                 -> Long when it fits, else Double
//   VT_R4                                          -> Single
//   VT_R8, VT_CY, VT_DATE, VT_DECIMAL              -> Double
//   VT_BSTR                                        -> text
// A by-reference VARIANT is read through its reference; a null reference,
// and a reference to a Variant that is itself such a reference, are empty.
// The way back maps empty/Integer/Long/Single/Double/text to
// VT_EMPTY/VT_I2/VT_I4/VT_R4/VT_R8/VT_BSTR.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>
#include <string_view>

#include "frame/sized_text.h"
#include "frame/variant.h"
#include "hosting/com/raii.h"

namespace valmetra::com {

// A copy of the BSTR's text (a null BSTR is the empty text).
std::u16string to_u16string(BSTR text);

// The BSTR's text where it lies (a null BSTR is the empty text): for a text
// argument, which the caller keeps alive for the call.
inline std::u16string_view text_view(BSTR text) noexcept {
  if (!text) return {};
  return {reinterpret_cast<const char16_t*>(text), SysStringLen(text)};
}

// A BSTR holding the text, written by the text's maker straight into it.
// Throws std::bad_alloc when it cannot be allocated.
[[nodiscard]] BSTR make_bstr(const valmetra::SizedText& text);

valmetra::Variant to_core_variant(const VARIANT& value);

// Writes `value` into `out`, which must hold nothing owned (VariantInit'ed).
// Throws std::bad_alloc when a text cannot be allocated; `out` is then empty.
void to_com_variant(const valmetra::Variant& value, VARIANT* out);

// Writes the text as VT_BSTR into `out` (which must hold nothing owned).
// Throws std::bad_alloc when it cannot be allocated; `out` is then empty.
void make_text_variant(std::u16string_view text, VARIANT* out);

}  // namespace valmetra::com
