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

#include "completion.h"
#include "fields.h"
#include "usage.h"
#include "velmora_svcmgr.h"
#include "version.h"

namespace svcmgrctl {
namespace {

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
  app.formatter(std::make_shared<terminal_text::PlainFormatter>());
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

Failure WrongUsage(const std::string& message) {
  return {std::nullopt, "USAGE", message, kExitUsage};
}

[[noreturn]] void ThrowUsage(const CLI::App& root, const std::vector<std::string>& arguments,
                             const CLI::ParseError& error) {
  throw WrongUsage(terminal_text::UsageMessage(root, arguments, error));
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
  terminal_text::AddHelpCommand(app, &help_wanted);
  AddDoctorCommand(app, &invocation->command);
  AddExplainCommand(app, &invocation->command);
  std::string exit_codes = ExitCodeTable();
  exit_codes.pop_back();  // help ends the line itself
  app.footer(kExamples + ("\nExit status:\n" + exit_codes));
  terminal_text::RefuseValuesOfFlags(&app);
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
    const std::string wrong = terminal_text::CheckCommand(app, *help_wanted);
    if (!wrong.empty()) throw WrongUsage(wrong);
    return ReadCommandLine(WithHelp(*help_wanted), invocation);
  }
  if (!invocation->command) ThrowUsage(app, arguments, CLI::RequiredError("COMMAND"));
  try {
    if (invocation->options.format == "json") invocation->options.json = true;
    CheckForms(invocation->options);
    invocation->options.selection =
        SelectionFrom(invocation->options, *terminal_text::WhatWasUnderstood(app).app);
  } catch (const CLI::ParseError& error) {
    ThrowUsage(app, arguments, error);
  }
}

}  // namespace svcmgrctl
