// The fixture DLL of typelib_fixture.idl: registration through the runtime's
// RegisterTypeLib/UnRegisterTypeLib only (no classes to create).
#include <windows.h>
#include <oleauto.h>

namespace {
HMODULE g_module = nullptr;
// {28c70d2b-ee62-4862-bf06-2402a23766b7}
constexpr GUID kLibid = {0x28c70d2b, 0xee62, 0x4862, {0xbf, 0x06, 0x24, 0x02, 0xa2, 0x37, 0x66, 0xb7}};
}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) g_module = instance;
  return TRUE;
}

extern "C" HRESULT STDAPICALLTYPE DllRegisterServer() {
  wchar_t path[MAX_PATH];
  if (GetModuleFileNameW(g_module, path, MAX_PATH) == 0) return E_FAIL;
  ITypeLib* lib = nullptr;
  HRESULT hr = LoadTypeLibEx(path, REGKIND_NONE, &lib);
  if (FAILED(hr)) return hr;
  hr = RegisterTypeLib(lib, path, nullptr);
  lib->Release();
  return hr;
}

extern "C" HRESULT STDAPICALLTYPE DllUnregisterServer() {
  const HRESULT hr = UnRegisterTypeLib(kLibid, 1, 0, 0, SYS_WIN64);
  return hr == TYPE_E_REGISTRYACCESS ? S_OK : hr;
}
