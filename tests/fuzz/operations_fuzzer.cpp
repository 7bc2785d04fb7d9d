// Sequences of calls on the value classes and the percent counters, each
// checked for what must hold, without a model of the results: errors only
// from the vocabulary (fuzz::call), an injected history failure passed on
// unchanged and none from an operation that cannot fail; the host's
// environment unchanged; a failed call leaves every field and the history as
// they were (SingleData/DoubleData arithmetic keeps the infinity or NaN it
// stored, ModuloAddToThisLimit its new UpperLimit); Pop gives back the last
// Push; each operation's promise about its result; the same results in the
// default environment and in hostile ones.
// Input, per call: class byte (bit 7: which of two objects), operation byte,
// three arguments and an exponent (a byte each: a boundary value, or raw bits
// after it), a byte arming an injected history failure, an environment byte.
#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "stats/number_text.h"
#include "stats/percent.h"
#include "values/boolean_data.h"
#include "values/double_data.h"
#include "values/integer_data.h"
#include "values/long_data.h"
#include "values/single_data.h"

namespace {

using namespace valmetra;
using W = std::int64_t;

// The in-process history service, failing once on demand with an injected error.
class FaultyHistory final : public ValueHistory {
 public:
  std::int32_t fail_with = 0;
  InProcessHistory in;
  std::size_t size() const { return in.size_boolean() + in.size_double() + in.size_integer() + in.size_long() + in.size_single(); }
#define PASS(T, N)                                                      \
  T Pop##N() override { return gate(), in.Pop##N(); }                   \
  void Push##N(T& v) override { gate(), in.Push##N(v); }                \
  void PushAndSet##N(T& t, T s) override { gate(), in.PushAndSet##N(t, s); }
#define DROP(N) void Drop##N() override { gate(), in.Drop##N(); }
  PASS(Flag, Boolean) PASS(Double, Double) PASS(Integer, Integer) PASS(Long, Long) PASS(Single, Single)
  DROP(Double) DROP(Integer) DROP(Long) DROP(Single)

 private:
  void gate() {
    if (const std::int32_t n = std::exchange(fail_with, 0)) throw Error(n, u"injected", u"FuzzService");
  }
};
FaultyHistory* g_history = nullptr;

template <class T>
std::uint64_t bits(T v) {
  if constexpr (std::is_floating_point_v<T>) return std::bit_cast<std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>(v);
  else return static_cast<std::uint64_t>(static_cast<W>(v));
}
float f32(std::uint64_t b) { return std::bit_cast<float>(static_cast<std::uint32_t>(b)); }
template <class T>
bool fin(T v) { return std::isfinite(static_cast<double>(v)); }
template <class T>  // moved the way `direction` points, or stayed
bool toward(T before, T after, T direction) { return direction > 0 ? after >= before : direction < 0 ? after <= before : true; }
template <class T>  // counts grow by one (Single and Double ones stop at 2^24 and 2^53)
bool counted(T before, T after, int n) {
  if constexpr (std::is_integral_v<T>) return W{after} - before == n;
  else return after >= before && after <= before + n;
}

template <class T>
struct Args { T a, b, c; Integer n; };
template <class T>
struct Snap { T v{}, lo{}, up{}; std::size_t history = 0; };
enum : unsigned { kSafe = 1, kKeeps = 2, kKeepsUpper = 4, kPush = 8, kPop = 16, kDrop = 32, kPartial = 64 };

// One operation: how to call it (the result as bits: a get's value, what a
// Push recorded, what a Pop gave back), and what holds afterwards given the
// fields before (b) and after (a), the arguments, the result and the error.
// kSafe: never fails; kKeeps / kKeepsUpper: see above; kPartial: a loop that may fail midway.
template <class Obj, class T>
struct Op {
  const char* name;
  unsigned flags;
  std::uint64_t (*run)(Obj&, const Args<T>&);
  bool (*holds)(const Snap<T>& b, const Snap<T>& a, const Args<T>& x, std::uint64_t r, int e);
};
#define ROW(name, f, run, ...) \
  Row{name, f, run, [](const auto& b, const auto& a, const auto& x, std::uint64_t r, int e) -> bool { return __VA_ARGS__; }}
#define DO(f, call, ...) ROW(#call, f, [](auto& o, const auto& x) -> std::uint64_t { call; return 0; }, __VA_ARGS__)
#define GET(f, expr, ...) ROW(#expr, f, [](auto& o, const auto& x) -> std::uint64_t { return bits(expr); }, __VA_ARGS__)
#define DO2(f, c1, c2, ...) DO(f, c1, __VA_ARGS__), DO(f, c2, __VA_ARGS__)

template <class Obj, class T = decltype(std::declval<Obj&>().Default())>
std::vector<Op<Obj, T>> counter_ops() {  // integer counts fail at their maximum and keep it
  using Row = Op<Obj, T>;
  return {DO2(0, o.Occured(), o.Default(x.a), e || counted(b.v, a.v, 1)),
            DO(kPartial, for (int k = 0; k < (x.n & 0xFFF); ++k) o.Occured(),
               e ? a.v == std::numeric_limits<T>::max() : counted(b.v, a.v, x.n & 0xFFF)),
            DO(0, for (int k = 0; k <= (x.n & 0xFFF); ++k) o.AnotherSampleOccured(), bits(a.v) == bits(b.v)),
            GET(kSafe, o.Default(), r == bits(b.v)),
            // RawPercent lies in 0..occurrences; Percent is it times 100 rounded once.
            GET(kSafe, bits(o.RawPercent()) | bits(o.Percent()) << 32, f32(r) >= 0 && f32(r) <= float(b.v) &&
                std::fabs(f32(r >> 32) - f32(r) * 100.0) <= f32(r) * 100.0 * 0x1p-24),
            GET(kSafe, o.PercentDisplay() == percent_display_text(o.RawPercent()), r == 1)};
}

template <class Obj, class T = decltype(std::declval<Obj&>().Default())>
std::vector<Op<Obj, T>> make_ops() {
  using Row = Op<Obj, T>;
  constexpr bool boolean = std::is_same_v<Obj, BooleanData>;
  std::vector<Row> ops = {GET(kSafe, o.Value(), r == bits(b.v)), GET(kSafe, o.Default(), r == bits(b.v)),
           DO2(kSafe, o.Value(x.a), o.Default(x.a), bits(a.v) == bits(x.a))};
  if constexpr (boolean) {
    ops.insert(ops.end(), {
        DO2(kSafe, o.No(), o.Reset(), a.v == kFalse), DO(kSafe, o.ResetThis(), a.v == kFalse),
        DO2(kSafe, o.SetThis(), o.Yes(), a.v == kTrue), DO2(kSafe, o.Toggle(), o.ToggleThis(), a.v == kTrue),
        DO(kSafe, o.Drop(), a.v == b.v),  // never reaches the service
        GET(kPop, o.Pop(), a.v == b.v), GET(kPush, (o.Push(x.a), x.a), a.v == b.v),
        ROW("PushAndSet", kPush, [](auto& o, const auto& x) -> std::uint64_t {
          Flag v = x.a;  // set only by a call that succeeds
          try { o.PushAndSet(v, x.b); } catch (...) { FUZZ_CHECK(v == x.a, "PushAndSet: the variable"); throw; }
          return (FUZZ_CHECK(v == x.b, "PushAndSet: the variable"), bits(x.a));
        }, a.v == b.v)});
  } else {
    ops.insert(ops.end(), {
        DO(kSafe, o.Zapp(), true), DO(kSafe, o.Zero(), true), DO(kDrop, o.Drop(), true),
        GET(kPop, (o.Pop(), o.Value()), true), GET(kPush, (o.Push(), o.Value()), true),
        ROW("PushAndSet", kPush, [](auto& o, const auto& x) -> std::uint64_t { const T v = o.Value(); o.PushAndSet(x.a); return bits(v); },
            e || bits(a.v) == bits(x.a))});
  }
  if constexpr (requires(Obj o) { o.Limit(); }) {
    ops.insert(ops.end(), {
        DO2(kSafe, o.Limit(x.a), o.LowerLimit(x.a), true), DO2(kSafe, o.UpperLimit(x.a), o.SetTheLimits(x.a, x.b), true),
        DO2(kSafe, o.GreaterOfTheTwo(x.a, x.b), o.LesserOfTheTwo(x.a, x.b), bits(a.v) == bits(x.a) || bits(a.v) == bits(x.b))});
  }
  if constexpr (std::is_integral_v<T> && !boolean) {
    ops.insert(ops.end(), {
        DO(0, o.Add(x.a), e || W{a.v} - x.a == b.v), DO(0, o.Subtract(x.a), e || W{a.v} + x.a == b.v),
        DO(0, o.Multiply(x.a), e || (x.a == 0 ? a.v == 0 : W{a.v} % x.a == 0 && W{a.v} / x.a == b.v)),
        DO(0, o.DoubleYourself(), e || W{a.v} - b.v == b.v), DO2(0, o.Increment(), o.IncrementYourself(), e || W{a.v} - 1 == b.v),
        GET(0, o.IncrementAndGet(), e || (W{a.v} - 1 == b.v && r == bits(a.v))),
        DO2(0, o.Decrement(), o.DecrementYourself(), e || W{a.v} + 1 == b.v),
        DO(kSafe, o.DecrementToZero(), true),
        DO(0, o.Divide(x.a), e ? (e == 11) == (x.a == 0 && b.v != 0)  // nearest, halves to even
                               : std::fabs(a.v - double(b.v) / x.a) < 0.5 || (std::fabs(a.v - double(b.v) / x.a) == 0.5 && a.v % 2 == 0)),
        DO(0, o.IDivide(x.a), e ? (e == 11) == (x.a == 0)  // toward zero
                                : std::abs(W{b.v} - W{a.v} * x.a) < std::abs(W{x.a}) && (W{b.v} - W{a.v} * x.a) * b.v >= 0),
        DO2(kSafe, o.Halve(), o.HalveYourself(), std::abs(b.v - 2 * W{a.v}) <= 1 && std::abs(2 * W{a.v}) <= std::abs(W{b.v})),
        DO2(0, o.Raise(x.n), o.RaiseYourself(x.n), e ? (e == 11) == (b.v == 0 && x.n < 0) : (x.n != 0 || a.v == 1) && (x.n != 1 || a.v == b.v)),
        DO2(kSafe, o.IncrementToLimit(x.a), o.IncrementToMaximum(x.a), true),
        DO2(0, o.IncrementToBottomLimit(x.a, x.b), o.ZincrementToLimit(x.a), true),
        DO2(0, o.IncrementToZeroLimit(x.a), o.ZdecrementToLimit(x.a), true), DO(0, o.ModuloAdd(x.a), true)});
  } else if constexpr (!boolean) {  // arithmetic stores first: from finite operands it fails exactly when the stored result is not finite
    ops.insert(ops.end(), {
        DO(kKeeps, o.Add(x.a), !fin(b.v) || !fin(x.a) || ((e == 0) == fin(a.v) && (e || toward(b.v, a.v, x.a)))),
        DO(kKeeps, o.Subtract(x.a), !fin(b.v) || !fin(x.a) || ((e == 0) == fin(a.v) && (e || toward(b.v, a.v, T(-x.a))))),
        DO(kKeeps, o.Multiply(x.a), !fin(b.v) || !fin(x.a) || (e == 0) == fin(a.v)),
        DO(kKeeps, o.Divide(x.a), !fin(b.v) || !fin(x.a) || ((e == 0) == fin(a.v) && (e != 11 || x.a == 0))),
        DO(kKeeps, o.DoubleYourself(), !fin(b.v) || (e == 0) == fin(a.v)),
        DO2(kKeeps, o.Increment(), o.IncrementYourself(), !fin(b.v) || ((e == 0) == fin(a.v) && (e || a.v >= b.v))),
        DO2(kKeeps, o.Decrement(), o.DecrementYourself(), !fin(b.v) || ((e == 0) == fin(a.v) && (e || a.v <= b.v))),
        DO(kKeeps, o.DecrementToZero(), !(b.v > 0) ? bits(a.v) == bits(b.v) : !fin(b.v) || ((e == 0) == fin(a.v) && (e || a.v <= b.v))),
        DO2(0, o.Halve(), o.HalveYourself(), e || (a.v == std::trunc(a.v) && std::fabs(a.v) <= std::fabs(b.v) / 2 + 1)),
        DO(0, o.IDivide(x.a), e ? e != 11 || std::fabs(x.a) <= 0.5 : a.v == std::trunc(a.v)),
        DO2(0, o.Raise(x.n), o.RaiseYourself(x.n),
            e ? e != 11 || (b.v == 0 && x.n < 0) : (x.n != 0 || a.v == 1) && (x.n != 1 || bits(a.v) == bits(b.v)))});
  }
  if constexpr (std::is_same_v<Obj, SingleData>) {  // nothing outside the limits
    ops.push_back(DO(0, o.ModuloAdd(x.a), e || (x.a >= b.lo && x.a <= b.up) || bits(a.v) == bits(b.v)));
  }
  if constexpr (std::is_same_v<Obj, IntegerData>) {
    ops.insert(ops.end(), {
        DO2(0, o.AddToBottomLimit(x.a, x.b, x.c), o.AddToMaximum(x.a, x.b), true),
        DO2(kSafe, o.DecrementABS(), o.DecrementToUpperLimit(x.a), true), DO(0, o.DecrementToBottomLimit(x.a, x.b), true),
        // flags: IsBetween takes its bounds in either order; a value is even or odd
        GET(kSafe, o.IsBetween(x.a, x.b) * 2 + o.IsBetween(x.b, x.a), r == bits(W{-3}) || r == 0),
        GET(kSafe, o.IsEven() * 2 + o.IsOdd(), r == bits(W{-2}) || r == bits(W{-1})),
        DO(kKeepsUpper, o.ModuloAddToThisLimit(x.a), a.up == x.a && (e || a.v == b.v || a.v == W{b.v} + x.a || a.v == 0)),
        GET(kSafe, ([&] { Integer v = x.a; return o.Swap(v), v; }()), a.v == x.a && r == bits(b.v)),
        GET(0, o.ValueAfterIncrement(), e || (W{a.v} - 1 == b.v && r == bits(a.v))),
        GET(0, o.ValueBe4Increment(), e || (W{a.v} - 1 == b.v && r == bits(b.v)))});
  }
  return ops;
}

template <class Obj>
auto snap(Obj& o) {
  Snap<decltype(o.Default())> s{o.Default(), {}, {}, g_history->size()};
  if constexpr (requires { o.Value(); }) FUZZ_CHECK(bits(o.Value()) == bits(s.v), "Default is not Value");
  if constexpr (requires { o.Limit(); }) s.lo = o.LowerLimit(), s.up = o.UpperLimit();
  if constexpr (requires { o.Limit(); }) FUZZ_CHECK(bits(o.Limit()) == bits(s.lo), "Limit is not LowerLimit");
  return s;
}

template <class T>  // an argument, or an exponent
T arg(fuzz::Input& in, bool exponent = false) {
  static constexpr Integer kExponents[] = {0, 1, -1, 2, -2, 3, 15, 16, 31, 32, 39, 400, -400, 1070, -1070, -1074, 32767};
  const std::uint8_t sel = in.byte();
  using L = std::numeric_limits<T>;
  if (exponent) return static_cast<T>(sel < 160 ? kExponents[sel % std::size(kExponents)] : in.u32());
  if constexpr (std::is_floating_point_v<T>) {
    static const T table[] = {0, -T(0), 1, -1, 0.5, -0.5, 1.5, 2.5, -2.5, 7.6, 0.4, 10, 3e9, 2147483647.0, 2147483648.0,
                              -2147483649.0, 16777216, 3e38, L::max(), L::lowest(), L::min(), L::denorm_min(),
                              -L::denorm_min(), L::infinity(), -L::infinity(), L::quiet_NaN(), L::signaling_NaN(), 0.145};
    if (sel < 160) return table[sel % std::size(table)];
    if constexpr (sizeof(T) == 4) return std::bit_cast<T>(in.u32());
    else return std::bit_cast<T>(std::uint64_t{in.u32()} << 32 | in.u32());
  } else {
    static constexpr W table[] = {0, 1, -1, 2, -2, 3, 7, -7, 10, 15, 16384, -16384, 30000, L::max(), L::min(),
                                  L::max() - 1, L::min() + 1, L::max() / 2, L::min() / 2};
    return static_cast<T>(sel < 160 ? table[sel % std::size(table)] : in.u32());
  }
}

class Run {
 public:
  Run(const std::uint8_t* data, std::size_t size, bool hostile) : in_{data, data + size}, hostile_(hostile) {}
  std::vector<std::uint64_t> trace;

  void go() {
    set_history_factory([]() -> std::unique_ptr<ValueHistory> { return std::unique_ptr<FaultyHistory>(g_history = new FaultyHistory); });
    release_thread_history();
    history();
    for (int n = 0; n < 400 && !in_.empty(); ++n) {
      const std::uint8_t c = in_.byte();
      const int k = c >> 7;
      switch ((c & 0x7F) % 9) {
        case 0: step(integers_[k], shadow_[0]); break;
        case 1: step(longs_[k], shadow_[1]); break;
        case 2: step(singles_[k], shadow_[2]); break;
        case 3: step(doubles_[k], shadow_[3]); break;
        case 4: step(booleans_[k], shadow_[4]); break;
        case 5: step(integer_percent_, shadow_[5]); break;
        case 6: step(long_percent_, shadow_[5]); break;
        case 7: step(single_percent_, shadow_[5]); break;
        default: step(double_percent_, shadow_[5]); break;
      }
    }
    release_thread_history();
    set_history_factory(nullptr);
  }

 private:
  template <class F>
  int call(F&& f) {
    const std::uint32_t x = (in_.byte() + 1u) * 0x9E3779B9u;
    return fuzz::call(hostile_ ? fuzz::hostile_env((x ^ x >> 15) * 0x85EBCA6Bu) : fuzz::Env{}, f);
  }

  template <class Obj, class T = decltype(std::declval<Obj&>().Default())>
  void step(Obj& o, std::vector<std::uint64_t>& shadow) {
    static const auto ops = [] {
      if constexpr (requires(Obj& p) { p.Occured(); }) return counter_ops<Obj>();
      else return make_ops<Obj>();
    }();
    static constexpr std::int32_t kInjected[] = {5, 7, 70, 424};
    const Op<Obj, T>& op = ops[in_.byte() % ops.size()];
    const Args<T> x{arg<T>(in_), arg<T>(in_), arg<T>(in_), arg<Integer>(in_, true)};
    const std::uint8_t inject = in_.byte();
    fuzz::g_injected = g_history->fail_with = inject < 24 ? kInjected[inject % 4] : 0;
    const Snap<T> b = snap(o);
    std::uint64_t r = 0;
    const int e = call([&] { r = op.run(o, x); });
    const Snap<T> a = snap(o);
    const bool armed = std::exchange(g_history->fail_with, 0) != 0;
    const std::int32_t injected = std::exchange(fuzz::g_injected, 0);
    const std::string what = std::string(op.name) + " (error " + std::to_string(e) + ")";
    const unsigned f = op.flags;
    FUZZ_CHECK(injected == 0 || (f & (kPush | kPop | kDrop) ? e == injected : armed), what + ": history service calls");
    FUZZ_CHECK(e == 0 || !(f & kSafe), what + " cannot fail");
    FUZZ_CHECK(e == 0 || (f & kPartial) ||
                   (a.history == b.history && bits(a.lo) == bits(b.lo) && (bits(a.up) == bits(b.up) || (f & kKeepsUpper)) &&
                    (bits(a.v) == bits(b.v) || ((f & kKeeps) && !fin(a.v)))),
               what + " changed a field");
    if (f & (kPush | kPop | kDrop) && injected == 0) {  // the history holds what the shadow does
      FUZZ_CHECK((e != 0) == (!(f & kPush) && shadow.empty()), what + ": history");
      FUZZ_CHECK(e || f & kPush || f & kDrop || r == shadow.back(), what + " did not give back the last value pushed");
      FUZZ_CHECK(e || a.history == b.history + (f & kPush ? 1 : -1), what + ": history size");
      if (e == 0) f & kPush ? shadow.push_back(r) : shadow.pop_back();
    }
    FUZZ_CHECK(op.holds(b, a, x, r, e), what + " on " + std::to_string(double(b.v)) + " [" + std::to_string(double(b.lo)) + ", " +
                                            std::to_string(double(b.up)) + "] gave " + std::to_string(double(a.v)));
    trace.insert(trace.end(), {std::uint64_t(e), r, bits(a.v), bits(a.lo), bits(a.up)});
  }

  fuzz::Input in_;
  bool hostile_;
  IntegerData integers_[2]; LongData longs_[2]; SingleData singles_[2]; DoubleData doubles_[2]; BooleanData booleans_[2];
  IntegerPercent integer_percent_; LongPercentData long_percent_; SinglePercentData single_percent_; DoublePercentData double_percent_;
  std::vector<std::uint64_t> shadow_[6];  // what the history holds, per type, in bits
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Run calm(data, size, false), hostile(data, size, true);
  calm.go();
  hostile.go();
  FUZZ_CHECK(calm.trace == hostile.trace, "the host's environment changed a result");
  return 0;
}
