// TextConstants: the shape of the generated tables (slots, names, shared
// texts), a few texts that a careless generator would change (blanks, '&',
// apostrophes), and CR_NL.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "frame/error.h"
#include "text/text_constants.h"

#include "test_support.h"

namespace valmetra {
namespace {

using namespace std::string_view_literals;

std::string narrow(std::u16string_view s) {
  std::string out;
  for (char16_t c : s) out += (c < 128) ? static_cast<char>(c) : '?';
  return out;
}

std::u16string_view text_of(std::u16string_view name) {
  auto text = TextConstants::member_text(name);
  EXPECT_TRUE(text.has_value()) << narrow(name);
  return text.value_or(u""sv);
}

// The interface's slots: not in alphabetical order, and the numbered
// user-defined entries follow their base name.
TEST(TextConstantsTable, SlotsAndLookup) {
  const auto members = TextConstants::members();
  ASSERT_EQ(members.size(), 133u);
  struct Case { int slot; std::u16string_view name; };
  for (auto c : {Case{1, u"CR_NL"}, Case{2, u"cstAboutKarvo"}, Case{26, u"cstKarvoSoftwareExit"},
                 Case{129, u"cstUserDefined"}, Case{130, u"cstUserDefined01"},
                 Case{133, u"cstWWWSites"}}) {
    EXPECT_EQ(members[c.slot - 1].name, c.name) << c.slot;
    const auto* found = TextConstants::find_member(c.name);
    ASSERT_NE(found, nullptr) << narrow(c.name);
    EXPECT_EQ(found->slot, c.slot);
  }
  EXPECT_EQ(TextConstants::find_member(u"cstaboutkarvo"), nullptr);  // exact spelling only
  EXPECT_EQ(TextConstants::find_member(u"cstNoSuchText"), nullptr);
  EXPECT_FALSE(TextConstants::member_text(u"cstNoSuchText").has_value());
  EXPECT_FALSE(TextConstants::member_text(u"CR_NL").has_value());  // built, not stored
}

// Names are unique and only CR_NL is built. Three pairs of members share one
// stored text; no other member shares, every stored text is used, and no text
// is stored twice. Every text is non-empty printable ASCII on one line.
TEST(TextConstantsTable, NamesAndStoredTexts) {
  std::set<std::u16string_view> names;
  std::map<int, std::vector<std::string>> users;
  for (const auto& m : TextConstants::members()) {
    EXPECT_TRUE(names.insert(m.name).second) << "duplicate " << narrow(m.name);
    if (m.text == TextConstants::kBuiltText) {
      EXPECT_EQ(m.name, u"CR_NL");
    } else {
      EXPECT_EQ(m.name.substr(0, 3), u"cst") << narrow(m.name);
      users[m.text].push_back(narrow(m.name));
    }
  }
  std::set<std::vector<std::string>> shared;
  for (const auto& [index, sharing] : users) {
    if (sharing.size() > 1) shared.insert(sharing);
  }
  const std::set<std::vector<std::string>> pairs = {{"cstEmptySeat", "cstSeatIsEmpty"},
                                                    {"cstFileUBasic", "cstUBasic"},
                                                    {"cstImportant", "cstImportantMessage"}};
  EXPECT_EQ(shared, pairs);
  EXPECT_EQ(users.size(), TextConstants::text_count());
  EXPECT_EQ(TextConstants::text_count(), 133u - 1u - 3u);
  EXPECT_EQ(text_of(u"cstSeatIsEmpty"), u"Empty Seat");

  std::set<std::u16string_view> distinct;
  for (std::size_t i = 0; i < TextConstants::text_count(); ++i) {
    const auto text = TextConstants::Text(i);
    EXPECT_TRUE(distinct.insert(text).second) << narrow(text);
    EXPECT_FALSE(text.empty()) << i;
    for (char16_t c : text) {
      EXPECT_TRUE(c >= 32 && c <= 126) << "text " << i << " has code " << static_cast<int>(c);
    }
  }
  EXPECT_EQ(test::error_of([] { TextConstants::Text(TextConstants::text_count()); }), 5);
}

// Leading, trailing and doubled blanks are part of the texts, and so are the
// host's spellings and punctuation.
TEST(TextConstantsTexts, ExactTexts) {
  struct Case { std::u16string_view name; std::u16string_view text; };
  for (auto c : {
           Case{u"cstHereWeGo", u"           Here we go..."},
           Case{u"cstKarvoSoftwareExit", u"KARVO  SOFTWARE  EXIT"},
           Case{u"cstIsItOK", u"Is it OK  to Overwrite Cell: "},
           Case{u"cstClickMessage", u"Click Ok to Continue w/Round: "},
           Case{u"cstAndChanges", u"&Changes"},
           Case{u"cstCommonSimulatorText", u"Karvo 's Casino Blackjack Simulator - "},
           Case{u"cstPellDorrinsWGB", u"Pell Dorrin's World's Greatest Blackjack Book - P.169-70"},
           Case{u"cstCasinoDescriptorFiles", u"CasinoDescriptor Files (*.Cdf)"},
       }) {
    EXPECT_EQ(text_of(c.name), c.text) << narrow(c.name);
  }
}

TEST(TextConstantsCrNl, CarriageReturnThenLineFeedEachCall) {
  const TextConstants texts;
  std::u16string first = texts.CR_NL();
  EXPECT_EQ(first, u"\r\n");
  first[0] = u'x';
  EXPECT_EQ(texts.CR_NL(), u"\r\n");
}

}  // namespace
}  // namespace valmetra
