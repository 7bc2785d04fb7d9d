#include "text/text_constants.h"

#include <algorithm>
#include <iterator>

#include "frame/error.h"

namespace valmetra {
namespace {

// A stored text keeps the full length of its literal (the literal's own
// terminator excluded), so nothing depends on the text being free of code 0.
template <std::size_t N>
constexpr std::u16string_view stored(const char16_t (&literal)[N]) noexcept {
  return std::u16string_view(literal, N - 1);
}

constexpr std::u16string_view kTexts[] = {
#define VALMETRA_TEXT(text) stored(text),
#include "text_constants_table.inc"
#undef VALMETRA_TEXT
};

// In slot order: the generator numbers the members by their position in
// TextConstants.members and gives each the index of a stored text or
// kBuiltText, so slot k is kMembers[k - 1].
constexpr TextConstants::Member kMembers[] = {
#define VALMETRA_TEXT_MEMBER(slot, name, index) TextConstants::Member{slot, u"" #name, index},
#include "text_constants_table.inc"
#undef VALMETRA_TEXT_MEMBER
};

}  // namespace

std::u16string_view TextConstants::Text(std::size_t index) {
  if (index >= std::size(kTexts)) raise(ErrorNumber::InvalidProcedureCall);
  return kTexts[index];
}

std::u16string_view TextConstants::slot_text(std::size_t slot) {
  if (slot == 0 || slot > std::size(kMembers)) raise(ErrorNumber::InvalidProcedureCall);
  const Member& member = kMembers[slot - 1];
  if (member.text == kBuiltText) raise(ErrorNumber::InvalidProcedureCall);
  return Text(static_cast<std::size_t>(member.text));
}

std::size_t TextConstants::text_count() noexcept { return std::size(kTexts); }

std::span<const TextConstants::Member> TextConstants::members() noexcept { return kMembers; }

const TextConstants::Member* TextConstants::find_member(std::u16string_view name) noexcept {
  const auto* it = std::find_if(std::begin(kMembers), std::end(kMembers),
                                [name](const Member& m) { return m.name == name; });
  return it == std::end(kMembers) ? nullptr : it;
}

std::optional<std::u16string_view> TextConstants::member_text(std::u16string_view name) noexcept {
  const Member* m = find_member(name);
  if (m == nullptr || m->text == kBuiltText) return std::nullopt;
  return kTexts[static_cast<std::size_t>(m->text)];
}

std::u16string TextConstants::CR_NL() const {
  // Two one-character texts, carriage return then line feed, joined.
  const std::u16string carriage_return(1, char16_t{13});
  const std::u16string line_feed(1, char16_t{10});
  return carriage_return + line_feed;
}

}  // namespace valmetra
