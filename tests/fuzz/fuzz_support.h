// What every fuzz target shares: failing loudly, the error vocabulary, text
// helpers and the host's floating-point environment.
//
// A target reports a broken invariant with FUZZ_CHECK, which prints what was
// expected and aborts, so libFuzzer keeps the input as a crash artifact.
#pragma once

#include <algorithm>
#include <cfenv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "frame/error.h"
#include "frame/history.h"

namespace fuzz {

inline std::string narrow(std::u16string_view s) {
  std::string out;
  for (char16_t c : s) {
    if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
    } else {
      char buf[12];
      std::snprintf(buf, sizeof buf, "\\u%04X", static_cast<unsigned>(c));
      out += buf;
    }
  }
  return out;
}

// What the target is doing, for the failure report (set by the targets).
struct Context {
  const char* what = nullptr;  // class name
  int operation = 0;
  long call = 0;
  const char* run = "";
};
inline Context g_context;

// Calls into the library made through call_in_env, reported at exit.
inline std::uint64_t g_calls = 0;
struct CallReport {
  ~CallReport() {
    if (g_calls != 0) {
      std::fprintf(stderr, "fuzz: %llu calls into the library\n", static_cast<unsigned long long>(g_calls));
    }
  }
};
inline CallReport g_call_report;

[[noreturn]] inline void fail(const char* file, int line, const char* what, const std::string& detail) {
  std::fprintf(stderr, "\n*** invariant broken at %s:%d: %s\n", file, line, what);
  if (!detail.empty()) std::fprintf(stderr, "    %s\n", detail.c_str());
  if (g_context.what != nullptr) {
    std::fprintf(stderr, "    during: %s operation %d, call %ld of the %s run\n", g_context.what, g_context.operation,
                 g_context.call, g_context.run);
  }
  std::fflush(stderr);
  std::abort();
}

#define FUZZ_CHECK(cond, detail)                                          \
  do {                                                                    \
    if (!(cond)) ::fuzz::fail(__FILE__, __LINE__, #cond, (detail));       \
  } while (0)

// A fault the operations target injects into the value history service: a
// called object's error that must pass on unchanged. Zero when none is armed.
inline std::int32_t g_injected_number = 0;
inline constexpr std::u16string_view kInjectedSource = u"FuzzService";
inline constexpr std::u16string_view kInjectedDescription = u"injected failure";

// Errors a call of the library may end with: the vocabulary with the
// library's source and standard description, the value history service's
// own error (number 5, source "ValueStack"), or an injected fault passed on.
inline bool is_vocabulary_error(const valmetra::Error& e) {
  const std::int32_t n = e.number();
  if (g_injected_number != 0 && n == g_injected_number && e.source() == kInjectedSource) {
    return e.description() == kInjectedDescription;
  }
  if (n == valmetra::kHistoryEmptyNumber && e.source() == valmetra::kHistorySource) {
    return !e.description().empty();
  }
  if (n != 5 && n != 6 && n != 7 && n != 11 && n != 13) return false;
  return e.source() == valmetra::kLibrarySource && e.description() == valmetra::describe(n);
}

inline std::string describe_error(const valmetra::Error& e) {
  return "error " + std::to_string(e.number()) + " \"" + narrow(e.description()) + "\" from \"" +
         narrow(e.source()) + "\"";
}

// Outcome of one call: 0 for success, else the error number.
struct Outcome {
  std::int32_t error = 0;
  bool failed() const { return error != 0; }
};

// Runs f(); an Error becomes the outcome after the vocabulary check. Any other
// exception escapes and ends the run as a crash.
template <class F>
Outcome run_checked(F&& f) {
  try {
    f();
    return {};
  } catch (const valmetra::Error& e) {
    FUZZ_CHECK(is_vocabulary_error(e), describe_error(e));
    return {e.number()};
  }
}

// ---------------------------------------------------------------------------
// The host's floating-point environment: what a host can observe of it and a
// way to install a hostile one (other rounding modes, unmasked traps, sticky
// flags, flush-to-zero and denormals-are-zero, x87 precision control).

struct HostEnv {
  std::uint16_t x87_control = 0;
  std::uint16_t x87_flags = 0;  // status word, exception flags and summary bits
  std::uint32_t mxcsr = 0;
  bool operator==(const HostEnv&) const = default;
  std::string text() const {
    char buf[80];
    std::snprintf(buf, sizeof buf, "x87 cw %04x flags %02x, mxcsr %08x", x87_control, x87_flags, mxcsr);
    return buf;
  }
};

#if defined(__x86_64__) && defined(__GLIBC__)
inline HostEnv read_env() {
  HostEnv env;
  std::uint16_t sw = 0;
  asm volatile("fnstcw %0" : "=m"(env.x87_control));
  asm volatile("fnstsw %0" : "=m"(sw));
  asm volatile("stmxcsr %0" : "=m"(env.mxcsr));
  env.x87_flags = static_cast<std::uint16_t>(sw & 0xFF);
  return env;
}

inline void write_env(const HostEnv& env) {
  std::fenv_t e;
  std::fegetenv(&e);
  e.__control_word = env.x87_control;
  e.__status_word = static_cast<unsigned short>((e.__status_word & ~0xFFu) | env.x87_flags);
  e.__mxcsr = env.mxcsr;
  std::fesetenv(&e);
}

// The environment every call of the library installs for itself.
inline HostEnv default_env() { return HostEnv{0x037F, 0, 0x1F80}; }

// A host environment decoded from 32 random bits:
//   bits 0-1 x87 rounding, 2-3 SSE rounding, 4-9 sticky flags (invalid,
//   denormal, divide-by-zero, overflow, underflow, inexact), 10-15 traps to
//   unmask (only for conditions whose flag is clear, else the next x87
//   instruction would trap at once), 16-17 x87 precision, 18 FTZ, 19 DAZ.
inline HostEnv hostile_env(std::uint32_t r) {
  const std::uint32_t flags = (r >> 4) & 0x3F;
  const std::uint32_t unmask = ((r >> 10) & 0x3F) & ~flags;
  const std::uint32_t masks = 0x3F & ~unmask;
  HostEnv env;
  // x87: masks 0-5, precision 8-9, rounding 10-11; bit 6 is reserved and set.
  env.x87_control = static_cast<std::uint16_t>(masks | 0x40 | (((r >> 16) & 3) << 8) | ((r & 3) << 10));
  env.x87_flags = static_cast<std::uint16_t>(flags);
  // SSE: flags 0-5, DAZ 6, masks 7-12, rounding 13-14, FTZ 15.
  env.mxcsr = flags | (masks << 7) | (((r >> 2) & 3) << 13) | (((r >> 18) & 1) << 15) | (((r >> 19) & 1) << 6);
  return env;
}
#else
inline HostEnv read_env() {
  HostEnv env;
  env.x87_control = static_cast<std::uint16_t>(std::fegetround());
  env.x87_flags = static_cast<std::uint16_t>(std::fetestexcept(FE_ALL_EXCEPT));
  return env;
}
inline void write_env(const HostEnv& env) {
  std::fesetround(env.x87_control);
  std::feclearexcept(FE_ALL_EXCEPT);
  if (env.x87_flags != 0) std::feraiseexcept(env.x87_flags);
}
inline HostEnv default_env() { return HostEnv{FE_TONEAREST, 0, 0}; }
inline HostEnv hostile_env(std::uint32_t r) {
  static constexpr int kModes[] = {FE_TONEAREST, FE_DOWNWARD, FE_UPWARD, FE_TOWARDZERO};
  HostEnv env;
  env.x87_control = static_cast<std::uint16_t>(kModes[r & 3]);
  env.x87_flags = static_cast<std::uint16_t>(((r >> 4) & 1 ? FE_INEXACT : 0) | ((r >> 5) & 1 ? FE_INVALID : 0));
  return env;
}
#endif

// Calls f() with `env` installed as the host's environment and checks that
// the environment is exactly as installed afterwards, also when f() fails.
// The harness's own environment (the default) is back on return.
template <class F>
Outcome call_in_env(const HostEnv& env, F&& f) {
  ++g_calls;
  write_env(env);
  Outcome out;
  HostEnv after;
  try {
    f();
    after = read_env();
  } catch (const valmetra::Error& e) {
    after = read_env();
    write_env(default_env());
    FUZZ_CHECK(is_vocabulary_error(e), describe_error(e));
    out.error = e.number();
  }
  write_env(default_env());
  FUZZ_CHECK(after == env, "host environment " + env.text() + " came back as " + after.text());
  return out;
}

// ---------------------------------------------------------------------------
// Reading fuzz bytes.

// Up to four bytes, little-endian; what is missing at the end reads as 0.
inline std::uint32_t read_u32(const std::uint8_t*& p, const std::uint8_t* end) {
  std::uint32_t v = 0;
  for (int k = 0; k < 4 && p < end; ++k) v |= static_cast<std::uint32_t>(*p++) << (8 * k);
  return v;
}

// Text from fuzz bytes. Most bytes map to characters that matter to number
// text; the rest give any UTF-16 unit.

inline constexpr char16_t kNumberAlphabet[] = u"0123456789012345,,,,    ..--++eE\t 5,0.1e9";

// Decodes bytes into text: bytes below 0xF0 pick from the alphabet, 0xF0-0xFD
// take the next two bytes as a raw UTF-16 unit, 0xFE repeats the previous
// character (next byte + 1) * 64 times (long texts for the 16-bit position
// limits), 0xFF ends the text.
inline std::u16string decode_text(const std::uint8_t*& p, const std::uint8_t* end, std::size_t max_size) {
  std::u16string out;
  constexpr std::size_t kAlphabet = sizeof(kNumberAlphabet) / sizeof(char16_t) - 1;
  while (p < end && out.size() < max_size) {
    const std::uint8_t b = *p++;
    if (b == 0xFF) break;
    if (b < 0xF0) {
      out += kNumberAlphabet[b % kAlphabet];
    } else if (b < 0xFE) {
      if (end - p < 2) break;
      out += static_cast<char16_t>(p[0] | (p[1] << 8));
      p += 2;
    } else {
      if (p == end) break;
      const std::size_t n = (static_cast<std::size_t>(*p++) + 1) * 64;
      const char16_t c = out.empty() ? u'1' : out.back();
      out.append(std::min(n, max_size - out.size()), c);
    }
  }
  return out;
}

}  // namespace fuzz
