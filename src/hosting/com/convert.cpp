#include "hosting/com/convert.h"

#include <limits>

#include "hosting/com/error.h"

namespace valmetra::com {

namespace {

template <class T>
valmetra::Variant long_or_double(T v) {
  if (v >= static_cast<T>(std::numeric_limits<Long>::min()) && v <= static_cast<T>(std::numeric_limits<Long>::max()))
    return static_cast<Long>(v);
  return static_cast<Double>(v);
}

template <class T>
valmetra::Variant long_or_double_unsigned(T v) {
  if (v <= static_cast<T>(std::numeric_limits<Long>::max())) return static_cast<Long>(v);
  return static_cast<Double>(v);
}

}  // namespace

std::u16string to_u16string(BSTR text) {
  if (!text) return {};
  return std::u16string(reinterpret_cast<const char16_t*>(text), SysStringLen(text));
}

namespace {

bool is_host_type(VARTYPE base) noexcept {
  return (base <= VT_DECIMAL && base != VT_VARIANT) || (base >= VT_I1 && base <= VT_UINT);
}

HRESULT check_one(const VARIANT& value) noexcept {
  const VARTYPE vt = value.vt;
  const VARTYPE base = vt & VT_TYPEMASK;
  if (vt & ~(VT_TYPEMASK | VT_BYREF | VT_ARRAY)) return DISP_E_BADVARTYPE;
  if (vt & VT_ARRAY) {  // the array itself is never read
    if (base == VT_EMPTY || base == VT_NULL || !(is_host_type(base) || base == VT_VARIANT)) return DISP_E_BADVARTYPE;
    return (vt & VT_BYREF) && !value.byref ? DISP_E_TYPEMISMATCH : S_OK;
  }
  if (vt & VT_BYREF) {
    if (base == VT_EMPTY || base == VT_NULL || !(is_host_type(base) || base == VT_VARIANT)) return DISP_E_BADVARTYPE;
    return value.byref ? S_OK : DISP_E_TYPEMISMATCH;
  }
  return is_host_type(base) ? S_OK : DISP_E_BADVARTYPE;
}

}  // namespace

HRESULT check_argument(const VARIANT& value) noexcept {
  const HRESULT hr = check_one(value);
  if (FAILED(hr) || value.vt != (VT_BYREF | VT_VARIANT)) return hr;
  const VARIANT& inner = *value.pvarVal;
  if (inner.vt == (VT_BYREF | VT_VARIANT)) return DISP_E_TYPEMISMATCH;
  return check_one(inner);
}

valmetra::Variant to_core_variant(const VARIANT& value) {
  if (const HRESULT hr = check_argument(value); FAILED(hr)) raise_platform_failure(hr);
  if (value.vt == (VT_BYREF | VT_VARIANT)) return to_core_variant(*value.pvarVal);
  if (value.vt & VT_ARRAY) return {};  // as an object: no value of ours
  if (value.vt & VT_BYREF) {
    Variant copy;
    if (FAILED(VariantCopyInd(copy.get(), const_cast<VARIANT*>(&value)))) return {};
    return to_core_variant(*copy.get());
  }
  switch (value.vt) {
    case VT_I2: return static_cast<Integer>(value.iVal);
    case VT_BOOL: return static_cast<Integer>(value.boolVal);
    case VT_I1: return static_cast<Integer>(value.cVal);
    case VT_UI1: return static_cast<Integer>(value.bVal);
    case VT_I4: return static_cast<Long>(value.lVal);
    case VT_INT: return static_cast<Long>(value.intVal);
    case VT_UI2: return static_cast<Long>(value.uiVal);
    case VT_UI4: return long_or_double_unsigned(value.ulVal);
    case VT_UINT: return long_or_double_unsigned(value.uintVal);
    case VT_I8: return long_or_double(value.llVal);
    case VT_UI8: return long_or_double_unsigned(value.ullVal);
    case VT_R4: return static_cast<Single>(value.fltVal);
    case VT_R8: return static_cast<Double>(value.dblVal);
    case VT_CY:
    case VT_DATE:
    case VT_DECIMAL: {
      Variant d;
      if (FAILED(VariantChangeType(d.get(), const_cast<VARIANT*>(&value), 0, VT_R8))) return {};
      return static_cast<Double>(d->dblVal);
    }
    case VT_BSTR: return to_u16string(value.bstrVal);
    default: return {};
  }
}

void to_com_variant(const valmetra::Variant& value, VARIANT* out) {
  VariantInit(out);
  switch (value.index()) {
    case 1:
      out->vt = VT_I2;
      out->iVal = std::get<Integer>(value);
      break;
    case 2:
      out->vt = VT_I4;
      out->lVal = std::get<Long>(value);
      break;
    case 3:
      out->vt = VT_R4;
      out->fltVal = std::get<Single>(value);
      break;
    case 4:
      out->vt = VT_R8;
      out->dblVal = std::get<Double>(value);
      break;
    case 5:
      out->bstrVal = make_bstr(std::get<std::u16string>(value));
      out->vt = VT_BSTR;
      break;
    default: break;
  }
}

BSTR make_bstr(const valmetra::SizedText& text) {
  if (text.size() > 0x7FFFFFFEu / sizeof(OLECHAR)) throw std::bad_alloc();
  Bstr b = Bstr::adopt(SysAllocStringLen(nullptr, static_cast<UINT>(text.size())));
  if (!b.get()) throw std::bad_alloc();
  text.write_to(reinterpret_cast<char16_t*>(b.get()));
  return b.detach();
}

void make_text_variant(std::u16string_view text, VARIANT* out) {
  VariantInit(out);
  out->bstrVal = make_bstr(text);
  out->vt = VT_BSTR;
}

}  // namespace valmetra::com
