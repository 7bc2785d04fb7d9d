// FloatingValue<T>: what SingleData and DoubleData share, written once.
//
// The object holds one IEEE 754 value (float or double). Every floating step
// runs inside an fp::Scope, so the caller's environment (trap masks, rounding
// mode, sticky flags) neither affects a result nor is changed by one: results
// are always rounded to nearest, ties to even, and no step ever traps.
//
// Arithmetic (Add, Subtract, Multiply, Divide, DoubleYourself,
// IncrementYourself, DecrementYourself) stores first and checks after: both
// operands are widened exactly to double, the operation is done once in
// double and the result rounded once to T (for float this is the correctly
// rounded single-precision result: double holds more than twice float's
// precision, so the two roundings never differ from one). The rounded result
// is written to the field, and only then does the floating check raise the
// floating-point error for invalid operation, division by zero or overflow.
// So a failed operation leaves its infinity or NaN in the field, and later
// operations treat it as IEEE does: a quiet NaN or an infinity operand raises
// no new condition (NaN + 1 is NaN without an error, inf - inf is invalid).
// A signalling NaN stored by a put is an invalid operand, as IEEE says.
//
// Comparisons are IEEE comparisons: a NaN on either side makes them false.
// Property get and put, Zapp, Zero and Pop copy bits without any floating
// step, so -0, NaN payloads and signalling NaNs pass unchanged.
//
// Whole-number operations (HalveYourself, IDivide) round to a Long with
// to_long (halves to even; Overflow error out of range and for NaN) and store
// the integer result converted to T; their result is never -0.
//
// RaiseYourself uses the power service (frame/arith.h) on the value and the
// whole exponent and stores the power rounded to T without a floating check.
// A zero base with a negative exponent, or a power beyond the double range,
// is not stored as an infinity: the power service raises its error and the
// field keeps its old value (0 to the power -1: Division by zero, 11; 10 to
// the power 400: Overflow, 6; a power that is not a number, as from a NaN
// value with an exponent other than 0: Invalid procedure call or argument, 5).
// A power that fits a double but not a float is stored as an infinity by
// SingleData without an error.
//
// The history operations call the calling thread's value history service
// (valmetra::history()) with the operations of T; its errors pass on
// unchanged and a failed Pop leaves the field as it was.
#pragma once

#include <functional>
#include <type_traits>

#include "frame/arith.h"
#include "frame/fp.h"
#include "frame/history.h"

namespace valmetra {

template <class T>
concept FloatingField = std::is_same_v<T, Single> || std::is_same_v<T, Double>;

namespace floating {

// Widens exactly to double (a signalling NaN raises invalid here, as an
// operand should). Use inside a scope.
template <FloatingField T>
[[gnu::always_inline]] inline double widen(T v) noexcept {
  return fp::opaque(static_cast<double>(fp::opaque(v)));
}

// Rounds a double once to T, to nearest. Use inside a scope.
template <FloatingField T>
[[gnu::always_inline]] inline T narrow(double v) noexcept {
  return fp::opaque(static_cast<T>(fp::opaque(v)));
}

// One arithmetic step: a op b in double, rounded once to T. The conditions
// it raises stay recorded for the caller's check. Use inside a scope.
template <FloatingField T, class Op>
[[gnu::always_inline]] inline T step(T a, T b, Op op) noexcept {
  return narrow<T>(fp::opaque(op(widen(a), widen(b))));
}

// An IEEE comparison in a scope of its own: a NaN makes it false, and a
// signalling NaN neither traps nor leaves a condition behind for a later
// check. The volatile store keeps the comparison inside the scope.
template <FloatingField T, class Cmp>
bool compare(T a, T b, Cmp cmp) noexcept {
  fp::Scope scope;
  volatile bool result = cmp(fp::opaque(a), fp::opaque(b));
  return result;
}

}  // namespace floating

template <FloatingField T>
class FloatingValue {
 public:
  void Add(T ThisValue) { store_checked(ThisValue, std::plus<>{}); }
  void Decrement() { DecrementYourself(); }
  // A whole 1 is subtracted from any positive value: 0.5 becomes -0.5.
  void DecrementToZero() {
    if (floating::compare(value_, T{0}, std::greater<>{})) DecrementYourself();
  }
  void DecrementYourself() { store_checked(T{1}, std::minus<>{}); }
  T Default() const noexcept { return value_; }
  void Default(T NewValue) noexcept { value_ = NewValue; }
  void Divide(T ThisValue) { store_checked(ThisValue, std::divides<>{}); }
  void DoubleYourself() { store_checked(value_, std::plus<>{}); }
  void Halve() { HalveYourself(); }
  void HalveYourself();
  void IDivide(T ThisValue);
  void Increment() { IncrementYourself(); }
  void IncrementYourself() { store_checked(T{1}, std::plus<>{}); }
  void Multiply(T ThisValue) { store_checked(ThisValue, std::multiplies<>{}); }
  void Raise(Integer ToNPower) { RaiseYourself(ToNPower); }
  void RaiseYourself(Integer ToNPower);
  void Subtract(T ThisValue) { store_checked(ThisValue, std::minus<>{}); }
  void Drop();
  void Pop();
  void Push();
  void PushAndSet(T SetToValue);
  T Value() const noexcept { return value_; }
  void Value(T DataValue) noexcept { value_ = DataValue; }
  void Zapp() noexcept { value_ = T{-1}; }
  void Zero() noexcept { value_ = T{0}; }

 protected:
  // value_ := value_ op operand, stored, then checked.
  template <class Op>
  void store_checked(T operand, Op op) {
    fp::Scope scope;
    value_ = floating::step(value_, operand, op);
    fp::check();
  }

  T value_{};
};

template <FloatingField T>
void FloatingValue<T>::HalveYourself() {
  fp::Scope scope;
  const Long whole = to_long(floating::widen(value_));
  value_ = fp::opaque(static_cast<T>(whole / 2));  // float: rounded to nearest
}

template <FloatingField T>
void FloatingValue<T>::IDivide(T ThisValue) {
  fp::Scope scope;
  const Long dividend = to_long(floating::widen(value_));
  const Long divisor = to_long(floating::widen(ThisValue));
  value_ = fp::opaque(static_cast<T>(checked_div(dividend, divisor)));
}

template <FloatingField T>
void FloatingValue<T>::RaiseYourself(Integer ToNPower) {
  fp::Scope scope;
  const double result = power(floating::widen(value_), static_cast<double>(ToNPower));
  value_ = floating::narrow<T>(result);  // no check: a float overflow stores an infinity
}

// On 32-bit x86 a floating result returned by a call passes through the x87
// stack, which is why Pop runs in a scope although it computes nothing.
template <FloatingField T>
void FloatingValue<T>::Pop() {
  fp::Scope scope;
  if constexpr (std::is_same_v<T, Single>) {
    value_ = history().PopSingle();
  } else {
    value_ = history().PopDouble();
  }
}

template <FloatingField T>
void FloatingValue<T>::Drop() {
  if constexpr (std::is_same_v<T, Single>) {
    history().DropSingle();
  } else {
    history().DropDouble();
  }
}

template <FloatingField T>
void FloatingValue<T>::Push() {
  if constexpr (std::is_same_v<T, Single>) {
    history().PushSingle(value_);
  } else {
    history().PushDouble(value_);
  }
}

template <FloatingField T>
void FloatingValue<T>::PushAndSet(T SetToValue) {
  if constexpr (std::is_same_v<T, Single>) {
    history().PushAndSetSingle(value_, SetToValue);
  } else {
    history().PushAndSetDouble(value_, SetToValue);
  }
}

extern template class FloatingValue<Single>;
extern template class FloatingValue<Double>;

}  // namespace valmetra
