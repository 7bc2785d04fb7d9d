#include "hosting/com/typelib.h"

#include <string>

#include "hosting/com/module.h"

namespace valmetra::com {

HRESULT load_module_typelib(ComPtr<ITypeLib>& out) noexcept {
  try {
    const std::wstring path = module::path();
    if (path.empty()) return HRESULT_FROM_WIN32(GetLastError());
    return LoadTypeLibEx(path.c_str(), REGKIND_NONE, out.put());
  } catch (...) {
    return E_OUTOFMEMORY;
  }
}

HRESULT module_type_info(UINT index, REFIID iid, ITypeInfo** out) noexcept {
  if (!out) return E_POINTER;
  *out = nullptr;
  if (index != 0) return DISP_E_BADINDEX;
  ComPtr<ITypeLib> lib;
  HRESULT hr = load_module_typelib(lib);
  if (FAILED(hr)) return hr;
  return lib->GetTypeInfoOfGuid(iid, out);
}

}  // namespace valmetra::com
