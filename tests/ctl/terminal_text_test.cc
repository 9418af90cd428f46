// SPDX-License-Identifier: Apache-2.0
#include "terminal_text.h"

#include <gmock/gmock.h>

#include <string>

namespace terminal_text {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Row {
  std::string text;
  std::string shown;
};

TEST(ATextForTheTerminal, ShowsWhatIsUnsafeByItsNumber) {
  const Row rows[] = {
      {"", ""},
      {"plain text", "plain text"},
      {"back\\slash", "back\\slash"},
      {"\x1b[31mred", "\\x1B[31mred"},
      {std::string("a\0b", 3), "a\\x00b"},
      {"bell\a back\b", "bell\\x07 back\\x08"},
      {"a\nb\rc\td", "a\\nb\\rc\\td"},
      {"del\x7f", "del\\x7F"},
      {"\xc2\x9b"
       "31m",
       "\\u009B31m"},  // the one-character escape sequence, as UTF-8
      {"\x9b"
       "31m",
       "\\x9B31m"},  // and as a raw byte
      {"\xe2\x80\xae"
       "exe",
       "\\u202Eexe"},  // right-to-left override
      {"\xe2\x80\xaa\xe2\x81\xa6\xe2\x81\xa9", "\\u202A\\u2066\\u2069"},
      {"\xe2\x80\xa8", "\\u2028"},
      {"\xef\xbb\xbf", "\\uFEFF"},
      {"\xc0\xaf", "\\xC0\\xAF"},                    // an overlong slash
      {"\xed\xa0\x80", "\\xED\\xA0\\x80"},           // a surrogate
      {"\xf4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},  // beyond the last character
      {"cut \xe4\xb8", "cut \\xE4\\xB8"},            // the first two bytes of three
      {"\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80", "\xc3\xa9\xe4\xb8\xad\xf0\x9f\x98\x80"},
  };
  for (const Row& row : rows) EXPECT_EQ(ForTerminal(row.text), row.shown);
}

TEST(ATextForTheTerminal, HidesNoCharacter) {
  const Row rows[] = {
      {"a\xc2\xad", "a\\u00AD"},                         // soft hyphen
      {"a\xcd\x8f", "a\\u034F"},                         // combining grapheme joiner
      {"a\xe1\x85\x9f", "a\\u115F"},                     // Hangul filler
      {"a\xe1\xa0\x8e", "a\\u180E"},                     // Mongolian vowel separator
      {"a\xe2\x80\x8b", "a\\u200B"},                     // space without width
      {"a\xe2\x80\x8c\xe2\x80\x8d", "a\\u200C\\u200D"},  // joiners
      {"a\xe2\x81\xa0", "a\\u2060"},                     // word joiner
      {"a\xe2\x81\xaf", "a\\u206F"},                     // nominal digit shapes
      {"a\xe3\x85\xa4", "a\\u3164"},                     // Hangul filler
      {"a\xef\xb8\x8f", "a\\uFE0F"},                     // variation selector
      {"a\xef\xbe\xa0", "a\\uFFA0"},                     // half-width Hangul filler
      {"a\xf3\xa0\x81\x81", "a\\uE0041"},                // tag
      {"a\xf3\xa0\x84\x80", "a\\uE0100"},                // variation selector
  };
  for (const Row& row : rows) EXPECT_EQ(ForTerminal(row.text), row.shown);
}

TEST(ATextForTheTerminal, KeepsLineFeedsAndTabsAloneWhereTheyAreLayout) {
  EXPECT_EQ(ForTerminal("a\n\tb\r\x1b", Layout::kKeep), "a\n\tb\\r\\x1B");
}

TEST(ATextForTheTerminal, IsTheSameWhenItIsMadeSafeAgain) {
  std::string every_byte;
  for (int byte = 0; byte < 256; ++byte) every_byte += static_cast<char>(byte);
  const std::string once = ForTerminal(every_byte);
  EXPECT_EQ(ForTerminal(once), once);
}

TEST(TheWidthOfAText, CountsCellsAndNeitherBytesNorCharacters) {
  EXPECT_EQ(CellWidth(""), 0u);
  EXPECT_EQ(CellWidth("abc"), 3u);
  EXPECT_EQ(CellWidth("\xc3\xa9"), 1u);                  // e with acute, one character
  EXPECT_EQ(CellWidth("e\xcc\x81"), 1u);                 // e and a combining acute
  EXPECT_EQ(CellWidth("\xe4\xb8\xad\xe6\x96\x87"), 4u);  // two ideographs
  EXPECT_EQ(CellWidth("\xf0\x9f\x98\x80"), 2u);          // an emoji
  EXPECT_EQ(CellWidth("\xef\xbd\xb1"), 1u);              // half-width katakana
}

TEST(TheFirstCells, OfATextEndBeforeTheCharacterThatDoesNotFit) {
  EXPECT_EQ(FirstCells("abc", 0), "");
  EXPECT_EQ(FirstCells("abc", 2), "ab");
  EXPECT_EQ(FirstCells("abc", 9), "abc");
  EXPECT_EQ(FirstCells("a\xe4\xb8\xad\xe6\x96\x87", 2), "a");
  EXPECT_EQ(FirstCells("a\xe4\xb8\xad\xe6\x96\x87", 3), "a\xe4\xb8\xad");
  EXPECT_EQ(FirstCells("e\xcc\x81x", 1), "e\xcc\x81");
}

TEST(AMessage, ThatIsShortIsLeftAlone) {
  for (const std::string& text : {std::string(), std::string("a\x9b"), std::string(500, 'a')})
    EXPECT_EQ(Shortened(text), text);
}

TEST(AMessage, ThatIsLongKeepsItsBeginningAndItsEnd) {
  EXPECT_EQ(Shortened(std::string(400, 'a') + std::string(100000, 'b') + std::string(100, 'c')),
            std::string(400, 'a') + "\u2026" + std::string(100, 'c'));
}

TEST(AMessage, IsNotCutWithinACharacter) {
  for (const char* character : {"\xc3\xa9", "\xe4\xb8\xad", "\xf0\x9f\x98\x80"})
    for (const char* before : {"", "a", "aa", "aaa"}) {
      std::string text = before;
      for (int i = 0; i < 1000; ++i) text += character;
      const std::string shortened = Shortened(text);
      EXPECT_LT(shortened.size(), 510u);
      EXPECT_TRUE(ForTerminal(shortened) == shortened) << shortened;
    }
}

TEST(ASuggestion, IsWhatDiffersLittleBestFirst) {
  EXPECT_THAT(SimilarTo("vison", {"speech", "vision", "visor", "vision-2"}),
              ElementsAre("vision", "visor"));
}

TEST(ASuggestion, IsMadeAtMostThreeTimesAndNeverTwiceForOneName) {
  EXPECT_THAT(SimilarTo("model", {"model1", "model1", "model2", "model3", "model4"}),
              ElementsAre("model1", "model2", "model3"));
}

TEST(ASuggestion, IsNotMadeForWhatIsFarOffOrEndless) {
  EXPECT_THAT(SimilarTo("dmeo", {"demo", "drops"}), ElementsAre("demo"));
  EXPECT_THAT(SimilarTo("rnu", {"run"}), ElementsAre("run"));
  EXPECT_THAT(SimilarTo("x", {"speech", "vision", ""}), IsEmpty());
  EXPECT_THAT(SimilarTo(std::string(100000, 'a'), {std::string(100000, 'a')}), IsEmpty());
  EXPECT_THAT(SimilarTo("anything", {}), IsEmpty());
}

}  // namespace
}  // namespace terminal_text
