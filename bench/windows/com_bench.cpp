// Benchmark of Valmetra-445.Dll against the platform's own mechanisms, in
// one process (run under Wine by bench/run.sh, or on Windows by hand):
//
//   valmetra_com_bench.exe <path of Valmetra-445.Dll> [--smoke] [--reps N] [--batch-ms X]
//
// The DLL is loaded from its path and its factories come from its own
// DllGetClassObject, so nothing needs registering; the type library is read
// from the DLL's resource (LoadTypeLibEx, REGKIND_NONE).
//
// Every ratio pits two sides against each other with the same object, the
// same argument shapes and the same result handling (see bench/harness.h
// for how the times and ratios are taken):
//   invoke_*_vs_vtable       our IDispatch::Invoke of IntegerData.Add with
//                            a VT_I2 / a VT_BYREF|VT_VARIANT argument, vs
//                            the interface call Add(&v) on the same object
//   stddispatch_*_vs_invoke  CreateStdDispatch over the same object and the
//                            DLL's own type library (ITypeInfo::Invoke
//                            underneath), vs our Invoke, same calls; by
//                            reference: VT_BYREF|VT_VARIANT where the
//                            platform takes it for the short* parameter,
//                            else VT_BYREF|VT_I2 on both sides
//   getids_*                 ITypeInfo::GetIDsOfNames vs our GetIDsOfNames,
//                            every name of the interface in turn
//   varr4fromstr_vs_core     VarR4FromStr vs the core's text_to_number
//                            rounded to a Single (same texts, a float out)
//   varbstrfromr4_vs_core    VarBstrFromR4 vs the core's number text (same
//                            values, a text out, freed); *_bstr: the core's
//                            text also made into a BSTR, as a COM caller
//                            receives it
//   varformat_vs_core        VarFormat "##%" of a VT_R4 vs the core's
//                            percent display; *_bstr as above
//   average_scaling          SingleAverage through the DLL: round trip at
//                            32,767 items vs at 1,024, on one object kept
//                            between trips; *_new_object: a new object for
//                            every trip
//   createinstance_vs_new    IClassFactory::CreateInstance of IntegerData
//                            vs `new` of the same COM class (compiled into
//                            this program), both released again
//   text_get_vs_sysalloc     a TextConstants get vs SysAllocStringLen of
//                            the same text, both freed
// Every call's status is checked (a failure stops the program), and the
// results of both sides are compared once before timing.
#include <windows.h>
#include <ole2.h>
#include <oleauto.h>

#include <initializer_list>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "bench/harness.h"
#include "bench/windows/wrapped_object.h"
#include "bench/workload.h"
#include "frame/arith.h"
#include "stats/number_text.h"
#include "valmetra.h"

namespace {

using namespace valmetra;
using namespace valmetra::bench;

using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

constexpr LCID kLcid = 0x409;

void check_hr(HRESULT hr, const char* what) { check(SUCCEEDED(hr), what, static_cast<long>(hr)); }

BSTR bstr_of(std::u16string_view text) {
  BSTR b = SysAllocStringLen(reinterpret_cast<const OLECHAR*>(text.data()), static_cast<UINT>(text.size()));
  check(b != nullptr, "SysAllocStringLen");
  return b;
}

// BSTR of the core's text, as the COM layer hands text to a caller.
BSTR bstr_of(const std::u16string& text) { return bstr_of(std::u16string_view(text)); }

std::u16string text_of(BSTR b) { return std::u16string(reinterpret_cast<const char16_t*>(b), SysStringLen(b)); }

std::string narrow(std::u16string_view s) {
  std::string out;
  for (char16_t c : s) out += c < 0x80 ? static_cast<char>(c) : '?';
  return out;
}

template <class T>
T* create(IClassFactory* factory, const char* what) {
  T* object = nullptr;
  check_hr(factory->CreateInstance(nullptr, __uuidof(T), reinterpret_cast<void**>(&object)), what);
  return object;
}

IClassFactory* factory_of(GetClassObject get, REFCLSID clsid, const char* what) {
  IClassFactory* factory = nullptr;
  check_hr(get(clsid, IID_IClassFactory, reinterpret_cast<void**>(&factory)), what);
  return factory;
}

// The interface (vtable) description of a dual interface, as
// CreateStdDispatch and ITypeInfo::Invoke need it.
ITypeInfo* interface_type_info(ITypeLib* library, REFIID iid) {
  ITypeInfo* info = nullptr;
  check_hr(library->GetTypeInfoOfGuid(iid, &info), "GetTypeInfoOfGuid");
  TYPEATTR* attr = nullptr;
  check_hr(info->GetTypeAttr(&attr), "GetTypeAttr");
  const TYPEKIND kind = attr->typekind;
  info->ReleaseTypeAttr(attr);
  if (kind == TKIND_DISPATCH) {
    HREFTYPE ref = 0;
    check_hr(info->GetRefTypeOfImplType(static_cast<UINT>(-1), &ref), "GetRefTypeOfImplType(-1)");
    ITypeInfo* vtable = nullptr;
    check_hr(info->GetRefTypeInfo(ref, &vtable), "GetRefTypeInfo");
    info->Release();
    info = vtable;
  }
  return info;
}

// Every distinct member name of the interface, and its number of entries.
struct Names {
  std::vector<BSTR> names;
  unsigned entries = 0;
};

Names member_names(ITypeInfo* info) {
  Names out;
  TYPEATTR* attr = nullptr;
  check_hr(info->GetTypeAttr(&attr), "GetTypeAttr");
  out.entries = attr->cFuncs;
  info->ReleaseTypeAttr(attr);
  for (unsigned i = 0; i < out.entries; ++i) {
    FUNCDESC* desc = nullptr;
    check_hr(info->GetFuncDesc(i, &desc), "GetFuncDesc");
    BSTR name = nullptr;
    UINT got = 0;
    check_hr(info->GetNames(desc->memid, &name, 1, &got), "GetNames");
    info->ReleaseFuncDesc(desc);
    bool seen = false;
    for (BSTR n : out.names) seen = seen || std::wcscmp(n, name) == 0;
    if (seen)
      SysFreeString(name);
    else
      out.names.push_back(name);
  }
  return out;
}

void compare_get_ids(Runner& run, const char* id, const char* what, ITypeInfo* info, IDispatch* ours) {
  const Names names = member_names(info);
  for (BSTR name : names.names) {
    DISPID platform = 0, own = 0;
    LPOLESTR n = name;
    check_hr(info->GetIDsOfNames(&n, 1, &platform), "ITypeInfo::GetIDsOfNames");
    check_hr(ours->GetIDsOfNames(IID_NULL, &n, 1, kLcid, &own), "our GetIDsOfNames");
    check(platform == own, "GetIDsOfNames differ", platform);
  }
  run.note(id, std::to_string(names.entries) + " entries, " + std::to_string(names.names.size()) +
                   " distinct names, each looked up in turn");
  std::size_t k = 0;
  const std::size_t count = names.names.size();
  ITypeInfo* platform_info = opaque(info);
  IDispatch* own = opaque(ours);
  run.ratio(
      id, what,
      [&] {
        LPOLESTR n = names.names[k++ % count];
        DISPID d;
        const HRESULT hr = platform_info->GetIDsOfNames(&n, 1, &d);
        if (FAILED(hr)) fail("ITypeInfo::GetIDsOfNames", hr);
        consume(d);
      },
      [&] {
        LPOLESTR n = names.names[k++ % count];
        DISPID d;
        const HRESULT hr = own->GetIDsOfNames(IID_NULL, &n, 1, kLcid, &d);
        if (FAILED(hr)) fail("our GetIDsOfNames", hr);
        consume(d);
      });
  for (BSTR n : names.names) SysFreeString(n);
}

// How an argument reaches Invoke.
enum class Shape {
  Value,       // VT_I2 by value
  RefVariant,  // VT_BYREF|VT_VARIANT holding a VT_I2: what script hosts pass for a variable
  RefI2,       // VT_BYREF|VT_I2
};

// IntegerData.Add through IDispatch::Invoke, +1 and -1 in turn so that the
// value never leaves its range. The arguments are prepared once.
class AddCall {
 public:
  AddCall(IDispatch* target, DISPID add, Shape shape) : target_(target), add_(add) {
    for (int i = 0; i < 2; ++i) {
      steps_[i] = static_cast<SHORT>(i == 0 ? 1 : -1);
      VariantInit(&inner_[i]);
      inner_[i].vt = VT_I2;
      inner_[i].iVal = steps_[i];
      VariantInit(&arg_[i]);
      switch (shape) {
        case Shape::Value: arg_[i] = inner_[i]; break;
        case Shape::RefVariant:
          arg_[i].vt = VT_BYREF | VT_VARIANT;
          arg_[i].pvarVal = &inner_[i];
          break;
        case Shape::RefI2:
          arg_[i].vt = VT_BYREF | VT_I2;
          arg_[i].piVal = &steps_[i];
          break;
      }
      params_[i] = DISPPARAMS{&arg_[i], nullptr, 1, 0};
    }
    VariantInit(&result_);
  }

  HRESULT call() {
    EXCEPINFO exception;
    UINT arg_error = 0;
    const HRESULT hr =
        target_->Invoke(add_, IID_NULL, kLcid, DISPATCH_METHOD, &params_[k_], &result_, &exception, &arg_error);
    k_ ^= 1;
    return hr;
  }

  void operator()() {
    const HRESULT hr = call();
    if (FAILED(hr)) fail("Invoke of Add", hr);
  }

  // The arguments are as they were (nothing was written into them).
  bool intact() const {
    return inner_[0].vt == VT_I2 && inner_[0].iVal == 1 && inner_[1].vt == VT_I2 && inner_[1].iVal == -1 &&
           steps_[0] == 1 && steps_[1] == -1 && result_.vt == VT_EMPTY;
  }

 private:
  IDispatch* target_;
  DISPID add_;
  SHORT steps_[2];
  VARIANT inner_[2];
  VARIANT arg_[2];
  DISPPARAMS params_[2];
  VARIANT result_;
  unsigned k_ = 0;
};

SHORT value_of(_IntegerData* data) {
  SHORT v = 0;
  check_hr(data->get_Value(&v), "get_Value");
  return v;
}

void integer_data_benchmarks(Runner& run, GetClassObject get, ITypeLib* library) {
  IClassFactory* factory = factory_of(get, __uuidof(IntegerData), "IntegerData factory");
  _IntegerData* data = create<_IntegerData>(factory, "IntegerData CreateInstance");
  IDispatch* dispatch = data;

  // Our Invoke vs the interface call.
  DISPID add = 0;
  LPOLESTR add_name = const_cast<LPOLESTR>(L"Add");
  check_hr(dispatch->GetIDsOfNames(IID_NULL, &add_name, 1, kLcid, &add), "GetIDsOfNames(Add)");
  SHORT steps[2] = {1, -1};
  unsigned k = 0;
  _IntegerData* vtable = opaque(data);
  auto vtable_add = [&] {
    const HRESULT hr = vtable->Add(&steps[k]);
    if (FAILED(hr)) fail("Add", hr);
    k ^= 1;
  };
  vtable_add();
  check(value_of(data) == 1, "Add through the interface");
  vtable_add();

  AddCall by_value(opaque(dispatch), add, Shape::Value);
  AddCall by_ref(opaque(dispatch), add, Shape::RefVariant);
  by_value();
  check(value_of(data) == 1, "Add through Invoke");
  by_value();
  by_ref();
  check(value_of(data) == 1, "Add through Invoke, by reference");
  by_ref();
  run.ratio("invoke_i2_vs_vtable", "our Invoke / interface call, IntegerData Add, VT_I2 by value", by_value,
            vtable_add);
  run.ratio("invoke_byref_vs_vtable", "our Invoke / interface call, IntegerData Add, VT_BYREF|VT_VARIANT",
            by_ref, vtable_add);
  check(by_value.intact() && by_ref.intact(), "Invoke changed its arguments");

  // The platform's standard dispatch over our type library, same object.
  ITypeInfo* info = interface_type_info(library, __uuidof(_IntegerData));
  IUnknown* std_unknown = nullptr;
  check_hr(CreateStdDispatch(nullptr, data, info, &std_unknown), "CreateStdDispatch");
  IDispatch* standard = nullptr;
  check_hr(std_unknown->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&standard)), "QI std dispatch");
  DISPID std_add = 0;
  check_hr(standard->GetIDsOfNames(IID_NULL, &add_name, 1, kLcid, &std_add), "std GetIDsOfNames(Add)");
  check(std_add == add, "standard dispatch finds another Add", std_add);
  AddCall std_by_value(opaque(standard), add, Shape::Value);
  const SHORT before = value_of(data);
  std_by_value();
  check(value_of(data) == before + 1, "Add through the standard dispatch");
  std_by_value();
  run.ratio("stddispatch_i2_vs_invoke", "standard dispatch / our Invoke, IntegerData Add, VT_I2 by value",
            std_by_value, by_value);
  // By reference: the VARIANT form where the platform takes it for a short*
  // parameter; some ITypeInfo::Invoke implementations refuse it with
  // DISP_E_TYPEMISMATCH, and then both sides pass VT_BYREF|VT_I2 instead.
  AddCall std_by_ref(opaque(standard), add, Shape::RefVariant);
  const HRESULT variant_hr = std_by_ref.call();
  if (SUCCEEDED(variant_hr)) {
    check_hr(std_by_ref.call(), "standard dispatch, VT_BYREF|VT_VARIANT");
    run.ratio("stddispatch_byref_vs_invoke",
              "standard dispatch / our Invoke, IntegerData Add, VT_BYREF|VT_VARIANT", std_by_ref, by_ref);
  } else {
    check(variant_hr == DISP_E_TYPEMISMATCH, "standard dispatch, VT_BYREF|VT_VARIANT", variant_hr);
    run.note("stddispatch_byref_vs_invoke",
             "the platform's ITypeInfo::Invoke refuses VT_BYREF|VT_VARIANT for the short* parameter "
             "(DISP_E_TYPEMISMATCH), so both sides pass VT_BYREF|VT_I2");
    AddCall std_by_i2ref(opaque(standard), add, Shape::RefI2);
    AddCall by_i2ref(opaque(dispatch), add, Shape::RefI2);
    std_by_i2ref();
    std_by_i2ref();
    by_i2ref();
    by_i2ref();
    run.ratio("stddispatch_byref_vs_invoke", "standard dispatch / our Invoke, IntegerData Add, VT_BYREF|VT_I2",
              std_by_i2ref, by_i2ref);
    check(std_by_i2ref.intact() && by_i2ref.intact(), "Invoke changed its arguments");
  }
  check(std_by_value.intact() && std_by_ref.intact(), "standard dispatch changed its arguments");
  const SHORT after = value_of(data);
  // Each alternating caller leaves at most +1 behind.
  check(after >= 0 && after <= 8, "IntegerData value after the calls", after);

  // Names.
  compare_get_ids(run, "getids_integerdata", "ITypeInfo::GetIDsOfNames / ours, IntegerData", info, dispatch);

  // Creation: the factory vs `new` of the same class.
  _IntegerData* wrapped = new_integer_data_object();
  check(wrapped != nullptr, "new IntegerDataObject");
  SHORT three = 3;
  check_hr(wrapped->Add(&three), "Add on the new object");
  check(value_of(wrapped) == 3, "the new object is an IntegerData");
  wrapped->Release();
  IClassFactory* f = opaque(factory);
  run.ratio(
      "createinstance_vs_new", "IClassFactory::CreateInstance / new, IntegerData (released again)",
      [&] {
        _IntegerData* p = nullptr;
        const HRESULT hr = f->CreateInstance(nullptr, __uuidof(_IntegerData), reinterpret_cast<void**>(&p));
        if (FAILED(hr)) fail("CreateInstance", hr);
        p->Release();
      },
      [&] {
        _IntegerData* p = new_integer_data_object();
        if (!p) fail("new IntegerDataObject");
        p->Release();
      });

  standard->Release();
  std_unknown->Release();
  info->Release();
  data->Release();
  factory->Release();
}

void text_constants_benchmarks(Runner& run, GetClassObject get, ITypeLib* library) {
  IClassFactory* factory = factory_of(get, __uuidof(TextConstants), "TextConstants factory");
  _TextConstants* texts = create<_TextConstants>(factory, "TextConstants CreateInstance");
  ITypeInfo* info = interface_type_info(library, __uuidof(_TextConstants));
  compare_get_ids(run, "getids_textconstants", "ITypeInfo::GetIDsOfNames / ours, TextConstants", info, texts);

  BSTR sample = nullptr;
  check_hr(texts->get_cstAreYouSureYouWantToQuit(&sample), "get_cstAreYouSureYouWantToQuit");
  const std::u16string text = text_of(sample);
  SysFreeString(sample);
  check(text == u"Are you sure you want to Quit?", "cstAreYouSureYouWantToQuit text");
  run.note("text_get_vs_sysalloc", "cstAreYouSureYouWantToQuit, " + std::to_string(text.size()) + " characters");
  _TextConstants* t = opaque(texts);
  const OLECHAR* chars = opaque(reinterpret_cast<const OLECHAR*>(text.data()));
  const UINT length = static_cast<UINT>(text.size());
  run.ratio(
      "text_get_vs_sysalloc", "TextConstants get / SysAllocStringLen of the same text (freed)",
      [&] {
        BSTR b = nullptr;
        const HRESULT hr = t->get_cstAreYouSureYouWantToQuit(&b);
        if (FAILED(hr)) fail("get_cstAreYouSureYouWantToQuit", hr);
        consume(b);
        SysFreeString(b);
      },
      [&] {
        BSTR b = SysAllocStringLen(chars, length);
        if (!b) fail("SysAllocStringLen");
        consume(b);
        SysFreeString(b);
      });
  info->Release();
  texts->Release();
  factory->Release();
}

void conversion_benchmarks(Runner& run) {
  // Text to number: the same NUL-terminated texts, a Single out.
  std::vector<std::wstring> texts;
  for (const char16_t* t : kNumberTexts) texts.emplace_back(reinterpret_cast<const wchar_t*>(t));
  for (std::size_t i = 0; i < kNumberTextCount; ++i) {
    float platform = 0;
    check_hr(VarR4FromStr(const_cast<OLECHAR*>(texts[i].c_str()), kLcid, 0, &platform), "VarR4FromStr");
    const float own = to_single(text_to_number(kNumberTexts[i]));
    check(platform == own, "VarR4FromStr and text_to_number differ", static_cast<long>(i));
  }
  std::size_t k = 0;
  run.ratio(
      "varr4fromstr_vs_core", "VarR4FromStr / text_to_number + to_single",
      [&] {
        OLECHAR* text = opaque(const_cast<OLECHAR*>(texts[k++ % kNumberTextCount].c_str()));
        float f;
        const HRESULT hr = VarR4FromStr(text, kLcid, 0, &f);
        if (FAILED(hr)) fail("VarR4FromStr", hr);
        consume(f);
      },
      [&] {
        const char16_t* text = opaque(reinterpret_cast<const char16_t*>(texts[k++ % kNumberTextCount].c_str()));
        consume(to_single(text_to_number(std::u16string_view(text))));
      });

  // Number to text: the same Singles, a BSTR out (freed).
  std::string differences;
  for (float v : kTextValues) {
    BSTR platform = nullptr;
    check_hr(VarBstrFromR4(v, kLcid, 0, &platform), "VarBstrFromR4");
    const std::u16string own = single_to_text(v);
    if (text_of(platform) != own)
      differences += " " + narrow(text_of(platform)) + " (ours " + narrow(own) + ")";
    SysFreeString(platform);
  }
  if (!differences.empty()) run.note("varbstrfromr4_vs_core", "texts that differ:" + differences);
  auto platform_text = [&] {
    BSTR b = nullptr;
    const HRESULT hr = VarBstrFromR4(opaque(&kTextValues[k++ % kTextValueCount])[0], kLcid, 0, &b);
    if (FAILED(hr)) fail("VarBstrFromR4", hr);
    consume(b);
    SysFreeString(b);
  };
  run.ratio("varbstrfromr4_vs_core", "VarBstrFromR4 / single_to_text", platform_text, [&] {
    const std::u16string text = single_to_text(opaque(&kTextValues[k++ % kTextValueCount])[0]);
    consume(text.data());
  });
  run.ratio("varbstrfromr4_vs_core_bstr", "VarBstrFromR4 / single_to_text made into a BSTR", platform_text, [&] {
    BSTR b = bstr_of(single_to_text(opaque(&kTextValues[k++ % kTextValueCount])[0]));
    consume(b);
    SysFreeString(b);
  });

  // "##%": the same ratios, a BSTR out (freed).
  static wchar_t pattern[] = L"##%";
  differences.clear();
  for (float r : kRatios) {
    VARIANT in;
    VariantInit(&in);
    in.vt = VT_R4;
    in.fltVal = r;
    BSTR platform = nullptr;
    check_hr(VarFormat(&in, pattern, 0, 0, 0, &platform), "VarFormat");
    const std::u16string own = percent_display_text(r);
    if (text_of(platform) != own)
      differences += " " + narrow(text_of(platform)) + " (ours " + narrow(own) + ")";
    SysFreeString(platform);
  }
  if (!differences.empty()) run.note("varformat_vs_core", "texts that differ:" + differences);
  auto platform_format = [&] {
    VARIANT in;
    in.vt = VT_R4;
    in.fltVal = opaque(&kRatios[k++ % kRatioCount])[0];
    BSTR b = nullptr;
    const HRESULT hr = VarFormat(&in, opaque(pattern), 0, 0, 0, &b);
    if (FAILED(hr)) fail("VarFormat", hr);
    consume(b);
    SysFreeString(b);
  };
  run.ratio("varformat_vs_core", "VarFormat ##% / percent_display_text", platform_format, [&] {
    const std::u16string text = percent_display_text(opaque(&kRatios[k++ % kRatioCount])[0]);
    consume(text.data());
  });
  run.ratio("varformat_vs_core_bstr", "VarFormat ##% / percent_display_text made into a BSTR", platform_format, [&] {
    BSTR b = bstr_of(percent_display_text(opaque(&kRatios[k++ % kRatioCount])[0]));
    consume(b);
    SysFreeString(b);
  });
}

// The sample-average round trip through the DLL: HereIsAStringOfNumbers
// with the first string, IncludeThisStringOfNumbers with the others,
// GiveMeYourNumbers, DataAverage; on one object kept from trip to trip (as
// a host calling the global instance does), or on a new object each time.
struct RoundTrip {
  IClassFactory* factory;
  _SingleAverage* kept;  // nullptr: a new object per trip
  std::vector<BSTR> strings;

  std::pair<std::size_t, float> operator()() {
    _SingleAverage* a = kept;
    if (!a) {
      const HRESULT hr = factory->CreateInstance(nullptr, __uuidof(_SingleAverage), reinterpret_cast<void**>(&a));
      if (FAILED(hr)) fail("SingleAverage CreateInstance", hr);
    }
    HRESULT hr = a->HereIsAStringOfNumbers(&strings[0]);
    for (std::size_t i = 1; SUCCEEDED(hr) && i < strings.size(); ++i) hr = a->IncludeThisStringOfNumbers(&strings[i]);
    if (FAILED(hr)) fail("HereIsAStringOfNumbers / IncludeThisStringOfNumbers", hr);
    BSTR listing = nullptr;
    hr = a->get_GiveMeYourNumbers(&listing);
    if (FAILED(hr)) fail("GiveMeYourNumbers", hr);
    const std::size_t length = SysStringLen(listing);
    SysFreeString(listing);
    float mean = 0;
    hr = a->get_DataAverage(&mean);
    if (FAILED(hr)) fail("DataAverage", hr);
    if (!kept) a->Release();
    return {length, mean};
  }
};

RoundTrip make_round_trip(IClassFactory* factory, _SingleAverage* kept, int count) {
  RoundTrip r{factory, kept, {}};
  for (const std::u16string& s : average_strings(count)) r.strings.push_back(bstr_of(s));
  const auto [length, mean] = r();
  check(length == average_listing_length(count), "GiveMeYourNumbers length", static_cast<long>(length));
  check(mean == average_mean(count), "DataAverage");
  return r;
}

void average_benchmarks(Runner& run, GetClassObject get) {
  IClassFactory* factory = factory_of(get, __uuidof(SingleAverage), "SingleAverage factory");
  _SingleAverage* large_object = create<_SingleAverage>(factory, "SingleAverage CreateInstance");
  _SingleAverage* small_object = create<_SingleAverage>(factory, "SingleAverage CreateInstance");
  RoundTrip large = make_round_trip(opaque(factory), large_object, 32767);
  RoundTrip small = make_round_trip(opaque(factory), small_object, 1024);
  run.ratio("average_scaling", "SingleAverage round trip through the DLL on one object, 32,767 items / 1,024 items",
            [&] { consume(large()); }, [&] { consume(small()); });
  RoundTrip large_new = make_round_trip(opaque(factory), nullptr, 32767);
  RoundTrip small_new = make_round_trip(opaque(factory), nullptr, 1024);
  run.ratio("average_scaling_new_object",
            "SingleAverage round trip through the DLL on a new object each time, 32,767 / 1,024",
            [&] { consume(large_new()); }, [&] { consume(small_new()); });
  for (RoundTrip* r : {&large, &small, &large_new, &small_new})
    for (BSTR b : r->strings) SysFreeString(b);
  large_object->Release();
  small_object->Release();
  factory->Release();
}

std::string platform_name() {
  const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  const bool wine = ntdll && GetProcAddress(ntdll, "wine_get_version");
#ifdef _WIN64
  return wine ? "wine-x64" : "windows-x64";
#else
  return wine ? "wine-x86" : "windows-x86";
#endif
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: valmetra_com_bench <path of Valmetra-445.Dll> [--smoke] [--reps N] [--batch-ms X]\n");
    return 2;
  }
  std::vector<std::string> args;
  for (int i = 0; i < argc; ++i) args.push_back(narrow(reinterpret_cast<const char16_t*>(argv[i])));
  std::vector<char*> arg_pointers;
  for (std::string& a : args) arg_pointers.push_back(a.data());
  Runner run(parse_config(static_cast<int>(arg_pointers.size()) - 1, arg_pointers.data() + 1), platform_name());

  check_hr(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), "CoInitializeEx");
  const wchar_t* dll_path = argv[1];
  const HMODULE dll = LoadLibraryW(dll_path);
  check(dll != nullptr, "LoadLibrary of the DLL", static_cast<long>(GetLastError()));
  const auto get = reinterpret_cast<GetClassObject>(reinterpret_cast<void*>(GetProcAddress(dll, "DllGetClassObject")));
  check(get != nullptr, "DllGetClassObject export");
  ITypeLib* library = nullptr;
  check_hr(LoadTypeLibEx(dll_path, REGKIND_NONE, &library), "LoadTypeLibEx of the DLL");

  integer_data_benchmarks(run, get, library);
  text_constants_benchmarks(run, get, library);
  conversion_benchmarks(run);
  average_benchmarks(run, get);

  library->Release();
  CoUninitialize();
  return 0;
}
