// The floating check.
//
// Floating steps never trap. fp::Scope installs the default environment
// (all exceptions masked, round to nearest, flags clear, no flush-to-zero)
// for the duration of an operation and puts the caller's environment back
// exactly (control word, masks, rounding mode, sticky flags) when it ends,
// also when the operation raises. Inside a scope, fp::check() examines the
// recorded conditions: invalid operation, division by zero or overflow raise
// the floating-point error; underflow and inexact never do.
//
// The compiler must neither fold a floating step at compile time nor move it
// across the check. fp::opaque() hides a value from the optimiser and pins
// its computation before every later barrier; fp::check() starts with a
// full compiler barrier. Build with -frounding-math -ftrapping-math.
#pragma once

#include <cfenv>

#include "frame/error.h"

namespace valmetra::fp {

// The error number the floating check raises for each condition:
//   invalid operation -> Overflow (6)   (0/0, inf-inf, ...)
//   division by zero  -> Division by zero (11)
//   overflow          -> Overflow (6)
inline constexpr ErrorNumber kInvalidError = ErrorNumber::Overflow;
inline constexpr ErrorNumber kDivideByZeroError = ErrorNumber::DivisionByZero;
inline constexpr ErrorNumber kOverflowError = ErrorNumber::Overflow;

class Scope {
 public:
  Scope() noexcept;
  ~Scope();
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
  std::fenv_t saved_;
};

// Forces the value into a register at this point: the compiler can neither
// fold through it nor sink the computation that produced it below it.
template <class T>
[[gnu::always_inline]] inline T opaque(T v) noexcept {
#if defined(__x86_64__) || defined(__i386__)
  asm volatile("" : "+x"(v)::"memory");
#else
  asm volatile("" : "+r"(v)::"memory");
#endif
  return v;
}

// Clears the recorded conditions (after a call into another object).
void clear() noexcept;
// Raises the floating-point error when invalid operation, division by zero
// or overflow has been recorded since the last clear. Must run inside a Scope.
void check();

// Runs one floating step inside a scope and checks it: the common shape
// "compute, then check" where nothing is stored before the check.
template <class F>
auto checked(F&& step) {
  Scope scope;
  auto result = opaque(step());
  check();
  return result;
}

}  // namespace valmetra::fp
