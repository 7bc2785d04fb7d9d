// The four percent counters: how often an event happened among a number of
// samples, reported as a ratio, a percentage and display text.
//
// One template serves all four; they differ only in the type of their two
// counts (and of Default), which decides how counting behaves at the top:
//   - Integer and Long counts use checked addition: at the type's maximum
//     Occured / AnotherSampleOccured raise the Overflow error and the count
//     keeps its value;
//   - Single and Double counts add 1.0 rounded to nearest in the count's own
//     type and so stop silently at 2^24 and 2^53, where adding 1 gives the
//     same number back.
// The two counts are independent and only ever grow.
//
// RawPercent is OccurrenceCount / SampleCount (divisor 1 while there are no
// samples) divided in Double and rounded once to a Single; Percent is that
// Single times 100, rounded to a Single; PercentDisplay formats the Single
// ratio (not Percent) with the "##%" pattern, rounding the exact binary value
// of the ratio with halves away from zero (see stats/number_text.h): 29 in 200
// gives the Single nearest 0.145, which lies just below it, so Percent reads
// 14.5 while PercentDisplay shows "14%".
#pragma once

#include <string>

#include "frame/arith.h"

namespace valmetra {

// One counting step of a count of type Count (see above).
template <class Count>
Count next_count(Count count);

template <class Count>
class PercentCounter {
 public:
  // Adds one sample.
  void AnotherSampleOccured() { sample_count_ = next_count(sample_count_); }
  // The occurrence count.
  Count Default() { return occurrence_count_; }
  // Records one occurrence, whatever the value assigned.
  void Default(Count DummyData) {
    static_cast<void>(DummyData);
    Occured();
  }
  // Adds one occurrence.
  void Occured() { occurrence_count_ = next_count(occurrence_count_); }
  Single Percent();
  std::u16string PercentDisplay();
  Single RawPercent();

 private:
  Count occurrence_count_{};
  Count sample_count_{};
};

extern template class PercentCounter<Double>;
extern template class PercentCounter<Single>;
extern template class PercentCounter<Long>;
extern template class PercentCounter<Integer>;

using DoublePercentData = PercentCounter<Double>;
using SinglePercentData = PercentCounter<Single>;
using LongPercentData = PercentCounter<Long>;
using IntegerPercent = PercentCounter<Integer>;

}  // namespace valmetra
