// ValueStack.dll through its vtable and its IDispatch, loaded from the
// build tree (no registration needed): the slot contract the library binds
// to, the history semantics per type, errors with error information, the
// dispatch table against the embedded type library, and the unload count.
#include <windows.h>
#include <initguid.h>
#include <cguid.h>
#include <oleauto.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "hosting/com/raii.h"
#include "valuestack.h"

namespace {

using valmetra::com::Bstr;
using valmetra::com::ComPtr;
using valmetra::com::Variant;

using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
using CanUnloadNowFn = HRESULT(STDAPICALLTYPE*)();

std::wstring dll_path() {
  wchar_t exe[MAX_PATH];
  const DWORD n = GetModuleFileNameW(nullptr, exe, MAX_PATH);
  std::wstring path(exe, n);
  path.resize(path.find_last_of(L"\\/") + 1);
  return path + VALUESTACK_DLL_FROM_TESTS;
}

// A private copy of the DLL: its module count is this suite's alone, even
// when other tests of the program reach the registered ValueStack.dll.
std::wstring private_copy() {
  wchar_t dir[MAX_PATH];
  const DWORD n = GetTempPathW(MAX_PATH, dir);
  std::wstring copy = std::wstring(dir, n) + L"valuestack_test_" + std::to_wstring(GetCurrentProcessId()) + L".dll";
  if (!CopyFileW(dll_path().c_str(), copy.c_str(), FALSE)) return {};
  return copy;
}

class ValueStackTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    const HRESULT init = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    initialized_ = SUCCEEDED(init);
    ASSERT_TRUE(initialized_ || init == RPC_E_CHANGED_MODE);
    copy_ = private_copy();
    ASSERT_FALSE(copy_.empty()) << "cannot copy ValueStack.dll";
    module_ = LoadLibraryW(copy_.c_str());
    ASSERT_NE(module_, nullptr) << "cannot load ValueStack.dll";
    get_class_object_ = reinterpret_cast<GetClassObjectFn>(
        reinterpret_cast<void*>(GetProcAddress(module_, "DllGetClassObject")));
    can_unload_ = reinterpret_cast<CanUnloadNowFn>(reinterpret_cast<void*>(GetProcAddress(module_, "DllCanUnloadNow")));
    ASSERT_NE(get_class_object_, nullptr);
    ASSERT_NE(can_unload_, nullptr);
  }
  static void TearDownTestSuite() {
    if (module_ && can_unload_() == S_OK) {
      FreeLibrary(module_);
      DeleteFileW(copy_.c_str());
    }
    module_ = nullptr;
    if (initialized_) CoUninitialize();
  }

  void SetUp() override {
    ComPtr<IClassFactory> factory;
    ASSERT_HRESULT_SUCCEEDED(get_class_object_(CLSID_ValueStack, IID_IClassFactory, factory.put_void()));
    ASSERT_HRESULT_SUCCEEDED(factory->CreateInstance(nullptr, IID__ValueStack, stack_.put_void()));
  }

  // The thread's error information after a failed call.
  static void expect_error_info(const wchar_t* description) {
    ComPtr<IErrorInfo> info;
    ASSERT_EQ(GetErrorInfo(0, info.put()), S_OK);
    Bstr source, text;
    GUID guid{};
    info->GetSource(source.put());
    info->GetDescription(text.put());
    info->GetGUID(&guid);
    EXPECT_STREQ(source.get(), L"ValueStack");
    EXPECT_STREQ(text.get(), description);
    EXPECT_TRUE(IsEqualGUID(guid, IID__ValueStack));
  }

  // Calls a member by name; args in natural order.
  HRESULT call(const wchar_t* name, WORD flags, VARIANT* args, UINT count, VARIANT* result, EXCEPINFO* ex = nullptr) {
    DISPID id = DISPID_UNKNOWN;
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    HRESULT hr = stack_->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    if (FAILED(hr)) return hr;
    VARIANT reversed[4];
    for (UINT i = 0; i < count; ++i) reversed[count - 1 - i] = args[i];
    DISPPARAMS params{count ? reversed : nullptr, nullptr, count, 0};
    EXCEPINFO local{};
    hr = stack_->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, ex ? ex : &local, nullptr);
    if (!ex) {
      SysFreeString(local.bstrSource);
      SysFreeString(local.bstrDescription);
      SysFreeString(local.bstrHelpFile);
    }
    return hr;
  }

  static inline std::wstring copy_;
  static inline bool initialized_ = false;
  static inline HMODULE module_ = nullptr;
  static inline GetClassObjectFn get_class_object_ = nullptr;
  static inline CanUnloadNowFn can_unload_ = nullptr;
  ComPtr<_ValueStack> stack_;
};

constexpr HRESULT kEmptyHistory = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_CONTROL, 5);

// The positions the library calls through the vtable (after the seven
// slots of IDispatch), read from the embedded type library.
TEST_F(ValueStackTest, TypeLibraryPositionsAreTheContract) {
  ComPtr<ITypeInfo> info;
  ASSERT_HRESULT_SUCCEEDED(stack_->GetTypeInfo(0, LOCALE_USER_DEFAULT, info.put()));
  const struct {
    const wchar_t* name;
    int position;
  } contract[] = {
      {L"PopBoolean", 1},   {L"PushBoolean", 2},       {L"PushAndSetBoolean", 3}, {L"DropDouble", 8},
      {L"PopDouble", 9},    {L"PushDouble", 10},       {L"PushAndSetDouble", 12}, {L"DropInteger", 14},
      {L"PopInteger", 15},  {L"PushInteger", 16},      {L"PushAndSetInteger", 18}, {L"DropLong", 20},
      {L"PopLong", 21},     {L"PushLong", 22},         {L"PushAndSetLong", 23},   {L"DropSingle", 30},
      {L"PopSingle", 31},   {L"PushSingle", 32},       {L"PushAndSetSingle", 33},
  };
  TYPEATTR* attr = nullptr;
  ASSERT_HRESULT_SUCCEEDED(info->GetTypeAttr(&attr));
  const UINT functions = attr->cFuncs;
  const bool dual = (attr->wTypeFlags & TYPEFLAG_FDUAL) != 0;
  info->ReleaseTypeAttr(attr);
  EXPECT_TRUE(dual);
  // A dual interface's type info may be the dispinterface; its vtable twin
  // carries the offsets.
  ComPtr<ITypeInfo> vtable = info;
  HREFTYPE ref = 0;
  if (SUCCEEDED(info->GetRefTypeOfImplType(static_cast<UINT>(-1), &ref))) {
    ComPtr<ITypeInfo> twin;
    if (SUCCEEDED(info->GetRefTypeInfo(ref, twin.put()))) vtable = twin;
  }
  for (const auto& c : contract) {
    bool found = false;
    for (UINT i = 0; i < functions + 7 && !found; ++i) {
      FUNCDESC* f = nullptr;
      if (FAILED(vtable->GetFuncDesc(i, &f))) break;
      Bstr name;
      UINT got = 0;
      vtable->GetNames(f->memid, name.put(), 1, &got);
      if (got == 1 && std::wstring(name.get()) == c.name) {
        found = true;
        EXPECT_EQ(f->oVft / static_cast<int>(sizeof(void*)), 7 + c.position) << "vtable slot of position " << c.position;
      }
      vtable->ReleaseFuncDesc(f);
    }
    EXPECT_TRUE(found) << "position " << c.position << " is not in the type library";
  }
}

// Per type: Pop and Drop on an empty history fail with 5 and error
// information; Push then Pop gives the value back; PushAndSet records the
// target and stores the new value; nothing is written on failure.
TEST_F(ValueStackTest, IntegerHistoryThroughTheVtable) {
  short v = 77;
  EXPECT_EQ(stack_->PopInteger(&v), kEmptyHistory);
  expect_error_info(L"The value history holds no Integer");
  EXPECT_EQ(v, 77);
  EXPECT_EQ(stack_->DropInteger(), kEmptyHistory);
  expect_error_info(L"The value history holds no Integer");

  short a = 3, b = 11;
  ASSERT_HRESULT_SUCCEEDED(stack_->PushInteger(&a));
  ASSERT_HRESULT_SUCCEEDED(stack_->PushInteger(&b));
  EXPECT_EQ(a, 3);
  short target = 1, set_to = 4;
  ASSERT_HRESULT_SUCCEEDED(stack_->PushAndSetInteger(&target, &set_to));
  EXPECT_EQ(target, 4);
  EXPECT_EQ(set_to, 4);
  LONG count = 0;
  ASSERT_HRESULT_SUCCEEDED(stack_->get_IntegerCount(&count));
  EXPECT_EQ(count, 3);
  short out = 0;
  ASSERT_HRESULT_SUCCEEDED(stack_->PeekInteger(&out));
  EXPECT_EQ(out, 1);
  ASSERT_HRESULT_SUCCEEDED(stack_->PopInteger(&out));
  EXPECT_EQ(out, 1);
  ASSERT_HRESULT_SUCCEEDED(stack_->DropInteger());
  ASSERT_HRESULT_SUCCEEDED(stack_->PopInteger(&out));
  EXPECT_EQ(out, 3);
  EXPECT_EQ(stack_->PeekInteger(&out), kEmptyHistory);
}

TEST_F(ValueStackTest, EachTypeHasItsOwnHistory) {
  VARIANT_BOOL flag = VARIANT_TRUE;
  double d = 2.5;
  short i = -7;
  LONG l = 100000;
  float s = 0.5f;
  ASSERT_HRESULT_SUCCEEDED(stack_->PushBoolean(&flag));
  ASSERT_HRESULT_SUCCEEDED(stack_->PushDouble(&d));
  ASSERT_HRESULT_SUCCEEDED(stack_->PushInteger(&i));
  ASSERT_HRESULT_SUCCEEDED(stack_->PushLong(&l));
  ASSERT_HRESULT_SUCCEEDED(stack_->PushSingle(&s));
  LONG count = 0;
  ASSERT_HRESULT_SUCCEEDED(stack_->get_Count(&count));
  EXPECT_EQ(count, 5);
  Bstr summary;
  ASSERT_HRESULT_SUCCEEDED(stack_->get_Summary(summary.put()));
  EXPECT_STREQ(summary.get(), L"Boolean 1, Double 1, Integer 1, Long 1, Single 1");

  float s2 = 0;
  ASSERT_HRESULT_SUCCEEDED(stack_->PopSingle(&s2));
  EXPECT_EQ(s2, 0.5f);
  EXPECT_EQ(stack_->PopSingle(&s2), kEmptyHistory);
  expect_error_info(L"The value history holds no Single");
  LONG l2 = 0;
  ASSERT_HRESULT_SUCCEEDED(stack_->PopLong(&l2));
  EXPECT_EQ(l2, 100000);
  double d2 = 0;
  ASSERT_HRESULT_SUCCEEDED(stack_->PopDouble(&d2));
  EXPECT_EQ(d2, 2.5);
  VARIANT_BOOL f2 = 0;
  ASSERT_HRESULT_SUCCEEDED(stack_->PopBoolean(&f2));
  EXPECT_EQ(f2, VARIANT_TRUE);
  EXPECT_EQ(stack_->DropBoolean(), kEmptyHistory);
  expect_error_info(L"The value history holds no Boolean");

  VARIANT_BOOL empty = VARIANT_TRUE;
  ASSERT_HRESULT_SUCCEEDED(stack_->get_IsEmpty(&empty));
  EXPECT_EQ(empty, VARIANT_FALSE);  // the Integer is still there
  ASSERT_HRESULT_SUCCEEDED(stack_->Clear());
  ASSERT_HRESULT_SUCCEEDED(stack_->get_IsEmpty(&empty));
  EXPECT_EQ(empty, VARIANT_TRUE);
}

TEST_F(ValueStackTest, NullPointersFailWithoutTouchingTheHistory) {
  short i = 5;
  EXPECT_EQ(stack_->PushInteger(nullptr), E_POINTER);
  EXPECT_EQ(stack_->PopInteger(nullptr), E_POINTER);
  EXPECT_EQ(stack_->PushAndSetInteger(&i, nullptr), E_POINTER);
  EXPECT_EQ(stack_->get_Count(nullptr), E_POINTER);
  LONG count = -1;
  ASSERT_HRESULT_SUCCEEDED(stack_->get_Count(&count));
  EXPECT_EQ(count, 0);
}

// By name: the receiving variable and the target are written back, the
// pushed variable and the set-to value are not; errors come as
// DISP_E_EXCEPTION with the history's number and texts.
TEST_F(ValueStackTest, ByNameWritesBackOnlyReceivingVariables) {
  VARIANT var;
  VariantInit(&var);
  var.vt = VT_I4;  // another type than the history's: converted both ways
  var.lVal = 9;
  VARIANT arg;
  arg.vt = VT_BYREF | VT_VARIANT;
  arg.pvarVal = &var;
  ASSERT_HRESULT_SUCCEEDED(call(L"pushinteger", DISPATCH_METHOD, &arg, 1, nullptr));
  EXPECT_EQ(var.vt, VT_I4);
  EXPECT_EQ(var.lVal, 9);

  VARIANT target_var, set_var;
  target_var.vt = VT_I2;
  target_var.iVal = 1;
  set_var.vt = VT_I2;
  set_var.iVal = 4;
  VARIANT two[2];
  two[0].vt = VT_BYREF | VT_VARIANT;
  two[0].pvarVal = &target_var;
  two[1].vt = VT_BYREF | VT_VARIANT;
  two[1].pvarVal = &set_var;
  ASSERT_HRESULT_SUCCEEDED(call(L"PushAndSetInteger", DISPATCH_METHOD, two, 2, nullptr));
  EXPECT_EQ(target_var.iVal, 4);
  EXPECT_EQ(set_var.iVal, 4);

  var.vt = VT_EMPTY;
  ASSERT_HRESULT_SUCCEEDED(call(L"PopInteger", DISPATCH_METHOD, &arg, 1, nullptr));
  EXPECT_EQ(var.vt, VT_I2);
  EXPECT_EQ(var.iVal, 1);
  ASSERT_HRESULT_SUCCEEDED(call(L"PopInteger", DISPATCH_METHOD, &arg, 1, nullptr));
  EXPECT_EQ(var.iVal, 9);

  EXCEPINFO ex{};
  var.iVal = 123;
  EXPECT_EQ(call(L"PopInteger", DISPATCH_METHOD, &arg, 1, nullptr, &ex), DISP_E_EXCEPTION);
  EXPECT_EQ(ex.scode, kEmptyHistory);
  EXPECT_STREQ(ex.bstrSource, L"ValueStack");
  EXPECT_STREQ(ex.bstrDescription, L"The value history holds no Integer");
  EXPECT_EQ(var.iVal, 123);
  SysFreeString(ex.bstrSource);
  SysFreeString(ex.bstrDescription);
  SysFreeString(ex.bstrHelpFile);

  Variant count;
  ASSERT_HRESULT_SUCCEEDED(call(L"Count", DISPATCH_PROPERTYGET, nullptr, 0, count.put()));
  EXPECT_EQ(count->vt, VT_I4);
  EXPECT_EQ(count->lVal, 0);
  EXPECT_EQ(call(L"NoSuchMember", DISPATCH_METHOD, nullptr, 0, nullptr), DISP_E_UNKNOWNNAME);
  DISPPARAMS none{nullptr, nullptr, 0, 0};
  Variant value;
  EXPECT_EQ(stack_->Invoke(DISPID_VALUE, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, value.put(), nullptr, nullptr),
            DISP_E_MEMBERNOTFOUND);
}

}  // namespace
