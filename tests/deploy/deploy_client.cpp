// deploy_client: activates every class the way a host would, through whichever
// deployment is in place, and calls each by name.
//   deploy_client com <list>              the platform's activation (registry, or a manifest beside the .exe)
//   deploy_client actctx <manifest> <list> nothing resolves; then CreateActCtx/ActivateActCtx and as "com"
//   deploy_client follow <list>           HKCU's record read by hand: ProgID -> CurVer -> CLSID ->
//                                         InprocServer32 -> DllGetClassObject -> call; TypeLib -> load
//   deploy_client none <list>             no class resolves
//   deploy_client save <dir>              registry snapshot: HKLM\Software and HKCU\Software\Classes,
//                                         both views, saved by RegSaveKey as <dir>\lm.reg, <dir>\cu.reg
//                                         (the platform's own text format; `reg export` takes seconds)
// <list> is `reg.py classes`. Prints failures and "N passed, N failed".
#include <windows.h>
#include <oleauto.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

int passed = 0, failed = 0;

void check(bool ok, const std::string& what, HRESULT hr = S_OK) {
  ok ? ++passed : ++failed;
  if (!ok) std::printf("  FAIL  %s (hr 0x%08lX)\n", what.c_str(), static_cast<unsigned long>(hr));
}

struct Unk {  // owns one reference
  IUnknown* p = nullptr;
  ~Unk() { if (p) p->Release(); }
  void** put() { return reinterpret_cast<void**>(&p); }
};

std::wstring widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }  // GUIDs, ProgIDs: ASCII
GUID guid(const std::string& s) { GUID g{}; CLSIDFromString(widen(s).c_str(), &g); return g; }

struct Class { std::string file, clsid, progid, cur, iid, name, probe, kind; int vt = 0; };
struct Lib { std::string file, libid; int major = 0, minor = 0; };
std::vector<Class> classes;
std::vector<Lib> libs;

HRESULT invoke(IUnknown* obj, const wchar_t* member, WORD flags, VARIANT* arg, VARIANT* result) {
  IDispatch* disp = nullptr;
  HRESULT hr = obj->QueryInterface(IID_IDispatch, reinterpret_cast<void**>(&disp));
  if (FAILED(hr)) return hr;
  std::wstring name = member;
  LPOLESTR names[1] = {name.data()};
  DISPID id = 0, put = DISPID_PROPERTYPUT;
  DISPPARAMS params{arg, arg ? &put : nullptr, arg ? 1u : 0u, arg ? 1u : 0u};
  EXCEPINFO ei{};
  hr = disp->GetIDsOfNames(IID_NULL, names, 1, 0, &id);
  if (SUCCEEDED(hr)) hr = disp->Invoke(id, IID_NULL, 0, flags, &params, result, &ei, nullptr);
  SysFreeString(ei.bstrSource), SysFreeString(ei.bstrDescription), SysFreeString(ei.bstrHelpFile);
  disp->Release();
  return hr;
}

// The catalogue's argument-free member, called by name: the result has the catalogue's type.
void probe(IUnknown* obj, const Class& c) {
  VARIANT r;
  VariantInit(&r);
  HRESULT hr = invoke(obj, widen(c.probe).c_str(), c.kind == "get" ? DISPATCH_PROPERTYGET : DISPATCH_METHOD,
                      nullptr, &r);
  check(SUCCEEDED(hr) && r.vt == c.vt, c.name + "." + c.probe + " by name, VT " + std::to_string(r.vt), hr);
  VariantClear(&r);
}

void activate_all() {
  for (const auto& c : classes) {
    for (const auto& p : {c.progid, c.cur}) {
      CLSID id{};
      Unk obj, itf;
      HRESULT hr = CLSIDFromProgID(widen(p).c_str(), &id);
      // An activation context may answer with an alias of the CLSID: it must still create this class.
      if (SUCCEEDED(hr)) hr = CoCreateInstance(id, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, obj.put());
      if (SUCCEEDED(hr)) hr = obj.p->QueryInterface(guid(c.iid), itf.put());
      check(SUCCEEDED(hr), c.name + ": created by ProgID " + p, hr);
    }
    Unk obj, itf;
    HRESULT hr = CoCreateInstance(guid(c.clsid), nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, obj.put());
    if (SUCCEEDED(hr)) hr = obj.p->QueryInterface(guid(c.iid), itf.put());
    check(SUCCEEDED(hr), c.name + ": created by CLSID, answers " + c.iid, hr);
    if (FAILED(hr)) continue;
    probe(obj.p, c);
    if (c.name != "IntegerData") continue;
    // The value history: IntegerData creates the apartment's ValueStack by its CLSID.
    VARIANT arg, r;
    VariantInit(&arg), VariantInit(&r);
    arg.vt = VT_I2, arg.iVal = 5;
    hr = invoke(obj.p, L"Value", DISPATCH_PROPERTYPUT, &arg, nullptr);
    if (SUCCEEDED(hr)) hr = invoke(obj.p, L"Push", DISPATCH_METHOD, nullptr, nullptr);
    arg.iVal = 9;
    if (SUCCEEDED(hr)) hr = invoke(obj.p, L"Value", DISPATCH_PROPERTYPUT, &arg, nullptr);
    if (SUCCEEDED(hr)) hr = invoke(obj.p, L"Pop", DISPATCH_METHOD, nullptr, nullptr);
    if (SUCCEEDED(hr)) hr = invoke(obj.p, L"Value", DISPATCH_PROPERTYGET, nullptr, &r);
    check(SUCCEEDED(hr) && r.vt == VT_I2 && r.iVal == 5, "IntegerData: Push 5, set 9, Pop gives 5", hr);
  }
  for (const auto& t : libs) {
    ITypeLib* lib = nullptr;
    HRESULT hr = LoadRegTypeLib(guid(t.libid), t.major, t.minor, 0, &lib);
    check(SUCCEEDED(hr), t.file + ": type library " + t.libid + " found", hr);
    if (lib) lib->Release();
  }
}

void nothing_resolves() {
  for (const auto& c : classes) {
    Unk obj;
    CLSID id{};
    HRESULT hr = CoCreateInstance(guid(c.clsid), nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, obj.put());
    check(hr == REGDB_E_CLASSNOTREG, c.name + ": CLSID does not resolve", hr);
    check(FAILED(CLSIDFromProgID(widen(c.progid).c_str(), &id)), c.name + ": ProgID does not resolve");
  }
}

std::wstring value(const std::wstring& key, const wchar_t* name = nullptr) {
  wchar_t buf[1024];
  DWORD size = sizeof(buf);
  std::wstring path = L"Software\\Classes\\" + key;
  if (RegGetValueW(HKEY_CURRENT_USER, path.c_str(), name, RRF_RT_REG_SZ, nullptr, buf, &size)) return L"";
  return buf;
}

void follow() {
  for (const auto& c : classes) {
    const std::wstring clsid = widen(c.clsid), server = L"CLSID\\" + clsid + L"\\InprocServer32";
    check(value(widen(c.progid) + L"\\CLSID") == clsid && value(widen(c.progid) + L"\\CurVer") == widen(c.cur) &&
              value(widen(c.cur) + L"\\CLSID") == clsid,
          c.name + ": ProgID, CurVer and versioned ProgID name " + c.clsid);
    const std::wstring path = value(server);
    check(value(server, L"ThreadingModel") == L"Apartment", c.name + ": ThreadingModel Apartment");
    HMODULE module = LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
    auto get = module ? reinterpret_cast<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>(
                            reinterpret_cast<void*>(GetProcAddress(module, "DllGetClassObject")))
                      : nullptr;
    Unk factory, obj;
    HRESULT hr = get ? get(guid(c.clsid), IID_IClassFactory, factory.put()) : HRESULT_FROM_WIN32(GetLastError());
    if (SUCCEEDED(hr))
      hr = static_cast<IClassFactory*>(factory.p)->CreateInstance(nullptr, guid(c.iid), obj.put());
    check(SUCCEEDED(hr), c.name + ": created from its InprocServer32 path", hr);
    if (SUCCEEDED(hr)) probe(obj.p, c);
  }
  for (const auto& t : libs) {
    wchar_t ver[40];
    swprintf(ver, 40, L"\\%x.%x\\0\\%ls", t.major, t.minor, sizeof(void*) == 8 ? L"win64" : L"win32");
    ITypeLib* lib = nullptr;
    TLIBATTR* attr = nullptr;
    HRESULT hr = LoadTypeLibEx(value(L"TypeLib\\" + widen(t.libid) + ver).c_str(), REGKIND_NONE, &lib);
    if (SUCCEEDED(hr)) hr = lib->GetLibAttr(&attr);
    check(SUCCEEDED(hr) && attr->guid == guid(t.libid) && attr->wMajorVerNum == t.major,
          t.file + ": TypeLib record (hex version) leads to the type library", hr);
    if (attr) lib->ReleaseTLibAttr(attr);
    if (lib) lib->Release();
  }
}

// Saves HKLM\Software and HKCU\Software\Classes as seen by a 64-bit program (so the 32-bit
// view's Wow6432Node comes along) into <dir>. A missing key saves as an empty file.
int save(const std::string& dir) {
  HANDLE token = nullptr;
  TOKEN_PRIVILEGES tp{1, {{{0, 0}, SE_PRIVILEGE_ENABLED}}};
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token) ||
      !LookupPrivilegeValueW(nullptr, L"SeBackupPrivilege", &tp.Privileges[0].Luid) ||
      !AdjustTokenPrivileges(token, FALSE, &tp, 0, nullptr, nullptr))
    return 3;
  CloseHandle(token);
  const struct { HKEY root; const wchar_t* key; const char* file; } keys[] = {
      {HKEY_LOCAL_MACHINE, L"Software", "lm.reg"}, {HKEY_CURRENT_USER, L"Software\\Classes", "cu.reg"}};
  for (const auto& k : keys) {
    const std::string path = dir + "\\" + k.file;
    std::wstring file(MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, nullptr, 0), L'\0');
    MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, file.data(), static_cast<int>(file.size()));
    DeleteFileW(file.c_str());
    HKEY h = nullptr;
    LONG r = RegOpenKeyExW(k.root, k.key, 0, KEY_READ | KEY_WOW64_64KEY, &h);
    if (r == ERROR_FILE_NOT_FOUND) {
      CloseHandle(CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
      continue;
    }
    if (r == ERROR_SUCCESS) r = RegSaveKeyW(h, file.c_str(), nullptr);
    if (h) RegCloseKey(h);
    if (r != ERROR_SUCCESS) {
      std::printf("cannot save %s: error %ld\n", k.file, r);
      return 1;
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 2 ? argv[1] : "";
  if (mode == "save") return save(argv[2]);
  std::ifstream in(argv[argc - 1]);
  for (std::string line, tag; std::getline(in, line);) {
    std::istringstream w(line);
    w >> tag;
    Class c;
    Lib t;
    if (tag == "class" && w >> c.file >> c.clsid >> c.progid >> c.cur >> c.iid >> c.name >> c.probe >> c.kind >> c.vt)
      classes.push_back(c);
    if (tag == "typelib" && w >> t.file >> t.libid >> t.major >> t.minor) libs.push_back(t);
  }
  if (classes.empty() || FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  if (mode == "com") activate_all();
  if (mode == "none") nothing_resolves();
  if (mode == "follow") follow();
  if (mode == "actctx") {
    nothing_resolves();
    std::wstring manifest = widen(argv[2]);
    ACTCTXW ctx{};
    ctx.cbSize = sizeof(ctx);
    ctx.lpSource = manifest.c_str();
    HANDLE h = CreateActCtxW(&ctx);
    ULONG_PTR cookie = 0;
    check(h != INVALID_HANDLE_VALUE && ActivateActCtx(h, &cookie), "CreateActCtx/ActivateActCtx",
          HRESULT_FROM_WIN32(GetLastError()));
    activate_all();
  }
  std::printf("%d passed, %d failed\n", passed, failed);
  return failed ? 1 : 0;
}
