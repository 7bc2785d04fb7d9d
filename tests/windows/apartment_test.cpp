// Per-apartment state: global instances and the value history, their end
// with the apartment, and what DllCanUnloadNow answers meanwhile.
#include "support.h"

#include <functional>
#include <thread>

namespace vt {
namespace {

using valmetra::hosting::kGlobalInstanceIid;

// Runs `body` on a new thread, in its own apartment unless told otherwise.
void on_thread(const std::function<void()>& body, bool with_apartment = true) {
  std::thread worker([&] {
    if (with_apartment) {
      Apartment apartment;
      ASSERT_EQ(apartment.result(), S_OK);
      body();
    } else {
      body();
    }
  });
  worker.join();
}

ComPtr<IDispatch> global_of(const wchar_t* class_name, HRESULT expected = S_OK) {
  ComPtr<IValmetraGlobalInstance> factory;
  EXPECT_EQ(library().get_class_object(kClasses[class_index(class_name)].clsid, kGlobalInstanceIid,
                                       factory.put_void()),
            S_OK);
  ComPtr<IDispatch> global;
  if (factory) {
    EXPECT_EQ(factory->GetGlobalInstance(IID_IDispatch, global.put_void()), expected);
  }
  return global;
}

bool unloadable() { return library().can_unload_now() == S_OK; }

using Apartments = ApartmentTest;

TEST_F(Apartments, GlobalInstanceIsSharedWithinTheApartment) {
  ComPtr<IDispatch> first = global_of(L"IntegerData");
  ComPtr<IDispatch> second = global_of(L"IntegerData");
  ASSERT_TRUE(first && second);
  ComPtr<IUnknown> a, b;
  ASSERT_EQ(first.query(IID_IUnknown, a), S_OK);
  ASSERT_EQ(second.query(IID_IUnknown, b), S_OK);
  EXPECT_EQ(a.get(), b.get());
  ASSERT_EQ(put(first.get(), L"Value", v_i2(11)), S_OK);
  EXPECT_EQ(get_number(second.get(), L"Value"), 11);
  // A created object is a new one, not the global instance.
  EXPECT_EQ(get_number(create(L"IntegerData").get(), L"Value"), 0);
  // Each global class has its own.
  EXPECT_EQ(get_number(global_of(L"LongData").get(), L"Value"), 0);
}

TEST_F(Apartments, EachApartmentHasItsOwnGlobalInstance) {
  ComPtr<IDispatch> mine = global_of(L"IntegerData");
  ASSERT_EQ(put(mine.get(), L"Value", v_i2(11)), S_OK);
  double seen_there = -1;
  on_thread([&] {
    ComPtr<IDispatch> theirs = global_of(L"IntegerData");
    seen_there = get_number(theirs.get(), L"Value");
    ASSERT_EQ(put(theirs.get(), L"Value", v_i2(5)), S_OK);
  });
  EXPECT_EQ(seen_there, 0);
  EXPECT_EQ(get_number(mine.get(), L"Value"), 11);
  // The other apartment has ended and released its instance.
  mine.reset();
}

// The global instances (and the apartment's history) live until the
// apartment ends, however many references the host dropped.
TEST_F(Apartments, GlobalInstancesEndWithTheApartment) {
  on_thread([&] {
    {
      ComPtr<IDispatch> global = global_of(L"DoubleData");
      ASSERT_TRUE(global);
      EXPECT_FALSE(unloadable());
    }
    EXPECT_FALSE(unloadable());  // no reference left, but the apartment keeps it
    // A nested initialisation does not end the apartment.
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE);
    CoUninitialize();
    EXPECT_FALSE(unloadable());
    EXPECT_EQ(get_number(global_of(L"DoubleData").get(), L"Value"), 0);
  });
  EXPECT_TRUE(unloadable());

  // The same for an apartment that only used the value history.
  on_thread([&] {
    ComPtr<IDispatch> object = create(L"IntegerData");
    Call push;
    call(push, object.get(), L"Push");
    ASSERT_EQ(push.hr, S_OK);
    object.reset();
    EXPECT_FALSE(unloadable());
  });
  EXPECT_TRUE(unloadable());
}

TEST(ApartmentsWithoutCom, NoApartmentNoGlobalInstanceAndNoHistory) {
  on_thread(
      [&] {
        ComPtr<IDispatch> global = global_of(L"IntegerData", CO_E_NOTINITIALIZED);
        EXPECT_FALSE(global);
        // Objects work without an apartment, but the history service cannot
        // be reached: the platform's failure reaches the caller as it is.
        ComPtr<IDispatch> flag = create(L"BooleanData");
        VARIANT variable = v_bool(true);
        Call c;
        call(c, flag.get(), L"PushAndSet", {v_ref(&variable), v_bool(false)});
        EXPECT_EQ(c.hr, DISP_E_EXCEPTION);
        EXPECT_EQ(c.exception.scode, CO_E_NOTINITIALIZED);
        EXPECT_FALSE(c.description().empty());
        EXPECT_EQ(variable.vt, VT_BOOL);  // not written
        EXPECT_EQ(variable.boolVal, VARIANT_TRUE);
      },
      false);
  EXPECT_TRUE(unloadable());
}

TEST_F(Apartments, HistoryIsSharedByTheObjectsOfAnApartment) {
  ComPtr<_IntegerData> a = create_as<_IntegerData>(L"IntegerData");
  ComPtr<_IntegerData> b = create_as<_IntegerData>(L"IntegerData");
  ASSERT_EQ(a->put_Value(7), S_OK);
  ASSERT_EQ(a->Push(), S_OK);
  ASSERT_EQ(b->put_Value(1), S_OK);
  ASSERT_EQ(b->Pop(), S_OK);
  SHORT value = 0;
  ASSERT_EQ(b->get_Value(&value), S_OK);
  EXPECT_EQ(value, 7);

  // Another apartment has a history of its own.
  ASSERT_EQ(a->Push(), S_OK);
  HRESULT there = S_OK;
  on_thread([&] {
    ComPtr<_IntegerData> c = create_as<_IntegerData>(L"IntegerData");
    there = c->Pop();
  });
  EXPECT_EQ(there, static_cast<HRESULT>(0x800A0005));
  ASSERT_EQ(b->Pop(), S_OK);

  // The service's own error passes on unchanged, and a failed Pop changes nothing.
  ASSERT_EQ(b->put_Value(3), S_OK);
  EXPECT_EQ(b->Pop(), static_cast<HRESULT>(0x800A0005));
  ComPtr<IErrorInfo> info;
  ASSERT_EQ(GetErrorInfo(0, info.put()), S_OK);
  Bstr source, description;
  GUID guid{};
  info->GetSource(source.put());
  info->GetDescription(description.put());
  info->GetGUID(&guid);
  EXPECT_EQ(text_of(source.get()), L"ValueStack");
  EXPECT_EQ(text_of(description.get()), L"The value history holds no Integer");
  EXPECT_TRUE(guid == kClasses[class_index(L"IntegerData")].iid);
  ASSERT_EQ(b->get_Value(&value), S_OK);
  EXPECT_EQ(value, 3);

  Call late;
  call(late, b.get(), L"Pop");
  EXPECT_EQ(late.hr, DISP_E_EXCEPTION);
  EXPECT_EQ(late.exception.scode, static_cast<SCODE>(0x800A0005));
  EXPECT_EQ(late.source(), L"ValueStack");
  EXPECT_EQ(late.description(), L"The value history holds no Integer");
}

}  // namespace
}  // namespace vt
