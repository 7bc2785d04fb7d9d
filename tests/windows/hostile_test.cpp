// Hostile late-bound calls: every argument form a caller can build, for
// every parameter of every class, and every malformed call shape. Each call
// must end in a defined HRESULT without a crash, leave the caller's
// arguments as they were, leave the object unchanged when it fails, and
// leak nothing.
//
// The expected outcome of an argument comes from the Automation runtime
// itself: an argument that is not of the declared type is what
// VariantChangeTypeEx makes of it, so the call must behave exactly like the
// same call, on a twin object, with the converted value in the declared
// type; when the conversion fails, the call fails with that failure
// (DISP_E_TYPEMISMATCH for an unconvertible type) and names the argument.
// Where the conversion cannot be asked (null references, a reference
// variant that refers to another one, the missing argument) the dispatch
// layer's own rules apply (hosting/com/dispatch.h).
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "leaks.h"
#include "support.h"

namespace vt {
namespace {

using valmetra::com::Kind;
using valmetra::com::Member;
using valmetra::com::Param;
using valmetra::com::Passing;

// Bad calls made by this file (printed at the end of the program).
std::size_t g_bad_calls = 0;

// ------------------------------------------------------------ argument values

// The texts and objects the hostile arguments point at; owned here, never
// by the call.
struct Fixtures {
  Bstr one{std::wstring_view(L"1")};
  Bstr number{std::wstring_view(L"12")};
  Bstr word{std::wstring_view(L"abc")};
  Bstr empty{std::wstring_view(L"")};
  Bstr spaced{std::wstring_view(L" -3 ")};
  Bstr list{std::wstring_view(L"1, 2,3")};
  Bstr embedded{std::wstring_view(L"1\0 2", 4)};
  Bstr huge_digits{std::wstring(1 << 20, L'7')};
  Bstr huge_word{std::wstring(1 << 20, L'x')};
  SAFEARRAY* array = nullptr;
  DECIMAL decimal{};
  ComPtr<IDispatch> other;     // an IntegerData holding 3
  ComPtr<IDispatch> no_value;  // a BooleanData: no value member

  Fixtures() {
    array = SafeArrayCreateVector(VT_I2, 0, 3);
    for (LONG i = 0; i < 3; ++i) {
      SHORT v = static_cast<SHORT>(i + 1);
      SafeArrayPutElement(array, &i, &v);
    }
    VarDecFromR8(1.25, &decimal);
    other = create(L"IntegerData");
    EXPECT_EQ(put(other.get(), L"Value", v_i2(3)), S_OK);
    no_value = create(L"BooleanData");
  }
  ~Fixtures() { SafeArrayDestroy(array); }
};

// What a by-reference argument points at; fresh for every call. The
// variables a VT_BYREF|VT_VARIANT points at may be rewritten by a call (a
// written-back parameter) and are cleared here.
struct Slots {
  CHAR i1 = -5;
  BYTE ui1 = 200;
  SHORT i2 = -7;
  USHORT ui2 = 65535;
  LONG i4 = 100000;
  ULONG ui4 = 4000000000u;
  LONGLONG i8 = 1LL << 40;
  ULONGLONG ui8 = ~0ULL;
  INT int_ = 12;
  UINT uint_ = 13;
  FLOAT r4 = 1.5f;
  DOUBLE r8 = 2.5;
  CY cy{};
  DATE date = 45000.25;
  DECIMAL decimal{};
  BSTR bstr = nullptr;  // borrowed from Fixtures
  IDispatch* dispatch = nullptr;
  IUnknown* unknown = nullptr;
  SCODE error = static_cast<SCODE>(0x800A0005);
  VARIANT_BOOL flag = VARIANT_TRUE;
  SAFEARRAY* array = nullptr;
  // Caller's Variant variables (VT_BYREF|VT_VARIANT targets) and chains.
  VARIANT var[4];
  VARIANT chain[2];

  Slots() {
    cy.int64 = 12345;
    for (auto& v : var) VariantInit(&v);
    for (auto& v : chain) VariantInit(&v);
  }
  ~Slots() {
    for (auto& v : var) VariantClear(&v);
  }
};

struct Context {
  const Fixtures& f;
  Slots& s;
  IDispatch* self;
};

VARIANT make(VARTYPE vt) {
  VARIANT v;
  std::memset(&v, 0, sizeof v);
  v.vt = vt;
  return v;
}
VARIANT by_ref(VARTYPE vt, void* p) {
  VARIANT v = make(static_cast<VARTYPE>(VT_BYREF | vt));
  v.byref = p;
  return v;
}
float float_bits(std::uint32_t bits) {
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}
double double_bits(std::uint64_t bits) {
  double d;
  std::memcpy(&d, &bits, sizeof d);
  return d;
}

// One argument form: its name and how to build it for a call.
struct Form {
  std::string name;
  std::function<VARIANT(Context&)> build;
};

template <class T, class Set>
Form value(const char* name, VARTYPE vt, T v, Set set) {
  return {name, [=](Context&) {
            VARIANT r = make(vt);
            set(r, v);
            return r;
          }};
}

std::vector<Form> hostile_values() {
  std::vector<Form> h;
  auto add = [&](Form x) { h.push_back(std::move(x)); };
  add({"VT_EMPTY", [](Context&) { return make(VT_EMPTY); }});
  add({"VT_NULL", [](Context&) { return make(VT_NULL); }});
  add(value("VT_I1", VT_I1, CHAR{-5}, [](VARIANT& r, CHAR v) { r.cVal = v; }));
  add(value("VT_UI1", VT_UI1, BYTE{200}, [](VARIANT& r, BYTE v) { r.bVal = v; }));
  add(value("VT_I2", VT_I2, SHORT{-7}, [](VARIANT& r, SHORT v) { r.iVal = v; }));
  add(value("VT_I2 max", VT_I2, SHORT{32767}, [](VARIANT& r, SHORT v) { r.iVal = v; }));
  add(value("VT_UI2", VT_UI2, USHORT{65535}, [](VARIANT& r, USHORT v) { r.uiVal = v; }));
  add(value("VT_I4", VT_I4, LONG{100000}, [](VARIANT& r, LONG v) { r.lVal = v; }));
  add(value("VT_I4 -1", VT_I4, LONG{-1}, [](VARIANT& r, LONG v) { r.lVal = v; }));
  add(value("VT_UI4", VT_UI4, ULONG{4000000000u}, [](VARIANT& r, ULONG v) { r.ulVal = v; }));
  add(value("VT_I8", VT_I8, LONGLONG{1LL << 40}, [](VARIANT& r, LONGLONG v) { r.llVal = v; }));
  add(value("VT_UI8", VT_UI8, ~0ULL, [](VARIANT& r, ULONGLONG v) { r.ullVal = v; }));
  add(value("VT_INT", VT_INT, INT{12}, [](VARIANT& r, INT v) { r.intVal = v; }));
  add(value("VT_UINT", VT_UINT, UINT{13}, [](VARIANT& r, UINT v) { r.uintVal = v; }));
  const std::pair<const char*, float> floats[] = {
      {"VT_R4 1.5", 1.5f},
      {"VT_R4 NaN", std::numeric_limits<float>::quiet_NaN()},
      {"VT_R4 signalling NaN", float_bits(0x7FA00000u)},
      {"VT_R4 +Inf", std::numeric_limits<float>::infinity()},
      {"VT_R4 -Inf", -std::numeric_limits<float>::infinity()},
      {"VT_R4 -0", -0.0f},
      {"VT_R4 denormal", std::numeric_limits<float>::denorm_min()},
      {"VT_R4 max", std::numeric_limits<float>::max()},
  };
  for (const auto& [name, v] : floats) add(value(name, VT_R4, v, [](VARIANT& r, float x) { r.fltVal = x; }));
  const std::pair<const char*, double> doubles[] = {
      {"VT_R8 2.5", 2.5},
      {"VT_R8 0.5", 0.5},
      {"VT_R8 NaN", std::numeric_limits<double>::quiet_NaN()},
      {"VT_R8 signalling NaN", double_bits(0x7FF4000000000000ull)},
      {"VT_R8 +Inf", std::numeric_limits<double>::infinity()},
      {"VT_R8 -Inf", -std::numeric_limits<double>::infinity()},
      {"VT_R8 -0", -0.0},
      {"VT_R8 denormal", std::numeric_limits<double>::denorm_min()},
      {"VT_R8 1e300", 1e300},
  };
  for (const auto& [name, v] : doubles) add(value(name, VT_R8, v, [](VARIANT& r, double x) { r.dblVal = x; }));
  add({"VT_CY", [](Context&) {
         VARIANT r = make(VT_CY);
         r.cyVal.int64 = 12345;
         return r;
       }});
  add(value("VT_DATE", VT_DATE, DATE{45000.25}, [](VARIANT& r, DATE v) { r.date = v; }));
  add({"VT_DECIMAL", [](Context& c) {
         VARIANT r = make(VT_EMPTY);
         r.decVal = c.f.decimal;
         r.vt = VT_DECIMAL;  // after: vt shares its place with the decimal's reserved field
         return r;
       }});
  auto text = [&](const char* name, const Bstr Fixtures::*field) {
    add({name, [field](Context& c) {
           VARIANT r = make(VT_BSTR);
           r.bstrVal = (c.f.*field).get();
           return r;
         }});
  };
  text("VT_BSTR numeric", &Fixtures::number);
  text("VT_BSTR word", &Fixtures::word);
  text("VT_BSTR empty", &Fixtures::empty);
  text("VT_BSTR spaced", &Fixtures::spaced);
  text("VT_BSTR list", &Fixtures::list);
  text("VT_BSTR embedded NUL", &Fixtures::embedded);
  text("VT_BSTR huge digits", &Fixtures::huge_digits);
  text("VT_BSTR huge word", &Fixtures::huge_word);
  add({"VT_BSTR null", [](Context&) { return make(VT_BSTR); }});
  add({"VT_DISPATCH null", [](Context&) { return make(VT_DISPATCH); }});
  add({"VT_DISPATCH the object itself", [](Context& c) {
         VARIANT r = make(VT_DISPATCH);
         r.pdispVal = c.self;
         return r;
       }});
  add({"VT_DISPATCH another object", [](Context& c) {
         VARIANT r = make(VT_DISPATCH);
         r.pdispVal = c.f.other.get();
         return r;
       }});
  add({"VT_DISPATCH without value member", [](Context& c) {
         VARIANT r = make(VT_DISPATCH);
         r.pdispVal = c.f.no_value.get();
         return r;
       }});
  add({"VT_UNKNOWN null", [](Context&) { return make(VT_UNKNOWN); }});
  add({"VT_UNKNOWN the object itself", [](Context& c) {
         VARIANT r = make(VT_UNKNOWN);
         r.punkVal = c.self;
         return r;
       }});
  add({"VT_ERROR missing", [](Context&) { return v_missing(); }});
  add(value("VT_ERROR other", VT_ERROR, static_cast<SCODE>(0x800A0005), [](VARIANT& r, SCODE v) { r.scode = v; }));
  add(value("VT_BOOL true", VT_BOOL, VARIANT_TRUE, [](VARIANT& r, VARIANT_BOOL v) { r.boolVal = v; }));
  add(value("VT_BOOL false", VT_BOOL, VARIANT_FALSE, [](VARIANT& r, VARIANT_BOOL v) { r.boolVal = v; }));
  add({"VT_ARRAY|VT_I2", [](Context& c) {
         VARIANT r = make(VT_ARRAY | VT_I2);
         r.parray = c.f.array;
         return r;
       }});
  add({"VT_ARRAY|VT_I2 null", [](Context&) { return make(VT_ARRAY | VT_I2); }});
  // Types no caller may pass by value.
  add({"VT_VARIANT by value", [](Context&) { return make(VT_VARIANT); }});
  add({"VT_VOID", [](Context&) { return make(VT_VOID); }});
  add({"undefined type 0x0FFF", [](Context&) { return make(0x0FFF); }});
  add({"VT_ILLEGAL", [](Context&) { return make(VT_ILLEGAL); }});

  // By reference, to a variable and to nothing.
  struct Ref {
    const char* name;
    VARTYPE vt;
    std::function<void*(Context&)> target;
  };
  const Ref refs[] = {
      {"I1", VT_I1, [](Context& c) -> void* { return &c.s.i1; }},
      {"UI1", VT_UI1, [](Context& c) -> void* { return &c.s.ui1; }},
      {"I2", VT_I2, [](Context& c) -> void* { return &c.s.i2; }},
      {"UI2", VT_UI2, [](Context& c) -> void* { return &c.s.ui2; }},
      {"I4", VT_I4, [](Context& c) -> void* { return &c.s.i4; }},
      {"UI4", VT_UI4, [](Context& c) -> void* { return &c.s.ui4; }},
      {"I8", VT_I8, [](Context& c) -> void* { return &c.s.i8; }},
      {"UI8", VT_UI8, [](Context& c) -> void* { return &c.s.ui8; }},
      {"INT", VT_INT, [](Context& c) -> void* { return &c.s.int_; }},
      {"UINT", VT_UINT, [](Context& c) -> void* { return &c.s.uint_; }},
      {"R4", VT_R4, [](Context& c) -> void* { return &c.s.r4; }},
      {"R8", VT_R8, [](Context& c) -> void* { return &c.s.r8; }},
      {"CY", VT_CY, [](Context& c) -> void* { return &c.s.cy; }},
      {"DATE", VT_DATE, [](Context& c) -> void* { return &c.s.date; }},
      {"DECIMAL", VT_DECIMAL,
       [](Context& c) -> void* {
         c.s.decimal = c.f.decimal;
         return &c.s.decimal;
       }},
      {"BSTR", VT_BSTR,
       [](Context& c) -> void* {
         c.s.bstr = c.f.number.get();
         return &c.s.bstr;
       }},
      {"BSTR holding null", VT_BSTR,
       [](Context& c) -> void* {
         c.s.bstr = nullptr;
         return &c.s.bstr;
       }},
      {"DISPATCH", VT_DISPATCH,
       [](Context& c) -> void* {
         c.s.dispatch = c.self;
         return &c.s.dispatch;
       }},
      {"UNKNOWN", VT_UNKNOWN,
       [](Context& c) -> void* {
         c.s.unknown = c.self;
         return &c.s.unknown;
       }},
      {"ERROR", VT_ERROR, [](Context& c) -> void* { return &c.s.error; }},
      {"BOOL", VT_BOOL, [](Context& c) -> void* { return &c.s.flag; }},
      {"ARRAY|I2", VT_ARRAY | VT_I2,
       [](Context& c) -> void* {
         c.s.array = c.f.array;
         return &c.s.array;
       }},
      {"EMPTY (invalid)", VT_EMPTY, [](Context& c) -> void* { return &c.s.i4; }},
      {"NULL (invalid)", VT_NULL, [](Context& c) -> void* { return &c.s.i4; }},
  };
  for (const auto& r : refs) {
    const std::string name = std::string("VT_BYREF|VT_") + r.name;
    h.push_back({name, [vt = r.vt, target = r.target](Context& c) { return by_ref(vt, target(c)); }});
    h.push_back({name + " null", [vt = r.vt](Context&) { return by_ref(vt, nullptr); }});
  }

  // A caller's Variant variable (VT_BYREF|VT_VARIANT) holding each kind.
  auto variable = [&](const char* name, std::function<void(Context&, VARIANT&)> fill) {
    add({name, [fill](Context& c) {
           fill(c, c.s.var[0]);
           return by_ref(VT_VARIANT, &c.s.var[0]);
         }});
  };
  variable("variable: VT_I2", [](Context&, VARIANT& v) { v = v_i2(4); });
  variable("variable: VT_BSTR", [](Context&, VARIANT& v) { v = v_text(L"6"); });
  variable("variable: VT_BSTR word", [](Context&, VARIANT& v) { v = v_text(L"abc"); });
  variable("variable: VT_EMPTY", [](Context&, VARIANT& v) { v = make(VT_EMPTY); });
  variable("variable: VT_NULL", [](Context&, VARIANT& v) { v = make(VT_NULL); });
  variable("variable: VT_R8 NaN", [](Context&, VARIANT& v) { v = v_r8(std::numeric_limits<double>::quiet_NaN()); });
  variable("variable: VT_DISPATCH itself", [](Context& c, VARIANT& v) {
    v = make(VT_DISPATCH);
    v.pdispVal = c.self;
    c.self->AddRef();  // the variable owns it
  });
  variable("variable: VT_ARRAY|VT_I2", [](Context& c, VARIANT& v) {
    v = make(VT_ARRAY | VT_I2);
    SafeArrayCopy(c.f.array, &v.parray);
  });
  variable("variable: missing", [](Context&, VARIANT& v) { v = v_missing(); });
  variable("variable: VT_BYREF|VT_I2 null", [](Context&, VARIANT& v) { v = by_ref(VT_I2, nullptr); });
  variable("variable: VT_BYREF|VT_I2", [](Context& c, VARIANT& v) { v = by_ref(VT_I2, &c.s.i2); });
  add({"VT_BYREF|VT_VARIANT null", [](Context&) { return by_ref(VT_VARIANT, nullptr); }});
  add({"VT_BYREF|VT_VARIANT to itself", [](Context& c) {
         c.s.chain[0] = by_ref(VT_VARIANT, &c.s.chain[0]);
         return by_ref(VT_VARIANT, &c.s.chain[0]);
       }});
  add({"VT_BYREF|VT_VARIANT to a VT_BYREF|VT_VARIANT", [](Context& c) {
         c.s.chain[1] = v_i2(5);
         c.s.chain[0] = by_ref(VT_VARIANT, &c.s.chain[1]);
         return by_ref(VT_VARIANT, &c.s.chain[0]);
       }});
  return h;
}

// ------------------------------------------------------------ fingerprints

std::size_t pointee_size(VARTYPE vt) {
  switch (vt & VT_TYPEMASK) {
    case VT_I1:
    case VT_UI1: return 1;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL: return 2;
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
    case VT_R4:
    case VT_ERROR: return 4;
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_CY:
    case VT_DATE: return 8;
    case VT_DECIMAL: return sizeof(DECIMAL);
    default: return sizeof(void*);
  }
}

void append_bytes(std::string& out, const void* p, std::size_t n) { out.append(static_cast<const char*>(p), n); }

void append_text(std::string& out, BSTR b) {
  if (!b) return out.append("<null>"), void();
  append_bytes(out, b, SysStringByteLen(b));
}

// Everything a caller can observe of an argument: the VARIANT itself, the
// text it holds and what it refers to (two levels deep).
std::string fingerprint(const VARIANT& v, int depth = 0) {
  std::string out;
  append_bytes(out, &v, sizeof v);
  if (depth > 2) return out;
  if (v.vt == VT_BSTR) append_text(out, v.bstrVal);
  if ((v.vt & VT_BYREF) && v.byref) {
    if (v.vt == (VT_BYREF | VT_VARIANT)) {
      out += fingerprint(*v.pvarVal, depth + 1);
    } else {
      append_bytes(out, v.byref, pointee_size(v.vt));
      if (v.vt == (VT_BYREF | VT_BSTR)) append_text(out, *v.pbstrVal);
    }
  }
  return out;
}

// The outcome of a call as a caller sees it, comparable between objects.
struct Outcome {
  HRESULT hr = S_OK;
  SCODE scode = 0;
  std::wstring description;
  std::string result;
  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& o, std::ostream* out) {
  *out << "hr 0x" << std::hex << static_cast<unsigned long>(o.hr) << " scode 0x" << static_cast<unsigned long>(o.scode)
       << std::dec << " \"" << std::string(o.description.begin(), o.description.end()) << "\" result";
  for (unsigned char c : o.result) *out << ' ' << static_cast<int>(c);
}

std::string result_text(const VARIANT& r) {
  std::string out(reinterpret_cast<const char*>(&r.vt), sizeof r.vt);
  switch (r.vt) {
    case VT_I2:
    case VT_BOOL: append_bytes(out, &r.iVal, 2); break;
    case VT_I4:
    case VT_R4: append_bytes(out, &r.lVal, 4); break;
    case VT_R8: append_bytes(out, &r.dblVal, 8); break;
    case VT_BSTR: append_text(out, r.bstrVal); break;
    default: break;
  }
  return out;
}

WORD flags_of(Kind kind) {
  switch (kind) {
    case Kind::Method: return DISPATCH_METHOD;
    case Kind::Get: return DISPATCH_PROPERTYGET;
    default: return DISPATCH_PROPERTYPUT;
  }
}

struct RawCall {
  HRESULT hr;
  Variant result;
  EXCEPINFO exception{};
  UINT arg_error = 0xFFFFFFFF;
  ~RawCall() {
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    SysFreeString(exception.bstrHelpFile);
  }
  Outcome outcome() const {
    return {hr, exception.scode, text_of(exception.bstrDescription), result_text(*result.get())};
  }
};

// Invokes `m` with rgvarg as given (last argument first); the caller keeps
// ownership of the arguments.
void raw_invoke(RawCall& c, IDispatch* object, const Member& m, std::vector<VARIANT>& rgvarg) {
  DISPID put_id = DISPID_PROPERTYPUT;
  DISPPARAMS params{rgvarg.empty() ? nullptr : rgvarg.data(), nullptr, static_cast<UINT>(rgvarg.size()), 0};
  if (m.kind == Kind::Put) {
    params.rgdispidNamedArgs = &put_id;
    params.cNamedArgs = 1;
  }
  c.hr = object->Invoke(m.dispid, IID_NULL, LOCALE_USER_DEFAULT, flags_of(m.kind), &params, c.result.put(),
                        &c.exception, &c.arg_error);
}

// Every property of the object read through Invoke: its observable state.
std::vector<Outcome> state_of(IDispatch* object, const valmetra::com::DispatchTable& table) {
  std::vector<Outcome> state;
  for (unsigned k = 0; k < table.count; ++k) {
    const Member& m = table.members[k];
    if (m.kind != Kind::Get || m.param_count != 0) continue;
    RawCall c;
    std::vector<VARIANT> none;
    raw_invoke(c, object, m, none);
    state.push_back(c.outcome());
  }
  return state;
}

// A benign argument of the parameter's type (the value 1), as a caller's
// variable of that type when the parameter is written back.
VARIANT benign(const Param& p, const Fixtures& f, Slots& s, int slot) {
  if (p.passing == Passing::InOut) {
    VARIANT& var = s.var[1 + slot];
    VariantClear(&var);
    var = make(p.type);
    if (p.type == VT_BOOL)
      var.boolVal = VARIANT_FALSE;
    else
      var.iVal = 1;
    return by_ref(VT_VARIANT, &var);
  }
  switch (p.type) {
    case VT_I2: return v_i2(1);
    case VT_I4: return v_i4(1);
    case VT_R4: {
      VARIANT v = make(VT_R4);
      v.fltVal = 1.0f;
      return v;
    }
    case VT_R8: return v_r8(1.0);
    case VT_BOOL: return v_bool(false);
    case VT_BSTR: {
      VARIANT v = make(VT_BSTR);
      v.bstrVal = f.one.get();
      return v;
    }
    default: return v_i2(1);
  }
}

struct Expected {
  bool before_call = false;  // refused before the operation ran
  HRESULT hr = S_OK;
  Variant converted;  // the argument in the declared type (when it converts)
};

bool is_missing(const VARIANT& v) { return v.vt == VT_ERROR && v.scode == DISP_E_PARAMNOTFOUND; }

// What Automation makes of argument `h` for parameter `p`.
Expected expect_argument(const Param& p, const VARIANT& h) {
  Expected e;
  auto refuse = [&](HRESULT hr) {
    e.before_call = true;
    e.hr = hr;
    return std::move(e);
  };
  const VARIANT* v = &h;
  if (h.vt == (VT_BYREF | VT_VARIANT)) {
    v = h.pvarVal;
    if (!v) return refuse(DISP_E_TYPEMISMATCH);
  }
  if (is_missing(*v)) return refuse(DISP_E_PARAMNOTOPTIONAL);
  if ((v->vt & VT_BYREF) && !v->byref) return refuse(DISP_E_TYPEMISMATCH);
  if (p.passing == Passing::InOut && (h.vt & VT_BYREF) && h.vt != (VT_BYREF | VT_VARIANT) &&
      h.vt != (VT_BYREF | p.type))
    return refuse(DISP_E_TYPEMISMATCH);
  if (p.type == VT_VARIANT) return e;  // taken as it is
  const HRESULT hr = VariantChangeTypeEx(e.converted.get(), const_cast<VARIANT*>(v), LOCALE_USER_DEFAULT, 0, p.type);
  if (FAILED(hr)) return refuse(hr == E_INVALIDARG || hr == DISP_E_BADVARTYPE ? DISP_E_TYPEMISMATCH : hr);
  return e;
}

std::string label(const Member& m, unsigned position, const char* value) {
  return std::string(m.name, m.name + wcslen(m.name)) + (m.kind == Kind::Put ? " (put)" : "") + " argument " +
         std::to_string(position + 1) + " = " + value;
}

class Hostile : public ApartmentTest {};

// Every parameter of every class gets every argument form.
TEST_F(Hostile, EveryArgumentFormForEveryParameter) {
  MemoryLeaks leaks;
  std::size_t calls = 0, refused = 0, failed = 0;
  {
    Fixtures fixtures;
    const std::vector<Form> values = hostile_values();
    for (std::size_t ci = 0; ci < kClassCount; ++ci) {
      const auto& cls = kClasses[ci];
      const auto& table = *cls.table;
      for (unsigned k = 0; k < table.count; ++k) {
        const Member& m = table.members[k];
        for (unsigned pos = 0; pos < m.param_count; ++pos) {
          const Param& param = m.params[pos];
          for (const auto& hv : values) {
            const std::string what =
                std::string(cls.name, cls.name + wcslen(cls.name)) + "." + label(m, pos, hv.name.c_str());
            SCOPED_TRACE(what);
            ComPtr<IDispatch> object = create(cls.name);
            ComPtr<IDispatch> twin = create(cls.name);
            ASSERT_TRUE(object && twin);
            Slots slots;
            Context context{fixtures, slots, object.get()};
            // rgvarg: last argument first.
            std::vector<VARIANT> args(m.param_count);
            for (unsigned i = 0; i < m.param_count; ++i)
              args[m.param_count - 1 - i] =
                  i == pos ? hv.build(context) : benign(m.params[i], fixtures, slots, static_cast<int>(i));
            VARIANT& h = args[m.param_count - 1 - pos];
            const std::string before = fingerprint(h);

            Expected expected = expect_argument(param, h);
            RawCall actual;
            raw_invoke(actual, object.get(), m, args);
            ++calls;
            refused += expected.before_call ? 1 : 0;
            failed += actual.hr == DISP_E_EXCEPTION ? 1 : 0;

            // The twin gets the same call with the argument in its declared type.
            Slots twin_slots;
            std::vector<VARIANT> twin_args(m.param_count);
            VARIANT written = make(VT_EMPTY);
            for (unsigned i = 0; i < m.param_count; ++i) {
              VARIANT a = benign(m.params[i], fixtures, twin_slots, static_cast<int>(i));
              if (i == pos && !expected.before_call) {
                if (param.type == VT_VARIANT) {
                  a = v_i2(0);  // the value is discarded: any will do
                } else if (param.passing == Passing::InOut) {
                  twin_slots.var[0] = *expected.converted.get();
                  a = by_ref(VT_VARIANT, &twin_slots.var[0]);
                  VariantInit(expected.converted.get());  // moved into the slot
                } else {
                  a = *expected.converted.get();  // borrowed
                }
              }
              twin_args[m.param_count - 1 - i] = a;
            }
            RawCall reference;
            if (!expected.before_call) {
              raw_invoke(reference, twin.get(), m, twin_args);
              if (param.passing == Passing::InOut) written = twin_slots.var[0];
            }

            if (expected.before_call) {
              EXPECT_EQ(actual.hr, expected.hr);
              EXPECT_EQ(actual.arg_error, m.param_count - 1 - pos);
            } else {
              EXPECT_EQ(actual.outcome(), reference.outcome());
            }
            if (FAILED(actual.hr)) {
              EXPECT_EQ(actual.result->vt, VT_EMPTY);
            }
            // The object: as the twin (which did nothing when the call was refused).
            EXPECT_EQ(state_of(object.get(), table), state_of(twin.get(), table));
            // The caller's argument: untouched, except a variable written back.
            const bool written_back = param.passing == Passing::InOut && SUCCEEDED(actual.hr) && (h.vt & VT_BYREF);
            if (!written_back) {
              EXPECT_EQ(fingerprint(h), before) << "the call changed the caller's argument";
            } else if (h.vt == (VT_BYREF | VT_VARIANT) && h.pvarVal->vt == (VT_BYREF | param.type)) {
              // A variable holding a reference: written through it.
              EXPECT_EQ(std::memcmp(h.pvarVal->byref, &written.iVal, pointee_size(param.type)), 0);
            } else if (h.vt == (VT_BYREF | VT_VARIANT)) {
              EXPECT_EQ(result_text(*h.pvarVal), result_text(written));
            } else {
              EXPECT_EQ(std::memcmp(h.byref, &written.iVal, pointee_size(param.type)), 0);
            }
            if (::testing::Test::HasFatalFailure()) return;
          }
        }
      }
    }
  }
  g_bad_calls += calls;
  std::printf("[ hostile  ] %zu argument forms tried: %zu refused before the call, %zu ran and failed, %zu ran\n",
              calls, refused, failed, calls - refused - failed);
  EXPECT_GT(calls, 10000u);
  EXPECT_GT(refused, 1000u);  // the table does reach the refusals
  EXPECT_EQ(leaks.count(), 0u) << leaks.describe();
}

// A call shape: what is wrong with it, and what Automation (or the
// dispatch layer's documented rules) answers.
struct Shape {
  std::string what;
  DISPID id;
  WORD flags;
  bool null_params = false;
  UINT arg_count = 0;        // benign arguments in rgvarg
  bool null_rgvarg = false;  // rgvarg null although arg_count > 0
  UINT claimed_count = 0;    // cArgs, when it differs from arg_count (0: the same)
  std::vector<DISPID> named{};
  bool null_named = false;  // rgdispidNamedArgs null although named is not empty
  UINT claimed_named = 0;   // cNamedArgs, when it differs (0: named.size())
  bool null_outputs = false;
  bool other_iid = false;
  // The expected answer; 0 means "as the same member called properly on a
  // twin" (the shape is legal), and kAnyFailure any failure that leaves the
  // object alone.
  HRESULT expected = 0;
};

constexpr HRESULT kAsProperCall = 0;
constexpr HRESULT kAnyFailure = 1;

std::vector<Shape> shapes_for(const Member& m) {
  const UINT n = m.param_count;
  const WORD own = flags_of(m.kind);
  const std::vector<DISPID> put_name =
      m.kind == Kind::Put ? std::vector<DISPID>{DISPID_PROPERTYPUT} : std::vector<DISPID>{};
  std::vector<Shape> s;
  auto add = [&](Shape x) {
    if (x.named.empty() && !x.null_named && x.claimed_named == 0 && x.what.find("named") == std::string::npos)
      x.named = put_name;
    s.push_back(std::move(x));
  };
  add({.what = "one argument too many",
       .id = m.dispid,
       .flags = own,
       .arg_count = n + 1,
       .expected = DISP_E_BADPARAMCOUNT});
  if (n > 0)
    add({.what = "one argument too few",
         .id = m.dispid,
         .flags = own,
         .arg_count = n - 1,
         .expected = DISP_E_BADPARAMCOUNT});
  add({.what = "200 arguments", .id = m.dispid, .flags = own, .arg_count = 200, .expected = DISP_E_BADPARAMCOUNT});
  add({.what = "no DISPPARAMS", .id = m.dispid, .flags = own, .null_params = true, .expected = E_INVALIDARG});
  if (n > 0)
    add({.what = "null rgvarg",
         .id = m.dispid,
         .flags = own,
         .arg_count = n,
         .null_rgvarg = true,
         .expected = E_INVALIDARG});
  add({.what = "null rgvarg, cArgs 0x7FFFFFFF",
       .id = m.dispid,
       .flags = own,
       .arg_count = 0,
       .null_rgvarg = true,
       .claimed_count = 0x7FFFFFFF,
       .expected = DISP_E_BADPARAMCOUNT});
  add({.what = "interface identifier not IID_NULL",
       .id = m.dispid,
       .flags = own,
       .arg_count = n,
       .other_iid = true,
       .expected = DISP_E_UNKNOWNINTERFACE});
  add({.what = "no result, exception or argument-error pointers",
       .id = m.dispid,
       .flags = own,
       .arg_count = n,
       .null_outputs = true,
       .expected = kAsProperCall});
  // Named arguments.
  add({.what = "named argument 0",
       .id = m.dispid,
       .flags = own,
       .arg_count = n,
       .named = {0},
       .expected = n == 0 ? kAnyFailure : DISP_E_NONAMEDARGS});
  add({.what = "named arguments: two",
       .id = m.dispid,
       .flags = own,
       .arg_count = n,
       .named = {DISPID_PROPERTYPUT, 0},
       .expected = kAnyFailure});
  add({.what = "named: more than arguments",
       .id = m.dispid,
       .flags = own,
       .arg_count = 0,
       .named = {DISPID_PROPERTYPUT, 1, 2},
       .expected = kAnyFailure});
  add({.what = "named: null identifiers",
       .id = m.dispid,
       .flags = own,
       .arg_count = n,
       .null_named = true,
       .claimed_named = 1,
       .expected = kAnyFailure});
  add({.what = "named: DISPID_PROPERTYPUT on a call that is no put",
       .id = m.dispid,
       .flags = static_cast<WORD>(m.kind == Kind::Put ? DISPATCH_METHOD : own),
       .arg_count = n,
       .named = {DISPID_PROPERTYPUT},
       .expected = kAnyFailure});
  // Flags.
  for (WORD flags : {WORD{0}, WORD{0x10}, WORD{0x20}, WORD{0x8000}, WORD{0xFFF0}})
    add({.what = "flags without a kind " + std::to_string(flags),
         .id = m.dispid,
         .flags = flags,
         .arg_count = n,
         .expected = DISP_E_MEMBERNOTFOUND});
  for (WORD flags : {WORD{DISPATCH_PROPERTYPUTREF}, WORD{DISPATCH_PROPERTYPUT | DISPATCH_PROPERTYGET},
                     WORD{DISPATCH_METHOD | DISPATCH_PROPERTYPUT}, WORD{0xFFFF}})
    add({.what = "put flags " + std::to_string(flags),
         .id = m.dispid,
         .flags = flags,
         .arg_count = n,
         .expected = m.kind == Kind::Put ? kAsProperCall : kAnyFailure});
  add({.what = "method and get flags",
       .id = m.dispid,
       .flags = DISPATCH_METHOD | DISPATCH_PROPERTYGET,
       .arg_count = n,
       .expected = m.kind == Kind::Put ? kAnyFailure : kAsProperCall});
  add({.what = "get flag",
       .id = m.dispid,
       .flags = DISPATCH_PROPERTYGET,
       .arg_count = n,
       .expected = m.kind == Kind::Get ? kAsProperCall : kAnyFailure});
  return s;
}

// Identifiers no class has, whatever the flags.
std::vector<Shape> unknown_identifiers(const valmetra::hosting::ClassInfo& c) {
  std::vector<DISPID> ids = {DISPID_UNKNOWN,
                             DISPID_PROPERTYPUT,
                             DISPID_NEWENUM,
                             DISPID_EVALUATE,
                             DISPID_COLLECT,
                             DISPID_DESTRUCTOR,
                             1,
                             0x7FFFFFFF,
                             static_cast<DISPID>(0x80000000),
                             0x60030000,
                             0x60039999,
                             0x68030100};
  if (!c.value_member) ids.push_back(DISPID_VALUE);
  std::vector<Shape> s;
  for (DISPID id : ids) {
    if (c.table->find(id)) continue;  // the class has it
    for (WORD flags : {WORD{DISPATCH_METHOD}, WORD{DISPATCH_PROPERTYGET}, WORD{DISPATCH_PROPERTYPUT},
                       WORD{DISPATCH_METHOD | DISPATCH_PROPERTYGET}})
      for (UINT count : {0u, 1u})
        s.push_back(
            {.what = "unknown identifier " + std::to_string(id) + " flags " + std::to_string(flags) + " arguments " +
                     std::to_string(count),
             .id = id,
             .flags = flags,
             .arg_count = count,
             .named = flags == DISPATCH_PROPERTYPUT ? std::vector<DISPID>{DISPID_PROPERTYPUT} : std::vector<DISPID>{},
             .expected = DISP_E_MEMBERNOTFOUND});
  }
  return s;
}

// Makes the call of `shape` on `object`: benign arguments of the member's
// types where it has parameters, a VT_I2 1 beyond them.
void shaped_invoke(RawCall& c, IDispatch* object, const Member* m, const Shape& shape, const Fixtures& f,
                   Slots& slots) {
  std::vector<VARIANT> args(shape.arg_count);
  for (UINT i = 0; i < shape.arg_count; ++i) {
    // rgvarg holds the last argument first.
    const UINT natural = shape.arg_count - 1 - i;
    args[i] = m && natural < m->param_count ? benign(m->params[natural], f, slots, static_cast<int>(natural)) : v_i2(1);
  }
  std::vector<DISPID> named = shape.named;
  DISPPARAMS params{shape.null_rgvarg || args.empty() ? nullptr : args.data(),
                    shape.null_named || named.empty() ? nullptr : named.data(),
                    shape.claimed_count ? shape.claimed_count : shape.arg_count,
                    shape.claimed_named ? shape.claimed_named : static_cast<UINT>(named.size())};
  const IID& iid = shape.other_iid ? IID_IDispatch : IID_NULL;
  if (shape.null_outputs) {
    c.hr = object->Invoke(shape.id, iid, LOCALE_USER_DEFAULT, shape.flags, shape.null_params ? nullptr : &params,
                          nullptr, nullptr, nullptr);
  } else {
    c.hr = object->Invoke(shape.id, iid, LOCALE_USER_DEFAULT, shape.flags, shape.null_params ? nullptr : &params,
                          c.result.put(), &c.exception, &c.arg_error);
  }
}

bool defined_failure(HRESULT hr) {
  switch (hr) {
    case E_INVALIDARG:
    case E_POINTER:
    case DISP_E_BADPARAMCOUNT:
    case DISP_E_MEMBERNOTFOUND:
    case DISP_E_NONAMEDARGS:
    case DISP_E_PARAMNOTFOUND:
    case DISP_E_PARAMNOTOPTIONAL:
    case DISP_E_TYPEMISMATCH:
    case DISP_E_UNKNOWNINTERFACE:
    case DISP_E_EXCEPTION: return true;
    default: return false;
  }
}

TEST_F(Hostile, EveryMalformedCallShape) {
  MemoryLeaks leaks;
  std::size_t calls = 0;
  {
    Fixtures fixtures;
    for (std::size_t ci = 0; ci < kClassCount; ++ci) {
      const auto& cls = kClasses[ci];
      const auto& table = *cls.table;
      std::vector<std::pair<const Member*, Shape>> rows;
      for (unsigned k = 0; k < table.count; ++k)
        for (Shape& shape : shapes_for(table.members[k])) rows.emplace_back(&table.members[k], std::move(shape));
      for (Shape& shape : unknown_identifiers(cls)) rows.emplace_back(nullptr, std::move(shape));
      for (const auto& [m, shape] : rows) {
        SCOPED_TRACE(std::string(cls.name, cls.name + wcslen(cls.name)) + "." +
                     (m ? std::string(m->name, m->name + wcslen(m->name)) + (m->kind == Kind::Put ? " (put)" : "")
                        : std::string()) +
                     ": " + shape.what);
        ComPtr<IDispatch> object = create(cls.name);
        ComPtr<IDispatch> twin = create(cls.name);
        Slots slots, twin_slots;
        RawCall actual;
        shaped_invoke(actual, object.get(), m, shape, fixtures, slots);
        ++calls;
        if (shape.expected == kAsProperCall) {
          std::vector<VARIANT> args(m->param_count);
          for (unsigned i = 0; i < m->param_count; ++i)
            args[m->param_count - 1 - i] = benign(m->params[i], fixtures, twin_slots, static_cast<int>(i));
          RawCall reference;
          raw_invoke(reference, twin.get(), *m, args);
          if (shape.null_outputs) {
            EXPECT_EQ(actual.hr, reference.hr);
          } else {
            EXPECT_EQ(actual.outcome(), reference.outcome());
          }
        } else {
          if (shape.expected == kAnyFailure) {
            EXPECT_TRUE(defined_failure(actual.hr)) << std::hex << actual.hr;
          } else {
            EXPECT_EQ(actual.hr, shape.expected);
          }
          EXPECT_EQ(actual.result->vt, VT_EMPTY);
        }
        EXPECT_EQ(state_of(object.get(), table), state_of(twin.get(), table));
        if (::testing::Test::HasFatalFailure()) return;
      }
    }
  }
  g_bad_calls += calls;
  std::printf("[ hostile  ] %zu malformed calls tried\n", calls);
  EXPECT_EQ(leaks.count(), 0u) << leaks.describe();
}

// Names: null, empty, huge, foreign, and more of them than a member has.
TEST_F(Hostile, GetIDsOfNamesWithHostileNames) {
  MemoryLeaks leaks;
  std::size_t calls = 0;
  {
    const std::wstring huge(1 << 20, L'A');
    const std::wstring value_then_huge = L"Value" + std::wstring(1 << 20, L'e');
    const std::wstring huge_value = std::wstring(1 << 20, L'V') + L"alue";
    for (std::size_t ci = 0; ci < kClassCount; ++ci) {
      const auto& cls = kClasses[ci];
      SCOPED_TRACE(std::string(cls.name, cls.name + wcslen(cls.name)));
      ComPtr<IDispatch> object = create(cls.name);
      const Member& first = cls.table->members[0];
      const std::wstring first_name = first.name;
      struct Row {
        const char* what;
        std::vector<const wchar_t*> names;
        HRESULT hr;
      };
      const Row rows[] = {
          {"null name", {nullptr}, DISP_E_UNKNOWNNAME},
          {"empty name", {L""}, DISP_E_UNKNOWNNAME},
          {"huge name", {huge.c_str()}, DISP_E_UNKNOWNNAME},
          {"a member name and a huge tail", {value_then_huge.c_str()}, DISP_E_UNKNOWNNAME},
          {"a huge head and a member name", {huge_value.c_str()}, DISP_E_UNKNOWNNAME},
          {"non-ASCII letters", {L"V\u00E1lue"}, DISP_E_UNKNOWNNAME},
          {"Cyrillic look-alike", {L"V\u0430lue"}, DISP_E_UNKNOWNNAME},
          {"dotless i", {L"Push\u0131"}, DISP_E_UNKNOWNNAME},
          {"member name with trailing blank", {(first_name + L" ").c_str()}, DISP_E_UNKNOWNNAME},
          {"unpaired surrogate", {L"\xD800"}, DISP_E_UNKNOWNNAME},
          {"member, then null", {first_name.c_str(), nullptr}, DISP_E_UNKNOWNNAME},
          {"member, then empty", {first_name.c_str(), L""}, DISP_E_UNKNOWNNAME},
          {"member, then huge", {first_name.c_str(), huge.c_str()}, DISP_E_UNKNOWNNAME},
          {"null, then member", {nullptr, first_name.c_str()}, DISP_E_UNKNOWNNAME},
      };
      for (const auto& r : rows) {
        SCOPED_TRACE(r.what);
        std::vector<DISPID> ids(r.names.size(), 777);
        EXPECT_EQ(object->GetIDsOfNames(IID_NULL, const_cast<LPOLESTR*>(r.names.data()),
                                        static_cast<UINT>(r.names.size()), LOCALE_USER_DEFAULT, ids.data()),
                  r.hr);
        ++calls;
        // Every name that is not known gets DISPID_UNKNOWN.
        for (std::size_t i = 0; i < ids.size(); ++i) {
          const bool known_first = i == 0 && r.names[0] && first_name == r.names[0];
          EXPECT_EQ(ids[i], known_first ? first.dispid : DISPID_UNKNOWN) << "name " << i;
        }
      }
      // 64 names: the member, then 63 that are no parameter of it.
      std::vector<const wchar_t*> many(64, L"NoSuchParameter");
      many[0] = first_name.c_str();
      std::vector<DISPID> ids(64, 777);
      EXPECT_EQ(object->GetIDsOfNames(IID_NULL, const_cast<LPOLESTR*>(many.data()), 64, 0, ids.data()),
                DISP_E_UNKNOWNNAME);
      EXPECT_EQ(ids[0], first.dispid);
      for (std::size_t i = 1; i < 64; ++i) EXPECT_EQ(ids[i], DISPID_UNKNOWN);
      // Null arrays and an interface identifier other than IID_NULL.
      LPOLESTR name[] = {const_cast<LPOLESTR>(first.name)};
      DISPID id = 777;
      EXPECT_TRUE(FAILED(object->GetIDsOfNames(IID_NULL, nullptr, 1, 0, &id)));
      EXPECT_TRUE(FAILED(object->GetIDsOfNames(IID_NULL, name, 1, 0, nullptr)));
      EXPECT_TRUE(FAILED(object->GetIDsOfNames(IID_NULL, nullptr, 5, 0, nullptr)));
      EXPECT_EQ(object->GetIDsOfNames(IID_IDispatch, name, 1, 0, &id), DISP_E_UNKNOWNINTERFACE);
      EXPECT_EQ(object->GetIDsOfNames(IID_NULL, name, 0, 0, &id), S_OK);  // nothing asked, nothing answered
      calls += 6;
    }
  }
  g_bad_calls += calls;
  std::printf("[ hostile  ] %zu hostile name lookups tried\n", calls);
  EXPECT_EQ(leaks.count(), 0u) << leaks.describe();
}

// Through the vtable: every entry whose parameters are all passed by
// reference, called with each of its pointers null (and all of them),
// fails with E_POINTER and error information, and changes nothing.
TEST_F(Hostile, NullPointersThroughTheVtable) {
  std::size_t calls = 0;
  // The entry called with exactly its number of pointers (the callee pops
  // its arguments on x86).
  auto call_slot = [](void* self, unsigned slot, unsigned n, void* const* p) -> HRESULT {
    void* f = (*reinterpret_cast<void***>(self))[6 + slot];
    switch (n) {
      case 1: return reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(void*, void*)>(f)(self, p[0]);
      case 2: return reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(void*, void*, void*)>(f)(self, p[0], p[1]);
      case 3:
        return reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(void*, void*, void*, void*)>(f)(self, p[0], p[1], p[2]);
      default:
        return reinterpret_cast<HRESULT(STDMETHODCALLTYPE*)(void*, void*, void*, void*, void*)>(f)(self, p[0], p[1],
                                                                                                   p[2], p[3]);
    }
  };
  for (std::size_t ci = 0; ci < kClassCount; ++ci) {
    const auto& cls = kClasses[ci];
    const auto& table = *cls.table;
    for (unsigned k = 0; k < table.count; ++k) {
      const Member& m = table.members[k];
      bool all_pointers = true;
      for (unsigned i = 0; i < m.param_count; ++i) all_pointers &= m.params[i].passing != Passing::Value;
      const unsigned pointers = m.param_count + (m.result != VT_EMPTY ? 1 : 0);
      if (!all_pointers || pointers == 0 || pointers > 4) continue;
      SCOPED_TRACE(std::string(cls.name, cls.name + wcslen(cls.name)) + "." +
                   std::string(m.name, m.name + wcslen(m.name)));
      // Which pointer is null: each one alone, then all.
      for (unsigned null_one = 0; null_one <= pointers; ++null_one) {
        ComPtr<IDispatch> object, twin = create(cls.name);
        ComPtr<IUnknown> typed;
        {
          ComPtr<IClassFactory> factory;
          ASSERT_EQ(library().get_class_object(cls.clsid, IID_IClassFactory, factory.put_void()), S_OK);
          ASSERT_EQ(factory->CreateInstance(nullptr, cls.iid, typed.put_void()), S_OK);
          ASSERT_EQ(typed.query(IID_IDispatch, object), S_OK);
        }
        // Valid storage for the pointers that are not null: large enough
        // for any parameter type, holding the value 1 (a BSTR "1").
        VARIANT storage[4];
        Bstr one(std::wstring_view(L"1"));
        void* p[4] = {nullptr, nullptr, nullptr, nullptr};
        for (unsigned i = 0; i < pointers; ++i) {
          VariantInit(&storage[i]);
          const VARTYPE type = i < m.param_count ? m.params[i].type : m.result;
          if (type == VT_BSTR && i < m.param_count)
            storage[i].bstrVal = one.get();
          else if (type == VT_R4)
            storage[i].fltVal = 1.0f;
          else if (type == VT_R8)
            storage[i].dblVal = 1.0;
          else
            storage[i].iVal = 1;
          if (null_one < pointers && i != null_one)
            p[i] = type == VT_VARIANT ? static_cast<void*>(&storage[i]) : static_cast<void*>(&storage[i].iVal);
        }
        SetErrorInfo(0, nullptr);
        EXPECT_EQ(call_slot(typed.get(), m.slot, pointers, p), E_POINTER) << "null pointer " << null_one;
        ++calls;
        ComPtr<IErrorInfo> info;
        EXPECT_EQ(GetErrorInfo(0, info.put()), S_OK);
        EXPECT_EQ(state_of(object.get(), table), state_of(twin.get(), table));
      }
    }
  }
  g_bad_calls += calls;
  std::printf("[ hostile  ] %zu null-pointer vtable calls tried\n", calls);
  EXPECT_GT(calls, 200u);
}

// A Variant parameter through the vtable takes whatever the caller built,
// malformed forms included (null references, a variable referring to
// itself, types no Variant may hold): the call succeeds and the caller's
// Variant is untouched.
TEST_F(Hostile, EveryArgumentFormAsAVariantThroughTheVtable) {
  MemoryLeaks leaks;
  std::size_t calls = 0;
  {
    Fixtures fixtures;
    for (const Form& form : hostile_values()) {
      SCOPED_TRACE(form.name);
      ComPtr<_InterfaceStack> object = create_as<_InterfaceStack>(L"InterfaceStack");
      ASSERT_TRUE(object);
      ComPtr<IDispatch> self;
      ASSERT_EQ(object.query(IID_IDispatch, self), S_OK);
      Slots slots;
      Context context{fixtures, slots, self.get()};
      VARIANT v = form.build(context);
      const std::string before = fingerprint(v);
      EXPECT_EQ(object->PushAndSet(v), S_OK);
      ++calls;
      EXPECT_EQ(fingerprint(v), before);
    }
  }
  g_bad_calls += calls;
  std::printf("[ hostile  ] %zu argument forms as a Variant through the vtable\n", calls);
  EXPECT_EQ(leaks.count(), 0u) << leaks.describe();
}

// The figure for the reliability notes.
class BadCallCount final : public ::testing::Environment {
  void TearDown() override {
    if (g_bad_calls) std::printf("[ hostile  ] %zu bad calls in all\n", g_bad_calls);
  }
};
[[maybe_unused]] ::testing::Environment* const kBadCallCount = ::testing::AddGlobalTestEnvironment(new BadCallCount);

}  // namespace
}  // namespace vt
