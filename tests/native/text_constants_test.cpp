#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "frame/error.h"
#include "text/text_constants.h"

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

TEST(TextConstantsTable, MembersInSlotOrder) {
  const auto members = TextConstants::members();
  ASSERT_EQ(members.size(), 133u);
  for (std::size_t i = 0; i < members.size(); ++i) {
    EXPECT_EQ(members[i].slot, static_cast<int>(i) + 1);
  }
  struct Case { int slot; std::u16string_view name; };
  for (auto c : {Case{1, u"CR_NL"}, Case{2, u"cstAboutKarvo"}, Case{18, u"cstBeforePlugging"},
                 Case{26, u"cstKarvoSoftwareExit"}, Case{108, u"cstSaveStrategyChanges"},
                 Case{125, u"cstThisNumberssumes"}, Case{128, u"cstUnfreezeKarvo"},
                 Case{129, u"cstUserDefined"}, Case{130, u"cstUserDefined01"},
                 Case{131, u"cstUserDefined02"}, Case{132, u"cstWaitingForPlayers"},
                 Case{133, u"cstWWWSites"}}) {
    EXPECT_EQ(members[c.slot - 1].name, c.name) << c.slot;
    const auto* found = TextConstants::find_member(c.name);
    ASSERT_NE(found, nullptr) << narrow(c.name);
    EXPECT_EQ(found->slot, c.slot);
  }
}

TEST(TextConstantsTable, NamesUniqueAndOnlyCrNlIsBuilt) {
  std::set<std::u16string_view> names;
  int built = 0;
  for (const auto& m : TextConstants::members()) {
    EXPECT_TRUE(names.insert(m.name).second) << "duplicate " << narrow(m.name);
    if (m.text == TextConstants::kBuiltText) {
      ++built;
      EXPECT_EQ(m.name, u"CR_NL");
      EXPECT_FALSE(TextConstants::member_text(m.name).has_value());
    } else {
      EXPECT_EQ(m.name.substr(0, 3), u"cst") << narrow(m.name);
    }
  }
  EXPECT_EQ(built, 1);
  EXPECT_EQ(TextConstants::find_member(u"cstaboutkarvo"), nullptr);  // exact spelling only
  EXPECT_EQ(TextConstants::find_member(u"cstNoSuchText"), nullptr);
  EXPECT_FALSE(TextConstants::member_text(u"cstNoSuchText").has_value());
}

// Three pairs of members share one stored text; no other member shares, every
// stored text is used, and no text is stored twice.
TEST(TextConstantsTable, SharedTextsAreExactlyTheThreePairs) {
  std::map<int, std::vector<std::string>> users;
  for (const auto& m : TextConstants::members()) {
    if (m.text != TextConstants::kBuiltText) users[m.text].push_back(narrow(m.name));
  }
  const std::set<std::vector<std::string>> pairs = {
      {"cstEmptySeat", "cstSeatIsEmpty"},
      {"cstFileUBasic", "cstUBasic"},
      {"cstImportant", "cstImportantMessage"}};
  std::set<std::vector<std::string>> shared;
  for (const auto& [index, names] : users) {
    if (names.size() > 1) shared.insert(names);
  }
  EXPECT_EQ(shared, pairs);
  EXPECT_EQ(users.size(), TextConstants::text_count());
  EXPECT_EQ(TextConstants::text_count(), 133u - 1u - 3u);

  std::set<std::u16string_view> distinct;
  for (std::size_t i = 0; i < TextConstants::text_count(); ++i) {
    EXPECT_TRUE(distinct.insert(TextConstants::Text(i)).second) << narrow(TextConstants::Text(i));
  }
  EXPECT_EQ(text_of(u"cstEmptySeat"), u"Empty Seat");
  EXPECT_EQ(text_of(u"cstUBasic"), u"UBasic");
  EXPECT_EQ(text_of(u"cstImportantMessage"), u"IMPORTANT!");
}

TEST(TextConstantsTable, EveryTextIsPrintableAsciiOnOneLine) {
  for (std::size_t i = 0; i < TextConstants::text_count(); ++i) {
    const auto text = TextConstants::Text(i);
    EXPECT_FALSE(text.empty()) << i;
    for (char16_t c : text) {
      EXPECT_TRUE(c >= 32 && c <= 126) << "text " << i << " has code " << static_cast<int>(c);
    }
  }
}

TEST(TextConstantsTable, IndexOutsideTheTableRaises) {
  try {
    (void)TextConstants::Text(TextConstants::text_count());
    FAIL() << "no error";
  } catch (const Error& e) {
    EXPECT_EQ(e.number(), 5);
  }
}

// Leading, trailing and doubled blanks are part of the texts. Every text with
// such blanks is listed here; all other texts have none.
TEST(TextConstantsTexts, BlanksAreKept) {
  struct Case {
    std::u16string_view name;
    std::size_t leading;
    std::size_t trailing;
    std::size_t doubled;  // doubled blanks between words
    std::u16string_view around;  // text around the doubled blank(s), if any
  };
  const Case cases[] = {
      {u"cstAboutKarvo", 0, 0, 1, u"ABOUT  KARVO"},
      {u"cstKarvoSoftwareExit", 0, 0, 2, u"KARVO  SOFTWARE  EXIT"},
      {u"cstBustBoxDecision", 0, 0, 1, u"Box  Decision"},
      {u"cstCheckingHoleCard", 5, 0, 0, u""},
      {u"cstClickMessage", 0, 1, 0, u""},
      {u"cstCommonSimulatorText", 0, 1, 0, u""},
      {u"cstAltEAppendage", 1, 0, 0, u""},
      {u"cstCtrlOAppendage", 1, 0, 0, u""},
      {u"cstCutsTheCards", 1, 0, 0, u""},
      {u"cstErrorCodeID", 0, 1, 0, u""},
      {u"cstEvaluate", 0, 1, 0, u""},
      {u"cstEvaluation", 0, 1, 0, u""},
      {u"cstGamePound", 0, 1, 0, u""},
      {u"cstHereWeGo", 11, 0, 0, u""},
      {u"cstIncorrectPlay", 2, 0, 0, u""},
      {u"cstInsuranceDecision", 0, 0, 1, u"Insurance  Decision"},
      {u"cstInsuranceLoseText", 5, 0, 0, u""},
      {u"cstInternetText", 0, 1, 0, u""},
      {u"cstIsItOK", 0, 1, 1, u"OK  to"},
      {u"cstIsleaving", 1, 0, 0, u""},
      {u"cstLetsDeal", 6, 0, 0, u""},
      {u"cstNextHand", 0, 1, 0, u""},
      {u"cstOurDealerIs", 0, 1, 0, u""},
      {u"cstPerformanceEvaluation", 0, 1, 0, u""},
      {u"cstPleaseCutTheCards", 1, 0, 0, u""},
      {u"cstResetAtShoe", 0, 1, 0, u""},
      {u"cstShallWeOverwrite", 0, 1, 0, u""},
      {u"cstSitsDown", 1, 0, 0, u""},
      {u"cstStopAt", 0, 1, 0, u""},
      {u"cstThatSeatIS", 0, 1, 0, u""},
      {u"cstUserDefined", 0, 1, 0, u""},
      {u"cstWWWSites", 4, 0, 0, u""},
  };
  std::map<std::u16string_view, Case> expected;
  for (const auto& c : cases) expected.emplace(c.name, c);

  for (const auto& m : TextConstants::members()) {
    if (m.text == TextConstants::kBuiltText) continue;
    const auto text = TextConstants::Text(static_cast<std::size_t>(m.text));
    const std::size_t first = text.find_first_not_of(u' ');
    ASSERT_NE(first, std::u16string_view::npos) << narrow(m.name);
    const std::size_t leading = first;
    const std::size_t trailing = text.size() - 1 - text.find_last_not_of(u' ');
    const auto inner = text.substr(leading, text.size() - leading - trailing);
    std::size_t doubled = 0;
    for (std::size_t at = inner.find(u"  "); at != std::u16string_view::npos;
         at = inner.find(u"  ", at + 2)) {
      ++doubled;
      EXPECT_NE(inner.substr(at, 3), u"   ") << "three blanks in " << narrow(m.name);
    }
    const auto it = expected.find(m.name);
    const Case none{m.name, 0, 0, 0, u""};
    const Case& c = it == expected.end() ? none : it->second;
    EXPECT_EQ(leading, c.leading) << narrow(m.name) << ": \"" << narrow(text) << '"';
    EXPECT_EQ(trailing, c.trailing) << narrow(m.name) << ": \"" << narrow(text) << '"';
    EXPECT_EQ(doubled, c.doubled) << narrow(m.name) << ": \"" << narrow(text) << '"';
    if (!c.around.empty()) {
      EXPECT_NE(text.find(c.around), std::u16string_view::npos) << narrow(m.name);
    }
    if (it != expected.end()) expected.erase(it);
  }
  for (const auto& [name, c] : expected) ADD_FAILURE() << "no member " << narrow(name);
}

// Texts come back exactly as stored: ampersands, ellipses, apostrophes and
// the spelling of the host's texts included.
TEST(TextConstantsTexts, ExactTexts) {
  struct Case { std::u16string_view name; std::u16string_view text; };
  for (auto c : {
           Case{u"cstHereWeGo", u"           Here we go..."},
           Case{u"cstWWWSites", u"    Word Wide Web Internet Sites"},
           Case{u"cstClickMessage", u"Click Ok to Continue w/Round: "},
           Case{u"cstKarvoSoftwareExit", u"KARVO  SOFTWARE  EXIT"},
           Case{u"cstSaveStrategyChanges", u"Save Strategy Changes?..."},
           Case{u"cstAndChanges", u"&Changes"},
           Case{u"cstStopAt", u"Stop &At Round: "},
           Case{u"cstStopAtShoe", u"&Stop at End of Shoe:"},
           Case{u"cstThisNumberssumes",
                u"This Number ASSUMES a Basic Strategy Player & Random Shuffle"},
           Case{u"cstCommonSimulatorText", u"Karvo 's Casino Blackjack Simulator - "},
           Case{u"cstErrorCodeID", u"---|Error Code: "},
           Case{u"cstTimeToBuy", u"Time to by more chips before making check-change for Seat:"},
           Case{u"cstPellDorrinsWGB", u"Pell Dorrin's World's Greatest Blackjack Book - P.169-70"},
           Case{u"cstInvalidArrayError", u"ComputeBreakModeOrder: Invalid Data Array passed in."},
           Case{u"cstCasinoDescriptorFiles", u"CasinoDescriptor Files (*.Cdf)"},
           Case{u"cstUnfreezeKarvo", u"Unfreeze Karvo to Continue..."},
           Case{u"cstAboutKarvo", u"ABOUT  KARVO"},
       }) {
    EXPECT_EQ(text_of(c.name), c.text) << narrow(c.name);
  }
  EXPECT_EQ(text_of(u"cstHereWeGo").size(), 24u);
}

TEST(TextConstantsCrNl, CarriageReturnThenLineFeedEachCall) {
  const TextConstants texts;
  std::u16string first = texts.CR_NL();
  ASSERT_EQ(first.size(), 2u);
  EXPECT_EQ(first[0], char16_t{13});
  EXPECT_EQ(first[1], char16_t{10});
  first[0] = u'x';
  EXPECT_EQ(texts.CR_NL(), u"\r\n");
}

}  // namespace
}  // namespace valmetra
