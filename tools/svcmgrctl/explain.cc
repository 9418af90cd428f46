// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "explanations.h"
#include "table.h"
#include "terminal_text.h"

namespace svcmgrctl {
namespace {

constexpr std::size_t kLabelWidth = 13;

std::string Hexadecimal(int number) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(number));
  return text;
}

bool HasNumber(const Explanation& each) { return each.family != Family::kOwnFailure; }
bool IsResult(const Explanation& each) {
  return each.family == Family::kModelResult || each.family == Family::kUpdateResult;
}

std::string MeaningOf(const Explanation& each) {
  if (IsResult(each)) return "The library makes " + std::string(each.name) + " of it.";
  return std::string(each.meaning);
}

std::string_view ReturnedBy(const Explanation& each) {
  return IsResult(each) ? "the agent" : each.returned_by;
}

std::string RemedyOf(const Explanation& each) {
  if (IsResult(each)) return "See svcmgrctl explain " + std::string(each.name) + ".";
  return std::string(each.remedy);
}

Json OrNull(std::string_view text) { return text.empty() ? Json() : Json(text); }

Json ToJson(const Explanation& each) {
  return {{"number", HasNumber(each) ? Json(each.number) : Json()},
          {"name", OrNull(each.name)},
          {"is", NameOf(each.family)},
          {"meaning", MeaningOf(each)},
          {"returned_by", OrNull(ReturnedBy(each))},
          {"remedy", OrNull(RemedyOf(each))}};
}

std::string Labelled(const char* label, const std::string& text, std::size_t width) {
  if (text.empty()) return {};
  std::string line = "  " + std::string(label) + ":";
  line.resize(std::max(line.size() + 1, kLabelWidth + 2), ' ');
  return Paragraph(line, text, kLabelWidth + 2, width);
}

std::string PageOf(const Explanation& each, const Console& console) {
  std::string title;
  if (!each.name.empty() && !IsResult(each))
    title = Painted(each.name, Tone::kHeading, console.color()) + ", ";
  if (HasNumber(each)) title += std::to_string(each.number);
  if (each.number < -1000) title += " (" + Hexadecimal(each.number) + ")";
  title += (HasNumber(each) ? ", " : "") + std::string(NameOf(each.family));
  const std::size_t width = console.live() ? console.text_width() : Console::kWidestText;
  return title + "\n" + Labelled("Meaning", MeaningOf(each), width) +
         Labelled("Comes from", std::string(ReturnedBy(each)), width) +
         Labelled("What to do", RemedyOf(each), width);
}

Failure NothingCalled(const std::string& word) {
  std::string message = "there is no explanation of '" + word + "'";
  const std::vector<std::string> similar = NamesLike(word);
  message += terminal_text::DidYouMean(similar);
  Failure failure = {std::nullopt, "NOT_FOUND", message, kExitNotFound};
  if (similar.empty()) failure.remedy = "'svcmgrctl explain' shows all names";
  return failure;
}

void ListAll(Console& console) {
  Json all = Json::array();
  Table table;
  table.AddHeading({"NUMBER", "NAME", "MEANING"});
  for (const Explanation& each : Explanations()) {
    all.push_back(ToJson(each));
    if (IsResult(each) || each.family == Family::kExitStatus) continue;
    // Of what is a code the C++ face has the shorter words.
    const bool is_code = each.family == Family::kError;
    table.AddRow({{HasNumber(each) ? std::to_string(each.number) : ""},
                  {std::string(each.name)},
                  {is_code ? vs::Error(each.number).meaning() : std::string(each.meaning)}});
  }
  console.Data({{"explanations", all}}, table.Render(console.color(), console.table_width()), all);
}

void Explain(Console& console, const std::string& word) {
  const auto found = ExplanationsOf(word);
  if (found.empty()) throw NothingCalled(word);
  Json all = Json::array();
  std::string text;
  for (const Explanation* each : found) {
    all.push_back(ToJson(*each));
    text += (text.empty() ? "" : "\n") + PageOf(*each, console);
  }
  console.Data({{"explanations", all}}, text, all);
}

}  // namespace

void AddExplainCommand(CLI::App& app, Command* chosen) {
  auto word = std::make_shared<std::string>();
  CLI::App* explain = app.add_subcommand(
      "explain", "Tell what a code, a status or a name means, who returns it, and what to do");
  CLI::Option* given = explain->add_option(
      "CODE", *word,
      "A number, decimal or hexadecimal, or a name, whole or its end; without it, all");
  given->type_name("");
  explain->callback([chosen, word, given] {
    *chosen = [word, all = given->count() == 0](Session&, Console& console) {
      if (all)
        ListAll(console);
      else
        Explain(console, *word);
    };
  });
}

}  // namespace svcmgrctl
