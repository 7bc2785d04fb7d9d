// Lifetimes: reference counts while calls nest and re-enter, the last
// outside reference released in the middle of a call, what the library does
// with a caller's objects, factory locks, and global instances at the end
// of their apartment. After every test of the program a listener
// (leaks.cpp) checks that nothing of either DLL is left alive.
#include <functional>
#include <thread>
#include <vector>

#include "leaks.h"
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

// Whatever form an object argument takes and whatever the parameter, the
// library keeps no reference to the caller's object and drops none of the
// caller's.
TEST_F(Lifetime, CallersObjectsAreNeitherKeptNorReleased) {
  std::size_t calls = 0;
  for (std::size_t ci = 0; ci < kClassCount; ++ci) {
    const auto& table = *kClasses[ci].table;
    for (unsigned k = 0; k < table.count; ++k) {
      const Member& m = table.members[k];
      if (m.param_count == 0) continue;
      SCOPED_TRACE(std::string(kClasses[ci].name, kClasses[ci].name + wcslen(kClasses[ci].name)) + "." +
                   std::string(m.name, m.name + wcslen(m.name)));
      for (int form = 0; form < 4; ++form) {
        ComPtr<IDispatch> object = create(kClasses[ci].name);
        Probe probe;
        IDispatch* pointer = &probe;
        VARIANT variable = v_dispatch(&probe);
        probe.AddRef();  // the variable's reference
        VARIANT arg;
        VariantInit(&arg);
        switch (form) {
          case 0: arg = v_dispatch(&probe); break;
          case 1:
            arg.vt = VT_UNKNOWN;
            arg.punkVal = &probe;
            break;
          case 2:
            arg.vt = VT_BYREF | VT_DISPATCH;
            arg.ppdispVal = &pointer;
            break;
          default: arg = v_ref(&variable); break;
        }
        std::vector<VARIANT> args(m.param_count, v_i2(1));
        args[0] = arg;
        std::vector<VARIANT> reversed(args.rbegin(), args.rend());
        DISPID put_id = DISPID_PROPERTYPUT;
        DISPPARAMS params{reversed.data(), m.kind == Kind::Put ? &put_id : nullptr, static_cast<UINT>(reversed.size()),
                          m.kind == Kind::Put ? 1u : 0u};
        Variant result;
        EXCEPINFO exception{};
        object->Invoke(m.dispid, IID_NULL, LOCALE_USER_DEFAULT,
                       m.kind == Kind::Put ? DISPATCH_PROPERTYPUT : DISPATCH_METHOD, &params, result.get(), &exception,
                       nullptr);
        SysFreeString(exception.bstrSource);
        SysFreeString(exception.bstrDescription);
        ++calls;
        // A written-back parameter may replace the variable's object by a
        // number: it then released the variable's reference, as it must.
        const bool replaced = form == 3 && variable.vt != VT_DISPATCH;
        EXPECT_EQ(probe.refs(), replaced ? 1u : 2u) << "form " << form;
        if (!replaced) VariantClear(&variable);
        EXPECT_EQ(probe.refs(), 1u);
        EXPECT_EQ(count_of(object.get()), 1u);
      }
    }
  }
  EXPECT_GT(calls, 300u);
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

// Every global class's instance, and the value history, end with their
// apartment, however the host used them; a reference the host keeps past
// the end keeps only that object.
TEST_F(Lifetime, GlobalInstancesEndWithTheirApartment) {
  ComPtr<IDispatch> kept;
  std::thread worker([&] {
    Apartment apartment;
    ASSERT_EQ(apartment.result(), S_OK);
    for (std::size_t i = 0; i < kClassCount; ++i) {
      if (kClasses[i].instancing != valmetra::hosting::Instancing::Global) continue;
      ComPtr<IValmetraGlobalInstance> factory;
      ASSERT_EQ(library().get_class_object(kClasses[i].clsid, kGlobalInstanceIid, factory.put_void()), S_OK);
      ComPtr<IDispatch> global;
      ASSERT_EQ(factory->GetGlobalInstance(IID_IDispatch, global.put_void()), S_OK);
      // The apartment holds one reference, the host one.
      EXPECT_EQ(count_of(global.get()), 2u) << "class " << i;
    }
    ComPtr<IDispatch> integer = create(L"IntegerData");
    Call push;
    call(push, integer.get(), L"Push");
    ASSERT_EQ(push.hr, S_OK);
    ComPtr<IValmetraGlobalInstance> factory;
    ASSERT_EQ(
        library().get_class_object(kClasses[class_index(L"LongData")].clsid, kGlobalInstanceIid, factory.put_void()),
        S_OK);
    ASSERT_EQ(factory->GetGlobalInstance(IID_IDispatch, kept.put_void()), S_OK);
    ASSERT_EQ(put(kept.get(), L"Value", v_i4(77)), S_OK);
  });
  worker.join();
  // Only the kept instance is alive (its apartment is gone; it is a plain
  // object now, and this thread releases it).
  EXPECT_FALSE(nothing_alive());
  EXPECT_EQ(count_of(kept.get()), 1u);
  kept.reset();
  EXPECT_TRUE(nothing_alive());
}

// A global instance used through the class moniker's forwarding factory in
// a nested apartment initialisation: still one instance, ended once.
TEST_F(Lifetime, NestedInitialisationKeepsTheApartmentsState) {
  std::thread worker([&] {
    Apartment outer;
    ASSERT_EQ(outer.result(), S_OK);
    ComPtr<IDispatch> factory;
    ASSERT_EQ(library().get_class_object(kClasses[class_index(L"DoubleData")].clsid, IID_IDispatch, factory.put_void()),
              S_OK);
    ASSERT_EQ(put(factory.get(), L"Value", v_r8(1.5)), S_OK);
    for (int i = 0; i < 3; ++i) {
      Apartment inner;
      EXPECT_EQ(inner.result(), S_FALSE);
      EXPECT_EQ(get_number(factory.get(), L"Value"), 1.5);
    }
    EXPECT_FALSE(nothing_alive());
  });
  worker.join();
  EXPECT_TRUE(nothing_alive());
}

}  // namespace
}  // namespace vt
