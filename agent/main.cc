// SPDX-License-Identifier: Apache-2.0
// svcmgr-sim: runs commands beside a simulated agent.

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "common/report.h"
#include "scenario/scenario_files.h"
#include "scenario/scenario_reader.h"
#include "service/agent_service.h"
#include "trace/condition.h"
#include "trace/trace.h"
#include "usage.h"
#include "world/child.h"
#include "world/expect.h"
#include "world/record.h"
#include "world/run.h"
#include "world/send.h"

namespace {

constexpr int kUsageError = 2;
constexpr double kLargestTimeScale = 1000;
constexpr double kLongestTimeout = 86400;
constexpr char kMoreHelp[] =
    "A SCENARIO is the name of one that ships (see \"svcmgr-sim list\") or a JSON file, whose "
    "name\n"
    "has a slash or ends in .json.\n"
    "\n"
    "run ends with the command's exit status: 128 and the signal if a signal killed it, 127 if it "
    "was\n"
    "not found, 126 if it cannot be executed. 125 is a failure of svcmgr-sim itself, 2 a wrong "
    "usage.\n"
    "check ends with 1 if a scenario is wrong.";

struct Options {
  std::vector<std::string> scenarios;
  std::string scenario;
  std::string folder;
  std::optional<std::string> app_id;
  std::optional<std::string> app_version;
  std::optional<std::string> app_root;
  bool prompted = false;
  sim::AgentOptions agent;
  std::string file;
  std::vector<std::string> steps;
  std::vector<std::string> conditions;
  double timeout = 10;
  std::vector<std::string> trace_formats;  // of the descriptors that an agent is given
  sim::RunOptions run;
};

/** Everything after "--" belongs to the command, whatever it looks like. */
std::vector<std::string> TakeCommand(int* argc, char** argv) {
  char** const end = argv + *argc;
  char** const dashes = std::find(argv, end, std::string("--"));
  if (dashes == end) return {};
  *argc = static_cast<int>(dashes - argv);
  return std::vector<std::string>(dashes + 1, end);
}

/**
 * A closed one would be given to the next file that is opened. Opened in the wrong direction, it
 * still fails in use, for the command too.
 */
bool ReserveStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) == -1 && errno == EBADF &&
        open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd) {
      return false;
    }
  }
  return true;
}

/** Prints what was asked for; the exit status. */
int Print(const std::string& text) {
  if (std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0) return 0;
  sim::Report(std::string("cannot write to standard output: ") + strerror(errno));
  return sim::kOwnFailure;
}

/** CLI::Range accepts a NaN, because every comparison with one is false. */
std::string CheckTimeScale(const std::string& text) {
  double scale = 0;
  if (CLI::detail::lexical_cast(text, scale) && scale >= 0 && scale <= kLargestTimeScale) return {};
  return "\"" + text + "\" is no number from 0 to 1000";
}

std::string CheckTimeout(const std::string& text) {
  double seconds = 0;
  if (CLI::detail::lexical_cast(text, seconds) && seconds >= 0 && seconds <= kLongestTimeout) {
    return {};
  }
  return "\"" + text + "\" is no number of seconds from 0 to 86400";
}

sim::Scenario Read(const sim::ScenarioSource& source) {
  return sim::ReadScenario(source.document, source.name, source.folder);
}

int Run(const Options& options) {
  const sim::ScenarioSource source = sim::FindScenario(options.scenario);
  sim::Scenario scenario = Read(source);
  scenario.client.id = options.app_id.value_or(scenario.client.id);
  scenario.client.version = options.app_version.value_or(scenario.client.version);
  scenario.client.root = options.app_root.value_or(scenario.client.root);
  return sim::RunInWorld(source, scenario, options.run);
}

int RunAgent(const Options& options) {
  sim::ScenarioSource source = sim::FindScenario(options.scenario);
  source.folder = options.folder;
  sim::Scenario scenario = Read(source);
  scenario.time_scale = options.run.time_scale.value_or(scenario.time_scale);
  sim::AgentOptions agent = options.agent;
  agent.ready_fd = sim::kFirstPassedFd;
  agent.control_fd = options.prompted ? sim::kFirstPassedFd + 1 : -1;
  std::vector<sim::TraceSink> traces;
  for (const std::string& format : options.trace_formats) {
    const int passed = static_cast<int>(traces.size()) + (options.prompted ? 2 : 1);
    traces.push_back({sim::kFirstPassedFd + passed, sim::TraceFormatOf(format)});
  }
  sim::OpenTrace(std::move(traces));
  return sim::RunAgent(scenario, agent);
}

int CheckAll(const std::vector<std::string>& scenarios) {
  int status = 0;
  for (const std::string& name : scenarios) {
    try {
      Read(sim::FindScenario(name));
    } catch (const sim::ScenarioError& error) {
      sim::ReportLines(error.what());
      status = 1;
    }
  }
  return status;
}

/** A line for each, and below it, indented, another one for what an application should do. */
int List() {
  std::size_t width = 0;
  for (const sim::ShippedScenario& shipped : sim::ShippedScenarios()) {
    width = std::max(width, std::string(shipped.name).size());
  }
  std::string lines;
  for (const sim::ShippedScenario& shipped : sim::ShippedScenarios()) {
    const sim::Scenario scenario = sim::ReadScenario(shipped.document, shipped.name, "");
    std::string name = shipped.name;
    name.resize(width, ' ');
    lines += name + "  " + scenario.description + "\n";
    lines += std::string(width + 2, ' ') + scenario.advice + "\n";
  }
  return Print(lines);
}

void AddRun(CLI::App& app, Options& options) {
  CLI::App* run = app.add_subcommand(
      "run", "Run a command in a world of its own: agent, packages, runtime folder");
  run->footer("The command comes last: svcmgr-sim run SCENARIO [OPTIONS] -- COMMAND [ARGUMENT...]");
  run->add_option("SCENARIO", options.scenario, "What the agent does")->type_name("")->required();
  run->add_flag("--keep", options.run.keep, "Keep the world's folder and print its name");
  run->add_flag("--verbose", options.run.verbose, "Show what the agent does on standard error");
  run->add_option("--trace", options.run.traces,
                  "Write what happens to a file, as JSON Lines, or with \"-\" in words to standard "
                  "error")
      ->type_name("FILE")
      ->allow_extra_args(false);
  run->add_flag("--no-trace", options.run.untraced,
                "Keep no trace of the world's own: the agent answers sooner, expect sees nothing");
  run->add_option("--capture", options.run.captures,
                  "Write what goes over the sockets to a file, as pcapng")
      ->type_name("FILE")
      ->allow_extra_args(false);
  run->add_option("--time-scale", options.run.time_scale,
                  "Multiply the scenario's delays; 0 removes them")
      ->type_name("NUMBER")
      ->check(CheckTimeScale);
  run->add_option("--app-id", options.app_id, "The command's application ID")->type_name("ID");
  run->add_option("--app-version", options.app_version, "The command's application version")
      ->type_name("VERSION");
  run->add_option("--app-root", options.app_root, "The command's application folder")
      ->type_name("FOLDER");
}

void AddRecord(CLI::App& app, Options& options) {
  CLI::App* record = app.add_subcommand(
      "record",
      "Run a command beside the agent that runs here, and make a scenario of its answers");
  record->footer("The command comes last: svcmgr-sim record FILE -- COMMAND [ARGUMENT...]");
  record->add_option("FILE", options.file, "The scenario to write")->type_name("")->required();
}

void AddSend(CLI::App& app, Options& options) {
  CLI::App* send = app.add_subcommand(
      "send", "From inside a world: make its agent take steps, and wait until they are done");
  send->footer(sim::HelpForSteps());
  send->add_option("STEP", options.steps, "What the agent does")->type_name("")->required();
}

void AddExpect(CLI::App& app, Options& options) {
  CLI::App* expect =
      app.add_subcommand("expect", "From inside a world: wait until its trace shows something");
  expect->footer(
      "A CONDITION is a JSON object that a record of the trace has to have, or one of:\n" +
      sim::HelpForConditions() +
      "With \"no \" before it, there must be no such record; with \" N times\" behind it, N of "
      "them.\n"
      "Each condition is one argument; each counts what comes after the one before it came true.");
  expect->add_option("CONDITION", options.conditions, "What the trace has to show")
      ->type_name("")
      ->required();
  expect->add_option("--timeout", options.timeout, "Give up after so many seconds (default: 10)")
      ->type_name("SECONDS")
      ->check(CheckTimeout);
}

/** What is done inside a world: a failure is a wrong usage. */
template <typename Deed>
int InsideAWorld(const Deed& deed) {
  try {
    return deed();
  } catch (const std::exception& error) {
    sim::Report(error.what());
    return kUsageError;
  }
}

/** What may stand in place of the last of these words, one candidate in each line. */
int Complete(const CLI::App& app, const std::vector<std::string>& words) {
  const terminal_text::Place place = terminal_text::PlaceOf(app, words);
  if (place.option != nullptr || place.is_behind_mark) return 0;
  if (place.is_for_help) {
    return Print(terminal_text::Completions(place.word, terminal_text::CommandsOf(*place.command)));
  }
  if (place.word.starts_with("-")) {
    return Print(terminal_text::Completions(place.word, terminal_text::OptionsOf(*place.command)));
  }
  const std::string& command = place.command->get_name();
  std::vector<std::string> candidates = terminal_text::CommandsOf(*place.command);
  if (command == "run" || command == "check") {
    for (const sim::ShippedScenario& shipped : sim::ShippedScenarios()) {
      candidates.emplace_back(shipped.name);
    }
  }
  if (command == "send") candidates = sim::StepWords();
  return Print(terminal_text::Completions(place.word, candidates));
}

/** Whether the command that was given runs another one. */
bool TakesCommand(const CLI::App& app) {
  return app.got_subcommand("run") || app.got_subcommand("record");
}

std::string WhatIsWrong(const CLI::App& app, const std::vector<std::string>& words,
                        const Options& options, const CLI::ParseError& error) {
  const std::vector<std::string> unknown = app.remaining(true);
  const bool is_plain = !unknown.empty() && !unknown.front().empty() && unknown.front()[0] != '-';
  if (TakesCommand(app) && options.run.command.empty() && is_plain) {
    return "the command must stand behind '--'; see 'svcmgr-sim " +
           app.get_subcommands().front()->get_name() + " --help'";
  }
  return terminal_text::UsageMessage(app, words, error);
}

/** Reads the words behind the program's name; the exit status if that is all there is to do. */
std::optional<int> ReadCommandLine(CLI::App& app, const std::vector<std::string>& words,
                                   const Options& options) {
  std::vector<const char*> argv = {"svcmgr-sim"};
  for (const std::string& word : words) argv.push_back(word.c_str());
  try {
    app.parse(static_cast<int>(argv.size()), argv.data());
    const std::vector<std::string>& command = options.run.command;
    if (TakesCommand(app) && command.empty()) throw CLI::RequiredError("-- COMMAND");
    if (!TakesCommand(app) && !command.empty()) {
      throw CLI::ValidationError("there is no use for '" + command.front() + "'");
    }
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
      std::ostringstream text;
      app.exit(error, text, text);
      return Print(text.str());
    }
    sim::Report(sim::Quotable(WhatIsWrong(app, words, options, error)));
    return kUsageError;
  }
  return std::nullopt;
}

/** Prints the help of the command that has these words. */
int Help(CLI::App& app, std::vector<std::string> words, const Options& options) {
  const std::string wrong = terminal_text::CheckCommand(app, words);
  if (!wrong.empty()) {
    sim::Report(sim::Quotable(wrong));
    return kUsageError;
  }
  words.emplace_back("--help");
  return ReadCommandLine(app, words, options).value_or(0);
}

int Execute(CLI::App& app, const Options& options) {
  try {
    if (app.got_subcommand("run")) return Run(options);
    if (app.got_subcommand("record")) return sim::Record(options.file, options.run.command);
    if (app.got_subcommand("agent")) return RunAgent(options);
    if (app.got_subcommand("send")) {
      return InsideAWorld([&] { return sim::Send(options.steps); });
    }
    if (app.got_subcommand("expect")) {
      return InsideAWorld([&] { return sim::Expect(options.conditions, options.timeout); });
    }
    return app.got_subcommand("check") ? CheckAll(options.scenarios) : List();
  } catch (const sim::ScenarioError& error) {
    sim::ReportLines(error.what());
  } catch (const std::exception& error) {
    sim::Report(error.what());
  }
  return sim::kOwnFailure;
}

}  // namespace

int main(int argc, char** argv) {
  if (!ReserveStandardDescriptors()) return sim::kOwnFailure;
  Options options;
  const bool completes =
      argc > 2 && argv[1] == std::string("complete") && argv[2] == std::string("--");
  if (!completes) options.run.command = TakeCommand(&argc, argv);

  CLI::App app("Runs commands beside a simulated service-manager agent.", "svcmgr-sim");
  app.formatter(std::make_shared<terminal_text::PlainFormatter>());
  app.set_help_flag("-h,--help", "Print this help and exit");
  app.footer(kMoreHelp);
  app.set_version_flag("--version", std::string("svcmgr-sim ") + SVCMGR_SIM_VERSION,
                       "Print the version and exit");
  app.require_subcommand(1);
  AddRun(app, options);
  app.add_subcommand("check", "Say what is wrong with scenarios, file by file and place by place")
      ->add_option("SCENARIO", options.scenarios, "Scenarios to check")
      ->type_name("")
      ->required();
  app.add_subcommand("list", "List the scenarios that ship with the program");
  AddRecord(app, options);
  AddSend(app, options);
  AddExpect(app, options);
  CLI::App* agent = app.add_subcommand("agent", "Be the agent of a world")->group("");
  agent->add_option("SCENARIO", options.scenario)->required();
  agent->add_option("--folder", options.folder);
  agent->add_option("--journal", options.agent.journal);
  agent->add_flag("--control", options.prompted);
  agent->add_option("--trace", options.trace_formats)->allow_extra_args(false);
  agent->add_option("--last-client", options.agent.last_client);
  agent->add_option("--time-scale", options.run.time_scale);
  std::optional<std::vector<std::string>> help_wanted;
  terminal_text::AddHelpCommand(app, &help_wanted);
  terminal_text::RefuseValuesOfFlags(&app);
  if (completes) return Complete(app, {argv + 3, argv + argc});
  const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  if (const auto status = ReadCommandLine(app, words, options)) return *status;
  if (help_wanted) return Help(app, *help_wanted, options);
  return Execute(app, options);
}
