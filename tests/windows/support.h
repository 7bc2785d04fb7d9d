// Shared helpers of the Windows tests: the DLLs under test, apartments,
// argument building and late-bound calls.
#pragma once

#include <windows.h>
#include <ole2.h>
#include <oleauto.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
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

// The library and the value history component, loaded from the build tree
// next to this program and registered once for the whole run (creation by
// ProgID, CoCreateInstance and the value history need the registration).
struct Dll {
  HMODULE module = nullptr;
  std::wstring path;
  HRESULT(WINAPI* get_class_object)(REFCLSID, REFIID, void**) = nullptr;
  HRESULT(WINAPI* can_unload_now)() = nullptr;
  HRESULT(WINAPI* register_server)() = nullptr;
  HRESULT(WINAPI* unregister_server)() = nullptr;
};
const Dll& library();
const Dll& value_stack();

// The index of a class in the catalogue, by name.
std::size_t class_index(const wchar_t* name);

// A single-threaded apartment for the lifetime of the object.
class Apartment {
 public:
  explicit Apartment(bool enter = true) : hr_(enter ? CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED) : E_FAIL) {}
  ~Apartment() {
    if (SUCCEEDED(hr_)) CoUninitialize();
  }
  HRESULT result() const { return hr_; }

 private:
  HRESULT hr_;
};

// Every test of these fixtures runs in its own apartment on the test
// thread; after the apartment has ended, nothing of the library may be
// left alive (each test checks that it releases what it made).
class ApartmentTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

// A new object of the catalogue class, through the library's factory.
ComPtr<IDispatch> create(const wchar_t* class_name);
template <class I>
ComPtr<I> create_as(const wchar_t* class_name) {
  ComPtr<I> out;
  ComPtr<IClassFactory> factory;
  const auto& c = kClasses[class_index(class_name)];
  EXPECT_EQ(library().get_class_object(c.clsid, IID_IClassFactory, factory.put_void()), S_OK);
  if (factory) {
    EXPECT_EQ(factory->CreateInstance(nullptr, c.iid, out.put_void()), S_OK);
  }
  return out;
}

// VARIANT builders (the caller's variables of a script host). Every member
// of the VARIANT's union starts at the same place.
template <class T>
VARIANT v_of(VARTYPE vt, T value) {
  VARIANT r;
  VariantInit(&r);
  r.vt = vt;
  std::memcpy(&r.iVal, &value, sizeof value);
  return r;
}
inline VARIANT v_i2(SHORT v) { return v_of(VT_I2, v); }
inline VARIANT v_r8(DOUBLE v) { return v_of(VT_R8, v); }
inline VARIANT v_bool(bool v) { return v_of(VT_BOOL, VARIANT_BOOL(v ? VARIANT_TRUE : VARIANT_FALSE)); }
inline VARIANT v_missing() { return v_of(VT_ERROR, SCODE{DISP_E_PARAMNOTFOUND}); }
inline VARIANT v_ref(SHORT* p) { return v_of(VT_BYREF | VT_I2, p); }
inline VARIANT v_ref(LONG* p) { return v_of(VT_BYREF | VT_I4, p); }
inline VARIANT v_ref(VARIANT* p) { return v_of(VT_BYREF | VT_VARIANT, p); }
// Owns its BSTR: give it to an Args, which clears its values.
inline VARIANT v_text(const wchar_t* text) { return v_of(VT_BSTR, SysAllocString(text)); }

// A late-bound call as a script host makes it: arguments in natural order
// (stored last first, as DISPPARAMS wants them).
struct Call {
  HRESULT hr = S_OK;
  Variant result;
  EXCEPINFO exception{};
  UINT arg_error = 0xFFFFFFFF;
  Call() = default;
  Call(const Call&) = delete;
  ~Call();
  std::wstring source() const;
  std::wstring description() const;
};

DISPID dispid_of(IDispatch* object, const wchar_t* name);
// Invoke by identifier with `flags`; arguments are cleared afterwards.
void invoke(Call& call, IDispatch* object, DISPID id, WORD flags, std::vector<VARIANT> args);
// By name: method/get with DISPATCH_METHOD | DISPATCH_PROPERTYGET.
void call(Call& call, IDispatch* object, const wchar_t* name, std::vector<VARIANT> args = {});
// Property put by name (named argument DISPID_PROPERTYPUT).
HRESULT put(IDispatch* object, const wchar_t* name, VARIANT value);
// A get by name as a number (VT_I2, VT_I4, VT_R4, VT_R8 or VT_BOOL).
double get_number(IDispatch* object, const wchar_t* name);

std::wstring text_of(BSTR b);

// A caller's object with an exact reference count. Asked for its value
// (DISPID_VALUE, which is what the Automation runtime does to convert an
// object to a number or text), it runs `on_value` first and answers
// `value`.
class Probe final : public IDispatch {
 public:
  std::function<void()> on_value;
  SHORT value = 10;
  int value_calls = 0;

  ULONG refs() const { return refs_; }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** object) override {
    if (riid == IID_IUnknown || riid == IID_IDispatch) {
      *object = static_cast<IDispatch*>(this);
      AddRef();
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  // The test owns the probe; a count below one is a fault of the library.
  ULONG STDMETHODCALLTYPE Release() override {
    EXPECT_GT(refs_, 1u) << "the library released a reference it did not own";
    return refs_ > 0 ? --refs_ : 0;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override {
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD, DISPPARAMS*, VARIANT* result, EXCEPINFO*,
                                   UINT*) override {
    if (id != DISPID_VALUE) return DISP_E_MEMBERNOTFOUND;
    ++value_calls;
    if (on_value) on_value();
    if (result) {
      VariantInit(result);
      result->vt = VT_I2;
      result->iVal = value;
    }
    return S_OK;
  }

 private:
  ULONG refs_ = 1;
};


// ------------------------------------------------------------ leak checks
// Objects: after every test (a listener installed for the whole program)
// both DLLs must answer DllCanUnloadNow with S_OK, that is no object,
// factory, global instance, apartment watcher or lock of theirs is alive.
//
// Task memory (BSTRs and everything else from the OLE allocator): a malloc
// spy registered on first use records every allocation that is not yet
// freed, and the BSTR cache of the Automation runtime is switched off so
// that a freed string really is freed. MemoryLeaks measures one stretch of
// a test.
// The task-memory blocks allocated since construction and not freed
// (the thread's error information is dropped first: it holds strings).
class MemoryLeaks {
 public:
  MemoryLeaks();
  MemoryLeaks(const MemoryLeaks&) = delete;
  MemoryLeaks& operator=(const MemoryLeaks&) = delete;
  std::size_t count() const;
  // Sizes of up to a few of them, for the failure message.
  std::string describe() const;

 private:
  unsigned long long start_;
};

// True when the DLL under test and the value history component can be
// unloaded now.
bool nothing_alive();

}  // namespace vt
