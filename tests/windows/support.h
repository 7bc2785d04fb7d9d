// Shared helpers of the Windows tests: the DLLs under test, apartments,
// argument building, late-bound calls and the leak checks.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "hosting/catalogue.h"
#include "hosting/com/raii.h"

namespace vt {

using valmetra::com::Bstr;
using valmetra::com::ComPtr;
using valmetra::com::Variant;
using valmetra::hosting::kClassCount;
using valmetra::hosting::kClasses;
using valmetra::hosting::kLibrary;

// The library and the value history component, loaded from where run.sh
// registered them for the whole run (the library finds the value history
// through the registry too).
struct Dll {
  std::wstring path;
  HRESULT(WINAPI* get_class_object)(REFCLSID, REFIID, void**) = nullptr;
  HRESULT(WINAPI* can_unload_now)() = nullptr;
};
const Dll& library();
const Dll& value_stack();
// No object, factory, global instance, apartment watcher or lock of either
// DLL is alive. A listener checks it after every test of the program.
inline bool nothing_alive() { return library().can_unload_now() == S_OK && value_stack().can_unload_now() == S_OK; }

std::size_t class_index(const wchar_t* name);

struct Apartment {  // single-threaded
  const HRESULT hr;
  explicit Apartment(bool enter = true) : hr(enter ? CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED) : E_FAIL) {}
  ~Apartment() {
    if (SUCCEEDED(hr)) CoUninitialize();
  }
};

// Every test of these fixtures runs in its own apartment on the test thread.
class ApartmentTest : public ::testing::Test {
  Apartment apartment_;
};

// A new object through the DLL's factory, answering `iid`.
template <class I = IDispatch>
ComPtr<I> create(const Dll& dll, REFCLSID clsid, REFIID iid) {
  ComPtr<IClassFactory> factory;
  ComPtr<I> out;
  EXPECT_EQ(dll.get_class_object(clsid, IID_IClassFactory, factory.put_void()), S_OK);
  EXPECT_EQ(factory ? factory->CreateInstance(nullptr, iid, out.put_void()) : E_FAIL, S_OK);
  return out;
}
// One of the catalogue class, as IDispatch or as the class's own interface.
template <class I = IDispatch>
ComPtr<I> create(const wchar_t* class_name) {
  const auto& c = kClasses[class_index(class_name)];
  return create<I>(library(), c.clsid, std::is_same_v<I, IDispatch> ? IID_IDispatch : c.iid);
}

// VARIANT builders (the caller's variables of a script host). Every member
// of the VARIANT's union starts at the same place; the rest is zero.
template <class T = void*>
VARIANT v_of(VARTYPE vt, T value = nullptr) {
  VARIANT r{};
  r.vt = vt;
  std::memcpy(&r.iVal, &value, sizeof value);
  return r;
}
inline VARIANT v_i2(SHORT v) { return v_of(VT_I2, v); }
inline VARIANT v_dispatch(IDispatch* d) { return v_of(VT_DISPATCH, d); }  // not owned
inline VARIANT v_ref(VARIANT* p) { return v_of(VT_BYREF | VT_VARIANT, p); }
// Owns its BSTR: give it to a call, which clears its arguments.
inline VARIANT v_text(const wchar_t* text) { return v_of(VT_BSTR, SysAllocString(text)); }

inline std::wstring text_of(BSTR b) { return b ? std::wstring(b, SysStringLen(b)) : std::wstring(); }
inline std::string narrow(std::wstring_view w) { return std::string(w.begin(), w.end()); }  // for messages

// A late-bound call as a script host makes it: arguments in natural order
// (stored last first, as DISPPARAMS wants them).
struct Call {
  HRESULT hr = S_OK;
  Variant result;
  EXCEPINFO exception{};
  UINT arg_error = 0xFFFFFFFF;
  ~Call();  // frees the exception's strings (a Call is not copied: its result cannot be)
};

DISPID dispid_of(IDispatch* object, const wchar_t* name);
// Invoke by identifier with `flags`; the arguments are cleared afterwards
// unless `keep` (the caller's, not owned by the call).
void invoke(Call& call, IDispatch* object, DISPID id, WORD flags, std::vector<VARIANT> args, bool keep = false);
// By name: method/get with DISPATCH_METHOD | DISPATCH_PROPERTYGET.
void call(Call& call, IDispatch* object, const wchar_t* name, std::vector<VARIANT> args = {});

// A caller's object with an exact reference count. Asked for its value
// (DISPID_VALUE, which is what the Automation runtime does to convert an
// object to a number or text), it runs `on_value` first and answers 10.
class Probe final : public IDispatch {
 public:
  std::function<void()> on_value;
  int value_calls = 0;
  ULONG refs() const { return refs_; }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
    *object = riid == IID_IUnknown || riid == IID_IDispatch ? static_cast<IDispatch*>(this) : nullptr;
    return *object ? (AddRef(), S_OK) : E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  // The test owns the probe; a count below one is a fault of the library.
  ULONG STDMETHODCALLTYPE Release() override {
    EXPECT_GT(refs_, 1u) << "the library released a reference it did not own";
    return refs_ > 0 ? --refs_ : 0;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override { return *count = 0, S_OK; }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS*, VARIANT* result, EXCEPINFO*,
                                   UINT*) override {
    if (id != DISPID_VALUE) return DISP_E_MEMBERNOTFOUND;
    ++value_calls;
    if (on_value) on_value();
    if (result) *result = v_i2(10);
    return S_OK;
  }

 private:
  ULONG refs_ = 1;
};

// Task memory (BSTRs and everything else from the OLE allocator) allocated
// since construction and not yet freed, as " #serial:size" items ("" when
// none). A malloc spy registered on first use records every block, and the
// Automation runtime's string cache is off so that a freed string really is
// freed; the thread's error information is dropped first (it holds strings).
struct MemoryLeaks {
  const unsigned long long start;
  MemoryLeaks();
  std::string unfreed() const;
};

}  // namespace vt
