// DllRegisterServer / DllUnregisterServer, checked on the registry itself.
#include "support.h"

#include <optional>

namespace vt {
namespace {

const wchar_t kClassesRoot[] = L"Software\\Classes\\";

std::optional<std::wstring> read(const std::wstring& key, const wchar_t* value = nullptr) {
  wchar_t buffer[1024];
  DWORD size = sizeof buffer;
  const std::wstring full = kClassesRoot + key;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, full.c_str(), value, RRF_RT_REG_SZ, nullptr, buffer, &size) != ERROR_SUCCESS)
    return std::nullopt;
  return std::wstring(buffer);
}

bool exists(const std::wstring& key) {
  HKEY h = nullptr;
  const std::wstring full = kClassesRoot + key;
  if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, full.c_str(), 0, KEY_READ, &h) != ERROR_SUCCESS) return false;
  RegCloseKey(h);
  return true;
}

void write(const std::wstring& key, const std::wstring& data) {
  HKEY h = nullptr;
  const std::wstring full = kClassesRoot + key;
  ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, full.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &h, nullptr),
            ERROR_SUCCESS);
  RegSetValueExW(h, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(data.c_str()),
                 static_cast<DWORD>((data.size() + 1) * sizeof(wchar_t)));
  RegCloseKey(h);
}

// Every key of the record, per class and for the type library.
std::vector<std::wstring> record_keys() {
  std::vector<std::wstring> keys;
  for (std::size_t i = 0; i < kClassCount; ++i) {
    const std::wstring prog_id = std::wstring(L"KARVO_Valmetra.") + kClasses[i].name;
    keys.push_back(std::wstring(L"CLSID\\") + kClasses[i].clsid_text);
    keys.push_back(std::wstring(L"Interface\\") + kClasses[i].iid_text);
    keys.push_back(prog_id);
    keys.push_back(prog_id + L".1");
  }
  keys.push_back(std::wstring(L"TypeLib\\") + kLibrary.libid_text);
  return keys;
}

const std::wstring kPlatform = sizeof(void*) == 8 ? L"win64" : L"win32";

TEST(Registration, RegisterWritesTheRecord) {
  ASSERT_EQ(library().register_server(), S_OK);
  const std::wstring& path = library().path;
  const std::wstring lib = std::wstring(L"TypeLib\\") + kLibrary.libid_text + L"\\36.0";  // 54.0, in hex
  EXPECT_EQ(read(lib), std::wstring(kLibrary.description));
  EXPECT_EQ(read(lib + L"\\0\\" + kPlatform), path);
  EXPECT_EQ(read(lib + L"\\FLAGS"), L"0");
  EXPECT_EQ(read(lib + L"\\HELPDIR"), path.substr(0, path.find_last_of(L'\\')));
  EXPECT_FALSE(exists(lib + L"\\409"));  // filed under the neutral locale only

  for (std::size_t i = 0; i < kClassCount; ++i) {
    const auto& c = kClasses[i];
    SCOPED_TRACE(std::string(c.name, c.name + wcslen(c.name)));
    const std::wstring prog_id = std::wstring(L"KARVO_Valmetra.") + c.name;
    const std::wstring clsid = std::wstring(L"CLSID\\") + c.clsid_text;
    EXPECT_EQ(read(clsid + L"\\InprocServer32"), path);
    EXPECT_EQ(read(clsid + L"\\InprocServer32", L"ThreadingModel"), L"Apartment");
    EXPECT_EQ(read(clsid + L"\\ProgID"), prog_id);
    EXPECT_EQ(read(clsid + L"\\VersionIndependentProgID"), prog_id);
    EXPECT_EQ(read(clsid + L"\\TypeLib"), std::wstring(kLibrary.libid_text));
    EXPECT_TRUE(exists(clsid + L"\\Programmable"));
    EXPECT_EQ(read(prog_id + L"\\CLSID"), std::wstring(c.clsid_text));
    EXPECT_EQ(read(prog_id + L"\\CurVer"), prog_id + L".1");
    EXPECT_EQ(read(prog_id + L".1\\CLSID"), std::wstring(c.clsid_text));
    const std::wstring iface = std::wstring(L"Interface\\") + c.iid_text;
    EXPECT_EQ(read(iface), std::wstring(c.interface_name));
    EXPECT_EQ(read(iface + L"\\ProxyStubClsid32"), L"{00020424-0000-0000-C000-000000000046}");
    EXPECT_EQ(read(iface + L"\\TypeLib"), std::wstring(kLibrary.libid_text));
    EXPECT_EQ(read(iface + L"\\TypeLib", L"Version"), L"36.0");
  }

  // The platform finds the type library in any locale.
  for (LCID lcid : {LCID{0}, LCID{0x409}, LCID{0x407}}) {
    ComPtr<ITypeLib> found;
    EXPECT_EQ(LoadRegTypeLib(kLibrary.libid, 54, 0, lcid, found.put()), S_OK) << lcid;
  }
  Bstr where;
  ASSERT_EQ(QueryPathOfRegTypeLib(kLibrary.libid, 54, 0, 0, where.put()), S_OK);
  EXPECT_EQ(text_of(where.get()), path);
}

TEST(Registration, UnregisterRemovesExactlyTheRecord) {
  ASSERT_EQ(library().register_server(), S_OK);
  ASSERT_EQ(library().unregister_server(), S_OK);
  for (const auto& key : record_keys()) EXPECT_FALSE(exists(key)) << std::string(key.begin(), key.end());
  // Nothing of anybody else: the history component stays registered.
  EXPECT_TRUE(exists(L"CLSID\\{69405CB8-3C10-450E-A338-CDF2A3B53B35}"));
  EXPECT_EQ(library().unregister_server(), S_OK);  // nothing left to remove is no failure

  // Entries of other versions or locales of the same type library stay,
  // and so do the keys that hold them.
  ASSERT_EQ(library().register_server(), S_OK);
  const std::wstring lib = std::wstring(L"TypeLib\\") + kLibrary.libid_text;
  write(lib + L"\\1.0", L"an older version");
  write(lib + L"\\36.0\\7\\" + kPlatform, L"C:\\other.tlb");
  ASSERT_EQ(library().unregister_server(), S_OK);
  EXPECT_FALSE(exists(lib + L"\\36.0\\0"));
  EXPECT_EQ(read(lib + L"\\36.0\\7\\" + kPlatform), L"C:\\other.tlb");
  EXPECT_EQ(read(lib + L"\\1.0"), L"an older version");
  EXPECT_FALSE(exists(std::wstring(L"CLSID\\") + kClasses[0].clsid_text));
  const std::wstring full = kClassesRoot + lib;
  ASSERT_EQ(RegDeleteTreeW(HKEY_LOCAL_MACHINE, full.c_str()), ERROR_SUCCESS);

  // Registered again for everything that follows; creation works again.
  ASSERT_EQ(library().register_server(), S_OK);
  Apartment apartment;
  ComPtr<IDispatch> object;
  EXPECT_EQ(CoCreateInstance(kClasses[0].clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDispatch, object.put_void()),
            S_OK);
}

}  // namespace
}  // namespace vt
