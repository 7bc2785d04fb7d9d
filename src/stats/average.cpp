#include "stats/average.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>
#include <type_traits>

#include "frame/fp.h"
#include "stats/number_text.h"

namespace valmetra {

namespace {

// Positions in a number string are 16-bit.
constexpr std::size_t kMaxPosition = 32767;

std::u16string_view trim_spaces(std::u16string_view s) noexcept {
  const auto first = s.find_first_not_of(u' ');
  if (first == std::u16string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(u' ') - first + 1);
}

// The value of an item as a number, for comparing it.
template <class Item>
double item_number(const Item& item) {
  if (const auto* text = std::get_if<std::u16string>(&item)) return text_to_number(*text);
  return static_cast<double>(std::get<0>(item));
}

// The value of an item as the running sum's addend.
template <class Element, class Item>
Element item_addend(const Item& item) {
  const auto* text = std::get_if<std::u16string>(&item);
  if (text == nullptr) return std::get<0>(item);
  const double number = text_to_number(*text);
  if constexpr (std::is_same_v<Element, Single>) {
    return to_single(number);
  } else {
    // In the library's environment: floor and the rounding raise inexact,
    // invalid (NaN) or denormal conditions that must not reach the caller.
    fp::Scope scope;
    return to_integer(std::floor(number));  // whole part, rounded down
  }
}

template <class Item>
void append_item_text(std::u16string& out, const Item& item) {
  if (const auto* text = std::get_if<std::u16string>(&item)) {
    out += *text;
  } else if constexpr (std::is_same_v<std::variant_alternative_t<0, Item>, Single>) {
    append_single_text(out, std::get<0>(item));
  } else {
    append_integer_text(out, std::get<0>(item));
  }
}

}  // namespace

template <class Element, class Sum>
Single SampleAverage<Element, Sum>::DataAverage() {
  Sum sum;
  for (const Item& item : items_) sum.Add(item_addend<Element>(item));
  if (items_.empty()) return 0.0f;
  const Element total = sum.Default();
  fp::Scope scope;
  const double mean = fp::opaque(fp::opaque(static_cast<double>(total)) /
                                 fp::opaque(static_cast<double>(items_.size())));
  return fp::opaque(static_cast<Single>(mean));
}

template <class Element, class Sum>
void SampleAverage<Element, Sum>::AddNumericData(Element APieceOfData) {
  if constexpr (std::is_floating_point_v<Element>) {
    // Compared in the library's environment: a NaN or a denormal must not
    // raise a condition in the caller's, nor a denormal count as 0 there.
    fp::Scope scope;
    volatile bool positive = fp::opaque(APieceOfData) > Element{0};
    if (!positive) return;
  } else {
    if (!(APieceOfData > Element{0})) return;
  }
  AddAPieceOfData(APieceOfData);
}

template <class Element, class Sum>
template <class Beyond>
Element SampleAverage<Element, Sum>::extreme(Beyond beyond) const {
  // Items are widened, compared and rounded in the library's environment (a
  // NaN or denormal item raises conditions that must not reach the caller).
  fp::Scope scope;
  Integer running = 0;
  for (const Item& item : items_) {
    const double number = item_number(item);
    if (beyond(number, static_cast<double>(running))) running = to_integer(number);
  }
  return static_cast<Element>(running);
}

template <class Element, class Sum>
Element SampleAverage<Element, Sum>::DataHighest() {
  return extreme(std::greater<double>());
}

template <class Element, class Sum>
Element SampleAverage<Element, Sum>::DataLowest() {
  return extreme(std::less<double>());
}

// The listing is measured first (counting the items, so an Overflow comes
// before anything is written), then written straight into the caller's
// storage. A number item's text is made in both passes; text items, what
// number strings give, are only copied.
template <class Element, class Sum>
SizedText SampleAverage<Element, Sum>::GiveMeYourNumbers() {
  std::size_t size = 0;
  std::u16string number;
  IntegerData counter;
  for (const Item& item : items_) {
    if (counter.Default() != 0) size += 2;
    counter.IncrementYourself();
    if (const auto* text = std::get_if<std::u16string>(&item)) {
      size += text->size();
    } else {
      number.clear();
      append_item_text(number, item);
      size += number.size();
    }
  }
  return SizedText(size, &write_listing, this);
}

template <class Element, class Sum>
void SampleAverage<Element, Sum>::write_listing(const void* self, char16_t* out) {
  std::u16string number;
  bool first = true;
  for (const Item& item : static_cast<const SampleAverage*>(self)->items_) {
    if (!first) {
      *out++ = u',';
      *out++ = u' ';
    }
    first = false;
    const std::u16string* text = std::get_if<std::u16string>(&item);
    if (!text) {
      number.clear();
      append_item_text(number, item);
      text = &number;
    }
    out = std::copy(text->begin(), text->end(), out);
  }
}

template <class Element, class Sum>
void SampleAverage<Element, Sum>::IncludeThisStringOfNumbers(std::u16string_view text) {
  // Room for every piece at once, growing at least geometrically so that
  // appending string after string stays linear: no item moves while cutting.
  std::size_t pieces = 1;
  for (std::size_t at = text.find(u',', 1); at != std::u16string_view::npos; at = text.find(u',', at + 1)) ++pieces;
  if (items_.size() + pieces > items_.capacity())
    items_.reserve(std::max(items_.size() + pieces, 2 * items_.capacity()));
  Integer start = 1;
  // A comma in the first position is never a separator.
  std::size_t comma = text.find(u',', 1);
  while (comma != std::u16string_view::npos) {
    if (comma + 1 > kMaxPosition) raise_overflow();
    const auto position = static_cast<Integer>(comma + 1);
    const auto first = static_cast<std::size_t>(start - 1);
    items_.emplace_back(std::in_place_index<1>,
                        trim_spaces(text.substr(first, static_cast<std::size_t>(position - start))));
    start = checked_add<Integer>(position, 1);
    comma = text.find(u',', static_cast<std::size_t>(start - 1));
  }
  const auto first = static_cast<std::size_t>(start - 1);
  const std::size_t rest = text.size() - first;
  if (rest > kMaxPosition) raise_overflow();
  if (rest > 0) items_.emplace_back(std::in_place_index<1>, text.substr(first));
}

template class SampleAverage<Single, SingleData>;
template class SampleAverage<Integer, IntegerData>;

}  // namespace valmetra
