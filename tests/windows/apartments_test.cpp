// Per-apartment state: global instances and the value history belong to
// one apartment, end with it, and are never seen by another, also while
// several apartments hammer theirs at once.
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "support.h"

namespace vt {
namespace {

using valmetra::hosting::kGlobalInstanceIid;
constexpr HRESULT kHistoryEmpty = static_cast<HRESULT>(0x800A0005);

// Runs `body` on a new thread, in its own apartment unless told otherwise.
void on_thread(const std::function<void()>& body, bool with_apartment = true) {
  std::thread([&] {
    Apartment apartment(with_apartment);
    body();
  }).join();
}

template <class I = IDispatch>
ComPtr<I> global_of(const wchar_t* class_name, HRESULT expected = S_OK) {
  const auto& c = kClasses[class_index(class_name)];
  ComPtr<IValmetraGlobalInstance> factory;
  EXPECT_EQ(library().get_class_object(c.clsid, kGlobalInstanceIid, factory.put_void()), S_OK);
  ComPtr<I> out;
  if (factory) {
    EXPECT_EQ(factory->GetGlobalInstance(std::is_same_v<I, IDispatch> ? IID_IDispatch : c.iid, out.put_void()),
              expected);
  }
  return out;
}

bool unloadable() { return library().can_unload_now() == S_OK; }

using Apartments = ApartmentTest;

TEST_F(Apartments, GlobalInstancesAreSharedWithinAnApartmentOnly) {
  ComPtr<IDispatch> first = global_of(L"IntegerData"), second = global_of(L"IntegerData");
  ASSERT_TRUE(first && second);
  ComPtr<IUnknown> a, b;
  ASSERT_EQ(first.query(IID_IUnknown, a), S_OK);
  ASSERT_EQ(second.query(IID_IUnknown, b), S_OK);
  EXPECT_EQ(a.get(), b.get());
  ASSERT_EQ(put(first.get(), L"Value", v_i2(11)), S_OK);
  EXPECT_EQ(get_number(second.get(), L"Value"), 11);
  EXPECT_EQ(get_number(create(L"IntegerData").get(), L"Value"), 0);  // a created object is a new one
  EXPECT_EQ(get_number(global_of(L"LongData").get(), L"Value"), 0);   // each class has its own
  double there = -1;
  on_thread([&] {
    ComPtr<IDispatch> theirs = global_of(L"IntegerData");
    there = get_number(theirs.get(), L"Value");
    put(theirs.get(), L"Value", v_i2(5));
  });
  EXPECT_EQ(there, 0);
  EXPECT_EQ(get_number(first.get(), L"Value"), 11);
}

// Global instances and the history live until the apartment ends, however
// many references the host dropped; a nested initialisation ends nothing.
TEST_F(Apartments, GlobalInstancesAndHistoryEndWithTheApartment) {
  on_thread([&] {
    global_of(L"DoubleData");
    EXPECT_FALSE(unloadable());
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE);
    CoUninitialize();
    EXPECT_FALSE(unloadable());
  });
  EXPECT_TRUE(unloadable());
  on_thread([&] {
    Call push;
    call(push, create(L"IntegerData").get(), L"Push");
    ASSERT_EQ(push.hr, S_OK);
    EXPECT_FALSE(unloadable());
  });
  EXPECT_TRUE(unloadable());
}

// Without an apartment: no global instance, and the history service's
// platform failure reaches the caller as it is, the variable unwritten.
TEST(ApartmentsWithoutCom, NoGlobalInstanceAndNoHistory) {
  on_thread([&] {
    EXPECT_FALSE(global_of(L"IntegerData", CO_E_NOTINITIALIZED));
    VARIANT variable = v_bool(true);
    Call c;
    call(c, create(L"BooleanData").get(), L"PushAndSet", {v_ref(&variable), v_bool(false)});
    EXPECT_EQ(c.hr, DISP_E_EXCEPTION);
    EXPECT_EQ(c.exception.scode, CO_E_NOTINITIALIZED);
    EXPECT_FALSE(c.description().empty());
    EXPECT_EQ(variable.vt, VT_BOOL);
    EXPECT_EQ(variable.boolVal, VARIANT_TRUE);
  }, false);
  EXPECT_TRUE(unloadable());
}

// The history is the apartment's: shared by its objects, empty elsewhere;
// the service's error passes on unchanged and a failed Pop changes nothing.
TEST_F(Apartments, HistoryIsSharedByTheObjectsOfAnApartment) {
  auto a = create_as<_IntegerData>(L"IntegerData"), b = create_as<_IntegerData>(L"IntegerData");
  ASSERT_EQ(a->put_Value(7), S_OK);
  ASSERT_EQ(a->Push(), S_OK);
  HRESULT there = S_OK;
  on_thread([&] { there = create_as<_IntegerData>(L"IntegerData")->Pop(); });
  EXPECT_EQ(there, kHistoryEmpty);
  ASSERT_EQ(b->Pop(), S_OK);
  SHORT value = 0;
  ASSERT_EQ(b->get_Value(&value), S_OK);
  EXPECT_EQ(value, 7);
  ASSERT_EQ(b->put_Value(3), S_OK);
  EXPECT_EQ(b->Pop(), kHistoryEmpty);
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
  EXPECT_EQ(late.exception.scode, kHistoryEmpty);
  EXPECT_EQ(late.source(), L"ValueStack");
}

// Four apartments at once, each pushing and popping its own values through
// fresh objects and setting its own global instances; one object of this
// thread stays alive throughout: the live count never reaches zero while
// it lives and is exactly zero once it goes.
TEST(Threads, ApartmentsHammerTheirOwnObjectsGlobalsAndHistories) {
  ASSERT_TRUE(nothing_alive());
  Apartment here;
  ComPtr<IDispatch> witness = create(L"IntegerData");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
  std::vector<std::string> failures(4);
  std::vector<long long> calls(4);
  std::vector<std::thread> threads;
  for (int t = 1; t <= 4; ++t)
    threads.emplace_back([&, t] {
      Apartment apartment;
      auto fail = [&](const char* what) { if (failures[t - 1].empty()) failures[t - 1] = what; };
      if (create_as<_IntegerData>(L"IntegerData")->Pop() != kHistoryEmpty) fail("a new apartment's history");
      auto global = global_of<_IntegerData>(L"IntegerData");
      for (long round = 0; std::chrono::steady_clock::now() < deadline; ++round) {
        auto integer = create_as<_IntegerData>(L"IntegerData");
        auto real = create_as<_DoubleData>(L"DoubleData");
        for (int k = 0; k < 8; ++k) {
          const int v = t * 1000 + static_cast<int>(round % 100) * 10 + k;
          if (integer->put_Value(static_cast<SHORT>(v)) || integer->Push() || real->put_Value(v + 0.25) ||
              real->PushAndSet(-1.0))
            fail("push");
        }
        for (int k = 7; k >= 0; --k) {
          const int v = t * 1000 + static_cast<int>(round % 100) * 10 + k;
          SHORT i2 = 0;
          DOUBLE r8 = 0;
          if (real->Pop() || real->get_Value(&r8) || r8 != v + 0.25) fail("Double history");
          if (integer->Pop() || integer->get_Value(&i2) || i2 != v) fail("Integer history");
        }
        if (integer->Pop() != kHistoryEmpty) fail("history not empty after the round");
        const SHORT mine = static_cast<SHORT>(t * 1000 + round % 1000);
        SHORT seen = 0;
        if (global->put_Value(mine) || global_of<_IntegerData>(L"IntegerData")->get_Value(&seen) || seen != mine)
          fail("global instance");
        calls[t - 1] += 45;
      }
    });
  bool dropped_to_zero = false;
  while (std::chrono::steady_clock::now() < deadline) {
    dropped_to_zero |= unloadable();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) {
    EXPECT_EQ(failures[t], "") << "thread " << t + 1;
    EXPECT_GT(calls[t], 1000) << "thread " << t + 1;
  }
  EXPECT_FALSE(dropped_to_zero) << "the live count reached zero while an object was alive";
  EXPECT_FALSE(nothing_alive());
  witness.reset();
  EXPECT_TRUE(nothing_alive());
  std::printf("[ threads  ] 4 apartments: %lld calls\n", calls[0] + calls[1] + calls[2] + calls[3]);
}

}  // namespace
}  // namespace vt
