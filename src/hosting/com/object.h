// The base of every COM object of the module.
//
//   class MyObject final : public com::Object<MyObject, IMyDual> {
//    public:
//     static const com::DispatchTable& dispatch_table() noexcept;  // member table of IMyDual
//     HRESULT STDMETHODCALLTYPE DoIt(SHORT* v) override {
//       if (!v) return pointer_error();
//       return frame([&] { core_.DoIt(*v); });
//     }
//   };
//   com::create<MyObject>(riid, out);
//
// Object<Derived, Interface> implements IUnknown, IDispatch (table-driven,
// see dispatch.h; GetTypeInfo from the module's embedded type library) and
// ISupportErrorInfo (yes for Interface and IDispatch), and keeps the
// module's live-object count. `Interface` must be a dual interface.
//
// Threading: objects are apartment-threaded; every call, AddRef and
// Release of one object comes from the thread of its apartment, so the
// reference count is a plain counter. Only the module count is shared
// between threads (atomic).
//
// Invoke first offers the call to Derived::invoke_typed (the generated
// classes have one: a switch on the dispatch identifier with the argument
// types fixed at compile time), then takes the table path.
//
// frame() is the call frame of every operation: it holds a reference to
// the object while the operation runs, and turns whatever the operation
// throws into the failure HRESULT and error information (error.h). On
// 32-bit x86 it also runs the operation in the library's floating
// environment (fp::Scope), where results pass through the x87 registers.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <new>
#include <utility>

#include "frame/fp.h"
#include "hosting/com/dispatch.h"
#include "hosting/com/error.h"
#include "hosting/com/module.h"
#include "hosting/com/typelib.h"

namespace valmetra::com {

template <class Derived, class Interface>
class Object : public Interface, public ISupportErrorInfo {
 public:
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  static const IID& interface_id() noexcept { return Derived::dispatch_table().iid; }

  // IUnknown
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) noexcept override {
    if (!object) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IDispatch || riid == interface_id()) {
      *object = static_cast<Interface*>(this);
    } else if (riid == IID_ISupportErrorInfo) {
      *object = static_cast<ISupportErrorInfo*>(this);
    } else {
      *object = nullptr;
      return E_NOINTERFACE;
    }
    ++refs_;
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() noexcept override { return release_reference(); }

  // IDispatch
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) noexcept override {
    if (!count) return E_POINTER;
    *count = 1;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID, ITypeInfo** info) noexcept override {
    return module_type_info(index, interface_id(), info);
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID,
                                          DISPID* ids) noexcept override {
    return get_ids_of_names(Derived::dispatch_table(), riid, names, count, ids);
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params,
                                   VARIANT* result, EXCEPINFO* exception, UINT* arg_error) noexcept override {
    if (params && is_null_iid(riid)) {
      HRESULT hr;
      if (static_cast<Derived*>(this)->invoke_typed(id, flags, params, result, exception, hr)) return hr;
    }
    return invoke_table(id, riid, lcid, flags, params, result, exception, arg_error);
  }

  // ISupportErrorInfo
  HRESULT STDMETHODCALLTYPE InterfaceSupportsErrorInfo(REFIID riid) noexcept override {
    return riid == interface_id() || riid == IID_IDispatch ? S_OK : S_FALSE;
  }

 protected:
  Object() noexcept { module::add_object(); }
  ~Object() { module::remove_object(); }

  // Runs one operation: keeps the object alive meanwhile and translates
  // what it throws.
  template <class F>
  HRESULT frame(F&& f) noexcept {
    ++refs_;
#ifdef __i386__
    // 32-bit x86 returns Single and Double results in the x87 registers: a
    // core function's result is loaded there after the function's own scope
    // has ended, and stored again here. Both must happen in the library's
    // environment (a denormal result would set the host's denormal flag or
    // trap in its environment).
    fp::Scope scope;
#endif
    HRESULT hr = S_OK;
    try {
      std::forward<F>(f)();
    } catch (...) {
      hr = translate_current_exception(interface_id());
    }
    release_reference();
    return hr;
  }

  // The typed path of Invoke (dispatch.h, namespace typed): true when it
  // took the call, with its answer in `hr`. A class may hide this with a
  // switch over its own entries; by default every call takes the table path.
  VALMETRA_HOT_INLINE bool invoke_typed(DISPID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, HRESULT&) noexcept {
    return false;
  }

  // A null pointer where the interface needs one.
  HRESULT pointer_error() noexcept { return report(E_POINTER, u"Invalid pointer", interface_id()); }
  // An entry whose class has no implementation in this build.
  HRESULT not_implemented() noexcept { return report(E_NOTIMPL, u"Not implemented", interface_id()); }

 private:
  // The table path, out of line: Invoke itself stays as small as the
  // typed path needs.
  [[gnu::noinline]] HRESULT invoke_table(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params,
                                         VARIANT* result, EXCEPINFO* exception, UINT* arg_error) noexcept {
    return invoke(Derived::dispatch_table(), static_cast<Interface*>(this), id, riid, lcid, flags, params, result,
                  exception, arg_error);
  }

  VALMETRA_HOT_INLINE ULONG release_reference() noexcept {
    const ULONG left = --refs_;
    if (left == 0) [[unlikely]]
      destroy();
    return left;
  }
  [[gnu::noinline]] void destroy() noexcept { delete static_cast<Derived*>(this); }

  ULONG refs_ = 1;
};

// Creates a T and queries it for `riid`; the object lives on only if the
// query succeeds.
template <class T>
HRESULT create(REFIID riid, void** object) noexcept {
  if (!object) return E_POINTER;
  *object = nullptr;
  T* p = nullptr;
  try {
    p = new T();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return translate_current_exception(T::interface_id());
  }
  const HRESULT hr = p->QueryInterface(riid, object);
  p->Release();
  return hr;
}

}  // namespace valmetra::com
