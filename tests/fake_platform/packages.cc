// SPDX-License-Identifier: Apache-2.0
// The application itself, installed packages, installed applications.

#include <app_common.h>
#include <app_info.h>
#include <package_info.h>
#include <package_manager.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "internal.h"

namespace fake {

using internal::Guard;
using internal::state;

std::string ErrorText(int code) { return "platform error " + std::to_string(code); }

void SetApplication(Application application) {
  const Guard guard;
  state().application = std::move(application);
}

void SetPackages(std::vector<Package> packages) {
  const Guard guard;
  state().packages = std::move(packages);
}

void InstallAgent(const std::string& version) {
  const Guard guard;
  RemoveAgent();
  state().packages.insert(state().packages.begin(), {kAgentId, version, {}});
}

void RemoveAgent() {
  const Guard guard;
  auto& packages = state().packages;
  packages.erase(std::remove_if(packages.begin(), packages.end(),
                                [](const Package& package) { return package.id == kAgentId; }),
                 packages.end());
}

}  // namespace fake

using fake::Kind;
using fake::Package;
using fake::internal::Adopt;
using fake::internal::Begin;
using fake::internal::BeginRelease;
using fake::internal::Destroy;
using fake::internal::Find;
using fake::internal::Guard;
using fake::internal::HandOut;
using fake::internal::Name;
using fake::internal::Perform;
using fake::internal::Quote;
using fake::internal::Shielded;
using fake::internal::state;

namespace {

const Package* FindPackage(const char* id) {
  const auto& packages = state().packages;
  const auto found = std::find_if(packages.begin(), packages.end(), [&](const Package& package) {
    return package.id.has_value() && *package.id == id;
  });
  return found == packages.end() ? nullptr : &*found;
}

int GetText(const char* function, package_info_h info, std::optional<std::string> Package::* field,
            char** out) {
  const fake::Step step = Begin(function, Name(info));
  return Perform(function, step, out, [&] {
    const Guard guard;
    const auto* object = Find<package_info_s>(function, info, Kind::kPackageInfo);
    if (object == nullptr || out == nullptr) return fake::kInvalidParameter;
    const auto& text = object->package.*field;
    *out = text.has_value() ? HandOut(function, *text) : nullptr;
    return 0;
  });
}

int GetOwn(const char* function, std::string fake::Application::* field, char** out) {
  const fake::Step step = Begin(function, "");
  return Perform(function, step, out, [&] {
    const Guard guard;
    if (out == nullptr) return fake::kInvalidParameter;
    *out = HandOut(function, state().application.*field);
    return 0;
  });
}

/** The handle of one step of the iteration, which lives no longer than the step. */
class StepHandle {
 public:
  explicit StepHandle(const Package& package) {
    const Guard guard;
    info_ = Adopt<package_info_s>(Kind::kPackageInfo);
    info_->package = package;
    info_->borrowed = true;
  }
  ~StepHandle() {
    const Guard guard;
    info_->alive = false;
    --state().live[Kind::kPackageInfo];
  }
  StepHandle(const StepHandle&) = delete;
  StepHandle& operator=(const StepHandle&) = delete;

  package_info_s* get() const { return info_; }

 private:
  package_info_s* info_ = nullptr;
};

bool VisitPackage(const Package& package, package_manager_package_info_cb callback, void* data) {
  const StepHandle info(package);
  bool goes_on = false;
  Shielded("package step", [&] { goes_on = callback(info.get(), data); });
  return goes_on;
}

const char* CStringOrNull(const std::optional<std::string>& text) {
  return text.has_value() ? text->c_str() : nullptr;
}

}  // namespace

int app_get_id(char** id) {
  const fake::internal::Inside inside;
  return GetOwn(__func__, &fake::Application::id, id);
}

int app_get_version(char** version) {
  const fake::internal::Inside inside;
  return GetOwn(__func__, &fake::Application::version, version);
}

char* app_get_resource_path(void) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  char* path = nullptr;
  const fake::Step step = Begin(kFunction, "");
  Perform(kFunction, step, &path, [&] {
    const Guard guard;
    const auto& text = state().application.resource_path;
    if (text.has_value()) path = HandOut(kFunction, *text);
    return 0;
  });
  return path;
}

char* get_error_message(int code) {
  const fake::internal::Inside inside;
  const Guard guard;
  static auto* const texts = new std::map<int, std::string>;
  return texts->emplace(code, fake::ErrorText(code)).first->second.data();
}

int package_info_create(const char* package, package_info_h* package_info) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = Begin(kFunction, Quote(package));
  return Perform(kFunction, step, package_info, [&] {
    const Guard guard;
    if (package == nullptr || package_info == nullptr) return fake::kInvalidParameter;
    const Package* const found = FindPackage(package);
    if (found == nullptr) return fake::kNoSuchPackage;
    auto* const info = Adopt<package_info_s>(Kind::kPackageInfo);
    info->package = *found;
    *package_info = info;
    return 0;
  });
}

int package_info_destroy(package_info_h package_info) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = BeginRelease(kFunction, package_info);
  return Perform(kFunction, step, [&] {
    const Guard guard;
    // The availability check releases whatever a failing look-up has left, garbage too.
    if (fake::internal::IsPoison(package_info)) return fake::kInvalidParameter;
    const auto* object = Find<package_info_s>(kFunction, package_info, Kind::kPackageInfo);
    if (object != nullptr && object->borrowed) {
      fake::Fault(std::string(kFunction) + ": " + Name(package_info) + " is borrowed");
      return fake::kInvalidParameter;
    }
    if (object == nullptr) return fake::kInvalidParameter;
    Destroy(kFunction, package_info, Kind::kPackageInfo);
    return 0;
  });
}

int package_info_get_package(package_info_h package_info, char** package) {
  const fake::internal::Inside inside;
  return GetText(__func__, package_info, &Package::id, package);
}

int package_info_get_version(package_info_h package_info, char** version) {
  const fake::internal::Inside inside;
  return GetText(__func__, package_info, &Package::version, version);
}

int package_manager_foreach_package_info(package_manager_package_info_cb callback,
                                         void* user_data) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = Begin(kFunction, "");
  return Perform(kFunction, step, [&] {
    std::vector<Package> packages;
    {
      const Guard guard;
      packages = state().packages;
    }
    for (const Package& package : packages) {
      if (!VisitPackage(package, callback, user_data)) break;
    }
    return 0;
  });
}

int app_info_create(const char* app_id, app_info_h* app_info) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = Begin(kFunction, Quote(app_id));
  return Perform(kFunction, step, app_info, [&] {
    const Guard guard;
    if (app_id == nullptr || app_info == nullptr) return fake::kInvalidParameter;
    const Package* const found = FindPackage(app_id);
    if (found == nullptr || !found->has_application) return fake::kInvalidParameter;
    auto* const info = Adopt<app_info_s>(Kind::kAppInfo);
    info->package = *found;
    *app_info = info;
    return 0;
  });
}

int app_info_destroy(app_info_h app_info) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = BeginRelease(kFunction, app_info);
  return Perform(kFunction, step, [&] {
    return Destroy(kFunction, app_info, Kind::kAppInfo) != nullptr ? 0 : fake::kInvalidParameter;
  });
}

int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback, void* user_data) {
  const fake::internal::Inside inside;
  static const char* const kFunction = __func__;
  const fake::Step step = Begin(kFunction, Name(app_info));
  return Perform(kFunction, step, [&] {
    std::vector<fake::Metadata> metadata;
    {
      const Guard guard;
      const auto* object = Find<app_info_s>(kFunction, app_info, Kind::kAppInfo);
      if (object == nullptr) return fake::kInvalidParameter;
      metadata = object->package.metadata;
    }
    for (const fake::Metadata& entry : metadata) {
      bool goes_on = false;
      Shielded("metadata step", [&] {
        goes_on = callback(CStringOrNull(entry.key), CStringOrNull(entry.value), user_data);
      });
      if (!goes_on) break;
    }
    return 0;
  });
}
