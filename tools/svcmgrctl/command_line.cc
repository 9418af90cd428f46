// SPDX-License-Identifier: Apache-2.0
#include "command_line.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "command_words.h"
#include "completion.h"
#include "fields.h"
#include "velmora_svcmgr.h"
#include "version.h"

namespace svcmgrctl {
namespace {

using terminal_text::DidYouMean;

// The timer counts milliseconds in 32 bits; 40 days fit.
constexpr double kLongestTimeout = 40.0 * 24 * 60 * 60;

constexpr char kExamples[] = R"(Examples:
  svcmgrctl status                       is there an agent, and what does it say
  svcmgrctl doctor                       what is wrong, and what to do about it
  svcmgrctl update                       update the agents, and follow it to the end
  svcmgrctl watch                        what happens, as it happens
  svcmgrctl models list --descriptions   the models that may be used
  svcmgrctl models versions ID           the versions of one of them
  svcmgrctl models update ID[@VERSION]   install or update a model, and follow the work
  svcmgrctl client-level -v DIR          the level of an application, and what makes it
  svcmgrctl explain -107                 what a number or a name means, and what to do
  svcmgrctl models list --format '{id}@{version}'
  svcmgrctl models list --json | jq -r '.models[].id'

Data goes to standard output, messages to standard error. With --json both are JSON documents, one
per line where something is followed.
)";

std::string VersionText() {
  return "svcmgrctl " + LibraryVersion() + " (client API level " +
         std::to_string(VELMORA_SVCMGR_API_LEVEL) + ")\n";
}

ColorWhen ColorFrom(const std::string& word) {
  static const std::map<std::string, ColorWhen> kWords = {
      {"auto", ColorWhen::kAuto}, {"always", ColorWhen::kAlways}, {"never", ColorWhen::kNever}};
  const auto found = kWords.find(word);
  if (found == kWords.end())
    throw CLI::ValidationError("--color", "'" + word + "' is none of auto, always, never");
  return found->second;
}

// Options without the remarks on what they need and exclude: the descriptions say it better.
class PlainFormatter : public CLI::Formatter {
 public:
  PlainFormatter() { column_width(28); }
  std::string make_option_opts(const CLI::Option* option) const override {
    return option->get_type_name().empty() ? "" : " " + option->get_type_name();
  }
};

void AddOptions(CLI::App& app, Options* options) {
  app.add_flag("--json", options->json, "Data and errors as JSON documents");
  app.add_option("--format", options->format,
                 "Data in this form: a template such as '{id}\\t{version}', or fields such as "
                 "id,version, with tabs between; json is --json")
      ->type_name("FORMAT");
  app.add_option("--fields", options->fields,
                 "A table of these fields, such as id,version; the help of each command names them")
      ->type_name("FIELDS");
  app.add_option("--timeout", options->timeout,
                 "Give up after this many seconds, of silence where something is followed; 0 waits "
                 "forever (default: 30)")
      ->type_name("SECONDS")
      ->check(CLI::Validator(CheckSeconds, ""));
  app.add_option_function<std::string>(
         "--color", [options](const std::string& word) { options->color = ColorFrom(word); },
         "auto, always or never; auto is for terminals, unless NO_COLOR is set")
      ->type_name("WHEN");
  app.add_flag(
      "-v,--verbose", options->verbose,
      "Show the log of the client library, and more data where there is more; not with --json");
  app.add_flag("-q,--quiet", options->quiet,
               "Nothing but data and errors; no progress, no remarks");
  app.add_flag("--no-trunc", options->no_trunc,
               "Tables whole, also where they do not fit the terminal");
  app.set_version_flag("--version", VersionText(), "Print the version and exit");
}

// The commands take from `app` what is set here, so it comes before them.
void SetUp(CLI::App& app, Options* options) {
  app.name("svcmgrctl");
  app.formatter(std::make_shared<PlainFormatter>());
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.fallthrough();
  app.footer("The options and the exit status of 'svcmgrctl --help' apply here too.");
  AddOptions(app, options);
}

bool WantsJson(int argc, const char* const* argv) {
  for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
    const std::string_view word = argv[i];
    if (word == "--json" || word == "--format=json") return true;
    if (word == "--format" && i + 1 < argc && std::string_view(argv[i + 1]) == "json") return true;
  }
  return false;
}

// The command as far as it was understood, in words, and what stands for it.
struct Understood {
  const CLI::App* app;
  std::string words;
};

Understood WhatWasUnderstood(const CLI::App& root) {
  Understood understood = {&root, root.get_name()};
  while (!understood.app->get_subcommands().empty()) {
    understood.app = understood.app->get_subcommands().front();
    understood.words += " " + understood.app->get_name();
  }
  return understood;
}

// The option of a command, or of one above it, that an error of the parser is about.
const CLI::Option* OptionOf(const CLI::App* command, const CLI::ParseError& error) {
  const std::string message = error.what();
  const std::string name = message.substr(0, message.find_first_of(": "));
  for (; command != nullptr; command = command->get_parent())
    for (const CLI::Option* option : command->get_options())
      if (option->get_name() == name || option->check_lname(name)) return option;
  return nullptr;
}

std::string Mismatch(const CLI::Option& option) {
  if (option.get_items_expected_max() == 0) return option.get_name() + " takes no value";
  if (option.count() > 1) return option.get_name() + " is given more than once";
  return option.get_name() + " needs " + option.get_type_name();
}

// What is wrong with arguments that no command has a use for; empty if there are none.
std::string WhatIsLeftOver(const CLI::App& root, const CLI::App& understood,
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

std::string WhatIsWrong(const CLI::App& root, const CLI::App& understood,
                        const std::vector<std::string>& arguments, const CLI::ParseError& error) {
  if (dynamic_cast<const CLI::ValidationError*>(&error) != nullptr) return error.what();
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&error) != nullptr)
    if (const CLI::Option* option = OptionOf(&understood, error)) return Mismatch(*option);
  const bool wants_command = !understood.get_subcommands({}).empty();
  std::string left_over = WhatIsLeftOver(root, understood, arguments, wants_command);
  if (!left_over.empty()) return left_over;
  return wants_command ? "a command is missing" : error.what();
}

[[noreturn]] void ThrowUsage(const CLI::App& root, const std::vector<std::string>& arguments,
                             const CLI::ParseError& error) {
  const Understood understood = WhatWasUnderstood(root);
  throw Failure{std::nullopt, "USAGE",
                WhatIsWrong(root, *understood.app, arguments, error) + "; see '" +
                    understood.words + " --help'",
                kExitUsage};
}

/** help [COMMAND...]: the command whose help is wanted. */
void AddHelpCommand(CLI::App& app, std::optional<std::vector<std::string>>* wanted) {
  CLI::App* help = app.add_subcommand("help", "Print the help of a command and exit");
  auto words = std::make_shared<std::vector<std::string>>();
  help->add_option("COMMAND", *words, "The command; without it, the help of all")->type_name("");
  help->callback([wanted, words] { *wanted = *words; });
}

Failure NoCommand(const std::string& word, const CLI::App& in, const std::string& understood) {
  return {std::nullopt, "USAGE",
          "there is no command '" + word + "'" + DidYouMean(word, in) + "; see '" + understood +
              " --help'",
          kExitUsage};
}

// The parser would take unknown words before --help for nothing.
void CheckCommand(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* command = &app;
  std::string understood = app.get_name();
  for (const std::string& word : words) {
    const auto inner =
        command->get_subcommands([&](const CLI::App* each) { return each->get_name() == word; });
    if (inner.empty()) throw NoCommand(word, *command, understood);
    command = inner.front();
    understood.append(" ").append(word);
  }
}

void RefuseBoth(bool one, const char* name, bool other, const char* other_name,
                const char* why = "") {
  if (one && other)
    throw CLI::ValidationError(std::string(name) + " and " + other_name + " exclude each other" +
                               why);
}

// What a command line says that is wrong only as a whole.
void CheckForms(const Options& options) {
  const bool format = options.format && *options.format != "json";
  RefuseBoth(options.verbose, "--verbose", options.json, "--json", ": the log is not JSON");
  RefuseBoth(options.verbose, "--verbose", options.quiet, "--quiet");
  RefuseBoth(options.json, "--json", format, "--format");
  RefuseBoth(options.json, "--json", options.fields.has_value(), "--fields");
  RefuseBoth(format, "--format", options.fields.has_value(), "--fields");
}

/** The form in which the data of this command is wanted. */
std::optional<Selection> SelectionFrom(const Options& options, const CLI::App& command) {
  const char* option = options.fields ? "--fields" : "--format";
  try {
    if (options.fields) return Selection::OfFields(*options.fields, FieldsOf(command));
    if (options.format && *options.format != "json")
      return Selection::OfFormat(*options.format, FieldsOf(command));
  } catch (const std::invalid_argument& wrong) {
    throw CLI::ValidationError(option, wrong.what());
  }
  return std::nullopt;
}

// Says in the help of each command what fields it has.
void AddFieldsToHelp(CLI::App* command) {
  const std::string fields = FieldsForHelp(*command);
  if (!fields.empty()) command->footer(fields + "\n" + command->get_footer());
  for (CLI::App* inner : command->get_subcommands([](CLI::App*) { return true; }))
    AddFieldsToHelp(inner);
}

std::vector<std::string> WithHelp(std::vector<std::string> words) {
  words.insert(words.begin(), "svcmgrctl");
  words.emplace_back("--help");
  return words;
}

// A flag is given or it is not: "--json=no" is a mistake.
void RefuseValuesOfFlags(CLI::App* command) {
  for (CLI::Option* option : command->get_options())
    if (option->get_items_expected_max() == 0) option->disable_flag_override();
  for (CLI::App* inner : command->get_subcommands([](CLI::App*) { return true; }))
    RefuseValuesOfFlags(inner);
}

}  // namespace

std::string CheckSeconds(const std::string& text) {
  double seconds = 0;
  // Written so that a NaN, which compares with nothing, is refused too.
  if (CLI::detail::lexical_cast(text, seconds) && seconds >= 0 && seconds <= kLongestTimeout)
    return {};
  return "'" + text + "' is no number of seconds from 0 to 3456000";
}

void ReadCommandLine(const std::vector<std::string>& words, Invocation* invocation) {
  std::vector<const char*> argv;
  for (const std::string& word : words) argv.push_back(word.c_str());
  ReadCommandLine(static_cast<int>(argv.size()), argv.data(), invocation);
}

void ReadCommandLine(int argc, const char* const* argv, Invocation* invocation) {
  invocation->options.json = WantsJson(argc, argv);
  CLI::App app(
      "Asks the device's service-manager agent about itself and about AI models, and has it update "
      "them.");
  SetUp(app, &invocation->options);
  app.require_subcommand(0, 1);
  AddStatusCommand(app, &invocation->command);
  AddAgentCommands(app, &invocation->command);
  AddClientLevelCommand(app, &invocation->command);
  AddUpdateCommands(app, &invocation->command);
  AddModelCommands(app, &invocation->command);
  AddWatchCommand(app, &invocation->command);
  std::optional<std::vector<std::string>> help_wanted;
  AddHelpCommand(app, &help_wanted);
  AddDoctorCommand(app, &invocation->command);
  AddExplainCommand(app, &invocation->command);
  std::string exit_codes = ExitCodeTable();
  exit_codes.pop_back();  // help ends the line itself
  app.footer(kExamples + ("\nExit status:\n" + exit_codes));
  RefuseValuesOfFlags(&app);
  AddFieldsToHelp(&app);
  const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
  // Half a command line is none that could be parsed.
  if (arguments.size() > 1 && arguments[0] == "complete" && arguments[1] == "--")
    return Complete(app, {arguments.begin() + 2, arguments.end()}, invocation);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    invocation->text = app.help();
  } catch (const CLI::CallForVersion&) {
    invocation->text = VersionText();
  } catch (const CLI::ParseError& error) {
    ThrowUsage(app, arguments, error);
  }
  if (!invocation->text.empty()) return;
  if (help_wanted) {
    CheckCommand(app, *help_wanted);
    return ReadCommandLine(WithHelp(*help_wanted), invocation);
  }
  if (!invocation->command) ThrowUsage(app, arguments, CLI::RequiredError("COMMAND"));
  try {
    if (invocation->options.format == "json") invocation->options.json = true;
    CheckForms(invocation->options);
    invocation->options.selection = SelectionFrom(invocation->options, *WhatWasUnderstood(app).app);
  } catch (const CLI::ParseError& error) {
    ThrowUsage(app, arguments, error);
  }
}

}  // namespace svcmgrctl
