// Number-string cutting and the statistics over the items, on both sample
// averages (stats/average.h), against the literal reference of reference.h.
//
// Input: 4 bytes of host environment, then actions, each one byte a:
//   a % 5 == 0  HereIsAStringOfNumbers(text)      (text: decode_text, to 0xFF)
//   a % 5 == 1  IncludeThisStringOfNumbers(text)
//   a % 5 == 2  AddAPieceOfData(number from 4 bytes)
//   a % 5 == 3  AddNumericData(number from 4 bytes)
//   a % 5 == 4  AddAPieceOfData(a / 5 - 25), a small whole number
// The same actions run on a SingleAverage and an IntegerAverage.
//
// Invariants:
// - every call ends in success or a vocabulary error, the host's environment
//   is unchanged and results do not depend on it;
// - cutting matches the reference (pieces, trimming, the first-position
//   comma, the 16-bit position limits with what stays appended), seen through
//   GiveMeYourNumbers, which itself matches the reference listing (Overflow at
//   the 32,768th item);
// - DataAverage / Average, DataHighest, DataLowest match the reference
//   statistics: the same error (Type mismatch for a piece that is not a
//   number, Overflow, the floating-point error) or the same value; and
//   DataHighest >= 0 >= DataLowest, both whole numbers;
// - cutting the listing again gives the same number of items when no item
//   holds a comma, the first item is not empty and the listing is short
//   enough for the 16-bit positions; its listing matches the reference's.
#include <bit>
#include <cmath>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "fuzz_support.h"
#include "reference.h"
#include "stats/average.h"

namespace {

using namespace valmetra;

constexpr std::size_t kMaxText = 70000;
constexpr std::size_t kMaxItems = 70000;

struct Action {
  int kind;
  std::u16string text;
  std::uint32_t number;
};

std::vector<Action> decode(const std::uint8_t*& p, const std::uint8_t* end) {
  std::vector<Action> actions;
  std::size_t text_budget = 3 * kMaxText;
  while (p < end && actions.size() < 64) {
    const std::uint8_t a = *p++;
    Action act{a % 5, {}, 0};
    if (act.kind <= 1) {
      act.text = fuzz::decode_text(p, end, std::min(kMaxText, text_budget));
      text_budget -= act.text.size();
    } else if (act.kind <= 3) {
      act.number = fuzz::read_u32(p, end);
    } else {
      act.number = static_cast<std::uint32_t>(a / 5) - 25u;
    }
    actions.push_back(std::move(act));
  }
  return actions;
}

template <class Element>
Element element_of(const Action& act) {
  if (act.kind == 4) return static_cast<Element>(static_cast<std::int32_t>(act.number));
  if constexpr (std::is_same_v<Element, Single>) {
    // Mostly small values with a fraction; sometimes any bit pattern.
    if ((act.number & 0xFF) < 0xC0) {
      return static_cast<float>(static_cast<std::int16_t>(act.number >> 8)) / 4.0f;
    }
    return std::bit_cast<float>(act.number);
  } else {
    return static_cast<Integer>(act.number & 0xFFFF);
  }
}

std::string stat_text(double v) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

template <class Average, class Element>
void check_statistic(const char* name, const fuzz::Outcome& out, double got, const fuzz::ref::Stat& want) {
  FUZZ_CHECK(out.error == want.error, std::string(name) + ": error " + std::to_string(out.error) +
                                          ", expected " + std::to_string(want.error));
  if (want.error != 0) return;
  const bool same = (std::isnan(got) && std::isnan(want.value)) || got == want.value;
  FUZZ_CHECK(same, std::string(name) + ": " + stat_text(got) + ", expected " + stat_text(want.value));
}

template <class Average, class Element>
void run(const std::vector<Action>& actions, const fuzz::HostEnv& env) {
  using Item = fuzz::ref::Item<Element>;
  Average avg;
  std::vector<Item> model;
  for (const Action& act : actions) {
    if (act.kind <= 1) {
      const fuzz::ref::Cut cut = fuzz::ref::cut(act.text);
      if (act.kind == 0) model.clear();
      if (model.size() + cut.pieces.size() > kMaxItems) return;
      const fuzz::Outcome out = fuzz::call_in_env(env, [&] {
        if (act.kind == 0) {
          avg.HereIsAStringOfNumbers(act.text);
        } else {
          avg.IncludeThisStringOfNumbers(act.text);
        }
      });
      FUZZ_CHECK(out.error == (cut.overflow ? 6 : 0),
                 "cutting: error " + std::to_string(out.error) + " for a text of " +
                     std::to_string(act.text.size()) + " characters");
      for (const auto& piece : cut.pieces) model.emplace_back(std::in_place_index<1>, piece);
    } else {
      if (model.size() >= kMaxItems) return;
      const Element x = element_of<Element>(act);
      const fuzz::Outcome out = fuzz::call_in_env(env, [&] {
        if (act.kind == 3) {
          avg.AddNumericData(x);
        } else {
          avg.AddAPieceOfData(x);
        }
      });
      FUZZ_CHECK(!out.failed(), "adding an item failed");
      if (act.kind != 3 || x > Element{0}) model.emplace_back(std::in_place_index<0>, x);
    }
  }

  // The listing.
  std::u16string listed;
  const fuzz::Outcome listed_out = fuzz::call_in_env(env, [&] { listed = avg.GiveMeYourNumbers().str(); });
  std::u16string want_listed;
  const bool listable = fuzz::ref::listing<Element>(model, want_listed);
  FUZZ_CHECK(listed_out.error == (listable ? 0 : 6), "listing: error " + std::to_string(listed_out.error));
  if (listable) {
    FUZZ_CHECK(listed == want_listed, "listing \"" + fuzz::narrow(listed.substr(0, 200)) + "\", expected \"" +
                                          fuzz::narrow(want_listed.substr(0, 200)) + "\"");
  }

  // The statistics, twice through Average.
  const fuzz::ref::Stat want_average = fuzz::ref::average<Element>(model);
  const fuzz::ref::Stat want_high = fuzz::ref::extreme<Element>(model, true);
  const fuzz::ref::Stat want_low = fuzz::ref::extreme<Element>(model, false);
  Single average = 0, average2 = 0;
  Element high{}, low{};
  fuzz::Outcome out = fuzz::call_in_env(env, [&] { average = avg.DataAverage(); });
  check_statistic<Average, Element>("DataAverage", out, average, want_average);
  out = fuzz::call_in_env(env, [&] { average2 = avg.Average(); });
  check_statistic<Average, Element>("Average", out, average2, want_average);
  out = fuzz::call_in_env(env, [&] { high = avg.DataHighest(); });
  check_statistic<Average, Element>("DataHighest", out, static_cast<double>(high), want_high);
  if (!out.failed()) FUZZ_CHECK(high >= 0 && std::trunc(high) == high, "DataHighest " + stat_text(high));
  out = fuzz::call_in_env(env, [&] { low = avg.DataLowest(); });
  check_statistic<Average, Element>("DataLowest", out, static_cast<double>(low), want_low);
  if (!out.failed()) FUZZ_CHECK(low <= 0 && std::trunc(low) == low, "DataLowest " + stat_text(low));

  // Cutting the listing again.
  if (!listable || model.empty()) return;
  bool comma_free = true;
  for (const Item& item : model) {
    comma_free = comma_free && fuzz::ref::item_text<Element>(item).find(u',') == std::u16string::npos;
  }
  const fuzz::ref::Cut again = fuzz::ref::cut(listed);
  if (comma_free && !fuzz::ref::item_text<Element>(model.front()).empty() && !again.overflow) {
    FUZZ_CHECK(!again.overflow && again.pieces.size() == model.size(),
               "re-cut gives " + std::to_string(again.pieces.size()) + " items, not " +
                   std::to_string(model.size()));
  }
  Average other;
  out = fuzz::call_in_env(env, [&] { other.HereIsAStringOfNumbers(listed); });
  FUZZ_CHECK(out.error == (again.overflow ? 6 : 0), "re-cut: error " + std::to_string(out.error));
  std::vector<Item> recut;
  for (const auto& piece : again.pieces) recut.emplace_back(std::in_place_index<1>, piece);
  std::u16string relisted, want_relisted;
  const bool relistable = fuzz::ref::listing<Element>(recut, want_relisted);
  out = fuzz::call_in_env(env, [&] { relisted = other.GiveMeYourNumbers().str(); });
  FUZZ_CHECK(out.error == (relistable ? 0 : 6), "re-listing: error " + std::to_string(out.error));
  if (relistable) FUZZ_CHECK(relisted == want_relisted, "re-listing differs");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::uint8_t* p = data;
  const std::uint8_t* const end = data + size;
  const fuzz::HostEnv env = fuzz::hostile_env(fuzz::read_u32(p, end));
  const std::vector<Action> actions = decode(p, end);
  run<SingleAverage, Single>(actions, env);
  run<IntegerAverage, Integer>(actions, env);
  return 0;
}
