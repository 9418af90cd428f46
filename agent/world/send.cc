// SPDX-License-Identifier: Apache-2.0
#include "world/send.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "common/report.h"
#include "scenario/json_tree.h"
#include "scenario/steps.h"
#include "service/control.h"
#include "terminal_text.h"
#include "world/run.h"

namespace sim {
namespace {

using Json = nlohmann::json;

std::vector<std::string> Parts(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

Json Number(const std::string& text) {
  Json number = Json::parse(text, nullptr, false);
  if (!number.is_number_integer()) {
    throw std::runtime_error("\"" + Quotable(text) + "\" is no whole number");
  }
  return number;
}

Json Results(const std::string& text) {
  Json results = Json::object();
  for (const std::string& part : Parts(text, ',')) {
    const auto colon = part.rfind(':');
    if (colon == std::string::npos) {
      throw std::runtime_error("\"" + Quotable(part) + "\" is not APPLICATION:CODE");
    }
    results[part.substr(0, colon)] = Number(part.substr(colon + 1));
  }
  return Json{{"result", results}};
}

Json Start(const std::string& agents) {
  Json step = {{"event", "Start"}};
  if (!agents.empty()) step["agents"] = Parts(agents, ',');
  return step;
}

Json SelfUpdate(const std::string& version) {
  Json update = Json::object();
  if (!version.empty()) update["version"] = version;
  return Json{{"selfUpdate", update}};
}

/** A choice of clients: what stands for no list, or the list. */
Json Choice(const char* key, const std::string& clients, Json all) {
  return Json{{key, clients.empty() ? std::move(all) : Json(Parts(clients, ','))}};
}

enum class Argument { kNone, kPossible, kNeeded };

struct Word {
  const char* name;
  Argument argument;
  const char* help;
  Json (*step)(const std::string& argument);
};

const Word kWords[] = {
    {"update", Argument::kNone, "the scenario's whole update",
     [](const std::string&) { return Json{{"update", true}}; }},
    {"update-start", Argument::kPossible, "=AGENT,...: \"Start\"", Start},
    {"update-complete", Argument::kNone, "\"Complete\"",
     [](const std::string&) { return Json{{"event", "Complete"}}; }},
    {"update-fail", Argument::kNeeded, "=CODE: \"Fail\"",
     [](const std::string& code) { return Json{{"event", "Fail"}, {"code", Number(code)}}; }},
    {"update-result", Argument::kNeeded, "=APPLICATION:CODE,...: results of single applications",
     Results},
    {"agent-update", Argument::kNone, "\"Update\": the agent is about to update itself",
     [](const std::string&) { return Json{{"event", "Update"}}; }},
    {"agent-launch", Argument::kNone, "\"Launch\": the agent runs",
     [](const std::string&) { return Json{{"event", "Launch"}}; }},
    {"self-update", Argument::kPossible, "=VERSION: the agent updates itself", SelfUpdate},
    {"install", Argument::kNeeded, "=VERSION: the agent's package becomes that version",
     [](const std::string& version) { return Json{{"install", version}}; }},
    {"remove", Argument::kPossible, "=PACKAGE: it, or the agent's own package, is removed",
     [](const std::string& id) { return Json{{"remove", id.empty() ? Json(true) : Json(id)}}; }},
    {"clients", Argument::kPossible, "=APPLICATION,...: only these, or none, have the permission",
     [](const std::string& clients) { return Choice("clients", clients, Json::array()); }},
    {"refuse", Argument::kPossible, "=APPLICATION,...: these, or all, are refused from now on",
     [](const std::string& clients) { return Choice("refuse", clients, true); }},
    {"admit", Argument::kNone, "nobody is refused any more",
     [](const std::string&) { return Json{{"refuse", false}}; }},
    {"drop", Argument::kPossible, "=APPLICATION,...: connections of these, or all, end",
     [](const std::string& clients) { return Choice("drop", clients, true); }},
    {"close", Argument::kNone, "the agent serves nobody until it is replaced",
     [](const std::string&) { return Json{{"close", true}}; }},
    {"kill-bus", Argument::kNone, "the session bus dies",
     [](const std::string&) { return Json{{"killBus", true}}; }},
    {"api-level", Argument::kNeeded, "=LEVEL: the agent's API level from now on",
     [](const std::string& level) { return Json{{"apiLevel", Number(level)}}; }},
    {"restart", Argument::kNone, "the agent is replaced by a new process",
     [](const std::string&) { return Json{{"restart", true}}; }},
    {"kill", Argument::kNone, "the agent dies",
     [](const std::string&) { return Json{{"kill", true}}; }},
    {"wait", Argument::kNeeded, "=MILLISECONDS",
     [](const std::string& time) { return Json{{"wait", Number(time)}}; }},
    {"model-start", Argument::kNone, "\"START\"",
     [](const std::string&) { return Json{{"modelStatus", "START"}}; }},
    {"model-completed", Argument::kNone, "\"COMPLETED\"",
     [](const std::string&) { return Json{{"modelStatus", "COMPLETED"}}; }},
    {"model-failed", Argument::kNone, "\"FAILED\"",
     [](const std::string&) { return Json{{"modelStatus", "FAILED"}}; }},
};

Json StepOfWord(const std::string& text) {
  const auto equals = text.find('=');
  const bool has_argument = equals != std::string::npos;
  const std::string name = text.substr(0, equals);
  const auto* const word = std::find_if(std::begin(kWords), std::end(kWords),
                                        [&](const Word& each) { return name == each.name; });
  if (word == std::end(kWords)) {
    throw std::runtime_error(
        "\"" + Quotable(name) + "\" is no step" +
        terminal_text::DidYouMean(terminal_text::SimilarTo(name, StepWords())) +
        "; \"svcmgr-sim send --help\" names them");
  }
  if (has_argument ? word->argument == Argument::kNone : word->argument == Argument::kNeeded) {
    throw std::runtime_error("the step \"" + name + "\" " +
                             (has_argument ? "takes nothing" : "needs something behind \"=\""));
  }
  return word->step(has_argument ? text.substr(equals + 1) : "");
}

/** The text of one word's steps, without brackets: JSON stays as it was written. */
std::string TextOfWord(const std::string& written) {
  const std::string word = WithoutComments(written);
  const auto begin = word.find_first_not_of(" \t\r\n");
  const char first = begin == std::string::npos ? '\0' : word[begin];
  if (first != '{' && first != '[') {
    return StepOfWord(written).dump(-1, ' ', false, Json::error_handler_t::replace);
  }
  ReadStepsDocument(first == '[' ? word : "[" + word + "]", "send");
  const auto end = word.find_last_not_of(" \t\r\n");
  return first == '[' ? word.substr(begin + 1, end - begin - 1) : word;
}

}  // namespace

std::string HelpForSteps() {
  std::string help = "A STEP is JSON as in a scenario's update, or one of:\n";
  for (const Word& word : kWords) {
    char line[128];
    std::snprintf(line, sizeof line, "  %-16s %s\n", word.name, word.help);
    help += line;
  }
  return help;
}

std::vector<std::string> StepWords() {
  std::vector<std::string> names;
  for (const Word& word : kWords) names.emplace_back(word.name);
  return names;
}

std::string StepsOfWords(const std::vector<std::string>& words) {
  std::string document;
  for (const std::string& word : words) {
    const std::string text = TextOfWord(word);
    if (text.find_first_not_of(" \t\r\n") != std::string::npos) {
      document += (document.empty() ? "" : ",") + text;
    }
  }
  document = "[" + document + "]";
  ReadStepsDocument(document, "send");
  return document;
}

int Send(const std::vector<std::string>& words) {
  const char* path = getenv(kControlVariable);
  if (path == nullptr) {
    throw std::runtime_error("this is no world: \"send\" works below \"svcmgr-sim run\" only");
  }
  const std::string problem = SendSteps(path, StepsOfWords(words));
  if (problem.empty()) return 0;
  Report(problem);
  return 1;
}

}  // namespace sim
