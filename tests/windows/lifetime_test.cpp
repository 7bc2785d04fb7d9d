// Lifetimes: reference counts while calls nest and re-enter, the last
// outside reference released in the middle of a call, what the library does
// with a caller's objects, factory locks, and global instances at the end
// of their apartment. After every test of the program a listener
// (leaks.cpp) checks that nothing of either DLL is left alive.
#include <functional>
#include <thread>
#include <vector>

#include "support.h"

namespace vt {
namespace {

using valmetra::com::Kind;
using valmetra::com::Member;
using valmetra::hosting::kGlobalInstanceIid;

// The reference count of an object of the library, read as AddRef and
// Release report it (the count the object holds, without the probe's).
ULONG count_of(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

VARIANT v_dispatch(IDispatch* d) {
  VARIANT v;
  VariantInit(&v);
  v.vt = VT_DISPATCH;
  v.pdispVal = d;
  return v;
}

// Invoke by name without taking over the arguments (the caller keeps them).
HRESULT invoke_keep(IDispatch* object, const wchar_t* name, std::vector<VARIANT> args, VARIANT* result = nullptr,
                    WORD flags = DISPATCH_METHOD) {
  std::vector<VARIANT> reversed(args.rbegin(), args.rend());
  DISPID put_id = DISPID_PROPERTYPUT;
  DISPPARAMS params{reversed.empty() ? nullptr : reversed.data(), nullptr, static_cast<UINT>(reversed.size()), 0};
  if (flags == DISPATCH_PROPERTYPUT) {
    params.rgdispidNamedArgs = &put_id;
    params.cNamedArgs = 1;
  }
  return object->Invoke(dispid_of(object, name), IID_NULL, LOCALE_USER_DEFAULT, flags, &params, result, nullptr,
                        nullptr);
}

using Lifetime = ApartmentTest;

// Add(object): the conversion asks the object for its value, and the value
// member adds to the same IntegerData first, by name and through the vtable.
TEST_F(Lifetime, NestedCallsDuringAnArgumentConversion) {
  ComPtr<_IntegerData> target = create_as<_IntegerData>(L"IntegerData");
  ASSERT_TRUE(target);
  ASSERT_EQ(target->put_Value(5), S_OK);
  Probe probe;
  ULONG during = 0;
  probe.on_value = [&] {
    during = count_of(target.get());
    SHORT one = 1;
    EXPECT_EQ(target->Add(&one), S_OK);                             // nested, through the vtable
    EXPECT_EQ(invoke_keep(target.get(), L"Add", {v_i2(2)}), S_OK);  // nested, by name
  };
  ASSERT_EQ(invoke_keep(target.get(), L"Add", {v_dispatch(&probe)}), S_OK);
  EXPECT_EQ(probe.value_calls, 1);
  SHORT value = 0;
  ASSERT_EQ(target->get_Value(&value), S_OK);
  EXPECT_EQ(value, 5 + 1 + 2 + 10);
  // The call held a reference of its own while it ran, and none is left.
  EXPECT_EQ(during, 2u);
  EXPECT_EQ(count_of(target.get()), 1u);
  EXPECT_EQ(probe.refs(), 1u);
}

// The object itself as its own argument: its value member is read while
// its operation is being called.
TEST_F(Lifetime, TheObjectAsItsOwnArgument) {
  for (const wchar_t* name : {L"IntegerData", L"LongData", L"SingleData", L"DoubleData"}) {
    SCOPED_TRACE(std::string(name, name + wcslen(name)));
    ComPtr<IDispatch> object = create(name);
    ASSERT_EQ(put(object.get(), L"Value", v_i2(21)), S_OK);
    ASSERT_EQ(invoke_keep(object.get(), L"Add", {v_dispatch(object.get())}), S_OK);
    EXPECT_EQ(get_number(object.get(), L"Value"), 42);
    EXPECT_EQ(count_of(object.get()), 1u);
  }
}

// The caller's only reference goes while the call is converting its
// argument: the object lives until the call is over, then goes.
TEST_F(Lifetime, LastOutsideReleaseInsideACall) {
  struct Row {
    const wchar_t* class_name;
    const wchar_t* member;
    WORD flags;
  };
  const Row rows[] = {{L"IntegerData", L"Add", DISPATCH_METHOD},
                      {L"SingleAverage", L"AddAPieceOfData", DISPATCH_METHOD},
                      {L"DoubleData", L"Value", DISPATCH_PROPERTYPUT},
                      {L"BooleanData", L"Value", DISPATCH_PROPERTYPUT},
                      {L"InterfaceStack", L"PushAndSet", DISPATCH_METHOD}};
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.class_name, r.class_name + wcslen(r.class_name)));
    IDispatch* object = create(r.class_name).detach();
    ASSERT_TRUE(object);
    const DISPID id = dispid_of(object, r.member);
    Probe probe;
    bool alive_after_release = false;
    probe.on_value = [&] {
      object->Release();  // the last reference outside the call
      alive_after_release = !nothing_alive();
    };
    VARIANT arg = v_dispatch(&probe);
    DISPID put_id = DISPID_PROPERTYPUT;
    DISPPARAMS params{&arg, r.flags == DISPATCH_PROPERTYPUT ? &put_id : nullptr, 1,
                      r.flags == DISPATCH_PROPERTYPUT ? 1u : 0u};
    Variant result;
    EXCEPINFO exception{};
    const HRESULT hr =
        object->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, r.flags, &params, result.get(), &exception, nullptr);
    SysFreeString(exception.bstrSource);
    SysFreeString(exception.bstrDescription);
    if (probe.value_calls == 0) {
      // A Variant parameter takes the object as it is: nothing calls back,
      // and the caller's reference is still there.
      EXPECT_EQ(hr, S_OK);
      object->Release();
    } else {
      EXPECT_TRUE(hr == S_OK || hr == DISP_E_EXCEPTION) << std::hex << hr;
      EXPECT_EQ(probe.value_calls, 1);
      EXPECT_TRUE(alive_after_release) << "the object died in the middle of its own call";
    }
    EXPECT_TRUE(nothing_alive()) << "the object outlived the call";
  }
}

// The same through a global class's factory, which forwards to the
// apartment's global instance: the factory's last reference goes mid-call.
TEST_F(Lifetime, LastFactoryReleaseInsideAForwardedCall) {
  const auto& c = kClasses[class_index(L"IntegerData")];
  IDispatch* factory = nullptr;
  ASSERT_EQ(library().get_class_object(c.clsid, IID_IDispatch, reinterpret_cast<void**>(&factory)), S_OK);
  Probe probe;
  probe.on_value = [&] { factory->Release(); };
  ASSERT_EQ(invoke_keep(factory, L"Add", {v_dispatch(&probe)}), S_OK);
  // The global instance is the apartment's: it still holds the sum.
  ComPtr<IValmetraGlobalInstance> again;
  ASSERT_EQ(library().get_class_object(c.clsid, kGlobalInstanceIid, again.put_void()), S_OK);
  ComPtr<IDispatch> global;
  ASSERT_EQ(again->GetGlobalInstance(IID_IDispatch, global.put_void()), S_OK);
  EXPECT_EQ(get_number(global.get(), L"Value"), 10);
}

// LockServer from several factories and threads: the library stays until
// the last lock goes; an unlock without a lock changes nothing.
TEST_F(Lifetime, FactoryLocksAcrossFactoriesAndThreads) {
  EXPECT_TRUE(nothing_alive());
  auto factory_of = [](const wchar_t* name) {
    ComPtr<IClassFactory> f;
    EXPECT_EQ(library().get_class_object(kClasses[class_index(name)].clsid, IID_IClassFactory, f.put_void()), S_OK);
    return f;
  };
  {
    ComPtr<IClassFactory> a = factory_of(L"IntegerData");
    EXPECT_EQ(count_of(a.get()), 1u);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(a->LockServer(TRUE), S_OK);
    std::thread other([&] {
      ComPtr<IClassFactory> b = factory_of(L"TextConstants");
      EXPECT_EQ(b->LockServer(TRUE), S_OK);
      EXPECT_EQ(b->LockServer(TRUE), S_OK);
    });
    other.join();
  }
  // Five locks, no factory.
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(nothing_alive()) << "after " << i << " unlocks";
    ComPtr<IClassFactory> f = factory_of(i % 2 ? L"LongData" : L"InterfaceStack");
    ASSERT_EQ(f->LockServer(FALSE), S_OK);
  }
  EXPECT_TRUE(nothing_alive());
  ComPtr<IClassFactory> f = factory_of(L"LongData");
  EXPECT_EQ(f->LockServer(FALSE), E_UNEXPECTED);
  EXPECT_EQ(f->LockServer(FALSE), E_UNEXPECTED);
  f.reset();
  EXPECT_TRUE(nothing_alive());
  // And a lock taken again after the refusals counts as one.
  f = factory_of(L"LongData");
  ASSERT_EQ(f->LockServer(TRUE), S_OK);
  f.reset();
  EXPECT_FALSE(nothing_alive());
  f = factory_of(L"LongData");
  ASSERT_EQ(f->LockServer(FALSE), S_OK);
  f.reset();
  EXPECT_TRUE(nothing_alive());
}

}  // namespace
}  // namespace vt
