#include "hosting/apartment.h"

#include <array>
#include <new>
#include <utility>

#include "frame/history.h"
#include "hosting/catalogue.h"
#include "hosting/com/module.h"
#include "hosting/com/raii.h"
#include "hosting/objects.h"

namespace valmetra::hosting {

namespace {

class Apartment;
thread_local Apartment* t_apartment = nullptr;

class Apartment final : public IInitializeSpy {
 public:
  // The calling thread's state, created on first use.
  static HRESULT current(Apartment** out) noexcept {
    *out = t_apartment;
    if (*out) return S_OK;
    APTTYPE type;
    APTTYPEQUALIFIER qualifier;
    if (FAILED(CoGetApartmentType(&type, &qualifier)) || qualifier == APTTYPEQUALIFIER_IMPLICIT_MTA)
      return CO_E_NOTINITIALIZED;
    auto* apartment = new (std::nothrow) Apartment();
    if (!apartment) return E_OUTOFMEMORY;
    const HRESULT hr = CoRegisterInitializeSpy(apartment, &apartment->cookie_);
    if (FAILED(hr)) {
      apartment->Release();
      return hr;
    }
    t_apartment = *out = apartment;
    return S_OK;
  }

  HRESULT global(std::size_t index, REFIID riid, void** object) noexcept {
    com::ComPtr<IUnknown>& slot = globals_[index];
    if (!slot) {
      const HRESULT hr = create_catalogue_object(index, IID_IUnknown, slot.put_void());
      if (FAILED(hr)) return hr;
    }
    return slot.query(riid, object);
  }

  // IUnknown (called on this thread only)
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) noexcept override {
    if (!object) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IInitializeSpy) {
      *object = static_cast<IInitializeSpy*>(this);
      AddRef();
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() noexcept override {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
  }

  // IInitializeSpy
  HRESULT STDMETHODCALLTYPE PreInitialize(DWORD, DWORD) noexcept override { return S_OK; }
  HRESULT STDMETHODCALLTYPE PostInitialize(HRESULT result, DWORD, DWORD) noexcept override { return result; }
  HRESULT STDMETHODCALLTYPE PreUninitialize(DWORD references) noexcept override {
    if (references == 1) end();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE PostUninitialize(DWORD references) noexcept override {
    if (references == 0) end();
    return S_OK;
  }

 private:
  Apartment() noexcept { com::module::add_object(); }
  ~Apartment() { com::module::remove_object(); }

  // The apartment ends: release the global instances and the history, stop
  // watching. The last reference (ours) goes last.
  void end() noexcept {
    if (ended_) return;
    ended_ = true;
    if (t_apartment == this) t_apartment = nullptr;
    std::array<com::ComPtr<IUnknown>, kClassCount> globals;
    globals.swap(globals_);
    for (auto& g : globals) g.reset();
    valmetra::release_thread_history();
    CoRevokeInitializeSpy(cookie_);
    Release();
  }

  std::array<com::ComPtr<IUnknown>, kClassCount> globals_;
  ULARGE_INTEGER cookie_{};
  ULONG refs_ = 1;
  bool ended_ = false;
};

}  // namespace

HRESULT global_instance(std::size_t index, REFIID riid, void** object) noexcept {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (index >= kClassCount || kClasses[index].instancing != Instancing::Global) return E_NOINTERFACE;
  Apartment* apartment = nullptr;
  const HRESULT hr = Apartment::current(&apartment);
  if (FAILED(hr)) return hr;
  return apartment->global(index, riid, object);
}

HRESULT enter_apartment() noexcept {
  Apartment* apartment = nullptr;
  return Apartment::current(&apartment);
}

}  // namespace valmetra::hosting
