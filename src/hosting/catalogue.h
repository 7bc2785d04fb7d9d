// The class catalogue of the library, as C++ (generated from
// src/hosting/catalogue by tools/gencom.py into catalogue_table.inc).
//
// Per class: its name, interface name, class and interface identifiers,
// instancing, value member and member table (slot, name, kind, dispatch
// identifier, parameters, result, invoker). Creation, registration,
// GetIDsOfNames and Invoke are all served from it.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <cstddef>
#include <cstdint>

#include "hosting/com/dispatch.h"
#include "valmetra.h"  // widl: the interfaces, from the same catalogue

namespace valmetra::hosting {

enum class Instancing : std::uint8_t { Global, Creatable };

struct LibraryInfo {
  const wchar_t* name;
  GUID libid;
  const wchar_t* libid_text;
  WORD major;
  WORD minor;
  LCID lcid;
  const wchar_t* description;
};

struct ClassInfo {
  const wchar_t* name;            // IntegerData
  const wchar_t* interface_name;  // _IntegerData
  GUID clsid;
  const wchar_t* clsid_text;
  GUID iid;
  const wchar_t* iid_text;
  Instancing instancing;
  const wchar_t* value_member;  // nullptr when the class has none
  bool has_core;                // false: every entry answers E_NOTIMPL
  const com::DispatchTable* table;
};

}  // namespace valmetra::hosting

#include "catalogue_table.inc"

namespace valmetra::hosting {

// Index of the class in kClasses, or -1.
inline int class_index(REFCLSID clsid) noexcept {
  for (std::size_t i = 0; i < kClassCount; ++i)
    if (kClasses[i].clsid == clsid) return static_cast<int>(i);
  return -1;
}

}  // namespace valmetra::hosting
