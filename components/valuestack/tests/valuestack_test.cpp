// ValueStack.dll through its vtable and its IDispatch, loaded from the
// build tree (no registration needed): the slot contract the library binds
// to and the vtable's errors with error information. Calls by name, per
// type, are tests/scripts/valuestack.vbs.
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

}  // namespace
