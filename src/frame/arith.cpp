#include "frame/arith.h"

#include <bit>
#include <cmath>
#include <cstdint>

#include "frame/fp.h"

namespace valmetra {

double round_half_even(double x) noexcept {
  // floor and the difference below are exact in every rounding mode.
  if (!(std::fabs(x) < 4503599627370496.0)) return x;  // 2^52: already whole, inf or NaN
  const double lower = std::floor(x);
  const double diff = x - lower;
  if (diff < 0.5) return lower;
  if (diff > 0.5) return lower + 1.0;
  return std::fmod(lower, 2.0) == 0.0 ? lower : lower + 1.0;
}

namespace {
template <class T>
T to_checked_int(double x) {
  const double r = round_half_even(x);
  if (!(r >= static_cast<double>(std::numeric_limits<T>::min()) &&
        r <= static_cast<double>(std::numeric_limits<T>::max())))
    raise_overflow();  // out of range, or NaN (every comparison false)
  return static_cast<T>(r);
}
}  // namespace

Integer to_integer(double x) { return to_checked_int<Integer>(x); }
Long to_long(double x) { return to_checked_int<Long>(x); }

Single to_single(double x) {
  if (const auto exact = exact_single(x)) return *exact;
  fp::Scope scope;  // round to nearest whatever the caller set
  const float r = fp::opaque(static_cast<float>(fp::opaque(x)));
  if (std::isinf(r)) raise_overflow();
  return r;
}

double power(double x, double y) {
  double r;
  {
    fp::Scope scope(fp::Units::WithX87);  // some runtimes' pow works in x87 extended precision
    r = fp::opaque(std::pow(fp::opaque(x), fp::opaque(y)));
  }
  if (std::isfinite(r)) return r;
  if (x == 0.0 && y < 0.0) raise_division_by_zero();
  if (std::isnan(r)) raise(ErrorNumber::InvalidProcedureCall);
  raise_overflow();
}

}  // namespace valmetra
