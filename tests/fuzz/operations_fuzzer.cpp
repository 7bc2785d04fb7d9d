// Sequences of calls on the value classes, the percent counters and
// TextConstants, each followed by checks of what must hold (no model of the
// results):
// - no memory error, leak, undefined behaviour or trap (sanitizers, SIGFPE);
// - errors only from the vocabulary, the history's own "empty" error or an
//   injected error of the history service passed on unchanged; an operation
//   that cannot fail does not;
// - the host's floating-point environment is unchanged after every call;
// - a failed call leaves every field (and the history) as it was, except
//   what the classes document: SingleData/DoubleData arithmetic keeps the
//   infinity or NaN it stored, ModuloAddToThisLimit keeps its new UpperLimit;
// - a call reaches the history service exactly when it is a history call
//   (an armed failure stays armed otherwise), and Pop gives back what the
//   last Push of that type recorded;
// - what each operation promises of its result: the inverse of the checked
//   arithmetic, bounds of roundings and divisions, flags -1 or 0, ...;
// - the sequence run in the default environment and in hostile ones (one per
//   call) gives the same results.
// Input, per call: class byte (bit 7: which of two objects), operation byte,
// three arguments and an exponent (a byte each, picking a boundary value, or
// followed by raw bits), a byte arming an injected history failure, an
// environment byte.
#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "stats/number_text.h"
#include "stats/percent.h"
#include "text/text_constants.h"
#include "values/boolean_data.h"
#include "values/double_data.h"
#include "values/integer_data.h"
#include "values/long_data.h"
#include "values/single_data.h"

namespace {

using namespace valmetra;
using W = std::int64_t;

// The in-process history service, failing on demand with an injected error.
class FaultyHistory final : public ValueHistory {
 public:
  std::int32_t fail_with = 0;
  InProcessHistory inner;
  std::size_t size() const {
    return inner.size_boolean() + inner.size_double() + inner.size_integer() + inner.size_long() + inner.size_single();
  }
#define PASS(R, name, params, args) \
  R name params override { return gate(), inner.name args; }
  PASS(Flag, PopBoolean, (), ())
  PASS(void, PushBoolean, (Flag & v), (v))
  PASS(void, PushAndSetBoolean, (Flag & t, Flag s), (t, s))
  PASS(void, DropDouble, (), ())
  PASS(Double, PopDouble, (), ())
  PASS(void, PushDouble, (Double & v), (v))
  PASS(void, PushAndSetDouble, (Double & t, Double s), (t, s))
  PASS(void, DropInteger, (), ())
  PASS(Integer, PopInteger, (), ())
  PASS(void, PushInteger, (Integer & v), (v))
  PASS(void, PushAndSetInteger, (Integer & t, Integer s), (t, s))
  PASS(void, DropLong, (), ())
  PASS(Long, PopLong, (), ())
  PASS(void, PushLong, (Long & v), (v))
  PASS(void, PushAndSetLong, (Long & t, Long s), (t, s))
  PASS(void, DropSingle, (), ())
  PASS(Single, PopSingle, (), ())
  PASS(void, PushSingle, (Single & v), (v))
  PASS(void, PushAndSetSingle, (Single & t, Single s), (t, s))
#undef PASS

 private:
  void gate() {
    if (const std::int32_t n = std::exchange(fail_with, 0)) throw Error(n, u"injected", u"FuzzService");
  }
};

FaultyHistory* g_history = nullptr;

template <class T>
std::uint64_t bits(T v) {
  if constexpr (std::is_same_v<T, float>) return std::bit_cast<std::uint32_t>(v);
  if constexpr (std::is_same_v<T, double>) return std::bit_cast<std::uint64_t>(v);
  if constexpr (std::is_integral_v<T>) return static_cast<std::uint64_t>(static_cast<W>(v));
}
float f32(std::uint64_t b) { return std::bit_cast<float>(static_cast<std::uint32_t>(b)); }
template <class T>
bool fin(T v) { return std::isfinite(static_cast<double>(v)); }
template <class T>
bool toward(T before, T after, T direction) {  // moved the way `direction` points, or stayed
  return direction > 0 ? after >= before : direction < 0 ? after <= before : true;
}

template <class T>
struct Args { T a, b, c; Integer n; };
template <class T>
struct Snap { T v{}, lo{}, up{}; std::size_t history = 0; };

enum : unsigned { kSafe = 1, kKeeps = 2, kKeepsUpper = 4, kPush = 8, kPop = 16, kDrop = 32, kFlag = 64, kPartial = 128 };

// One operation: how to call it (the result as bits: a get's value, what a
// Push recorded, what a Pop gave back) and what holds afterwards, given the
// fields before (b) and after (a), the arguments, the result and the error.
template <class Obj, class T>
struct Op {
  const char* name;
  unsigned flags;  // kSafe: never fails; kKeeps / kKeepsUpper: see above; kPartial: a loop, may fail midway
  std::uint64_t (*run)(Obj&, const Args<T>&);
  bool (*holds)(const Snap<T>& b, const Snap<T>& a, const Args<T>& x, std::uint64_t r, int e);
};
#define RUN(...) [](auto& o, const auto& x) -> std::uint64_t { __VA_ARGS__ }
#define DO(...) RUN(__VA_ARGS__; return 0;)
#define GET(...) RUN(return bits(__VA_ARGS__);)
#define HOLDS(...) [](const auto& b, const auto& a, const auto& x, std::uint64_t r, int e) -> bool { return __VA_ARGS__; }

template <class Obj, class T = decltype(std::declval<Obj&>().Value())>
std::vector<Op<Obj, T>> value_ops() {
  std::vector<Op<Obj, T>> ops = {
      {"Value get", kSafe, GET(o.Value()), HOLDS(r == bits(b.v))},
      {"Default get", kSafe, GET(o.Default()), HOLDS(r == bits(b.v))},
      {"Value put", kSafe, DO(o.Value(x.a)), HOLDS(bits(a.v) == bits(x.a))},
      {"Default put", kSafe, DO(o.Default(x.a)), HOLDS(bits(a.v) == bits(x.a))},
  };
  if constexpr (!std::is_same_v<Obj, BooleanData>) {
    ops.insert(ops.end(), {
        {"Zapp", kSafe, DO(o.Zapp()), HOLDS(a.v == T(-1))},
        {"Zero", kSafe, DO(o.Zero()), HOLDS(bits(a.v) == bits(T(0)))},
        {"Drop", kDrop, DO(o.Drop()), nullptr},
        {"Pop", kPop, GET((o.Pop(), o.Value())), nullptr},
        {"Push", kPush, GET((o.Push(), o.Value())), nullptr},
        {"PushAndSet", kPush, RUN(const T v = o.Value(); o.PushAndSet(x.a); return bits(v);),
         HOLDS(e || bits(a.v) == bits(x.a))},
    });
  }
  if constexpr (requires(Obj o) { o.Limit(); }) {
    ops.insert(ops.end(), {
        {"Limit get", kSafe, GET(o.Limit()), HOLDS(r == bits(b.lo))},
        {"LowerLimit get", kSafe, GET(o.LowerLimit()), HOLDS(r == bits(b.lo))},
        {"UpperLimit get", kSafe, GET(o.UpperLimit()), HOLDS(r == bits(b.up))},
        {"Limit put", kSafe, DO(o.Limit(x.a)), HOLDS(bits(a.lo) == bits(x.a) && bits(a.up) == bits(b.up))},
        {"LowerLimit put", kSafe, DO(o.LowerLimit(x.a)), HOLDS(bits(a.lo) == bits(x.a) && bits(a.up) == bits(b.up))},
        {"UpperLimit put", kSafe, DO(o.UpperLimit(x.a)), HOLDS(bits(a.up) == bits(x.a) && bits(a.lo) == bits(b.lo))},
        {"SetTheLimits", kSafe, DO(o.SetTheLimits(x.a, x.b)), HOLDS(bits(a.lo) == bits(x.a) && bits(a.up) == bits(x.b))},
        {"GreaterOfTheTwo", kSafe, DO(o.GreaterOfTheTwo(x.a, x.b)), HOLDS(bits(a.v) == bits(x.a > x.b ? x.a : x.b))},
        {"LesserOfTheTwo", kSafe, DO(o.LesserOfTheTwo(x.a, x.b)), HOLDS(bits(a.v) == bits(x.a < x.b ? x.a : x.b))},
    });
  }
  return ops;
}

template <class Obj, class T = decltype(std::declval<Obj&>().Value())>
std::vector<Op<Obj, T>> integral_ops() {
  auto ops = value_ops<Obj>();
  ops.insert(ops.end(), {
      {"Add", 0, DO(o.Add(x.a)), HOLDS(e || W{a.v} - x.a == b.v)},
      {"Subtract", 0, DO(o.Subtract(x.a)), HOLDS(e || W{a.v} + x.a == b.v)},
      {"Multiply", 0, DO(o.Multiply(x.a)), HOLDS(e || (x.a == 0 ? a.v == 0 : W{a.v} % x.a == 0 && W{a.v} / x.a == b.v))},
      {"DoubleYourself", 0, DO(o.DoubleYourself()), HOLDS(e || W{a.v} - b.v == b.v)},
      {"Increment", 0, DO(o.Increment()), HOLDS(e || W{a.v} - 1 == b.v)},
      {"IncrementYourself", 0, DO(o.IncrementYourself()), HOLDS(e || W{a.v} - 1 == b.v)},
      {"IncrementAndGet", 0, GET(o.IncrementAndGet()), HOLDS(e || (W{a.v} - 1 == b.v && r == bits(a.v)))},
      {"Decrement", 0, DO(o.Decrement()), HOLDS(e || W{a.v} + 1 == b.v)},
      {"DecrementYourself", 0, DO(o.DecrementYourself()), HOLDS(e || W{a.v} + 1 == b.v)},
      {"DecrementToZero", kSafe, DO(o.DecrementToZero()), HOLDS(a.v == (b.v > 0 ? b.v - 1 : b.v))},
      {"Divide", 0, DO(o.Divide(x.a)),  // nearest, halves to even
       HOLDS(e ? (e == 11) == (x.a == 0 && b.v != 0)
               : std::fabs(a.v - double(b.v) / x.a) < 0.5 || (std::fabs(a.v - double(b.v) / x.a) == 0.5 && a.v % 2 == 0))},
      {"IDivide", 0, DO(o.IDivide(x.a)),  // toward zero
       HOLDS(e ? (e == 11) == (x.a == 0)
               : std::abs(W{b.v} - W{a.v} * x.a) < std::abs(W{x.a}) && (W{b.v} - W{a.v} * x.a) * b.v >= 0)},
      {"Halve", kSafe, DO(o.Halve()), HOLDS(std::abs(b.v - 2 * W{a.v}) <= 1 && std::abs(2 * W{a.v}) <= std::abs(W{b.v}))},
      {"HalveYourself", kSafe, DO(o.HalveYourself()), HOLDS(std::abs(b.v - 2 * W{a.v}) <= 1 && std::abs(2 * W{a.v}) <= std::abs(W{b.v}))},
      {"Raise", 0, DO(o.Raise(x.n)), HOLDS(e ? (e == 11) == (b.v == 0 && x.n < 0) : (x.n != 0 || a.v == 1) && (x.n != 1 || a.v == b.v))},
      {"RaiseYourself", 0, DO(o.RaiseYourself(x.n)), HOLDS(e ? (e == 11) == (b.v == 0 && x.n < 0) : (x.n != 0 || a.v == 1) && (x.n != 1 || a.v == b.v))},
      {"IncrementToLimit", kSafe, DO(o.IncrementToLimit(x.a)), HOLDS(a.v == W{b.v} + 1 || a.v == 1)},
      {"IncrementToMaximum", kSafe, DO(o.IncrementToMaximum(x.a)), HOLDS(a.v == W{b.v} + 1 || a.v == b.v)},
      {"IncrementToBottomLimit", 0, DO(o.IncrementToBottomLimit(x.a, x.b)), HOLDS(e || a.v == W{b.v} + 1 || a.v == x.b)},
      {"ZincrementToLimit", 0, DO(o.ZincrementToLimit(x.a)), HOLDS(e || a.v == W{b.v} + 1 || a.v == 0)},
      {"IncrementToZeroLimit", 0, DO(o.IncrementToZeroLimit(x.a)), HOLDS(e || a.v == W{b.v} + 1 || a.v == 0)},
      {"ZdecrementToLimit", 0, DO(o.ZdecrementToLimit(x.a)), HOLDS(e || a.v == W{b.v} - 1 || a.v == x.a)},
      {"ModuloAdd", 0, DO(o.ModuloAdd(x.a)),  // nothing outside the limits
       HOLDS(e || (x.a < b.lo || x.a > b.up ? a.v == b.v : a.v == W{b.v} + x.a || a.v == W{b.up} - x.a))},
  });
  if constexpr (std::is_same_v<Obj, IntegerData>) {
    ops.insert(ops.end(), {
        {"AddToBottomLimit", 0, DO(o.AddToBottomLimit(x.a, x.b, x.c)), HOLDS(e || a.v == W{b.v} + x.a || a.v == x.c)},
        {"AddToMaximum", 0, DO(o.AddToMaximum(x.a, x.b)), HOLDS(e || a.v == W{b.v} + x.a || a.v == b.v)},
        {"DecrementABS", kSafe, DO(o.DecrementABS()), HOLDS(a.v == (b.v < 0 ? b.v + 1 : b.v - 1))},
        {"DecrementToBottomLimit", 0, DO(o.DecrementToBottomLimit(x.a, x.b)), HOLDS(e || a.v == W{b.v} - 1 || a.v == x.b)},
        {"DecrementToUpperLimit", kSafe, DO(o.DecrementToUpperLimit(x.a)), HOLDS(a.v == W{b.v} - 1 || a.v == x.a)},
        {"IsBetween", kSafe | kFlag, GET(o.IsBetween(x.a, x.b)),
         HOLDS((r != 0) == (b.v >= std::min(x.a, x.b) && b.v <= std::max(x.a, x.b)))},
        {"IsEven", kSafe | kFlag, GET(o.IsEven()), HOLDS((r != 0) == (b.v % 2 == 0))},
        {"IsOdd", kSafe | kFlag, GET(o.IsOdd()), HOLDS((r != 0) == (b.v % 2 != 0))},
        {"ModuloAddToThisLimit", kKeepsUpper, DO(o.ModuloAddToThisLimit(x.a)),
         HOLDS(a.up == x.a && (e || a.v == b.v || a.v == W{b.v} + x.a || a.v == 0))},
        {"Swap", kSafe, RUN(Integer v = x.a; const Integer old = o.Value(); o.Swap(v);
                            FUZZ_CHECK(v == old, "Swap did not hand back the value"); return 0;),
         HOLDS(a.v == x.a)},
        {"ValueAfterIncrement", 0, GET(o.ValueAfterIncrement()), HOLDS(e || (W{a.v} - 1 == b.v && r == bits(a.v)))},
        {"ValueBe4Increment", 0, GET(o.ValueBe4Increment()), HOLDS(e || (W{a.v} - 1 == b.v && r == bits(b.v)))},
    });
  }
  return ops;
}

// Arithmetic stores first: from finite operands it fails exactly when the
// stored result is not finite, and it moves the value the right way.
template <class Obj, class T = decltype(std::declval<Obj&>().Value())>
std::vector<Op<Obj, T>> floating_ops() {
  auto ops = value_ops<Obj>();
  ops.insert(ops.end(), {
      {"Add", kKeeps, DO(o.Add(x.a)),
       HOLDS(!fin(b.v) || !fin(x.a) || ((e == 0) == fin(a.v) && (e || toward(b.v, a.v, x.a))))},
      {"Subtract", kKeeps, DO(o.Subtract(x.a)),
       HOLDS(!fin(b.v) || !fin(x.a) || ((e == 0) == fin(a.v) && (e || toward(b.v, a.v, T(-x.a)))))},
      {"Multiply", kKeeps, DO(o.Multiply(x.a)), HOLDS(!fin(b.v) || !fin(x.a) || (e == 0) == fin(a.v))},
      {"Divide", kKeeps, DO(o.Divide(x.a)), HOLDS(!fin(b.v) || !fin(x.a) || ((e == 0) == fin(a.v) && (e != 11 || x.a == 0)))},
      {"DoubleYourself", kKeeps, DO(o.DoubleYourself()), HOLDS(!fin(b.v) || (e == 0) == fin(a.v))},
      {"Increment", kKeeps, DO(o.Increment()), HOLDS(!fin(b.v) || ((e == 0) == fin(a.v) && (e || a.v >= b.v)))},
      {"IncrementYourself", kKeeps, DO(o.IncrementYourself()), HOLDS(!fin(b.v) || ((e == 0) == fin(a.v) && (e || a.v >= b.v)))},
      {"Decrement", kKeeps, DO(o.Decrement()), HOLDS(!fin(b.v) || ((e == 0) == fin(a.v) && (e || a.v <= b.v)))},
      {"DecrementYourself", kKeeps, DO(o.DecrementYourself()), HOLDS(!fin(b.v) || ((e == 0) == fin(a.v) && (e || a.v <= b.v)))},
      {"DecrementToZero", kKeeps, DO(o.DecrementToZero()),
       HOLDS(!(b.v > 0) ? bits(a.v) == bits(b.v) : !fin(b.v) || ((e == 0) == fin(a.v) && (e || a.v <= b.v)))},
      {"Halve", 0, DO(o.Halve()), HOLDS(e || (a.v == std::trunc(a.v) && std::fabs(a.v) <= std::fabs(b.v) / 2 + 1))},
      {"HalveYourself", 0, DO(o.HalveYourself()), HOLDS(e || (a.v == std::trunc(a.v) && std::fabs(a.v) <= std::fabs(b.v) / 2 + 1))},
      {"IDivide", 0, DO(o.IDivide(x.a)), HOLDS(e ? e != 11 || std::fabs(x.a) <= 0.5 : a.v == std::trunc(a.v))},
      {"Raise", 0, DO(o.Raise(x.n)),
       HOLDS(e ? e != 11 || (b.v == 0 && x.n < 0) : (x.n != 0 || a.v == 1) && (x.n != 1 || bits(a.v) == bits(b.v)))},
      {"RaiseYourself", 0, DO(o.RaiseYourself(x.n)),
       HOLDS(e ? e != 11 || (b.v == 0 && x.n < 0) : (x.n != 0 || a.v == 1) && (x.n != 1 || bits(a.v) == bits(b.v)))},
  });
  if constexpr (std::is_same_v<Obj, SingleData>) {
    ops.push_back({"ModuloAdd", 0, DO(o.ModuloAdd(x.a)),  // nothing outside the limits
                   HOLDS(e || (x.a >= b.lo && x.a <= b.up) || bits(a.v) == bits(b.v))});
  }
  return ops;
}

std::vector<Op<BooleanData, Flag>> boolean_ops() {
  auto ops = value_ops<BooleanData>();
  ops.insert(ops.end(), {
      {"No", kSafe, DO(o.No()), HOLDS(a.v == kFalse)},
      {"Reset", kSafe, DO(o.Reset()), HOLDS(a.v == kFalse)},
      {"ResetThis", kSafe, DO(o.ResetThis()), HOLDS(a.v == kFalse)},
      {"SetThis", kSafe, DO(o.SetThis()), HOLDS(a.v == kTrue)},
      {"Toggle", kSafe, DO(o.Toggle()), HOLDS(a.v == kTrue)},
      {"ToggleThis", kSafe, DO(o.ToggleThis()), HOLDS(a.v == kTrue)},
      {"Yes", kSafe, DO(o.Yes()), HOLDS(a.v == kTrue)},
      {"Drop", kSafe, DO(o.Drop()), HOLDS(a.v == b.v)},  // never reaches the service
      {"Pop", kPop, GET(o.Pop()), HOLDS(a.v == b.v)},
      {"Push", kPush, GET((o.Push(x.a), x.a)), HOLDS(a.v == b.v)},
      {"PushAndSet", kPush, RUN(Flag v = x.a; try { o.PushAndSet(v, x.b); } catch (...) {
           FUZZ_CHECK(v == x.a, "a failed PushAndSet changed the caller's variable"); throw; }
         FUZZ_CHECK(v == x.b, "PushAndSet did not set the caller's variable"); return bits(x.a);),
       HOLDS(a.v == b.v)},
  });
  return ops;
}

// Counts grow by one (Single and Double counts stop at 2^24 and 2^53);
// integer counts fail at their maximum and keep it.
template <class T>
bool counted(T before, T after, int n) {
  if constexpr (std::is_integral_v<T>) return W{after} - before == n;
  return after >= before && after <= before + n;
}

template <class T>
std::vector<Op<PercentCounter<T>, T>> counter_ops() {
  return {
      {"Occured", 0, DO(o.Occured()), HOLDS(e || counted(b.v, a.v, 1))},
      {"Default put", 0, DO(o.Default(x.a)), HOLDS(e || counted(b.v, a.v, 1))},
      {"Occured * n", kPartial, DO(for (int k = 0; k < (x.n & 0xFFF); ++k) o.Occured()),
       HOLDS(e ? a.v == std::numeric_limits<T>::max() : counted(b.v, a.v, x.n & 0xFFF))},
      {"AnotherSampleOccured * n", 0, DO(for (int k = 0; k <= (x.n & 0xFFF); ++k) o.AnotherSampleOccured()),
       HOLDS(bits(a.v) == bits(b.v))},
      {"Default get", kSafe, GET(o.Default()), HOLDS(r == bits(b.v))},
      // RawPercent lies in 0..occurrences; Percent is it times 100 rounded once.
      {"RawPercent, Percent", kSafe, RUN(return bits(o.RawPercent()) | bits(o.Percent()) << 32;),
       HOLDS(f32(r) >= 0 && f32(r) <= static_cast<float>(b.v) &&
             std::fabs(f32(r >> 32) - f32(r) * 100.0) <= f32(r) * 100.0 * 0x1p-24)},
      {"PercentDisplay", kSafe, RUN(FUZZ_CHECK(o.PercentDisplay() == percent_display_text(o.RawPercent()),
                                               "PercentDisplay does not show RawPercent"); return 0;), nullptr},
  };
}

template <class Obj>
auto snap(Obj& o) {
  Snap<decltype(o.Default())> s{o.Default(), {}, {}, g_history->size()};
  if constexpr (requires { o.Value(); }) FUZZ_CHECK(bits(o.Value()) == bits(s.v), "Default is not Value");
  if constexpr (requires { o.Limit(); }) {
    s.lo = o.LowerLimit(), s.up = o.UpperLimit();
    FUZZ_CHECK(bits(o.Limit()) == bits(s.lo), "Limit is not LowerLimit");
  }
  return s;
}

std::uint32_t mix(std::uint32_t x) {
  x = (x + 1) * 0x9E3779B9u;
  x ^= x >> 15;
  return x * 0x85EBCA6Bu;
}

class Run {
 public:
  Run(const std::uint8_t* data, std::size_t size, bool hostile) : in_{data, data + size}, hostile_(hostile) {}
  std::vector<std::uint64_t> trace;

  void go() {
    set_history_factory([]() -> std::unique_ptr<ValueHistory> {
      auto h = std::make_unique<FaultyHistory>();
      g_history = h.get();
      return h;
    });
    release_thread_history();
    history();
    static const auto integer = integral_ops<IntegerData>();
    static const auto long_ = integral_ops<LongData>();
    static const auto single = floating_ops<SingleData>();
    static const auto double_ = floating_ops<DoubleData>();
    static const auto boolean = boolean_ops();
    static const auto ip = counter_ops<Integer>();
    static const auto lp = counter_ops<Long>();
    static const auto sp = counter_ops<Single>();
    static const auto dp = counter_ops<Double>();
    for (int n = 0; n < 400 && !in_.empty(); ++n) {
      const std::uint8_t c = in_.byte();
      const int k = c >> 7;
      switch (c % 10) {
        case 0: step(integers_[k], integer, shadow_[0]); break;
        case 1: step(longs_[k], long_, shadow_[1]); break;
        case 2: step(singles_[k], single, shadow_[2]); break;
        case 3: step(doubles_[k], double_, shadow_[3]); break;
        case 4: step(booleans_[k], boolean, shadow_[4]); break;
        case 5: step(integer_percent_, ip, shadow_[5]); break;
        case 6: step(long_percent_, lp, shadow_[5]); break;
        case 7: step(single_percent_, sp, shadow_[5]); break;
        case 8: step(double_percent_, dp, shadow_[5]); break;
        default: text_constants(); break;
      }
    }
    release_thread_history();
    set_history_factory(nullptr);
  }

 private:
  template <class T>
  T arg() {
    const std::uint8_t sel = in_.byte();
    if constexpr (std::is_floating_point_v<T>) {
      using L = std::numeric_limits<T>;
      static const T table[] = {0, -T(0), 1, -1, 0.5, -0.5, 1.5, 2.5, -2.5, 7.6, 0.4, 10, 3e9, 2147483647.0,
                                2147483648.0, -2147483649.0, 16777216, 3e38, L::max(), L::lowest(), L::min(),
                                L::denorm_min(), -L::denorm_min(), L::infinity(), -L::infinity(), L::quiet_NaN(),
                                L::signaling_NaN(), 0.145};
      if (sel < 160) return table[sel % std::size(table)];
      if constexpr (sizeof(T) == 4) return std::bit_cast<T>(in_.u32());
      if constexpr (sizeof(T) == 8) return std::bit_cast<T>(std::uint64_t{in_.u32()} << 32 | in_.u32());
    } else {
      constexpr W lo = std::numeric_limits<T>::min(), hi = std::numeric_limits<T>::max();
      static constexpr W table[] = {0, 1, -1, 2, -2, 3, 7, -7, 10, 15, 16384, -16384, 30000, hi, lo, hi - 1, lo + 1,
                                    hi / 2, lo / 2};
      return static_cast<T>(sel < 160 ? table[sel % std::size(table)] : in_.u32());
    }
  }
  Integer exponent() {
    static constexpr Integer table[] = {0, 1, -1, 2, -2, 3, 15, 16, 31, 32, 39, 400, -400, 1070, -1070, -1074, 32767};
    const std::uint8_t sel = in_.byte();
    return sel < 160 ? table[sel % std::size(table)] : static_cast<Integer>(in_.u32());
  }
  template <class F>
  int call(F&& f) {
    const std::uint8_t b = in_.byte();
    return fuzz::call(hostile_ ? fuzz::hostile_env(mix(b)) : fuzz::Env{}, std::forward<F>(f));
  }

  template <class Obj, class T>
  void step(Obj& o, const std::vector<Op<Obj, T>>& ops, std::vector<std::uint64_t>& shadow) {
    static constexpr std::int32_t kInjected[] = {5, 7, 70, 424};
    const Op<Obj, T>& op = ops[in_.byte() % ops.size()];
    const Args<T> x{arg<T>(), arg<T>(), arg<T>(), exponent()};
    const std::uint8_t inject = in_.byte();
    fuzz::g_injected = g_history->fail_with = inject < 24 ? kInjected[inject % 4] : 0;
    const Snap<T> b = snap(o);
    std::uint64_t r = 0;
    const int e = call([&] { r = op.run(o, x); });
    const Snap<T> a = snap(o);
    const bool armed = std::exchange(g_history->fail_with, 0) != 0;
    const std::int32_t injected = std::exchange(fuzz::g_injected, 0);
    const std::string what = std::string(op.name) + " (error " + std::to_string(e) + ")";
    const bool history_op = op.flags & (kPush | kPop | kDrop);
    FUZZ_CHECK(injected == 0 || (history_op ? e == injected : armed), what + ": history service calls");
    FUZZ_CHECK(e == 0 || !(op.flags & kSafe), what + " cannot fail");
    if (e != 0 && !(op.flags & kPartial)) {
      FUZZ_CHECK(a.history == b.history && bits(a.lo) == bits(b.lo), what + " changed a field");
      FUZZ_CHECK(bits(a.up) == bits(b.up) || (op.flags & kKeepsUpper), what + " changed UpperLimit");
      FUZZ_CHECK(bits(a.v) == bits(b.v) || ((op.flags & kKeeps) && !fin(a.v)), what + " changed Value");
    }
    if (history_op && injected == 0) {
      FUZZ_CHECK((e != 0) == ((op.flags & kPush) == 0 && shadow.empty()), what + ": history");
      if (e == 0 && (op.flags & kPush)) shadow.push_back(r);
      if (e == 0 && !(op.flags & kPush)) {
        FUZZ_CHECK((op.flags & kDrop) || r == shadow.back(), what + " did not give back the last value pushed");
        shadow.pop_back();
      }
      FUZZ_CHECK(e != 0 || a.history == b.history + ((op.flags & kPush) ? 1 : -1), what + ": history size");
    }
    FUZZ_CHECK(!(op.flags & kFlag) || r == bits(kTrue) || r == bits(kFalse), what + ": not a flag");
    FUZZ_CHECK(!op.holds || op.holds(b, a, x, r, e), what + " on " + std::to_string(double(b.v)) + " [" +
               std::to_string(double(b.lo)) + ", " + std::to_string(double(b.up)) + "] gave " +
               std::to_string(double(a.v)));
    trace.insert(trace.end(), {std::uint64_t(e), r, bits(a.v), bits(a.lo), bits(a.up)});
  }

  void text_constants() {
    const std::size_t count = TextConstants::text_count();
    const std::size_t i = in_.byte() < 128 ? in_.byte() % (count + 2) : in_.u32();
    std::size_t size = 0;
    const int e = call([&] { size = TextConstants::Text(i).size(); });
    FUZZ_CHECK(e == (i < count ? 0 : 5), "TextConstants.Text(" + std::to_string(i) + ")");
    const auto members = TextConstants::members();
    const TextConstants::Member& m = members[i % members.size()];
    const auto text = TextConstants::member_text(m.name);
    FUZZ_CHECK(m.slot == int(i % members.size()) + 1 && TextConstants::find_member(m.name) == &m &&
                   text.has_value() == (m.text != TextConstants::kBuiltText) &&
                   (!text || *text == TextConstants::Text(std::size_t(m.text))),
               "TextConstants member table");
    trace.insert(trace.end(), {std::uint64_t(e), size});
  }

  fuzz::Input in_;
  bool hostile_;
  IntegerData integers_[2];
  LongData longs_[2];
  SingleData singles_[2];
  DoubleData doubles_[2];
  BooleanData booleans_[2];
  IntegerPercent integer_percent_;
  LongPercentData long_percent_;
  SinglePercentData single_percent_;
  DoublePercentData double_percent_;
  std::vector<std::uint64_t> shadow_[6];  // what the history holds, per type, in bits
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Run calm(data, size, false), hostile(data, size, true);
  calm.go();
  hostile.go();
  for (std::size_t k = 0; k < std::min(calm.trace.size(), hostile.trace.size()); ++k) {
    FUZZ_CHECK(calm.trace[k] == hostile.trace[k], "the host's environment changed result " + std::to_string(k));
  }
  FUZZ_CHECK(calm.trace.size() == hostile.trace.size(), "the host's environment changed the sequence");
  return 0;
}
