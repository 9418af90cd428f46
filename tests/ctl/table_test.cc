// SPDX-License-Identifier: Apache-2.0
#include "table.h"

#include <gtest/gtest.h>

namespace svcmgrctl {
namespace {

TEST(ATable, AlignsItsColumnsByTerminalCells) {
  Table table;
  table.AddHeading({"ID", "TITLE", "VERSION"});
  table.AddRow({{"a"}, {"\xe4\xb8\xad\xe6\x96\x87\xe6\xa8\xa1\xe5\x9e\x8b"}, {"1"}});
  table.AddRow({{"longer"}, {"caf\xc3\xa9"}, {"2"}});
  table.AddRow({{"b"}, {"cafe\xcc\x81"}, {"3"}});
  EXPECT_EQ(table.Render(false),
            "ID      TITLE     VERSION\n"
            "a       \xe4\xb8\xad\xe6\x96\x87\xe6\xa8\xa1\xe5\x9e\x8b  1\n"
            "longer  caf\xc3\xa9      2\n"
            "b       cafe\xcc\x81      3\n");
}

TEST(ATable, ShowsAnEmptyCellAsADashAndEndsNoLineInSpaces) {
  Table table;
  table.AddRow({{""}, {"long cell"}});
  table.AddRow({{"x"}, {""}});
  EXPECT_EQ(table.Render(false), "-  long cell\nx  -\n");
}

TEST(ATable, IsAlignedByWhatItShowsOfAHostileText) {
  Table table;
  table.AddRow({{"\x1b[2J"}, {"1"}});
  table.AddRow({{"x"}, {"2"}});
  EXPECT_EQ(table.Render(false), "\\x1B[2J  1\nx        2\n");
}

TEST(ATable, KeepsItsAlignmentInColor) {
  Table table;
  table.AddRow({{"Link", Tone::kHeading}, {"up", Tone::kGood}});
  table.AddRow({{"Agent"}, {"gone", Tone::kBad}});
  EXPECT_EQ(table.Render(true),
            "\x1b[1mLink\x1b[0m   \x1b[32mup\x1b[0m\n"
            "Agent  \x1b[31mgone\x1b[0m\n");
}

TEST(ATable, FitsAWidthAtTheCostOfItsLastColumn) {
  Table table;
  table.AddHeading({"ID", "TITLE"});
  table.AddRow({{"a"}, {"a title of some length"}});
  table.AddRow({{"b"}, {"\xe4\xb8\xad\xe6\x96\x87\xe6\xa8\xa1\xe5\x9e\x8b"}});
  EXPECT_EQ(table.Render(false, 10),
            "ID  TITLE\na   a tit\u2026\nb   \xe4\xb8\xad\xe6\x96\x87\u2026\n");
  EXPECT_EQ(table.Render(false, 26), table.Render(false));
  EXPECT_EQ(table.Render(true, 10),
            "\x1b[1mID\x1b[0m  \x1b[1mTITLE\x1b[0m\na   a tit\u2026\nb   "
            "\xe4\xb8\xad\xe6\x96\x87\u2026\n");
  EXPECT_EQ(table.Render(false, 1), "\u2026  \u2026\na  \u2026\nb  \u2026\n");
}

TEST(ATable, ThatIsTooWideWithoutItsLastColumnFitsAtTheCostOfItsWidestOnes) {
  Table table;
  table.AddHeading({"NUMBER", "NAME", "MEANING"});
  table.AddRow({{"-28"}, {"A_NAME_THAT_TAKES_THIRTY_CELLS"}, {"a meaning of some length"}});
  EXPECT_EQ(table.Render(false, 30),
            "NUMBER  NAME          MEANING\n"
            "-28     A_NAME_THAT\u2026  a meani\u2026\n");
  EXPECT_EQ(table.Render(false, 13), "NU\u2026  NA\u2026  ME\u2026\n-28  A_\u2026  a \u2026\n");
}

TEST(ATable, WithoutRowsIsEmpty) { EXPECT_EQ(Table().Render(true), ""); }

TEST(APaintedText, IsCutByWhatItShowsAndKeepsItsColours) {
  const std::string painted = "a" + Painted("bc", Tone::kGood, true) + "de";
  EXPECT_EQ(FirstPaintedCells(painted, 9), painted);
  EXPECT_EQ(FirstPaintedCells(painted, 2), "a\x1b[32mb\x1b[0m");
  EXPECT_EQ(FirstPaintedCells(painted, 0), "\x1b[32m\x1b[0m");
  EXPECT_EQ(FirstPaintedCells("plain", 3), "pla");
}

}  // namespace
}  // namespace svcmgrctl
