// What the fuzz targets share: FUZZ_CHECK (prints the broken property and
// aborts; libFuzzer keeps the input), reading the input, and calling the
// library inside a host floating-point environment decoded from the input.
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
  std::fprintf(stderr, "\n*** %s:%d: %s\n    %s\n", file, line, what, detail.c_str());
  std::abort();
}
#define FUZZ_CHECK(cond, detail) ((cond) ? void() : ::fuzz::fail(__FILE__, __LINE__, #cond, detail))

// Calls into the library, reported at exit for run.sh's statistics.
inline unsigned long long g_calls = 0;
inline const int g_report = std::atexit([] { std::fprintf(stderr, "fuzz: %llu calls into the library\n", g_calls); });
// The error a called object (the value history) raises on purpose, 0 for none.
inline std::int32_t g_injected = 0;

// The input, front to back; what is missing at the end reads as zeros.
struct Input {
  const std::uint8_t *p, *end;
  bool empty() const { return p == end; }
  std::uint8_t byte() { return p < end ? *p++ : 0; }
  std::uint32_t u32(int n = 4) {  // n bytes, little-endian
    std::uint32_t v = 0;
    for (int k = 0; k < n; ++k) v |= std::uint32_t{byte()} << 8 * k;
    return v;
  }
  // Text mostly of number characters: bytes below 0xF0 pick from the alphabet,
  // 0xF0-0xFD take the next two bytes as a UTF-16 unit, 0xFE repeats the last
  // character (next byte + 1) * 64 times, 0xFF ends the text.
  std::u16string text(std::size_t max) {
    static constexpr char16_t kAlphabet[] = u"0123456789012345,,,,    ..--++eE\t 5,0.1e9";
    std::u16string s;
    for (std::uint8_t b; !empty() && s.size() < max && (b = byte()) != 0xFF;) {
      const char16_t last = s.empty() ? u'1' : s.back();
      if (b < 0xF0) s += kAlphabet[b % (std::size(kAlphabet) - 1)];
      if (b >= 0xF0 && b < 0xFE) s += static_cast<char16_t>(u32(2));
      if (b == 0xFE) s.append(std::min<std::size_t>((byte() + 1) * 64, max - s.size()), last);
    }
    return s;
  }
};

// What a host sees of its floating-point environment: x87 control word and
// exception flags, MXCSR (SSE masks, rounding, flags, FTZ, DAZ).
struct Env {
  std::uint16_t control = 0x037F, flags = 0;
  std::uint32_t mxcsr = 0x1F80;
  bool operator==(const Env&) const = default;
  std::string text() const { return std::to_string(control) + "/" + std::to_string(flags) + "/" + std::to_string(mxcsr); }
};

inline Env read_env() {
  Env env;
  asm volatile("fnstcw %0\n\tfnstsw %1\n\tstmxcsr %2" : "=m"(env.control), "=m"(env.flags), "=m"(env.mxcsr));
  env.flags &= 0x3F;
  return env;
}

inline void write_env(const Env& env) {
  std::fenv_t e;
  std::fegetenv(&e);
  e.__control_word = env.control;
  e.__status_word = static_cast<unsigned short>((e.__status_word & ~0xFFu) | env.flags);
  e.__mxcsr = env.mxcsr;
  std::fesetenv(&e);
}

// A hostile environment from 32 bits: 0-1 x87 rounding, 2-3 SSE rounding,
// 4-9 sticky flags, 10-15 traps unmasked (only where the flag is clear, or
// the next x87 instruction traps at once), 16-17 x87 precision, 18 FTZ, 19 DAZ.
inline Env hostile_env(std::uint32_t r) {
  const std::uint32_t flags = (r >> 4) & 0x3F, masks = 0x3F & ~(((r >> 10) & 0x3F) & ~flags);
  return Env{static_cast<std::uint16_t>(masks | 0x40 | ((r >> 16) & 3) << 8 | (r & 3) << 10), static_cast<std::uint16_t>(flags),
             flags | masks << 7 | ((r >> 2) & 3) << 13 | ((r >> 18) & 1) << 15 | ((r >> 19) & 1) << 6};
}

// Runs f() as a host with `env` installed: 0, or the number of the error f()
// raised (the library's own, the history's "empty" one or the injected one,
// unchanged). The environment must come back bit for bit, also after an error.
template <class F>
int call(const Env& env, F&& f) {
  ++g_calls;
  write_env(env);
  int n = 0;
  try {
    f();
  } catch (const valmetra::Error& e) {
    n = e.number();
    const bool own = (n == 5 || n == 6 || n == 7 || n == 11 || n == 13) && e.source() == valmetra::kLibrarySource &&
                     e.description() == valmetra::describe(n);
    FUZZ_CHECK(own || (n == valmetra::kHistoryEmptyNumber && e.source() == valmetra::kHistorySource) ||
                   (n == g_injected && e.source() == u"FuzzService" && e.description() == u"injected"),
               "error " + std::to_string(n) + " is outside the vocabulary");
  }
  const Env after = read_env();
  write_env(Env{});
  FUZZ_CHECK(after == env, "host environment " + env.text() + " came back as " + after.text());
  return n;
}

}  // namespace fuzz
