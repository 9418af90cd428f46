// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "model_versions.h"
#include "queries.h"
#include "table.h"

namespace svcmgrctl {
namespace {

struct Column {
  const char* title;
  std::optional<std::string> Model::* text;
};

constexpr Column kId = {"ID", &Model::id};
constexpr Column kVersion = {"VERSION", &Model::version};
constexpr Column kTitle = {"TITLE", &Model::title};
constexpr Column kDescription = {"DESCRIPTION", &Model::description};

std::string TableOf(const std::vector<Model>& models, const std::vector<Column>& columns,
                    const Console& console) {
  if (models.empty()) return {};
  Table table;
  std::vector<std::string> titles;
  for (const Column& column : columns) titles.push_back(column.title);
  table.AddHeading(titles);
  for (const Model& model : models) {
    std::vector<Table::Cell> row;
    for (const Column& column : columns) row.push_back({(model.*column.text).value_or("")});
    table.AddRow(row);
  }
  return table.Render(console.color(), console.table_width());
}

Json TextOrNull(const std::optional<std::string>& text) { return text ? Json(*text) : Json(); }

Json ToJson(const std::vector<Model>& models) {
  Json list = Json::array();
  for (const Model& model : models)
    list.push_back({{"id", TextOrNull(model.id)},
                    {"version", TextOrNull(model.version)},
                    {"title", TextOrNull(model.title)},
                    {"description", TextOrNull(model.description)}});
  return list;
}

// Of a version: "installed", "newest", or both.
std::string RemarkOn(const Model& version, const std::optional<std::string>& installed,
                     const std::optional<std::string>& newest) {
  std::string remark;
  if (version.version && version.version == installed) remark = "installed";
  if (version.version && version.version == newest)
    remark += remark.empty() ? "newest" : ", newest";
  return remark;
}

std::string TableOfVersions(const std::vector<Model>& versions,
                            const std::optional<std::string>& installed, const Console& console) {
  if (versions.empty()) return {};
  const auto newest = NewestOf(versions);
  Table table;
  table.AddHeading({"VERSION", "REMARK", "ID", "TITLE"});
  for (const Model& each : versions) {
    const std::string remark = RemarkOn(each, installed, newest);
    table.AddRow({{each.version.value_or("")},
                  {remark, remark.empty() ? Tone::kPlain : Tone::kGood},
                  {each.id.value_or("")},
                  {each.title.value_or("")}});
  }
  return table.Render(console.color(), console.table_width());
}

Json VersionsToJson(const std::vector<Model>& versions,
                    const std::optional<std::string>& installed) {
  const auto newest = NewestOf(versions);
  Json list = ToJson(versions);
  for (std::size_t i = 0; i < versions.size(); ++i) {
    list[i]["installed"] = versions[i].version && versions[i].version == installed;
    list[i]["newest"] = versions[i].version && versions[i].version == newest;
  }
  return list;
}

struct ListOptions {
  bool descriptions = false;
  std::optional<std::string> category;
};

void ListModels(Session& session, Console& console, const ListOptions& options) {
  session.Connect();
  const std::vector<Model> models = options.category
                                        ? AskModelsOfCategory(session, *options.category)
                                    : options.descriptions || console.Shows("description")
                                        ? AskUsableModelsWithDescriptions(session)
                                        : AskUsableModels(session);
  std::vector<Column> columns = {kId, kVersion, kTitle};
  if (options.descriptions) columns.push_back(kDescription);
  if (models.empty()) console.Note("there are no usable models");
  const Json records = ToJson(models);
  console.Data({{"models", records}}, TableOf(models, columns, console), records);
}

void ListVersions(Session& session, Console& console, const std::string& id) {
  session.Connect();
  const std::vector<Model> models = AskUsableModelsWithDescriptions(session);
  const auto usable = std::find_if(models.begin(), models.end(),
                                   [&](const Model& candidate) { return candidate.id == id; });
  Model model;
  model.id = id;
  const std::vector<Model> versions =
      AskVersions(session, usable == models.end() ? model : *usable);
  // A model that is not installed has versions, too: those that can be installed.
  if (versions.empty() && usable == models.end()) throw NoSuchModel(id, models);
  if (versions.empty()) console.Note("there are no versions of '" + id + "'");
  const auto installed = InstalledVersion(models, id);
  const Json records = VersionsToJson(versions, installed);
  console.Data({{"id", id}, {"versions", records}}, TableOfVersions(versions, installed, console),
               records);
}

void AddList(CLI::App& models, Command* chosen) {
  auto options = std::make_shared<ListOptions>();
  CLI::App* list = models.add_subcommand("list", "List the models that may be used");
  CLI::Option* descriptions = list->add_flag("--descriptions", options->descriptions,
                                             "With their descriptions; not with --category");
  list->add_option("--category", options->category,
                   "Those that the application which declares this category may use")
      ->type_name("NAME")
      ->excludes(descriptions);
  list->callback([chosen, options] {
    *chosen = [options](Session& session, Console& console) {
      ListModels(session, console, *options);
    };
  });
}

void AddVersions(CLI::App& models, Command* chosen) {
  auto id = std::make_shared<std::string>();
  CLI::App* versions = models.add_subcommand("versions", "List the available versions of a model");
  versions->add_option("ID", *id, "The model, as 'models list' shows it")
      ->type_name("")
      ->required();
  versions->callback([chosen, id] {
    *chosen = [id](Session& session, Console& console) { ListVersions(session, console, *id); };
  });
}

}  // namespace

void AddModelCommands(CLI::App& app, Command* chosen) {
  CLI::App* models = app.add_subcommand("models", "List, update and remove AI models");
  models->require_subcommand(1);
  AddList(*models, chosen);
  AddVersions(*models, chosen);
  AddModelWorkCommands(*models, chosen);
}

}  // namespace svcmgrctl
