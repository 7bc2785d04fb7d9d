#include "hosting/com/factory.h"

#include <new>

#include "hosting/com/module.h"

namespace valmetra::com {

ClassFactory::ClassFactory(Creator create) noexcept : create_(create) { module::add_object(); }

ClassFactory::~ClassFactory() { module::remove_object(); }

HRESULT ClassFactory::make(Creator create, REFIID riid, void** object) noexcept {
  if (!object) return E_POINTER;
  *object = nullptr;
  auto* factory = new (std::nothrow) ClassFactory(create);
  if (!factory) return E_OUTOFMEMORY;
  const HRESULT hr = factory->QueryInterface(riid, object);
  factory->Release();
  return hr;
}

HRESULT ClassFactory::QueryInterface(REFIID riid, void** object) noexcept {
  if (!object) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IClassFactory) {
    *object = static_cast<IClassFactory*>(this);
  } else if (void* extra = query_extra(riid)) {
    *object = extra;
  } else {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG ClassFactory::AddRef() noexcept { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }

ULONG ClassFactory::Release() noexcept {
  const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
  if (left == 0) delete this;
  return left;
}

HRESULT ClassFactory::CreateInstance(IUnknown* outer, REFIID riid, void** object) noexcept {
  if (!object) return E_POINTER;
  *object = nullptr;
  if (outer) return CLASS_E_NOAGGREGATION;
  return create_(riid, object);
}

HRESULT ClassFactory::LockServer(BOOL lock) noexcept {
  if (lock) {
    module::lock();
    return S_OK;
  }
  return module::unlock() ? S_OK : E_UNEXPECTED;
}

void* ClassFactory::query_extra(REFIID) noexcept { return nullptr; }

}  // namespace valmetra::com
