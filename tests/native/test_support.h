// Helpers shared by the native tests.
#pragma once

#include <cfenv>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "frame/error.h"
#include "frame/history.h"

namespace valmetra::test {

// The number of the library error f throws, or 0 when it succeeds.
int error_of(auto&& f) {
  try {
    f();
  } catch (const Error& e) {
    return e.number();
  }
  return 0;
}

// True when f threw the value history's own error for an empty history of
// the named type, unchanged.
bool history_empty_error(auto&& f, std::u16string_view type_name) {
  try {
    f();
  } catch (const Error& e) {
    return e.number() == kHistoryEmptyNumber && e.source() == kHistorySource &&
           e.description() == u"The value history holds no " + std::u16string(type_name);
  }
  return false;
}

// What a host sees of its floating-point environment: the x87 control word,
// exception flags, the rest of its status (stack top, stack fault, error
// summary), and MXCSR. All zero off x86-64 glibc.
struct FpEnv {
  std::uint16_t x87_control = 0, x87_flags = 0, x87_status = 0;
  std::uint32_t mxcsr = 0;
  bool operator==(const FpEnv&) const = default;
};
inline FpEnv observe_env() {
#if defined(__x86_64__) && defined(__GLIBC__)
  std::fenv_t e;
  std::fegetenv(&e);
  return {e.__control_word, static_cast<std::uint16_t>(e.__status_word & 0x3F),
          static_cast<std::uint16_t>(e.__status_word & 0x38C0), e.__mxcsr};
#else
  return {};
#endif
}

// Runs body as a host whose environment arm() set up. A SIGFPE ends the
// program with kTrapExit; the test's own environment is back afterwards.
inline constexpr int kTrapExit = 99;
void as_host(auto arm, auto body) {
  std::fenv_t saved;
  std::fegetenv(&saved);
  auto previous = std::signal(SIGFPE, [](int) { std::_Exit(kTrapExit); });
  arm();
  body();
  std::fesetenv(&saved);
  std::signal(SIGFPE, previous);
}
// f's result, computed with the host's rounding mode set to mode.
auto in_mode(int mode, auto&& f) {
  std::fesetround(mode);
  auto result = f();
  std::fesetround(FE_TONEAREST);
  return result;
}
inline void unmask_traps() { feenableexcept(FE_DIVBYZERO | FE_INVALID | FE_OVERFLOW); }

}  // namespace valmetra::test
