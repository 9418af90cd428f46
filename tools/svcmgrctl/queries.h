// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_QUERIES_H_
#define TOOLS_SVCMGRCTL_QUERIES_H_

#include <optional>
#include <string>
#include <vector>

#include "session.h"

namespace svcmgrctl {

/** A model's texts as they came; absent where the library has none. */
struct Model {
  std::optional<std::string> id;
  std::optional<std::string> version;
  std::optional<std::string> title;
  std::optional<std::string> description;
};

// What the agent can be asked, each question answered or ended by a Failure.

int AskApiLevel(Session& session);
std::string AskLicense(Session& session);
std::vector<Model> AskUsableModels(Session& session);
std::vector<Model> AskUsableModelsWithDescriptions(Session& session);
/** @param category  A category that nobody declares is a Failure that exits with kExitNotFound. */
std::vector<Model> AskModelsOfCategory(Session& session, const std::string& category);
std::vector<Model> AskVersions(Session& session, const Model& model);

/** What a model is called in a request; texts that are absent are empty there. */
vs::ModelName NameFrom(const Model& model);

/** That there is no such model among these, and which may have been meant. */
Failure NoSuchModel(const std::string& id, const std::vector<Model>& models);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_QUERIES_H_
