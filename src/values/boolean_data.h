// BooleanData: one 16-bit flag (true -1, false 0).
//
// The setting operations store exactly -1 or 0; the property puts store the
// 16 bits they are given (a put of 1 reads back as 1). ToggleThis sets the
// flag; it does not invert it.
//
// The history operations pass flags between the caller and the Boolean
// history of the value history service and never touch Value: Pop returns
// the popped flag, Push records its copy of PushValue, PushAndSet hands the
// caller's own PushValue variable to the service, which records it and then
// sets it to SetToValue. Errors of the service pass on unchanged.
//
// Decision of this class: Drop does nothing. It neither changes Value nor
// calls the value history service (which is never asked to drop a flag), so
// the newest flag of the history stays where it is.
#pragma once

#include "frame/arith.h"

namespace valmetra {

class BooleanData {
 public:
  Flag Default() const noexcept { return value_; }
  void Default(Flag BooleanNewValue) noexcept { value_ = BooleanNewValue; }
  void No() noexcept { value_ = kFalse; }
  void Reset() noexcept { value_ = kFalse; }
  void ResetThis() noexcept { value_ = kFalse; }
  void SetThis() noexcept { value_ = kTrue; }
  void Toggle() noexcept { ToggleThis(); }
  void ToggleThis() noexcept { value_ = kTrue; }
  void Yes() noexcept { value_ = kTrue; }
  void Drop() noexcept {}
  Flag Pop();
  void Push(Flag PushValue);
  void PushAndSet(Flag& PushValue, Flag SetToValue);
  Flag Value() const noexcept { return value_; }
  void Value(Flag DataValue) noexcept { value_ = DataValue; }

 private:
  Flag value_ = kFalse;
};

}  // namespace valmetra
