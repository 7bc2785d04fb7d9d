#include "values/single_data.h"

namespace valmetra {

template class FloatingValue<Single>;

void SingleData::GreaterOfTheTwo(Single Value1, Single Value2) {
  value_ = floating::compare(Value1, Value2, std::greater<>{}) ? Value1 : Value2;
}

void SingleData::LesserOfTheTwo(Single Value1, Single Value2) {
  value_ = floating::compare(Value1, Value2, std::less<>{}) ? Value1 : Value2;
}

// Adds inside the limits. When the sum passes the upper limit the result is
// the upper limit minus the amount added (not the sum reduced into the
// range). The sum and the difference are checked before anything is stored,
// so a failure here leaves Value unchanged.
void SingleData::ModuloAdd(Single MaddValue) {
  const Single lower = LowerLimit();
  const Single upper = UpperLimit();
  if (!(floating::compare(MaddValue, lower, std::greater_equal<>{}) &&
        floating::compare(MaddValue, upper, std::less_equal<>{})))
    return;
  const Single sum =
      fp::checked([&] { return floating::step(value_, MaddValue, std::plus<>{}); });
  if (!floating::compare(sum, UpperLimit(), std::greater<>{})) {
    value_ = sum;
    return;
  }
  const Single top = UpperLimit();
  value_ = fp::checked([&] { return floating::step(top, MaddValue, std::minus<>{}); });
}

}  // namespace valmetra
