// Every entry of every class, and of the value history component, called
// late-bound with every argument form of one input pool, one parameter at a
// time (the others get a plain value of their type). Each call runs twice on
// fresh twin objects: through the object's own Invoke in the default
// floating-point environment, and through the table path (com::invoke over
// the catalogue's member table, calling the vtable; the value history
// component: its Invoke again) in a host environment with every floating
// exception unmasked and another rounding mode. Checked for every call:
//  - the answer is a defined HRESULT, and both calls give the same answer,
//    result, exception code, argument error, written-back arguments and
//    object state (so the typed path equals the table path, and nothing
//    depends on the host's floating environment);
//  - no floating trap reaches the host; its environment is left bit for bit;
//  - a failed call gives no result and changes neither the object nor the
//    caller's arguments;
//  - a malformed argument gets the answer of its row, names the argument and
//    is not read beyond its type code (the forms point at address 1); a
//    reference to another type is refused by a written-back parameter, and
//    one argument too many by every entry.
// A seeded random phase then makes malformed calls of every shape
// (VALMETRA_HOSTILE_SECONDS, default 3; VALMETRA_HOSTILE_SEED replays one).
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "hosting/com/dispatch.h"
#include "support.h"
// clang-format off
#include <initguid.h>
#include "valuestack.h"
// clang-format on

namespace vt {
namespace {

using valmetra::com::Member;
using valmetra::com::Param;
using valmetra::com::Passing;

struct FpState {
  std::uint32_t mxcsr;
  std::uint16_t control, status;  // x87
  bool operator==(const FpState& o) const {
    // Exception flags, stack fault, error summary and stack top are kept;
    // the condition codes are scratch for every x87 instruction.
    return mxcsr == o.mxcsr && control == o.control && (status & 0x38FF) == (o.status & 0x38FF);
  }
};
[[gnu::always_inline]] inline FpState read_fp() {
  FpState s;
  asm volatile("stmxcsr %0" : "=m"(s.mxcsr) : : "memory");
  asm volatile("fnstcw %0" : "=m"(s.control) : : "memory");
  asm volatile("fnstsw %0" : "=m"(s.status) : : "memory");
  return s;
}
// Clears the x87 flags first: with unmasked exceptions a pending flag traps.
// Flags given are set afterwards (only with masked exceptions).
[[gnu::always_inline]] inline void load_fp(std::uint32_t mxcsr, std::uint16_t control, std::uint16_t x87_flags = 0) {
  asm volatile("fnclex" : : : "memory");
  asm volatile("fldcw %0" : : "m"(control) : "memory");
  if (x87_flags) {
    std::uint16_t env[14];  // fnstenv's 28 bytes: control word, reserved, status word, ...
    asm volatile("fnstenv %0" : "=m"(env) : : "memory");
    env[2] |= x87_flags;    // the flags can only be loaded with the whole environment
    asm volatile("fldenv %0" : : "m"(env) : "memory");
  }
  asm volatile("ldmxcsr %0" : : "m"(mxcsr) : "memory");
}
constexpr std::uint32_t kDefaultMxcsr = 0x1F80;
constexpr std::uint16_t kDefaultControl = 0x027F;
// Every exception unmasked in both units, another rounding mode in each;
// sticky flags to keep; flush to zero and denormals are zero; x87 64-bit.
// The last is the usual 32-bit host: everything masked, x87 64-bit, with the
// inexact, underflow and denormal flags of its own x87 arithmetic pending.
constexpr struct { std::uint32_t mxcsr; std::uint16_t control, x87_flags; } kHosts[] = {
    {0x4100, 0x0A40, 0}, {0x6000 | 0x0030, 0x0E40, 0}, {0x2000 | 0x8000 | 0x0040, 0x0740, 0}, {0x1FA0, 0x037F, 0x32}};

std::atomic<int> g_traps{0};
LONG CALLBACK on_trap(EXCEPTION_POINTERS* info) {
  const DWORD code = info->ExceptionRecord->ExceptionCode;
  if (!((code >= EXCEPTION_FLT_DENORMAL_OPERAND && code <= EXCEPTION_FLT_UNDERFLOW) || code == 0xC00002B4 ||
        code == 0xC00002B5))
    return EXCEPTION_CONTINUE_SEARCH;
  ++g_traps;  // masks everything and lets the instruction run again
  CONTEXT* c = info->ContextRecord;
#ifdef _WIN64
  c->MxCsr = c->FltSave.MxCsr = kDefaultMxcsr;
  c->FltSave.ControlWord = kDefaultControl;
  c->FltSave.StatusWord = 0;
#else
  c->FloatSave.ControlWord = kDefaultControl;
  c->FloatSave.StatusWord = 0;
  const DWORD mxcsr = kDefaultMxcsr;
  std::memcpy(c->ExtendedRegisters + 24, &mxcsr, sizeof mxcsr);
#endif
  return EXCEPTION_CONTINUE_EXECUTION;
}

struct Entry {
  std::string name;
  DISPID id;
  WORD flags;
  std::vector<Param> params;
  const Member* member;  // the table path's entry; null for the value history
};
struct ClassDesc {
  std::string name;
  const Dll* dll;
  CLSID clsid;
  IID iid;
  const valmetra::com::DispatchTable* table;
  std::vector<Entry> entries;
  std::vector<DISPID> state;  // the parameterless gets
};

ComPtr<IDispatch> make(const ClassDesc& c) { return create(*c.dll, c.clsid, c.iid); }

// What a caller can see of an argument (its pointers followed only when
// the form allows).
std::string seen(const VARIANT& v, bool readable, int depth = 0, bool raw = true) {
  std::string out = std::to_string(v.vt) + ":";
  if (!readable) {  // the VARIANT's own bits only (the address, when `raw`)
    char bits[40];
    std::snprintf(bits, sizeof bits, "%p", raw ? v.byref : nullptr);
    return out + bits;
  }
  if (v.vt == (VT_BYREF | VT_VARIANT) && v.pvarVal && depth < 2)
    return out + "(" + seen(*v.pvarVal, true, depth + 1) + ")";
  Variant copy;
  if (VariantCopyInd(copy.get(), const_cast<VARIANT*>(&v)) != S_OK) return out + "?";
  if (copy->vt == VT_DISPATCH || copy->vt == VT_UNKNOWN) return out + (copy->punkVal ? "object" : "null");
  if (copy->vt == VT_R4 || copy->vt == VT_R8) {
    const double d = copy->vt == VT_R4 ? copy->fltVal : copy->dblVal;
    char s[40];
    std::snprintf(s, sizeof s, "%a", d);
    return out + s;
  }
  if (VariantChangeType(copy.get(), copy.get(), 0, VT_BSTR) != S_OK) return out + "-";
  return out + narrow(text_of(copy->bstrVal));
}

std::string read(IDispatch* o, DISPID id) {
  Call call;
  invoke(call, o, id, DISPATCH_PROPERTYGET, {});
  return std::to_string(call.hr) + "=" + seen(*call.result.get(), true) + " ";
}

// Every class's entries from its type information; the catalogue's also
// with their member, which the table path calls.
const std::vector<ClassDesc>& classes() {
  static const std::vector<ClassDesc> all = [] {
    std::vector<ClassDesc> out;
    for (std::size_t i = 0; i < kClassCount; ++i) {
      const auto& k = kClasses[i];
      out.push_back({narrow(k.name), &library(), k.clsid, k.iid, k.table, {}, {}});
    }
    out.push_back({"ValueStack", &value_stack(), CLSID_ValueStack, IID__ValueStack, nullptr, {}, {}});
    for (ClassDesc& c : out) {
      ComPtr<IDispatch> o = make(c);
      ComPtr<ITypeInfo> info;
      TYPEATTR* attr = nullptr;
      if (!o || o->GetTypeInfo(0, 0, info.put()) != S_OK || info->GetTypeAttr(&attr) != S_OK) {
        ADD_FAILURE() << c.name << ": no type information";
        continue;
      }
      for (UINT f = 0; f < attr->cFuncs; ++f) {
        FUNCDESC* fd = nullptr;
        if (info->GetFuncDesc(f, &fd) != S_OK || fd->wFuncFlags & FUNCFLAG_FRESTRICTED) continue;  // IDispatch's
        Bstr name;
        UINT n = 0;
        info->GetNames(fd->memid, name.put(), 1, &n);
        const WORD flags = static_cast<WORD>(fd->invkind);
        Entry e{c.name + "." + narrow(name.get()) + (flags == DISPATCH_PROPERTYPUT ? "=" : ""), fd->memid, flags, {},
                nullptr};
        for (unsigned k = 0; c.table && k < c.table->count; ++k)
          if (const Member& m = c.table->members[k]; m.dispid == e.id && int(m.kind) == flags) e.member = &m;
        // (The type information does not tell a by-reference parameter from a written-back one.)
        if (e.member) e.params.assign(e.member->params, e.member->params + e.member->param_count);
        for (SHORT p = 0; !e.member && p < fd->cParams; ++p) {
          const ELEMDESC& d = fd->lprgelemdescParam[p];
          const bool ref = d.tdesc.vt == VT_PTR, written = d.paramdesc.wParamFlags & PARAMFLAG_FOUT;
          if (written && (d.paramdesc.wParamFlags & PARAMFLAG_FRETVAL)) continue;
          e.params.push_back({L"", ref ? d.tdesc.lptdesc->vt : d.tdesc.vt,
                              written ? Passing::InOut : ref ? Passing::Ref : Passing::Value});
        }
        if (flags == DISPATCH_PROPERTYGET && e.params.empty()) c.state.push_back(e.id);
        c.entries.push_back(e);
        info->ReleaseFuncDesc(fd);
      }
      info->ReleaseTypeAttr(attr);
      EXPECT_EQ(c.entries.size(), c.table ? c.table->count : 34u) << c.name << ": entries";
      // A get that changes the object (ValueAfterIncrement: its second read
      // differs from its first) is no part of its state, which is read
      // before and after every call.
      std::erase_if(c.state, [&](DISPID id) { return read(o.get(), id) != read(o.get(), id); });
    }
    return out;
  }();
  return all;
}

// A caller's storage for one argument: the variable a by-reference form
// points at, and the Variant a VT_BYREF|VT_VARIANT refers to (which a call
// may rewrite; cleared here unless it is a malformed one).
struct Store {
  VARIANT cell{}, inner{}, top{};
  ~Store() {
    VariantClear(&cell);
    if (inner.vt == VT_BSTR || inner.vt == VT_DISPATCH) VariantClear(&inner);
  }
};

struct Form {
  std::string name;
  std::function<void(Store&, VARIANT&)> make;
  HRESULT refused = S_OK;  // the answer for a malformed argument
  bool readable = true;    // its pointers may be followed by the test
  bool array = false;      // an array: a Variant parameter takes it unread
};

Form scalar(std::string name, VARTYPE vt, double x) {
  return {name, [vt, x](Store&, VARIANT& v) {
            v = v_of(VT_R8, x);
            if (vt != VT_R8) VariantChangeType(&v, &v, 0, vt);
          }};
}
Form text(std::string name, const wchar_t* t) {
  return {name, [t](Store&, VARIANT& v) { v = v_text(t); }};
}
Form bogus(std::string name, VARTYPE vt, HRESULT refused, bool array = false) {
  return {name, [vt](Store&, VARIANT& v) { v = v_of(vt, reinterpret_cast<void*>(1)); }, refused, false, array};
}
// A reference to a caller's variable holding what `f` makes (a DECIMAL
// fills the whole VARIANT).
Form byref(Form f) {
  return {"BYREF " + f.name, [make = f.make](Store& s, VARIANT& v) {
            make(s, s.cell);
            v = v_of(VT_BYREF | s.cell.vt, s.cell.vt == VT_DECIMAL ? (void*)&s.cell.decVal : (void*)&s.cell.iVal);
          }};
}
// A reference to a caller's Variant holding what `f` makes.
Form refvar(Form f) {
  return {"BYREF VARIANT " + f.name, [make = f.make](Store& s, VARIANT& v) { make(s, s.inner), v = v_ref(&s.inner); },
          f.refused, f.readable, f.array};
}

Probe& caller_object() {
  static Probe probe;
  return probe;
}

// Valid values of every type a host passes, by value and by reference, then
// the malformed ones with the answer each must get.
std::vector<Form> forms() {
  // The argument holds a reference, as a caller's variable does.
  const Form dispatch{"DISPATCH caller's", [](Store&, VARIANT& v) {
                        v = v_dispatch(&caller_object()), v.pdispVal->AddRef();
                      }};
  std::vector<Form> f = {
      scalar("I2 7", VT_I2, 7), scalar("I2 -32768", VT_I2, -32768), scalar("I4 70000", VT_I4, 70000),
      scalar("I4 -1", VT_I4, -1), scalar("R4 1.5", VT_R4, 1.5), scalar("R4 NaN", VT_R4, NAN),
      scalar("R8 1e300", VT_R8, 1e300), scalar("R8 -0", VT_R8, -0.0), scalar("R8 2.5", VT_R8, 2.5),
      scalar("R8 inf", VT_R8, INFINITY), scalar("R8 3.4e38", VT_R8, 3.4e38), scalar("R8 denormal", VT_R8, 4e-320),
      scalar("BOOL true", VT_BOOL, -1), scalar("CY 1.5", VT_CY, 1.5), scalar("DATE 2", VT_DATE, 2),
      scalar("DECIMAL 3", VT_DECIMAL, 3), scalar("I1 -5", VT_I1, -5), scalar("UI1 200", VT_UI1, 200),
      scalar("UI2 60000", VT_UI2, 60000), scalar("UI4 4e9", VT_UI4, 4e9), scalar("I8 2^40", VT_I8, 0x1p40),
      scalar("UI8 2^63", VT_UI8, 0x1p63), scalar("INT 5", VT_INT, 5), scalar("UINT 5", VT_UINT, 5),
      text("BSTR 5", L"5"), text("BSTR 1,5,9", L"1,5,9"), text("BSTR 3,5", L"3,5"), text("BSTR abc", L"abc"),
      text("BSTR empty", L""), text("BSTR 1e39", L"1e39"),
      {"EMPTY", [](Store&, VARIANT& v) { v = v_of(VT_EMPTY); }},
      {"NULL", [](Store&, VARIANT& v) { v = v_of(VT_NULL); }},
      {"missing", [](Store&, VARIANT& v) { v = v_of(VT_ERROR, SCODE{DISP_E_PARAMNOTFOUND}); },
       DISP_E_PARAMNOTOPTIONAL, false},
      {"ERROR 5", [](Store&, VARIANT& v) { v = v_of(VT_ERROR, SCODE{5}); }}, dispatch,
      {"UNKNOWN caller's", [](Store&, VARIANT& v) { v = v_of(VT_UNKNOWN, &caller_object()), v.punkVal->AddRef(); }},
      {"DISPATCH null", [](Store&, VARIANT& v) { v = v_of(VT_DISPATCH); }},
      byref(dispatch), refvar(dispatch), byref(scalar("I2 3", VT_I2, 3)), byref(scalar("I4 40000", VT_I4, 40000)),
      byref(scalar("R4 0.1", VT_R4, 0.1)), byref(scalar("R8 -7.5", VT_R8, -7.5)), byref(scalar("BOOL", VT_BOOL, -1)),
      byref(text("BSTR 12", L"12")), byref(scalar("DECIMAL -2", VT_DECIMAL, -2)), refvar(scalar("I2 4", VT_I2, 4)),
      refvar(text("BSTR 6", L"6")), refvar(scalar("R8 1e10", VT_R8, 1e10)), refvar(byref(scalar("I4 2", VT_I4, 2))),
      refvar({"EMPTY", [](Store&, VARIANT& v) { v = v_of(VT_EMPTY); }}),
      // Malformed: null references, references to references (also to
      // itself), arrays, and type codes no host passes.
      {"BYREF I2 null", [](Store&, VARIANT& v) { v = v_of(VT_BYREF | VT_I2); }, DISP_E_TYPEMISMATCH, false},
      {"BYREF VARIANT null", [](Store&, VARIANT& v) { v = v_of(VT_BYREF | VT_VARIANT); }, DISP_E_TYPEMISMATCH,
       false},
      refvar({"BYREF R8 null", [](Store&, VARIANT& v) { v = v_of(VT_BYREF | VT_R8); }, DISP_E_TYPEMISMATCH, false}),
      refvar({"to itself", [](Store& s, VARIANT& v) { v = v_ref(&s.inner); }, DISP_E_TYPEMISMATCH, false}),
      refvar({"BYREF VARIANT", [](Store& s, VARIANT& v) { s.top = v_i2(1), v = v_ref(&s.top); }, DISP_E_TYPEMISMATCH,
              false}),
      refvar({"VARIANT", [](Store&, VARIANT& v) { v = v_of(VT_VARIANT); }, DISP_E_BADVARTYPE, false}),
      refvar(bogus("0x7FFF", 0x7FFF, DISP_E_BADVARTYPE)),
      // Arrays: a Variant parameter takes them, their pointers unread.
      refvar(bogus("ARRAY VARIANT at 1", VT_ARRAY | VT_VARIANT, DISP_E_TYPEMISMATCH, true)),  // a script's Array(...)
      bogus("ARRAY I2 at 1", VT_ARRAY | VT_I2, DISP_E_TYPEMISMATCH, true),
      bogus("BYREF ARRAY VARIANT at 1", VT_BYREF | VT_ARRAY | VT_VARIANT, DISP_E_TYPEMISMATCH, true),
      {"BYREF ARRAY I4 null", [](Store&, VARIANT& v) { v = v_of(VT_BYREF | VT_ARRAY | VT_I4); },
       DISP_E_TYPEMISMATCH, false},
      bogus("VARIANT by value", VT_VARIANT, DISP_E_BADVARTYPE),
      bogus("BYREF EMPTY", VT_BYREF | VT_EMPTY, DISP_E_BADVARTYPE),
      bogus("BYREF NULL", VT_BYREF | VT_NULL, DISP_E_BADVARTYPE),
      bogus("ARRAY EMPTY", VT_ARRAY | VT_EMPTY, DISP_E_BADVARTYPE),
      bogus("VECTOR I2", VT_VECTOR | VT_I2, DISP_E_BADVARTYPE),
      bogus("BYREF VECTOR I4", VT_BYREF | VT_VECTOR | VT_I4, DISP_E_BADVARTYPE),
      bogus("RESERVED I2", VT_RESERVED | VT_I2, DISP_E_BADVARTYPE),
      bogus("0x7FFF", 0x7FFF, DISP_E_BADVARTYPE),  // crashed the host in VariantCopyInd (to PushAndSet)
      bogus("0xFFFF", 0xFFFF, DISP_E_BADVARTYPE),
  };
  // Type codes that are none a host passes, alone, by reference, as arrays.
  static const std::pair<const char*, VARTYPE> invalid[] = {
      {"15", 15},         {"VOID", VT_VOID}, {"HRESULT", VT_HRESULT}, {"PTR", VT_PTR},
      {"USERDEFINED", VT_USERDEFINED}, {"LPWSTR", VT_LPWSTR}, {"RECORD", VT_RECORD}, {"INT_PTR", VT_INT_PTR},
      {"FILETIME", VT_FILETIME}, {"CLSID", VT_CLSID}, {"0xFFF", 0xFFF}};
  for (const auto& [n, vt] : invalid)
    for (const auto& [bits, prefix] :
         {std::pair{0, ""}, {VT_BYREF, "BYREF "}, {VT_ARRAY, "ARRAY "}, {VT_BYREF | VT_ARRAY, "BYREF ARRAY "}})
      f.push_back(bogus(prefix + std::string(n), static_cast<VARTYPE>(vt | bits), DISP_E_BADVARTYPE));
  return f;
}

// A plain value of the parameter's type, in the form it is declared.
void plain(const Param& p, Store& s, VARIANT& v) {
  VARIANT& value = p.passing == Passing::Value || p.type == VT_VARIANT ? v : s.inner;
  value = p.type == VT_BSTR ? v_text(L"2") : v_i2(2);
  if (p.type != VT_I2 && p.type != VT_BSTR && p.type != VT_VARIANT) VariantChangeType(&value, &value, 0, p.type);
  if (&value != &v) v = v_ref(&s.inner);
}

// The object's state: every parameterless get, and the thread's history.
std::string state_of(const ClassDesc& c, IDispatch* o) {
  std::string out;
  for (DISPID id : c.state) out += read(o, id);
  if (c.name != "ValueStack") {
    static const ClassDesc& history = classes().back();
    out += state_of(history, make(history).get());
  }
  return out;
}

bool defined(HRESULT hr) {
  for (HRESULT ok : {S_OK, DISP_E_EXCEPTION, DISP_E_BADVARTYPE, DISP_E_TYPEMISMATCH, DISP_E_OVERFLOW,
                     DISP_E_PARAMNOTOPTIONAL, DISP_E_BADPARAMCOUNT, DISP_E_MEMBERNOTFOUND, DISP_E_NONAMEDARGS,
                     DISP_E_UNKNOWNINTERFACE, E_INVALIDARG, E_POINTER})
    if (hr == ok) return true;
  return false;
}

void clear_history() {
  Call c;
  call(c, make(classes().back()).get(), L"Clear");
  EXPECT_EQ(c.hr, S_OK);
}

// A failed operation changes nothing, as documented, except: a failed
// floating operation keeps the infinity or NaN it produced, and a failed
// ModuloAddToThisLimit keeps the UpperLimit it set before its ModuloAdd.
bool may_change_when_failing(const ClassDesc& c, const Entry& e) {
  return c.name == "DoubleData" || c.name == "SingleData" || e.name.ends_with(".ModuloAddToThisLimit");
}

bool argument_failure(HRESULT hr) {
  return hr == DISP_E_BADVARTYPE || hr == DISP_E_TYPEMISMATCH || hr == DISP_E_OVERFLOW || hr == DISP_E_PARAMNOTOPTIONAL;
}

enum class Path { Invoke, Table };

// How a call is made: a form per argument in natural order (null: a plain
// value of its parameter, or one argument too many beyond them) and, for
// the hostile calls, whatever else a caller may get wrong.
struct Shape {
  std::vector<const Form*> forms;
  DISPID id;
  WORD flags;
  UINT named;  // a put's: one, DISPID_PROPERTYPUT
  DISPID names[2] = {DISPID_PROPERTYPUT, DISPID_PROPERTYPUT};
  bool hostile = false, no_args = false, no_names = false, dispatch_iid = false;
  bool result = true, exception = true, arg_error = true;  // what the caller asks for
};

// One call of `e` on a fresh object, checked for what holds for every call;
// a call as a host makes it also for the answer its arguments must get.
// Answers what the caller sees: the answer, exception code, argument
// error, result, arguments and the object's state.
std::string call_once(const ClassDesc& c, const Entry& e, const Shape& s, Path path, int host) {
  clear_history();
  ComPtr<IDispatch> o = make(c);
  const std::size_t n = e.params.size(), count = s.forms.size();
  std::size_t at = n;  // the argument under test
  std::vector<Store> stores(count);
  std::vector<VARIANT> rgvarg(count);  // the arguments last first
  auto arg = [&](std::size_t i) -> VARIANT& { return rgvarg[count - 1 - i]; };
  auto readable = [&](std::size_t i) { return !s.forms[i] || s.forms[i]->readable; };
  auto args_seen = [&](bool raw) {
    std::string out;
    for (std::size_t i = 0; i < count; ++i) out += seen(arg(i), readable(i), 0, raw) + " ";
    return out;
  };
  std::string what = e.name + " with";
  for (std::size_t i = 0; i < count; ++i) {
    if (s.forms[i])
      s.forms[i]->make(stores[i], arg(i)), at = i;
    else if (i < n)
      plain(e.params[i], stores[i], arg(i));
    else
      arg(i) = v_i2(2);
    what += " " + (s.forms[i] ? s.forms[i]->name : i < n ? "plain" : "one too many");
  }
  if (s.hostile)
    what += " (id " + std::to_string(s.id) + " flags " + std::to_string(s.flags) + " named " +
            std::to_string(s.named) + ")";
  const std::string before_args = args_seen(true), before_state = state_of(c, o.get());
  DISPPARAMS params{s.no_args ? nullptr : rgvarg.data(), s.no_names ? nullptr : const_cast<DISPID*>(s.names),
                    static_cast<UINT>(count), s.named};
  Call call;  // owns the result and the exception's strings
  auto& [hr, result, exception, arg_error] = call;
  const IID& iid = s.dispatch_iid ? IID_IDispatch : IID_NULL;
  const int traps = g_traps;
  if (path == Path::Table) load_fp(kHosts[host].mxcsr, kHosts[host].control, kHosts[host].x87_flags);
  const FpState fp = read_fp();
  if (path == Path::Table && e.member)
    hr = valmetra::com::invoke(*c.table, o.get(), s.id, iid, 0, s.flags, &params, s.result ? result.put() : nullptr,
                               s.exception ? &exception : nullptr, s.arg_error ? &arg_error : nullptr);
  else
    hr = o->Invoke(s.id, iid, 0, s.flags, &params, s.result ? result.put() : nullptr,
                   s.exception ? &exception : nullptr, s.arg_error ? &arg_error : nullptr);
  const FpState after = read_fp();
  load_fp(kDefaultMxcsr, kDefaultControl);
  EXPECT_TRUE(fp == after && g_traps == traps) << what << ": floating environment";
  const std::string state = state_of(c, o.get());
  EXPECT_TRUE(defined(hr)) << what;
  if (FAILED(hr)) {
    EXPECT_EQ(result->vt, VT_EMPTY) << what << ": a failed call gave a result";
    EXPECT_EQ(args_seen(true), before_args) << what << ": a failed call changed an argument";
    if (hr != DISP_E_EXCEPTION || !may_change_when_failing(c, e)) {
      EXPECT_EQ(state, before_state) << what << ": a failed call changed the object";
    }
  }
  if (!s.hostile) {
    // A written-back parameter of a fixed type refuses a valid reference to
    // another type: the call could not write the caller's variable.
    const Form* f = at < n ? s.forms[at] : nullptr;
    const VARTYPE given = f ? arg(at).vt : VARTYPE{VT_EMPTY};
    const bool unwritable = f && e.member && f->refused == S_OK && e.params[at].passing == Passing::InOut &&
                            e.params[at].type != VT_VARIANT && (given & VT_BYREF) &&
                            given != (VT_BYREF | VT_VARIANT) && given != (VT_BYREF | e.params[at].type);
    EXPECT_TRUE(count > n    ? hr == DISP_E_BADPARAMCOUNT
                : !f         ? true
                : f->array && e.params[at].type == VT_VARIANT ? !argument_failure(hr)
                : unwritable ? hr == DISP_E_TYPEMISMATCH
                             : f->refused == S_OK || hr == f->refused)
        << what << ": 0x" << std::hex << hr;
    // An argument failure names the argument (the others are plain values).
    EXPECT_TRUE(!argument_failure(hr) || arg_error == count - 1 - at) << what;
  }
  char answer[64];
  std::snprintf(answer, sizeof answer, "hr %lx scode %lx arg %u result ", hr, exception.scode, arg_error);
  const std::string out = answer + seen(*result.get(), true) + " args " + args_seen(false) + "state " + state;
  for (std::size_t i = 0; i < count; ++i)
    if (readable(i)) VariantClear(&arg(i));
  return out;
}

class Calls : public ApartmentTest {};

// Every parameter of every entry in every form, then all plain values, then
// one argument too many; each on both paths.
TEST_F(Calls, EveryEntryWithEveryArgumentFormAgreesAcrossPathsAndEnvironments) {
  PVOID handler = AddVectoredExceptionHandler(1, on_trap);
  const std::vector<Form> pool = forms();
  classes();  // (the type information it reads stays cached)
  MemoryLeaks leaks;
  std::size_t calls = 0, differences = 0;
  int host = 0;
  for (const ClassDesc& c : classes())
    for (const Entry& e : c.entries)
      for (std::size_t at = 0, n = e.params.size(); at < n + 2; ++at)
        for (const Form& f : pool) {
          if (at >= n && &f != &pool[0]) break;
          Shape shape{std::vector<const Form*>(at > n ? n + 1 : n), e.id, e.flags, e.flags == DISPATCH_PROPERTYPUT};
          if (at < n) shape.forms[at] = &f;
          const std::string a = call_once(c, e, shape, Path::Invoke, 0);
          const std::string b = call_once(c, e, shape, Path::Table, host = (host + 1) % int(std::size(kHosts)));
          calls += 2;
          if (a != b && ++differences < 20)
            ADD_FAILURE() << e.name << " with " << f.name << ", at " << at << " (host " << host << ")\n  Invoke " << a
                          << "\n  table  " << b;
        }
  clear_history();
  RemoveVectoredExceptionHandler(handler);
  EXPECT_EQ(leaks.unfreed(), "");
  EXPECT_EQ(caller_object().refs(), 1u) << "the library kept or dropped a reference to the caller's object";
  std::printf("[ calls    ] %zu calls over %zu argument forms, %zu differences\n", calls, pool.size(), differences);
}

// Through the vtable (whose failures change nothing, as the driver's table
// path shows): error information naming the interface (the value history
// service's passes on as it is); a text result stays empty until the
// operation succeeds (the 32,768th item overflows GiveMeYourNumbers' count).
TEST_F(Calls, TypedCallsReportFailures) {
  ComPtr<_IntegerData> object = create<_IntegerData>(L"IntegerData");
  const IID& iid = kClasses[class_index(L"IntegerData")].iid;
  ComPtr<ISupportErrorInfo> support;
  ASSERT_EQ(object.query(IID_ISupportErrorInfo, support), S_OK);
  EXPECT_EQ(support->InterfaceSupportsErrorInfo(iid), S_OK);
  EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IDispatch), S_OK);
  EXPECT_EQ(support->InterfaceSupportsErrorInfo(IID_IClassFactory), S_FALSE);
  SHORT zero = 0;
  const struct {
    std::function<HRESULT()> call;
    HRESULT hr;
    const wchar_t *source, *description;
  } rows[] = {{[&] { return object->IDivide(&zero); }, HRESULT(0x800A000B), L"KARVO_Valmetra", L"Division by zero"},
              {[&] { return object->Add(nullptr); }, E_POINTER, L"KARVO_Valmetra", L"Invalid pointer"},
              {[&] { return object->Pop(); }, HRESULT(0x800A0005), L"ValueStack",
               L"The value history holds no Integer"}};
  for (const auto& r : rows) {
    EXPECT_EQ(r.call(), r.hr);
    ComPtr<IErrorInfo> info;
    Bstr description, source;
    GUID guid{};
    ASSERT_EQ(GetErrorInfo(0, info.put()), S_OK);
    ASSERT_TRUE(info->GetDescription(description.put()) == S_OK && info->GetSource(source.put()) == S_OK &&
                info->GetGUID(&guid) == S_OK);
    EXPECT_TRUE(guid == iid);
    EXPECT_EQ(text_of(source.get()), r.source);
    EXPECT_EQ(text_of(description.get()), r.description);
  }
  ComPtr<_IntegerAverage> average = create<_IntegerAverage>(L"IntegerAverage");
  SHORT item = 1;
  for (int i = 0; i < 32768; ++i) ASSERT_EQ(average->AddAPieceOfData(&item), S_OK);
  BSTR text = reinterpret_cast<BSTR>(static_cast<std::uintptr_t>(1));  // whatever the caller had there
  EXPECT_EQ(average->get_GiveMeYourNumbers(&text), static_cast<HRESULT>(0x800A0006));
  EXPECT_EQ(text, nullptr);
}

// Malformed calls of every shape, at random, on either path: wrong argument
// counts and forms anywhere, wrong flags, identifiers and named arguments,
// null pointers where a caller should have given some.
TEST_F(Calls, RandomHostileCalls) {
  const char* s = std::getenv("VALMETRA_HOSTILE_SECONDS");
  const char* given = std::getenv("VALMETRA_HOSTILE_SEED");
  const double seconds = s ? std::atof(s) : 3;
  const unsigned seed = given ? static_cast<unsigned>(std::strtoul(given, nullptr, 0))
                              : static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count());
  std::printf("[ random   ] seed %u (VALMETRA_HOSTILE_SEED=%u replays it), %.0f s\n", seed, seed, seconds);
  std::mt19937 rng(seed);
  auto pick = [&](std::size_t n) { return static_cast<std::size_t>(rng() % n); };
  PVOID handler = AddVectoredExceptionHandler(1, on_trap);
  const std::vector<Form> pool = forms();
  const WORD kFlags[] = {DISPATCH_METHOD, DISPATCH_PROPERTYGET, DISPATCH_PROPERTYPUT, DISPATCH_PROPERTYPUTREF,
                         DISPATCH_METHOD | DISPATCH_PROPERTYGET, 0, 0xFFFF};
  const DISPID kNames[] = {DISPID_PROPERTYPUT, 0, 1, DISPID_UNKNOWN, 0x7FFFFFFF};
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  std::size_t calls = 0;
  while (std::chrono::steady_clock::now() < end && !HasFailure()) {
    const ClassDesc& c = classes()[pick(classes().size())];
    const Entry& e = c.entries[pick(c.entries.size())];
    Shape shape{std::vector<const Form*>(rng() % 4 ? e.params.size() : pick(5)), rng() % 16 ? e.id : DISPID(rng()),
                rng() % 3 ? e.flags : kFlags[pick(7)], rng() % 3 ? e.flags == DISPATCH_PROPERTYPUT : UINT(pick(3)),
                {rng() % 3 ? DISPID_PROPERTYPUT : kNames[pick(5)], kNames[pick(5)]}, true, rng() % 16 == 0,
                rng() % 8 == 0, rng() % 32 == 0, rng() % 4 > 0, rng() % 4 > 0, rng() % 4 > 0};
    for (auto& f : shape.forms) f = &pool[pick(pool.size())];
    call_once(c, e, shape, rng() % 2 ? Path::Invoke : Path::Table, pick(std::size(kHosts)));
    ++calls;
  }
  RemoveVectoredExceptionHandler(handler);
  EXPECT_FALSE(HasFailure()) << "seed " << seed << " call " << calls;
  EXPECT_EQ(caller_object().refs(), 1u);
  std::printf("[ random   ] %zu calls\n", calls);
}

}  // namespace
}  // namespace vt
