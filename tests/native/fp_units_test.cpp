// Which floating units a scope covers: on x86-64 compiled code uses SSE
// alone and a plain scope leaves the x87 unit as the caller had it; a scope
// opened for a runtime routine that computes in x87 extended precision
// (Units::WithX87) masks the x87 exceptions and puts the caller's x87
// control word and flags back, including pending flags of the caller's own.
#include <gtest/gtest.h>

#include <cfenv>
#include <cfloat>
#include <csignal>
#include <cstdint>
#include <cstdlib>

#include "frame/arith.h"
#include "frame/fp.h"

namespace valmetra {
namespace {

#if defined(__x86_64__) || defined(__i386__)

struct X87 {
  std::uint16_t control, flags;
  std::uint32_t mxcsr;
  bool operator==(const X87&) const = default;
};
X87 observe() {
  X87 s;
  std::uint16_t status;
  asm volatile("fnstcw %0" : "=m"(s.control));
  asm volatile("fnstsw %0" : "=m"(status));
  asm volatile("stmxcsr %0" : "=m"(s.mxcsr));
  s.flags = static_cast<std::uint16_t>(status & 0x3F);
  return s;
}

// An x87 step that overflows (long double is the x87 format on x86).
long double x87_overflow() {
  volatile long double big = LDBL_MAX;
  return big * big;
}
// One that is only inexact.
long double x87_inexact() {
  volatile long double one = 1.0L, three = 3.0L;
  return one / three;
}

template <class Body>
void with_x87_traps_unmasked(Body body) {
  std::fenv_t before;
  std::fegetenv(&before);
  auto previous = std::signal(SIGFPE, [](int) { std::_Exit(99); });  // a trap ends the test run
  feenableexcept(FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW);
  body();
  std::signal(SIGFPE, previous);
  std::fesetenv(&before);
}

TEST(FloatingUnits, X87ScopeMasksTrapsAndLeavesNothingPending) {
  with_x87_traps_unmasked([] {
    const X87 before = observe();
    {
      fp::Scope scope(fp::Units::WithX87);
      volatile long double r = x87_overflow();  // would trap with the caller's masks
      (void)r;
    }
    EXPECT_EQ(observe(), before);
    // The caller's next x87 step finds no pending overflow to trap on.
    volatile long double after = x87_inexact();
    (void)after;
    EXPECT_EQ(observe().control, before.control);
  });
}

TEST(FloatingUnits, X87ScopeKeepsTheCallersOwnPendingFlags) {
  std::fenv_t before_env;
  std::fegetenv(&before_env);
  volatile long double host = x87_inexact();  // the caller's own sticky flag
  (void)host;
  const X87 before = observe();
  ASSERT_EQ(before.flags & 0x20, 0x20);
  {
    fp::Scope scope(fp::Units::WithX87);
    EXPECT_EQ(observe().flags, 0) << "the scope starts with clear x87 flags";
    volatile long double r = x87_overflow();
    (void)r;
  }
  EXPECT_EQ(observe(), before);
  std::fesetenv(&before_env);
}

TEST(FloatingUnits, PowerRunsUnderX87TrapsWithoutSignal) {
  with_x87_traps_unmasked([] {
    const X87 before = observe();
    EXPECT_EQ(power(2.0, 10.0), 1024.0);
    EXPECT_THROW(power(10.0, 400.0), Error);
    EXPECT_EQ(observe(), before);
  });
}

#if defined(__x86_64__)
TEST(FloatingUnits, CompiledScopeOnX86_64LeavesTheX87UnitAlone) {
  std::fenv_t before_env;
  std::fegetenv(&before_env);
  volatile long double host = x87_inexact();
  (void)host;
  const X87 before = observe();
  {
    fp::Scope scope;
    EXPECT_EQ(observe().flags, before.flags);
    EXPECT_EQ(observe().mxcsr, 0x1F80u) << "SSE: masked, to nearest, flags clear";
  }
  EXPECT_EQ(observe(), before);
  std::fesetenv(&before_env);
}
#endif

#endif

}  // namespace
}  // namespace valmetra
