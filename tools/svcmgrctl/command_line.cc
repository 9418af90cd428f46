// SPDX-License-Identifier: Apache-2.0
#include "command_line.h"

#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <map>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "velmora_svcmgr.h"

namespace svcmgrctl {
namespace {

// The timer counts milliseconds in 32 bits; 40 days fit.
constexpr double kLongestTimeout = 40.0 * 24 * 60 * 60;

constexpr char kExamples[] = R"(Examples:
  svcmgrctl status                       is there an agent, and what does it say
  svcmgrctl update                       update the agents, and follow it to the end
  svcmgrctl watch                        what happens, as it happens
  svcmgrctl models list --descriptions   the models that may be used
  svcmgrctl models versions ID           the versions of one of them
  svcmgrctl models update ID[@VERSION]   install or update a model, and follow the work
  svcmgrctl client-level -v DIR          the level of an application, and what makes it
  svcmgrctl models list --json | jq -r '.models[].id'

Data goes to standard output, messages to standard error. With --json both are JSON documents, one in
each line where something is followed.
)";

std::string VersionText() {
  return "svcmgrctl " + std::to_string(VELMORA_SVCMGR_VERSION_MAJOR) + "." +
         std::to_string(VELMORA_SVCMGR_VERSION_MINOR) + "." +
         std::to_string(VELMORA_SVCMGR_VERSION_PATCH) + " (client API level " +
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
  app.add_option("--timeout", options->timeout,
                 "Give up after so many seconds, of silence where something is followed; 0 waits "
                 "for ever (default: 30)")
      ->type_name("SECONDS")
      ->check(CLI::Validator(CheckSeconds, ""));
  app.add_option_function<std::string>(
         "--color", [options](const std::string& word) { options->color = ColorFrom(word); },
         "auto, always or never; auto is for terminals, unless NO_COLOR is set")
      ->type_name("WHEN");
  app.add_flag("-v,--verbose", options->verbose,
               "Show the log of the client library, and more data where there is more");
  app.set_version_flag("--version", VersionText(), "Print the version and exit");
}

// The commands take from `app` what is set here, so it comes before them.
void SetUp(CLI::App& app, Options* options) {
  app.name("svcmgrctl");
  app.formatter(std::make_shared<PlainFormatter>());
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.fallthrough();
  app.footer("The options of 'svcmgrctl --help' and the exit status shown there hold here too.");
  AddOptions(app, options);
}

bool WantsJson(int argc, const char* const* argv) {
  for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i)
    if (std::string_view(argv[i]) == "--json") return true;
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

std::string WhatIsWrong(const CLI::App& root, const CLI::App& understood, std::string otherwise) {
  const std::vector<std::string> unknown = root.remaining(true);
  const bool wants_command = !understood.get_subcommands({}).empty();
  if (unknown.empty()) return wants_command ? "a command is missing" : otherwise;
  if (unknown.front()[0] == '-') return "there is no option '" + unknown.front() + "'";
  return (wants_command ? "there is no command '" : "there is no use for '") + unknown.front() +
         "'";
}

[[noreturn]] void ThrowUsage(const CLI::App& root, std::string otherwise) {
  const Understood understood = WhatWasUnderstood(root);
  throw Failure{std::nullopt, "USAGE",
                WhatIsWrong(root, *understood.app, std::move(otherwise)) + "; see '" +
                    understood.words + " --help'",
                kExitUsage};
}

}  // namespace

std::string CheckSeconds(const std::string& text) {
  double seconds = 0;
  // Written so that a NaN, which compares with nothing, is refused too.
  if (CLI::detail::lexical_cast(text, seconds) && seconds >= 0 && seconds <= kLongestTimeout)
    return {};
  return "'" + text + "' is no number of seconds from 0 to 3456000";
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
  std::string exit_codes = ExitCodeTable();
  exit_codes.pop_back();  // help ends the line itself
  app.footer(kExamples + ("\nExit status:\n" + exit_codes));
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    invocation->text = app.help();
  } catch (const CLI::CallForVersion&) {
    invocation->text = VersionText();
  } catch (const CLI::ParseError& error) {
    ThrowUsage(app, error.what());
  }
  if (invocation->text.empty() && !invocation->command) ThrowUsage(app, "a command is missing");
}

}  // namespace svcmgrctl
