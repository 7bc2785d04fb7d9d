#include "hosting/com/registry.h"

#include <objbase.h>

#include <cwchar>
#include <string>
#include <utility>

#include "hosting/com/module.h"

namespace valmetra::com {

namespace {

constexpr wchar_t kAutomationMarshaler[] = L"{00020424-0000-0000-C000-000000000046}";
#ifdef _WIN64
constexpr wchar_t kPlatform[] = L"win64";
#else
constexpr wchar_t kPlatform[] = L"win32";
#endif

class Key {
 public:
  Key() noexcept = default;
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;
  ~Key() {
    if (h_) RegCloseKey(h_);
  }
  HKEY get() const noexcept { return h_; }
  HKEY* put() noexcept { return &h_; }

 private:
  HKEY h_ = nullptr;
};

std::wstring text(const GUID& g) {
  wchar_t buffer[40] = {};
  StringFromGUID2(g, buffer, 40);
  return buffer;
}

std::wstring version_key(const ServerRegistration& s) {
  wchar_t buffer[24];
  std::swprintf(buffer, 24, L"%x.%x", s.major, s.minor);
  return buffer;
}

HRESULT from_status(LSTATUS status) noexcept {
  return status == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(static_cast<DWORD>(status));
}

LSTATUS open_classes(Key& root, REGSAM access) noexcept {
  return RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Classes", 0, access, root.put());
}

// Creates `path` below `root` and sets its value `name` (nullptr: the
// default value) to `data`.
LSTATUS write(HKEY root, const std::wstring& path, const wchar_t* name, const std::wstring& data) noexcept {
  Key key;
  LSTATUS status = RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(), nullptr);
  if (status != ERROR_SUCCESS) return status;
  return RegSetValueExW(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(data.c_str()),
                        static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t)));
}

LSTATUS create(HKEY root, const std::wstring& path) noexcept {
  Key key;
  return RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(), nullptr);
}

// Removes `path` with everything below it; a missing key is no failure.
LSTATUS remove_tree(HKEY root, const std::wstring& path) noexcept {
  const LSTATUS status = RegDeleteTreeW(root, path.c_str());
  return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;
}

// Number of subkeys of `path`; -1 when it does not exist.
long subkey_count(HKEY root, const std::wstring& path) noexcept {
  Key key;
  if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS) return -1;
  DWORD count = 0;
  if (RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &count, nullptr, nullptr, nullptr, nullptr, nullptr,
                       nullptr, nullptr) != ERROR_SUCCESS)
    return -1;
  return static_cast<long>(count);
}

// Removes `path` when it exists and has no subkeys left.
LSTATUS remove_if_empty(HKEY root, const std::wstring& path) noexcept {
  if (subkey_count(root, path) != 0) return ERROR_SUCCESS;
  return remove_tree(root, path);
}

LSTATUS write_all(HKEY root, const ServerRegistration& s, const std::wstring& path) {
  const std::wstring libid = text(s.libid);
  const std::wstring version = version_key(s);
  const std::wstring decimal_version = std::to_wstring(s.major) + L"." + std::to_wstring(s.minor);
  const std::size_t slash = path.find_last_of(L"\\/");
  const std::wstring folder = slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
  LSTATUS st;

  const std::wstring lib_key = L"TypeLib\\" + libid + L"\\" + version;
  if ((st = write(root, lib_key, nullptr, s.description)) != ERROR_SUCCESS) return st;
  if ((st = write(root, lib_key + L"\\FLAGS", nullptr, L"0")) != ERROR_SUCCESS) return st;
  if ((st = write(root, lib_key + L"\\HELPDIR", nullptr, folder)) != ERROR_SUCCESS) return st;
  if ((st = write(root, lib_key + L"\\0\\" + kPlatform, nullptr, path)) != ERROR_SUCCESS) return st;

  for (const RegisteredClass& c : s.classes) {
    const std::wstring clsid = text(c.clsid);
    const std::wstring key = L"CLSID\\" + clsid;
    const std::wstring prog_id = c.prog_id;
    const std::wstring versioned = prog_id + L".1";
    if ((st = write(root, key, nullptr, prog_id)) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\InprocServer32", nullptr, path)) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\InprocServer32", L"ThreadingModel", L"Apartment")) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\ProgID", nullptr, prog_id)) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\VersionIndependentProgID", nullptr, prog_id)) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\TypeLib", nullptr, libid)) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\Version", nullptr, decimal_version)) != ERROR_SUCCESS) return st;
    if ((st = create(root, key + L"\\Programmable")) != ERROR_SUCCESS) return st;
    if ((st = write(root, prog_id, nullptr, c.name)) != ERROR_SUCCESS) return st;
    if ((st = write(root, prog_id + L"\\CLSID", nullptr, clsid)) != ERROR_SUCCESS) return st;
    if ((st = write(root, prog_id + L"\\CurVer", nullptr, versioned)) != ERROR_SUCCESS) return st;
    if ((st = write(root, versioned, nullptr, c.name)) != ERROR_SUCCESS) return st;
    if ((st = write(root, versioned + L"\\CLSID", nullptr, clsid)) != ERROR_SUCCESS) return st;
  }

  for (const RegisteredInterface& i : s.interfaces) {
    const std::wstring key = L"Interface\\" + text(i.iid);
    if ((st = write(root, key, nullptr, i.name)) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\ProxyStubClsid", nullptr, kAutomationMarshaler)) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\ProxyStubClsid32", nullptr, kAutomationMarshaler)) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\TypeLib", nullptr, libid)) != ERROR_SUCCESS) return st;
    if ((st = write(root, key + L"\\TypeLib", L"Version", version)) != ERROR_SUCCESS) return st;
  }
  return ERROR_SUCCESS;
}

LSTATUS remove_all(HKEY root, const ServerRegistration& s) {
  LSTATUS first_failure = ERROR_SUCCESS;
  auto note = [&](LSTATUS st) {
    if (st != ERROR_SUCCESS && first_failure == ERROR_SUCCESS) first_failure = st;
  };
  for (const RegisteredClass& c : s.classes) {
    const std::wstring prog_id = c.prog_id;
    note(remove_tree(root, L"CLSID\\" + text(c.clsid)));
    note(remove_tree(root, prog_id + L".1"));
    note(remove_tree(root, prog_id));
  }
  for (const RegisteredInterface& i : s.interfaces) note(remove_tree(root, L"Interface\\" + text(i.iid)));

  const std::wstring lib = L"TypeLib\\" + text(s.libid);
  const std::wstring version = lib + L"\\" + version_key(s);
  note(remove_tree(root, version + L"\\0\\" + kPlatform));
  note(remove_if_empty(root, version + L"\\0"));
  // The version key holds FLAGS and HELPDIR besides the locale keys.
  Key key;
  if (RegOpenKeyExW(root, version.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS) {
    bool other_locale = false;
    wchar_t name[256];
    for (DWORD i = 0;; ++i) {
      DWORD length = 256;
      if (RegEnumKeyExW(key.get(), i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
      if (_wcsicmp(name, L"FLAGS") != 0 && _wcsicmp(name, L"HELPDIR") != 0) other_locale = true;
    }
    if (!other_locale) note(remove_tree(root, version));
  }
  note(remove_if_empty(root, lib));
  return first_failure;
}

}  // namespace

HRESULT register_server(const ServerRegistration& server) noexcept {
  try {
    const std::wstring path = module::path();
    if (path.empty()) return HRESULT_FROM_WIN32(GetLastError());
    Key root;
    LSTATUS st = open_classes(root, KEY_ALL_ACCESS);
    if (st != ERROR_SUCCESS) return from_status(st);
    st = write_all(root.get(), server, path);
    if (st != ERROR_SUCCESS) {
      remove_all(root.get(), server);
      return from_status(st);
    }
    return S_OK;
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT unregister_server(const ServerRegistration& server) noexcept {
  try {
    Key root;
    LSTATUS st = open_classes(root, KEY_ALL_ACCESS);
    if (st != ERROR_SUCCESS) return from_status(st);
    return from_status(remove_all(root.get(), server));
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

}  // namespace valmetra::com
