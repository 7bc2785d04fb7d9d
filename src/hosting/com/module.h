// The module's own state: the count that decides whether the DLL may be
// unloaded, and where the module lives.
//
// The count holds every live object of the module (COM objects, class
// factories, apartment watchers) plus every IClassFactory::LockServer(TRUE)
// not yet undone. One atomic counter holds both, so DllCanUnloadNow reads a
// single consistent value from any thread. Each DLL that links this library
// gets its own copy of the count.
#pragma once

#include <windows.h>

#include <string>

namespace valmetra::com::module {

void add_object() noexcept;
void remove_object() noexcept;
// LockServer(TRUE) / LockServer(FALSE). An unlock without a matching lock
// is ignored and answers false.
void lock() noexcept;
bool unlock() noexcept;

// True when no object is alive and no lock is held.
bool can_unload() noexcept;
// Live objects and locks, for diagnostics and tests.
long count() noexcept;

// The module handle of the image this code is linked into.
HMODULE handle() noexcept;
// Its full path; empty when it cannot be found.
std::wstring path();

}  // namespace valmetra::com::module
