// The host's floating-point environment: a host with every exception
// unmasked and another rounding mode calls every operation of the classes
// that compute with floating values, through the vtable and through
// Invoke. No floating trap may reach the host, every result and every
// resulting state must be those of the same call made in the default
// environment (round to nearest), and the host's environment must be
// bit-identical after each call: MXCSR, the x87 control word, and the x87
// exception flags, stack fault, error summary and stack top.
#include <float.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "support.h"

namespace vt {
namespace {

using valmetra::com::Arg;
using valmetra::com::Kind;
using valmetra::com::Member;
using valmetra::com::Passing;

// ------------------------------------------------------------ the environment

struct FpState {
  std::uint32_t mxcsr;
  std::uint16_t control;  // x87
  std::uint16_t status;   // x87
};

// What a call must leave as it found it in the x87 status word: exception
// flags, stack fault, error summary (0x00FF) and the stack top (0x3800).
// The condition codes are scratch for every x87 instruction.
constexpr std::uint16_t kKeptStatus = 0x38FF;

[[gnu::always_inline]] inline FpState read_state() {
  FpState s;
  asm volatile("stmxcsr %0" : "=m"(s.mxcsr) : : "memory");
  asm volatile("fnstcw %0" : "=m"(s.control) : : "memory");
  asm volatile("fnstsw %0" : "=m"(s.status) : : "memory");
  return s;
}

// Clears the x87 flags first: with unmasked exceptions a pending flag would
// trap at the next x87 instruction.
[[gnu::always_inline]] inline void load_state(std::uint32_t mxcsr, std::uint16_t control) {
  asm volatile("fnclex" : : : "memory");
  asm volatile("fldcw %0" : : "m"(control) : "memory");
  asm volatile("ldmxcsr %0" : : "m"(mxcsr) : "memory");
}

constexpr std::uint32_t kDefaultMxcsr = 0x1F80;
constexpr std::uint16_t kDefaultControl = 0x027F;

struct HostEnvironment {
  const char* name;
  std::uint32_t mxcsr;
  std::uint16_t control;
};

// All exceptions unmasked in both units (denormal operand and inexact
// included), and in each a rounding mode other than to nearest.
const HostEnvironment kHosts[] = {
    // Set through the C runtime below, then checked to be this.
    {"unmasked but denormal, round up (_controlfp_s)", 0x4100, 0x0A40},
    // Sticky inexact and underflow flags the library must leave set.
    {"unmasked, toward zero, sticky flags", 0x6000 | 0x0030, 0x0E40},
    {"unmasked, round down, flush to zero and denormals are zero, x87 64-bit", 0x2000 | 0x8000 | 0x0040, 0x0740},
};

// Floating traps that reached the host, recorded by a vectored handler
// that masks everything and lets the faulting instruction run again.
std::atomic<int> g_traps{0};
std::atomic<unsigned long> g_trap_code{0};

LONG CALLBACK on_exception(EXCEPTION_POINTERS* info) {
  switch (info->ExceptionRecord->ExceptionCode) {
    case EXCEPTION_FLT_DENORMAL_OPERAND:
    case EXCEPTION_FLT_DIVIDE_BY_ZERO:
    case EXCEPTION_FLT_INEXACT_RESULT:
    case EXCEPTION_FLT_INVALID_OPERATION:
    case EXCEPTION_FLT_OVERFLOW:
    case EXCEPTION_FLT_STACK_CHECK:
    case EXCEPTION_FLT_UNDERFLOW:
    case 0xC00002B4:  // STATUS_FLOAT_MULTIPLE_FAULTS
    case 0xC00002B5:  // STATUS_FLOAT_MULTIPLE_TRAPS
      break;
    default: return EXCEPTION_CONTINUE_SEARCH;
  }
  ++g_traps;
  g_trap_code = info->ExceptionRecord->ExceptionCode;
  CONTEXT* c = info->ContextRecord;
#ifdef _WIN64
  c->MxCsr = kDefaultMxcsr;
  c->FltSave.MxCsr = kDefaultMxcsr;
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

// ------------------------------------------------------------ arguments

float f32(std::uint32_t bits) {
  float f;
  std::memcpy(&f, &bits, sizeof f);
  return f;
}

const std::vector<float> kSingles = {1.5f,
                                     0.1f,
                                     -0.0f,
                                     3.0f,
                                     2.5f,
                                     std::numeric_limits<float>::quiet_NaN(),
                                     f32(0x7FA00000u) /* signalling NaN */,
                                     std::numeric_limits<float>::infinity(),
                                     std::numeric_limits<float>::denorm_min(),
                                     3e38f,
                                     1e-30f,
                                     -7.75f};
const std::vector<double> kDoubles = {1.5,
                                      0.1,
                                      -0.0,
                                      3.0,
                                      2.5,
                                      std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::infinity(),
                                      std::numeric_limits<double>::denorm_min(),
                                      1.7e308,
                                      1e-300,
                                      -7.75,
                                      1e10};
const std::vector<SHORT> kIntegers = {2, -1, 0, 3, 127, -300, 32767};
const std::vector<LONG> kLongs = {2, -1, 0, 3, 100000, -2147483647};
const std::vector<std::wstring> kTexts = {
    L"1.5, 2.25, 3", L"0.1,0.2,0.3", L"1e38, 1e38, 1e38", L"4e-45, 1e-40", L"2.5,3.5,-0.5", L"1,abc", L"",
    L"1e400",        L"-1.5, -2.5,7"};

// Arguments for one parameter: all values for the first parameter, a few
// for the others (keeps the product small).
std::vector<Arg> values_for(VARTYPE type, bool first, std::vector<Bstr>& texts) {
  std::vector<Arg> out;
  auto take = [&](auto& list, auto set) {
    const std::size_t n = first ? list.size() : std::min<std::size_t>(3, list.size());
    for (std::size_t i = 0; i < n; ++i) {
      Arg a;
      std::memset(&a, 0, sizeof a);
      set(a, list[first ? i : (i * 5) % list.size()]);
      out.push_back(a);
    }
  };
  switch (type) {
    case VT_R4: take(kSingles, [](Arg& a, float v) { a.r4 = v; }); break;
    case VT_R8: take(kDoubles, [](Arg& a, double v) { a.r8 = v; }); break;
    case VT_I2: take(kIntegers, [](Arg& a, SHORT v) { a.i2 = v; }); break;
    case VT_I4: take(kLongs, [](Arg& a, LONG v) { a.i4 = v; }); break;
    case VT_BOOL: take(kIntegers, [](Arg& a, SHORT v) { a.b = v ? VARIANT_TRUE : VARIANT_FALSE; }); break;
    case VT_BSTR:
      take(kTexts, [&](Arg& a, const std::wstring& v) {
        texts.emplace_back(std::wstring_view(v));
        a.bstr = texts.back().get();
      });
      break;
    default: break;
  }
  return out;
}

VARIANT as_variant(VARTYPE type, const Arg& a) {
  VARIANT v;
  std::memset(&v, 0, sizeof v);
  v.vt = type;
  switch (type) {
    case VT_R4: v.fltVal = a.r4; break;
    case VT_R8: v.dblVal = a.r8; break;
    case VT_I2: v.iVal = a.i2; break;
    case VT_I4: v.lVal = a.i4; break;
    case VT_BOOL: v.boolVal = a.b; break;
    case VT_BSTR: v.bstrVal = a.bstr; break;
    default: break;
  }
  return v;
}

// ------------------------------------------------------------ outcomes

std::string bits_of(VARTYPE type, const void* value) {
  switch (type) {
    case VT_I2:
    case VT_BOOL: return std::string(static_cast<const char*>(value), 2);
    case VT_I4:
    case VT_R4: return std::string(static_cast<const char*>(value), 4);
    case VT_R8: return std::string(static_cast<const char*>(value), 8);
    case VT_BSTR: {
      BSTR b = *static_cast<const BSTR*>(value);
      return b ? std::string(reinterpret_cast<const char*>(b), SysStringByteLen(b)) : std::string("<null>");
    }
    default: return {};
  }
}

struct Outcome {
  HRESULT hr = S_OK;
  std::string result;
  std::string state;
  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& o, std::ostream* out) {
  *out << "hr 0x" << std::hex << static_cast<unsigned long>(o.hr) << std::dec << " result";
  for (unsigned char c : o.result) *out << ' ' << static_cast<int>(c);
  *out << " state";
  for (unsigned char c : o.state) *out << ' ' << static_cast<int>(c);
}

// The object's properties, read in the default environment.
std::string state_of(IUnknown* object, const valmetra::com::DispatchTable& table) {
  std::string state;
  for (unsigned k = 0; k < table.count; ++k) {
    const Member& m = table.members[k];
    if (m.kind != Kind::Get) continue;
    Arg r;
    std::memset(&r, 0, sizeof r);
    const HRESULT hr = m.invoke(object, nullptr, &r);
    state += std::to_string(hr) + ":" + (SUCCEEDED(hr) ? bits_of(m.result, &r) : std::string()) + ";";
    if (SUCCEEDED(hr) && m.result == VT_BSTR) SysFreeString(r.bstr);
  }
  return state;
}

// ------------------------------------------------------------ the classes

using Setup = std::function<void(IUnknown*)>;

// Calls entry `name` of the object's interface with one argument through
// the vtable, in the default environment.
void call_entry(IUnknown* object, const valmetra::com::DispatchTable& table, const wchar_t* name, Kind kind, Arg arg) {
  for (unsigned k = 0; k < table.count; ++k) {
    const Member& m = table.members[k];
    if (m.kind == kind && std::wstring(m.name) == name) {
      Arg r;
      std::memset(&r, 0, sizeof r);
      const HRESULT hr = m.invoke(object, &arg, &r);
      if (m.result == VT_BSTR && SUCCEEDED(hr)) SysFreeString(r.bstr);
      return;
    }
  }
  ADD_FAILURE() << "no entry " << std::string(name, name + wcslen(name));
}

Arg arg_r4(float v) {
  Arg a;
  std::memset(&a, 0, sizeof a);
  a.r4 = v;
  return a;
}
Arg arg_r8(double v) {
  Arg a;
  std::memset(&a, 0, sizeof a);
  a.r8 = v;
  return a;
}
Arg arg_i2(SHORT v) {
  Arg a;
  std::memset(&a, 0, sizeof a);
  a.i2 = v;
  return a;
}

struct Plan {
  const wchar_t* class_name;
  std::vector<Setup> setups;
  // History types the class uses: drained after every call.
  bool uses_history = false;
};

std::vector<Plan> plans() {
  std::vector<Plan> p;
  // SingleData and DoubleData: a value, limits around it, and the value
  // pushed on the history (so that Pop has one to take).
  auto floating = [](const wchar_t* name, bool single) {
    Plan plan{name, {}, true};
    const auto& table = *kClasses[class_index(name)].table;
    const std::vector<double> starts = {0.0,
                                        0.1,
                                        2.5,
                                        -3.5,
                                        single ? 3e38 : 1.7e308,
                                        single ? 1e-45 : 5e-324,
                                        std::numeric_limits<double>::quiet_NaN(),
                                        -0.0,
                                        std::numeric_limits<double>::infinity(),
                                        1e-30,
                                        7.5};
    for (double s : starts) {
      plan.setups.push_back([&table, s, single](IUnknown* o) {
        auto a = [single](double v) { return single ? arg_r4(static_cast<float>(v)) : arg_r8(v); };
        call_entry(o, table, L"Value", Kind::Put, a(s));
        call_entry(o, table, L"Push", Kind::Method, Arg{});
        if (single) {  // DoubleData has no limits
          call_entry(o, table, L"Limit", Kind::Put, a(10.0));
          call_entry(o, table, L"LowerLimit", Kind::Put, a(-5.0));
          call_entry(o, table, L"UpperLimit", Kind::Put, a(5.5));
        }
      });
    }
    return plan;
  };
  p.push_back(floating(L"SingleData", true));
  p.push_back(floating(L"DoubleData", false));
  // The integral classes reach floating code through Divide and the powers.
  for (const wchar_t* name : {L"IntegerData", L"LongData"}) {
    Plan plan{name, {}, false};
    const auto& table = *kClasses[class_index(name)].table;
    const bool integer = std::wstring(name) == L"IntegerData";
    for (int s : {0, 2, -3, 181, 32767}) {
      plan.setups.push_back([&table, s, integer](IUnknown* o) {
        Arg a;
        std::memset(&a, 0, sizeof a);
        if (integer)
          a.i2 = static_cast<SHORT>(s);
        else
          a.i4 = s;
        call_entry(o, table, L"Value", Kind::Put, a);
      });
    }
    p.push_back(std::move(plan));
  }
  // Percent counters: occurrences and samples.
  for (const wchar_t* name : {L"SinglePercentData", L"DoublePercentData", L"IntegerPercent", L"LongPercentData"}) {
    Plan plan{name, {}, false};
    const auto& table = *kClasses[class_index(name)].table;
    for (auto [occurrences, samples] : {std::pair{0, 0}, {1, 3}, {29, 200}, {5, 0}, {2, 7}}) {
      plan.setups.push_back([&table, occurrences, samples](IUnknown* o) {
        for (int i = 0; i < occurrences; ++i) call_entry(o, table, L"Occured", Kind::Method, Arg{});
        for (int i = 0; i < samples; ++i) call_entry(o, table, L"AnotherSampleOccured", Kind::Method, Arg{});
      });
    }
    p.push_back(std::move(plan));
  }
  // Averages: items from text and single items.
  for (const wchar_t* name : {L"SingleAverage", L"IntegerAverage"}) {
    Plan plan{name, {}, false};
    const auto& table = *kClasses[class_index(name)].table;
    const bool single = std::wstring(name) == L"SingleAverage";
    plan.setups.push_back([](IUnknown*) {});
    for (const std::wstring& text : kTexts) {
      plan.setups.push_back([&table, text](IUnknown* o) {
        Bstr b{std::wstring_view(text)};
        Arg a;
        a.bstr = b.get();
        call_entry(o, table, L"HereIsAStringOfNumbers", Kind::Method, a);
      });
    }
    if (single) {
      for (float item : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::denorm_min(), -0.0f,
                         std::numeric_limits<float>::infinity(), 3e38f})
        plan.setups.push_back([&table, item](IUnknown* o) {
          call_entry(o, table, L"AddAPieceOfData", Kind::Method, arg_r4(1.25f));
          call_entry(o, table, L"AddAPieceOfData", Kind::Method, arg_r4(item));
        });
    } else {
      for (SHORT item : {SHORT{32767}, SHORT{-32768}, SHORT{3}})
        plan.setups.push_back([&table, item](IUnknown* o) {
          call_entry(o, table, L"AddAPieceOfData", Kind::Method, arg_i2(item));
          call_entry(o, table, L"AddAPieceOfData", Kind::Method, arg_i2(item));
        });
    }
    p.push_back(std::move(plan));
  }
  return p;
}

// Empties the apartment's history of Single and Double values.
void drain_history() {
  ComPtr<_SingleData> s = create_as<_SingleData>(L"SingleData");
  ComPtr<_DoubleData> d = create_as<_DoubleData>(L"DoubleData");
  while (s->Drop() == S_OK) {
  }
  while (d->Drop() == S_OK) {
  }
}

ComPtr<IUnknown> create_interface(const wchar_t* class_name) { return create_as<IUnknown>(class_name); }

enum class Path { Vtable, Invoke };

// One call with `args`, the host's environment loaded around it when
// `host` is given; `after` receives the environment the call left.
HRESULT make_call(IUnknown* object, const Member& m, Arg* args, Path path, const HostEnvironment* host, FpState& before,
                  FpState& after, std::string& result) {
  HRESULT hr;
  if (path == Path::Vtable) {
    Arg r;
    std::memset(&r, 0, sizeof r);
    if (host) load_state(host->mxcsr, host->control);
    before = read_state();
    hr = m.invoke(object, args, &r);
    after = read_state();
    load_state(kDefaultMxcsr, kDefaultControl);
    if (SUCCEEDED(hr) && m.result != VT_EMPTY) {
      result = bits_of(m.result, &r);
      if (m.result == VT_BSTR) SysFreeString(r.bstr);
    }
  } else {
    auto* dispatch = static_cast<IDispatch*>(static_cast<void*>(object));  // a dual interface
    std::vector<VARIANT> rgvarg(m.param_count);
    for (unsigned i = 0; i < m.param_count; ++i) rgvarg[m.param_count - 1 - i] = as_variant(m.params[i].type, args[i]);
    DISPID put_id = DISPID_PROPERTYPUT;
    DISPPARAMS params{rgvarg.empty() ? nullptr : rgvarg.data(), m.kind == Kind::Put ? &put_id : nullptr, m.param_count,
                      m.kind == Kind::Put ? 1u : 0u};
    const WORD flags = m.kind == Kind::Method ? DISPATCH_METHOD
                       : m.kind == Kind::Get  ? DISPATCH_PROPERTYGET
                                              : DISPATCH_PROPERTYPUT;
    VARIANT r;
    VariantInit(&r);
    EXCEPINFO exception{};
    if (host) load_state(host->mxcsr, host->control);
    before = read_state();
    hr = dispatch->Invoke(m.dispid, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, &r, &exception, nullptr);
    after = read_state();
    load_state(kDefaultMxcsr, kDefaultControl);
    if (hr == DISP_E_EXCEPTION) hr = exception.scode;  // compared with the vtable's HRESULT
    if (SUCCEEDED(hr) && r.vt != VT_EMPTY) {
      result = bits_of(r.vt, &r.iVal);
      if (r.vt == VT_BSTR) result = bits_of(VT_BSTR, &r.bstrVal);
    }
    VariantClear(&r);
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
  }
  return hr;
}

Outcome run_case(const wchar_t* class_name, const Setup& setup, const Member& m, Arg* args, Path path,
                 const HostEnvironment* host, FpState& before, FpState& after) {
  const auto& table = *kClasses[class_index(class_name)].table;
  ComPtr<IUnknown> object = create_interface(class_name);
  setup(object.get());
  Outcome o;
  o.hr = make_call(object.get(), m, args, path, host, before, after, o.result);
  o.state = state_of(object.get(), table);
  return o;
}

std::string hex(std::uint32_t v) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "0x%04lX", static_cast<unsigned long>(v));
  return buffer;
}

TEST(FloatingEnvironment, HostWithUnmaskedExceptionsAndOtherRounding) {
  Apartment apartment;
  ASSERT_EQ(apartment.result(), S_OK);
  load_state(kDefaultMxcsr, kDefaultControl);

  // The first host sets its environment the way a program does, through
  // the C runtime, and must get exactly what the table says.
  {
    unsigned int control = 0;
    ASSERT_EQ(_controlfp_s(&control, _RC_UP, _MCW_RC), 0);
    ASSERT_EQ(_controlfp_s(&control, 0, _MCW_EM), 0);
    const FpState set = read_state();
    load_state(kDefaultMxcsr, kDefaultControl);
    EXPECT_EQ(hex(set.mxcsr), hex(kHosts[0].mxcsr));
    if (set.control != kHosts[0].control)
      std::printf("[ fp env   ] the C runtime left the x87 control word at %s; the test loads %s\n",
                  hex(set.control).c_str(), hex(kHosts[0].control).c_str());
  }

  PVOID handler = AddVectoredExceptionHandler(1, on_exception);
  ASSERT_TRUE(handler);
  std::size_t calls = 0;
  int mismatches = 0;
  for (const Plan& plan : plans()) {
    const auto& table = *kClasses[class_index(plan.class_name)].table;
    const std::string class_text(plan.class_name, plan.class_name + wcslen(plan.class_name));
    for (unsigned k = 0; k < table.count; ++k) {
      const Member& m = table.members[k];
      // Every combination of the parameters' values.
      std::vector<Bstr> texts;
      std::vector<std::vector<Arg>> choices;
      for (unsigned i = 0; i < m.param_count; ++i) choices.push_back(values_for(m.params[i].type, i == 0, texts));
      std::vector<std::vector<Arg>> combos(1);
      for (const auto& c : choices) {
        std::vector<std::vector<Arg>> next;
        for (const auto& prefix : combos)
          for (const Arg& a : c) {
            next.push_back(prefix);
            next.back().push_back(a);
          }
        combos = std::move(next);
      }
      for (std::size_t si = 0; si < plan.setups.size(); ++si) {
        for (auto& combo : combos) {
          combo.resize(std::max<std::size_t>(combo.size(), 1));
          FpState before{}, after{};
          std::vector<Arg> args = combo;
          const Outcome expected =
              run_case(plan.class_name, plan.setups[si], m, args.data(), Path::Vtable, nullptr, before, after);
          if (plan.uses_history) drain_history();
          for (const HostEnvironment& host : kHosts) {
            for (Path path : {Path::Vtable, Path::Invoke}) {
              args = combo;
              const int traps_before = g_traps;
              const Outcome actual =
                  run_case(plan.class_name, plan.setups[si], m, args.data(), path, &host, before, after);
              if (plan.uses_history) drain_history();
              ++calls;
              const bool same_env = after.mxcsr == before.mxcsr && after.control == before.control &&
                                    (after.status & kKeptStatus) == (before.status & kKeptStatus);
              const bool ok = g_traps == traps_before && same_env && before.mxcsr == host.mxcsr &&
                              before.control == host.control && actual == expected;
              if (!ok && ++mismatches <= 40) {
                ADD_FAILURE() << class_text << "." << std::string(m.name, m.name + wcslen(m.name))
                              << (m.kind == Kind::Put ? " (put)" : "") << " setup " << si << " through "
                              << (path == Path::Vtable ? "the vtable" : "Invoke") << ", host " << host.name
                              << ":\n  traps " << g_traps - traps_before << " (last code "
                              << hex(static_cast<std::uint32_t>(g_trap_code)) << ")"
                              << "\n  MXCSR " << hex(before.mxcsr) << " -> " << hex(after.mxcsr) << ", x87 control "
                              << hex(before.control) << " -> " << hex(after.control) << ", x87 status "
                              << hex(before.status) << " -> " << hex(after.status) << "\n  expected "
                              << ::testing::PrintToString(expected) << "\n  actual   "
                              << ::testing::PrintToString(actual);
              }
            }
          }
        }
      }
    }
  }
  RemoveVectoredExceptionHandler(handler);
  EXPECT_EQ(mismatches, 0);
  EXPECT_EQ(g_traps, 0);
  std::printf("[ fp env   ] %zu calls in %zu host environments, %d traps, %d differences\n", calls, std::size(kHosts),
              g_traps.load(), mismatches);
}

}  // namespace
}  // namespace vt
