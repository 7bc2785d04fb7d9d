// Per-apartment state of the library: the global instance of each global
// class used in the apartment, and the apartment's value history client.
//
// The state comes into being on the first use in an apartment (a thread
// that called CoInitialize(Ex) itself) and ends with the apartment: an
// IInitializeSpy registered for the thread sees the CoUninitialize that
// takes the thread's initialisation count to zero and releases everything,
// so that afterwards DllCanUnloadNow can answer yes. The release happens in
// PreUninitialize (the apartment is still alive then, and the objects are
// released inside it); PostUninitialize at count zero catches a state that
// was created during the teardown itself.
//
// Each thread of the multithreaded apartment counts as an apartment of its
// own here; threads that only joined it implicitly (without initialising
// COM themselves) get no state: CO_E_NOTINITIALIZED.
#pragma once

#include <windows.h>

#include <cstddef>

namespace valmetra::hosting {

// The calling apartment's global instance of the class at `index` of
// kClasses (created on first use), queried for `riid`.
HRESULT global_instance(std::size_t index, REFIID riid, void** object) noexcept;

// Creates the calling apartment's state if needed, so that its end is
// observed (the value history client relies on this).
HRESULT enter_apartment() noexcept;

}  // namespace valmetra::hosting
