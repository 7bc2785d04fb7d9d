// Text to number (stats/number_text.h), against the reference reader, in a
// hostile host environment; and the round trips through the text forms.
//
// Input: 4 bytes of host environment, 4 bytes of a Single, 4 bytes whose low
// 16 bits are an Integer, then text (fuzz_support.h decode_text).
//
// Invariants:
// - text_to_number accepts exactly the documented grammar: Type mismatch (13)
//   for anything else, Overflow (6) beyond the Double range, otherwise the
//   Double nearest the decimal value, bit for bit (sign of zero included);
// - the result does not depend on the host's rounding mode, masks, flags,
//   FTZ/DAZ, and the host's environment is unchanged afterwards;
// - a finite Single's standard text is read back without error; read back
//   and rounded to a Single (as SingleAverage does) it gives the same Single
//   when its shortest form has at most 7 significant digits, and otherwise a
//   Single within half a unit of the 7th digit; zeros read back as zero;
// - an Integer's text reads back as the same Integer.
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include "frame/arith.h"
#include "fuzz_support.h"
#include "reference.h"
#include "stats/number_text.h"

namespace {

using namespace valmetra;

void check_text(const std::u16string& text, const fuzz::HostEnv& env) {
  const fuzz::ref::Parsed want = fuzz::ref::text_to_number(text);
  double got = 0.0;
  const fuzz::Outcome out = fuzz::call_in_env(env, [&] { got = text_to_number(text); });
  const std::string where = "text \"" + fuzz::narrow(text) + "\"";
  switch (want.kind) {
    case fuzz::ref::Kind::TypeMismatch:
      FUZZ_CHECK(out.error == 13, where + ": expected Type mismatch, got " + std::to_string(out.error));
      break;
    case fuzz::ref::Kind::Overflow:
      FUZZ_CHECK(out.error == 6, where + ": expected Overflow, got " + std::to_string(out.error));
      break;
    case fuzz::ref::Kind::Number: {
      FUZZ_CHECK(out.error == 0, where + ": expected a number, got error " + std::to_string(out.error));
      char buf[96];
      std::snprintf(buf, sizeof buf, ": expected %.17g (%016llx), got %.17g (%016llx)", want.value,
                    static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(want.value)), got,
                    static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(got)));
      FUZZ_CHECK(std::bit_cast<std::uint64_t>(got) == std::bit_cast<std::uint64_t>(want.value), where + buf);
      break;
    }
  }
}

void check_single_round_trip(float v, const fuzz::HostEnv& env) {
  if (!std::isfinite(v)) return;
  std::u16string text;
  fuzz::Outcome out = fuzz::call_in_env(env, [&] { text = single_to_text(v); });
  FUZZ_CHECK(!out.failed(), "single_to_text failed");
  double read = 0.0;
  out = fuzz::call_in_env(env, [&] { read = text_to_number(text); });
  char buf[128];
  std::snprintf(buf, sizeof buf, "%a (%08x) written as ", static_cast<double>(v), std::bit_cast<std::uint32_t>(v));
  const std::string where = buf + fuzz::narrow(text);
  FUZZ_CHECK(!out.failed(), where + " does not read back: error " + std::to_string(out.error));
  Single back = 0.0f;
  out = fuzz::call_in_env(env, [&] { back = to_single(read); });
  FUZZ_CHECK(!out.failed(), where + " reads back beyond the Single range");
  if (v == 0.0f) {
    FUZZ_CHECK(back == 0.0f, where + " does not read back as zero");
    return;
  }
  const fuzz::ref::Decimal shortest = fuzz::ref::single_digits(std::fabs(v));
  const bool exact = fuzz::ref::read_float(shortest) == std::fabs(v);
  if (exact) {
    FUZZ_CHECK(std::bit_cast<std::uint32_t>(back) == std::bit_cast<std::uint32_t>(v),
               where + " reads back as another Single");
  } else {
    // Seven significant digits: within half a unit of the seventh digit, plus
    // the final rounding to a Single.
    const double unit = std::pow(10.0, shortest.exponent - 6);
    const double ulp = std::fabs(static_cast<double>(std::nextafter(std::fabs(v), INFINITY)) -
                                 static_cast<double>(std::fabs(v)));
    FUZZ_CHECK(std::fabs(static_cast<double>(back) - static_cast<double>(v)) <= unit / 2 + ulp,
               where + " reads back too far away");
  }
}

void check_integer_round_trip(Integer v, const fuzz::HostEnv& env) {
  std::u16string text;
  append_integer_text(text, v);
  FUZZ_CHECK(text == fuzz::ref::widen(std::to_string(v)), "integer text of " + std::to_string(v));
  double read = 0.0;
  const fuzz::Outcome out = fuzz::call_in_env(env, [&] { read = text_to_number(text); });
  FUZZ_CHECK(!out.failed() && read == static_cast<double>(v), "integer text " + fuzz::narrow(text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::uint8_t* p = data;
  const std::uint8_t* const end = data + size;
  const fuzz::HostEnv env = fuzz::hostile_env(fuzz::read_u32(p, end));
  const float v = std::bit_cast<float>(fuzz::read_u32(p, end));
  const std::uint32_t i = fuzz::read_u32(p, end);
  check_single_round_trip(v, env);
  check_integer_round_trip(static_cast<Integer>(i & 0xFFFF), env);
  while (p < end) check_text(fuzz::decode_text(p, end, 4096), env);
  return 0;
}
