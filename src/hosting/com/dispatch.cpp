#include "hosting/com/dispatch.h"

#include <cstring>

#include "frame/fp.h"
#include "hosting/com/error.h"
#include "hosting/com/raii.h"

namespace valmetra::com {

namespace {

bool is_missing(const VARIANT& v) noexcept { return v.vt == VT_ERROR && v.scode == DISP_E_PARAMNOTFOUND; }

void store_scalar(VARTYPE type, const Arg& a, void* to) noexcept {
  switch (type) {
    case VT_I2: std::memcpy(to, &a.i2, sizeof a.i2); break;
    case VT_I4: std::memcpy(to, &a.i4, sizeof a.i4); break;
    case VT_R4: std::memcpy(to, &a.r4, sizeof a.r4); break;
    case VT_R8: std::memcpy(to, &a.r8, sizeof a.r8); break;
    case VT_BOOL: std::memcpy(to, &a.b, sizeof a.b); break;
    default: break;
  }
}

// The temporaries of one call: converted arguments that own a value.
struct Temps {
  VARIANT v[kMaxParams];
  unsigned used = 0;
  VARIANT& take(unsigned i) noexcept {
    used |= 1u << i;
    VariantInit(&v[i]);
    return v[i];
  }
  ~Temps() {
    for (unsigned i = 0; used; ++i, used >>= 1)
      if (used & 1u) VariantClear(&v[i]);
  }
};

// Converts one argument that is not of the declared type.
HRESULT load_converted(const Param& p, const VARIANT& source, Arg& a, Temps& temps, unsigned i, LCID lcid) noexcept {
  // check_argument has accepted `source`: a reference is not null, and a
  // referred Variant is of a type a host passes.
  const VARIANT* v = source.vt == (VT_BYREF | VT_VARIANT) ? source.pvarVal : &source;
  if (is_missing(*v)) return DISP_E_PARAMNOTOPTIONAL;
  // Only a Variant parameter takes an array; none is converted (nor its
  // SAFEARRAY handed to the platform, which would follow the pointer).
  if (v->vt & VT_ARRAY) return DISP_E_TYPEMISMATCH;
  // A written-back parameter needs a variable it can write: a reference to
  // its own type or to a Variant (or a plain value, whose copy is lost).
  if (p.passing == Passing::InOut && (source.vt & VT_BYREF) && source.vt != (VT_BYREF | VT_VARIANT))
    return DISP_E_TYPEMISMATCH;
  VARIANT& temp = temps.take(i);
  HRESULT hr;
  {
    // The conversion computes with floating values (2.5 to Integer rounds):
    // in the default environment, so that no exception the host unmasked
    // traps and its rounding mode does not change the result.
    const fp::Scope scope(fp::Units::WithX87);
    hr = VariantChangeTypeEx(&temp, const_cast<VARIANT*>(v), lcid ? lcid : LOCALE_USER_DEFAULT, 0, p.type);
  }
  if (FAILED(hr)) return hr == E_INVALIDARG || hr == DISP_E_BADVARTYPE ? DISP_E_TYPEMISMATCH : hr;
  switch (p.type) {
    case VT_BSTR: a.bstr = temp.bstrVal; break;
    case VT_I2: a.i2 = temp.iVal; break;
    case VT_I4: a.i4 = temp.lVal; break;
    case VT_R4: a.r4 = temp.fltVal; break;
    case VT_R8: a.r8 = temp.dblVal; break;
    case VT_BOOL: a.b = temp.boolVal; break;
    default: return DISP_E_TYPEMISMATCH;
  }
  return S_OK;
}

}  // namespace

HRESULT exception_from_failure(HRESULT hr, EXCEPINFO* exception) noexcept {
  if (!exception) return DISP_E_EXCEPTION;
  std::memset(exception, 0, sizeof *exception);
  exception->scode = hr;
  try {
    const valmetra::Error e = error_from_thread(hr);
    exception->bstrSource = make_bstr(e.source());
    exception->bstrDescription = make_bstr(e.description());
  } catch (...) {
    // Out of memory while describing the failure: the scode still tells it.
  }
  return DISP_E_EXCEPTION;
}

namespace detail {

HRESULT get_ids_of_names_general(const DispatchTable& table, REFIID riid, LPOLESTR* names, UINT count,
                                 DISPID* ids) noexcept {
  if (!is_null_iid(riid)) return DISP_E_UNKNOWNINTERFACE;
  if (count == 0) return S_OK;
  if (!names || !ids) return E_POINTER;
  const int index = table.find_name(names[0]);
  if (index < 0) {
    for (UINT i = 0; i < count; ++i) ids[i] = DISPID_UNKNOWN;
    return DISP_E_UNKNOWNNAME;
  }
  const Member& m = table.members[index];
  ids[0] = m.dispid;
  // Further names are parameter names of the method or the put; they get
  // their positions.
  const DispidSlot* slot = table.find(m.dispid);
  const int with_params = slot->method >= 0 ? slot->method : slot->put;
  HRESULT hr = S_OK;
  for (UINT i = 1; i < count; ++i) {
    ids[i] = DISPID_UNKNOWN;
    if (with_params >= 0 && names[i]) {
      const Member& pm = table.members[with_params];
      for (unsigned k = 0; k < pm.param_count; ++k)
        if (names_equal(pm.params[k].name, names[i])) ids[i] = static_cast<DISPID>(k);
    }
    if (ids[i] == DISPID_UNKNOWN) hr = DISP_E_UNKNOWNNAME;
  }
  return hr;
}

HRESULT invoke_general(const Member& m, void* self, LCID lcid, DISPPARAMS* params, VARIANT* result,
                       EXCEPINFO* exception, UINT* arg_error) noexcept {
  // Converting an argument may call out (an object argument is asked for its
  // value) and the caller's last reference may go meanwhile: the call holds
  // one of its own. `self` is a dual interface, an IDispatch at its address.
  const ComPtr<IDispatch> hold(static_cast<IDispatch*>(self));
  const unsigned n = m.param_count;
  Arg args[kMaxParams];
  Temps temps;
  for (unsigned i = 0; i < n; ++i) {
    const UINT position = n - 1 - i;  // rgvarg holds the arguments last first
    const VARIANT& source = params->rgvarg[position];
    HRESULT hr = check_argument(source);
    if (SUCCEEDED(hr)) {
      if (load_exact(m.params[i], source, args[i])) continue;
      hr = load_converted(m.params[i], source, args[i], temps, i, lcid);
    }
    if (FAILED(hr)) {
      if (arg_error) *arg_error = position;
      return hr;
    }
  }
  Arg r;
  const HRESULT hr = m.invoke(self, args, &r);
  if (FAILED(hr)) return exception_from_failure(hr, exception);
  for (unsigned i = 0; i < n; ++i)
    if (m.params[i].passing == Passing::InOut) write_back(m.params[i], args[i], params->rgvarg[n - 1 - i]);
  if (result) {
    result->vt = m.result;
    switch (m.result) {
      case VT_BSTR: result->bstrVal = r.bstr; break;
      case VT_VARIANT: *result = r.var; break;
      default: store_scalar(m.result, r, &result->iVal); break;
    }
  } else {
    discard_result(m.result, r);
  }
  return S_OK;
}

void write_back(const Param& p, const Arg& a, VARIANT& source) noexcept {
  if (source.vt == (VT_BYREF | p.type)) {
    if (source.byref) store_scalar(p.type, a, source.byref);
    return;
  }
  if (source.vt != (VT_BYREF | VT_VARIANT) || !source.pvarVal) return;  // by value: nothing to write
  VARIANT& inner = *source.pvarVal;
  if (inner.vt == (VT_BYREF | p.type)) {
    if (inner.byref) store_scalar(p.type, a, inner.byref);
    return;
  }
  if (inner.vt != p.type) {
    VariantClear(&inner);
    inner.vt = p.type;
  }
  store_scalar(p.type, a, &inner.iVal);
}

void discard_result(VARTYPE type, Arg& r) noexcept {
  if (type == VT_BSTR) Bstr::adopt(r.bstr).reset();
  if (type == VT_VARIANT) VariantClear(&r.var);
}

}  // namespace detail

}  // namespace valmetra::com
