// deploy_client: activates every class the way a host would, through whichever
// deployment is in place, and calls each by name.
//   deploy_client com <list>               the platform's activation (registry, or a manifest beside the .exe)
//   deploy_client follow <list>            HKCU's record read by hand, to DllGetClassObject and the type library
//   deploy_client save <dir>               HKLM\Software, HKCU\Software\Classes by RegSaveKey as <dir>\HKLM.reg, HKCU.reg
// <list> is `reg.py classes`. Prints failures and "N passed, N failed"; exits 1 on a failure.
#include <windows.h>
#include <oleauto.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "hosting/com/raii.h"

namespace {

int passed = 0, failed = 0;

void check(bool ok, const std::string& what, HRESULT hr = S_OK) {
  ok ? ++passed : ++failed;
  if (!ok) std::printf("  FAIL  %s (hr 0x%08lX)\n", what.c_str(), hr + 0ul);
}

using valmetra::com::ComPtr;

std::wstring widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }  // GUIDs, ProgIDs: ASCII
GUID guid(const std::string& s) { GUID g{}; CLSIDFromString(widen(s).c_str(), &g); return g; }

struct Class { std::string file, clsid, progid, cur, iid, name, probe, kind; int vt = 0; };
struct Lib { std::string file, libid; int major = 0, minor = 0; };
std::vector<Class> classes;
std::vector<Lib> libs;

// An object of the class answering its interface, through the platform by both ProgIDs and by CLSID.
HRESULT by_com(const Class& c, ComPtr<IUnknown>& obj) {
  HRESULT hr = S_OK;
  for (const auto& via : {c.progid, c.cur, c.clsid}) {
    CLSID id = guid(c.clsid);
    hr = via == c.clsid ? S_OK : CLSIDFromProgID(widen(via).c_str(), &id);
    if (via != c.clsid) check(SUCCEEDED(hr), c.name + ": " + via + " names a class", hr);
    // An activation context may answer with an alias of the CLSID: it must still create this class.
    if (SUCCEEDED(hr)) hr = CoCreateInstance(id, nullptr, CLSCTX_INPROC_SERVER, guid(c.iid), obj.put_void());
    check(SUCCEEDED(hr), c.name + ": created by " + via + ", answers " + c.iid, hr);
  }
  return hr;
}

std::wstring value(const std::wstring& key) {
  wchar_t buf[1024];
  DWORD size = sizeof(buf);
  return RegGetValueW(HKEY_CURRENT_USER, (L"Software\\Classes\\" + key).c_str(), nullptr, RRF_RT_REG_SZ, nullptr, buf,
                      &size) ? L"" : buf;
}

// The same from HKCU's record alone, as a host that reads it would.
HRESULT by_hand(const Class& c, ComPtr<IUnknown>& obj) {
  const std::wstring server = value(L"CLSID\\" + widen(c.clsid) + L"\\InprocServer32");
  HMODULE dll = LoadLibraryExW(server.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  auto get = reinterpret_cast<decltype(&DllGetClassObject)>(
      dll ? reinterpret_cast<void*>(GetProcAddress(dll, "DllGetClassObject")) : nullptr);
  ComPtr<IClassFactory> factory;
  HRESULT hr = get ? get(guid(c.clsid), IID_IClassFactory, factory.put_void()) : HRESULT_FROM_WIN32(GetLastError());
  if (SUCCEEDED(hr)) hr = factory->CreateInstance(nullptr, guid(c.iid), obj.put_void());
  check(SUCCEEDED(hr), c.name + ": created from its InprocServer32 path", hr);
  return hr;
}

void activate_all(bool hand) {
  for (const auto& c : classes) {
    ComPtr<IUnknown> obj;  // holds the class's interface
    if (FAILED(hand ? by_hand(c, obj) : by_com(c, obj))) continue;
    // The catalogue's argument-free member, called by name: the result has the catalogue's type.
    ComPtr<IDispatch> disp;
    std::wstring name = widen(c.probe);
    LPOLESTR names[1] = {name.data()};
    DISPID id = 0;
    DISPPARAMS none{};
    VARIANT r{};
    HRESULT hr = obj.query(IID_IDispatch, disp);
    if (SUCCEEDED(hr)) hr = disp->GetIDsOfNames(IID_NULL, names, 1, 0, &id);
    if (SUCCEEDED(hr))
      hr = disp->Invoke(id, IID_NULL, 0, c.kind == "get" ? DISPATCH_PROPERTYGET : DISPATCH_METHOD, &none, &r, nullptr, nullptr);
    check(SUCCEEDED(hr) && r.vt == c.vt, c.name + "." + c.probe + " by name, VT " + std::to_string(r.vt), hr);
    VariantClear(&r);
  }
  for (const auto& t : libs) {
    wchar_t ver[40];  // the record's version is hex
    swprintf(ver, 40, L"\\%x.%x\\0\\%ls", t.major, t.minor, sizeof(void*) == 8 ? L"win64" : L"win32");
    ComPtr<ITypeLib> lib;
    TLIBATTR* attr = nullptr;
    HRESULT hr = hand ? LoadTypeLibEx(value(L"TypeLib\\" + widen(t.libid) + ver).c_str(), REGKIND_NONE, lib.put())
                      : LoadRegTypeLib(guid(t.libid), t.major, t.minor, 0, lib.put());
    if (SUCCEEDED(hr)) hr = lib->GetLibAttr(&attr);
    check(SUCCEEDED(hr) && attr->guid == guid(t.libid) && attr->wMajorVerNum == t.major,
          t.file + ": type library " + t.libid + " found", hr);
    if (attr) lib->ReleaseTLibAttr(attr);
  }
}

// A 64-bit view of the keys, so that the 32-bit view's Wow6432Node comes along (`reg export` takes seconds).
int save(const std::string& dir) {
  HANDLE token = nullptr;
  TOKEN_PRIVILEGES tp{1, {{{0, 0}, SE_PRIVILEGE_ENABLED}}};
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &token) ||
      !LookupPrivilegeValueW(nullptr, L"SeBackupPrivilege", &tp.Privileges[0].Luid) ||
      !AdjustTokenPrivileges(token, FALSE, &tp, 0, nullptr, nullptr))
    return std::printf("cannot enable SeBackupPrivilege: error %lu\n", GetLastError()), 3;
  const struct { HKEY root; const char* key; const char* file; } keys[] = {
      {HKEY_LOCAL_MACHINE, "Software", "HKLM"}, {HKEY_CURRENT_USER, "Software\\Classes", "HKCU"}};
  for (const auto& k : keys) {
    const std::string path = dir + "\\" + k.file + ".reg";
    HKEY h = nullptr;
    DeleteFileA(path.c_str());
    LONG r = RegCreateKeyExA(k.root, k.key, 0, nullptr, 0, KEY_READ | KEY_WOW64_64KEY, nullptr, &h, nullptr);
    if (r == ERROR_SUCCESS) r = RegSaveKeyA(h, path.c_str(), nullptr), RegCloseKey(h);
    if (r != ERROR_SUCCESS) return std::printf("cannot save %s: error %ld\n", path.c_str(), r), 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 2 ? argv[1] : "";
  if (mode == "save") return save(argv[2]);
  std::ifstream in(argv[argc - 1]);
  for (std::string tag; in >> tag;) {
    Class c;
    Lib t;
    if (tag == "class" && in >> c.file >> c.clsid >> c.progid >> c.cur >> c.iid >> c.name >> c.probe >> c.kind >> c.vt)
      classes.push_back(c);
    if (tag == "typelib" && in >> t.file >> t.libid >> t.major >> t.minor) libs.push_back(t);
  }
  if (mode != "com" && mode != "follow") return 2;
  if (classes.empty() || FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  activate_all(mode == "follow");
  std::printf("%d passed, %d failed\n", passed, failed);
  return failed ? 1 : 0;
}
