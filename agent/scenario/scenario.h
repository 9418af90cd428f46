// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_SCENARIO_H_
#define AGENT_SCENARIO_SCENARIO_H_

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "protocol/messages.h"
#include "scenario/package.h"
#include "scenario/steps.h"

namespace sim {

/** What goes wrong with an answer. docs/scenarios.md describes each. */
enum class Fault {
  kNone,
  kNever,
  kDrop,
  kDropAfter,
  kCrash,
  kCut,
  kTruncated,
  kOversized,
  kNegative,
};

/** What happens at a point of model work; of several at one point, in this order. */
enum class Turn {
  kSteps,  // the agent takes steps, and works on
  kDrop,   // the connection ends; the work goes on
  kCrash,  // the agent's process is killed
  kFail,   // the work fails
  kStop,   // the work stops without a word
};

/** A point of model work: a model of the request, counting from 1, and how far it is done. */
struct WorkPoint {
  std::int32_t model = 1;
  std::int32_t percentage = 0;
  std::int32_t result = 1;  // kFail
  Steps steps;              // kSteps
};

/** In what pieces an answer is sent. */
struct Drip {
  std::int32_t bytes = 1;  // of each piece
  std::int32_t pause = 0;  // milliseconds before the next one
};

/** Which of its progress messages model work sends. */
enum class Reported {
  kAll,
  kEnds,     // the first and the last of each model
  kLast,     // the very last
  kNoLast,   // all but the very last
  kSwapped,  // each two in the wrong order
};

/** How one method is answered. */
struct MethodScript {
  std::vector<std::int32_t> results;  // one per call, the last one for all further calls
  std::int32_t delay = 0;             // milliseconds before the answer
  Fault fault = Fault::kNone;
  std::optional<std::int32_t> cut_at;       // bytes that remain of the answer
  std::int32_t stray = 0;                   // messages that nobody asked for, before the answer
  std::int32_t repeat = 1;                  // how often a delegate is answered
  std::optional<std::int32_t> count;        // sent in place of the list's count field
  std::optional<std::int32_t> array_count;  // sent in place of the list's own length
  std::optional<std::vector<ProgressStep>> progress;
  std::int32_t parts = 2;  // that the work on one model is done in
  std::int32_t pace = 0;   // milliseconds between them
  Reported report = Reported::kAll;
  std::map<Turn, WorkPoint> points;
  std::optional<std::string> text;               // of get_license, in place of the agent's
  std::optional<std::vector<ModelInfo>> models;  // of a list, in place of the agent's
  std::optional<Drip> drip;                      // absent: whole
  Steps steps;                                   // that the agent takes once it has answered
  std::vector<MethodScript> calls;  // one per call in place of this, the last for all further calls

  std::size_t distinct_calls() const { return std::max(results.size(), calls.size()); }
};

struct Model {
  std::string id;
  std::string title;
  std::string description;
  std::vector<std::string> versions;   // installed, oldest first; the last is usable
  std::vector<std::string> available;  // further versions, not installed, newer
  std::int32_t size = 65536;           // bytes of each version
  std::optional<Patterns> apps;        // that may use it; absent: all
};

/** When an agent that has ended is started again. */
enum class Restart {
  kNever,
  kOnRequest,  // when it ended to be replaced
  kAlways,     // also when it was killed
};

struct Agent {
  Package package;
  std::int32_t api_level = 11;
  std::string licence;
  bool installed = true;
  bool running = true;
  Admission admission;
  bool kyr_disabled = false;
  Restart restart = Restart::kOnRequest;
};

/** What the agent does when it is asked for an update. */
struct Update {
  Steps steps = UsualUpdate();
  Steps recovery = UsualRecovery();  // by a new process, where it has died in the middle
};

/** Which application the command is. */
struct Client {
  std::string id = "com.example.client";
  std::string version = "1.0.0";
  std::string root;  // absolute; empty: a folder of the world
};

struct Scenario {
  std::string description;
  std::string advice;  // what an application should do
  double time_scale = 1;
  bool bus = true;  // there is a session bus
  Agent agent;
  Update update;
  Client client;
  std::vector<Package> packages;
  std::vector<Model> models;
  std::string repository;             // absolute folder of the versions' content; empty: made up
  std::optional<std::int32_t> space;  // bytes that installed versions may take; absent: any number
  std::array<MethodScript, kMethodCount> methods;

  const MethodScript& Script(Method method) const { return methods[IndexOf(method)]; }

  /** How a call is answered, counting from 0. */
  const MethodScript& Script(Method method, std::size_t call) const {
    const std::vector<MethodScript>& calls = Script(method).calls;
    return calls.empty() ? Script(method) : calls[std::min(call, calls.size() - 1)];
  }

  /** A delay of the scenario in milliseconds of the clock. */
  unsigned Scaled(std::int32_t delay) const { return static_cast<unsigned>(delay * time_scale); }
};

}  // namespace sim

#endif  // AGENT_SCENARIO_SCENARIO_H_
