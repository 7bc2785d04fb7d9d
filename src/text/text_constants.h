// TextConstants: the fixed English captions, prompts and messages of the host
// application, read by member name. A class without fields.
//
// The member list and the texts live in one place, src/text/TextConstants.members;
// the build turns it into gen/text_constants_table.inc, from which this class
// builds its table of stored texts (each text stored once, shared by the members
// that name it) and its member table. The COM layer serves every text member by
// copying Text(index) of that member's index; only CR_NL, which has no stored
// text, is a member function here.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace valmetra {

class TextConstants {
 public:
  // One entry of the interface, in slot order.
  struct Member {
    int slot;                    // 1-based position in the interface
    std::u16string_view name;    // the member name, spelled as hosts call it
    int text;                    // index of the stored text, or kBuiltText
  };
  // The text index of a member whose result is built at each call (CR_NL).
  static constexpr int kBuiltText = -1;

  // The stored text of the given index (0 <= index < text_count()). An index
  // outside the table is a programming error of the caller; it raises the
  // Invalid procedure call error (5) rather than reading past the table.
  static std::u16string_view Text(std::size_t index);
  // The stored text of the interface entry at `slot` (1-based); the
  // generated COM class serves every text member through it.
  static std::u16string_view slot_text(std::size_t slot);
  // How many distinct texts are stored.
  static std::size_t text_count() noexcept;

  // Every interface entry in slot order; members()[slot - 1] is that slot.
  static std::span<const Member> members() noexcept;
  // The entry of the given name (exact spelling), or nullptr.
  static const Member* find_member(std::u16string_view name) noexcept;
  // The stored text the named member returns; nullopt for an unknown name and
  // for a member without stored text (CR_NL).
  static std::optional<std::u16string_view> member_text(std::u16string_view name) noexcept;

  // Carriage return (13) followed by line feed (10), built anew at each call.
  std::u16string CR_NL() const;
};

}  // namespace valmetra
