// Late binding: IDispatch by name, as a script host does it; no header of the
// library, only the ProgIDs and member names.
//
//   build:  examples/cpp/build.sh        run: wine late_bound.exe
//   needs:  the library registered, or a manifest beside the program
//
// Shows: CLSIDFromProgID, GetIDsOfNames + Invoke for property get/put and
// methods, the value member (DISPID_VALUE: the object read as a value), an
// error as DISP_E_EXCEPTION with EXCEPINFO, and the member-not-found answer
// for an object without a value member.
#include <windows.h>
#include <oleauto.h>

#include <cstdio>
#include <string>

namespace {

int g_failures = 0;

void expect(bool ok, const char* what) {
  std::printf("%s  %s\n", ok ? "ok  " : "FAIL", what);
  if (!ok) ++g_failures;
}

struct Variant {
  VARIANT v;
  Variant() { VariantInit(&v); }
  explicit Variant(short i) : Variant() {
    v.vt = VT_I2;
    v.iVal = i;
  }
  explicit Variant(const wchar_t* text) : Variant() {
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocString(text);
  }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
  ~Variant() { VariantClear(&v); }
};

// A late-bound object: every call goes by name.
class Object {
 public:
  explicit Object(const wchar_t* progid) {
    CLSID clsid;
    if (SUCCEEDED(CLSIDFromProgID(progid, &clsid))) {
      CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, reinterpret_cast<void**>(&disp_));
    }
  }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  ~Object() {
    if (disp_) disp_->Release();
  }
  explicit operator bool() const { return disp_ != nullptr; }

  // Invokes `name` (nullptr: the value member) with one optional argument.
  HRESULT call(const wchar_t* name, WORD kind, VARIANT* arg, VARIANT* result, std::wstring* error = nullptr) {
    DISPID id = DISPID_VALUE;
    if (name != nullptr) {
      LPOLESTR names[1] = {const_cast<LPOLESTR>(name)};
      const HRESULT hr = disp_->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
      if (FAILED(hr)) return hr;
    }
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS params{arg, kind == DISPATCH_PROPERTYPUT ? &named : nullptr, arg ? 1u : 0u,
                      kind == DISPATCH_PROPERTYPUT ? 1u : 0u};
    EXCEPINFO info{};
    const HRESULT hr = disp_->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, kind, &params, result, &info, nullptr);
    if (hr == DISP_E_EXCEPTION && error) {
      wchar_t line[512];
      std::swprintf(line, 512, L"scode 0x%08lX from %ls: %ls", static_cast<unsigned long>(info.scode),
                    info.bstrSource ? info.bstrSource : L"?", info.bstrDescription ? info.bstrDescription : L"?");
      *error = line;
    }
    SysFreeString(info.bstrSource);
    SysFreeString(info.bstrDescription);
    SysFreeString(info.bstrHelpFile);
    return hr;
  }

 private:
  IDispatch* disp_ = nullptr;
};

void run() {
  Object data(L"KARVO_Valmetra.IntegerData");
  expect(static_cast<bool>(data), "CreateObject(\"KARVO_Valmetra.IntegerData\")");
  if (!data) return;

  Variant start(static_cast<short>(100));
  data.call(L"Value", DISPATCH_PROPERTYPUT, &start.v, nullptr);
  Variant text(L"23");  // text is coerced as a script host would pass it
  HRESULT hr = data.call(L"Add", DISPATCH_METHOD, &text.v, nullptr);
  Variant value;
  data.call(nullptr, DISPATCH_PROPERTYGET, nullptr, &value.v);  // the object as a value: Default
  expect(SUCCEEDED(hr) && value.v.vt == VT_I2 && value.v.iVal == 123, "Value = 100; Add \"23\"; the object reads 123");

  Variant big(static_cast<short>(32767));
  data.call(L"Value", DISPATCH_PROPERTYPUT, &big.v, nullptr);
  Variant one(static_cast<short>(1));
  std::wstring error;
  hr = data.call(L"Add", DISPATCH_METHOD, &one.v, nullptr, &error);
  expect(hr == DISP_E_EXCEPTION, "Add 1 to 32767: DISP_E_EXCEPTION");
  std::printf("      %ls\n", error.c_str());

  Object texts(L"KARVO_Valmetra.TextConstants");
  Variant about;
  hr = texts ? texts.call(L"cstAboutKarvo", DISPATCH_PROPERTYGET, nullptr, &about.v) : E_FAIL;
  expect(SUCCEEDED(hr) && about.v.vt == VT_BSTR, "TextConstants.cstAboutKarvo read by name");
  if (about.v.vt == VT_BSTR) std::printf("      \"%ls\"\n", about.v.bstrVal);

  Object flag(L"KARVO_Valmetra.BooleanData");
  Variant ignored;
  hr = flag ? flag.call(nullptr, DISPATCH_PROPERTYGET, nullptr, &ignored.v) : E_FAIL;
  expect(hr == DISP_E_MEMBERNOTFOUND, "BooleanData has no value member: DISP_E_MEMBERNOTFOUND");
}

}  // namespace

int main() {
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  run();
  CoUninitialize();
  std::printf("late_bound: %s\n", g_failures == 0 ? "ok" : "FAILED");
  return g_failures == 0 ? 0 : 1;
}
