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
// path it records is the one given here, made absolute. Before loading, the
// tool reads the file's PE header, so it can say in words what is wrong: a
// file that is not there, a DLL built for the other bitness (a process loads
// only DLLs of its own), a file that is not a library at all.
//
// Exit code: 0 on success (and for /?, -h, --help), otherwise the failing
// HRESULT, printed in hex at the end of the message. POSIX shells running the
// tool under Wine see only the low eight bits of it; read the message when
// that matters.
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

#if defined(_WIN64)
constexpr WORD kOwnMachine = IMAGE_FILE_MACHINE_AMD64;
#else
constexpr WORD kOwnMachine = IMAGE_FILE_MACHINE_I386;
#endif

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

// The system's wording for an error, without the trailing full stop and line
// break; empty when the system has none.
std::wstring describe(HRESULT hr) {
  const DWORD code = HRESULT_FACILITY(hr) == FACILITY_WIN32 ? HRESULT_CODE(hr) : static_cast<DWORD>(hr);
  wchar_t* text = nullptr;
  const DWORD n = FormatMessageW(
      FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr, code,
      0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
  std::wstring out(text != nullptr ? text : L"", n);
  if (text != nullptr) LocalFree(text);
  while (!out.empty() && (out.back() == L'\n' || out.back() == L'\r' || out.back() == L' ' || out.back() == L'.')) {
    out.pop_back();
  }
  return out;
}

// Prints "valmetra-register: <what> (0x........)" and returns hr.
HRESULT fail(const std::wstring& what, HRESULT hr) {
  wchar_t hex[16];
  std::swprintf(hex, 16, L"0x%08lX", static_cast<unsigned long>(hr));
  say(stderr, L"valmetra-register: " + what + L" (" + hex + L")");
  return hr;
}

void usage(FILE* out) {
  std::fputs(
      "usage: valmetra-register [/user | /machine] [/unregister] [/quiet] <dll>\n"
      "  /user        register under HKCU\\Software\\Classes (default; no administrator rights)\n"
      "  /machine     register for every user (HKEY_LOCAL_MACHINE, as regsvr32 does)\n"
      "  /unregister  remove what registration wrote (also /u)\n"
      "  /quiet       print nothing on success (also /s)\n"
#if defined(_WIN64)
      "This is the x64 tool: it takes x64 DLLs; the x86 tool takes x86 DLLs.\n",
#else
      "This is the x86 tool: it takes x86 DLLs; the x64 tool takes x64 DLLs.\n",
#endif
      out);
}

bool is_switch(const wchar_t* arg, const wchar_t* name) {
  return (arg[0] == L'/' || arg[0] == L'-') && _wcsicmp(arg + 1, name) == 0;
}

bool is_help(const wchar_t* arg) {
  return is_switch(arg, L"?") || is_switch(arg, L"h") || is_switch(arg, L"help") || _wcsicmp(arg, L"--help") == 0;
}

enum class Parsed { Run, Help, Usage };

// Help anywhere on the line wins; otherwise Usage means the line is wrong,
// and what is wrong has been printed.
Parsed parse(int argc, wchar_t** argv, Options& opt) {
  for (int i = 1; i < argc; ++i) {
    if (is_help(argv[i])) return Parsed::Help;
  }
  bool have_scope = false;
  for (int i = 1; i < argc; ++i) {
    const wchar_t* a = argv[i];
    if (is_switch(a, L"user") || is_switch(a, L"machine")) {
      const Scope s = is_switch(a, L"user") ? Scope::User : Scope::Machine;
      if (have_scope && s != opt.scope) {
        std::fputs("valmetra-register: /user and /machine exclude each other\n", stderr);
        return Parsed::Usage;
      }
      opt.scope = s;
      have_scope = true;
    } else if (is_switch(a, L"unregister") || is_switch(a, L"u")) {
      opt.unregister = true;
    } else if (is_switch(a, L"quiet") || is_switch(a, L"s")) {
      opt.quiet = true;
    } else if ((a[0] == L'/' || a[0] == L'-') && a[1] != L'\0' && std::wcschr(a + 1, L'\\') == nullptr &&
               std::wcschr(a + 1, L'/') == nullptr && std::wcschr(a + 1, L'.') == nullptr) {
      say(stderr, L"valmetra-register: unknown switch " + std::wstring(a));
      return Parsed::Usage;
    } else if (!opt.dll.empty()) {
      std::fputs("valmetra-register: give exactly one DLL\n", stderr);
      return Parsed::Usage;
    } else {
      opt.dll = a;
    }
  }
  if (opt.dll.empty()) {
    std::fputs("valmetra-register: no DLL given\n", stderr);
    return Parsed::Usage;
  }
  return Parsed::Run;
}

const wchar_t* machine_name(WORD machine) {
  switch (machine) {
    case IMAGE_FILE_MACHINE_I386: return L"a 32-bit (x86) library";
    case IMAGE_FILE_MACHINE_AMD64: return L"a 64-bit (x64) library";
    case IMAGE_FILE_MACHINE_ARM64: return L"a library for ARM64";
    default: return nullptr;
  }
}

// Reads the file's PE header before anything loads it: S_OK for a DLL of
// this process's own machine type, otherwise prints why not. The codes are
// the ones LoadLibrary would have failed with.
HRESULT check_library(const std::wstring& dll) {
  const HRESULT bad_format = HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT);
  const DWORD attrs = GetFileAttributesW(dll.c_str());
  if (attrs == INVALID_FILE_ATTRIBUTES) {
    const DWORD e = GetLastError();
    if (e == ERROR_FILE_NOT_FOUND || e == ERROR_PATH_NOT_FOUND || e == ERROR_INVALID_NAME ||
        e == ERROR_BAD_NETPATH || e == ERROR_INVALID_DRIVE) {
      return fail(dll + L" not found", HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND));
    }
    const HRESULT hr = HRESULT_FROM_WIN32(e);
    return fail(L"cannot read " + dll + L": " + describe(hr), hr);
  }
  if ((attrs & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    return fail(dll + L" is a folder, not a library", HRESULT_FROM_WIN32(ERROR_DIRECTORY));
  }
  HANDLE file = CreateFileW(dll.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                            nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    const HRESULT hr = HRESULT_FROM_WIN32(GetLastError());
    return fail(L"cannot read " + dll + L": " + describe(hr), hr);
  }
  IMAGE_DOS_HEADER dos{};
  DWORD signature = 0;
  IMAGE_FILE_HEADER pe{};
  DWORD got = 0;
  bool is_pe = ReadFile(file, &dos, sizeof dos, &got, nullptr) && got == sizeof dos &&
               dos.e_magic == IMAGE_DOS_SIGNATURE && dos.e_lfanew > 0;
  if (is_pe) {
    LARGE_INTEGER at{};
    at.QuadPart = dos.e_lfanew;
    is_pe = SetFilePointerEx(file, at, nullptr, FILE_BEGIN) &&
            ReadFile(file, &signature, sizeof signature, &got, nullptr) && got == sizeof signature &&
            signature == IMAGE_NT_SIGNATURE && ReadFile(file, &pe, sizeof pe, &got, nullptr) && got == sizeof pe;
  }
  CloseHandle(file);
  if (!is_pe) return fail(dll + L" is not a Windows library", bad_format);
  if (pe.Machine != kOwnMachine) {
    const wchar_t* kind = machine_name(pe.Machine);
    if (kind == nullptr) return fail(dll + L" is built for another processor", bad_format);
    const bool other_is_x86 = pe.Machine == IMAGE_FILE_MACHINE_I386;
    const bool other_is_x64 = pe.Machine == IMAGE_FILE_MACHINE_AMD64;
    std::wstring what = dll + L" is " + kind;
    if (other_is_x86) what += L": use the x86 valmetra-register";
    if (other_is_x64) what += L": use the x64 valmetra-register";
    return fail(what, bad_format);
  }
  if ((pe.Characteristics & IMAGE_FILE_DLL) == 0) {
    return fail(dll + L" is a program, not a library", bad_format);
  }
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

  HRESULT hr = check_library(dll);
  if (FAILED(hr)) return hr;
  ComApartment apartment;
  // Loaded before any redirection, so the library starts against the real hives.
  Library lib(dll);
  if (lib.get() == nullptr) {
    hr = last_error_hr();
    if (hr == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)) {
      return fail(L"cannot load " + dll + L": a DLL it needs is missing", hr);
    }
    const std::wstring why = describe(hr);
    return fail(L"cannot load " + dll + (why.empty() ? L"" : L": " + why), hr);
  }
  using Entry = HRESULT(STDAPICALLTYPE*)();
  auto entry = reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(lib.get(), entry_name)));
  if (entry == nullptr) {
    return fail(dll + L" has no " + widen(entry_name) + L": not a library that registers itself",
                HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND));
  }

  if (opt.scope == Scope::Machine) {
    hr = entry();
  } else {
    // The guard copies the machine keys first and puts them back last,
    // both against the real HKEY_LOCAL_MACHINE.
    valmetra_register::MachineGuard guard(dll);
    UserHiveRedirect redirect;
    hr = redirect.open();
    if (FAILED(hr)) return fail(L"cannot redirect the registry to the user's hive", hr);
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
    std::wstring what = widen(entry_name) + L" of " + dll + L" failed";
    const std::wstring why = describe(hr);
    if (!why.empty()) what += L": " + why;
    if (hr == E_ACCESSDENIED && opt.scope == Scope::Machine) {
      what += L" (/machine needs administrator rights; /user does not)";
    }
    return fail(what, hr);
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
  switch (parse(argc, argv, opt)) {
    case Parsed::Help:
      usage(stdout);
      return 0;
    case Parsed::Usage:
      usage(stderr);
      return static_cast<int>(kUsage);
    case Parsed::Run:
      break;
  }
  const HRESULT hr = run(opt);
  return FAILED(hr) ? static_cast<int>(hr) : 0;
}
