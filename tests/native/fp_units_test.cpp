// Which floating units a scope covers: on x86-64 compiled code uses SSE
// alone and a plain scope leaves the x87 unit as the caller had it; a scope
// opened for a runtime routine that computes in x87 extended precision
// (Units::WithX87) masks the x87 exceptions and puts the caller's x87
// control word and flags back, including pending flags of the caller's own.
#include <gtest/gtest.h>

#include <cfenv>
#include <cfloat>

#include "frame/fp.h"

#include "test_support.h"

namespace valmetra {
namespace {

#if defined(__x86_64__) && defined(__GLIBC__)

using test::as_host;
using test::observe_env;

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

TEST(FloatingUnits, X87ScopeMasksTrapsAndLeavesNothingPending) {
  as_host(test::unmask_traps, [] {
    const auto before = observe_env();
    {
      fp::Scope scope(fp::Units::WithX87);
      volatile long double r = x87_overflow();  // would trap with the caller's masks
      (void)r;
    }
    EXPECT_EQ(observe_env(), before);
    // The caller's next x87 step finds no pending overflow to trap on.
    volatile long double after = x87_inexact();
    (void)after;
    EXPECT_EQ(observe_env().x87_control, before.x87_control);
  });
}

// A caller's own pending x87 flag survives either kind of scope; a plain
// scope leaves the x87 unit alone, a WithX87 one starts it with clear flags.
TEST(FloatingUnits, ScopesKeepTheCallersPendingX87Flags) {
  for (const auto units : {fp::Units::Compiled, fp::Units::WithX87}) {
    const bool x87 = units == fp::Units::WithX87;
    std::fenv_t before_env;
    std::fegetenv(&before_env);
    volatile long double host = x87_inexact();
    (void)host;
    const auto before = observe_env();
    ASSERT_EQ(before.x87_flags & 0x20, 0x20);
    {
      fp::Scope scope(units);
      EXPECT_EQ(observe_env().x87_flags, x87 ? 0 : before.x87_flags) << x87;
      EXPECT_EQ(observe_env().mxcsr, 0x1F80u) << "SSE: masked, to nearest, flags clear";
      if (x87) {
        volatile long double r = x87_overflow();
        (void)r;
      }
    }
    EXPECT_EQ(observe_env(), before) << x87;
    std::fesetenv(&before_env);
  }
}

#endif

}  // namespace
}  // namespace valmetra
