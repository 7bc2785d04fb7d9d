// Early binding: calls through the interfaces' vtables, declared by the header
// that widl makes from the type library source (dist/<arch>/valmetra.h).
//
//   build:  examples/cpp/build.sh        run: wine early_bound.exe
//   needs:  the library registered (regsvr32, valmetra-register, the package)
//           or a manifest beside the program (see registration_free.cpp)
//
// Shows: creating a class by its identifier, property get/put and methods
// through the vtable, an error (Overflow) as HRESULT plus IErrorInfo, the
// value history shared by two objects of one thread, and the thread's global
// instance of a class, reached through the class factory.
#include <windows.h>
#include <initguid.h>  // the header's DEFINE_GUIDs become definitions here
#include <oleauto.h>

#include <cstdio>

#include "valmetra.h"

namespace {

int g_failures = 0;

void expect(bool ok, const char* what) {
  std::printf("%s  %s\n", ok ? "ok  " : "FAIL", what);
  if (!ok) ++g_failures;
}

// Owns one interface pointer.
template <class T>
struct Com {
  T* p = nullptr;
  Com() = default;
  Com(const Com&) = delete;
  Com& operator=(const Com&) = delete;
  ~Com() {
    if (p) p->Release();
  }
  T* operator->() const { return p; }
  void** out() { return reinterpret_cast<void**>(&p); }
};

// The error a failed call left on this thread, as a host shows it.
void show_error(HRESULT hr) {
  Com<IErrorInfo> info;
  BSTR source = nullptr, description = nullptr;
  if (GetErrorInfo(0, &info.p) == S_OK) {
    info->GetSource(&source);
    info->GetDescription(&description);
  }
  std::printf("      error 0x%08lX (number %lu) from %ls: %ls\n", static_cast<unsigned long>(hr),
              static_cast<unsigned long>(hr & 0xFFFF), source ? source : L"?", description ? description : L"?");
  SysFreeString(source);
  SysFreeString(description);
}

void run() {
  Com<_IntegerData> a, b;
  HRESULT hr = CoCreateInstance(CLSID_IntegerData, nullptr, CLSCTX_INPROC_SERVER, IID__IntegerData, a.out());
  expect(SUCCEEDED(hr), "CoCreateInstance(CLSID_IntegerData)");
  if (FAILED(hr)) return;
  CoCreateInstance(CLSID_IntegerData, nullptr, CLSCTX_INPROC_SERVER, IID__IntegerData, b.out());

  short value = 0;
  a->put_Value(30000);
  short addend = 2767;
  a->Add(&addend);
  a->get_Value(&value);
  expect(value == 32767, "30000 + 2767 = 32767");

  short one = 1;
  hr = a->Add(&one);
  expect(hr == static_cast<HRESULT>(0x800A0006), "32767 + 1 fails with Overflow (6)");
  show_error(hr);
  a->get_Value(&value);
  expect(value == 32767, "... and leaves the value as it was");

  // Push on one object, Pop on another: one history per thread.
  a->Push();
  if (b.p) {
    b->Pop();
    b->get_Value(&value);
  }
  expect(value == 32767, "a value pushed by one object pops on another");

  // The thread's global instance of IntegerData: compiled hosts reach it
  // through the class factory (script hosts create every object instead).
  Com<IValmetraGlobalInstance> globals;
  hr = CoGetClassObject(CLSID_IntegerData, CLSCTX_INPROC_SERVER, nullptr, IID_IValmetraGlobalInstance,
                        globals.out());
  expect(SUCCEEDED(hr), "the class factory answers IValmetraGlobalInstance");
  if (SUCCEEDED(hr)) {
    Com<_IntegerData> g1, g2;
    globals->GetGlobalInstance(IID__IntegerData, g1.out());
    globals->GetGlobalInstance(IID__IntegerData, g2.out());
    if (g1.p && g2.p) {
      g1->put_Value(42);
      g2->get_Value(&value);
    }
    expect(g1.p != nullptr && value == 42, "both uses reach the same global instance");
  }
}

}  // namespace

int main() {
  if (FAILED(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) return 2;
  run();
  CoUninitialize();
  std::printf("early_bound: %s\n", g_failures == 0 ? "ok" : "FAILED");
  return g_failures == 0 ? 0 : 1;
}
