// SPDX-License-Identifier: Apache-2.0
#include "scenario/steps.h"

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <utility>

#include "scenario/limits.h"
#include "scenario/text_rules.h"

namespace sim {
namespace {

constexpr std::int32_t kInterruptedCode = 2;

constexpr char kAgentStatus[] = "agent_status";
constexpr char kUpdateStatus[] = "update_status";
constexpr char kModelStatus[] = "model_status";
// Of a text under these keys, only the presence counts.
constexpr char kPresent[] = "true";

Step StepOf(Step::Action action) {
  Step step;
  step.action = action;
  return step;
}

Step TextEvent(const char* event, const std::string& key) {
  Step step;
  step.broadcast.event = event;
  step.broadcast.texts[key] = kPresent;
  return step;
}

Step StartEvent() {
  Step step;
  step.broadcast.event = kUpdateStatus;
  step.broadcast.names_agents = true;
  return step;
}

Step FailEvent(std::int32_t code) {
  Step step;
  step.broadcast.event = kUpdateStatus;
  step.broadcast.numbers["Fail"] = code;
  return step;
}

std::optional<std::string> EventSuffix(const std::string& text) {
  const bool right = !text.empty() && text.size() <= 50 &&
                     std::all_of(text.begin(), text.end(), [](unsigned char c) {
                       return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                              (c >= '0' && c <= '9') || c == '_' || c == '-';
                     });
  if (right) return std::nullopt;
  return "\"" + text + "\" must be 1 to 50 of letters, digits, '_', '-'";
}

/** Reads an object whose members are all of one kind. */
void ReadMembers(const Value& object,
                 const std::function<void(const std::string&, const Value&)>& read) {
  if (!object.Is(JsonNode::Kind::kObject)) return;
  for (const JsonNode::Member& member : object.node().members) {
    const Value value = object.Inside(member.value, member.key);
    if (member.key.empty()) {
      value.Refuse("the key must not be empty");
    } else {
      read(member.key, value);
    }
  }
}

void ReadNumbers(const Value& object, std::map<std::string, std::int32_t>* numbers) {
  ReadMembers(object, [&](const std::string& key, const Value& value) {
    ReadInteger(value, &(*numbers)[key]);
  });
}

/** Takes a key that has a meaning only together with a certain other one. */
std::optional<Value> TakeBeside(ObjectReader& object, const char* key, bool fits,
                                const char* needed) {
  auto value = object.Take(key);
  if (value && !fits) {
    value->Refuse(std::string("needs ") + needed);
    return std::nullopt;
  }
  return value;
}

enum class Event { kStart, kComplete, kFail, kUpdate, kLaunch };

Step StepOfEvent(Event event) {
  switch (event) {
    case Event::kStart:
      return StartEvent();
    case Event::kComplete:
      return TextEvent(kUpdateStatus, "Complete");
    case Event::kFail:
      return FailEvent(0);
    case Event::kUpdate:
      return TextEvent(kAgentStatus, "Update");
    case Event::kLaunch:
      break;
  }
  return LaunchStep();
}

void ReadEvent(ObjectReader& object, Steps* steps) {
  std::optional<Event> event;
  Event word = Event::kStart;
  if (object.Choice<Event>("event", &word,
                           {{"Start", Event::kStart},
                            {"Complete", Event::kComplete},
                            {"Fail", Event::kFail},
                            {"Update", Event::kUpdate},
                            {"Launch", Event::kLaunch}})) {
    event = word;
    steps->push_back(StepOfEvent(word));
  }
  if (const auto code =
          TakeBeside(object, "code", event == Event::kFail, "the event \"Fail\" beside it")) {
    ReadInteger(*code, &steps->back().broadcast.numbers["Fail"]);
  } else if (event == Event::kFail) {
    object.Require("code");
  }
  if (const auto agents =
          TakeBeside(object, "agents", event == Event::kStart, "the event \"Start\" beside it")) {
    steps->back().broadcast.names_agents = false;
    ReadTexts(*agents, &steps->back().broadcast.lists["Start"], nullptr);
  }
}

void ReadBroadcast(ObjectReader& object, Steps* steps) {
  Step step;
  const bool present = object.Text("broadcast", &step.broadcast.event, EventSuffix);
  constexpr char kNeeded[] = "\"broadcast\" beside it";
  if (const auto texts = TakeBeside(object, "texts", present, kNeeded)) {
    ReadMembers(*texts, [&](const std::string& key, const Value& value) {
      if (value.Is(JsonNode::Kind::kText)) step.broadcast.texts[key] = value.node().text;
    });
  }
  if (const auto lists = TakeBeside(object, "lists", present, kNeeded)) {
    ReadMembers(*lists, [&](const std::string& key, const Value& value) {
      ReadTexts(value, &step.broadcast.lists[key], nullptr);
    });
  }
  if (const auto numbers = TakeBeside(object, "numbers", present, kNeeded)) {
    ReadNumbers(*numbers, &step.broadcast.numbers);
  }
  if (present) steps->push_back(std::move(step));
}

void ReadResult(ObjectReader& object, Steps* steps) {
  if (const auto results = object.Take("result")) {
    Step step;
    step.broadcast.event = kUpdateStatus;
    ReadNumbers(*results, &step.broadcast.numbers);
    steps->push_back(std::move(step));
  }
}

void ReadModelStatus(ObjectReader& object, Steps* steps) {
  std::string key;
  if (object.Choice<std::string>(
          "modelStatus", &key,
          {{"START", "START"}, {"COMPLETED", "COMPLETED"}, {"FAILED", "FAILED"}})) {
    steps->push_back(TextEvent(kModelStatus, key));
  }
}

/** What an agent that updates itself properly does. */
void ReadSelfUpdate(ObjectReader& object, Steps* steps) {
  Step install = StepOf(Step::Action::kInstall);
  const bool present = object.Object("selfUpdate", [&](ObjectReader& update) {
    update.Text("version", &install.package.version, PackageVersion);
  });
  if (present) {
    steps->push_back(TextEvent(kAgentStatus, "Update"));
    steps->push_back(std::move(install));
    steps->push_back(StepOf(Step::Action::kRestart));
    steps->push_back(LaunchStep());
  }
}

/** An own package of another version, or any package. */
void ReadInstall(ObjectReader& object, Steps* steps) {
  const auto value = object.Take("install");
  if (!value) return;
  Step step = StepOf(Step::Action::kInstall);
  if (value->node().kind == JsonNode::Kind::kObject) {
    ObjectReader package(*value);
    ReadPackageKeys(package, &step.package);
    package.Finish();
  } else if (ReadText(*value, &step.package.version)) {
    if (const auto reason = PackageVersion(step.package.version)) value->Refuse(*reason);
  }
  steps->push_back(std::move(step));
}

void ReadRemove(ObjectReader& object, Steps* steps) {
  const auto value = object.Take("remove");
  if (!value) return;
  Step step = StepOf(Step::Action::kRemove);
  if (value->node().kind == JsonNode::Kind::kFlag) {
    if (!value->node().flag) return;
  } else if (ReadText(*value, &step.package.id)) {
    if (const auto reason = ApplicationId(step.package.id)) value->Refuse(*reason);
  }
  steps->push_back(std::move(step));
}

void ReadPermit(ObjectReader& object, Steps* steps) {
  Step step = StepOf(Step::Action::kPermit);
  if (object.Texts("clients", &step.clients, Pattern)) steps->push_back(std::move(step));
}

void ReadAdmit(ObjectReader& object, Steps* steps) {
  Step step = StepOf(Step::Action::kAdmit);
  const bool present = ReadChoiceOfClients(object, "refuse", &step.admission.refused);
  if (const auto admit = TakeBeside(object, "admit", present, "\"refuse\" beside it")) {
    ReadTexts(*admit, &step.admission.admitted, Pattern);
  }
  if (present) steps->push_back(std::move(step));
}

void ReadDrop(ObjectReader& object, Steps* steps) {
  Step step = StepOf(Step::Action::kDrop);
  if (ReadChoiceOfClients(object, "drop", &step.clients)) steps->push_back(std::move(step));
}

void ReadLevel(ObjectReader& object, Steps* steps) {
  Step step = StepOf(Step::Action::kLevel);
  if (object.Integer("apiLevel", &step.number)) steps->push_back(std::move(step));
}

void ReadWait(ObjectReader& object, Steps* steps) {
  Step step = StepOf(Step::Action::kWait);
  if (object.Integer("wait", &step.number, 0, kLongestDelay)) steps->push_back(std::move(step));
}

void ReadDeed(ObjectReader& object, const char* key, Step::Action action, Steps* steps) {
  bool wanted = false;
  if (object.Flag(key, &wanted) && wanted) steps->push_back(StepOf(action));
}

constexpr std::array kActionKeys = {"event",   "selfUpdate", "install", "remove",      "clients",
                                    "refuse",  "drop",       "close",   "killBus",     "apiLevel",
                                    "restart", "wait",       "result",  "modelStatus", "broadcast",
                                    "kill",    "update"};

void RefuseUnlessOneAction(ObjectReader& object) {
  const auto& members = object.value().node().members;
  const auto named = std::count_if(members.begin(), members.end(), [](const auto& member) {
    return std::any_of(kActionKeys.begin(), kActionKeys.end(),
                       [&](const char* key) { return member.key == key; });
  });
  if (named != 1) {
    object.value().Refuse(named == 0 ? "says nothing to do" : "says more than one thing to do");
  }
}

void ReadStep(ObjectReader& object, StepsFrom from, Steps* steps) {
  Steps read;
  ReadEvent(object, &read);
  ReadSelfUpdate(object, &read);
  ReadInstall(object, &read);
  ReadRemove(object, &read);
  ReadPermit(object, &read);
  ReadAdmit(object, &read);
  ReadDrop(object, &read);
  ReadDeed(object, "close", Step::Action::kClose, &read);
  ReadDeed(object, "killBus", Step::Action::kKillBus, &read);
  ReadLevel(object, &read);
  ReadDeed(object, "restart", Step::Action::kRestart, &read);
  ReadWait(object, &read);
  ReadResult(object, &read);
  ReadModelStatus(object, &read);
  ReadBroadcast(object, &read);
  ReadDeed(object, "kill", Step::Action::kKill, &read);
  if (from == StepsFrom::kOutside) ReadDeed(object, "update", Step::Action::kUpdate, &read);
  RefuseUnlessOneAction(object);
  std::int32_t times = 1;
  object.Integer("times", &times, 1, kMostTimes);
  for (; times > 0; --times) steps->insert(steps->end(), read.begin(), read.end());
}

}  // namespace

Steps ReadSteps(const Value& list, StepsFrom from) {
  Steps steps;
  if (!list.Is(JsonNode::Kind::kList)) return steps;
  std::size_t index = 0;
  for (const JsonNode& element : list.node().elements) {
    const Value value = list.Inside(element, index++);
    if (!value.Is(JsonNode::Kind::kObject)) continue;
    ObjectReader object(value);
    ReadStep(object, from, &steps);
    object.Finish();
  }
  return steps;
}

Steps ReadStepsDocument(std::string_view document, const std::string& name) {
  Problems problems;
  const JsonNode tree = ParseJson(document, problems);
  problems.ThrowIfAny(name);
  Steps steps = ReadSteps(Value(tree, JsonPointer(), problems), StepsFrom::kOutside);
  problems.ThrowIfAny(name);
  return steps;
}

Steps UsualUpdate() { return {StartEvent(), TextEvent(kUpdateStatus, "Complete")}; }

Steps UsualRecovery() { return {LaunchStep(), FailEvent(kInterruptedCode)}; }

Step LaunchStep() { return TextEvent(kAgentStatus, "Launch"); }

Step ModelStatusStep(const char* status) { return TextEvent(kModelStatus, status); }

}  // namespace sim
