// SPDX-License-Identifier: Apache-2.0
#include "queries.h"

#include <utility>

#include "terminal_text.h"

namespace svcmgrctl {
namespace {

using terminal_text::SimilarTo;

struct TextOf {
  std::optional<std::string> Model::* text;
  vs::Field field;
};

constexpr TextOf kTexts[] = {
    {&Model::id, vs::Field::kId},
    {&Model::version, vs::Field::kVersion},
    {&Model::title, vs::Field::kTitle},
    {&Model::description, vs::Field::kDescription},
};

template <typename T>
T Checked(vs::Outcome<T> outcome) {
  if (!outcome) throw FailureOf(outcome.error());
  return *std::move(outcome);
}

Model ReadModel(const vs::Model& info) {
  Model model;
  for (const TextOf& each : kTexts) {
    const vs::Text text = Checked(info.TryRead(each.field));
    if (text) model.*each.text = text.str();
  }
  return model;
}

std::vector<Model> ReadList(const vs::ModelList& list) {
  std::vector<Model> models;
  models.reserve(list.size());
  for (std::size_t i = 0; i < list.size(); ++i) models.push_back(ReadModel(Checked(list.At(i))));
  return models;
}

using ModelsDone = vs::Session::ModelsDone;

}  // namespace

vs::ModelName NameFrom(const Model& model) {
  vs::ModelName name(model.id.value_or(""), model.version.value_or(""));
  name.title = model.title.value_or("");
  name.description = model.description.value_or("");
  return name;
}

int AskApiLevel(Session& session) {
  return session.AwaitCall<int>(
      [&](vs::Session::LevelDone done) { return session.face().AgentApiLevel(std::move(done)); });
}

std::string AskLicense(Session& session) {
  return session.AwaitCall<std::string>(
      [&](vs::Session::TextDone done) { return session.face().License(std::move(done)); });
}

std::vector<Model> AskUsableModels(Session& session) {
  return ReadList(session.Await<vs::ModelList>(
      [&](ModelsDone done) { return session.face().Models(std::move(done)); }));
}

std::vector<Model> AskUsableModelsWithDescriptions(Session& session) {
  return ReadList(session.Await<vs::ModelList>(
      [&](ModelsDone done) { return session.face().ModelsWithDescriptions(std::move(done)); }));
}

std::vector<Model> AskModelsOfCategory(Session& session, const std::string& category) try {
  return ReadList(session.Await<vs::ModelList>(
      [&](ModelsDone done) { return session.face().ModelsOfCategory(category, std::move(done)); }));
} catch (const Failure& failure) {
  if (failure.code != SVCMGR_ERROR_INVALID_PARAMETER) throw;
  throw FailureOf(SVCMGR_ERROR_INVALID_PARAMETER,
                  "no application declares the category '" + category + "'", kExitNotFound,
                  "install the application that does");
}

std::vector<Model> AskVersions(Session& session, const Model& model) {
  return ReadList(session.Await<vs::ModelList>(
      [&](ModelsDone done) { return session.face().Versions(NameFrom(model), std::move(done)); }));
}

Failure NoSuchModel(const std::string& id, const std::vector<Model>& models) {
  std::vector<std::string> ids;
  ids.reserve(models.size());
  for (const Model& model : models) ids.push_back(model.id.value_or(""));
  std::string message = "there is no usable model '" + id + "'";
  const std::vector<std::string> similar = SimilarTo(id, ids);
  message += terminal_text::DidYouMean(similar);
  Failure failure = {std::nullopt, "NOT_FOUND", message, kExitNotFound};
  if (similar.empty()) failure.remedy = "'svcmgrctl models list' shows those that there are";
  return failure;
}

}  // namespace svcmgrctl
