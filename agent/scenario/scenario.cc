// SPDX-License-Identifier: Apache-2.0
#include "scenario/scenario.h"

#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <set>

#include "common/report.h"
#include "common/unique_fd.h"
#include "protocol/messages.h"
#include "scenario/object_reader.h"
#include "terminal_text.h"

#ifndef AGENT_PACKAGE_ID
#error "AGENT_PACKAGE_ID is not defined"
#endif

namespace sim {
namespace {

constexpr std::array<const char*, kMethodCount> kMethodNames = {
    "get_agent_api_level",        "get_license",         "request_update",  "GetUsableModelList",
    "GetUsableModelListWithDesc", "GetModelVersionList", "RequestToUpdate", "RequestToUninstall",
    "request_update_with_list",
};

const std::vector<std::pair<const char*, Fault>> kFaults = {
    {"none", Fault::kNone},           {"never", Fault::kNever},
    {"drop", Fault::kDrop},           {"drop-after", Fault::kDropAfter},
    {"crash", Fault::kCrash},         {"cut", Fault::kCut},
    {"truncated", Fault::kTruncated}, {"oversized", Fault::kOversized},
    {"negative", Fault::kNegative},
};

constexpr std::int32_t kLongestDelay = 600000;
constexpr std::int32_t kLargestModel = 1 << 30;
constexpr std::int32_t kMostParts = 1000;
constexpr std::int32_t kMostGenerated = 100000;
constexpr std::int32_t kMostRepeats = 10000;
constexpr std::size_t kLongestName = 200;
constexpr std::size_t kLongestModelName = 2048;  // of which a client keeps no more
// A number comes before the text, and around it stand its length and its end.
constexpr std::size_t kLongestLicence = kMostBytes - 2 * sizeof(std::int32_t) - 1;

constexpr char kDefaultLicence[] =
    "Velmora Service Agent\n"
    "Sample licence of a simulated agent.\n";

bool IsAllOf(const std::string& text, const char* characters) {
  return !text.empty() && text.size() <= kLongestName &&
         text.find_first_not_of(characters) == std::string::npos;
}

#define LETTERS_AND_DIGITS "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"

TextRule CharactersOf(const char* characters, const char* said) {
  return [=](const std::string& text) -> std::optional<std::string> {
    if (IsAllOf(text, characters)) {
      return std::nullopt;
    }
    return "\"" + text + "\" must be 1 to " + std::to_string(kLongestName) + " of " + said;
  };
}

std::optional<std::string> ApplicationId(const std::string& text) {
  static const TextRule characters =
      CharactersOf(LETTERS_AND_DIGITS "._-", "letters, digits, '.', '_', '-'");
  if (auto reason = characters(text)) {
    return reason;
  }
  if (text.front() == '.' || text.front() == '-') {
    return "\"" + text + "\" must begin with a letter, a digit or '_'";
  }
  return std::nullopt;
}

const TextRule kPattern =
    CharactersOf(LETTERS_AND_DIGITS "._-*?", "letters, digits, '.', '_', '-', '*', '?'");
const TextRule kVersion =
    CharactersOf(LETTERS_AND_DIGITS ".+~_-", "letters, digits, '.', '+', '~', '_', '-'");
const TextRule kMetadataKey = CharactersOf(LETTERS_AND_DIGITS "-", "letters, digits, '-'");

#undef LETTERS_AND_DIGITS

std::optional<std::string> NotEmpty(const std::string& text) {
  return text.empty() ? std::optional<std::string>("must not be empty") : std::nullopt;
}

/** A model's ID or version. */
std::optional<std::string> ModelName(const std::string& text) {
  if (text.size() > kLongestModelName) {
    return "must not be longer than " + std::to_string(kLongestModelName) +
           " bytes: no client can name it";
  }
  return NotEmpty(text);
}

void ReadPatterns(ObjectReader& object, const char* key,
                  std::optional<std::vector<std::string>>* out) {
  std::vector<std::string> patterns;
  if (object.Texts(key, &patterns, kPattern)) {
    *out = std::move(patterns);
  }
}

void ReadPackageKeys(ObjectReader& object, Package* package) {
  object.Text("id", &package->id, ApplicationId);
  object.Text("version", &package->version, kVersion);
  ReadPatterns(object, "clients", &package->clients);
  object.Object("metadata", [&](ObjectReader& metadata) {
    metadata.AllTexts(&package->metadata, kMetadataKey);
  });
}

/** A licence is one text or a list of lines. */
void ReadLicence(const Value& value, std::string* licence) {
  if (value.node().kind == JsonNode::Kind::kText) {
    *licence = value.node().text;
    return;
  }
  std::vector<std::string> lines;
  if (value.node().kind != JsonNode::Kind::kList) {
    value.Refuse(std::string("must be a text or a list of lines, not ") +
                 NameOf(value.node().kind));
  } else if (ReadTexts(value, &lines, nullptr)) {
    licence->clear();
    for (const std::string& line : lines) {
      *licence += line + "\n";
    }
  }
}

/** Reads a file; says why it cannot be read, nothing if it was. */
std::optional<std::string> ReadFile(const std::string& path, std::string* content) {
  // Neither a pipe nor a terminal may hold the program up.
  const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat about;
  if (!fd || fstat(fd.get(), &about) != 0) {
    return strerror(errno);
  }
  if (!S_ISREG(about.st_mode)) {
    return S_ISDIR(about.st_mode) ? "it is a folder" : "it is no regular file";
  }
  content->clear();
  char chunk[64 * 1024];
  for (;;) {
    const ssize_t size = read(fd.get(), chunk, sizeof chunk);
    if (size == 0) {
      return std::nullopt;
    }
    if (size > 0) {
      content->append(chunk, static_cast<std::size_t>(size));
    } else if (errno != EINTR) {
      return strerror(errno);
    }
  }
}

void ReadLicenceFile(const Value& value, const std::string& folder, std::string* licence) {
  if (!value.Is(JsonNode::Kind::kText)) {
    return;
  }
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
  if (licence.size() > kLongestLicence) {
    value.Refuse("must not be longer than " + std::to_string(kLongestLicence) +
                 " bytes: a message holds 16 MiB");
  }
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
  object.Flag("refuse", &agent->refuse);
  object.Choice<bool>("kyr", &agent->kyr_disabled, {{"enabled", false}, {"disabled", true}});
  object.Choice<Restart>("restart", &agent->restart,
                         {{"never", Restart::kNever},
                          {"on-request", Restart::kOnRequest},
                          {"always", Restart::kAlways}});
}

void ReadUpdate(ObjectReader& object, Update* update) {
  if (const auto steps = object.Take("steps")) {
    update->steps = ReadSteps(*steps, StepsFrom::kScenario);
  }
  if (const auto recovery = object.Take("recovery")) {
    update->recovery = ReadSteps(*recovery, StepsFrom::kScenario);
  }
}

void ReadClient(ObjectReader& object, const std::string& folder, Client* client) {
  object.Text("id", &client->id, ApplicationId);
  object.Text("version", &client->version, kVersion);
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
    package.version = "1.0.0";
    ReadPackageKeys(object, &package);
    object.Require("id");
    RefuseSecond(object, "a package", package.id, &seen);
    scenario->packages.push_back(std::move(package));
  });
}

std::size_t EncodedSize(const std::string& text) { return sizeof(std::int32_t) + text.size() + 1; }

/** The encoded size of an answer with an empty list. */
std::size_t EmptyAnswerSize() {
  static const std::size_t size =
      AnswerWith(Delegate(), 0, std::vector<ModelView>()).Bytes().size();
  return size;
}

std::optional<std::string> TooLarge(const std::string& what, std::size_t size) {
  if (size <= kMostBytes) {
    return std::nullopt;
  }
  return what + " takes " + std::to_string(size) + " bytes: a message holds " +
         std::to_string(kMostBytes);
}

/** What the model takes in an answer, with the longest version that may be the usable one. */
std::size_t EntrySize(const Model& model, bool described) {
  std::size_t version = 0;
  for (const auto* versions : {&model.versions, &model.available}) {
    for (const std::string& each : *versions) {
      version = std::max(version, EncodedSize(each));
    }
  }
  return EncodedSize(model.id) + version + EncodedSize(model.title) +
         EncodedSize(described ? model.description : "");
}

std::optional<std::string> TooLargeAsList(const std::vector<Model>& models) {
  std::size_t plain = EmptyAnswerSize();
  std::size_t described = EmptyAnswerSize();
  for (const Model& model : models) {
    plain += EntrySize(model, false);
    described += EntrySize(model, true);
  }
  const auto reason = TooLarge("the list of all models", plain);
  return reason ? reason : TooLarge("the list of all models with their descriptions", described);
}

std::optional<std::string> TooLargeAsVersions(const Model& model) {
  std::size_t size = EmptyAnswerSize();
  for (const auto* versions : {&model.versions, &model.available}) {
    for (const std::string& version : *versions) {
      size += EncodedSize(model.id) + EncodedSize(version) + EncodedSize(model.title) +
              EncodedSize(model.description);
    }
  }
  return TooLarge("the list of the model's versions", size);
}

void ReadModel(ObjectReader& object, Model* model) {
  object.Text("id", &model->id, ModelName);
  object.Text("title", &model->title);
  object.Text("description", &model->description);
  const bool installed = object.Texts("versions", &model->versions, ModelName);
  object.Texts("available", &model->available, ModelName);
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
  if (const auto reason = TooLargeAsVersions(*model)) {
    object.value().Refuse(*reason);
  }
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
  if (const auto reason = TooLargeAsList(scenario->models)) {
    root.At("models").Refuse(*reason);
  }
}

/** A result is one number, or a list of them for one call after the other. */
void ReadResults(const Value& value, std::vector<std::int32_t>* results) {
  std::int32_t result = 0;
  if (value.node().kind != JsonNode::Kind::kList) {
    if (ReadInteger(value, &result)) {
      *results = {result};
    }
    return;
  }
  if (value.node().elements.empty()) {
    value.Refuse("must name at least one result");
  }
  for (const JsonNode& element : value.node().elements) {
    if (ReadInteger(value.Inside(element, results->size()), &result)) {
      results->push_back(result);
    }
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
  if (present) {
    script->progress = std::move(steps);
  }
}

void ReadWorkPoint(ObjectReader& object, const char* key, bool fails,
                   std::optional<WorkPoint>* out) {
  WorkPoint point;
  const bool present = object.Object(key, [&](ObjectReader& entry) {
    entry.Integer("model", &point.model, 1);
    entry.Integer("percentage", &point.percentage, 0, 100);
    if (fails) {
      entry.Integer("result", &point.result);
    }
  });
  if (present) {
    *out = point;
  }
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
  ReadWorkPoint(object, "failAt", true, &script->fail_at);
  ReadWorkPoint(object, "stopAt", false, &script->stop_at);
}

bool IsOneOf(Method method, std::initializer_list<Method> methods) {
  return std::find(methods.begin(), methods.end(), method) != methods.end();
}

void ReadMethod(ObjectReader& object, Method method, MethodScript* script) {
  const bool lists =
      IsOneOf(method, {Method::kGetUsableModelList, Method::kGetUsableModelListWithDesc,
                       Method::kGetModelVersionList});
  const bool works = IsOneOf(method, {Method::kRequestToUpdate, Method::kRequestToUninstall});
  if (method != Method::kGetLicense) {
    if (const auto results = object.Take("result")) {
      ReadResults(*results, &script->results);
    }
  }
  object.Integer("delay", &script->delay, 0, kLongestDelay);
  object.Choice("fault", &script->fault, kFaults);
  if (object.Integer("cutAt", &script->cut_at, 0) && script->fault != Fault::kCut &&
      script->fault != Fault::kTruncated) {
    object.value().Refuse("\"cutAt\" needs the fault \"cut\" or \"truncated\"");
  }
  object.Integer("stray", &script->stray, 0, kMostRepeats);
  if (lists || works) {
    object.Integer("repeat", &script->repeat, 1, kMostRepeats);
  }
  if (lists) {
    object.Integer("count", &script->count);
    object.Integer("arrayCount", &script->array_count);
  }
  if (works) {
    ReadWork(object, script);
  }
}

void ReadMethods(ObjectReader& root, Scenario* scenario) {
  root.Object("methods", [&](ObjectReader& object) {
    for (std::size_t i = 0; i < kMethodCount; ++i) {
      object.Object(kMethodNames[i], [&](ObjectReader& entry) {
        ReadMethod(entry, static_cast<Method>(static_cast<int>(i) + kFirstMethod),
                   &scenario->methods[i]);
      });
    }
  });
}

void ReadRoot(ObjectReader& root, const std::string& folder, Scenario* scenario) {
  root.Text("description", &scenario->description);
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
  if (root.Integer("space", &space, 0)) {
    scenario->space = space;
  }
  root.Object("update", [&](ObjectReader& object) { ReadUpdate(object, &scenario->update); });
  ReadMethods(root, scenario);
}

void ThrowProblems(const Problems& problems, const std::string& name) {
  if (!problems.empty()) {
    throw ScenarioError(problems.Lines(name));
  }
}

std::string Similar(const std::string& name) {
  std::vector<std::string> names;
  for (const ShippedScenario& shipped : ShippedScenarios()) {
    names.emplace_back(shipped.name);
  }
  std::string text;
  for (const std::string& similar : terminal_text::SimilarTo(name, names)) {
    text += (text.empty() ? "did you mean \"" : ", \"") + similar + "\"";
  }
  return text.empty() ? text : text + "? ";
}

bool NamesFile(const std::string& name) {
  static const std::string ending = ".json";
  const bool has_ending = name.size() >= ending.size() &&
                          name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
  return has_ending || name.find('/') != std::string::npos;
}

}  // namespace

const char* MethodName(int number) {
  constexpr int kEnd = kFirstMethod + static_cast<int>(kMethodCount);
  if (number < kFirstMethod || number >= kEnd) {
    return nullptr;
  }
  return kMethodNames[static_cast<std::size_t>(number - kFirstMethod)];
}

Scenario ReadScenario(std::string_view document, const std::string& name,
                      const std::string& folder) {
  Scenario scenario;
  scenario.agent.package.id = AGENT_PACKAGE_ID;
  scenario.agent.package.version = "2.3.182";
  scenario.agent.licence = kDefaultLicence;

  Problems problems;
  const JsonNode tree = ParseJson(document, problems);
  ThrowProblems(problems, name);
  const Value value(tree, JsonPointer(), problems);
  if (value.Is(JsonNode::Kind::kObject)) {
    ObjectReader root(value);
    ReadRoot(root, folder, &scenario);
    root.Finish();
  }
  ThrowProblems(problems, name);
  return scenario;
}

Steps ReadStepsDocument(std::string_view document, const std::string& name) {
  Problems problems;
  const JsonNode tree = ParseJson(document, problems);
  ThrowProblems(problems, name);
  Steps steps = ReadSteps(Value(tree, JsonPointer(), problems), StepsFrom::kOutside);
  ThrowProblems(problems, name);
  return steps;
}

ScenarioSource FindScenario(const std::string& name) {
  if (!NamesFile(name)) {
    for (const ShippedScenario& shipped : ShippedScenarios()) {
      if (name == shipped.name) {
        return {name, shipped.document, ""};
      }
    }
    throw ScenarioError(Quotable(name) + ": no scenario of this name ships; " + Similar(name) +
                        "\"svcmgr-sim list\" names those that ship; a file's name has a slash or "
                        "ends in .json");
  }
  ScenarioSource source;
  source.name = name;
  if (const auto reason = ReadFile(name, &source.document)) {
    throw ScenarioError(Quotable(name) + ": cannot read the file: " + *reason);
  }
  source.folder = std::filesystem::absolute(name).parent_path().string();
  return source;
}

std::optional<std::string> PackageVersion(const std::string& text) { return kVersion(text); }

bool Matches(const std::string& pattern, const std::string& text) {
  return fnmatch(pattern.c_str(), text.c_str(), FNM_NOESCAPE) == 0;
}

}  // namespace sim
