// SPDX-License-Identifier: Apache-2.0
#include "fields.h"

#include <algorithm>
#include <sstream>

namespace svcmgrctl {
namespace {

struct Row {
  const char* command;
  /** The option that makes these the records; null where there is none. */
  const char* option;
  const char* fields;
};

// The row with an option comes before that without.
constexpr Row kRows[] = {
    {"status", nullptr,
     "connected agent_version agent_api_level kyr_disabled usable_models library_version "
     "library_api_level"},
    {"doctor", nullptr, "part state finding remedy code name exit"},
    {"api-level", nullptr, "api_level"},
    {"license", nullptr, "license"},
    {"client-level", "--verbose", "api_level version section file remark"},
    {"client-level", nullptr, "client_api_level folder decided_by"},
    {"update", "--dry-run", "agent installed"},
    {"update", nullptr,
     "time elapsed event agents status name state result succeeded connection_losses"},
    {"updating", nullptr, "updating"},
    {"watch", nullptr, "time event name status error state result"},
    {"models list", nullptr, "id version title description"},
    {"models versions", nullptr, "id version title description installed newest"},
    {"models update", "--dry-run", "action id installed version"},
    {"models update", nullptr,
     "time elapsed event work models id version status name error state index count percentage "
     "model_percent total_percent rate remaining silence succeeded decided_by"},
    {"models uninstall", "--dry-run", "action id installed version"},
    {"models uninstall", nullptr,
     "time elapsed event work models id status name error state index count percentage "
     "model_percent total_percent rate remaining silence succeeded decided_by"},
    {"explain", nullptr, "number name is meaning returned_by remedy"},
};

/** The words of a command without the program's name. */
std::string WordsOf(const CLI::App& command) {
  const CLI::App* parent = command.get_parent();
  if (parent == nullptr) return {};
  const std::string before = WordsOf(*parent);
  return before.empty() ? command.get_name() : before + " " + command.get_name();
}

// An option may be the command's own, or one of all commands.
bool IsGiven(const CLI::App* command, const char* name) {
  for (; command != nullptr; command = command->get_parent())
    if (const CLI::Option* option = command->get_option_no_throw(name)) return option->count() > 0;
  return false;
}

std::vector<std::string> Names(const Row& row) {
  std::istringstream words(row.fields);
  std::vector<std::string> names;
  for (std::string name; words >> name;) names.push_back(name);
  return names;
}

std::string Paragraph(const std::string& label, const std::vector<std::string>& names) {
  constexpr std::size_t kWidth = 90;
  std::string text;
  std::string line = label;
  for (const std::string& name : names) {
    const std::string word = " " + name + (name == names.back() ? "" : ",");
    if (line.size() + word.size() > kWidth) {
      text += line + "\n";
      line = " ";
    }
    line += word;
  }
  return text + line + "\n";
}

}  // namespace

std::vector<std::string> FieldsOf(const CLI::App& command) {
  const std::string words = WordsOf(command);
  for (const Row& row : kRows)
    if (words == row.command && (row.option == nullptr || IsGiven(&command, row.option)))
      return Names(row);
  return {};
}

std::vector<std::string> AllFieldsOf(const CLI::App& command) {
  const std::string words = WordsOf(command);
  std::vector<std::string> all;
  for (const Row& row : kRows) {
    if (words != row.command) continue;
    for (const std::string& name : Names(row))
      if (std::find(all.begin(), all.end(), name) == all.end()) all.push_back(name);
  }
  return all;
}

std::string FieldsForHelp(const CLI::App& command) {
  const std::string words = WordsOf(command);
  std::string with_option;
  std::string text;
  for (const Row& row : kRows) {
    if (words != row.command) continue;
    if (row.option != nullptr)
      with_option = Paragraph(std::string("Fields with ") + row.option + ":", Names(row));
    else
      text = Paragraph("Fields:", Names(row));
  }
  return text + (with_option.empty() ? "" : "\n") + with_option;
}

}  // namespace svcmgrctl
