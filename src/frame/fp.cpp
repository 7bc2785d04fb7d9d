#include "frame/fp.h"

namespace valmetra::fp {

#if defined(__x86_64__) || defined(__i386__)

// On x86 a scope works on the units' registers directly, not through
// <cfenv>. Every operation with a floating step opens a scope, so its cost
// is paid on every such call, and std::fegetenv/fesetenv are expensive:
// they store and load the whole x87 environment (fnstenv/fldenv, tens of
// nanoseconds), and some C runtimes (mingw-w64's) also query the processor
// for SSE support (cpuid) on every fenv call, which costs microseconds in
// a virtual machine. Reading MXCSR or the x87 status word costs a few
// nanoseconds, loading MXCSR or the x87 control word less than one, so:
//   enter:  read MXCSR and load the default; where the x87 unit is covered,
//           read its control word and flags, clear the flags when the
//           caller had any that matter (below), and load the default
//           control word when the caller's differs;
//   leave:  load the caller's MXCSR; where the x87 unit is covered, put
//           its flags back when they changed (the whole x87 environment
//           only when the caller had flags of its own) and its control word
//           when it was changed.
// The x87 flags a caller has pending are nearly always inexact, denormal or
// underflow: a 32-bit host computing in x87 sets inexact on most of its
// floating steps and never clears it. Those flags never raise and the check
// does not look at them, so when they are all the caller has they stay as
// they are for the scope: clearing them would mean loading the whole
// environment (fnstenv/fldenv, about 60 ns, against 6 ns for reading the
// status word) to put them back. A caller whose control word unmasks one of
// them has the error summary (0x80) pending as well, and that is cleared.
// The exception flags sit in the same bits of both units: invalid 0x01,
// denormal 0x02, division by zero 0x04, overflow 0x08, underflow 0x10,
// inexact 0x20.
namespace {

constexpr std::uint32_t kMxcsrDefault = 0x1F80;  // all masked, to nearest, flags clear, no FTZ/DAZ
constexpr std::uint32_t kMxcsrFlags = 0x3F;
#ifdef _WIN32
constexpr std::uint16_t kX87ControlDefault = 0x027F;  // all masked, to nearest, 53-bit precision
#else
constexpr std::uint16_t kX87ControlDefault = 0x037F;  // all masked, to nearest, 64-bit precision
#endif
// Exception flags, stack fault and error summary of the x87 status word.
constexpr std::uint16_t kX87Flags = 0xFF;
constexpr unsigned kChecked = 0x01 | 0x04 | 0x08;
// The x87 flags that may stay set for a scope: denormal, underflow, inexact.
constexpr std::uint16_t kX87Quiet = 0x02 | 0x10 | 0x20;

#ifdef __i386__
constexpr bool kCompiledUsesX87 = true;
#else
constexpr bool kCompiledUsesX87 = false;
#endif

inline std::uint32_t get_mxcsr() noexcept {
  std::uint32_t v;
  asm volatile("stmxcsr %0" : "=m"(v) : : "memory");
  return v;
}
inline void set_mxcsr(std::uint32_t v) noexcept { asm volatile("ldmxcsr %0" : : "m"(v) : "memory"); }
inline std::uint16_t get_x87_control() noexcept {
  std::uint16_t v;
  asm volatile("fnstcw %0" : "=m"(v) : : "memory");
  return v;
}
inline void set_x87_control(std::uint16_t v) noexcept { asm volatile("fldcw %0" : : "m"(v) : "memory"); }
inline std::uint16_t get_x87_flags() noexcept {
  std::uint16_t v;
  asm volatile("fnstsw %0" : "=m"(v) : : "memory");
  return static_cast<std::uint16_t>(v & kX87Flags);
}
inline void clear_x87_flags() noexcept { asm volatile("fnclex" : : : "memory"); }

// The x87 environment as fnstenv stores it (28 bytes, in 32-bit and 64-bit
// mode alike).
struct X87Environment {
  std::uint16_t control, reserved_1, status, reserved_2, tag, reserved_3;
  std::uint32_t instruction_offset;
  std::uint16_t instruction_selector, opcode;
  std::uint32_t operand_offset;
  std::uint16_t operand_selector, reserved_4;
};
static_assert(sizeof(X87Environment) == 28);

// Loads the x87 control word and exception flags together (the flags can
// only be set through the whole environment).
void set_x87_control_and_flags(std::uint16_t control, std::uint16_t flags) noexcept {
  X87Environment env;
  asm volatile("fnstenv %0" : "=m"(env) : : "memory");
  env.control = control;
  env.status = static_cast<std::uint16_t>((env.status & ~kX87Flags) | flags);
  asm volatile("fldenv %0" : : "m"(env) : "memory");
}

}  // namespace

Scope::Scope(Units units) noexcept
    : mxcsr_(get_mxcsr()), x87_control_{}, x87_flags_{}, x87_(kCompiledUsesX87 || units == Units::WithX87) {
  set_mxcsr(kMxcsrDefault);
  if (x87_) {
    x87_control_ = get_x87_control();
    x87_flags_ = get_x87_flags();
    // Before the control word: nothing unmasked may be pending when it is loaded.
    if ((x87_flags_ & ~kX87Quiet) != 0) clear_x87_flags();
    if (x87_control_ != kX87ControlDefault) set_x87_control(kX87ControlDefault);
  }
  asm volatile("" ::: "memory");
}

Scope::~Scope() {
  asm volatile("" ::: "memory");
  if (x87_) {
    if (get_x87_flags() != x87_flags_) {
      if (x87_flags_ == 0) {
        clear_x87_flags();
        if (x87_control_ != kX87ControlDefault) set_x87_control(x87_control_);
      } else {
        set_x87_control_and_flags(x87_control_, x87_flags_);
      }
    } else if (x87_control_ != kX87ControlDefault) {
      set_x87_control(x87_control_);
    }
  }
  set_mxcsr(mxcsr_);
}

void clear() noexcept {
  asm volatile("" ::: "memory");
  const std::uint32_t mxcsr = get_mxcsr();
  if (mxcsr & kMxcsrFlags) set_mxcsr(mxcsr & ~kMxcsrFlags);
  if (kCompiledUsesX87 && get_x87_flags() != 0) clear_x87_flags();
}

void check() {
  asm volatile("" ::: "memory");
  unsigned raised = get_mxcsr();
  if (kCompiledUsesX87) raised |= get_x87_flags();
  raised &= kChecked;
  if (raised == 0) return;
  clear();
  if (raised & 0x04) raise(kDivideByZeroError);
  if (raised & 0x01) raise(kInvalidError);
  raise(kOverflowError);
}

#else

Scope::Scope(Units) noexcept {
  std::fegetenv(&saved_);
  std::fesetenv(FE_DFL_ENV);
  asm volatile("" ::: "memory");
}

Scope::~Scope() {
  asm volatile("" ::: "memory");
  std::fesetenv(&saved_);
}

void clear() noexcept {
  asm volatile("" ::: "memory");
  std::feclearexcept(FE_ALL_EXCEPT);
}

void check() {
  asm volatile("" ::: "memory");
  const int raised = std::fetestexcept(FE_INVALID | FE_DIVBYZERO | FE_OVERFLOW);
  if (raised == 0) return;
  std::feclearexcept(FE_ALL_EXCEPT);
  if (raised & FE_DIVBYZERO) raise(kDivideByZeroError);
  if (raised & FE_INVALID) raise(kInvalidError);
  raise(kOverflowError);
}

#endif

}  // namespace valmetra::fp
