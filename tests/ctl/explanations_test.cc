// SPDX-License-Identifier: Apache-2.0
//
// Is the one table of what numbers and names mean that of the header, of the C++ face, of the guide
// and of the manual?
#include "explanations.h"

#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>
#include <velmora_svcmgr.hpp>

#include "failure.h"

namespace svcmgrctl {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Numbers = std::map<std::string, int>;
using Rows = std::vector<std::vector<std::string>>;

std::string TextOf(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::smatch> Matches(const std::string& text, const std::regex& pattern) {
  return {std::sregex_iterator(text.begin(), text.end(), pattern), {}};
}

Numbers NamesOf(std::initializer_list<Family> kinds) {
  Numbers names;
  for (const Explanation& each : Explanations())
    if (std::find(kinds.begin(), kinds.end(), each.family) != kinds.end())
      names.emplace(each.name, each.number);
  return names;
}

std::vector<Explanation> Of(Family family) {
  std::vector<Explanation> found;
  for (const Explanation& each : Explanations())
    if (each.family == family) found.push_back(each);
  return found;
}

TEST(TheExplanations, AreOfAllEnumeratorsAndConstantsOfTheHeaderAndNoOthers) {
  const std::string header = TextOf(SVCMGR_HEADER);
  Numbers wanted;
  for (const auto& match : Matches(header, std::regex(R"(\n  (SVCMGR_\w+) = (-?\d+))")))
    wanted.emplace(match[1], std::stoi(match[2]));
  EXPECT_GT(wanted.size(), 30U);
  EXPECT_EQ(NamesOf({Family::kError, Family::kUpdateStatus, Family::kModelStatus,
                     Family::kConnectionState}),
            wanted);
  Numbers constants;
  for (const auto& match : Matches(header, std::regex(R"(\n#define (VELMORA_SVCMGR_\w+) (\d+))")))
    constants.emplace(match[1], std::stoi(match[2]));
  EXPECT_EQ(constants.size(), 4U);
  EXPECT_EQ(NamesOf({Family::kConstant}), constants);
}

TEST(TheExplanations, HaveTheNamesOfTheCxxFace) {
  for (const Family family : {Family::kError, Family::kFaceError}) {
    for (const Explanation& each : Of(family)) {
      const vs::Error error(each.number);
      EXPECT_TRUE(error.is_known()) << each.name;
      EXPECT_EQ(error.name(), each.name);
    }
  }
  const std::string face = TextOf(SVCMGR_FACE);
  EXPECT_EQ(Matches(face, std::regex(R"(\n  k\w+ = \d+,)")).size(), Of(Family::kFaceError).size());
}

TEST(TheExplanations, SayOfEachWhatItMeansAndOfEachFailureWhatToDo) {
  for (const Explanation& each : Explanations()) {
    if (each.family == Family::kModelResult || each.family == Family::kUpdateResult) continue;
    EXPECT_THAT(each.meaning, Not(IsEmpty())) << each.name;
    if (each.family == Family::kConstant) continue;
    EXPECT_THAT(each.returned_by, Not(IsEmpty())) << each.name;
    if (each.family == Family::kError || each.family == Family::kFaceError) {
      EXPECT_THAT(each.remedy, Not(IsEmpty())) << each.name;
    }
  }
}

/** Each documented function or callback of the header, with its comment. */
std::map<std::string, std::string> DocumentedFunctions() {
  std::map<std::string, std::string> functions;
  std::istringstream lines(TextOf(SVCMGR_HEADER));
  std::string comment;
  bool inside = false;
  const std::regex name(R"((?:int|void) \(?\*?(velmora_svcmgr_\w+)\)?\()");
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("/**")) comment.clear();
    inside = inside || line.starts_with("/**");
    if (inside) comment += line + "\n";
    if (line.find("*/") != std::string::npos) inside = false;
    std::smatch match;
    if (!inside && std::regex_search(line, match, name)) functions.emplace(match[1], comment);
  }
  return functions;
}

bool IsNamedIn(std::string_view text, const std::string& function) {
  if (std::regex_search(std::string(text), std::regex("\\b" + function + "\\b"))) return true;
  constexpr std::string_view kRequests = "velmora_svcmgr_ai_request_";
  return function.starts_with(kRequests) &&
         text.find(std::string(kRequests) + "*") != std::string_view::npos;
}

TEST(TheExplanations, NameTheFunctionsForWhichTheHeaderListsACode) {
  const auto functions = DocumentedFunctions();
  EXPECT_GT(functions.size(), 40U);
  for (const Explanation& each : Of(Family::kError)) {
    if (each.returned_by.starts_with("every function")) continue;
    for (const auto& [function, comment] : functions) {
      const std::regex code("@return[^@]*\\b" + std::string(each.name) + "\\b");
      const bool returns = std::regex_search(comment, code);
      if (returns) {
        EXPECT_TRUE(IsNamedIn(each.returned_by, function)) << each.name << ' ' << function;
      }
      const bool is_named =
          std::regex_search(std::string(each.returned_by), std::regex("\\b" + function + "\\b"));
      if (is_named && !function.ends_with("_cb")) {
        EXPECT_TRUE(returns) << each.name << ' ' << function;
      }
    }
  }
}

/** The cells of the guide's table rows with so many cells, without marks of layout. */
Rows GuideRows(std::size_t cells, const std::string& first) {
  Rows rows;
  std::istringstream lines(TextOf(SVCMGR_ERRORS_GUIDE));
  for (std::string line; std::getline(lines, line);) {
    if (!std::regex_search(line, std::regex("^\\| `?" + first))) continue;
    line = std::regex_replace(line, std::regex(R"(\[([^\]]*)\]\([^)]*\))"), "$1");
    line = std::regex_replace(line, std::regex("`"), "");
    std::vector<std::string> row;
    for (const auto& cell : Matches(line, std::regex(R"(\| ([^|]+?) (?=\|))")))
      row.push_back(cell[1]);
    if (row.size() == cells) rows.push_back(row);
  }
  return rows;
}

TEST(TheGuideToErrors, SaysWhatTheExplanationsSay) {
  Rows codes;
  for (const Explanation& each : Of(Family::kError))
    codes.push_back({std::string(each.name), std::to_string(each.number), std::string(each.meaning),
                     std::string(each.remedy)});
  EXPECT_EQ(GuideRows(4, "SVCMGR_ERROR_"), codes);
  Rows own;
  for (const auto& row : GuideRows(3, "k[A-Z]")) own.push_back({row[1], row[2]});
  Rows wanted;
  for (const Explanation& each : Of(Family::kFaceError))
    wanted.push_back({std::to_string(each.number), std::string(each.meaning)});
  EXPECT_EQ(own, wanted);
}

TEST(TheGuideToErrors, TranslatesTheAgentsResultsAsTheExplanationsDo) {
  Rows models;
  for (const Explanation& each : Of(Family::kModelResult))
    models.push_back({std::to_string(each.number), std::string(each.name)});
  EXPECT_EQ(GuideRows(2, "[0-9]+ \\| `SVCMGR_ERROR"), models);
  Rows updates;
  for (const Explanation& each : Of(Family::kUpdateResult))
    updates.push_back({std::to_string(each.number), std::string(each.name),
                       std::to_string(NamesOf({Family::kUpdateStatus})[std::string(each.name)])});
  EXPECT_EQ(GuideRows(3, "[0-9]+ \\| `SVCMGR_UPDATE"), updates);
}

TEST(TheManPage, NamesEachFailureThatHasNoCode) {
  const std::string page = TextOf(SVCMGRCTL_MAN_PAGE);
  for (const Explanation& each : Of(Family::kOwnFailure))
    EXPECT_THAT(page, HasSubstr("\"" + std::string(each.name) + "\""));
}

TEST(AnExplanation, IsFoundByItsNumberInEachForm) {
  for (const char* word : {"-1073741822", "0xC0000002", "0xc0000002"}) {
    const auto found = ExplanationsOf(word);
    ASSERT_EQ(found.size(), 1U) << word;
    EXPECT_EQ(found.front()->name, "SVCMGR_ERROR_NOT_SUPPORTED");
  }
  EXPECT_THAT(ExplanationsOf("0x100000000"), IsEmpty());
  EXPECT_THAT(ExplanationsOf("12x"), IsEmpty());
  EXPECT_THAT(ExplanationsOf("99999999999999999999"), IsEmpty());
  EXPECT_THAT(ExplanationsOf(""), IsEmpty());
  EXPECT_THAT(ExplanationsOf("4711"), IsEmpty());
}

TEST(AnExplanation, IsFoundByItsNameAlsoWithoutItsBeginningAndInAnyCase) {
  for (const char* word : {"SVCMGR_ERROR_NO_SPACE", "NO_SPACE", "no_space", "error_no_space"}) {
    const auto found = ExplanationsOf(word);
    ASSERT_EQ(found.size(), 1U) << word;
    EXPECT_EQ(found.front()->number, -28);
  }
  EXPECT_EQ(ExplanationsOf("started").size(), 2U);
  EXPECT_THAT(ExplanationsOf("SPAC"), IsEmpty());
}

TEST(AnExplanation, OfANumberIsThatOfAllThatHaveIt) {
  std::set<Family> kinds;
  for (const Explanation* each : ExplanationsOf("3")) kinds.insert(each->family);
  EXPECT_EQ(kinds, (std::set{Family::kFaceError, Family::kUpdateStatus, Family::kModelResult,
                             Family::kUpdateResult, Family::kExitStatus}));
}

TEST(AnExplanation, IsProposedForANameThatIsNearlyRight) {
  EXPECT_THAT(NamesLike("SVCMGR_ERROR_NO_SPAC"), Contains("SVCMGR_ERROR_NO_SPACE"));
  EXPECT_THAT(NamesLike("NO_SPAEC"), ElementsAre("NO_SPACE"));
  EXPECT_THAT(NamesLike("nothing of that kind at all"), IsEmpty());
}

}  // namespace
}  // namespace svcmgrctl
