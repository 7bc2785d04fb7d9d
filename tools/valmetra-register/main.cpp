// valmetra-register: registers or unregisters an in-process component DLL
// (Valmetra-445.Dll, ValueStack.dll) for the current user or for the machine.
//
//   valmetra-register.exe [/user | /machine] [/unregister] [/quiet] <dll>
//
// /user (the default) needs no administrator rights. For the duration of the
// call the process's registry roots lead into the user's hive
// (RegOverridePredefKey, the mechanism meant for capturing a component's
// registration): HKEY_CLASSES_ROOT to HKCU\Software\Classes and
// HKEY_LOCAL_MACHINE to HKCU, so whether a DLL files its classes through
// HKEY_CLASSES_ROOT or, as both of ours do, explicitly under
// HKLM\Software\Classes (a machine registration never splits across hives),
// everything lands in HKCU\Software\Classes. Per-user type library
// registration is switched on too (OaEnablePerUserTLibRegistration, where
// oleaut32 has it). /machine calls the entry point as regsvr32 does.
//
// A runtime's type library registration may still write machine-wide during a
// per-user call (Wine 8 files interface records into the 32-bit view of
// HKLM, outside any redirection, and removes them from there on
// unregistration): the tool copies the machine keys that the DLL's type
// library names before the call and puts them back after it (see
// machine_guard.h), so a per-user call never changes the machine hive.
// Unregistration also removes the CLSID, Interface and TypeLib containers
// under HKCU\Software\Classes, and that key itself, when it leaves them empty.
//
// The DLL is loaded from its full path (LOAD_WITH_ALTERED_SEARCH_PATH), so the
// path it records is the one given here, made absolute.
//
// Exit code: 0 on success, otherwise the failing HRESULT (also printed in
// hex). Note that POSIX shells running the tool under Wine see only the low
// eight bits of it; read the printed line when that matters.
#include <windows.h>
#include <objbase.h>

#include "machine_guard.h"

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

namespace {

enum class Scope { User, Machine };

struct Options {
  Scope scope = Scope::User;
  bool unregister = false;
  bool quiet = false;
  std::wstring dll;
};

constexpr HRESULT kUsage = E_INVALIDARG;

// Text goes out as UTF-8, so paths with any characters survive a pipe.
void say(FILE* out, const std::wstring& text) {
  const int n = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0,
                                    nullptr, nullptr);
  std::string bytes(static_cast<size_t>(n > 0 ? n : 0), '\0');
  if (n > 0) {
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), bytes.data(), n, nullptr,
                        nullptr);
  }
  bytes += '\n';
  std::fwrite(bytes.data(), 1, bytes.size(), out);
  std::fflush(out);
}

std::wstring widen(const char* s) { return std::wstring(s, s + std::strlen(s)); }

void usage() {
  std::fputs(
      "usage: valmetra-register [/user | /machine] [/unregister] [/quiet] <dll>\n"
      "  /user        register under HKCU\\Software\\Classes (default; no administrator rights)\n"
      "  /machine     register for every user (HKEY_LOCAL_MACHINE, as regsvr32 does)\n"
      "  /unregister  remove what registration wrote (also /u)\n"
      "  /quiet       print nothing on success (also /s)\n",
      stderr);
}

bool is_switch(const wchar_t* arg, const wchar_t* name) {
  return (arg[0] == L'/' || arg[0] == L'-') && _wcsicmp(arg + 1, name) == 0;
}

// Returns S_OK or kUsage; prints what is wrong.
HRESULT parse(int argc, wchar_t** argv, Options& opt) {
  bool have_scope = false;
  for (int i = 1; i < argc; ++i) {
    const wchar_t* a = argv[i];
    if (is_switch(a, L"user") || is_switch(a, L"machine")) {
      const Scope s = is_switch(a, L"user") ? Scope::User : Scope::Machine;
      if (have_scope && s != opt.scope) {
        std::fputs("valmetra-register: /user and /machine exclude each other\n", stderr);
        return kUsage;
      }
      opt.scope = s;
      have_scope = true;
    } else if (is_switch(a, L"unregister") || is_switch(a, L"u")) {
      opt.unregister = true;
    } else if (is_switch(a, L"quiet") || is_switch(a, L"s")) {
      opt.quiet = true;
    } else if (is_switch(a, L"?") || is_switch(a, L"help")) {
      return kUsage;
    } else if ((a[0] == L'/' || a[0] == L'-') && a[1] != L'\0' && std::wcschr(a + 1, L'\\') == nullptr &&
               std::wcschr(a + 1, L'/') == nullptr && std::wcschr(a + 1, L'.') == nullptr) {
      say(stderr, L"valmetra-register: unknown switch " + std::wstring(a));
      return kUsage;
    } else if (!opt.dll.empty()) {
      std::fputs("valmetra-register: give exactly one DLL\n", stderr);
      return kUsage;
    } else {
      opt.dll = a;
    }
  }
  if (opt.dll.empty()) return kUsage;
  return S_OK;
}

std::wstring full_path(const std::wstring& path) {
  DWORD n = GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
  if (n == 0) return path;
  std::wstring out(n, L'\0');
  n = GetFullPathNameW(path.c_str(), n, out.data(), nullptr);
  out.resize(n);
  return out;
}

HRESULT last_error_hr() {
  const DWORD e = GetLastError();
  return e == 0 ? E_FAIL : HRESULT_FROM_WIN32(e);
}

// While open, the process's classes root and machine root both lead into the
// current user's hive: HKEY_CLASSES_ROOT to HKCU\Software\Classes, and
// HKEY_LOCAL_MACHINE to HKCU itself, so a DLL that files its classes under
// HKEY_CLASSES_ROOT or explicitly under HKLM\Software\Classes writes
// HKCU\Software\Classes either way. Per-user type library registration is
// switched on as well (oleaut32 from Windows 7 on; missing in some runtimes).
class UserHiveRedirect {
 public:
  UserHiveRedirect() = default;
  UserHiveRedirect(const UserHiveRedirect&) = delete;
  UserHiveRedirect& operator=(const UserHiveRedirect&) = delete;
  ~UserHiveRedirect() { close(); }

  HRESULT open() {
    LONG rc = RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\Classes", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              &classes_, nullptr);
    if (rc == ERROR_SUCCESS) rc = RegOpenCurrentUser(KEY_ALL_ACCESS, &user_);
    if (rc == ERROR_SUCCESS) rc = RegOverridePredefKey(HKEY_CLASSES_ROOT, classes_);
    if (rc == ERROR_SUCCESS) {
      classes_overridden_ = true;
      rc = RegOverridePredefKey(HKEY_LOCAL_MACHINE, user_);
    }
    if (rc != ERROR_SUCCESS) {
      close();
      return HRESULT_FROM_WIN32(static_cast<DWORD>(rc));
    }
    machine_overridden_ = true;
    if (HMODULE oleaut = GetModuleHandleW(L"oleaut32.dll")) {
      using Fn = void(WINAPI*)();
      auto fn = reinterpret_cast<Fn>(
          reinterpret_cast<void*>(GetProcAddress(oleaut, "OaEnablePerUserTLibRegistration")));
      if (fn != nullptr) fn();
    }
    return S_OK;
  }

  void close() {
    if (machine_overridden_) RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    if (classes_overridden_) RegOverridePredefKey(HKEY_CLASSES_ROOT, nullptr);
    machine_overridden_ = classes_overridden_ = false;
    if (user_ != nullptr) RegCloseKey(user_);
    if (classes_ != nullptr) RegCloseKey(classes_);
    user_ = classes_ = nullptr;
  }

 private:
  HKEY classes_ = nullptr;
  HKEY user_ = nullptr;
  bool classes_overridden_ = false;
  bool machine_overridden_ = false;
};

class Library {
 public:
  explicit Library(const std::wstring& path)
      : module_(LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH)) {}
  ~Library() {
    if (module_ != nullptr) FreeLibrary(module_);
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  HMODULE get() const { return module_; }

 private:
  HMODULE module_;
};

class ComApartment {
 public:
  ComApartment() : hr_(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)) {}
  ~ComApartment() {
    if (SUCCEEDED(hr_)) CoUninitialize();
  }
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;

 private:
  HRESULT hr_;
};

HRESULT run(const Options& opt) {
  const std::wstring dll = full_path(opt.dll);
  const char* entry_name = opt.unregister ? "DllUnregisterServer" : "DllRegisterServer";

  ComApartment apartment;
  // Loaded before any redirection, so the library starts against the real hives.
  Library lib(dll);
  if (lib.get() == nullptr) {
    const HRESULT hr = last_error_hr();
    say(stderr, L"valmetra-register: cannot load " + dll);
    return hr;
  }
  using Entry = HRESULT(STDAPICALLTYPE*)();
  auto entry = reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(lib.get(), entry_name)));
  if (entry == nullptr) {
    say(stderr, L"valmetra-register: " + dll + L" has no " + widen(entry_name));
    return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
  }

  HRESULT hr = S_OK;
  if (opt.scope == Scope::Machine) {
    hr = entry();
  } else {
    // The guard copies the machine keys first and puts them back last,
    // both against the real HKEY_LOCAL_MACHINE.
    valmetra_register::MachineGuard guard(dll);
    UserHiveRedirect redirect;
    hr = redirect.open();
    if (FAILED(hr)) {
      say(stderr, L"valmetra-register: cannot redirect the registry to the user's hive");
      return hr;
    }
    hr = entry();
    redirect.close();
    const int repaired = guard.restore();
    if (repaired > 0 && !opt.quiet) {
      say(stdout, L"note: put back " + std::to_wstring(repaired) +
                      L" machine-wide key(s) that the type library (un)registration touched");
    }
    // Also after a per-user "unregister" of what was never registered, which
    // may have had to create HKCU\Software\Classes for the redirection.
    if (opt.unregister) valmetra_register::remove_empty_user_containers();
  }
  if (FAILED(hr)) {
    say(stderr, L"valmetra-register: " + widen(entry_name) + L" failed");
    return hr;
  }
  if (!opt.quiet) {
    say(stdout, std::wstring(opt.unregister ? L"unregistered " : L"registered ") + dll +
                    (opt.scope == Scope::User ? L" for the current user" : L" for the machine"));
  }
  return S_OK;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  Options opt;
  HRESULT hr = parse(argc, argv, opt);
  if (hr == kUsage) {
    usage();
  } else {
    hr = run(opt);
  }
  if (FAILED(hr)) {
    std::fprintf(stderr, "valmetra-register: HRESULT 0x%08lX\n", static_cast<unsigned long>(hr));
    return static_cast<int>(hr);
  }
  return 0;
}
