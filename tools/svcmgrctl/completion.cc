// SPDX-License-Identifier: Apache-2.0
#include "completion.h"

#include <utility>

#include "command_words.h"
#include "explanations.h"
#include "fields.h"
#include "packages.h"
#include "queries.h"

namespace svcmgrctl {
namespace {

using terminal_text::Completions;
using terminal_text::Place;

std::vector<std::string> UsableIds(Session& session) {
  session.Connect();
  std::vector<std::string> ids;
  for (const Model& model : AskUsableModels(session)) ids.push_back(model.id.value_or(""));
  return ids;
}

// What the device has is asked when the command runs: that may take a moment.
Command Printing(std::string word, std::vector<std::string> (*ask)(Session&)) {
  return [word = std::move(word), ask](Session& session, Console& console) {
    try {
      console.Text(Completions(word, ask(session)));
    } catch (const Failure&) {
      // Whoever types a command is not told here what is wrong with the agent.
    }
  };
}

std::vector<std::string> Names() {
  std::vector<std::string> names;
  for (const Explanation& each : Explanations())
    if (!each.name.empty() && each.family != Family::kModelResult &&
        each.family != Family::kUpdateResult)
      names.emplace_back(each.name);
  return names;
}

// What is typed of a list of fields stands in front of each field that may follow.
std::vector<std::string> ListsOfFields(const Place& place) {
  const std::string before = place.word.substr(0, place.word.rfind(',') + 1);
  std::vector<std::string> lists;
  for (const std::string& field : AllFieldsOf(*place.command)) lists.push_back(before + field);
  return lists;
}

std::vector<std::string> ValuesFor(const Place& place) {
  if (place.option->check_lname("color")) return {"always", "auto", "never"};
  std::vector<std::string> lists;
  if (place.option->check_lname("fields") || place.option->check_lname("format"))
    lists = ListsOfFields(place);
  if (place.option->check_lname("format")) lists.emplace_back("json");
  return lists;
}

std::vector<std::string> ArgumentsOf(const std::string& command) {
  if (command == "watch") return {"connection", "model", "update"};
  if (command == "explain") return Names();
  return {};
}

bool TakesModels(const CLI::App& command) {
  const CLI::App* parent = command.get_parent();
  return parent != nullptr && parent->get_name() == "models" && command.get_name() != "list";
}

}  // namespace

void Complete(const CLI::App& app, const std::vector<std::string>& words, Invocation* invocation) {
  const Place place = terminal_text::PlaceOf(app, words);
  const std::string command = place.command->get_name();
  invocation->options.timeout = kCompletionSeconds;
  if (place.is_for_help)
    invocation->text = Completions(place.word, terminal_text::CommandsOf(*place.command));
  else if (place.option != nullptr)
    invocation->text = Completions(place.word, ValuesFor(place));
  else if (!place.is_behind_mark && place.word.starts_with("-"))
    invocation->text = Completions(place.word, terminal_text::OptionsOf(*place.command));
  else if (TakesModels(*place.command))
    invocation->command = Printing(place.word, UsableIds);
  else if (command == "update")
    invocation->command = Printing(place.word, [](Session&) { return PackageIds(); });
  else if (const auto inner = terminal_text::CommandsOf(*place.command); !inner.empty())
    invocation->text = Completions(place.word, inner);
  else
    invocation->text = Completions(place.word, ArgumentsOf(command));
}

}  // namespace svcmgrctl
