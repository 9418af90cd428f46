// SPDX-License-Identifier: Apache-2.0
#include "queries.h"

#include <iterator>
#include <memory>

#include "handles.h"
#include "terminal_text.h"

namespace svcmgrctl {
namespace {

using terminal_text::SimilarTo;

struct Field {
  std::optional<std::string> Model::* text;
  int (*get)(velmora_svcmgr_ai_model_info_h, char**);
  int (*set)(velmora_svcmgr_ai_model_info_h, const char*);
};

constexpr Field kFields[] = {
    {&Model::id, velmora_svcmgr_ai_model_info_get_id, velmora_svcmgr_ai_model_info_set_id},
    {&Model::version, velmora_svcmgr_ai_model_info_get_version,
     velmora_svcmgr_ai_model_info_set_version},
    {&Model::title, velmora_svcmgr_ai_model_info_get_title, velmora_svcmgr_ai_model_info_set_title},
    {&Model::description, velmora_svcmgr_ai_model_info_get_description,
     velmora_svcmgr_ai_model_info_set_description},
};

void Check(int code) {
  if (code != SVCMGR_ERROR_NONE) throw FailureOf(code);
}

Model ReadModel(velmora_svcmgr_ai_model_info_h info) {
  Model model;
  for (const Field& field : kFields) {
    char* raw = nullptr;
    const int code = field.get(info, &raw);
    const Text text(raw);
    // The code for a text that is not set.
    if (code == SVCMGR_ERROR_INVALID_OPERATION) continue;
    Check(code);
    if (text) model.*field.text = text.get();
  }
  return model;
}

std::vector<Model> ReadList(const ModelList& list) {
  int size = 0;
  Check(velmora_svcmgr_ai_model_list_get_size(list.get(), &size));
  std::vector<Model> models;
  for (int i = 0; i < size; ++i) {
    velmora_svcmgr_ai_model_info_h info = nullptr;
    Check(velmora_svcmgr_ai_model_list_get(list.get(), i, &info));
    models.push_back(ReadModel(ModelInfo(info).get()));
  }
  return models;
}

}  // namespace

ModelInfo MakeCompleteInfo(const Model& model) {
  velmora_svcmgr_ai_model_info_h raw = nullptr;
  Check(velmora_svcmgr_ai_model_info_create(&raw));
  ModelInfo info(raw);
  for (const Field& field : kFields)
    Check(field.set(info.get(), (model.*field.text).value_or("").c_str()));
  return info;
}

int AskApiLevel(Session& session) {
  auto level = std::make_shared<int>(0);
  const int code =
      session.Block([level] { return velmora_svcmgr_get_agent_api_level(level.get()); });
  if (code == SVCMGR_ERROR_NONE) return *level;
  session.Settle();
  throw FailureOf(code);
}

std::string AskLicense(Session& session) {
  auto license = std::make_shared<Text>();
  const int code = session.Block([license] {
    char* text = nullptr;
    const int result = velmora_svcmgr_get_license_fulltext(&text);
    license->reset(text);
    return result;
  });
  if (code == SVCMGR_ERROR_NONE && *license) return license->get();
  session.Settle();
  if (code != SVCMGR_ERROR_NONE) throw FailureOf(code);
  throw Failure{std::nullopt, "NO_LICENSE", "the agent has no licence text, or could not be asked",
                kExitFailed};
}

std::vector<Model> AskUsableModels(Session& session) {
  return ReadList(session.Request(velmora_svcmgr_ai_request_usable_model_list));
}

std::vector<Model> AskUsableModelsWithDescriptions(Session& session) {
  return ReadList(session.Request(velmora_svcmgr_ai_request_usable_model_list_with_description));
}

std::vector<Model> AskModelsOfCategory(Session& session, const std::string& category) {
  return ReadList(session.Request([&](velmora_svcmgr_ai_model_list_cb callback, void* data) {
    const int code =
        velmora_svcmgr_ai_request_usable_model_list_with_category(callback, category.c_str(), data);
    if (code == SVCMGR_ERROR_INVALID_PARAMETER)
      throw FailureOf(code, "no application declares the category '" + category + "'",
                      kExitNotFound);
    return code;
  }));
}

std::vector<Model> AskVersions(Session& session, const Model& model) {
  const ModelInfo info = MakeCompleteInfo(model);
  return ReadList(session.Request([&](velmora_svcmgr_ai_model_list_cb callback, void* data) {
    return velmora_svcmgr_ai_request_model_version_list(info.get(), callback, data);
  }));
}

Failure NoSuchModel(const std::string& id, const std::vector<Model>& models) {
  std::vector<std::string> ids;
  for (const Model& model : models) ids.push_back(model.id.value_or(""));
  std::string message = "there is no usable model '" + id + "'";
  const char* separator = "; did you mean ";
  for (const std::string& similar : SimilarTo(id, ids)) {
    message += separator + ("'" + similar + "'");
    separator = " or ";
  }
  return {std::nullopt, "NOT_FOUND", message, kExitNotFound};
}

}  // namespace svcmgrctl
