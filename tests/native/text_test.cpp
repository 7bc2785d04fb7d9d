// The catalogue of fixed texts: slots, names, shared stored texts, the exact
// spelling of texts a careless generator would change, and CR_NL.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <string_view>

#include "text/text_constants.h"

#include "test_support.h"

namespace valmetra {
namespace {

using T = TextConstants;
std::string narrow(std::u16string_view s) { return std::string(s.begin(), s.end()); }

// A member: its slot (0: not checked), name and text, served by name and by
// slot (empty: none stored, and serving the slot raises Invalid procedure
// call). Blanks, '&' and apostrophes are part of the texts.
TEST(TextCatalogue, SlotsNamesAndTexts) {
  struct Row { std::size_t slot; std::u16string_view name, text; };
  for (auto r : {Row{1, u"CR_NL", u""}, Row{2, u"cstAboutKarvo", u"ABOUT  KARVO"},
                 Row{26, u"cstKarvoSoftwareExit", u"KARVO  SOFTWARE  EXIT"},
                 Row{129, u"cstUserDefined", u"User Defined "}, Row{130, u"cstUserDefined01", u"User Defined #1"},
                 Row{133, u"cstWWWSites", u"    Word Wide Web Internet Sites"},
                 Row{0, u"cstHereWeGo", u"           Here we go..."}, Row{0, u"cstAndChanges", u"&Changes"},
                 Row{0, u"cstCommonSimulatorText", u"Karvo 's Casino Blackjack Simulator - "},
                 Row{0, u"cstPellDorrinsWGB", u"Pell Dorrin's World's Greatest Blackjack Book - P.169-70"},
                 Row{0, u"cstEmptySeat", u"Empty Seat"}, Row{0, u"cstSeatIsEmpty", u"Empty Seat"}}) {
    const auto* found = T::find_member(r.name);
    ASSERT_NE(found, nullptr) << narrow(r.name);
    EXPECT_EQ(T::member_text(r.name).value_or(u""), r.text) << narrow(r.name);
    if (r.slot == 0) continue;
    EXPECT_EQ(T::members()[r.slot - 1].name, r.name) << r.slot;
    EXPECT_EQ(found->slot, static_cast<int>(r.slot));
    EXPECT_EQ(test::error_of([&] { EXPECT_EQ(T::slot_text(r.slot), r.text) << r.slot; }), r.text.empty() ? 5 : 0) << r.slot;
  }
  EXPECT_EQ(T::members().size(), 133u);
  for (std::size_t slot : {std::size_t{0}, std::size_t{134}}) {
    EXPECT_EQ(test::error_of([&] { T::slot_text(slot); }), 5) << slot;
  }
  EXPECT_EQ(test::error_of([] { T::Text(T::text_count()); }), 5);
  EXPECT_EQ(T::Text(T::text_count() - 1), T::member_text(u"cstWWWSites"));  // the last text is served
  for (auto name : {u"cstaboutkarvo", u"cstNoSuchText", u"cstAboutKarvo "}) {  // exact spelling only
    EXPECT_EQ(T::find_member(name), nullptr) << narrow(name);
    EXPECT_FALSE(T::member_text(name).has_value());
  }
}

// Three pairs of members share one stored text; no text is stored twice.
TEST(TextCatalogue, SharedTexts) {
  for (auto [a, b] : {std::pair{u"cstEmptySeat", u"cstSeatIsEmpty"}, {u"cstFileUBasic", u"cstUBasic"},
                      {u"cstImportant", u"cstImportantMessage"}}) {
    EXPECT_EQ(T::find_member(a)->text, T::find_member(b)->text) << narrow(a);
  }
  EXPECT_EQ(T::text_count(), 133u - 1u - 3u);
  std::set<std::u16string_view> distinct;
  for (std::size_t i = 0; i < T::text_count(); ++i) EXPECT_TRUE(distinct.insert(T::Text(i)).second) << i;
}

TEST(TextCatalogue, CrNlIsBuiltAtEachCall) {
  const TextConstants texts;
  std::u16string first = texts.CR_NL();
  EXPECT_EQ(first, u"\r\n");
  first[0] = u'x';
  EXPECT_EQ(texts.CR_NL(), u"\r\n");
}

}  // namespace
}  // namespace valmetra
