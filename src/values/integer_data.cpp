#include "values/integer_data.h"

#include <algorithm>
#include <utility>

namespace valmetra {

template class IntegralValue<IntegerData, Integer>;

Integer IntegerData::Limit() const { return LowerLimit(); }
void IntegerData::Limit(Integer NewLimitValue) { lower_ = NewLimitValue; }

void IntegerData::SetTheLimits(Integer LowerLimitValue, Integer UpperLimitValue) {
  LowerLimit(LowerLimitValue);
  UpperLimit(UpperLimitValue);
}

void IntegerData::ModuloAddToThisLimit(Integer MaddValue) {
  UpperLimit(MaddValue);
  ModuloAdd(MaddValue);
}

void IntegerData::AddToBottomLimit(Integer Adder, Integer TargetLimit, Integer BottomLimit) {
  store_then_wrap_above(checked_add(value_, Adder), TargetLimit, BottomLimit);
}

void IntegerData::AddToMaximum(Integer Adder, Integer TargetLimit) {
  const Integer sum = checked_add(value_, Adder);
  if (sum <= TargetLimit) value_ = sum;
}

void IntegerData::DecrementABS() {
  value_ = static_cast<Integer>(value_ >= 0 ? value_ - 1 : value_ + 1);
}

void IntegerData::DecrementToBottomLimit(Integer BottomLimit, Integer TargetLimit) {
  store_then_wrap_below(checked_sub(value_, Integer{1}), BottomLimit, TargetLimit);
}

void IntegerData::DecrementToUpperLimit(Integer UpperLimitArgument) {
  if (value_ > 1) {
    DecrementYourself();
  } else {
    value_ = UpperLimitArgument;
  }
}

Flag IntegerData::IsBetween(Integer LowerValue, Integer HigherValue) const {
  // The bounds in either order, both inclusive.
  return to_flag(std::min(LowerValue, HigherValue) <= value_ && value_ <= std::max(LowerValue, HigherValue));
}

Flag IntegerData::IsEven() const { return to_flag((value_ & 1) == 0); }
Flag IntegerData::IsOdd() const { return to_flag((value_ & 1) != 0); }

void IntegerData::Swap(Integer& ValueToSwap) { std::swap(value_, ValueToSwap); }

Integer IntegerData::ValueAfterIncrement() { return IncrementAndGet(); }

Integer IntegerData::ValueBe4Increment() {
  const Integer before = value_;
  Increment();
  return before;
}

}  // namespace valmetra
