#include "stats/percent.h"

#include <type_traits>

#include "frame/fp.h"
#include "stats/number_text.h"

namespace valmetra {

template <class Count>
Count next_count(Count count) {
  if constexpr (std::is_floating_point_v<Count>) {
    // Exact in Double for every reachable count; the one rounding to Count
    // (nearest, ties to even) is what makes the count stop at 2^24 / 2^53.
    fp::Scope scope;
    return fp::opaque(static_cast<Count>(fp::opaque(static_cast<double>(count)) + 1.0));
  } else {
    return checked_add<Count>(count, Count{1});
  }
}

template <class Count>
Single PercentCounter<Count>::RawPercent() {
  fp::Scope scope;
  const double divisor = sample_count_ == Count{0} ? 1.0 : static_cast<double>(sample_count_);
  const double quotient = fp::opaque(fp::opaque(static_cast<double>(occurrence_count_)) / fp::opaque(divisor));
  return fp::opaque(static_cast<Single>(quotient));
}

template <class Count>
Single PercentCounter<Count>::Percent() {
  const Single ratio = RawPercent();
  fp::Scope scope;
  return fp::opaque(static_cast<Single>(fp::opaque(static_cast<double>(ratio)) * 100.0));
}

template <class Count>
std::u16string PercentCounter<Count>::PercentDisplay() {
  return percent_display_text(RawPercent());
}

template Double next_count<Double>(Double);
template Single next_count<Single>(Single);
template Long next_count<Long>(Long);
template Integer next_count<Integer>(Integer);

template class PercentCounter<Double>;
template class PercentCounter<Single>;
template class PercentCounter<Long>;
template class PercentCounter<Integer>;

}  // namespace valmetra
