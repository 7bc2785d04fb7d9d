// Sequences of operations on every class's core, against a model.
//
// The input is decoded (FuzzedDataProvider) into a sequence of calls: which
// class and object (two of each value class, so one object's Pop receives
// another's Push), which member, its arguments (boundary values mostly, any
// bits sometimes), for history calls whether the value history service fails
// with an injected error, and a host floating-point environment per call.
// The sequence runs twice from fresh objects and a fresh history: once with
// the default environment, once with a hostile one per call (other rounding
// modes, unmasked traps, sticky flags, FTZ/DAZ).
//
// Invariants checked after every call:
// - no undefined behaviour, no memory error, no trap (sanitizers, SIGFPE);
// - the call ends in success or an error of the vocabulary (5, 6, 7, 11, 13),
//   the value history service's own error, or the injected error passed on
//   unchanged; and it is the error the model expects;
// - a failed integer operation leaves every integer field as it was (only
//   ModuloAddToThisLimit keeps its new UpperLimit, as documented);
// - fields and results equal the model's: checked 16/32-bit arithmetic,
//   halves-to-even rounding, the counting operations, ModuloAdd, powers,
//   IEEE single/double arithmetic stored and then checked, the shared
//   history; flags are -1 or 0 where the class sets them; a history call
//   reaches the service exactly once (BooleanData.Drop never);
// - the percent counters' Default, RawPercent, Percent and PercentDisplay
//   equal the exact references; the averages' listing and statistics equal
//   the reference ones; TextConstants' tables are consistent;
// - the host's environment is bit for bit what it was before the call;
// - both runs give the same trace: no result depends on the host's
//   environment.
#include <fuzzer/FuzzedDataProvider.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "frame/history.h"
#include "fuzz_support.h"
#include "reference.h"
#include "stats/average.h"
#include "stats/percent.h"
#include "text/text_constants.h"
#include "values/boolean_data.h"
#include "values/double_data.h"
#include "values/integer_data.h"
#include "values/long_data.h"
#include "values/single_data.h"

namespace {

using namespace valmetra;

// ---------------------------------------------------------------------------
// A value history service that can fail on demand and counts its calls.

class FaultyHistory final : public ValueHistory {
 public:
  std::int32_t fail_with = 0;
  long calls = 0;

  Flag PopBoolean() override { return gate(), inner_.PopBoolean(); }
  void PushBoolean(Flag& v) override { gate(), inner_.PushBoolean(v); }
  void PushAndSetBoolean(Flag& t, Flag s) override { gate(), inner_.PushAndSetBoolean(t, s); }
  void DropDouble() override { gate(), inner_.DropDouble(); }
  Double PopDouble() override { return gate(), inner_.PopDouble(); }
  void PushDouble(Double& v) override { gate(), inner_.PushDouble(v); }
  void PushAndSetDouble(Double& t, Double s) override { gate(), inner_.PushAndSetDouble(t, s); }
  void DropInteger() override { gate(), inner_.DropInteger(); }
  Integer PopInteger() override { return gate(), inner_.PopInteger(); }
  void PushInteger(Integer& v) override { gate(), inner_.PushInteger(v); }
  void PushAndSetInteger(Integer& t, Integer s) override { gate(), inner_.PushAndSetInteger(t, s); }
  void DropLong() override { gate(), inner_.DropLong(); }
  Long PopLong() override { return gate(), inner_.PopLong(); }
  void PushLong(Long& v) override { gate(), inner_.PushLong(v); }
  void PushAndSetLong(Long& t, Long s) override { gate(), inner_.PushAndSetLong(t, s); }
  void DropSingle() override { gate(), inner_.DropSingle(); }
  Single PopSingle() override { return gate(), inner_.PopSingle(); }
  void PushSingle(Single& v) override { gate(), inner_.PushSingle(v); }
  void PushAndSetSingle(Single& t, Single s) override { gate(), inner_.PushAndSetSingle(t, s); }

 private:
  void gate() {
    ++calls;
    if (fail_with != 0) {
      const std::int32_t n = fail_with;
      fail_with = 0;
      throw Error(n, std::u16string(fuzz::kInjectedDescription), std::u16string(fuzz::kInjectedSource));
    }
  }
  InProcessHistory inner_;
};

FaultyHistory* g_history = nullptr;

std::unique_ptr<ValueHistory> make_history() {
  auto h = std::make_unique<FaultyHistory>();
  g_history = h.get();
  return h;
}

// ---------------------------------------------------------------------------
// Helpers.

std::uint64_t bits_of(float v) { return std::bit_cast<std::uint32_t>(v); }
std::uint64_t bits_of(double v) { return std::bit_cast<std::uint64_t>(v); }
template <class T>
  requires std::is_integral_v<T>
std::uint64_t bits_of(T v) {
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(v));
}

template <class T>
std::string show(T v) {
  if constexpr (std::is_floating_point_v<T>) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.9g [%llx]", static_cast<double>(v),
                  static_cast<unsigned long long>(bits_of(v)));
    return buf;
  } else {
    return std::to_string(v);
  }
}

// Stored IEEE result and the floating check of one arithmetic step done in
// T's own precision: 11 for division by zero, 6 for invalid or overflow.
template <class T, class Op>
int ieee_step(T a, T b, Op op, T& out) {
  std::feclearexcept(FE_ALL_EXCEPT);
  volatile T x = a;
  volatile T y = b;
  volatile T r = op(static_cast<T>(x), static_cast<T>(y));
  out = r;
  const int raised = std::fetestexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW);
  std::feclearexcept(FE_ALL_EXCEPT);
  if (raised & FE_DIVBYZERO) return 11;
  return raised != 0 ? 6 : 0;
}

// Quotient rounded to the nearest whole number, halves to even.
std::int64_t divide_half_even(std::int64_t n, std::int64_t d) {
  if (d < 0) n = -n, d = -d;
  std::int64_t q = n / d;
  std::int64_t r = n % d;
  if (r < 0) q -= 1, r += d;
  if (2 * r > d || (2 * r == d && (q & 1) != 0)) q += 1;
  return q;
}

// b to the power n rounded halves to even, for whole b; error 11 for 0 to a
// negative power, 6 for a power far beyond 32 bits.
std::int64_t whole_power(std::int64_t b, int n, int& error) {
  if (n == 0) return 1;
  if (b == 0) {
    if (n < 0) error = 11;
    return 0;
  }
  if (b == 1) return 1;
  if (b == -1) return (n % 2 != 0) ? -1 : 1;
  if (n < 0) return 0;  // |b^n| <= 1/2: 0.5 rounds to the even 0
  std::int64_t r = 1;
  for (int k = 0; k < n; ++k) {
    r *= b;
    if (r > (std::int64_t{1} << 33) || r < -(std::int64_t{1} << 33)) {
      error = 6;
      return 0;
    }
  }
  return r;
}

std::uint32_t mix(std::uint32_t x) {
  x = (x + 1) * 0x9E3779B9u;
  x ^= x >> 15;
  x *= 0x85EBCA6Bu;
  x ^= x >> 13;
  return x;
}

// ---------------------------------------------------------------------------
// Operation tables.

enum IntOp {
  I_Add, I_AddToBottomLimit, I_AddToMaximum, I_Decrement, I_DecrementABS, I_DecrementToBottomLimit,
  I_DecrementToUpperLimit, I_DecrementToZero, I_DecrementYourself, I_DefaultGet, I_DefaultPut, I_Divide,
  I_DoubleYourself, I_Drop, I_GreaterOfTheTwo, I_Halve, I_HalveYourself, I_IDivide, I_Increment,
  I_IncrementAndGet, I_IncrementToBottomLimit, I_IncrementToLimit, I_IncrementToMaximum,
  I_IncrementToZeroLimit, I_IncrementYourself, I_IsBetween, I_IsEven, I_IsOdd, I_LesserOfTheTwo,
  I_LimitGet, I_LimitPut, I_LowerLimitGet, I_LowerLimitPut, I_ModuloAdd, I_ModuloAddToThisLimit,
  I_Multiply, I_Pop, I_Push, I_PushAndSet, I_Raise, I_RaiseYourself, I_SetTheLimits, I_Subtract, I_Swap,
  I_UpperLimitGet, I_UpperLimitPut, I_ValueGet, I_ValuePut, I_ValueAfterIncrement, I_ValueBe4Increment,
  I_Zapp, I_Zero, I_ZdecrementToLimit, I_ZincrementToLimit, I_Count
};

bool integer_only(int op) {
  switch (op) {
    case I_AddToBottomLimit: case I_AddToMaximum: case I_DecrementABS: case I_DecrementToBottomLimit:
    case I_DecrementToUpperLimit: case I_IsBetween: case I_IsEven: case I_IsOdd:
    case I_ModuloAddToThisLimit: case I_Swap: case I_ValueAfterIncrement: case I_ValueBe4Increment:
      return true;
    default:
      return false;
  }
}

enum FloatOp {
  F_Add, F_Decrement, F_DecrementToZero, F_DecrementYourself, F_DefaultGet, F_DefaultPut, F_Divide,
  F_DoubleYourself, F_GreaterOfTheTwo, F_Halve, F_HalveYourself, F_IDivide, F_Increment,
  F_IncrementYourself, F_LesserOfTheTwo, F_LimitGet, F_LimitPut, F_LowerLimitGet, F_LowerLimitPut,
  F_ModuloAdd, F_Multiply, F_Raise, F_RaiseYourself, F_Subtract, F_Drop, F_Pop, F_Push, F_PushAndSet,
  F_SetTheLimits, F_UpperLimitGet, F_UpperLimitPut, F_ValueGet, F_ValuePut, F_Zapp, F_Zero, F_Count
};

bool single_only(int op) {
  switch (op) {
    case F_GreaterOfTheTwo: case F_LesserOfTheTwo: case F_LimitGet: case F_LimitPut: case F_LowerLimitGet:
    case F_LowerLimitPut: case F_ModuloAdd: case F_SetTheLimits: case F_UpperLimitGet: case F_UpperLimitPut:
      return true;
    default:
      return false;
  }
}

enum BoolOp {
  B_DefaultGet, B_DefaultPut, B_No, B_Reset, B_ResetThis, B_SetThis, B_Toggle, B_ToggleThis, B_Yes, B_Drop,
  B_Pop, B_Push, B_PushAndSet, B_ValueGet, B_ValuePut, B_Count
};

enum PercentOp {
  P_AnotherSampleOccured, P_Occured, P_DefaultGet, P_DefaultPut, P_Percent, P_PercentDisplay, P_RawPercent,
  P_ManySamples, P_ManyOccurrences, P_Count
};

enum AverageOp {
  A_AddAPieceOfData, A_AddNumericData, A_Here, A_Include, A_GiveMeYourNumbers, A_DataAverage, A_Average,
  A_DataHighest, A_DataLowest, A_AlwaysZero, A_Count
};

template <class T>
struct IntModel {
  static constexpr std::int64_t kMin = std::numeric_limits<T>::min();
  static constexpr std::int64_t kMax = std::numeric_limits<T>::max();
  static bool fits(std::int64_t x) { return x >= kMin && x <= kMax; }
  std::int64_t v = 0, lo = 0, up = 0;
  std::vector<T>* history = nullptr;
};

template <class T>
struct FloatModel {
  T v{}, lo{}, up{};
  std::vector<T>* history = nullptr;
};

template <class Count>
struct CounterModel {
  Count occurrences{}, samples{};
};

// ---------------------------------------------------------------------------
// One run of the sequence.

class Run {
 public:
  Run(const std::uint8_t* data, std::size_t size, bool hostile) : fdp_(data, size), hostile_(hostile) {}

  std::vector<std::uint64_t> trace;

  void go() {
    set_history_factory(&make_history);
    release_thread_history();
    history();  // creates this run's service
    for (int k = 0; k < 2; ++k) {
      int_models_[k].history = &integer_history_;
      long_models_[k].history = &long_history_;
      single_models_[k].history = &single_history_;
      double_models_[k].history = &double_history_;
    }
    for (int step = 0; step < 400 && fdp_.remaining_bytes() > 0; ++step) {
      const int cls = fdp_.ConsumeIntegralInRange<int>(0, 7);
      const int k = fdp_.ConsumeBool() ? 1 : 0;
      switch (cls) {
        case 0: integral(integers_[k], int_models_[k], "IntegerData"); break;
        case 1: integral(longs_[k], long_models_[k], "LongData"); break;
        case 2: floating(singles_[k], single_models_[k], "SingleData"); break;
        case 3: floating(doubles_[k], double_models_[k], "DoubleData"); break;
        case 4: boolean(booleans_[k], boolean_models_[k]); break;
        case 5: percent(); break;
        case 6: averages(); break;
        default: text_constants(); break;
      }
    }
    release_thread_history();
    set_history_factory(nullptr);
    g_history = nullptr;
  }

 private:
  // --- decoding ----------------------------------------------------------
  fuzz::HostEnv env() {
    const std::uint8_t b = fdp_.ConsumeIntegral<std::uint8_t>();
    return hostile_ ? fuzz::hostile_env(mix(b)) : fuzz::default_env();
  }
  template <class F>
  fuzz::Outcome call(F&& f) {
    return fuzz::call_in_env(env(), std::forward<F>(f));
  }

  template <class T>
  T int_arg() {
    constexpr std::int64_t lo = std::numeric_limits<T>::min();
    constexpr std::int64_t hi = std::numeric_limits<T>::max();
    static constexpr std::int64_t table[] = {0, 1, -1, 2, -2, 3, 5, 7, -7, 10, 13, 14, 15, 16384, -16384,
                                             30000, -30000, hi, lo, hi - 1, lo + 1, hi / 2, lo / 2};
    const std::uint8_t sel = fdp_.ConsumeIntegral<std::uint8_t>();
    if (sel < 160) return static_cast<T>(table[sel % std::size(table)]);
    return fdp_.ConsumeIntegral<T>();
  }
  Integer exponent_arg() {
    static constexpr Integer table[] = {0, 1, -1, 2, -2, 3, 14, 15, 16, 30, 31, 32, 39, 64, 400, -400,
                                        1070, -1070, -1074, -1080, 32767, -32768};
    const std::uint8_t sel = fdp_.ConsumeIntegral<std::uint8_t>();
    if (sel < 160) return table[sel % std::size(table)];
    return fdp_.ConsumeIntegral<Integer>();
  }
  template <class T>
  T float_arg() {
    using L = std::numeric_limits<T>;
    static const T table[] = {T(0), -T(0), T(1), T(-1), T(0.5), T(-0.5), T(1.5), T(2.5), T(3.5), T(-2.5),
                              T(-7), T(7.6), T(0.4), T(10), T(10.5), T(13), T(3e9), T(1e10),
                              T(2147483647.0), T(2147483648.0), T(-2147483648.0), T(-2147483649.0),
                              T(16777216), T(3e38), L::max(), L::lowest(), L::min(), L::denorm_min(),
                              -L::denorm_min(), L::infinity(), -L::infinity(), L::quiet_NaN(),
                              -L::quiet_NaN(), L::signaling_NaN(), T(0.145), T(0.1)};
    const std::uint8_t sel = fdp_.ConsumeIntegral<std::uint8_t>();
    if (sel < 144) return table[sel % std::size(table)];
    if constexpr (std::is_same_v<T, float>) {
      return std::bit_cast<float>(fdp_.ConsumeIntegral<std::uint32_t>());
    } else {
      return std::bit_cast<double>(fdp_.ConsumeIntegral<std::uint64_t>());
    }
  }
  Flag flag_arg() {
    const std::uint8_t sel = fdp_.ConsumeIntegral<std::uint8_t>();
    if (sel < 96) return kTrue;
    if (sel < 192) return kFalse;
    return fdp_.ConsumeIntegral<Flag>();
  }
  std::u16string text_arg() {
    const std::size_t n = fdp_.ConsumeIntegralInRange<std::size_t>(0, 24);
    std::u16string s;
    constexpr std::size_t kAlphabet = std::size(fuzz::kNumberAlphabet) - 1;
    for (std::size_t k = 0; k < n; ++k) {
      const std::uint8_t b = fdp_.ConsumeIntegral<std::uint8_t>();
      s += b < 250 ? fuzz::kNumberAlphabet[b % kAlphabet] : static_cast<char16_t>(0x100 + b);
    }
    return s;
  }

  // Arms the history service to fail the next call, sometimes. Returns the
  // error the call must then end with (0 for none).
  std::int32_t arm() {
    static constexpr std::int32_t injected[] = {5, 7, 70, 424};
    const std::uint8_t b = fdp_.ConsumeIntegral<std::uint8_t>();
    const std::int32_t n = b < 24 ? injected[b % 4] : 0;
    g_history->fail_with = n;
    fuzz::g_injected_number = n;
    return n;
  }
  void disarm() {
    g_history->fail_with = 0;
    fuzz::g_injected_number = 0;
  }

  void record(std::uint64_t v) { trace.push_back(v); }

  // Names the call under way for a failure report.
  void note(const char* cls, int op) {
    fuzz::g_context = {cls, op, static_cast<long>(trace.size() / 2), hostile_ ? "hostile" : "default"};
  }

  template <class Where>
  static void expect_error(const Where& where, const fuzz::Outcome& out, int want) {
    FUZZ_CHECK(out.error == want,
               where() + ": error " + std::to_string(out.error) + ", expected " + std::to_string(want));
  }

  // One history operation of a numeric value class, kind 0 Drop, 1 Pop, 2 Push,
  // 3 PushAndSet(set_to), against the model's value and history. Returns the
  // error the call must end with.
  template <class Obj, class V, class T>
  int history_op(Obj& o, int kind, V& value, std::vector<T>& h, T set_to, fuzz::Outcome& out) {
    const std::int32_t injected = arm();
    out = call([&] {
      if (kind == 0) o.Drop();
      if (kind == 1) o.Pop();
      if (kind == 2) o.Push();
      if (kind == 3) o.PushAndSet(set_to);
    });
    disarm();
    if (injected != 0) return injected;
    if (kind <= 1 && h.empty()) return 5;  // the service's own error
    if (kind == 0) {
      h.pop_back();
    } else if (kind == 1) {
      value = h.back();
      h.pop_back();
    } else {
      h.push_back(static_cast<T>(value));
      if (kind == 3) value = set_to;
    }
    return 0;
  }

  // --- IntegerData, LongData ----------------------------------------------
  template <class Obj, class T>
  void integral(Obj& o, IntModel<T>& m, const char* cls) {
    using M = IntModel<T>;
    int op = fdp_.ConsumeIntegralInRange<int>(0, I_Count - 1);
    if constexpr (!std::is_same_v<Obj, IntegerData>) {
      while (integer_only(op)) op = (op + 1) % I_Count;
    }
    note(cls, op);
    const std::int64_t v0 = m.v, lo0 = m.lo, up0 = m.up;
    const long calls0 = g_history->calls;
    int want = 0;
    bool has_result = false;
    std::int64_t want_result = 0;
    std::int64_t got = 0;
    bool history_call = false;
    fuzz::Outcome out;
    // Stores r when it fits, else expects Overflow.
    auto step = [&](std::int64_t r) {
      if (!M::fits(r)) {
        want = 6;
        return false;
      }
      m.v = r;
      return true;
    };
    auto modulo = [&](std::int64_t madd) {
      if (madd > m.up || madd < m.lo) return;
      const std::int64_t sum = m.v + madd;
      if (!M::fits(sum)) {
        want = 6;
      } else if (sum <= m.up) {
        m.v = sum;
      } else {
        step(m.up - madd);
      }
    };
    switch (op) {
      case I_Add: case I_Subtract: case I_Multiply: {
        const T a = int_arg<T>();
        out = call([&] {
          if (op == I_Add) o.Add(a);
          if (op == I_Subtract) o.Subtract(a);
          if (op == I_Multiply) o.Multiply(a);
        });
        step(op == I_Add ? m.v + a : op == I_Subtract ? m.v - a : m.v * a);
        break;
      }
      case I_Decrement: case I_DecrementYourself:
        out = call([&] { op == I_Decrement ? o.Decrement() : o.DecrementYourself(); });
        step(m.v - 1);
        break;
      case I_Increment: case I_IncrementYourself:
        out = call([&] { op == I_Increment ? o.Increment() : o.IncrementYourself(); });
        step(m.v + 1);
        break;
      case I_DoubleYourself:
        out = call([&] { o.DoubleYourself(); });
        step(2 * m.v);
        break;
      case I_DecrementToZero:
        out = call([&] { o.DecrementToZero(); });
        if (m.v > 0) --m.v;
        break;
      case I_DefaultGet: case I_ValueGet: case I_LimitGet: case I_LowerLimitGet: case I_UpperLimitGet:
        has_result = true;
        out = call([&] {
          if (op == I_DefaultGet) got = o.Default();
          if (op == I_ValueGet) got = o.Value();
          if (op == I_LimitGet) got = o.Limit();
          if (op == I_LowerLimitGet) got = o.LowerLimit();
          if (op == I_UpperLimitGet) got = o.UpperLimit();
        });
        want_result = (op == I_DefaultGet || op == I_ValueGet) ? m.v : op == I_UpperLimitGet ? m.up : m.lo;
        break;
      case I_DefaultPut: case I_ValuePut: case I_LimitPut: case I_LowerLimitPut: case I_UpperLimitPut: {
        const T a = int_arg<T>();
        out = call([&] {
          if (op == I_DefaultPut) o.Default(a);
          if (op == I_ValuePut) o.Value(a);
          if (op == I_LimitPut) o.Limit(a);
          if (op == I_LowerLimitPut) o.LowerLimit(a);
          if (op == I_UpperLimitPut) o.UpperLimit(a);
        });
        (op == I_UpperLimitPut ? m.up : (op == I_LimitPut || op == I_LowerLimitPut) ? m.lo : m.v) = a;
        break;
      }
      case I_Divide: {
        const T a = int_arg<T>();
        out = call([&] { o.Divide(a); });
        if (a == 0) {
          want = m.v == 0 ? 6 : 11;  // 0/0 invalid operation, x/0 division by zero
        } else {
          step(divide_half_even(m.v, a));
        }
        break;
      }
      case I_IDivide: {
        const T a = int_arg<T>();
        out = call([&] { o.IDivide(a); });
        if (a == 0) {
          want = 11;
        } else {
          step(m.v / a);
        }
        break;
      }
      case I_Halve: case I_HalveYourself:
        out = call([&] { op == I_Halve ? o.Halve() : o.HalveYourself(); });
        m.v /= 2;
        break;
      case I_GreaterOfTheTwo: case I_LesserOfTheTwo: {
        const T a = int_arg<T>();
        const T b = int_arg<T>();
        out = call([&] { op == I_GreaterOfTheTwo ? o.GreaterOfTheTwo(a, b) : o.LesserOfTheTwo(a, b); });
        m.v = op == I_GreaterOfTheTwo ? (a > b ? a : b) : (a < b ? a : b);
        break;
      }
      case I_IncrementAndGet: case I_ValueAfterIncrement: case I_ValueBe4Increment: {
        has_result = true;
        out = call([&] {
          if constexpr (std::is_same_v<Obj, IntegerData>) {
            if (op == I_ValueAfterIncrement) got = o.ValueAfterIncrement();
            if (op == I_ValueBe4Increment) got = o.ValueBe4Increment();
          }
          if (op == I_IncrementAndGet) got = o.IncrementAndGet();
        });
        const std::int64_t old = m.v;
        if (step(m.v + 1)) want_result = op == I_ValueBe4Increment ? old : m.v;
        break;
      }
      case I_IncrementToBottomLimit: case I_AddToBottomLimit: {
        const T a = op == I_AddToBottomLimit ? int_arg<T>() : T{1};
        const T t = int_arg<T>();
        const T b = int_arg<T>();
        out = call([&] {
          if constexpr (std::is_same_v<Obj, IntegerData>) {
            if (op == I_AddToBottomLimit) o.AddToBottomLimit(a, t, b);
          }
          if (op == I_IncrementToBottomLimit) o.IncrementToBottomLimit(t, b);
        });
        if (step(m.v + a) && m.v > t) m.v = b;
        break;
      }
      case I_IncrementToLimit: {
        const T u = int_arg<T>();
        out = call([&] { o.IncrementToLimit(u); });
        m.v = m.v < u ? m.v + 1 : 1;
        break;
      }
      case I_IncrementToMaximum: {
        const T t = int_arg<T>();
        out = call([&] { o.IncrementToMaximum(t); });
        if (m.v < t) ++m.v;
        break;
      }
      case I_IncrementToZeroLimit: case I_ZincrementToLimit: {
        const T t = int_arg<T>();
        out = call([&] { op == I_ZincrementToLimit ? o.ZincrementToLimit(t) : o.IncrementToZeroLimit(t); });
        if (step(m.v + 1) && m.v > t) m.v = 0;
        break;
      }
      case I_ZdecrementToLimit: {
        const T t = int_arg<T>();
        out = call([&] { o.ZdecrementToLimit(t); });
        if (step(m.v - 1) && m.v < 1) m.v = t;
        break;
      }
      case I_ModuloAdd: case I_ModuloAddToThisLimit: {
        const T a = int_arg<T>();
        out = call([&] {
          if constexpr (std::is_same_v<Obj, IntegerData>) {
            if (op == I_ModuloAddToThisLimit) o.ModuloAddToThisLimit(a);
          }
          if (op == I_ModuloAdd) o.ModuloAdd(a);
        });
        if (op == I_ModuloAddToThisLimit) m.up = a;
        modulo(a);
        break;
      }
      case I_Raise: case I_RaiseYourself: {
        const Integer n = exponent_arg();
        out = call([&] { op == I_Raise ? o.Raise(n) : o.RaiseYourself(n); });
        int error = 0;
        const std::int64_t r = whole_power(m.v, n, error);
        if (error != 0) {
          want = error;
        } else {
          step(r);
        }
        break;
      }
      case I_SetTheLimits: {
        const T l = int_arg<T>();
        const T u = int_arg<T>();
        out = call([&] { o.SetTheLimits(l, u); });
        m.lo = l;
        m.up = u;
        break;
      }
      case I_Drop: case I_Pop: case I_Push: case I_PushAndSet:
        history_call = true;
        want = history_op(o, op == I_Drop ? 0 : op == I_Pop ? 1 : op == I_Push ? 2 : 3, m.v, *m.history,
                          op == I_PushAndSet ? int_arg<T>() : T{}, out);
        break;
      default:
        if constexpr (std::is_same_v<Obj, IntegerData>) {
          integer_only_op(o, m, op, out, want, has_result, want_result, got);
        }
        break;
    }

    auto where = [&] { return std::string(cls) + " op " + std::to_string(op) + " on " + std::to_string(v0) +
                              " [" + std::to_string(lo0) + ", " + std::to_string(up0) + "]"; };
    expect_error(where, out, want);
    if (out.failed()) {
      // Test before store: nothing changed but what the operation stored
      // before calling the failing one (ModuloAddToThisLimit's UpperLimit).
      FUZZ_CHECK(o.Value() == v0 && o.LowerLimit() == lo0, where() + ": a failed call changed a field");
      if (op != I_ModuloAddToThisLimit) FUZZ_CHECK(o.UpperLimit() == up0, where() + ": UpperLimit changed");
    }
    FUZZ_CHECK(o.Value() == m.v, where() + ": Value " + std::to_string(o.Value()) + ", model " + std::to_string(m.v));
    FUZZ_CHECK(o.LowerLimit() == m.lo && o.Limit() == m.lo, where() + ": LowerLimit");
    FUZZ_CHECK(o.UpperLimit() == m.up, where() + ": UpperLimit");
    if (has_result && !out.failed()) {
      FUZZ_CHECK(got == want_result, where() + ": result " + std::to_string(got) + ", expected " +
                                         std::to_string(want_result));
    }
    FUZZ_CHECK(g_history->calls == calls0 + (history_call ? 1 : 0), where() + ": history calls");
    record(static_cast<std::uint64_t>(op) << 32 | static_cast<std::uint32_t>(out.error));
    record(bits_of(m.v) ^ (bits_of(m.lo) << 20) ^ (bits_of(m.up) << 40) ^ bits_of(got));
  }

  void integer_only_op(IntegerData& o, IntModel<Integer>& m, int op, fuzz::Outcome& out, int& want,
                       bool& has_result, std::int64_t& want_result, std::int64_t& got) {
    using M = IntModel<Integer>;
    switch (op) {
      case I_AddToMaximum: {
        const Integer a = int_arg<Integer>();
        const Integer t = int_arg<Integer>();
        out = call([&] { o.AddToMaximum(a, t); });
        const std::int64_t sum = m.v + a;
        if (!M::fits(sum)) {
          want = 6;
        } else if (sum <= t) {
          m.v = sum;
        }
        break;
      }
      case I_DecrementABS:
        out = call([&] { o.DecrementABS(); });
        m.v = m.v >= 0 ? m.v - 1 : m.v + 1;
        break;
      case I_DecrementToBottomLimit: {
        const Integer b = int_arg<Integer>();
        const Integer t = int_arg<Integer>();
        out = call([&] { o.DecrementToBottomLimit(b, t); });
        if (!M::fits(m.v - 1)) {
          want = 6;
        } else {
          m.v -= 1;
          if (m.v < b) m.v = t;
        }
        break;
      }
      case I_DecrementToUpperLimit: {
        const Integer u = int_arg<Integer>();
        out = call([&] { o.DecrementToUpperLimit(u); });
        m.v = m.v > 1 ? m.v - 1 : u;
        break;
      }
      case I_IsBetween: case I_IsEven: case I_IsOdd: {
        const Integer l = op == I_IsBetween ? int_arg<Integer>() : Integer{};
        const Integer h = op == I_IsBetween ? int_arg<Integer>() : Integer{};
        has_result = true;
        out = call([&] {
          if (op == I_IsBetween) got = o.IsBetween(l, h);
          if (op == I_IsEven) got = o.IsEven();
          if (op == I_IsOdd) got = o.IsOdd();
        });
        bool truth;
        if (op == I_IsBetween) {
          truth = l <= h ? (l <= m.v && m.v <= h) : (h <= m.v && m.v <= l);
        } else {
          truth = ((m.v & 1) == 0) == (op == I_IsEven);
        }
        want_result = truth ? kTrue : kFalse;
        break;
      }
      case I_Swap: {
        const Integer x = int_arg<Integer>();
        Integer var = x;
        out = call([&] { o.Swap(var); });
        FUZZ_CHECK(var == m.v, "IntegerData.Swap: the caller's variable holds " + std::to_string(var));
        m.v = x;
        break;
      }
      default:
        break;
    }
  }

  // --- SingleData, DoubleData -----------------------------------------------
  template <class Obj>
  void floating(Obj& o, FloatModel<decltype(o.Value())>& m, const char* cls) {
    using T = decltype(o.Value());
    constexpr bool kSingle = std::is_same_v<Obj, SingleData>;
    int op = fdp_.ConsumeIntegralInRange<int>(0, F_Count - 1);
    if constexpr (!kSingle) {
      while (single_only(op)) op = (op + 1) % F_Count;
    }
    note(cls, op);
    const T v0 = m.v;
    const long calls0 = g_history->calls;
    int want = 0;
    bool computed = false;  // Value is an arithmetic result: any NaN will do
    bool has_result = false;
    T want_result{}, got{};
    bool history_call = false;
    fuzz::Outcome out;
    auto to_long = [](T x, std::int64_t& r) {
      return fuzz::ref::round_to_int(static_cast<double>(x), std::numeric_limits<Long>::min(),
                                     std::numeric_limits<Long>::max(), r);
    };
    switch (op) {
      case F_Add: case F_Subtract: case F_Multiply: case F_Divide: {
        const T x = float_arg<T>();
        out = call([&] {
          if (op == F_Add) o.Add(x);
          if (op == F_Subtract) o.Subtract(x);
          if (op == F_Multiply) o.Multiply(x);
          if (op == F_Divide) o.Divide(x);
        });
        computed = true;
        if (op == F_Add) want = ieee_step(m.v, x, std::plus<>{}, m.v);
        if (op == F_Subtract) want = ieee_step(m.v, x, std::minus<>{}, m.v);
        if (op == F_Multiply) want = ieee_step(m.v, x, std::multiplies<>{}, m.v);
        if (op == F_Divide) want = ieee_step(m.v, x, std::divides<>{}, m.v);
        break;
      }
      case F_Increment: case F_IncrementYourself: case F_Decrement: case F_DecrementYourself:
      case F_DoubleYourself: case F_DecrementToZero: {
        out = call([&] {
          if (op == F_Increment) o.Increment();
          if (op == F_IncrementYourself) o.IncrementYourself();
          if (op == F_Decrement) o.Decrement();
          if (op == F_DecrementYourself) o.DecrementYourself();
          if (op == F_DoubleYourself) o.DoubleYourself();
          if (op == F_DecrementToZero) o.DecrementToZero();
        });
        computed = true;
        if (op == F_Increment || op == F_IncrementYourself) want = ieee_step(m.v, T(1), std::plus<>{}, m.v);
        if (op == F_Decrement || op == F_DecrementYourself || (op == F_DecrementToZero && m.v > T(0))) {
          want = ieee_step(m.v, T(1), std::minus<>{}, m.v);
        }
        if (op == F_DoubleYourself) want = ieee_step(m.v, m.v, std::plus<>{}, m.v);
        break;
      }
      case F_DefaultGet: case F_ValueGet: case F_LimitGet: case F_LowerLimitGet: case F_UpperLimitGet:
        has_result = true;
        out = call([&] {
          if (op == F_DefaultGet) got = o.Default();
          if (op == F_ValueGet) got = o.Value();
          if constexpr (kSingle) {
            if (op == F_LimitGet) got = o.Limit();
            if (op == F_LowerLimitGet) got = o.LowerLimit();
            if (op == F_UpperLimitGet) got = o.UpperLimit();
          }
        });
        want_result = (op == F_DefaultGet || op == F_ValueGet) ? m.v : op == F_UpperLimitGet ? m.up : m.lo;
        break;
      case F_DefaultPut: case F_ValuePut: case F_LimitPut: case F_LowerLimitPut: case F_UpperLimitPut: {
        const T x = float_arg<T>();
        out = call([&] {
          if (op == F_DefaultPut) o.Default(x);
          if (op == F_ValuePut) o.Value(x);
          if constexpr (kSingle) {
            if (op == F_LimitPut) o.Limit(x);
            if (op == F_LowerLimitPut) o.LowerLimit(x);
            if (op == F_UpperLimitPut) o.UpperLimit(x);
          }
        });
        (op == F_UpperLimitPut ? m.up : (op == F_LimitPut || op == F_LowerLimitPut) ? m.lo : m.v) = x;
        break;
      }
      case F_SetTheLimits: {
        const T l = float_arg<T>();
        const T u = float_arg<T>();
        if constexpr (kSingle) out = call([&] { o.SetTheLimits(l, u); });
        m.lo = l;
        m.up = u;
        break;
      }
      case F_GreaterOfTheTwo: case F_LesserOfTheTwo: {
        const T a = float_arg<T>();
        const T b = float_arg<T>();
        if constexpr (kSingle) {
          out = call([&] { op == F_GreaterOfTheTwo ? o.GreaterOfTheTwo(a, b) : o.LesserOfTheTwo(a, b); });
        }
        m.v = op == F_GreaterOfTheTwo ? (a > b ? a : b) : (a < b ? a : b);
        break;
      }
      case F_ModuloAdd: {
        const T x = float_arg<T>();
        if constexpr (kSingle) out = call([&] { o.ModuloAdd(x); });
        if (x >= m.lo && x <= m.up) {
          T sum, diff;
          want = ieee_step(m.v, x, std::plus<>{}, sum);
          if (want == 0 && !(sum > m.up)) {
            m.v = sum;
          } else if (want == 0) {
            want = ieee_step(m.up, x, std::minus<>{}, diff);
            if (want == 0) m.v = diff;
          }
          computed = true;
        }
        break;
      }
      case F_Halve: case F_HalveYourself: {
        out = call([&] { op == F_Halve ? o.Halve() : o.HalveYourself(); });
        std::int64_t whole;
        if (!to_long(m.v, whole)) {
          want = 6;
        } else {
          m.v = static_cast<T>(whole / 2);
        }
        break;
      }
      case F_IDivide: {
        const T x = float_arg<T>();
        out = call([&] { o.IDivide(x); });
        std::int64_t a, b;
        if (!to_long(m.v, a) || !to_long(x, b)) {
          want = 6;
        } else if (b == 0) {
          want = 11;
        } else if (a == std::numeric_limits<Long>::min() && b == -1) {
          want = 6;
        } else {
          m.v = static_cast<T>(a / b);
        }
        break;
      }
      case F_Raise: case F_RaiseYourself: {
        const Integer n = exponent_arg();
        out = call([&] { op == F_Raise ? o.Raise(n) : o.RaiseYourself(n); });
        const double r = std::pow(static_cast<double>(m.v), static_cast<double>(n));
        if (!std::isfinite(r)) {
          want = (m.v == T(0) && n < 0) ? 11 : std::isnan(r) ? 5 : 6;
        } else {
          m.v = static_cast<T>(r);
          computed = true;
        }
        break;
      }
      case F_Zapp: case F_Zero:
        out = call([&] { op == F_Zapp ? o.Zapp() : o.Zero(); });
        m.v = op == F_Zapp ? T(-1) : T(0);
        break;
      case F_Drop: case F_Pop: case F_Push: case F_PushAndSet:
        history_call = true;
        want = history_op(o, op == F_Drop ? 0 : op == F_Pop ? 1 : op == F_Push ? 2 : 3, m.v, *m.history,
                          op == F_PushAndSet ? float_arg<T>() : T{}, out);
        break;
      default:
        break;
    }

    auto where = [&] { return std::string(cls) + " op " + std::to_string(op) + " on " + show(v0); };
    expect_error(where, out, want);
    auto same = [&](T a, T b) { return bits_of(a) == bits_of(b) || (computed && std::isnan(a) && std::isnan(b)); };
    FUZZ_CHECK(same(o.Value(), m.v), where() + ": Value " + show(o.Value()) + ", model " + show(m.v));
    m.v = o.Value();  // NaN payloads follow the object
    if constexpr (kSingle) {
      FUZZ_CHECK(bits_of(o.LowerLimit()) == bits_of(m.lo) && bits_of(o.Limit()) == bits_of(m.lo),
                 where() + ": LowerLimit");
      FUZZ_CHECK(bits_of(o.UpperLimit()) == bits_of(m.up), where() + ": UpperLimit");
    }
    if (has_result) FUZZ_CHECK(bits_of(got) == bits_of(want_result), where() + ": result " + show(got));
    FUZZ_CHECK(g_history->calls == calls0 + (history_call ? 1 : 0), where() + ": history calls");
    record(static_cast<std::uint64_t>(op) << 32 | static_cast<std::uint32_t>(out.error));
    record(bits_of(m.v) ^ (bits_of(m.lo) << 7) ^ (bits_of(m.up) << 13) ^ bits_of(got));
  }

  // --- BooleanData ------------------------------------------------------------
  void boolean(BooleanData& o, Flag& m) {
    const int op = fdp_.ConsumeIntegralInRange<int>(0, B_Count - 1);
    note("BooleanData", op);
    const long calls0 = g_history->calls;
    const Flag v0 = m;
    int want = 0;
    long want_calls = 0;
    bool has_result = false;
    Flag want_result = 0, got = 0;
    fuzz::Outcome out;
    switch (op) {
      case B_DefaultGet: case B_ValueGet:
        has_result = true;
        want_result = m;
        out = call([&] { got = op == B_DefaultGet ? o.Default() : o.Value(); });
        break;
      case B_DefaultPut: case B_ValuePut: {
        const Flag x = flag_arg();
        out = call([&] { op == B_DefaultPut ? o.Default(x) : o.Value(x); });
        m = x;  // puts store the 16 bits as given
        break;
      }
      case B_No: case B_Reset: case B_ResetThis:
        out = call([&] {
          if (op == B_No) o.No();
          if (op == B_Reset) o.Reset();
          if (op == B_ResetThis) o.ResetThis();
        });
        m = kFalse;
        break;
      case B_SetThis: case B_Toggle: case B_ToggleThis: case B_Yes:
        out = call([&] {
          if (op == B_SetThis) o.SetThis();
          if (op == B_Toggle) o.Toggle();
          if (op == B_ToggleThis) o.ToggleThis();
          if (op == B_Yes) o.Yes();
        });
        m = kTrue;
        break;
      case B_Drop:
        arm();
        out = call([&] { o.Drop(); });  // never reaches the service
        disarm();
        break;
      case B_Pop: {
        const std::int32_t injected = arm();
        out = call([&] { got = o.Pop(); });
        disarm();
        want_calls = 1;
        if (injected != 0) {
          want = injected;
        } else if (boolean_history_.empty()) {
          want = 5;
        } else {
          has_result = true;
          want_result = boolean_history_.back();
          boolean_history_.pop_back();
        }
        break;
      }
      case B_Push: case B_PushAndSet: {
        const Flag x = flag_arg();
        const Flag s = op == B_PushAndSet ? flag_arg() : Flag{};
        Flag var = x;
        const std::int32_t injected = arm();
        out = call([&] { op == B_Push ? o.Push(x) : o.PushAndSet(var, s); });
        disarm();
        want_calls = 1;
        if (injected != 0) {
          want = injected;
          FUZZ_CHECK(var == x, "BooleanData.PushAndSet: failed call changed the caller's variable");
        } else {
          boolean_history_.push_back(x);
          if (op == B_PushAndSet) {
            FUZZ_CHECK(var == s, "BooleanData.PushAndSet: the caller's variable holds " + std::to_string(var));
          }
        }
        break;
      }
      default:
        break;
    }
    auto where = [&] { return "BooleanData op " + std::to_string(op) + " on " + std::to_string(v0); };
    expect_error(where, out, want);
    FUZZ_CHECK(o.Value() == m && o.Default() == m, where() + ": Value " + std::to_string(o.Value()));
    if (has_result && !out.failed()) FUZZ_CHECK(got == want_result, where() + ": result " + std::to_string(got));
    FUZZ_CHECK(g_history->calls == calls0 + want_calls, where() + ": history calls");
    record(static_cast<std::uint64_t>(op) << 32 | static_cast<std::uint32_t>(out.error));
    record(bits_of(m) ^ (bits_of(got) << 16));
  }

  // --- percent counters ---------------------------------------------------------
  void percent() {
    switch (fdp_.ConsumeIntegralInRange<int>(0, 3)) {
      case 0: counter(integer_percent_, integer_counts_, "IntegerPercent"); break;
      case 1: counter(long_percent_, long_counts_, "LongPercentData"); break;
      case 2: counter(single_percent_, single_counts_, "SinglePercentData"); break;
      default: counter(double_percent_, double_counts_, "DoublePercentData"); break;
    }
  }

  template <class Count>
  static int count_up(Count& c) {
    if constexpr (std::is_integral_v<Count>) {
      if (c == std::numeric_limits<Count>::max()) return 6;
      ++c;
    } else {
      constexpr Count top = std::is_same_v<Count, float> ? Count(16777216.0) : Count(9007199254740992.0);
      if (c < top) c += Count(1);
    }
    return 0;
  }

  template <class Counter, class Count>
  void counter(Counter& o, CounterModel<Count>& m, const char* cls) {
    const int op = fdp_.ConsumeIntegralInRange<int>(0, P_Count - 1);
    note(cls, op);
    int want = 0;
    fuzz::Outcome out;
    Count got_count{};
    Single raw = 0, pct = 0;
    std::u16string display;
    auto where = [&] { return std::string(cls) + " op " + std::to_string(op); };
    switch (op) {
      case P_AnotherSampleOccured:
        out = call([&] { o.AnotherSampleOccured(); });
        want = count_up(m.samples);
        break;
      case P_Occured: case P_DefaultPut: {
        Count dummy{};
        if constexpr (std::is_integral_v<Count>) {
          dummy = int_arg<Count>();
        } else {
          dummy = float_arg<Count>();
        }
        out = call([&] { op == P_Occured ? o.Occured() : o.Default(dummy); });
        want = count_up(m.occurrences);
        break;
      }
      case P_ManySamples: case P_ManyOccurrences: {
        const unsigned n = fdp_.ConsumeIntegralInRange<unsigned>(1, 4096);
        out = call([&] {
          for (unsigned k = 0; k < n; ++k) op == P_ManySamples ? o.AnotherSampleOccured() : o.Occured();
        });
        for (unsigned k = 0; k < n && want == 0; ++k) {
          want = count_up(op == P_ManySamples ? m.samples : m.occurrences);
        }
        break;
      }
      case P_DefaultGet:
        out = call([&] { got_count = o.Default(); });
        FUZZ_CHECK(bits_of(got_count) == bits_of(m.occurrences), where() + ": Default");
        break;
      case P_Percent: case P_PercentDisplay: case P_RawPercent: {
        out = call([&] {
          if (op == P_RawPercent) raw = o.RawPercent();
          if (op == P_Percent) pct = o.Percent();
          if (op == P_PercentDisplay) display = o.PercentDisplay();
        });
        const float want_raw = fuzz::ref::ratio(static_cast<std::uint64_t>(m.occurrences),
                                                static_cast<std::uint64_t>(m.samples));
        if (op == P_RawPercent) FUZZ_CHECK(bits_of(raw) == bits_of(want_raw), where() + ": RawPercent " + show(raw));
        if (op == P_Percent) {
          const float want_pct = static_cast<float>(static_cast<double>(want_raw) * 100.0);
          FUZZ_CHECK(bits_of(pct) == bits_of(want_pct), where() + ": Percent " + show(pct));
        }
        if (op == P_PercentDisplay) {
          FUZZ_CHECK(display == fuzz::ref::widen(fuzz::ref::percent_display(want_raw)),
                     where() + ": PercentDisplay " + fuzz::narrow(display));
        }
        break;
      }
      default:
        break;
    }
    expect_error(where, out, want);
    FUZZ_CHECK(bits_of(o.Default()) == bits_of(m.occurrences), where() + ": occurrence count");
    record(static_cast<std::uint64_t>(op) << 32 | static_cast<std::uint32_t>(out.error));
    record(bits_of(raw) ^ (bits_of(pct) << 32) ^ display.size());
  }

  // --- sample averages --------------------------------------------------------------
  void averages() {
    if (fdp_.ConsumeBool()) {
      average(single_average_, single_items_, "SingleAverage");
    } else {
      average(integer_average_, integer_items_, "IntegerAverage");
    }
  }

  template <class Average, class Element>
  void average(Average& o, std::vector<fuzz::ref::Item<Element>>& items, const char* cls) {
    const int op = fdp_.ConsumeIntegralInRange<int>(0, A_Count - 1);
    note(cls, op);
    auto where = [&] { return std::string(cls) + " op " + std::to_string(op); };
    int want = 0;
    fuzz::Outcome out;
    double got = 0;
    switch (op) {
      case A_AddAPieceOfData: case A_AddNumericData: {
        const Element x = std::is_integral_v<Element> ? Element(int_arg<Integer>()) : Element(float_arg<float>());
        if (items.size() >= 2000) return;
        out = call([&] { op == A_AddAPieceOfData ? o.AddAPieceOfData(x) : o.AddNumericData(x); });
        if (op == A_AddAPieceOfData || x > Element{0}) items.emplace_back(std::in_place_index<0>, x);
        break;
      }
      case A_Here: case A_Include: {
        const std::u16string text = text_arg();
        if (items.size() >= 2000) return;
        out = call([&] { op == A_Here ? o.HereIsAStringOfNumbers(text) : o.IncludeThisStringOfNumbers(text); });
        if (op == A_Here) items.clear();
        for (auto& piece : fuzz::ref::cut(text).pieces) items.emplace_back(std::in_place_index<1>, piece);
        break;
      }
      case A_GiveMeYourNumbers: {
        std::u16string listed, want_listed;
        out = call([&] { listed = o.GiveMeYourNumbers().str(); });
        fuzz::ref::listing<Element>(items, want_listed);
        FUZZ_CHECK(listed == want_listed, where() + ": listing " + fuzz::narrow(listed) + ", expected " +
                                              fuzz::narrow(want_listed));
        got = static_cast<double>(listed.size());
        break;
      }
      case A_DataAverage: case A_Average: case A_DataHighest: case A_DataLowest: {
        fuzz::ref::Stat stat;
        Single mean = 0;
        Element extreme{};
        out = call([&] {  // no conversion in here: it would run in the host's environment
          if (op == A_DataAverage) mean = o.DataAverage();
          if (op == A_Average) mean = o.Average();
          if (op == A_DataHighest) extreme = o.DataHighest();
          if (op == A_DataLowest) extreme = o.DataLowest();
        });
        got = (op == A_DataAverage || op == A_Average) ? static_cast<double>(mean) : static_cast<double>(extreme);
        if (op == A_DataAverage || op == A_Average) {
          stat = fuzz::ref::average<Element>(items);
        } else {
          stat = fuzz::ref::extreme<Element>(items, op == A_DataHighest);
        }
        want = stat.error;
        if (want == 0 && !out.failed()) {
          FUZZ_CHECK(got == stat.value || (std::isnan(got) && std::isnan(stat.value)),
                     where() + ": " + show(got) + ", expected " + show(stat.value));
        }
        break;
      }
      default: {
        Element zeros[5] = {};
        out = call([&] {
          zeros[0] = o.DataMedian();
          zeros[1] = o.DataMean();
          zeros[2] = o.DataMode();
          zeros[3] = o.WeightedMean();
          zeros[4] = o.WeightedMode();
        });
        for (Element z : zeros) FUZZ_CHECK(bits_of(z) == bits_of(Element{0}), where() + ": not zero");
        break;
      }
    }
    expect_error(where, out, want);
    record(static_cast<std::uint64_t>(op) << 32 | static_cast<std::uint32_t>(out.error));
    record(bits_of(got));
  }

  // --- TextConstants ------------------------------------------------------------------
  void text_constants() {
    const int op = fdp_.ConsumeIntegralInRange<int>(0, 2);
    note("TextConstants", op);
    const std::size_t count = TextConstants::text_count();
    fuzz::Outcome out;
    std::size_t got = 0;
    if (op == 0) {
      const std::size_t index = fdp_.ConsumeBool() ? fdp_.ConsumeIntegralInRange<std::size_t>(0, count + 2)
                                                   : fdp_.ConsumeIntegral<std::size_t>();
      out = call([&] { got = TextConstants::Text(index).size(); });
      expect_error([&] { return "TextConstants.Text(" + std::to_string(index) + ")"; }, out, index < count ? 0 : 5);
    } else if (op == 1) {
      std::u16string crlf;
      out = call([&] { crlf = TextConstants().CR_NL(); });
      FUZZ_CHECK(!out.failed() && crlf == u"\r\n", "CR_NL");
    } else {
      const auto members = TextConstants::members();
      const std::size_t k = fdp_.ConsumeIntegralInRange<std::size_t>(0, members.size() - 1);
      const TextConstants::Member& m = members[k];
      const TextConstants::Member* found = nullptr;
      std::optional<std::u16string_view> text;
      out = call([&] {
        found = TextConstants::find_member(m.name);
        text = TextConstants::member_text(m.name);
      });
      FUZZ_CHECK(!out.failed() && m.slot == static_cast<int>(k) + 1 && found == &m, "TextConstants member table");
      FUZZ_CHECK(text.has_value() == (m.text != TextConstants::kBuiltText), "TextConstants member text");
      if (text) FUZZ_CHECK(*text == TextConstants::Text(static_cast<std::size_t>(m.text)), "TextConstants text");
      std::u16string other(m.name);
      other += u'x';
      FUZZ_CHECK(TextConstants::find_member(other) == nullptr || TextConstants::find_member(other)->name == other,
                 "TextConstants found a member of another name");
      got = text ? text->size() : 0;
    }
    record(static_cast<std::uint64_t>(op) << 32 | static_cast<std::uint32_t>(out.error));
    record(got);
  }

  FuzzedDataProvider fdp_;
  bool hostile_;

  IntegerData integers_[2];
  LongData longs_[2];
  SingleData singles_[2];
  DoubleData doubles_[2];
  BooleanData booleans_[2];
  IntModel<Integer> int_models_[2];
  IntModel<Long> long_models_[2];
  FloatModel<Single> single_models_[2];
  FloatModel<Double> double_models_[2];
  Flag boolean_models_[2] = {};
  std::vector<Integer> integer_history_;
  std::vector<Long> long_history_;
  std::vector<Single> single_history_;
  std::vector<Double> double_history_;
  std::vector<Flag> boolean_history_;

  IntegerPercent integer_percent_;
  LongPercentData long_percent_;
  SinglePercentData single_percent_;
  DoublePercentData double_percent_;
  CounterModel<Integer> integer_counts_;
  CounterModel<Long> long_counts_;
  CounterModel<Single> single_counts_;
  CounterModel<Double> double_counts_;

  SingleAverage single_average_;
  IntegerAverage integer_average_;
  std::vector<fuzz::ref::Item<Single>> single_items_;
  std::vector<fuzz::ref::Item<Integer>> integer_items_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Run calm(data, size, false);
  calm.go();
  Run hostile(data, size, true);
  hostile.go();
  fuzz::g_context = {};
  FUZZ_CHECK(calm.trace.size() == hostile.trace.size(), "the host environment changed the sequence");
  for (std::size_t k = 0; k < calm.trace.size(); ++k) {
    FUZZ_CHECK(calm.trace[k] == hostile.trace[k],
               "the host environment changed a result: trace entry " + std::to_string(k) + " (call " +
                   std::to_string(k / 2) + ")");
  }
  return 0;
}
