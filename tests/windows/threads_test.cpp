// Several single-threaded apartments at once, each hammering its own
// objects, its global instances and its value history: every apartment
// sees only its own history and globals, and the library's live count is
// exact when they are done.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "leaks.h"
#include "support.h"

namespace vt {
namespace {

using valmetra::hosting::kGlobalInstanceIid;

constexpr int kThreads = 4;
constexpr auto kDuration = std::chrono::milliseconds(2500);
constexpr int kDepth = 8;  // values pushed before they are popped back

template <class I>
ComPtr<I> global_as(const wchar_t* class_name, const IID& iid) {
  ComPtr<IValmetraGlobalInstance> factory;
  EXPECT_EQ(library().get_class_object(kClasses[class_index(class_name)].clsid, kGlobalInstanceIid, factory.put_void()),
            S_OK);
  ComPtr<I> out;
  if (factory) {
    EXPECT_EQ(factory->GetGlobalInstance(iid, out.put_void()), S_OK);
  }
  return out;
}

struct Report {
  long long calls = 0;
  int failures = 0;
  std::string first_failure;
  void fail(const std::string& what) {
    if (failures++ == 0) first_failure = what;
  }
};

#define CHECK_HR(expr)                                                                      \
  do {                                                                                      \
    ++r.calls;                                                                              \
    const HRESULT check_hr_ = (expr);                                                       \
    if (check_hr_ != S_OK) r.fail(std::string(#expr) + " -> " + std::to_string(check_hr_)); \
  } while (0)
#define CHECK_TRUE(cond, what) \
  do {                         \
    if (!(cond)) r.fail(what); \
  } while (0)

// One apartment's work until `deadline`; `t` makes its values its own.
void hammer(int t, std::chrono::steady_clock::time_point deadline, Report& r) {
  Apartment apartment;
  if (apartment.result() != S_OK) return r.fail("CoInitializeEx");
  // Nothing in this apartment's history, whatever the others pushed.
  {
    ComPtr<_IntegerData> probe = create_as<_IntegerData>(L"IntegerData");
    ++r.calls;
    CHECK_TRUE(probe->Pop() == static_cast<HRESULT>(0x800A0005), "a new apartment's history is not empty");
  }
  const auto integer_global = global_as<_IntegerData>(L"IntegerData", kClasses[class_index(L"IntegerData")].iid);
  const auto double_global = global_as<_DoubleData>(L"DoubleData", kClasses[class_index(L"DoubleData")].iid);
  ComPtr<IDispatch> moniker_like;  // a global class's factory as IDispatch
  CHECK_HR(
      library().get_class_object(kClasses[class_index(L"LongData")].clsid, IID_IDispatch, moniker_like.put_void()));
  if (!integer_global || !double_global || !moniker_like) return r.fail("no global instances");

  for (long round = 0; std::chrono::steady_clock::now() < deadline; ++round) {
    // Fresh objects every round: the module count moves on every thread.
    ComPtr<_IntegerData> integer = create_as<_IntegerData>(L"IntegerData");
    ComPtr<_LongData> long_data = create_as<_LongData>(L"LongData");
    ComPtr<_SingleData> single = create_as<_SingleData>(L"SingleData");
    ComPtr<_DoubleData> double_data = create_as<_DoubleData>(L"DoubleData");
    ComPtr<_BooleanData> flag = create_as<_BooleanData>(L"BooleanData");
    if (!integer || !long_data || !single || !double_data || !flag) return r.fail("creation");

    // Push distinct values of every type, interleaved, then pop them back.
    for (int k = 0; k < kDepth; ++k) {
      const int v = t * 1000 + static_cast<int>(round % 100) * 10 + k;
      CHECK_HR(integer->put_Value(static_cast<SHORT>(v)));
      CHECK_HR(integer->Push());
      CHECK_HR(long_data->put_Value(100000 * t + v));
      CHECK_HR(long_data->Push());
      CHECK_HR(single->put_Value(static_cast<FLOAT>(v) + 0.5f));
      CHECK_HR(single->Push());
      CHECK_HR(double_data->put_Value(v + 0.25));
      CHECK_HR(double_data->PushAndSet(-1.0));
      CHECK_HR(flag->put_Value(((v + t) & 1) ? VARIANT_TRUE : VARIANT_FALSE));
      CHECK_HR(flag->Push(((v + t) & 1) ? VARIANT_TRUE : VARIANT_FALSE));
    }
    for (int k = kDepth - 1; k >= 0; --k) {
      const int v = t * 1000 + static_cast<int>(round % 100) * 10 + k;
      SHORT i2 = 0;
      LONG i4 = 0;
      FLOAT r4 = 0;
      DOUBLE r8 = 0;
      VARIANT_BOOL b = 0;
      CHECK_HR(flag->Pop(&b));
      CHECK_TRUE(b == (((v + t) & 1) ? VARIANT_TRUE : VARIANT_FALSE), "Boolean history");
      CHECK_HR(double_data->Pop());
      CHECK_HR(double_data->get_Value(&r8));
      CHECK_TRUE(r8 == v + 0.25, "Double history");
      CHECK_HR(single->Pop());
      CHECK_HR(single->get_Value(&r4));
      CHECK_TRUE(r4 == static_cast<FLOAT>(v) + 0.5f, "Single history");
      CHECK_HR(long_data->Pop());
      CHECK_HR(long_data->get_Value(&i4));
      CHECK_TRUE(i4 == 100000 * t + v, "Long history");
      CHECK_HR(integer->Pop());
      CHECK_HR(integer->get_Value(&i2));
      CHECK_TRUE(i2 == v, "Integer history");
    }
    ++r.calls;
    CHECK_TRUE(integer->Pop() == static_cast<HRESULT>(0x800A0005), "history not empty after the round");

    // Global instances: this apartment's value, read back through a new
    // request, through the held instance and by name through the factory.
    const SHORT mine = static_cast<SHORT>(t * 1000 + round % 1000);
    CHECK_HR(integer_global->put_Value(mine));
    const auto again = global_as<_IntegerData>(L"IntegerData", kClasses[class_index(L"IntegerData")].iid);
    SHORT seen = 0;
    CHECK_HR(again->get_Value(&seen));
    CHECK_TRUE(seen == mine, "Integer global instance");
    CHECK_HR(double_global->put_Value(mine * 0.5));
    DOUBLE seen_double = 0;
    CHECK_HR(double_global->get_Value(&seen_double));
    CHECK_TRUE(seen_double == mine * 0.5, "Double global instance");
    ++r.calls;
    CHECK_TRUE(put(moniker_like.get(), L"Value", v_i4(100000 * t + mine)) == S_OK, "put through the factory");
    ++r.calls;
    CHECK_TRUE(get_number(moniker_like.get(), L"Value") == 100000 * t + mine, "LongData global instance");
    r.calls += 2;  // the two global requests
  }
}

TEST(Threads, ApartmentsHammerTheirOwnObjectsGlobalsAndHistories) {
  ASSERT_TRUE(nothing_alive());
  // One object of this thread stays alive throughout: the count must never
  // reach zero while it lives, and must be exactly zero once it goes.
  Apartment here;
  ASSERT_EQ(here.result(), S_OK);
  ComPtr<IDispatch> witness = create(L"IntegerData");

  std::vector<Report> reports(kThreads);
  std::vector<std::thread> threads;
  const auto start = std::chrono::steady_clock::now();
  const auto deadline = start + kDuration;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { hammer(t + 1, deadline, reports[t]); });
  bool dropped_to_zero = false;
  while (std::chrono::steady_clock::now() < deadline) {
    dropped_to_zero |= library().can_unload_now() == S_OK;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  for (auto& th : threads) th.join();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  long long calls = 0;
  for (int t = 0; t < kThreads; ++t) {
    EXPECT_EQ(reports[t].failures, 0) << "thread " << t + 1 << ": " << reports[t].first_failure;
    EXPECT_GT(reports[t].calls, 1000) << "thread " << t + 1;
    calls += reports[t].calls;
  }
  EXPECT_FALSE(dropped_to_zero) << "the live count reached zero while an object was alive";
  EXPECT_FALSE(nothing_alive());  // the witness, exactly
  witness.reset();
  EXPECT_TRUE(nothing_alive());
  std::printf("[ threads  ] %d apartments x %.1f s: %lld calls\n", kThreads, seconds, calls);
}

}  // namespace
}  // namespace vt
