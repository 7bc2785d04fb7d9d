// A class factory over a creation function.
//
//   HRESULT create_thing(REFIID riid, void** object) noexcept { return com::create<Thing>(riid, object); }
//   STDAPI DllGetClassObject(REFCLSID clsid, REFIID riid, void** object) {
//     if (clsid == CLSID_Thing) return com::ClassFactory::make(&create_thing, riid, object);
//     ...
//   }
//
// Factories count as live objects of the module; LockServer adds and
// removes module locks. Reference counting is atomic: a factory may be
// handed between threads by the platform. Derived factories may answer
// more interfaces through query_extra().
#pragma once

#include <windows.h>
#include <unknwn.h>

#include <atomic>

namespace valmetra::com {

using Creator = HRESULT (*)(REFIID riid, void** object) noexcept;

class ClassFactory : public IClassFactory {
 public:
  explicit ClassFactory(Creator create) noexcept;
  ClassFactory(const ClassFactory&) = delete;
  ClassFactory& operator=(const ClassFactory&) = delete;

  // A new factory, queried for `riid`.
  static HRESULT make(Creator create, REFIID riid, void** object) noexcept;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) noexcept override;
  ULONG STDMETHODCALLTYPE AddRef() noexcept override;
  ULONG STDMETHODCALLTYPE Release() noexcept override;
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** object) noexcept override;
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) noexcept override;

 protected:
  virtual ~ClassFactory();
  // The pointer for another interface this factory answers, or nullptr;
  // QueryInterface adds the reference.
  virtual void* query_extra(REFIID riid) noexcept;

 private:
  Creator create_;
  std::atomic<ULONG> refs_{1};
};

}  // namespace valmetra::com
