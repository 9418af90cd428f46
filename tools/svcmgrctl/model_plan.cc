// SPDX-License-Identifier: Apache-2.0
#include "model_plan.h"

#include <algorithm>
#include <utility>

#include "model_versions.h"

namespace svcmgrctl {
namespace {

std::vector<Model> VersionsOf(Session& session, const Model& wanted) {
  Model model;
  model.id = wanted.id;
  return AskVersions(session, model);
}

std::optional<Failure> IfNotAmong(const std::vector<Model>& versions, const Model& wanted) {
  const bool found = wanted.version->empty() ||
                     std::any_of(versions.begin(), versions.end(),
                                 [&](const Model& each) { return each.version == wanted.version; });
  if (found) return std::nullopt;
  return Failure{std::nullopt, "NOT_FOUND",
                 "there is no version '" + *wanted.version + "' of '" + *wanted.id + "'",
                 kExitNotFound,
                 "'svcmgrctl models versions " + *wanted.id + "' shows those that there are"};
}

std::optional<std::string> KnownVersion(const std::vector<Model>& usable, const Model& wanted) {
  auto installed = InstalledVersion(usable, *wanted.id);
  return installed && installed->empty() ? std::nullopt : installed;
}

const char* ActionFrom(const std::string& installed, const std::string& version, bool force) {
  if (IsNewer(version, installed)) return "update";
  if (version == installed) return force ? "reinstall" : "nothing";
  return "downgrade";
}

PlannedModel PlanOne(Session& session, const std::vector<Model>& usable, const Model& wanted,
                     bool force) {
  const bool is_installed = std::any_of(usable.begin(), usable.end(),
                                        [&](const Model& each) { return each.id == wanted.id; });
  const std::vector<Model> versions = VersionsOf(session, wanted);
  if (versions.empty() && !is_installed) throw NoSuchModel(*wanted.id, usable);
  if (const auto unknown = IfNotAmong(versions, wanted)) throw *unknown;
  PlannedModel planned = {"install", *wanted.id, KnownVersion(usable, wanted), wanted.version};
  if (wanted.version->empty()) {
    planned.version = NewestOf(versions);
    // What is newer than all that is offered stays.
    if (planned.installed && (!planned.version || IsNewer(*planned.installed, *planned.version)))
      planned.version = planned.installed;
  }
  if (planned.installed) planned.action = ActionFrom(*planned.installed, *planned.version, force);
  return planned;
}

bool IsUpToDate(Session& session, const Model& wanted, const std::string& installed) {
  if (!wanted.version->empty()) return *wanted.version == installed;
  const auto newest = NewestOf(VersionsOf(session, wanted));
  return newest && !IsNewer(*newest, installed);
}

}  // namespace

std::vector<PlannedModel> PlanUpdate(Session& session, const std::vector<Model>& wanted,
                                     bool force) {
  const std::vector<Model> usable = AskUsableModels(session);
  std::vector<PlannedModel> plan;
  for (const Model& each : wanted) plan.push_back(PlanOne(session, usable, each, force));
  return plan;
}

std::vector<PlannedModel> PlanUninstallation(Session& session, const std::vector<Model>& wanted) {
  const std::vector<Model> usable = AskUsableModels(session);
  std::vector<PlannedModel> plan;
  for (const Model& each : wanted) {
    if (std::none_of(usable.begin(), usable.end(),
                     [&](const Model& model) { return model.id == each.id; }))
      throw NoSuchModel(*each.id, usable);
    plan.push_back({"uninstall", *each.id, KnownVersion(usable, each), std::nullopt});
  }
  return plan;
}

std::vector<Model> TakeUpToDate(Session& session, std::vector<Model>* wanted) try {
  const std::vector<Model> usable = AskUsableModels(session);
  std::vector<Model> rest;
  std::vector<Model> taken;
  for (const Model& each : *wanted) {
    const auto installed = KnownVersion(usable, each);
    if (!installed || !IsUpToDate(session, each, *installed)) {
      rest.push_back(each);
      continue;
    }
    taken.push_back(each);
    taken.back().version = installed;
  }
  *wanted = std::move(rest);
  return taken;
} catch (const Failure& failure) {
  // No wait can succeed any more then; else the agent decides what there is to do.
  if (failure.exit >= kExitInterrupted || failure.exit == kExitTimeout ||
      failure.exit == kExitNoConnection)
    throw;
  return {};
}

std::optional<Failure> IfNotOffered(Session& session, const Model& wanted) {
  const std::vector<Model> versions = VersionsOf(session, wanted);
  if (versions.empty()) return NoSuchModel(*wanted.id, AskUsableModels(session));
  return IfNotAmong(versions, wanted);
}

}  // namespace svcmgrctl
