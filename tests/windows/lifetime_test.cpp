// Lifetimes and apartments: reference counts while calls re-enter, the last
// outside reference released in the middle of a call, factory locks, and
// the per-apartment state (global instances, the value history) that ends
// with its apartment and is never seen by another, also while several
// apartments hammer theirs at once.
#include <chrono>
#include <thread>

#include "support.h"

namespace vt {
namespace {

constexpr HRESULT kHistoryEmpty = static_cast<HRESULT>(0x800A0005);

ULONG count_of(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

template <class I = IDispatch>
ComPtr<I> global_of(const wchar_t* class_name, HRESULT expected = S_OK) {
  const auto& c = kClasses[class_index(class_name)];
  ComPtr<IValmetraGlobalInstance> factory;
  ComPtr<I> out;
  EXPECT_EQ(library().get_class_object(c.clsid, valmetra::hosting::kGlobalInstanceIid, factory.put_void()), S_OK);
  EXPECT_EQ(factory ? factory->GetGlobalInstance(c.iid, out.put_void()) : E_FAIL, expected);
  return out;
}

void on_thread(const std::function<void()>& body, bool with_apartment = true) {
  std::thread([&] {
    Apartment apartment(with_apartment);
    body();
  }).join();
}

using Lifetime = ApartmentTest;

// Add(object) asks the object for its value, and the answer adds to the same
// IntegerData first, by name: the outer call adds to the value the nested
// one left.
TEST_F(Lifetime, CallsReenterDuringAnArgumentConversion) {
  ComPtr<_IntegerData> target = create<_IntegerData>(L"IntegerData");
  ASSERT_EQ(target->put_Value(5), S_OK);
  Probe probe;
  probe.on_value = [&] {
    Call nested;
    call(nested, target.get(), L"Add", {v_i2(2)});
    EXPECT_EQ(nested.hr, S_OK);
  };
  Call outer;
  invoke(outer, target.get(), dispid_of(target.get(), L"Add"), DISPATCH_METHOD, {v_dispatch(&probe)}, true);
  EXPECT_EQ(outer.hr, S_OK);
  EXPECT_EQ(probe.value_calls, 1);
  SHORT value = 0;
  EXPECT_TRUE(target->get_Value(&value) == S_OK && value == 5 + 2 + 10) << value;
  EXPECT_EQ(count_of(target.get()), 1u);
  EXPECT_EQ(probe.refs(), 1u);
}

// The caller's only reference goes while the call converts its argument:
// the object lives until the call is over, then goes. Every entry of one
// parameter, each in an apartment of its own (some start the apartment's
// history), after a call with the object as its own argument; last, a
// global class's factory, which forwards the call to the apartment's global
// instance.
TEST_F(Lifetime, LastOutsideReleaseInsideACall) {
  auto last_release_inside = [](IDispatch* object, const valmetra::com::Member& m) {
    SCOPED_TRACE(narrow(m.name));
    ASSERT_TRUE(object);
    Probe probe;
    bool alive_after_release = false;
    probe.on_value = [&] {
      object->Release();
      alive_after_release = !nothing_alive();
    };
    Call c;
    invoke(c, object, m.dispid, static_cast<WORD>(m.kind), {v_dispatch(&probe)}, true);
    if (probe.value_calls == 0) {
      // A Variant parameter takes the object as it is: nothing calls back,
      // and the caller's reference is still there.
      EXPECT_EQ(c.hr, S_OK);
      object->Release();
    } else {
      EXPECT_TRUE(c.hr == S_OK || c.hr == DISP_E_EXCEPTION) << std::hex << c.hr;
      EXPECT_EQ(probe.value_calls, 1);
      EXPECT_TRUE(alive_after_release) << "the object died in the middle of its own call";
    }
  };
  for (const auto& c : kClasses)
    for (unsigned k = 0; k < c.table->count; ++k)
      if (c.table->members[k].param_count == 1 && c.table->members[k].kind != valmetra::com::Kind::Get) {
        on_thread([&] {
          ComPtr<IDispatch> self = create(c.name);
          Call own;
          const auto& m = c.table->members[k];
          invoke(own, self.get(), m.dispid, WORD(m.kind), {v_dispatch(self.get())}, true);
          EXPECT_EQ(count_of(self.get()), 1u);
          last_release_inside(create(c.name).detach(), c.table->members[k]);
        });
        EXPECT_TRUE(nothing_alive()) << "the object outlived the call: " << c.table->members[k].dispid;
      }
  const auto& integer = kClasses[class_index(L"IntegerData")];
  IDispatch* factory = nullptr;
  library().get_class_object(integer.clsid, IID_IDispatch, reinterpret_cast<void**>(&factory));
  last_release_inside(factory, integer.table->members[0]);  // Add
  SHORT value = 0;
  EXPECT_TRUE(global_of<_IntegerData>(L"IntegerData")->get_Value(&value) == S_OK && value == 10) << value;
}

// LockServer from several factories and threads: the library stays until
// the last lock goes; an unlock without a lock changes nothing.
TEST_F(Lifetime, FactoryLocksAcrossFactoriesAndThreads) {
  auto lock = [](const wchar_t* name, BOOL on) {
    ComPtr<IClassFactory> f;
    EXPECT_EQ(library().get_class_object(kClasses[class_index(name)].clsid, IID_IClassFactory, f.put_void()), S_OK);
    EXPECT_EQ(count_of(f.get()), 1u);
    return f->LockServer(on);
  };
  for (int i = 0; i < 3; ++i) ASSERT_EQ(lock(L"IntegerData", TRUE), S_OK);
  std::thread([&] {
    for (int i = 0; i < 2; ++i) EXPECT_EQ(lock(L"TextConstants", TRUE), S_OK);
  }).join();
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(nothing_alive()) << "after " << i << " unlocks";
    ASSERT_EQ(lock(i % 2 ? L"LongData" : L"InterfaceStack", FALSE), S_OK);
  }
  EXPECT_TRUE(nothing_alive());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(lock(L"LongData", FALSE), E_UNEXPECTED);
  EXPECT_TRUE(nothing_alive());
}

// Global instances and the history live until the apartment ends, however
// many references the host dropped; a nested initialisation ends nothing.
// Without an apartment: no global instance, and the history service's
// platform failure reaches the caller as it is, the variable unwritten.
TEST(Apartments, GlobalInstancesAndHistoryAreTheApartments) {
  on_thread([&] {
    global_of(L"DoubleData");
    EXPECT_FALSE(nothing_alive());
    ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE);
    CoUninitialize();
    EXPECT_FALSE(nothing_alive());
  });
  EXPECT_TRUE(nothing_alive());
  on_thread([&] {
    EXPECT_EQ(create<_IntegerData>(L"IntegerData")->Push(), S_OK);
    EXPECT_FALSE(nothing_alive());
  });
  EXPECT_TRUE(nothing_alive());
  on_thread([&] {
    EXPECT_FALSE(global_of(L"IntegerData", CO_E_NOTINITIALIZED));
    VARIANT variable = v_of(VT_BOOL, VARIANT_TRUE);
    Call c;
    call(c, create(L"BooleanData").get(), L"PushAndSet", {v_ref(&variable), v_of(VT_BOOL, VARIANT_FALSE)});
    EXPECT_EQ(c.hr, DISP_E_EXCEPTION);
    EXPECT_EQ(c.exception.scode, CO_E_NOTINITIALIZED);
    EXPECT_NE(text_of(c.exception.bstrDescription), L"");
    EXPECT_EQ(variable.vt, VT_BOOL);
    EXPECT_EQ(variable.boolVal, VARIANT_TRUE);
  }, false);
}

// Four apartments at once, each pushing and popping its own values through
// fresh objects and setting its own global instance, which start empty
// although this thread's apartment holds a value in both; one object of
// this thread stays alive throughout: the live count never reaches zero
// while it lives (and the listener finds it zero once the apartment is over).
TEST(Apartments, FourApartmentsHammerTheirOwnObjectsGlobalsAndHistories) {
  Apartment here;
  ComPtr<_IntegerData> witness = create<_IntegerData>(L"IntegerData"), mine = global_of<_IntegerData>(L"IntegerData");
  ASSERT_TRUE(mine->put_Value(11) == S_OK && witness->put_Value(7) == S_OK && witness->Push() == S_OK);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
  std::vector<std::string> failures(4);
  std::vector<std::thread> threads;
  for (int t = 1; t <= 4; ++t)
    threads.emplace_back([&, t] {
      Apartment apartment;
      auto fail = [&](const char* what) { if (failures[t - 1].empty()) failures[t - 1] = what; };
      auto global = global_of<_IntegerData>(L"IntegerData");
      SHORT start = -1;
      if (global->get_Value(&start) || start != 0) fail("a new apartment's global instance");
      if (create<_IntegerData>(L"IntegerData")->Pop() != kHistoryEmpty) fail("a new apartment's history");
      long round = 0;
      for (; std::chrono::steady_clock::now() < deadline; ++round) {
        auto integer = create<_IntegerData>(L"IntegerData");
        for (int k = 0; k < 16; ++k) {
          const SHORT v = static_cast<SHORT>(t * 1000 + static_cast<int>(round % 100) * 10 + k);
          if (integer->put_Value(v) || (k % 2 ? integer->PushAndSet(-1) : integer->Push())) fail("push");
        }
        for (int k = 15; k >= 0; --k) {
          SHORT v = 0;
          if (integer->Pop() || integer->get_Value(&v) || v != t * 1000 + (round % 100) * 10 + k) fail("history");
        }
        if (integer->Pop() != kHistoryEmpty) fail("history not empty after the round");
        const SHORT value = static_cast<SHORT>(t * 1000 + round % 1000);
        SHORT seen = 0;
        if (global->put_Value(value) || global_of<_IntegerData>(L"IntegerData")->get_Value(&seen) || seen != value)
          fail("global instance");
      }
      if (round < 16) fail("too few rounds to overlap the others");
    });
  bool dropped_to_zero = false;
  while (std::chrono::steady_clock::now() < deadline) {
    dropped_to_zero |= library().can_unload_now() == S_OK;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) EXPECT_EQ(failures[t], "") << "thread " << t + 1;
  EXPECT_FALSE(dropped_to_zero) << "the live count reached zero while an object was alive";
  SHORT value = 0;
  EXPECT_TRUE(mine->get_Value(&value) == S_OK && value == 11) << "this apartment's global instance";
  EXPECT_TRUE(witness->Pop() == S_OK && witness->get_Value(&value) == S_OK && value == 7) << "this apartment's history";
}

}  // namespace
}  // namespace vt
