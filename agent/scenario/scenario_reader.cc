// SPDX-License-Identifier: Apache-2.0
#include "scenario/scenario_reader.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "scenario/limits.h"
#include "scenario/object_reader.h"
#include "scenario/scenario_files.h"
#include "scenario/text_rules.h"

#ifndef AGENT_PACKAGE_ID
#error "AGENT_PACKAGE_ID is not defined"
#endif

namespace sim {
namespace {

const std::vector<std::pair<const char*, Fault>> kFaults = {
    {"none", Fault::kNone},           {"never", Fault::kNever},
    {"drop", Fault::kDrop},           {"drop-after", Fault::kDropAfter},
    {"crash", Fault::kCrash},         {"cut", Fault::kCut},
    {"truncated", Fault::kTruncated}, {"oversized", Fault::kOversized},
    {"negative", Fault::kNegative},
};

constexpr char kDefaultLicence[] =
    "Velmora Service Agent\n"
    "Sample licence of a simulated agent.\n";

/** A licence is one text or a list of lines. */
void ReadLicence(const Value& value, std::string* licence) {
  const JsonNode::Kind kind = value.node().kind;
  if (kind == JsonNode::Kind::kText || kind == JsonNode::Kind::kObject) {
    ReadLongText(value, licence);
    return;
  }
  std::vector<std::string> lines;
  if (kind != JsonNode::Kind::kList) {
    value.Refuse(std::string("must be a text or a list of lines, not ") + NameOf(kind));
  } else if (ReadTexts(value, &lines, nullptr)) {
    licence->clear();
    for (const std::string& line : lines) *licence += line + "\n";
  }
}

void ReadLicenceFile(const Value& value, const std::string& folder, std::string* licence) {
  if (!value.Is(JsonNode::Kind::kText)) return;
  const std::filesystem::path path = value.node().text;
  if (folder.empty() && path.is_relative()) {
    value.Refuse("a scenario that ships has no files beside it");
    return;
  }
  const std::string file = (folder / path).string();
  if (const auto reason = ReadFile(file, licence)) {
    value.Refuse("cannot read the file \"" + file + "\": " + *reason);
  } else if (licence->find('\0') != std::string::npos) {
    value.Refuse("the file \"" + file + "\" is not a text");
  }
}

void RefuseUnlessSendable(const Value& value, const std::string& licence) {
  if (const auto reason = TooLargeAsLicence(licence)) value.Refuse(*reason);
}

void ReadAgent(ObjectReader& object, const std::string& folder, Agent* agent) {
  ReadPackageKeys(object, &agent->package);
  object.Integer("apiLevel", &agent->api_level);
  const auto licence = object.Take("licence");
  const auto file = object.Take("licenceFile");
  if (licence && file) {
    file->Refuse("the licence is given twice: \"licence\" stands here, too");
  } else if (licence) {
    ReadLicence(*licence, &agent->licence);
    RefuseUnlessSendable(*licence, agent->licence);
  } else if (file) {
    ReadLicenceFile(*file, folder, &agent->licence);
    RefuseUnlessSendable(*file, agent->licence);
  }
  object.Flag("installed", &agent->installed);
  object.Flag("running", &agent->running);
  ReadChoiceOfClients(object, "refuse", &agent->admission.refused);
  object.Texts("admit", &agent->admission.admitted, Pattern);
  object.Choice<bool>("kyr", &agent->kyr_disabled, {{"enabled", false}, {"disabled", true}});
  object.Choice<Restart>("restart", &agent->restart,
                         {{"never", Restart::kNever},
                          {"on-request", Restart::kOnRequest},
                          {"always", Restart::kAlways}});
}

void ReadStepsKey(ObjectReader& object, const char* key, Steps* steps) {
  if (const auto list = object.Take(key)) *steps = ReadSteps(*list, StepsFrom::kScenario);
}

void ReadUpdate(ObjectReader& object, Update* update) {
  ReadStepsKey(object, "steps", &update->steps);
  ReadStepsKey(object, "recovery", &update->recovery);
}

void ReadClient(ObjectReader& object, const std::string& folder, Client* client) {
  object.Text("id", &client->id, ApplicationId);
  object.Text("version", &client->version, PackageVersion);
  if (object.Text("root", &client->root, NotEmpty)) {
    client->root = (std::filesystem::path(folder) / client->root).lexically_normal().string();
    if (client->root.front() != '/') {
      object.value().Refuse("\"root\" must be an absolute path in a scenario that ships");
    }
  }
}

/** Notes a name that an earlier entry has; `seen` collects them. */
void RefuseSecond(ObjectReader& object, const char* what, const std::string& name,
                  std::set<std::string>* seen) {
  if (!name.empty() && !seen->insert(name).second) {
    object.value().Refuse(std::string("there is ") + what + " \"" + name + "\" already");
  }
}

void ReadPackages(ObjectReader& root, Scenario* scenario) {
  std::set<std::string> seen = {scenario->agent.package.id};
  root.Objects("packages", [&](ObjectReader& object) {
    Package package;
    package.version = kUsualVersion;
    ReadPackageKeys(object, &package);
    object.Text("application", &package.application, ApplicationId);
    object.Flag("readable", &package.readable);
    object.Require("id");
    RefuseSecond(object, "a package", package.id, &seen);
    scenario->packages.push_back(std::move(package));
  });
}

void ReadModel(ObjectReader& object, Model* model) {
  object.LongText("id", &model->id, ModelName);
  object.LongText("title", &model->title);
  object.LongText("description", &model->description);
  const bool installed = object.LongTexts("versions", &model->versions, ModelName);
  object.LongTexts("available", &model->available, ModelName);
  if (installed && model->versions.empty() && model->available.empty()) {
    object.value().Refuse("\"versions\" must name at least one version");
  }
  const std::set<std::string> versions(model->versions.begin(), model->versions.end());
  for (const std::string& version : model->available) {
    if (versions.count(version) > 0) {
      object.value().Refuse("\"available\" names the installed version \"" + version + "\"");
    }
  }
  object.Integer("size", &model->size, 0, kLargestModel);
  ReadPatterns(object, "apps", &model->apps);
  object.Require("id");
  object.Require("versions");
  if (const auto reason = TooLargeAsVersions(*model)) object.value().Refuse(*reason);
}

Model GeneratedModel(int number) {
  char id[32];
  std::snprintf(id, sizeof id, "generated.model.%06d", number);
  Model model;
  model.id = id;
  model.title = "Generated model " + std::to_string(number);
  model.description = "Model number " + std::to_string(number) + ", made for lists of any length";
  model.versions = {"1.0.0", "1." + std::to_string(number % 10) + ".1"};
  return model;
}

void ReadModels(ObjectReader& root, Scenario* scenario) {
  std::set<std::string> seen;
  root.Objects("models", [&](ObjectReader& object) {
    Model model;
    ReadModel(object, &model);
    RefuseSecond(object, "a model", model.id, &seen);
    scenario->models.push_back(std::move(model));
  });
  std::int32_t generated = 0;
  root.Integer("generate", &generated, 0, kMostGenerated);
  for (int number = 1; number <= generated; ++number) {
    scenario->models.push_back(GeneratedModel(number));
  }
  if (const auto reason = TooLargeAsList(scenario->models)) root.At("models").Refuse(*reason);
}

/** A result is one number, or a list of them for one call after the other. */
void ReadResults(const Value& value, std::vector<std::int32_t>* results) {
  std::int32_t result = 0;
  if (value.node().kind != JsonNode::Kind::kList) {
    if (ReadInteger(value, &result)) *results = {result};
    return;
  }
  if (value.node().elements.empty()) value.Refuse("must name at least one result");
  std::size_t index = 0;
  for (const JsonNode& element : value.node().elements) {
    if (ReadInteger(value.Inside(element, index++), &result)) results->push_back(result);
  }
}

void ReadProgress(ObjectReader& object, MethodScript* script) {
  std::vector<ProgressStep> steps;
  const bool present = object.Objects("progress", [&](ObjectReader& entry) {
    ProgressStep step;
    entry.Integer("state", &step.state);
    entry.Integer("index", &step.index);
    entry.Integer("count", &step.count);
    entry.Integer("percentage", &step.percentage);
    entry.Integer("result", &step.result);
    entry.Integer("delay", &step.delay, 0, kLongestDelay);
    steps.push_back(step);
  });
  if (present) script->progress = std::move(steps);
}

void ReadWorkPoint(ObjectReader& object, const char* key, Turn turn, MethodScript* script) {
  WorkPoint point;
  const bool present = object.Object(key, [&](ObjectReader& entry) {
    entry.Integer("model", &point.model, 1);
    entry.Integer("percentage", &point.percentage, 0, 100);
    if (turn == Turn::kFail) entry.Integer("result", &point.result);
    if (turn == Turn::kSteps) {
      ReadStepsKey(entry, "steps", &point.steps);
      entry.Require("steps");
    }
  });
  if (present) script->points[turn] = std::move(point);
}

void ReadWork(ObjectReader& object, MethodScript* script) {
  ReadProgress(object, script);
  object.Integer("parts", &script->parts, 1, kMostParts);
  object.Integer("pace", &script->pace, 0, kLongestDelay);
  object.Choice<Reported>("report", &script->report,
                          {{"all", Reported::kAll},
                           {"ends", Reported::kEnds},
                           {"last", Reported::kLast},
                           {"no-last", Reported::kNoLast},
                           {"swapped", Reported::kSwapped}});
  ReadWorkPoint(object, "failAt", Turn::kFail, script);
  ReadWorkPoint(object, "stopAt", Turn::kStop, script);
  ReadWorkPoint(object, "crashAt", Turn::kCrash, script);
  ReadWorkPoint(object, "dropAt", Turn::kDrop, script);
  ReadWorkPoint(object, "stepsAt", Turn::kSteps, script);
}

void ReadDrip(ObjectReader& object, MethodScript* script) {
  Drip drip;
  const bool present = object.Object("drip", [&](ObjectReader& entry) {
    entry.Integer("bytes", &drip.bytes, 1);
    entry.Integer("pause", &drip.pause, 0, kLongestDelay);
  });
  if (present) script->drip = drip;
}

/** What a list holds, whatever models the agent has. */
void ReadListed(ObjectReader& object, MethodScript* script) {
  std::vector<ModelInfo> models;
  const bool present = object.Objects("models", [&](ObjectReader& entry) {
    ModelInfo& model = models.emplace_back();
    entry.Text("id", &model.id);
    entry.Text("version", &model.version);
    entry.Text("title", &model.title);
    entry.Text("description", &model.description);
    entry.Require("id");
  });
  if (!present) return;
  if (const auto reason = TooLargeAsAnswer(models)) object.At("models").Refuse(*reason);
  script->models = std::move(models);
}

/** The keys that a single call may have, too, but for its result. */
void ReadAnswer(ObjectReader& object, const MethodInfo& method, MethodScript* script) {
  const bool lists = method.answered_by == AnsweredBy::kModels;
  const bool works = method.answered_by == AnsweredBy::kProgress;
  object.Integer("delay", &script->delay, 0, kLongestDelay);
  object.Choice("fault", &script->fault, kFaults);
  if (object.Integer("cutAt", &script->cut_at, 0) && script->fault != Fault::kCut &&
      script->fault != Fault::kTruncated) {
    object.value().Refuse("\"cutAt\" needs the fault \"cut\" or \"truncated\"");
  }
  object.Integer("stray", &script->stray, 0, kMostRepeats);
  ReadDrip(object, script);
  ReadStepsKey(object, "steps", &script->steps);
  if (lists || works) object.Integer("repeat", &script->repeat, 1, kMostRepeats);
  if (!method.has_result) {
    std::string text;
    if (object.Text("text", &text, TooLargeAsLicence)) script->text = std::move(text);
  }
  if (lists) {
    ReadListed(object, script);
    object.Integer("count", &script->count);
    object.Integer("arrayCount", &script->array_count);
  }
  if (works) ReadWork(object, script);
}

/** Each call is what the method is, but for what it says itself. */
void ReadCalls(ObjectReader& object, const MethodInfo& method, MethodScript* script) {
  const MethodScript usual = *script;
  const bool present = object.Objects("calls", [&](ObjectReader& entry) {
    MethodScript call = usual;
    std::int32_t result = 0;
    if (method.has_result && entry.Integer("result", &result)) call.results = {result};
    ReadAnswer(entry, method, &call);
    if (script->calls.size() < kMostCalls) script->calls.push_back(std::move(call));
  });
  if (!present) return;
  const std::size_t count = object.At("calls").node().elements.size();
  if (count == 0 || count > kMostCalls) {
    object.At("calls").Refuse("must name 1 to " + std::to_string(kMostCalls) + " calls");
  }
}

void ReadMethod(ObjectReader& object, const MethodInfo& method, MethodScript* script) {
  if (method.has_result) {
    if (const auto results = object.Take("result")) ReadResults(*results, &script->results);
  }
  ReadAnswer(object, method, script);
  ReadCalls(object, method, script);
}

void ReadMethods(ObjectReader& root, Scenario* scenario) {
  root.Object("methods", [&](ObjectReader& object) {
    for (const MethodInfo& method : Methods()) {
      object.Object(method.name, [&](ObjectReader& entry) {
        ReadMethod(entry, method, &scenario->methods[IndexOf(method.method)]);
      });
    }
  });
}

void ReadRoot(ObjectReader& root, const std::string& folder, Scenario* scenario) {
  std::string schema;  // for editors
  root.Text("$schema", &schema);
  root.Text("description", &scenario->description);
  root.Text("advice", &scenario->advice);
  root.Number("timeScale", &scenario->time_scale, 0, 1000);
  root.Flag("bus", &scenario->bus);
  root.Object("agent", [&](ObjectReader& object) { ReadAgent(object, folder, &scenario->agent); });
  root.Object("client",
              [&](ObjectReader& object) { ReadClient(object, folder, &scenario->client); });
  ReadPackages(root, scenario);
  ReadModels(root, scenario);
  if (root.Text("repository", &scenario->repository, NotEmpty)) {
    const auto path = std::filesystem::path(folder) / scenario->repository;
    scenario->repository = path.lexically_normal().string();
    if (scenario->repository.front() != '/') {
      root.value().Refuse("\"repository\" must be an absolute path in a scenario that ships");
    }
  }
  std::int32_t space = 0;
  if (root.Integer("space", &space, 0)) scenario->space = space;
  root.Object("update", [&](ObjectReader& object) { ReadUpdate(object, &scenario->update); });
  ReadMethods(root, scenario);
}

}  // namespace

Scenario ReadScenario(std::string_view document, const std::string& name,
                      const std::string& folder) {
  Scenario scenario;
  scenario.agent.package.id = AGENT_PACKAGE_ID;
  scenario.agent.package.version = "2.3.182";
  scenario.agent.licence = kDefaultLicence;

  Problems problems;
  const JsonNode tree = ParseJson(document, problems);
  problems.ThrowIfAny(name);
  const Value value(tree, JsonPointer(), problems);
  if (value.Is(JsonNode::Kind::kObject)) {
    ObjectReader root(value);
    ReadRoot(root, folder, &scenario);
    root.Finish();
  }
  problems.ThrowIfAny(name);
  return scenario;
}

}  // namespace sim
