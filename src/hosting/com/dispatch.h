// Table-driven IDispatch: member tables, name and identifier lookup, Invoke.
//
// A class describes its interface once, as an array of Member in slot
// order; make_dispatch_table() turns it at compile time into hash tables
// keyed by dispatch identifier and by case-insensitive name, so that
// GetIDsOfNames and Invoke do a single hash probe. Each Member carries an
// invoker thunk that calls the interface method with the arguments already
// in their declared types: through the vtable, or, in a table made for the
// final class implementing the interface, that class's method directly
// (inlined into the thunk).
//
// Invoke semantics (what script and late-binding hosts rely on):
// - riid must be IID_NULL (else DISP_E_UNKNOWNINTERFACE).
// - An identifier without an entry, or without an entry of the kind asked
//   for, fails with DISP_E_MEMBERNOTFOUND; so does DISPID_VALUE on a class
//   without a value member.
// - DISPATCH_PROPERTYPUT / PROPERTYPUTREF reach the put; the value may come
//   as the named argument DISPID_PROPERTYPUT or as the only positional one.
//   Other named arguments fail with DISP_E_NONAMEDARGS.
// - DISPATCH_METHOD reaches the method; a get is reachable with
//   DISPATCH_PROPERTYGET and with DISPATCH_METHOD.
// - The argument count must equal the parameter count
//   (DISP_E_BADPARAMCOUNT); a missing argument (VT_ERROR /
//   DISP_E_PARAMNOTFOUND) fails with DISP_E_PARAMNOTOPTIONAL.
// - An argument of the declared type, by value, by reference, or inside a
//   VT_BYREF|VT_VARIANT, is used as it is; any other is converted with
//   VariantChangeTypeEx (text such as "5" included; in the default
//   floating-point environment, whatever the host's) into a temporary; a
//   failed conversion returns its DISP_E_TYPEMISMATCH or DISP_E_OVERFLOW.
// - Every argument passes check_argument (convert.h) before anything else
//   reads it: a malformed one (a type code that is none a host passes,
//   VT_VARIANT by value, VT_VECTOR, unknown high bits) fails with
//   DISP_E_BADVARTYPE; a null reference (VT_BYREF with a null pointer, also
//   inside a VT_BYREF|VT_VARIANT) and a reference to a reference to a
//   Variant with DISP_E_TYPEMISMATCH; for every parameter, a Variant
//   parameter included. Nothing of such an argument is read beyond its type
//   code and pointer, nothing is written or released, the call is not made.
//   An array of a valid element type is taken by a Variant parameter (as an
//   object is: no value the core knows) and refused by any other with
//   DISP_E_TYPEMISMATCH; its SAFEARRAY is never read.
//   *puArgErr names the argument of every argument failure.
// - Converting an object argument calls its value member, which may call
//   back into the object or release the caller's last reference to it: the
//   call holds a reference of its own meanwhile.
// - Parameters declared written-back (Passing::InOut) are written into the
//   caller's by-reference argument after a successful call only; such an
//   argument passed by reference to another type fails with
//   DISP_E_TYPEMISMATCH before the call; passed by value, nothing is
//   written back.
// - A failing operation returns DISP_E_EXCEPTION with EXCEPINFO (scode the
//   operation's HRESULT, source and description allocated from the error
//   information the operation set). The result is written only on success.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "hosting/com/convert.h"

// The inline paths are meant to be inlined into each object's Invoke and
// GetIDsOfNames: one call less on every late-bound call.
#define VALMETRA_HOT_INLINE inline __attribute__((always_inline))

namespace valmetra::com {

inline constexpr std::size_t kMaxParams = 8;

// Values as INVOKEKIND: INVOKE_FUNC, INVOKE_PROPERTYGET, INVOKE_PROPERTYPUT.
enum class Kind : std::uint8_t { Method = 1, Get = 2, Put = 4 };
// By value; by reference, never written; by reference, written back.
enum class Passing : std::uint8_t { Value, Ref, InOut };

struct Param {
  const wchar_t* name;
  VARTYPE type;  // VT_I2, VT_I4, VT_R4, VT_R8, VT_BOOL, VT_BSTR or VT_VARIANT
  Passing passing;
};

// One argument or result in its declared type.
union Arg {
  SHORT i2;
  LONG i4;
  FLOAT r4;
  DOUBLE r8;
  VARIANT_BOOL b;
  BSTR bstr;
  VARIANT var;
};

// Calls the interface method: `self` is the interface pointer, `args` the
// parameters in slot order (by-reference ones are passed as &args[i]),
// `result` receives the [out, retval] value.
using Invoker = HRESULT (*)(void* self, Arg* args, Arg* result);

struct Member {
  const wchar_t* name;
  DISPID dispid;
  Kind kind;
  std::uint16_t slot;  // 1-based position after the IDispatch slots
  std::uint8_t param_count;
  const Param* params;
  VARTYPE result;  // VT_EMPTY when there is none
  Invoker invoke;
};

struct DispidSlot {
  DISPID dispid;
  std::int16_t method;  // member index, or -1
  std::int16_t get;
  std::int16_t put;
  bool used;
};

struct NameSlot {
  std::uint32_t hash;
  std::uint16_t length;
  std::int16_t member;  // first member of that name; -1 for an empty slot
};

constexpr wchar_t fold_case(wchar_t c) noexcept {
  return (c >= L'a' && c <= L'z') ? static_cast<wchar_t>(c - (L'a' - L'A')) : c;
}

struct NameKey {
  std::uint32_t hash;
  std::size_t length;
};

// One pass over the name: its length and a hash that ignores ASCII case
// (letters hash as their lower case: OR 0x20), one rotate and xor per
// character and a final mix.
VALMETRA_HOT_INLINE constexpr NameKey name_key(const wchar_t* s) noexcept {
  std::uint32_t h = 0;
  const wchar_t* p = s;
  for (; *p; ++p) h = std::rotl(h, 5) ^ (static_cast<std::uint32_t>(static_cast<std::uint16_t>(*p)) | 0x20u);
  h ^= h >> 15;
  h *= 0x2c1b3c6du;
  h ^= h >> 12;
  return NameKey{h, static_cast<std::size_t>(p - s)};
}

VALMETRA_HOT_INLINE constexpr bool names_equal(const wchar_t* a, const wchar_t* b) noexcept {
  for (; *a && *b; ++a, ++b)
    if (fold_case(*a) != fold_case(*b)) return false;
  return *a == *b;
}

// Equal ignoring ASCII case, both `n` characters long. The exact spelling
// (what callers nearly always use) is compared four characters at a time.
VALMETRA_HOT_INLINE bool same_name(const wchar_t* a, const wchar_t* b, std::size_t n) noexcept {
  std::size_t i = 0;
  bool exact = true;
  for (; exact && i + 4 <= n; i += 4) {
    std::uint64_t x, y;
    std::memcpy(&x, a + i, sizeof x);
    std::memcpy(&y, b + i, sizeof y);
    exact = x == y;
  }
  for (; exact && i < n; ++i) exact = a[i] == b[i];
  if (exact) return true;
  for (i = 0; i < n; ++i)
    if (fold_case(a[i]) != fold_case(b[i])) return false;
  return true;
}

constexpr std::uint32_t dispid_hash(DISPID id) noexcept {
  const auto u = static_cast<std::uint32_t>(id);
  return u ^ (u >> 16);
}

// The run-time view of a member table.
struct DispatchTable {
  const Member* members;
  std::uint16_t count;
  const DispidSlot* dispids;
  std::uint32_t dispid_mask;
  const NameSlot* names;
  std::uint32_t name_mask;
  GUID iid;

  VALMETRA_HOT_INLINE const DispidSlot* find(DISPID id) const noexcept {
    for (std::uint32_t pos = dispid_hash(id) & dispid_mask;; pos = (pos + 1) & dispid_mask) {
      const DispidSlot& s = dispids[pos];
      if (!s.used) return nullptr;
      if (s.dispid == id) return &s;
    }
  }

  // Index of the first member named `name` (any case), or -1.
  VALMETRA_HOT_INLINE int find_name(const wchar_t* name) const noexcept {
    if (!name) return -1;
    const NameKey key = name_key(name);
    for (std::uint32_t pos = key.hash & name_mask;; pos = (pos + 1) & name_mask) {
      const NameSlot& s = names[pos];
      if (s.member < 0) return -1;
      if (s.hash == key.hash && s.length == key.length && same_name(members[s.member].name, name, key.length))
        return s.member;
    }
  }
};

template <std::size_t N>
struct DispatchTableData {
  static_assert(N > 0 && N < 0x7FFF);
  static constexpr std::size_t kSlots = std::bit_ceil(2 * N);

  const Member* members;
  std::array<DispidSlot, kSlots> dispids;
  std::array<NameSlot, kSlots> names;

  constexpr DispatchTable view(const GUID& iid) const noexcept {
    return DispatchTable{members, static_cast<std::uint16_t>(N), dispids.data(),
                         static_cast<std::uint32_t>(kSlots - 1), names.data(),
                         static_cast<std::uint32_t>(kSlots - 1), iid};
  }
};

// Builds the lookup tables at compile time. A table in which one identifier
// has two entries of the same kind, a get or put besides a method, or one
// name two identifiers, does not compile.
template <std::size_t N>
consteval DispatchTableData<N> make_dispatch_table(const Member (&members)[N]) {
  // Every field is written explicitly: GCC 12 lets writes into a table
  // built from default member initializers leak into the next evaluation.
  DispatchTableData<N> t;
  t.members = members;
  for (std::size_t i = 0; i < DispatchTableData<N>::kSlots; ++i) {
    t.dispids[i].dispid = 0;
    t.dispids[i].method = -1;
    t.dispids[i].get = -1;
    t.dispids[i].put = -1;
    t.dispids[i].used = false;
    t.names[i].hash = 0;
    t.names[i].length = 0;
    t.names[i].member = -1;
  }
  constexpr std::uint32_t mask = DispatchTableData<N>::kSlots - 1;
  for (std::size_t i = 0; i < N; ++i) {
    const Member& m = members[i];
    const auto index = static_cast<std::int16_t>(i);
    if (m.param_count > kMaxParams) throw "too many parameters";

    std::uint32_t pos = dispid_hash(m.dispid) & mask;
    while (t.dispids[pos].used && t.dispids[pos].dispid != m.dispid) pos = (pos + 1) & mask;
    DispidSlot& d = t.dispids[pos];
    d.used = true;
    d.dispid = m.dispid;
    if (m.kind == Kind::Method) {
      if (d.method >= 0) throw "two methods share a dispatch identifier";
      d.method = index;
    } else if (m.kind == Kind::Get) {
      if (d.get >= 0) throw "two gets share a dispatch identifier";
      d.get = index;
    } else {
      if (d.put >= 0) throw "two puts share a dispatch identifier";
      d.put = index;
    }
    if (d.method >= 0 && (d.get >= 0 || d.put >= 0)) throw "a method shares its identifier with a property";

    const NameKey key = name_key(m.name);
    if (key.length > 0xFFFF) throw "name too long";
    const std::uint32_t h = key.hash;
    const std::size_t length = key.length;
    bool found = false;
    for (pos = h & mask; t.names[pos].member >= 0; pos = (pos + 1) & mask) {
      const Member& other = members[t.names[pos].member];
      if (t.names[pos].hash == h && names_equal(other.name, m.name)) {
        if (other.dispid != m.dispid) throw "one name has two dispatch identifiers";
        found = true;
        break;
      }
    }
    if (!found) {
      t.names[pos].hash = h;
      t.names[pos].length = static_cast<std::uint16_t>(length);
      t.names[pos].member = index;
    }
  }
  return t;
}

inline bool is_null_iid(REFIID riid) noexcept {
  std::uint64_t words[2];
  std::memcpy(words, &riid, sizeof words);
  return (words[0] | words[1]) == 0;
}

// Fills `exception` (when given) from a failed call's HRESULT and the
// thread's error information, and returns DISP_E_EXCEPTION.
HRESULT exception_from_failure(HRESULT hr, EXCEPINFO* exception) noexcept;

// The typed path: pieces of the per-class Invoke that the generator writes
// (com_objects.inc). There each entry whose parameters are numbers, flags
// or texts has a case in a switch on the dispatch identifier, with the
// parameter and result types fixed at compile time, ahead of the table
// path (invoke() below). A case takes only what needs no conversion: the
// right kind and argument count, no named argument but a put's
// DISPID_PROPERTYPUT, and arguments of the declared types (by value, by
// reference, or inside a VT_BYREF|VT_VARIANT). Everything else, failures
// included, goes on to the table path, so both give the same answers; a
// Windows test compares them entry by entry.
namespace typed {

// The C++ type of an argument or result of declared type T.
template <VARTYPE T>
struct TypeOf;
template <>
struct TypeOf<VT_I2> { using type = SHORT; };
template <>
struct TypeOf<VT_I4> { using type = LONG; };
template <>
struct TypeOf<VT_R4> { using type = FLOAT; };
template <>
struct TypeOf<VT_R8> { using type = DOUBLE; };
template <>
struct TypeOf<VT_BOOL> { using type = VARIANT_BOOL; };
template <>
struct TypeOf<VT_BSTR> { using type = BSTR; };

template <VARTYPE T>
using type_of = typename TypeOf<T>::type;

// The argument in its declared type without conversion: the exact type by
// value or by reference, also inside a VT_BYREF|VT_VARIANT. False when
// anything else is needed (conversion, a missing argument, a null
// reference). The table path's load_exact takes the same for its run-time
// parameter types.
template <VARTYPE T>
VALMETRA_HOT_INLINE bool load(const VARIANT& source, type_of<T>& out) noexcept {
  const VARIANT* v = &source;
  if (v->vt == T) {
    std::memcpy(&out, &v->iVal, sizeof out);
    return true;
  }
  if (v->vt == (VT_BYREF | VT_VARIANT)) {
    v = v->pvarVal;
    if (!v) return false;
    if (v->vt == T) {
      std::memcpy(&out, &v->iVal, sizeof out);
      return true;
    }
  }
  if (v->vt == (VT_BYREF | T) && v->byref) {
    std::memcpy(&out, v->byref, sizeof out);
    return true;
  }
  return false;
}

}  // namespace typed

namespace detail {

// Every case the inline paths below do not take.
HRESULT get_ids_of_names_general(const DispatchTable& table, REFIID riid, LPOLESTR* names, UINT count,
                                 DISPID* ids) noexcept;
HRESULT invoke_general(const Member& member, void* self, LCID lcid, DISPPARAMS* params, VARIANT* result,
                       EXCEPINFO* exception, UINT* arg_error) noexcept;
void write_back(const Param& param, const Arg& value, VARIANT& source) noexcept;
// Frees a text or Variant result that the caller did not ask for.
void discard_result(VARTYPE type, Arg& value) noexcept;

// typed::load for a parameter type known at run time; a Variant parameter
// borrows the argument (a missing one and one check_argument refuses left
// to the general path, which answers them).
VALMETRA_HOT_INLINE bool load_exact(const Param& p, const VARIANT& source, Arg& a) noexcept {
  switch (p.type) {
    case VT_I2: return typed::load<VT_I2>(source, a.i2);
    case VT_I4: return typed::load<VT_I4>(source, a.i4);
    case VT_R4: return typed::load<VT_R4>(source, a.r4);
    case VT_R8: return typed::load<VT_R8>(source, a.r8);
    case VT_BOOL: return typed::load<VT_BOOL>(source, a.b);
    case VT_BSTR: return typed::load<VT_BSTR>(source, a.bstr);
    case VT_VARIANT: break;
    default: return false;
  }
  if (FAILED(check_argument(source))) return false;
  const VARIANT* v = source.vt == (VT_BYREF | VT_VARIANT) ? source.pvarVal : &source;
  if (v->vt == VT_ERROR && v->scode == DISP_E_PARAMNOTFOUND) return false;
  a.var = *v;  // borrowed for the call, as a by-value VARIANT is
  return true;
}

}  // namespace detail

VALMETRA_HOT_INLINE HRESULT get_ids_of_names(const DispatchTable& table, REFIID riid, LPOLESTR* names, UINT count,
                                DISPID* ids) noexcept {
  if (count == 1 && names && ids && is_null_iid(riid)) {
    const int index = table.find_name(names[0]);
    if (index >= 0) {
      ids[0] = table.members[index].dispid;
      return S_OK;
    }
  }
  return detail::get_ids_of_names_general(table, riid, names, count, ids);
}

// `self` is the interface pointer handed to the invokers. The common call
// (arguments of the declared types) runs inline; conversions and failures
// go to the out-of-line general path.
VALMETRA_HOT_INLINE HRESULT invoke(const DispatchTable& table, void* self, DISPID id, REFIID riid, LCID lcid, WORD flags,
                      DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception, UINT* arg_error) noexcept {
  if (!is_null_iid(riid)) return DISP_E_UNKNOWNINTERFACE;
  if (!params) return E_INVALIDARG;
  const DispidSlot* slot = table.find(id);
  if (!slot) return DISP_E_MEMBERNOTFOUND;

  int index;
  const UINT named = params->cNamedArgs;
  if (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) {
    index = slot->put;
    if (index < 0) return DISP_E_MEMBERNOTFOUND;
    if (named > 1 || (named == 1 && (!params->rgdispidNamedArgs || params->rgdispidNamedArgs[0] != DISPID_PROPERTYPUT)))
      return DISP_E_NONAMEDARGS;
  } else {
    if ((flags & DISPATCH_METHOD) && slot->method >= 0)
      index = slot->method;
    else if ((flags & (DISPATCH_PROPERTYGET | DISPATCH_METHOD)) && slot->get >= 0)
      index = slot->get;
    else
      return DISP_E_MEMBERNOTFOUND;
    if (named) return DISP_E_NONAMEDARGS;
  }

  const Member& m = table.members[index];
  const unsigned n = m.param_count;
  if (params->cArgs != n) return DISP_E_BADPARAMCOUNT;
  Arg args[kMaxParams];
  if (n) {
    if (!params->rgvarg) return E_INVALIDARG;
    for (unsigned i = 0; i < n; ++i)  // rgvarg holds the arguments last first
      if (!detail::load_exact(m.params[i], params->rgvarg[n - 1 - i], args[i]))
        return detail::invoke_general(m, self, lcid, params, result, exception, arg_error);
  }
  Arg r;
  const HRESULT hr = m.invoke(self, args, &r);
  if (FAILED(hr)) return exception_from_failure(hr, exception);
  for (unsigned i = 0; i < n; ++i)
    if (m.params[i].passing == Passing::InOut) detail::write_back(m.params[i], args[i], params->rgvarg[n - 1 - i]);
  if (result) {
    result->vt = m.result;
    switch (m.result) {
      case VT_I2: result->iVal = r.i2; break;
      case VT_I4: result->lVal = r.i4; break;
      case VT_R4: result->fltVal = r.r4; break;
      case VT_R8: result->dblVal = r.r8; break;
      case VT_BOOL: result->boolVal = r.b; break;
      case VT_BSTR: result->bstrVal = r.bstr; break;
      case VT_VARIANT: *result = r.var; break;
      default: break;
    }
  } else if (m.result == VT_BSTR || m.result == VT_VARIANT) {
    detail::discard_result(m.result, r);
  }
  return S_OK;
}

namespace typed {

// A method call (or a get called as a method) with `count` arguments.
VALMETRA_HOT_INLINE bool is_method_call(WORD flags, const DISPPARAMS* p, UINT count) noexcept {
  return (flags & DISPATCH_METHOD) && !(flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) &&
         p->cNamedArgs == 0 && p->cArgs == count && (count == 0 || p->rgvarg);
}
VALMETRA_HOT_INLINE bool is_get_call(WORD flags, const DISPPARAMS* p, UINT count) noexcept {
  return (flags & (DISPATCH_PROPERTYGET | DISPATCH_METHOD)) &&
         !(flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) && p->cNamedArgs == 0 && p->cArgs == count &&
         (count == 0 || p->rgvarg);
}
VALMETRA_HOT_INLINE bool is_put_call(WORD flags, const DISPPARAMS* p) noexcept {
  return (flags & (DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYPUTREF)) && p->cArgs == 1 && p->rgvarg &&
         (p->cNamedArgs == 0 ||
          (p->cNamedArgs == 1 && p->rgdispidNamedArgs && p->rgdispidNamedArgs[0] == DISPID_PROPERTYPUT));
}

// Finishes a call: the failure as exception information, or the result
// (a text the caller did not ask for is freed).
VALMETRA_HOT_INLINE HRESULT finish(HRESULT hr, VARIANT* result, EXCEPINFO* exception) noexcept {
  if (FAILED(hr)) return exception_from_failure(hr, exception);
  if (result) result->vt = VT_EMPTY;
  return S_OK;
}
template <VARTYPE R>
VALMETRA_HOT_INLINE HRESULT finish(HRESULT hr, type_of<R>& value, VARIANT* result, EXCEPINFO* exception) noexcept {
  if (FAILED(hr)) return exception_from_failure(hr, exception);
  if (result) {
    result->vt = R;
    std::memcpy(&result->iVal, &value, sizeof value);  // every value field starts there
  } else if constexpr (R == VT_BSTR) {
    Arg r;
    r.bstr = value;
    detail::discard_result(VT_BSTR, r);
  }
  return S_OK;
}
VALMETRA_HOT_INLINE HRESULT finish_variant(HRESULT hr, VARIANT& value, VARIANT* result, EXCEPINFO* exception) noexcept {
  if (FAILED(hr)) return exception_from_failure(hr, exception);
  if (result) {
    *result = value;
  } else {
    Arg r;
    r.var = value;
    detail::discard_result(VT_VARIANT, r);
  }
  return S_OK;
}

// Writes a written-back parameter into the caller's argument after a
// successful call (as the table path does).
template <VARTYPE T>
inline void write_back(const Param& param, type_of<T> value, VARIANT& source) noexcept {
  Arg a;
  std::memcpy(&a, &value, sizeof value);
  detail::write_back(param, a, source);
}

}  // namespace typed

}  // namespace valmetra::com
