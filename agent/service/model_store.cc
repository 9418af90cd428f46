// SPDX-License-Identifier: Apache-2.0
#include "service/model_store.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <set>
#include <string_view>
#include <utility>

#include "common/marks.h"

namespace sim {
namespace {

namespace fs = std::filesystem;

constexpr char kDraftPrefix[] = "+";  // no version's file name begins with it

/** A text as a file name; two texts never have the same one. */
std::string FileName(const std::string& text) {
  constexpr char kPlain[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
  constexpr std::size_t kLongest = 200;
  std::string name;
  for (const char c : text) {
    const bool plain = std::string_view(kPlain).find(c) != std::string_view::npos;
    if (plain && !(name.empty() && c == '.')) {
      name += c;
      continue;
    }
    char escaped[4];
    std::snprintf(escaped, sizeof escaped, "%%%02x", static_cast<unsigned char>(c));
    name += escaped;
  }
  if (name.size() > kLongest) {
    name = name.substr(0, kLongest) + "%" + std::to_string(std::hash<std::string>{}(text));
  }
  return name;
}

/** All versions of a model, oldest first. */
std::vector<std::string> AllVersions(const Model& model) {
  std::vector<std::string> versions = model.versions;
  versions.insert(versions.end(), model.available.begin(), model.available.end());
  return versions;
}

bool Has(const std::vector<std::string>& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

bool MakeFile(const std::string& path, std::int64_t size) {
  const base::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  return fd && ftruncate(fd.get(), size) == 0;
}

bool WriteAll(int fd, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(fd, bytes, size);
    if (written < 0 && errno != EINTR) return false;
    const auto step = static_cast<std::size_t>(written > 0 ? written : 0);
    bytes += step;
    size -= step;
  }
  return true;
}

}  // namespace

ModelStore::ModelStore(const Scenario& scenario, std::string folder)
    : scenario_(scenario), folder_(std::move(folder)) {
  models_.reserve(scenario.models.size());
  std::error_code error;
  const bool exists = !folder_.empty() && fs::is_directory(folder_, error);
  for (const Model& model : scenario.models) {
    models_.push_back({&model, model.versions});
    if (exists) Load(&models_.back());
  }
}

void ModelStore::Load(StoredModel* stored) const {
  const std::string folder = FolderOf(*stored->model);
  std::error_code error;
  if (!fs::is_directory(folder, error)) return;
  std::set<std::string> names;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    names.insert(it->path().filename().string());
  }
  for (const std::string& name : names) {
    if (name.rfind(kDraftPrefix, 0) == 0) {
      fs::remove(fs::path(folder) / name, error);  // of a process that has died
    }
  }
  stored->versions.clear();
  for (const std::string& version : AllVersions(*stored->model)) {
    if (names.count(FileName(version)) > 0) stored->versions.push_back(version);
  }
}

StoredModel* ModelStore::Find(const std::string& model) {
  const auto found = std::find_if(models_.begin(), models_.end(),
                                  [&](const auto& each) { return each.model->id == model; });
  return found == models_.end() ? nullptr : &*found;
}

bool ModelStore::IsInstalled(const std::string& model) const {
  return std::any_of(models_.begin(), models_.end(), [&](const auto& each) {
    return each.model->id == model && !each.versions.empty();
  });
}

std::string ModelStore::Choose(const std::string& model, const std::string& version) const {
  for (const StoredModel& stored : models_) {
    if (stored.model->id == model) {
      const auto versions = AllVersions(*stored.model);
      return version.empty() ? versions.back() : Has(versions, version) ? version : "";
    }
  }
  return "";
}

std::string ModelStore::FolderOf(const Model& model) const {
  return folder_ + "/" + FileName(model.id);
}

std::string ModelStore::SourceOf(const Model& model, const std::string& version) const {
  return scenario_.repository + "/" + FileName(model.id) + "/" + FileName(version);
}

std::int64_t ModelStore::SizeOf(const Model& model, const std::string& version) const {
  std::error_code error;
  if (!scenario_.repository.empty()) {
    const auto size = fs::file_size(SourceOf(model, version), error);
    if (!error) return static_cast<std::int64_t>(size);
  }
  return model.size;
}

std::int64_t ModelStore::Used() const {
  std::int64_t used = 0;
  for (const StoredModel& stored : models_) {
    for (const std::string& version : stored.versions) used += SizeOf(*stored.model, version);
  }
  return used;
}

/** The folder of a model to which nothing has been done yet comes with the files it should have. */
bool ModelStore::MakeFolder(const StoredModel& stored) const {
  const std::string folder = FolderOf(*stored.model);
  std::error_code error;
  if (fs::is_directory(folder, error)) return true;
  const std::string draft = folder_ + "/" + kDraftPrefix;
  fs::remove_all(draft, error);
  if (!fs::create_directories(draft, error)) return false;
  for (const std::string& version : stored.versions) {
    if (!MakeFile(draft + "/" + FileName(version), SizeOf(*stored.model, version))) return false;
  }
  fs::rename(draft, folder, error);
  return !error;
}

std::int32_t ModelStore::Uninstall(const std::string& model) {
  StoredModel* stored = Find(model);
  if (stored == nullptr || stored->versions.empty()) return kNoSuchModel;
  if (!MakeFolder(*stored)) return kWorkFailed;
  ++state_;
  std::error_code error;
  for (const std::string& version : stored->versions) {
    if (!fs::remove(FolderOf(*stored->model) + "/" + FileName(version), error)) return kWorkFailed;
  }
  stored->versions.clear();
  return kWorkDone;
}

ModelCopy::ModelCopy(ModelStore& store, const std::string& model, const std::string& version)
    : store_(store), stored_(store.Find(model)), version_(version) {}

ModelCopy::~ModelCopy() {
  if (!draft_.empty()) unlink(draft_.c_str());
}

std::int32_t ModelCopy::Open() {
  if (stored_ == nullptr) return kNoSuchModel;
  const Model& model = *stored_->model;
  if (!store_.scenario_.repository.empty()) {
    source_.Reset(open(store_.SourceOf(model, version_).c_str(), O_RDONLY | O_CLOEXEC));
    if (!source_) return kNoSuchModel;
  }
  size_ = store_.SizeOf(model, version_);
  if (!store_.MakeFolder(*stored_)) return kWorkFailed;
  std::string draft = store_.FolderOf(model) + "/" + kDraftPrefix + "XXXXXX";
  target_.Reset(mkostemp(draft.data(), O_CLOEXEC));
  if (!target_) return kWorkFailed;
  draft_ = draft;
  return kWorkDone;
}

bool ModelCopy::CopyBytes(std::int64_t end) {
  std::array<char, 1 << 16> buffer;
  buffer.fill('m');
  while (copied_ < end) {
    const auto wanted = static_cast<std::size_t>(
        std::min<std::int64_t>(end - copied_, static_cast<std::int64_t>(buffer.size())));
    auto size = static_cast<ssize_t>(wanted);
    if (source_) size = read(source_.get(), buffer.data(), wanted);
    if (size <= 0 || !WriteAll(target_.get(), buffer.data(), static_cast<std::size_t>(size))) {
      return false;
    }
    copied_ += size;
    Pass(Mark::kInPart);
  }
  return true;
}

std::int32_t ModelCopy::CopyTo(std::int32_t part, std::int32_t parts) {
  if (!target_) {
    const std::int32_t opened = Open();
    if (opened != kWorkDone) return opened;
  }
  const std::int64_t end = part == parts ? size_ : size_ / parts * part;
  const auto& space = store_.scenario_.space;
  if (space && store_.Used() + end > *space) return kNoSpace;
  errno = 0;
  if (!CopyBytes(end)) return errno == ENOSPC || errno == EDQUOT ? kNoSpace : kWorkFailed;
  return kWorkDone;
}

std::int32_t ModelCopy::Finish() {
  Pass(Mark::kVersionComplete);
  const std::string folder = store_.FolderOf(*stored_->model);
  if (rename(draft_.c_str(), (folder + "/" + FileName(version_)).c_str()) != 0) return kWorkFailed;
  draft_.clear();
  target_.Reset();
  if (!Has(stored_->versions, version_)) stored_->versions.push_back(version_);
  ++store_.state_;
  const auto all = AllVersions(*stored_->model);
  std::sort(stored_->versions.begin(), stored_->versions.end(),
            [&](const std::string& a, const std::string& b) {
              return std::find(all.begin(), all.end(), a) < std::find(all.begin(), all.end(), b);
            });
  return kWorkDone;
}

}  // namespace sim
