#include "values/long_data.h"

namespace valmetra {

template class IntegralValue<LongData, Long>;

Long LongData::Limit() const { return LowerLimit(); }
void LongData::Limit(Long LimitNewValue) { LowerLimit(LimitNewValue); }

void LongData::SetTheLimits(Long LowerLimitValue, Long UpperLimitValue) {
  lower_ = LowerLimitValue;
  UpperLimit(UpperLimitValue);
}

}  // namespace valmetra
