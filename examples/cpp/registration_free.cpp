// Registration-free use from a host that cannot carry a manifest of its own
// (a plug-in inside someone else's process, a tool whose manifest is fixed):
// it activates the library's assembly manifest with the activation-context
// API around its calls. Nothing is registered and nothing is written.
//
//   layout: registration_free.exe, KARVO.Valmetra.manifest, Valmetra-445.Dll
//           and ValueStack.dll in one folder (dist/<arch>/ has the last three)
//   build:  examples/cpp/build.sh        run: wine registration_free.exe
//
// A host that does have its own manifest needs no code at all: it names the
// assembly in a <dependency> (tools/genmanifest.py --app writes one), and
// CoCreateInstance/CreateObject find the classes through it.
#include <windows.h>
#include <oleauto.h>

#include <cstdio>
#include <string>

namespace {

// Activates an activation context for its lifetime.
class ActivationScope {
 public:
  explicit ActivationScope(const std::wstring& manifest) {
    ACTCTXW ctx{};
    ctx.cbSize = sizeof(ctx);
    ctx.lpSource = manifest.c_str();
    context_ = CreateActCtxW(&ctx);
    if (context_ != INVALID_HANDLE_VALUE && !ActivateActCtx(context_, &cookie_)) cookie_ = 0;
  }
  ActivationScope(const ActivationScope&) = delete;
  ActivationScope& operator=(const ActivationScope&) = delete;
  ~ActivationScope() {
    if (cookie_ != 0) DeactivateActCtx(0, cookie_);
    if (context_ != INVALID_HANDLE_VALUE) ReleaseActCtx(context_);
  }
  bool active() const { return cookie_ != 0; }

 private:
  HANDLE context_ = INVALID_HANDLE_VALUE;
  ULONG_PTR cookie_ = 0;
};

std::wstring beside_this_program(const wchar_t* file) {
  wchar_t path[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring dir(path, n);
  return dir.substr(0, dir.find_last_of(L"\\/") + 1) + file;
}

HRESULT create(const wchar_t* progid, IDispatch** out) {
  CLSID clsid;
  const HRESULT hr = CLSIDFromProgID(progid, &clsid);
  return FAILED(hr) ? hr : CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch,
                                            reinterpret_cast<void**>(out));
}

HRESULT call(IDispatch* disp, const wchar_t* name, WORD kind, VARIANT* arg, VARIANT* result) {
  LPOLESTR names[1] = {const_cast<LPOLESTR>(name)};
  DISPID id = 0;
  HRESULT hr = disp->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
  if (FAILED(hr)) return hr;
  DISPPARAMS params{arg, nullptr, arg ? 1u : 0u, 0};
  return disp->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, kind, &params, result, nullptr, nullptr);
}

int run() {
  IDispatch* average = nullptr;
  if (SUCCEEDED(create(L"KARVO_Valmetra.SingleAverage", &average))) {
    average->Release();
    std::printf("the library is registered here: this example shows the unregistered case\n");
  }

  ActivationScope scope(beside_this_program(L"KARVO.Valmetra.manifest"));
  if (!scope.active()) {
    std::printf("cannot activate KARVO.Valmetra.manifest (error %lu)\n", GetLastError());
    return 1;
  }
  // Inside the scope the classes resolve through the manifest.
  HRESULT hr = create(L"KARVO_Valmetra.SingleAverage", &average);
  if (FAILED(hr)) {
    std::printf("SingleAverage not created: 0x%08lX\n", static_cast<unsigned long>(hr));
    return 1;
  }
  VARIANT numbers;
  VariantInit(&numbers);
  numbers.vt = VT_BSTR;
  numbers.bstrVal = SysAllocString(L"2,4,9");
  hr = call(average, L"HereIsAStringOfNumbers", DISPATCH_METHOD, &numbers, nullptr);
  VariantClear(&numbers);
  VARIANT mean;
  VariantInit(&mean);
  if (SUCCEEDED(hr)) hr = call(average, L"Average", DISPATCH_PROPERTYGET, nullptr, &mean);
  average->Release();
  if (FAILED(hr) || VariantChangeType(&mean, &mean, 0, VT_R8) != S_OK) {
    std::printf("SingleAverage calls failed: 0x%08lX\n", static_cast<unsigned long>(hr));
    return 1;
  }
  std::printf("average of 2,4,9 without any registration: %g\n", mean.dblVal);
  return mean.dblVal == 5.0 ? 0 : 1;
}

}  // namespace

int main() {
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  const int rc = run();
  CoUninitialize();
  std::printf("registration_free: %s\n", rc == 0 ? "ok" : "FAILED");
  return rc;
}
