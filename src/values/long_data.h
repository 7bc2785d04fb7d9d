// LongData: one signed 32-bit value (Long) with a stored lower and upper
// limit for ModuloAdd and a push-down history in the calling thread's value
// history service.
//
// Fields: value_ (Value, also Default), lower_ (LowerLimit, also Limit),
// upper_ (UpperLimit); all 0 at creation. Nothing keeps the limits in order
// or Value between them; the stored limits are read only by ModuloAdd.
//
// Its members are those of IntegerData without the 16-bit-only ones; they and
// the rules they follow are in values/integral_value.h. Every argument is a
// Long except the exponent of Raise and RaiseYourself, which is an Integer.
//
// Powers: RaiseYourself (and Raise) with Value 0 and a negative exponent fail
// with the power service's Division by zero error (11), the error a host
// also gets for the same power in its own arithmetic; Value keeps its old
// value. 2 to the power 31 fails with
// Overflow (6); 2 to the power -1 (0.5) and 4 to the power -1 give 0.
#pragma once

#include "values/integral_value.h"

namespace valmetra {

class LongData : public IntegralValue<LongData, Long> {
 public:
  // Limit is a second name for LowerLimit: both halves go through the
  // LowerLimit property.
  Long Limit() const;
  void Limit(Long LimitNewValue);
  // Stores LowerLimit, then UpperLimit put; no ordering check.
  void SetTheLimits(Long LowerLimitValue, Long UpperLimitValue);
};

extern template class IntegralValue<LongData, Long>;

}  // namespace valmetra
