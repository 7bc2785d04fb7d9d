#include "machine_guard.h"

#include <oleauto.h>

#include <algorithm>
#include <cwchar>
#include <optional>

namespace valmetra_register {
namespace {

class Key {
 public:
  Key() = default;
  ~Key() {
    if (h_ != nullptr) RegCloseKey(h_);
  }
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;
  HKEY* put() { return &h_; }
  HKEY get() const { return h_; }

 private:
  HKEY h_ = nullptr;
};

bool less_name(const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) < 0; }

std::optional<KeyCopy> read_key(HKEY parent, const std::wstring& path, REGSAM view) {
  Key key;
  if (RegOpenKeyExW(parent, path.c_str(), 0, KEY_READ | view, key.put()) != ERROR_SUCCESS) return std::nullopt;
  DWORD subkeys = 0, max_subkey = 0, values = 0, max_value_name = 0, max_data = 0;
  if (RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &subkeys, &max_subkey, nullptr, &values,
                       &max_value_name, &max_data, nullptr, nullptr) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  KeyCopy copy;
  const size_t slash = path.find_last_of(L'\\');
  copy.name = slash == std::wstring::npos ? path : path.substr(slash + 1);
  for (DWORD i = 0; i < values; ++i) {
    std::wstring name(max_value_name + 1, L'\0');
    DWORD name_len = max_value_name + 1;
    KeyCopy::Value v;
    v.data.resize(max_data + 2);
    DWORD data_len = max_data + 2;
    if (RegEnumValueW(key.get(), i, name.data(), &name_len, nullptr, &v.type, v.data.data(), &data_len) !=
        ERROR_SUCCESS) {
      continue;
    }
    name.resize(name_len);
    v.name = name;
    v.data.resize(data_len);
    copy.values.push_back(std::move(v));
  }
  for (DWORD i = 0; i < subkeys; ++i) {
    std::wstring name(max_subkey + 1, L'\0');
    DWORD name_len = max_subkey + 1;
    if (RegEnumKeyExW(key.get(), i, name.data(), &name_len, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
      continue;
    }
    name.resize(name_len);
    if (auto sub = read_key(key.get(), name, view)) copy.subkeys.push_back(std::move(*sub));
  }
  std::sort(copy.values.begin(), copy.values.end(),
            [](const KeyCopy::Value& a, const KeyCopy::Value& b) { return less_name(a.name, b.name); });
  std::sort(copy.subkeys.begin(), copy.subkeys.end(),
            [](const KeyCopy& a, const KeyCopy& b) { return less_name(a.name, b.name); });
  return copy;
}

void write_key(HKEY parent, const std::wstring& path, REGSAM view, const KeyCopy& copy) {
  Key key;
  if (RegCreateKeyExW(parent, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS | view, nullptr, key.put(), nullptr) !=
      ERROR_SUCCESS) {
    return;
  }
  for (const auto& v : copy.values) {
    RegSetValueExW(key.get(), v.name.empty() ? nullptr : v.name.c_str(), 0, v.type,
                   v.data.empty() ? nullptr : v.data.data(), static_cast<DWORD>(v.data.size()));
  }
  for (const auto& sub : copy.subkeys) write_key(key.get(), sub.name, view, sub);
}

void delete_key(HKEY root, const std::wstring& path, REGSAM view) {
  {
    Key key;
    if (RegOpenKeyExW(root, path.c_str(), 0, KEY_ALL_ACCESS | view, key.put()) != ERROR_SUCCESS) return;
    RegDeleteTreeW(key.get(), nullptr);
  }
  RegDeleteKeyExW(root, path.c_str(), view, 0);
}

std::wstring guid_text(const GUID& g) {
  wchar_t buf[40] = {};
  StringFromGUID2(g, buf, 40);
  return buf;
}

}  // namespace

bool same_key(const KeyCopy& a, const KeyCopy& b) {
  if (_wcsicmp(a.name.c_str(), b.name.c_str()) != 0 || a.values.size() != b.values.size() ||
      a.subkeys.size() != b.subkeys.size()) {
    return false;
  }
  for (size_t i = 0; i < a.values.size(); ++i) {
    const auto& x = a.values[i];
    const auto& y = b.values[i];
    if (_wcsicmp(x.name.c_str(), y.name.c_str()) != 0 || x.type != y.type || x.data != y.data) return false;
  }
  for (size_t i = 0; i < a.subkeys.size(); ++i) {
    if (!same_key(a.subkeys[i], b.subkeys[i])) return false;
  }
  return true;
}

MachineGuard::MachineGuard(const std::wstring& dll) {
  ITypeLib* lib = nullptr;
  if (FAILED(LoadTypeLibEx(dll.c_str(), REGKIND_NONE, &lib)) || lib == nullptr) return;
  std::vector<std::wstring> paths;
  TLIBATTR* lib_attr = nullptr;
  if (SUCCEEDED(lib->GetLibAttr(&lib_attr))) {
    paths.push_back(L"Software\\Classes\\TypeLib\\" + guid_text(lib_attr->guid));
    lib->ReleaseTLibAttr(lib_attr);
  }
  const UINT count = lib->GetTypeInfoCount();
  for (UINT i = 0; i < count; ++i) {
    ITypeInfo* info = nullptr;
    if (FAILED(lib->GetTypeInfo(i, &info))) continue;
    TYPEATTR* attr = nullptr;
    if (SUCCEEDED(info->GetTypeAttr(&attr))) {
      if (attr->typekind == TKIND_COCLASS) {
        paths.push_back(L"Software\\Classes\\CLSID\\" + guid_text(attr->guid));
      } else if (attr->typekind == TKIND_DISPATCH || attr->typekind == TKIND_INTERFACE) {
        paths.push_back(L"Software\\Classes\\Interface\\" + guid_text(attr->guid));
      }
      info->ReleaseTypeAttr(attr);
    }
    info->Release();
  }
  lib->Release();
  std::sort(paths.begin(), paths.end(), less_name);
  paths.erase(std::unique(paths.begin(), paths.end(),
                          [](const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) == 0; }),
              paths.end());
  for (REGSAM view : {static_cast<REGSAM>(KEY_WOW64_64KEY), static_cast<REGSAM>(KEY_WOW64_32KEY)}) {
    for (const auto& path : paths) {
      Entry e;
      e.path = path;
      e.view = view;
      if (auto copy = read_key(HKEY_LOCAL_MACHINE, path, view)) {
        e.existed = true;
        e.before = std::move(*copy);
      }
      entries_.push_back(std::move(e));
    }
  }
}

int MachineGuard::restore() {
  int repaired = 0;
  for (const auto& e : entries_) {
    const auto now = read_key(HKEY_LOCAL_MACHINE, e.path, e.view);
    if (!e.existed) {
      if (now) {
        delete_key(HKEY_LOCAL_MACHINE, e.path, e.view);
        ++repaired;
      }
    } else if (!now || !same_key(*now, e.before)) {
      if (now) delete_key(HKEY_LOCAL_MACHINE, e.path, e.view);
      write_key(HKEY_LOCAL_MACHINE, e.path, e.view, e.before);
      ++repaired;
    }
  }
  return repaired;
}

int remove_empty_user_containers() {
  int removed = 0;
  // The containers first, then Software\Classes itself, which a fresh profile
  // may not have had before the registration made it.
  for (const wchar_t* path : {L"Software\\Classes\\CLSID", L"Software\\Classes\\Interface",
                              L"Software\\Classes\\TypeLib", L"Software\\Classes"}) {
    DWORD subkeys = 0, values = 0;
    {
      Key key;
      if (RegOpenKeyExW(HKEY_CURRENT_USER, path, 0, KEY_READ, key.put()) != ERROR_SUCCESS) continue;
      if (RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr,
                           nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
        continue;
      }
    }
    if (subkeys == 0 && values == 0 && RegDeleteKeyW(HKEY_CURRENT_USER, path) == ERROR_SUCCESS) ++removed;
  }
  return removed;
}

}  // namespace valmetra_register
