// The two sample averages: an ordered list of items, fed one number at a time
// or as comma-separated text, listed back as text, with the mean and the
// extremes over it.
//
// An item is a number of the class's element type (added singly) or a piece
// of text cut from a number string, kept exactly as cut; text is read as a
// number (stats/number_text.h) only when a statistic needs it, and a piece
// that is not a number then raises the Type mismatch error.
//
// Cutting a number string (IncludeThisStringOfNumbers), positions counted
// from 1 and held, like the start of the current piece, in 16-bit integers:
//   - the first search for ',' starts at position 2, so a comma in the first
//     position belongs to the first piece (",4" is one item);
//   - every piece before a comma is appended with the spaces (U+0020 only)
//     around it removed, an empty piece too ("4,,6" gives "4", "", "6");
//   - what follows the last comma is appended untrimmed, and only when it is
//     not empty ("7," gives "7"; "4, 5, 6" gives "4", "5", " 6");
//   - a comma at position 32,768 or beyond raises Overflow before its piece
//     is appended; one at 32,767 gets its piece appended and then raises
//     Overflow (the next start does not fit); a last piece longer than 32,767
//     characters raises Overflow without being appended. Items appended
//     before stay.
// Each step works from where the previous one stopped, so cutting and listing
// are linear in the length of the text.
//
// GiveMeYourNumbers joins the items with ", ", counting them in a fresh
// IntegerData: the 32,768th item raises Overflow and no text is returned.
//
// DataAverage sums the items in a fresh SingleData (SingleAverage: text read
// as a Double, then rounded to a Single with Overflow beyond its range) or
// IntegerData (IntegerAverage: text read as a Double, rounded down to a whole
// number, then Overflow outside -32,768..32,767; the 16-bit sum itself
// overflows as soon as it leaves that range). The mean is the sum divided by
// the number of items in Double, rounded to a Single; 0 for no items.
//
// DataHighest / DataLowest start from 0, not from the first item; an item
// beyond the running extreme becomes it, rounded to a 16-bit integer (halves
// to even, Overflow outside the range). So DataHighest is never below 0 and
// DataLowest never above 0.
#pragma once

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "frame/arith.h"
#include "frame/sized_text.h"
#include "values/integer_data.h"
#include "values/single_data.h"

namespace valmetra {

// Element: the type of number items and of the statistics' results.
// Sum: the value class that totals the items in DataAverage.
template <class Element, class Sum>
class SampleAverage {
 public:
  using Item = std::variant<Element, std::u16string>;

  Single Average() { return DataAverage(); }
  Single DataAverage();
  void AddAPieceOfData(Element APieceOfData) { items_.emplace_back(std::in_place_index<0>, APieceOfData); }
  // Only values above 0 are added; 0 and negative values are ignored.
  void AddNumericData(Element APieceOfData);
  Element DataHighest();
  Element DataLowest();
  Element DataMedian() { return Element{0}; }
  Element DataMean() { return Element{0}; }
  Element DataMode() { return Element{0}; }
  // The listing, written where the caller wants it (see frame/sized_text.h).
  SizedText GiveMeYourNumbers();
  // Drops every item, then appends the pieces of NumberString.
  void HereIsAStringOfNumbers(std::u16string_view NumberString) {
    items_.clear();  // keeps the list's storage for the new items
    IncludeThisStringOfNumbers(NumberString);
  }
  void IncludeThisStringOfNumbers(std::u16string_view NumberString);
  Element WeightedMean() { return Element{0}; }
  Element WeightedMode() { return Element{0}; }

 private:
  template <class Beyond>
  Element extreme(Beyond beyond) const;
  static void write_listing(const void* self, char16_t* out);

  // Storage is kept when the list is emptied and grows geometrically (see
  // IncludeThisStringOfNumbers): a list replaced again and again is refilled
  // without allocating, and its items never move while a string is cut.
  std::vector<Item> items_;
};

extern template class SampleAverage<Single, SingleData>;
extern template class SampleAverage<Integer, IntegerData>;

using SingleAverage = SampleAverage<Single, SingleData>;
using IntegerAverage = SampleAverage<Integer, IntegerData>;

}  // namespace valmetra
