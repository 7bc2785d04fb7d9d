// IntegerData: one signed 16-bit value (Integer) used as a counter and small
// accumulator, with a stored lower and upper limit for ModuloAdd and a
// push-down history in the calling thread's value history service.
//
// Fields: value_ (Value, also Default), lower_ (LowerLimit, also Limit),
// upper_ (UpperLimit); all 0 at creation. Nothing keeps the limits in order
// or Value between them; the stored limits are read only by ModuloAdd.
//
// Members shared with LongData (properties Value, Default, LowerLimit,
// UpperLimit; Add, Subtract, Multiply, DoubleYourself, the increments and
// decrements, Divide, IDivide, Halve(Yourself), Raise(Yourself),
// GreaterOfTheTwo, LesserOfTheTwo, Zapp, Zero, ModuloAdd, the counting
// operations and the history operations Drop, Pop, Push, PushAndSet) and the
// rules they follow are in values/integral_value.h. This class adds the
// 16-bit-only members below.
//
// Powers: RaiseYourself (and Raise) with Value 0 and a negative exponent fail
// with the power service's Division by zero error (11) and leave Value as it
// was; 2 to the power 15 fails with Overflow (6); -2 to the power 15 gives
// -32768; 2 to the power -1 (0.5) gives 0.
#pragma once

#include "values/integral_value.h"

namespace valmetra {

class IntegerData : public IntegralValue<IntegerData, Integer> {
 public:
  // Limit is a second name for LowerLimit.
  Integer Limit() const;
  void Limit(Integer NewLimitValue);
  // LowerLimit put, then UpperLimit put; no ordering check.
  void SetTheLimits(Integer LowerLimitValue, Integer UpperLimitValue);
  // UpperLimit put with MaddValue, then ModuloAdd with it: the added amount
  // is its own upper limit.
  void ModuloAddToThisLimit(Integer MaddValue);

  // Value + Adder (checked) stored, then BottomLimit when above TargetLimit.
  void AddToBottomLimit(Integer Adder, Integer TargetLimit, Integer BottomLimit);
  // The checked sum is stored only when it is not above TargetLimit; an
  // overflowing sum fails even though it would not have been stored.
  void AddToMaximum(Integer Adder, Integer TargetLimit);
  // One step toward zero from a negative value, away from zero otherwise
  // (0 gives -1); never fails.
  void DecrementABS();
  // Value - 1 (checked) stored, then TargetLimit when below BottomLimit.
  void DecrementToBottomLimit(Integer BottomLimit, Integer TargetLimit);
  // Counts down to 1, then starts again at the argument.
  void DecrementToUpperLimit(Integer UpperLimitArgument);

  // Both ends included, whichever argument is the smaller.
  Flag IsBetween(Integer LowerValue, Integer HigherValue) const;
  // By the lowest bit: -4 and 0 are even, -3 is odd.
  Flag IsEven() const;
  Flag IsOdd() const;

  // Exchanges Value and the caller's variable.
  void Swap(Integer& ValueToSwap);

  // Reading either adds 1 to Value (Overflow at 32767, Value unchanged):
  // ValueAfterIncrement gives the new value, ValueBe4Increment the old one.
  Integer ValueAfterIncrement();
  Integer ValueBe4Increment();
};

extern template class IntegralValue<IntegerData, Integer>;

}  // namespace valmetra
