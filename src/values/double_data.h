// DoubleData: one Double (IEEE 754 double); no limits.
//
// All of its operations are those of FloatingValue<Double>
// (floating_value.h): IEEE double arithmetic inside a floating scope,
// stored, then checked; whole-number halving and division through Long;
// a power; the Double history of the value history service.
//
// Decision of this class: RaiseYourself with a zero value and a negative
// exponent, or with a power beyond the double range (10 to the power 400),
// raises the power service's error (Division by zero 11, Overflow 6) and
// leaves Value unchanged; no infinity is stored.
#pragma once

#include "values/floating_value.h"

namespace valmetra {

class DoubleData final : public FloatingValue<Double> {};

}  // namespace valmetra
