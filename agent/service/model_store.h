// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_MODEL_STORE_H_
#define AGENT_SERVICE_MODEL_STORE_H_

#include <cstdint>
#include <string>
#include <vector>

#include "scenario/scenario.h"
#include "unique_fd.h"

namespace sim {

/** Results of model work; clients know others, too. */
constexpr std::int32_t kWorkDone = 0;
constexpr std::int32_t kWorkFailed = 1;
constexpr std::int32_t kNoSuchModel = 4;
constexpr std::int32_t kNoSpace = 5;

/** A model of the scenario and its versions that are installed, oldest first. */
struct StoredModel {
  const Model* model;
  std::vector<std::string> versions;
};

/**
 * The models that are installed: a folder for each model, a file in it for each version. A model to
 * which nothing has been done yet has no folder, and is as the scenario has it.
 */
class ModelStore {
 public:
  /** Reads what is there. `scenario` must outlive the store; an empty folder name stores nothing. */
  ModelStore(const Scenario& scenario, std::string folder);

  const std::vector<StoredModel>& models() const { return models_; }
  /** Another number after each change to them. */
  std::uint64_t state() const { return state_; }

  /** The version that a request means, the newest where it names none; empty if there is none. */
  std::string Choose(const std::string& model, const std::string& version) const;

  /** Removes all versions of a model; a result. */
  std::int32_t Uninstall(const std::string& model);

  bool IsInstalled(const std::string& model) const;

 private:
  friend class ModelCopy;

  StoredModel* Find(const std::string& model);
  std::string FolderOf(const Model& model) const;
  std::int64_t SizeOf(const Model& model, const std::string& version) const;
  std::string SourceOf(const Model& model, const std::string& version) const;
  std::int64_t Used() const;
  void Load(StoredModel* stored) const;
  bool MakeFolder(const StoredModel& stored) const;

  const Scenario& scenario_;
  const std::string folder_;
  std::vector<StoredModel> models_;
  std::uint64_t state_ = 0;
};

/** One version on its way into the store; discarded with this object unless it is finished. */
class ModelCopy {
 public:
  ModelCopy(ModelStore& store, const std::string& model, const std::string& version);
  ~ModelCopy();
  ModelCopy(const ModelCopy&) = delete;
  ModelCopy& operator=(const ModelCopy&) = delete;

  /** Copies until this many parts of the whole are there; a result. */
  std::int32_t CopyTo(std::int32_t part, std::int32_t parts);

  /** Puts the whole version into the store; a result. */
  std::int32_t Finish();

 private:
  std::int32_t Open();
  bool CopyBytes(std::int64_t end);

  ModelStore& store_;
  StoredModel* stored_;
  std::string version_;
  std::string draft_;
  base::UniqueFd source_;  // none: made-up content
  base::UniqueFd target_;
  std::int64_t size_ = 0;
  std::int64_t copied_ = 0;
};

}  // namespace sim

#endif  // AGENT_SERVICE_MODEL_STORE_H_
