// SPDX-License-Identifier: Apache-2.0
#include <string>
#include <string_view>
#include <vector>

#include "commands.h"
#include "packages.h"
#include "queries.h"
#include "table.h"
#include "version.h"

namespace svcmgrctl {
namespace {

struct Problem {
  std::string_view part;
  Failure failure;
};

struct Answers {
  bool connected = false;
  std::optional<std::string> agent_version;
  std::optional<int> agent_api_level;
  std::optional<bool> kyr_disabled;
  std::optional<std::size_t> usable_models;
  std::vector<Problem> problems;
};

constexpr std::string_view kConnectionPart = "connection";
constexpr std::string_view kApiLevel = "agent_api_level";
constexpr std::string_view kUsableModels = "usable_models";

// Asks for one part of the status. Says whether asking on makes sense: without a connection, and
// after the end of all waiting, every further question has the same answer.
template <class Question>
bool Ask(std::string_view part, Answers* status, Question question) {
  try {
    question();
    return true;
  } catch (const Failure& failure) {
    if (failure.exit >= kExitInterrupted) throw;
    status->problems.push_back({part, failure});
    if (failure.exit == kExitKyrDisabled) status->kyr_disabled = true;
    return part != kConnectionPart && failure.exit != kExitTimeout &&
           failure.exit != kExitNoConnection;
  }
}

Answers AskStatus(Session& session) {
  Answers status;
  status.agent_version = FindAgentPackage().version;
  const bool asked_all =
      Ask(kConnectionPart, &status,
          [&] {
            session.Connect();
            status.connected = true;
          }) &&
      Ask(kApiLevel, &status,
          [&] {
            status.agent_api_level = AskApiLevel(session);
            status.kyr_disabled = false;
          }) &&
      Ask(kUsableModels, &status, [&] { status.usable_models = AskUsableModels(session).size(); });
  if (!asked_all && status.problems.back().failure.exit == kExitNoConnection)
    status.connected = false;
  return status;
}

template <class T>
Json ValueOrNull(const std::optional<T>& value) {
  return value ? Json(*value) : Json();
}

Json ToJson(const Answers& status) {
  Json problems = Json::array();
  for (const Problem& problem : status.problems) {
    Json entry = {{"part", problem.part}};
    entry.update(ToJson(problem.failure));
    problems.push_back(entry);
  }
  return {{"connected", status.connected},
          {"agent_version", ValueOrNull(status.agent_version)},
          {"agent_api_level", ValueOrNull(status.agent_api_level)},
          {"kyr_disabled", ValueOrNull(status.kyr_disabled)},
          {"usable_models", ValueOrNull(status.usable_models)},
          {"library_version", LibraryVersion()},
          {"library_api_level", VELMORA_SVCMGR_API_LEVEL},
          {"problems", problems}};
}

// The answer, or why there is none, or that nobody asked.
Table::Cell CellOf(const Answers& status, std::string_view part,
                   const std::optional<std::string>& answer, Tone tone = Tone::kPlain) {
  for (const Problem& problem : status.problems)
    if (problem.part == part) return {problem.failure.message, Tone::kBad};
  if (answer) return {*answer, tone};
  return {"not known", Tone::kPlain};
}

std::optional<std::string> Shown(const std::optional<std::size_t>& number) {
  return number ? std::optional(std::to_string(*number)) : std::nullopt;
}

std::string TableOf(const Answers& status, const Console& console) {
  const auto level = status.agent_api_level ? std::optional(std::to_string(*status.agent_api_level))
                                            : std::nullopt;
  const std::optional<std::string> connection = status.connected ? "connected" : "lost";
  Table table;
  table.AddRow(
      {{"Connection", Tone::kHeading},
       CellOf(status, kConnectionPart, connection, status.connected ? Tone::kGood : Tone::kBad)});
  table.AddRow({{"Agent version", Tone::kHeading}, {status.agent_version.value_or("not known")}});
  table.AddRow({{"Agent API level", Tone::kHeading}, CellOf(status, kApiLevel, level)});
  table.AddRow({{"KYR", Tone::kHeading},
                {!status.kyr_disabled   ? "not known"
                 : *status.kyr_disabled ? "disabled"
                                        : "enabled"}});
  table.AddRow({{"Usable models", Tone::kHeading},
                CellOf(status, kUsableModels, Shown(status.usable_models))});
  table.AddRow({{"Library", Tone::kHeading},
                {LibraryVersion() + ", API level " + std::to_string(VELMORA_SVCMGR_API_LEVEL)}});
  return table.Render(console.color(), console.table_width());
}

void ShowStatus(Session& session, Console& console) {
  const Answers status = AskStatus(session);
  console.Data(ToJson(status), TableOf(status, console));
  if (!status.problems.empty()) throw status.problems.front().failure;
}

}  // namespace

void AddStatusCommand(CLI::App& app, Command* chosen) {
  app.add_subcommand(
         "status", "Show the connection, the agent's version and API level, and the usable models")
      ->callback([chosen] { *chosen = ShowStatus; });
}

}  // namespace svcmgrctl
