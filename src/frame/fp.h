// The floating check.
//
// Floating steps never trap. fp::Scope installs the default environment
// (all exceptions masked, round to nearest, flags clear, no flush-to-zero)
// for the duration of an operation and puts the caller's environment back
// exactly (control word, masks, rounding mode, sticky flags) when it ends,
// also when the operation raises. Inside a scope, fp::check() examines the
// recorded conditions: invalid operation, division by zero or overflow raise
// the floating-point error; underflow and inexact never do. (One exception to
// "flags clear": x87 denormal, underflow and inexact flags the caller has
// pending, and nothing else, stay set during the scope; they never raise.)
//
// Which units a scope covers: on x86-64 compiled floating code runs on the
// SSE unit alone, so a scope saves, sets and restores MXCSR only and the
// x87 unit is left exactly as the caller had it. The x87 unit is used there
// only by runtime routines that compute in extended precision (the pow of
// some C runtimes; their fmod's x87 remainder is exact and raises nothing);
// the code calling such a routine opens its scope with Units::WithX87, which
// also masks the x87 exceptions and restores the x87 control word and flags. On 32-bit x86 every scope covers both units
// (results pass through the x87 registers there). Elsewhere a scope saves
// and restores the whole <cfenv> environment. fp.cpp says why the
// environment is not simply saved with std::fegetenv on x86.
//
// The compiler must neither fold a floating step at compile time nor move it
// across the check. fp::opaque() hides a value from the optimiser and pins
// its computation before every later barrier; fp::check() starts with a
// full compiler barrier. Build with -frounding-math -ftrapping-math.
#pragma once

#include <cfenv>
#include <cstdint>

#include "frame/error.h"

namespace valmetra::fp {

// The error number the floating check raises for each condition:
//   invalid operation -> Overflow (6)   (0/0, inf-inf, ...)
//   division by zero  -> Division by zero (11)
//   overflow          -> Overflow (6)
inline constexpr ErrorNumber kInvalidError = ErrorNumber::Overflow;
inline constexpr ErrorNumber kDivideByZeroError = ErrorNumber::DivisionByZero;
inline constexpr ErrorNumber kOverflowError = ErrorNumber::Overflow;

// The floating units a scope must cover besides what compiled code uses.
enum class Units : std::uint8_t { Compiled, WithX87 };

class Scope {
 public:
  explicit Scope(Units units = Units::Compiled) noexcept;
  ~Scope();
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
#if defined(__x86_64__) || defined(__i386__)
  std::uint32_t mxcsr_;        // the caller's SSE masks, rounding, flags, FTZ/DAZ
  std::uint16_t x87_control_;  // the caller's x87 control word, when covered
  std::uint16_t x87_flags_;    // the caller's x87 exception flags, when covered
  bool x87_;
#else
  std::fenv_t saved_;
#endif
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
// or overflow has been recorded since the last clear. Both look at the units
// compiled code uses (SSE; on 32-bit x86 the x87 unit as well). Must run
// inside a Scope.
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
