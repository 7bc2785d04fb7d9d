// deploy_client: activates every class of the two components the way a host
// would, through whichever deployment is in place, and calls each by name.
//
//   deploy_client com    <list>             the platform's activation: registry or
//                                           the process's activation context (a
//                                           manifest beside the .exe)
//   deploy_client actctx <manifest> <list>  CreateActCtx/ActivateActCtx on an
//                                           assembly manifest, then as "com"; first
//                                           proves nothing resolves without it
//   deploy_client follow <HKCU|HKLM> <list> reads the registration record itself:
//                                           ProgID -> CLSID -> InprocServer32 -> load
//                                           that DLL -> DllGetClassObject -> create ->
//                                           call; TypeLib -> path -> load
//   deploy_client none   <list>             proves that no class resolves
//
// <list> is written by tests/deploy/classes.py from the catalogue:
//   class <file> <clsid> <progid> <progid.N> <iid> <name> <probe> <get|method> <VT>
//   typelib <file> <libid> <major> <minor> <locale subkey of its record, hex>
// Prints one line per check and ends with "N passed, N failed".
#include <windows.h>
#include <oleauto.h>

#include <cstdio>
#include <cwchar>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

int g_passed = 0;
int g_failed = 0;

void check(bool ok, const std::string& what, HRESULT hr = S_OK) {
  if (ok) {
    ++g_passed;
    std::printf("  ok    %s\n", what.c_str());
  } else {
    ++g_failed;
    std::printf("  FAIL  %s (hr 0x%08lX)\n", what.c_str(), static_cast<unsigned long>(hr));
  }
  std::fflush(stdout);
}

template <class T>
class Ptr {
 public:
  Ptr() = default;
  ~Ptr() { reset(); }
  Ptr(const Ptr&) = delete;
  Ptr& operator=(const Ptr&) = delete;
  T** put() {
    reset();
    return &p_;
  }
  void** put_void() { return reinterpret_cast<void**>(put()); }
  T* operator->() const { return p_; }
  T* get() const { return p_; }
  explicit operator bool() const { return p_ != nullptr; }
  void reset() {
    if (p_ != nullptr) p_->Release();
    p_ = nullptr;
  }

 private:
  T* p_ = nullptr;
};

struct Var {
  VARIANT v;
  Var() { VariantInit(&v); }
  ~Var() { VariantClear(&v); }
  Var(const Var&) = delete;
  Var& operator=(const Var&) = delete;
};

std::wstring widen(const std::string& s) {
  const int n = MultiByteToWideChar(CP_UTF8, 0, s.c_str(), -1, nullptr, 0);
  std::wstring w(static_cast<size_t>(n > 0 ? n - 1 : 0), L'\0');
  if (n > 1) MultiByteToWideChar(CP_UTF8, 0, s.c_str(), -1, w.data(), n);
  return w;
}

std::string narrow(const std::wstring& w) {
  const int n = WideCharToMultiByte(CP_UTF8, 0, w.c_str(), -1, nullptr, 0, nullptr, nullptr);
  std::string s(static_cast<size_t>(n > 0 ? n - 1 : 0), '\0');
  if (n > 1) WideCharToMultiByte(CP_UTF8, 0, w.c_str(), -1, s.data(), n, nullptr, nullptr);
  return s;
}

GUID guid(const std::string& text) {
  GUID g{};
  CLSIDFromString(widen(text).c_str(), &g);
  return g;
}

struct ClassLine {
  std::string file, clsid, progid, progid_versioned, iid, name, probe, kind;
  int vt = VT_EMPTY;
};
struct TypelibLine {
  std::string file, libid, lcid;  // lcid: the locale subkey of the record, hex
  int major = 0, minor = 0;
};

bool read_list(const char* path, std::vector<ClassLine>& classes, std::vector<TypelibLine>& libs) {
  std::ifstream in(path);
  if (!in) return false;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string tag;
    words >> tag;
    if (tag == "class") {
      ClassLine c;
      words >> c.file >> c.clsid >> c.progid >> c.progid_versioned >> c.iid >> c.name >> c.probe >> c.kind >> c.vt;
      classes.push_back(c);
    } else if (tag == "typelib") {
      TypelibLine t;
      words >> t.file >> t.libid >> t.major >> t.minor >> t.lcid;
      libs.push_back(t);
    }
  }
  return !classes.empty();
}

// Calls the class's probe member by name and checks the result's type.
void probe(IDispatch* disp, const ClassLine& c) {
  std::wstring name = widen(c.probe);
  LPOLESTR names[1] = {name.data()};
  DISPID id = 0;
  HRESULT hr = disp->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
  check(SUCCEEDED(hr), c.name + ": GetIDsOfNames(" + c.probe + ")", hr);
  if (FAILED(hr)) return;
  DISPPARAMS none{};
  Var result;
  EXCEPINFO ei{};
  const WORD flags = c.kind == "get" ? DISPATCH_PROPERTYGET : DISPATCH_METHOD;
  hr = disp->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &none, &result.v, &ei, nullptr);
  SysFreeString(ei.bstrSource);
  SysFreeString(ei.bstrDescription);
  SysFreeString(ei.bstrHelpFile);
  check(SUCCEEDED(hr) && result.v.vt == c.vt,
        c.name + ": Invoke " + c.probe + " gives VT " + std::to_string(result.v.vt) + ", catalogue says " +
            std::to_string(c.vt),
        hr);
}

HRESULT call_by_name(IDispatch* disp, const wchar_t* member, WORD flags, VARIANT* args, UINT nargs, VARIANT* result) {
  std::wstring name = member;
  LPOLESTR names[1] = {name.data()};
  DISPID id = 0;
  HRESULT hr = disp->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
  if (FAILED(hr)) return hr;
  DISPID put_id = DISPID_PROPERTYPUT;
  DISPPARAMS params{args, flags == DISPATCH_PROPERTYPUT ? &put_id : nullptr, nargs,
                    flags == DISPATCH_PROPERTYPUT ? 1u : 0u};
  EXCEPINFO ei{};
  hr = disp->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, &ei, nullptr);
  SysFreeString(ei.bstrSource);
  SysFreeString(ei.bstrDescription);
  SysFreeString(ei.bstrHelpFile);
  return hr;
}

// Value history through the component's own activation of ValueStack:
// IntegerData.Push/Pop create the apartment's ValueStack by its CLSID.
void history_round_trip(IDispatch* disp) {
  VARIANT arg;
  VariantInit(&arg);
  arg.vt = VT_I2;
  arg.iVal = 5;
  HRESULT hr = call_by_name(disp, L"Value", DISPATCH_PROPERTYPUT, &arg, 1, nullptr);
  if (SUCCEEDED(hr)) hr = call_by_name(disp, L"Push", DISPATCH_METHOD, nullptr, 0, nullptr);
  arg.iVal = 9;
  if (SUCCEEDED(hr)) hr = call_by_name(disp, L"Value", DISPATCH_PROPERTYPUT, &arg, 1, nullptr);
  if (SUCCEEDED(hr)) hr = call_by_name(disp, L"Pop", DISPATCH_METHOD, nullptr, 0, nullptr);
  Var value;
  if (SUCCEEDED(hr)) hr = call_by_name(disp, L"Value", DISPATCH_PROPERTYGET, nullptr, 0, &value.v);
  check(SUCCEEDED(hr) && value.v.vt == VT_I2 && value.v.iVal == 5,
        "IntegerData: Push 5, set 9, Pop gives 5 (ValueStack created by the component)", hr);
}

void activate_all(const std::vector<ClassLine>& classes, const std::vector<TypelibLine>& libs) {
  for (const auto& c : classes) {
    const GUID clsid = guid(c.clsid);
    for (const auto& progid : {c.progid, c.progid_versioned}) {
      CLSID from_progid{};
      const HRESULT hr = CLSIDFromProgID(widen(progid).c_str(), &from_progid);
      if (SUCCEEDED(hr) && !IsEqualCLSID(from_progid, clsid)) {
        // An activation context may answer with an alias of the class
        // identifier; it must still create this class.
        Ptr<IUnknown> obj, itf;
        HRESULT made = CoCreateInstance(from_progid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, obj.put_void());
        if (SUCCEEDED(made)) made = obj->QueryInterface(guid(c.iid), itf.put_void());
        check(SUCCEEDED(made), c.name + ": ProgID " + progid + " names an alias of its CLSID that creates it", made);
      } else {
        check(SUCCEEDED(hr), c.name + ": ProgID " + progid + " names its CLSID", hr);
      }
    }
    Ptr<IUnknown> unk;
    HRESULT hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, unk.put_void());
    check(SUCCEEDED(hr), c.name + ": created by CLSID", hr);
    if (FAILED(hr)) continue;
    Ptr<IUnknown> itf;
    hr = unk->QueryInterface(guid(c.iid), itf.put_void());
    check(SUCCEEDED(hr), c.name + ": answers " + c.iid, hr);
    Ptr<IDispatch> disp;
    hr = unk->QueryInterface(IID_IDispatch, disp.put_void());
    check(SUCCEEDED(hr), c.name + ": answers IDispatch", hr);
    if (disp) probe(disp.get(), c);

    // By ProgID: a second, separate object.
    CLSID by_progid{};
    Ptr<IDispatch> second;
    hr = CLSIDFromProgID(widen(c.progid).c_str(), &by_progid);
    if (SUCCEEDED(hr)) {
      hr = CoCreateInstance(by_progid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, second.put_void());
    }
    check(SUCCEEDED(hr) && second.get() != disp.get(), c.name + ": created by ProgID " + c.progid, hr);
    if (second) probe(second.get(), c);
    if (c.name == "IntegerData" && disp) history_round_trip(disp.get());
  }
  for (const auto& t : libs) {
    Ptr<ITypeLib> lib;
    const HRESULT hr = LoadRegTypeLib(guid(t.libid), static_cast<WORD>(t.major), static_cast<WORD>(t.minor), 0,
                                      lib.put());
    check(SUCCEEDED(hr), t.file + ": type library " + t.libid + " " + std::to_string(t.major) + "." +
                             std::to_string(t.minor) + " found",
          hr);
  }
}

void nothing_resolves(const std::vector<ClassLine>& classes) {
  for (const auto& c : classes) {
    Ptr<IUnknown> unk;
    HRESULT hr = CoCreateInstance(guid(c.clsid), nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, unk.put_void());
    check(hr == REGDB_E_CLASSNOTREG, c.name + ": CLSID not resolvable", hr);
    CLSID ignored{};
    hr = CLSIDFromProgID(widen(c.progid).c_str(), &ignored);
    check(FAILED(hr), c.name + ": ProgID " + c.progid + " not resolvable", hr);
  }
}

// --- following the registration record --------------------------------------

bool read_default(HKEY root, const std::wstring& path, std::wstring& out, const wchar_t* value = nullptr) {
  wchar_t buf[1024];
  DWORD size = sizeof(buf);
  if (RegGetValueW(root, path.c_str(), value, RRF_RT_REG_SZ, nullptr, buf, &size) != ERROR_SUCCESS) return false;
  out = buf;
  return true;
}

void follow(HKEY root, const std::vector<ClassLine>& classes, const std::vector<TypelibLine>& libs) {
  const std::wstring classes_key = L"Software\\Classes\\";
  for (const auto& c : classes) {
    std::wstring clsid_text, cur, path, model;
    bool ok = read_default(root, classes_key + widen(c.progid) + L"\\CLSID", clsid_text);
    check(ok && _wcsicmp(clsid_text.c_str(), widen(c.clsid).c_str()) == 0, c.name + ": " + c.progid + "\\CLSID");
    if (!ok) continue;
    ok = read_default(root, classes_key + widen(c.progid) + L"\\CurVer", cur);
    check(ok && narrow(cur) == c.progid_versioned, c.name + ": CurVer " + narrow(cur));
    ok = read_default(root, classes_key + widen(c.progid_versioned) + L"\\CLSID", cur);
    check(ok && _wcsicmp(cur.c_str(), clsid_text.c_str()) == 0, c.name + ": " + c.progid_versioned + "\\CLSID");
    const std::wstring server = classes_key + L"CLSID\\" + clsid_text + L"\\InprocServer32";
    ok = read_default(root, server, path) && read_default(root, server, model, L"ThreadingModel");
    check(ok && model == L"Apartment", c.name + ": InprocServer32 " + narrow(path) + ", " + narrow(model));
    if (!ok) continue;
    // The record's own path, loaded as a host's COM runtime would load it.
    HMODULE module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    check(module != nullptr, c.name + ": loads " + narrow(path), HRESULT_FROM_WIN32(GetLastError()));
    if (module == nullptr) continue;
    using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
    auto get = reinterpret_cast<GetClassObject>(
        reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")));
    Ptr<IClassFactory> factory;
    HRESULT hr = get != nullptr ? get(guid(c.clsid), IID_IClassFactory, factory.put_void()) : E_POINTER;
    check(SUCCEEDED(hr), c.name + ": DllGetClassObject", hr);
    if (factory) {
      Ptr<IDispatch> disp;
      hr = factory->CreateInstance(nullptr, IID_IDispatch, disp.put_void());
      check(SUCCEEDED(hr), c.name + ": created through its class factory", hr);
      if (disp) probe(disp.get(), c);
    }
    // The module stays loaded: the process ends soon, and COM may still hold
    // objects of it (global instances).
  }
  for (const auto& t : libs) {
    std::wstring path;
    wchar_t version[24];
    std::swprintf(version, 24, L"%x.%x", static_cast<unsigned>(t.major), static_cast<unsigned>(t.minor));
    const std::wstring key = classes_key + L"TypeLib\\" + widen(t.libid) + L"\\" + version + L"\\" +
                             widen(t.lcid) + L"\\" + (sizeof(void*) == 8 ? L"win64" : L"win32");
    bool ok = read_default(root, key, path);
    check(ok, t.file + ": type library record " + narrow(key) + " = " + narrow(path));
    if (!ok) continue;
    Ptr<ITypeLib> lib;
    HRESULT hr = LoadTypeLibEx(path.c_str(), REGKIND_NONE, lib.put());
    TLIBATTR* attr = nullptr;
    if (SUCCEEDED(hr)) hr = lib->GetLibAttr(&attr);
    check(SUCCEEDED(hr) && IsEqualGUID(attr->guid, guid(t.libid)) && attr->wMajorVerNum == t.major &&
              attr->wMinorVerNum == t.minor,
          t.file + ": the recorded path holds that type library", hr);
    if (attr != nullptr) lib->ReleaseTLibAttr(attr);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: deploy_client com|none <list> | actctx <manifest> <list> | follow <HKCU|HKLM> <list>\n",
               stderr);
    return 2;
  }
  const std::string mode = argv[1];
  const bool two = mode == "actctx" || mode == "follow";
  if (two && argc < 4) return 2;
  std::vector<ClassLine> classes;
  std::vector<TypelibLine> libs;
  if (!read_list(two ? argv[3] : argv[2], classes, libs)) {
    std::fprintf(stderr, "deploy_client: cannot read the class list\n");
    return 2;
  }
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  if (mode == "com") {
    activate_all(classes, libs);
  } else if (mode == "none") {
    nothing_resolves(classes);
  } else if (mode == "follow") {
    follow(std::string(argv[2]) == "HKLM" ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER, classes, libs);
  } else if (mode == "actctx") {
    nothing_resolves(classes);
    const std::wstring manifest = widen(argv[2]);
    ACTCTXW ctx{};
    ctx.cbSize = sizeof(ctx);
    ctx.lpSource = manifest.c_str();
    HANDLE actctx = CreateActCtxW(&ctx);
    check(actctx != INVALID_HANDLE_VALUE, "CreateActCtx " + std::string(argv[2]), HRESULT_FROM_WIN32(GetLastError()));
    ULONG_PTR cookie = 0;
    if (actctx != INVALID_HANDLE_VALUE) {
      const BOOL active = ActivateActCtx(actctx, &cookie);
      check(active != FALSE, "ActivateActCtx", HRESULT_FROM_WIN32(GetLastError()));
      if (active) {
        activate_all(classes, libs);
        DeactivateActCtx(0, cookie);
      }
      ReleaseActCtx(actctx);
    }
  } else {
    return 2;
  }
  CoUninitialize();
  std::printf("%d passed, %d failed\n", g_passed, g_failed);
  return g_failed == 0 ? 0 : 1;
}
