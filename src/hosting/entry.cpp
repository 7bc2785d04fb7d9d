// The entry points of Valmetra-445.Dll.
//
//   DllGetClassObject    the factory of a catalogue class
//                        (CLASS_E_CLASSNOTAVAILABLE for any other identifier)
//   DllCanUnloadNow      S_OK when no object, factory, global instance,
//                        apartment watcher or factory lock of the library is
//                        alive in any apartment
//   DllRegisterServer    the registration record (hosting/com/registry.h)
//   DllUnregisterServer  removes it again
//   DllMain              installs the value history client at load
#include <windows.h>
#include <ole2.h>

#include <array>

#include "frame/history.h"
#include "hosting/catalogue.h"
#include "hosting/com/module.h"
#include "hosting/com/registry.h"
#include "hosting/history_client.h"
#include "hosting/objects.h"

namespace {

using valmetra::hosting::kClassCount;
using valmetra::hosting::kClasses;
using valmetra::hosting::kLibrary;

// "KARVO_Valmetra.<Class>" for every class, built once at compile time.
struct ProgIds {
  std::array<std::array<wchar_t, 64>, kClassCount> text{};
};

constexpr ProgIds make_prog_ids() {
  ProgIds ids;
  for (std::size_t i = 0; i < kClassCount; ++i) {
    std::size_t n = 0;
    for (const wchar_t* p = kLibrary.name; *p; ++p) ids.text[i][n++] = *p;
    ids.text[i][n++] = L'.';
    for (const wchar_t* p = kClasses[i].name; *p; ++p) ids.text[i][n++] = *p;
    ids.text[i][n] = 0;
  }
  return ids;
}

constexpr ProgIds kProgIds = make_prog_ids();

struct Registration {
  std::array<valmetra::com::RegisteredClass, kClassCount> classes;
  std::array<valmetra::com::RegisteredInterface, kClassCount> interfaces;
};

constexpr Registration make_registration() {
  Registration r{};
  for (std::size_t i = 0; i < kClassCount; ++i) {
    r.classes[i] = {kClasses[i].clsid, kClasses[i].name, kProgIds.text[i].data()};
    r.interfaces[i] = {kClasses[i].iid, kClasses[i].interface_name};
  }
  return r;
}

constexpr Registration kRegistration = make_registration();

valmetra::com::ServerRegistration server() noexcept {
  return {kLibrary.libid, kLibrary.major, kLibrary.minor, kLibrary.description, kRegistration.classes,
          kRegistration.interfaces};
}

}  // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
  // Thread notifications stay on: the runtime ends each thread's history
  // (a thread-local object) when the thread exits.
  if (reason == DLL_PROCESS_ATTACH) valmetra::set_history_factory(&valmetra::hosting::make_component_history);
  return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID riid, LPVOID* object) {
  return valmetra::hosting::get_class_object(clsid, riid, object);
}

STDAPI DllCanUnloadNow() { return valmetra::com::module::can_unload() ? S_OK : S_FALSE; }

STDAPI DllRegisterServer() { return valmetra::com::register_server(server()); }

STDAPI DllUnregisterServer() { return valmetra::com::unregister_server(server()); }

}  // extern "C"
