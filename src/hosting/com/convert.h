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
// A by-reference VARIANT is read through its reference (one level for a
// VT_BYREF|VT_VARIANT). Every incoming VARIANT passes check_argument first.
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

// Whether an incoming argument may be read. Its type code is checked before
// its value is read, a pointer in it followed, or it is handed to a platform
// function (VariantCopyInd, VariantChangeType(Ex), VariantClear):
//   S_OK                 VT_EMPTY, VT_NULL, VT_I2 ... VT_DECIMAL except
//                        VT_VARIANT, VT_I1 ... VT_UINT (VT_I8 and VT_UI8
//                        included), by value; the same but VT_EMPTY and
//                        VT_NULL with VT_BYREF and a non-null pointer;
//                        VT_BYREF|VT_VARIANT whose Variant is, by these
//                        rules, one of the former (one level only); an
//                        array (VT_ARRAY, by value or by a non-null
//                        reference) of one of these element types or of
//                        Variants, its SAFEARRAY never read: a Variant
//                        parameter takes it as it takes an object, a
//                        declared type refuses it (DISP_E_TYPEMISMATCH).
//   DISP_E_BADVARTYPE    not a type code a host passes: an unknown base
//                        type (VT_RECORD and VT_VOID, VT_HRESULT and the
//                        other type-description codes included), VT_VARIANT
//                        by value, VT_BYREF|VT_EMPTY, VT_BYREF|VT_NULL,
//                        VT_VECTOR, VT_RESERVED or any other high bit, an
//                        array of Empty, Null or an unknown type.
//   DISP_E_TYPEMISMATCH  a null reference (VT_BYREF with a null pointer,
//                        also inside a VT_BYREF|VT_VARIANT); a reference to
//                        a Variant that is itself a reference to a Variant.
// Only the VARIANT's own fields and, for VT_BYREF|VT_VARIANT, the type code
// and pointer of the Variant it refers to are read.
HRESULT check_argument(const VARIANT& value) noexcept;

// The argument as a core Variant. Throws the error of check_argument's
// failure (DISP_E_BADVARTYPE or DISP_E_TYPEMISMATCH with the system's text)
// for an argument it refuses.
valmetra::Variant to_core_variant(const VARIANT& value);

// Writes `value` into `out`, which must hold nothing owned (VariantInit'ed).
// Throws std::bad_alloc when a text cannot be allocated; `out` is then empty.
void to_com_variant(const valmetra::Variant& value, VARIANT* out);

// Writes the text as VT_BSTR into `out` (which must hold nothing owned).
// Throws std::bad_alloc when it cannot be allocated; `out` is then empty.
void make_text_variant(std::u16string_view text, VARIANT* out);

}  // namespace valmetra::com
