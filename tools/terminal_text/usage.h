// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_TERMINAL_TEXT_USAGE_H_
#define TOOLS_TERMINAL_TEXT_USAGE_H_

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "command_words.h"

namespace terminal_text {

/** Options without the remarks on what they need and exclude: the descriptions say it better. */
class PlainFormatter : public CLI::Formatter {
 public:
  PlainFormatter() { column_width(28); }
  std::string make_option_opts(const CLI::Option* option) const override {
    return option->get_type_name().empty() ? "" : " " + option->get_type_name();
  }
};

/** The command as far as it was understood, and how it was written. */
struct Understood {
  const CLI::App* app;
  std::string words;
};

inline Understood WhatWasUnderstood(const CLI::App& root) {
  Understood understood = {&root, root.get_name()};
  while (!understood.app->get_subcommands().empty()) {
    understood.app = understood.app->get_subcommands().front();
    understood.words += " " + understood.app->get_name();
  }
  return understood;
}

/** The option of a command, or of one above it, that an error of the parser is about; null if none. */
inline const CLI::Option* OptionOf(const CLI::App* command, const CLI::ParseError& error) {
  const std::string message = error.what();
  const std::string name = message.substr(0, message.find_first_of(": "));
  for (; command != nullptr; command = command->get_parent())
    for (const CLI::Option* option : command->get_options())
      if (option->get_name() == name || option->check_lname(name)) return option;
  return nullptr;
}

inline std::string Mismatch(const CLI::Option& option) {
  if (option.get_items_expected_max() == 0) return option.get_name() + " takes no value";
  if (option.count() > 1) return option.get_name() + " is given more than once";
  return option.get_name() + " needs " + option.get_type_name();
}

/** What is wrong with arguments that no command has a use for; empty if there are none. */
inline std::string WhatIsLeftOver(const CLI::App& root, const CLI::App& understood,
                                  const std::vector<std::string>& arguments, bool wants_command) {
  constexpr std::string_view kMark = "--";
  std::vector<std::string> unknown = root.remaining(true);
  unknown.erase(std::remove(unknown.begin(), unknown.end(), kMark), unknown.end());
  const auto mark = std::find(arguments.begin(), arguments.end(), kMark);
  const auto is_behind_mark = [&](const std::string& argument) {
    // Of what stands together in one argument, as -xyz does, only a part may be unknown.
    return std::find(arguments.begin(), mark, argument) == mark &&
           std::find(mark, arguments.end(), argument) != arguments.end();
  };
  if (!unknown.empty() && !is_behind_mark(unknown.front())) {
    const std::string& first = unknown.front();
    if (first.size() > 1 && first[0] == '-')
      return "there is no option '" + first + "'" + DidYouMean(first, understood);
    if (!wants_command) return "there is no use for '" + first + "'";
    return "there is no command '" + first + "'" + DidYouMean(first, understood);
  }
  // The parser does not tell of a command there.
  if (wants_command)
    return std::distance(mark, arguments.end()) > 1 ? "the command must stand before '--'" : "";
  return unknown.empty() ? "" : "there is no use for '" + unknown.front() + "'";
}

inline std::string WhatIsWrong(const CLI::App& root, const CLI::App& understood,
                               const std::vector<std::string>& arguments,
                               const CLI::ParseError& error) {
  if (dynamic_cast<const CLI::ValidationError*>(&error) != nullptr) return error.what();
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr)
    if (const CLI::Option* option = OptionOf(&understood, error)) return Mismatch(*option);
  const bool wants_command = !understood.get_subcommands({}).empty();
  std::string left_over = WhatIsLeftOver(root, understood, arguments, wants_command);
  if (!left_over.empty()) return left_over;
  return wants_command ? "a command is missing" : error.what();
}

/** What a person is told whose arguments cannot be read.
 *  @param root  Which has tried to parse them. */
inline std::string UsageMessage(const CLI::App& root, const std::vector<std::string>& arguments,
                                const CLI::ParseError& error) {
  const Understood understood = WhatWasUnderstood(root);
  return WhatIsWrong(root, *understood.app, arguments, error) + "; see '" + understood.words +
         " --help'";
}

/** help [COMMAND...]: the command whose help is wanted. */
inline void AddHelpCommand(CLI::App& app, std::optional<std::vector<std::string>>* wanted) {
  CLI::App* help = app.add_subcommand("help", "Print the help of a command and exit");
  auto words = std::make_shared<std::vector<std::string>>();
  help->add_option("COMMAND", *words, "The command; without it, the help of all")->type_name("");
  help->callback([wanted, words] { *wanted = *words; });
}

/** @param understood  The words before it, the program's name first. */
inline std::string NoCommand(const std::string& word, const CLI::App& command,
                             const std::string& understood) {
  return "there is no command '" + word + "'" + DidYouMean(word, command) + "; see '" + understood +
         " --help'";
}

/** What is wrong with the words of a command whose help is wanted; empty if nothing is. The parser
 *  would take unknown words before --help for nothing. */
inline std::string CheckCommand(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* command = &app;
  std::string understood = app.get_name();
  for (const std::string& word : words) {
    const auto inner =
        command->get_subcommands([&](const CLI::App* each) { return each->get_name() == word; });
    if (inner.empty()) return NoCommand(word, *command, understood);
    command = inner.front();
    understood.append(" ").append(word);
  }
  return {};
}

/** A flag is given or it is not: "--json=no" is a mistake. */
inline void RefuseValuesOfFlags(CLI::App* command) {
  for (CLI::Option* option : command->get_options())
    if (option->get_items_expected_max() == 0) option->disable_flag_override();
  for (CLI::App* inner : command->get_subcommands([](CLI::App*) { return true; }))
    RefuseValuesOfFlags(inner);
}

}  // namespace terminal_text

#endif  // TOOLS_TERMINAL_TEXT_USAGE_H_
