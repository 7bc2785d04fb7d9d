// What the fuzz targets share: failing loudly, reading the input, and calling
// the library inside a host floating-point environment decoded from the input.
// FUZZ_CHECK prints the broken property and aborts, so libFuzzer keeps the input.
#pragma once

#include <cfenv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "frame/error.h"
#include "frame/history.h"

namespace fuzz {

[[noreturn]] inline void fail(const char* file, int line, const char* what, const std::string& detail) {
  std::fprintf(stderr, "\n*** property broken at %s:%d: %s\n    %s\n", file, line, what, detail.c_str());
  std::abort();
}
#define FUZZ_CHECK(cond, detail)                                    \
  do {                                                              \
    if (!(cond)) ::fuzz::fail(__FILE__, __LINE__, #cond, (detail)); \
  } while (0)

// Calls into the library, reported at exit (run.sh puts them in stats.txt).
inline std::uint64_t g_calls = 0;
struct CallReport {
  ~CallReport() { std::fprintf(stderr, "fuzz: %llu calls into the library\n", (unsigned long long)g_calls); }
} inline g_call_report;

// An error a called object (the value history service) raised on purpose;
// it must reach the caller unchanged. 0 when none is armed.
inline std::int32_t g_injected = 0;

// The input, read front to back; what is missing at the end reads as zeros.
struct Input {
  const std::uint8_t* p;
  const std::uint8_t* end;
  bool empty() const { return p == end; }
  std::uint8_t byte() { return p < end ? *p++ : 0; }
  std::uint32_t u32() {
    std::uint32_t v = 0;
    for (int k = 0; k < 4; ++k) v |= std::uint32_t{byte()} << 8 * k;
    return v;
  }
  // Text mostly of the characters number text is made of: bytes below 0xF0
  // pick from the alphabet, 0xF0-0xFD take the next two bytes as any UTF-16
  // unit, 0xFE repeats the last character (next byte + 1) * 64 times (the
  // 16-bit position limits of number strings), 0xFF ends the text.
  std::u16string text(std::size_t max) {
    static constexpr char16_t kAlphabet[] = u"0123456789012345,,,,    ..--++eE\t 5,0.1e9";
    std::u16string s;
    while (!empty() && s.size() < max) {
      const std::uint8_t b = byte();
      if (b == 0xFF) break;
      if (b < 0xF0) s += kAlphabet[b % (std::size(kAlphabet) - 1)];
      if (b >= 0xF0 && b < 0xFE) {
        const std::uint16_t low = byte();
        s += static_cast<char16_t>(low | byte() << 8);
      }
      if (b == 0xFE) s.append(std::min<std::size_t>((byte() + 1) * 64, max - s.size()), s.empty() ? u'1' : s.back());
    }
    return s;
  }
};

// What a host sees of its floating-point environment: the x87 control word
// and exception flags, and MXCSR (SSE masks, rounding, flags, FTZ, DAZ).
struct Env {
  std::uint16_t x87_control = 0x037F, x87_flags = 0;
  std::uint32_t mxcsr = 0x1F80;
  bool operator==(const Env&) const = default;
  std::string text() const {
    char buf[64];
    std::snprintf(buf, sizeof buf, "x87 cw %04x flags %02x, mxcsr %08x", x87_control, x87_flags, mxcsr);
    return buf;
  }
};

inline Env read_env() {
  Env env;
  std::uint16_t sw = 0;
  asm volatile("fnstcw %0\n\tfnstsw %1\n\tstmxcsr %2" : "=m"(env.x87_control), "=m"(sw), "=m"(env.mxcsr));
  env.x87_flags = sw & 0x3F;
  return env;
}

inline void write_env(const Env& env) {
  std::fenv_t e;
  std::fegetenv(&e);
  e.__control_word = env.x87_control;
  e.__status_word = static_cast<unsigned short>((e.__status_word & ~0xFFu) | env.x87_flags);
  e.__mxcsr = env.mxcsr;
  std::fesetenv(&e);
}

// A hostile host environment from 32 bits: 0-1 x87 rounding, 2-3 SSE
// rounding, 4-9 sticky flags, 10-15 traps unmasked (only for conditions whose
// flag is clear, or the next x87 instruction traps at once), 16-17 x87
// precision, 18 FTZ, 19 DAZ.
inline Env hostile_env(std::uint32_t r) {
  const std::uint32_t flags = (r >> 4) & 0x3F, masks = 0x3F & ~(((r >> 10) & 0x3F) & ~flags);
  return Env{static_cast<std::uint16_t>(masks | 0x40 | ((r >> 16) & 3) << 8 | (r & 3) << 10),
             static_cast<std::uint16_t>(flags),
             flags | masks << 7 | ((r >> 2) & 3) << 13 | ((r >> 18) & 1) << 15 | ((r >> 19) & 1) << 6};
}

// Runs f() as a host with `env` installed. Returns 0, or the number of the
// error f() ended with after checking it belongs to the vocabulary (the
// library's own errors, the history's "empty" error, an injected one). The
// environment must come back bit for bit, also after an error; the harness's
// own (default) environment is back on return.
template <class F>
int call(const Env& env, F&& f) {
  ++g_calls;
  write_env(env);
  int error = 0;
  try {
    f();
  } catch (const valmetra::Error& e) {
    error = e.number();
    const bool own = (error == 5 || error == 6 || error == 7 || error == 11 || error == 13) &&
                     e.source() == valmetra::kLibrarySource && e.description() == valmetra::describe(error);
    const bool history = error == valmetra::kHistoryEmptyNumber && e.source() == valmetra::kHistorySource;
    const bool injected = error == g_injected && e.source() == u"FuzzService" && e.description() == u"injected";
    FUZZ_CHECK(own || history || injected, "error " + std::to_string(error) + " is outside the vocabulary");
  }
  const Env after = read_env();
  write_env(Env{});
  FUZZ_CHECK(after == env, "host environment " + env.text() + " came back as " + after.text());
  return error;
}

}  // namespace fuzz
