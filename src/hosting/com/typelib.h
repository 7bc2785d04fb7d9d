// The type library embedded in the module (TYPELIB resource 1).
#pragma once

#include <windows.h>
#include <oleauto.h>

#include "hosting/com/raii.h"

namespace valmetra::com {

// Loads the module's own type library without registering it.
HRESULT load_module_typelib(ComPtr<ITypeLib>& out) noexcept;

// IDispatch::GetTypeInfo for the interface `iid` described there: index
// must be 0.
HRESULT module_type_info(UINT index, REFIID iid, ITypeInfo** out) noexcept;

}  // namespace valmetra::com
