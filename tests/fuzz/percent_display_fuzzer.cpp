// PercentDisplay formatting (stats/number_text.h percent_display_text) and
// the four percent counters, against a reference with exact rational
// arithmetic (reference.h: arbitrary-precision integers).
//
// Input: 4 bytes of host environment; two 16-bit words, the occurrence and
// sample counts (each modulo 512; bits 12-13 of the second pick the counter
// class); then Singles (4 bytes each), checked with their neighbours.
//
// Invariants:
// - a finite ratio shows ratio * 100 rounded half away from zero on its exact
//   binary value, digits without grouping or leading zeros, none for 0, '-'
//   for a negative number, '%' last; a non-finite ratio raises Overflow (6);
// - each counter, after the given numbers of Occured / AnotherSampleOccured
//   calls: Default is the occurrence count, RawPercent the exact quotient
//   (divisor 1 without samples) rounded once to a Single, Percent that Single
//   times 100 rounded to a Single, PercentDisplay the display of RawPercent;
// - nothing depends on the host's environment, which is unchanged.
#include <bit>
#include <cmath>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "reference.h"
#include "stats/number_text.h"
#include "stats/percent.h"

namespace {

using namespace valmetra;

std::string hex(float v) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%a (%08x)", static_cast<double>(v), std::bit_cast<std::uint32_t>(v));
  return buf;
}

void check_display(float ratio, const fuzz::HostEnv& env) {
  std::u16string got;
  const fuzz::Outcome out = fuzz::call_in_env(env, [&] { got = percent_display_text(ratio); });
  if (!std::isfinite(ratio)) {
    FUZZ_CHECK(out.error == 6, hex(ratio) + ": expected Overflow");
    return;
  }
  FUZZ_CHECK(!out.failed(), hex(ratio) + ": failed");
  const std::u16string want = fuzz::ref::widen(fuzz::ref::percent_display(ratio));
  FUZZ_CHECK(got == want, hex(ratio) + ": expected " + fuzz::narrow(want) + ", got " + fuzz::narrow(got));
}

template <class Counter>
void check_counter(unsigned occurrences, unsigned samples, const fuzz::HostEnv& env) {
  Counter c;
  fuzz::Outcome out = fuzz::call_in_env(env, [&] {
    for (unsigned k = 0; k < occurrences; ++k) {
      if (k % 2 == 0) {
        c.Occured();
      } else {
        c.Default(decltype(c.Default()){});  // an assignment counts one occurrence
      }
    }
    for (unsigned k = 0; k < samples; ++k) c.AnotherSampleOccured();
  });
  FUZZ_CHECK(!out.failed(), "counting failed");
  const std::string where = std::to_string(occurrences) + " in " + std::to_string(samples);
  decltype(c.Default()) count{};
  Single raw = 0, percent = 0;
  std::u16string display;
  out = fuzz::call_in_env(env, [&] {
    count = c.Default();
    raw = c.RawPercent();
    percent = c.Percent();
    display = c.PercentDisplay();
  });
  FUZZ_CHECK(!out.failed(), where + ": reading failed");
  FUZZ_CHECK(count == static_cast<decltype(count)>(occurrences), where + ": Default");
  const float want_raw = fuzz::ref::ratio(occurrences, samples);
  FUZZ_CHECK(std::bit_cast<std::uint32_t>(raw) == std::bit_cast<std::uint32_t>(want_raw),
             where + ": RawPercent " + hex(raw) + ", expected " + hex(want_raw));
  const float want_percent = static_cast<float>(static_cast<double>(want_raw) * 100.0);
  FUZZ_CHECK(std::bit_cast<std::uint32_t>(percent) == std::bit_cast<std::uint32_t>(want_percent),
             where + ": Percent " + hex(percent));
  const std::u16string want_display = fuzz::ref::widen(fuzz::ref::percent_display(want_raw));
  FUZZ_CHECK(display == want_display, where + ": PercentDisplay " + fuzz::narrow(display) + ", expected " +
                                          fuzz::narrow(want_display));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 8) return 0;
  const std::uint8_t* p = data;
  const std::uint8_t* const end = data + size;
  const fuzz::HostEnv env = fuzz::hostile_env(fuzz::read_u32(p, end));
  const std::uint32_t counts = fuzz::read_u32(p, end);
  const unsigned occurrences = (counts & 0xFFFF) % 512;
  const unsigned samples = (counts >> 16) % 512;
  switch ((counts >> 28) % 4) {
    case 0: check_counter<IntegerPercent>(occurrences, samples, env); break;
    case 1: check_counter<LongPercentData>(occurrences, samples, env); break;
    case 2: check_counter<SinglePercentData>(occurrences, samples, env); break;
    default: check_counter<DoublePercentData>(occurrences, samples, env); break;
  }
  while (end - p >= 4) {
    const std::uint32_t bits = fuzz::read_u32(p, end);
    for (std::uint32_t b : {bits, bits + 1, bits - 1}) check_display(std::bit_cast<float>(b), env);
  }
  return 0;
}
