// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_MODEL_PLAN_H_
#define TOOLS_SVCMGRCTL_MODEL_PLAN_H_

#include <optional>
#include <string>
#include <vector>

#include "queries.h"

namespace svcmgrctl {

/** What would become of one model. */
struct PlannedModel {
  /** "install", "update", "downgrade", "reinstall", "uninstall" or "nothing". */
  const char* action;
  std::string id;
  /** The version that applications use now; absent where none is installed or it is not known. */
  std::optional<std::string> installed;
  /** The version that they would use then; absent if none. */
  std::optional<std::string> version;
};

/** What an update of these models would do. An empty version means the newest. A model or a version
 *  that the agent does not have is a Failure.
 *  @param force  That nothing is newer is no reason to do nothing. */
std::vector<PlannedModel> PlanUpdate(Session& session, const std::vector<Model>& wanted,
                                     bool force);

/** The same for an uninstallation. */
std::vector<PlannedModel> PlanUninstallation(Session& session, const std::vector<Model>& wanted);

/** Takes from these models those for which an update has nothing to do, and returns them with the
 *  version that is installed. Where the agent does not tell enough to be sure, a model stays. */
std::vector<Model> TakeUpToDate(Session& session, std::vector<Model>* wanted);

/** What is wrong with a model and a version that are wanted; absent if the agent offers them. */
std::optional<Failure> IfNotOffered(Session& session, const Model& wanted);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_MODEL_PLAN_H_
