// SingleData: one Single (IEEE 754 float) with a lower and an upper limit.
//
// The arithmetic, whole-number, power and history operations are those of
// FloatingValue<Single> (floating_value.h): results are computed in double
// and rounded once to float inside a floating scope, stored, then checked.
// On top of them SingleData keeps two limits for ModuloAdd and picks the
// greater or lesser of two values.
//
// Decisions of this class:
// - RaiseYourself: a zero value with a negative exponent, or a power beyond
//   the double range, raises the power service's error (Division by zero 11,
//   Overflow 6) and leaves Value unchanged; a power within the double range
//   but beyond the float range is stored as an infinity without an error.
// - ModuloAdd adds only when LowerLimit <= MaddValue <= UpperLimit holds as
//   an IEEE comparison: a NaN MaddValue, or a NaN limit, changes nothing.
// - GreaterOfTheTwo and LesserOfTheTwo compare IEEE-wise and take Value2
//   whenever the comparison is false (equal values, +0 against -0, a NaN);
//   the value taken is copied bit for bit.
#pragma once

#include "values/floating_value.h"

namespace valmetra {

class SingleData final : public FloatingValue<Single> {
 public:
  void GreaterOfTheTwo(Single Value1, Single Value2);
  void LesserOfTheTwo(Single Value1, Single Value2);
  Single Limit() const noexcept { return LowerLimit(); }
  void Limit(Single LimitNewValue) noexcept { LowerLimit(LimitNewValue); }
  Single LowerLimit() const noexcept { return lower_limit_; }
  void LowerLimit(Single LowLimitNewValue) noexcept { lower_limit_ = LowLimitNewValue; }
  void ModuloAdd(Single MaddValue);
  void SetTheLimits(Single LowerLimitValue, Single UpperLimitValue) noexcept {
    lower_limit_ = LowerLimitValue;
    UpperLimit(UpperLimitValue);
  }
  Single UpperLimit() const noexcept { return upper_limit_; }
  void UpperLimit(Single UPLimitNewValue) noexcept { upper_limit_ = UPLimitNewValue; }

 private:
  Single lower_limit_{};
  Single upper_limit_{};
};

}  // namespace valmetra
