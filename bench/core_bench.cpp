// Native benchmarks of the portable core (Linux).
//
// The goal measured here is the scaling of the sample-average round trip
// (HereIsAStringOfNumbers with IncludeThisStringOfNumbers for the further
// strings, GiveMeYourNumbers, DataAverage) from 1,024 to 32,767 items, on one
// object kept between trips; the same on a new object each time is reported
// beside it. The other figures are per-call times of the core operations that the Windows
// benchmark compares with the platform's own (text to number, number text,
// percent display, creating an IntegerData), for orientation: the goals
// themselves are ratios taken inside the Windows process.
//
//   core_bench [--smoke] [--reps N] [--batch-ms X]
#include <string>
#include <string_view>
#include <vector>

#include "bench/harness.h"
#include "bench/workload.h"
#include "frame/arith.h"
#include "stats/average.h"
#include "stats/number_text.h"
#include "values/integer_data.h"

namespace {

using namespace valmetra;
using namespace valmetra::bench;

// One round trip: HereIsAStringOfNumbers with the first string,
// IncludeThisStringOfNumbers with the others, GiveMeYourNumbers,
// DataAverage. On one object kept from trip to trip (as a host calling the
// global instance does), or on a new object each time.
struct RoundTrip {
  std::vector<std::u16string> strings;
  int count;
  SingleAverage* kept;  // nullptr: a new object per trip

  std::pair<std::size_t, Single> on(SingleAverage& average) const {
    SingleAverage* a = opaque(&average);
    a->HereIsAStringOfNumbers(strings[0]);
    for (std::size_t i = 1; i < strings.size(); ++i) a->IncludeThisStringOfNumbers(strings[i]);
    const std::u16string listing = a->GiveMeYourNumbers().str();
    const Single mean = a->DataAverage();
    return {listing.size(), mean};
  }
  std::pair<std::size_t, Single> operator()() const {
    if (kept) return on(*kept);
    SingleAverage fresh;
    return on(fresh);
  }
};

RoundTrip make_round_trip(int count, SingleAverage* kept) {
  RoundTrip r{average_strings(count), count, kept};
  const auto [length, mean] = r();
  check(length == average_listing_length(count), "GiveMeYourNumbers length", static_cast<long>(length));
  check(mean == average_mean(count), "DataAverage");
  return r;
}

}  // namespace

int main(int argc, char** argv) {
  Runner run(parse_config(argc, argv), "native");

  // --- the scaling goal ------------------------------------------------------
  SingleAverage large_object, small_object;
  const RoundTrip large = make_round_trip(32767, &large_object);
  const RoundTrip small = make_round_trip(1024, &small_object);
  run.note("average_strings", std::to_string(large.strings.size()) + " number strings for 32,767 items, " +
                                  std::to_string(small.strings.size()) + " for 1,024");
  run.ratio("average_scaling", "SingleAverage round trip on one object, 32,767 items / 1,024 items",
            [&] { consume(large()); }, [&] { consume(small()); });
  const RoundTrip large_new = make_round_trip(32767, nullptr);
  const RoundTrip small_new = make_round_trip(1024, nullptr);
  run.ratio("average_scaling_new_object", "SingleAverage round trip on a new object each time, 32,767 / 1,024",
            [&] { consume(large_new()); }, [&] { consume(small_new()); });

  // --- per-call figures of the core ------------------------------------------
  std::size_t k = 0;
  run.single("core_text_to_number", "text_to_number + to_single, 8 texts in turn", [&] {
    const char16_t* text = opaque(kNumberTexts[k++ % kNumberTextCount]);
    consume(to_single(text_to_number(std::u16string_view(text))));
  });
  run.single("core_single_text", "append_single_text into a reused buffer, 8 values in turn", [&] {
    static std::u16string out;
    out.clear();
    append_single_text(out, kTextValues[k++ % kTextValueCount]);
    consume(out.data());
  });
  run.single("core_percent_display", "percent_display_text, 8 ratios in turn", [&] {
    consume(percent_display_text(kRatios[k++ % kRatioCount]).size());
  });
  run.single("core_new_integer_data", "new + delete of the IntegerData core", [&] {
    auto* p = opaque(new IntegerData());
    consume(p->Value());
    delete p;
  });
  IntegerData data;
  IntegerData* d = opaque(&data);
  Integer step = 1;
  run.single("core_integer_add", "IntegerData::Add (checked), +1 and -1 in turn", [&] {
    d->Add(step);
    step = static_cast<Integer>(-step);
    consume(*d);
  });
  check(data.Value() == 0 || data.Value() == 1, "Add left the value in range", data.Value());
  return 0;
}
