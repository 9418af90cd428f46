// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_TERMINAL_TEXT_COMMAND_WORDS_H_
#define TOOLS_TERMINAL_TEXT_COMMAND_WORDS_H_

#include <CLI/App.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "terminal_text.h"

namespace terminal_text {

/** The names of a command's commands; hidden ones are left out. */
inline std::vector<std::string> CommandsOf(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::App* inner : command.get_subcommands({}))
    if (!inner->get_group().empty()) names.push_back(inner->get_name());
  return names;
}

/** The long options that may stand behind a command, those of the commands above it included. */
inline std::vector<std::string> OptionsOf(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::App* each = &command; each != nullptr; each = each->get_parent())
    for (const CLI::Option* option : each->get_options())
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

/** "; did you mean ..." for a word that is no command or option here; empty if nothing is like it. */
inline std::string DidYouMean(const std::string& word, const CLI::App& command) {
  const bool is_option = word.size() > 1 && word[0] == '-';
  return DidYouMean(SimilarTo(word.substr(0, is_option ? word.find('=') : word.size()),
                              is_option ? OptionsOf(command) : CommandsOf(command)));
}

/** Where in a command line the word stands that is to be completed. */
struct Place {
  const CLI::App* command = nullptr;
  /** The option whose value it is; null if it is none. */
  const CLI::Option* option = nullptr;
  std::string word;
  /** It follows "--". */
  bool is_behind_mark = false;
  /** It is a word of the command whose help is wanted. */
  bool is_for_help = false;
};

inline const CLI::Option* OptionNamed(const CLI::App* command, const std::string& name) {
  for (; command != nullptr; command = command->get_parent())
    for (const CLI::Option* option : command->get_options())
      if (option->check_name(name)) return option;
  return nullptr;
}

/** @param words  What was typed behind the program's name, up to the cursor; the last one is to be
 *                completed. A shell may make a word of its own of "=". */
inline Place PlaceOf(const CLI::App& app, std::vector<std::string> words) {
  Place place;
  place.command = &app;
  if (words.empty()) words.emplace_back();
  place.word = words.back() == "=" ? "" : words.back();
  if (words.back() != "=") words.pop_back();
  for (const std::string& word : words) {
    if (word == "=") continue;
    if (word == "--") {
      place.is_behind_mark = true;
      return place;
    }
    if (place.option != nullptr) {
      place.option = nullptr;
    } else if (!word.empty() && word[0] == '-') {
      const CLI::Option* option =
          word.find('=') == std::string::npos ? OptionNamed(place.command, word) : nullptr;
      if (option != nullptr && option->get_items_expected_max() > 0) place.option = option;
    } else {
      for (const CLI::App* inner : place.command->get_subcommands({}))
        if (inner->get_name() == word) {
          // Behind "help" stand the words of a command.
          const bool is_help = inner->get_name() == "help";
          place.is_for_help |= is_help;
          place.command = is_help ? &app : inner;
          break;
        }
    }
  }
  return place;
}

/** One line for each candidate that begins with the word, and that no shell would take for more than
 *  one plain word. */
inline std::string Completions(const std::string& word,
                               const std::vector<std::string>& candidates) {
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._+-,";
  std::string lines;
  for (const std::string& candidate : candidates)
    if (!candidate.empty() && candidate.starts_with(word) &&
        candidate.find_first_not_of(kPlain) == std::string::npos)
      lines += candidate + "\n";
  return lines;
}

}  // namespace terminal_text

#endif  // TOOLS_TERMINAL_TEXT_COMMAND_WORDS_H_
