#include "hosting/objects.h"

#include <array>
#include <string_view>
#include <utility>

#include "hosting/apartment.h"
#include "hosting/catalogue.h"
#include "hosting/com/convert.h"
#include "hosting/com/factory.h"
#include "hosting/com/object.h"
#include "hosting/com/raii.h"
#include "text/text_constants.h"

#include "com_objects.inc"

namespace valmetra::hosting {

namespace {

template <std::size_t I>
HRESULT create_nth(REFIID riid, void** object) noexcept {
  return create_object(I, riid, object);
}

template <std::size_t... I>
constexpr std::array<com::Creator, sizeof...(I)> creators(std::index_sequence<I...>) {
  return {&create_nth<I>...};
}

constexpr auto kCreators = creators(std::make_index_sequence<kClassCount>());

// The factory of a catalogue class; for a global class also the way to its
// apartment's global instance.
class CatalogueFactory final : public com::ClassFactory, public IValmetraGlobalInstance, public IDispatch {
 public:
  explicit CatalogueFactory(std::size_t index) noexcept : com::ClassFactory(kCreators[index]), index_(index) {}

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) noexcept override {
    return com::ClassFactory::QueryInterface(riid, object);
  }
  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return com::ClassFactory::AddRef(); }
  ULONG STDMETHODCALLTYPE Release() noexcept override { return com::ClassFactory::Release(); }

  // IValmetraGlobalInstance
  HRESULT STDMETHODCALLTYPE GetGlobalInstance(REFIID riid, void** object) noexcept override {
    return global_instance(index_, riid, object);
  }

  // IDispatch, forwarded to the global instance.
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) noexcept override {
    return with_global([&](IDispatch* d) { return d->GetTypeInfoCount(count); });
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) noexcept override {
    return with_global([&](IDispatch* d) { return d->GetTypeInfo(index, lcid, info); });
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID lcid,
                                          DISPID* ids) noexcept override {
    return with_global([&](IDispatch* d) { return d->GetIDsOfNames(riid, names, count, lcid, ids); });
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO* exception, UINT* arg_error) noexcept override {
    return with_global(
        [&](IDispatch* d) { return d->Invoke(id, riid, lcid, flags, params, result, exception, arg_error); });
  }

 private:
  void* query_extra(REFIID riid) noexcept override {
    if (kClasses[index_].instancing != Instancing::Global) return nullptr;
    if (riid == kGlobalInstanceIid) return static_cast<IValmetraGlobalInstance*>(this);
    if (riid == IID_IDispatch) return static_cast<IDispatch*>(this);
    return nullptr;
  }

  template <class F>
  HRESULT with_global(F&& f) noexcept {
    com::ComPtr<IDispatch> global;
    const HRESULT hr = global_instance(index_, IID_IDispatch, global.put_void());
    if (FAILED(hr)) return hr;
    return f(global.get());
  }

  std::size_t index_;
};

}  // namespace

HRESULT create_catalogue_object(std::size_t index, REFIID riid, void** object) noexcept {
  return create_object(index, riid, object);
}

HRESULT get_class_object(REFCLSID clsid, REFIID riid, void** object) noexcept {
  if (!object) return E_POINTER;
  *object = nullptr;
  const int index = class_index(clsid);
  if (index < 0) return CLASS_E_CLASSNOTAVAILABLE;
  auto* factory = new (std::nothrow) CatalogueFactory(static_cast<std::size_t>(index));
  if (!factory) return E_OUTOFMEMORY;
  const HRESULT hr = factory->QueryInterface(riid, object);
  factory->Release();
  return hr;
}

}  // namespace valmetra::hosting
