// IntegralValue: the operations IntegerData and LongData share, written once.
//
// Each class derives from IntegralValue<Self, T> with its own type as Self
// (Integer for IntegerData, Long for LongData) and adds what only it has.
// Every member here is a public member of the derived class, named as its
// interface entry; a member that uses another operation of the object (an
// "own" call: Decrement calls DecrementYourself, ModuloAdd reads the limits
// through LowerLimit() and UpperLimit()) calls the derived class's public
// member, exactly as a caller would.
//
// Rules every operation follows:
// - Integer steps are tested before they store (checked_add/sub/mul/div):
//   an Overflow (6) or Division by zero (11) error leaves Value unchanged.
//   Results are never wrapped or clamped.
// - The counting operations that "store, then test" (IncrementToBottomLimit,
//   ZincrementToLimit, ZdecrementToLimit and IntegerData's AddToBottomLimit
//   and DecrementToBottomLimit) store the checked step first, then replace the
//   stored value when it passed the limit argument. Limit arguments are used
//   as given: nothing checks their order and the stored limits play no part.
// - Divide divides in 64-bit floating point under the floating check (the
//   caller's floating-point environment is saved and restored exactly, so a
//   host with unmasked traps gets an error, never a signal), then rounds the
//   quotient halves-to-even into T (Overflow when out of range).
// - RaiseYourself raises Value to a 16-bit exponent with the power service
//   and rounds the power halves-to-even into T. A zero Value with a negative
//   exponent fails with the power service's Division by zero error (11); an
//   out-of-range power fails with Overflow (6); Value is unchanged in both.
// - History operations call the calling thread's value history service once;
//   its errors pass on unchanged and a failed Pop stores nothing. Push and
//   PushAndSet hand the service the Value field itself; PushAndSet stores
//   nothing of its own (the service records the old value, then sets it).
#pragma once

#include <algorithm>
#include <type_traits>

#include "frame/arith.h"
#include "frame/fp.h"
#include "frame/history.h"

namespace valmetra {

namespace integral_detail {

// The value history service's calls for one value type.
template <auto Drop, auto Pop, auto Push, auto PushAndSet>
struct HistoryCallsOf {
  static constexpr auto drop = Drop;
  static constexpr auto pop = Pop;
  static constexpr auto push = Push;
  static constexpr auto push_and_set = PushAndSet;
};

template <CheckedInt T>
struct HistoryCalls;
template <>
struct HistoryCalls<Integer>
    : HistoryCallsOf<&ValueHistory::DropInteger, &ValueHistory::PopInteger,
                     &ValueHistory::PushInteger, &ValueHistory::PushAndSetInteger> {};
template <>
struct HistoryCalls<Long>
    : HistoryCallsOf<&ValueHistory::DropLong, &ValueHistory::PopLong, &ValueHistory::PushLong,
                     &ValueHistory::PushAndSetLong> {};

// Floating to T: nearest, halves to even; Overflow when out of range.
template <CheckedInt T>
T round_to(double x) {
  if constexpr (std::is_same_v<T, Integer>) {
    return to_integer(x);
  } else {
    return to_long(x);
  }
}

}  // namespace integral_detail

template <class Self, CheckedInt T>
class IntegralValue {
 public:
  // Value, Default (the value member) and the stored limits.
  T Value() const { return value_; }
  void Value(T DataValue) { value_ = DataValue; }
  T Default() const { return value_; }
  void Default(T NewValue) { value_ = NewValue; }
  T LowerLimit() const { return lower_; }
  void LowerLimit(T LowLimitNewValue) { lower_ = LowLimitNewValue; }
  T UpperLimit() const { return upper_; }
  void UpperLimit(T NewLimitValue) { upper_ = NewLimitValue; }

  // Checked arithmetic.
  void Add(T ThisValue) { value_ = checked_add(value_, ThisValue); }
  void Subtract(T ThisValue) { value_ = checked_sub(value_, ThisValue); }
  void Multiply(T ThisValue) { value_ = checked_mul(value_, ThisValue); }
  void DoubleYourself() { value_ = checked_mul(value_, T{2}); }
  void IncrementYourself() { value_ = checked_add(value_, T{1}); }
  void DecrementYourself() { value_ = checked_sub(value_, T{1}); }
  T IncrementAndGet() {
    value_ = checked_add(value_, T{1});
    return value_;
  }
  void Increment() { self().IncrementYourself(); }
  void Decrement() { self().DecrementYourself(); }

  // Division, halving and powers.
  void IDivide(T ThisValue) { value_ = checked_div(value_, ThisValue); }
  void Divide(T ThisValue);
  // Truncates toward zero (-7 gives -3, -1 gives 0); cannot overflow.
  void HalveYourself() { value_ = static_cast<T>(value_ / 2); }
  void Halve() { self().HalveYourself(); }
  void RaiseYourself(Integer ToNPower) {
    fp::Scope scope;  // a denormal power must not raise a condition in the caller's environment
    value_ = integral_detail::round_to<T>(
        power(static_cast<double>(value_), static_cast<double>(ToNPower)));
  }
  void Raise(Integer ToNPower) { self().RaiseYourself(ToNPower); }

  // Choosing; the old Value plays no part.
  void GreaterOfTheTwo(T Value1, T Value2) { value_ = std::max(Value1, Value2); }
  void LesserOfTheTwo(T Value1, T Value2) { value_ = std::min(Value1, Value2); }
  void Zapp() { value_ = T{-1}; }
  void Zero() { value_ = T{0}; }

  // Counting against a limit given as an argument.
  // Test first: below the limit add 1, otherwise start again at 1.
  void IncrementToLimit(T UpperLimitArgument) {
    if (value_ < UpperLimitArgument) {
      self().IncrementYourself();
    } else {
      value_ = T{1};
    }
  }
  // Test first: below the limit add 1, otherwise stay (saturates).
  void IncrementToMaximum(T TargetLimit) {
    if (value_ < TargetLimit) value_ = checked_add(value_, T{1});
  }
  void IncrementToBottomLimit(T TargetLimit, T BottomLimit) {
    store_then_wrap_above(checked_add(value_, T{1}), TargetLimit, BottomLimit);
  }
  void ZincrementToLimit(T TargetLimit) {
    store_then_wrap_above(checked_add(value_, T{1}), TargetLimit, T{0});
  }
  void IncrementToZeroLimit(T TargetLimit) { self().ZincrementToLimit(TargetLimit); }
  void ZdecrementToLimit(T TargetLimit) {
    store_then_wrap_below(checked_sub(value_, T{1}), T{1}, TargetLimit);
  }
  // Zero and negative values stay.
  void DecrementToZero() {
    if (value_ > 0) self().DecrementYourself();
  }

  // Adds inside the stored limits: a MaddValue outside [LowerLimit,
  // UpperLimit] changes nothing; a sum above UpperLimit gives UpperLimit -
  // MaddValue (not the sum reduced into the range).
  void ModuloAdd(T MaddValue);

  // The value history of the calling thread.
  void Drop() { (history().*integral_detail::HistoryCalls<T>::drop)(); }
  void Pop() { value_ = (history().*integral_detail::HistoryCalls<T>::pop)(); }
  void Push() { (history().*integral_detail::HistoryCalls<T>::push)(value_); }
  void PushAndSet(T SetToValue) {
    (history().*integral_detail::HistoryCalls<T>::push_and_set)(value_, SetToValue);
  }

 protected:
  // Stores a checked step, then replaces it when it lies above `limit`.
  void store_then_wrap_above(T stepped, T limit, T wrap_to) {
    value_ = stepped;
    if (value_ > limit) value_ = wrap_to;
  }
  // Stores a checked step, then replaces it when it lies below `limit`.
  void store_then_wrap_below(T stepped, T limit, T wrap_to) {
    value_ = stepped;
    if (value_ < limit) value_ = wrap_to;
  }

  T value_ = 0;
  T lower_ = 0;
  T upper_ = 0;

 private:
  Self& self() { return static_cast<Self&>(*this); }
};

template <class Self, CheckedInt T>
void IntegralValue<Self, T>::Divide(T ThisValue) {
  fp::Scope scope;
  const double quotient = fp::opaque(fp::opaque(static_cast<double>(value_)) /
                                     fp::opaque(static_cast<double>(ThisValue)));
  fp::check();  // x/0: division by zero; 0/0: invalid operation
  value_ = integral_detail::round_to<T>(quotient);
}

template <class Self, CheckedInt T>
void IntegralValue<Self, T>::ModuloAdd(T MaddValue) {
  Self& me = self();
  const T lower = me.LowerLimit();
  const T upper = me.UpperLimit();
  if (MaddValue > upper || MaddValue < lower) return;
  const T sum = checked_add(value_, MaddValue);
  if (sum <= me.UpperLimit()) {
    value_ = sum;
  } else {
    value_ = checked_sub(me.UpperLimit(), MaddValue);
  }
}

}  // namespace valmetra
