// Faults the fuzz targets (tests/fuzz) found, kept as plain tests so they stay
// fixed in every build. Each one is a floating comparison or classification
// that ran in the host's environment instead of the library's own: a NaN or a
// denormal argument then set a sticky flag of the host (or trapped, with the
// condition unmasked), and a host with denormals-are-zero changed a result.
#include <gtest/gtest.h>

#include <cfenv>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>

#include "stats/average.h"
#include "stats/number_text.h"
#include "values/integer_data.h"
#include "values/long_data.h"

#include "test_support.h"

namespace valmetra {
namespace {

#if defined(__x86_64__) && defined(__GLIBC__)

constexpr std::uint32_t kDefaultMxcsr = 0x1F80;
constexpr std::uint32_t kDenormalsAreZero = 0x40;

// Runs f as a host whose MXCSR is mxcsr and returns the environment f left.
test::FpEnv after_call(std::uint32_t mxcsr, const std::function<void()>& f) {
  test::FpEnv after;
  test::as_host(
      [mxcsr] {
        std::fenv_t host;
        std::fegetenv(&host);
        host.__mxcsr = mxcsr;
        std::fesetenv(&host);
      },
      [&] {
        f();
        after = test::observe_env();
      });
  return after;
}

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kDenormal = std::numeric_limits<float>::denorm_min();

struct Case {
  const char* what;
  std::function<void()> call;
};

TEST(FuzzRegressions, NaNAndDenormalArgumentsLeaveTheHostEnvironmentAlone) {
  const Case cases[] = {
      {"single text of a denormal", [] { single_to_text(kDenormal); }},
      {"percent display of a denormal", [] { percent_display_text(kDenormal); }},
      {"AddNumericData(NaN)", [] { SingleAverage().AddNumericData(kNaN); }},
      {"AddNumericData(denormal)", [] { SingleAverage().AddNumericData(kDenormal); }},
      {"DataHighest over a NaN item",
       [] {
         SingleAverage a;
         a.AddAPieceOfData(kNaN);
         a.DataHighest();
       }},
      {"DataLowest over a denormal item",
       [] {
         SingleAverage a;
         a.AddAPieceOfData(-kDenormal);
         a.DataLowest();
       }},
      {"IntegerData 2 ^ -1070 (a denormal power)",
       [] {
         IntegerData d;
         d.Value(2);
         d.RaiseYourself(-1070);
       }},
      {"LongData 2 ^ -1070 (a denormal power)",
       [] {
         LongData d;
         d.Value(2);
         d.RaiseYourself(-1070);
       }},
  };
  for (const Case& c : cases) {
    const test::FpEnv want{test::observe_env().x87_control, 0, kDefaultMxcsr};
    EXPECT_EQ(after_call(kDefaultMxcsr, c.call), want) << c.what;
  }
}

// With denormals-are-zero set by the host, a denormal still counts as itself.
TEST(FuzzRegressions, HostDenormalsAreZeroChangesNoResult) {
  std::u16string text;
  after_call(kDefaultMxcsr | kDenormalsAreZero, [&] { text = single_to_text(kDenormal); });
  EXPECT_EQ(text, u"1E-45");

  SingleAverage a;
  after_call(kDefaultMxcsr | kDenormalsAreZero, [&] {
    a.AddNumericData(kDenormal);
    text = a.GiveMeYourNumbers().str();
  });
  EXPECT_EQ(text, u"1E-45");
}

#endif

}  // namespace
}  // namespace valmetra
