// The catalogue's classes as COM objects, and their class factories.
#pragma once

#include <windows.h>

#include <cstddef>

namespace valmetra::hosting {

// A new object of the class at `index` of kClasses, queried for `riid`.
HRESULT create_catalogue_object(std::size_t index, REFIID riid, void** object) noexcept;

// DllGetClassObject: the factory of the class `clsid`, queried for `riid`;
// CLASS_E_CLASSNOTAVAILABLE for an identifier outside the catalogue.
//
// The factory of a global class answers two more interfaces:
// - IValmetraGlobalInstance::GetGlobalInstance(riid, object): the calling
//   apartment's global instance of the class, created on first use and
//   kept until the apartment ends (CoUninitialize);
// - IDispatch, forwarded to that global instance, so that a script host
//   binding the class moniker, GetObject("clsid:..."), reaches it.
HRESULT get_class_object(REFCLSID clsid, REFIID riid, void** object) noexcept;

}  // namespace valmetra::hosting
