// The standard text forms of a Single and of an Integer (stats/number_text.h),
// against the reference written with the C library's exact printf/strtof.
//
// Input: 4 bytes of host environment, then Singles (4 bytes each); each one is
// checked together with its two neighbours, so powers of two and the edges of
// the decimal layouts are reached from nearby bit patterns; the low 16 bits of
// each also serve as an Integer.
//
// Invariants:
// - single_to_text gives exactly the reference text: shortest round-trip
//   digits when there are at most 7 of them, else 7 digits rounded half to
//   even on the exact value; no trailing zeros; plain notation for decimal
//   exponents -4..6, else mantissa, 'E', sign and at least two exponent
//   digits; "0", "Infinity", "-Infinity", "NaN";
// - append_single_text / append_integer_text append and keep what was there;
// - the text does not depend on the host's environment, which is unchanged.
#include <bit>
#include <cmath>
#include <cstdint>
#include <string>

#include "frame/arith.h"
#include "fuzz_support.h"
#include "reference.h"
#include "stats/number_text.h"

namespace {

using namespace valmetra;

void check_single(float v, const fuzz::HostEnv& env) {
  const std::u16string want = fuzz::ref::widen(fuzz::ref::single_text(v));
  std::u16string got = u"<";
  const fuzz::Outcome out = fuzz::call_in_env(env, [&] { append_single_text(got, v); });
  FUZZ_CHECK(!out.failed(), "append_single_text failed");
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.9g (%08x)", static_cast<double>(v), std::bit_cast<std::uint32_t>(v));
  FUZZ_CHECK(got == u"<" + want, std::string(buf) + ": expected " + fuzz::narrow(want) + ", got " +
                                     fuzz::narrow(got.substr(1)));
}

void check_integer(Integer v) {
  std::u16string got = u"#";
  append_integer_text(got, v);
  FUZZ_CHECK(got == u"#" + fuzz::ref::widen(std::to_string(v)), "integer " + std::to_string(v));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::uint8_t* p = data;
  const std::uint8_t* const end = data + size;
  const fuzz::HostEnv env = fuzz::hostile_env(fuzz::read_u32(p, end));
  while (end - p >= 4) {
    const std::uint32_t bits = fuzz::read_u32(p, end);
    for (std::uint32_t b : {bits, bits + 1, bits - 1}) check_single(std::bit_cast<float>(b), env);
    check_integer(static_cast<Integer>(bits & 0xFFFF));
  }
  return 0;
}
