// SPDX-License-Identifier: Apache-2.0
#include "category_lookup.h"

#include <app_info.h>
#include <package_manager.h>

#include <cstring>
#include <exception>

#include "SvcmgrException.h"
#include "kept_blocks.h"
#include "package_info_handle.h"
#include "thread_exit.h"

namespace svcmgr {

namespace {

struct CategorySearch {
  AppIdentity match;
  const char* category = nullptr;
  bool found = false;
  // What a step could not throw through the platform's C code.
  std::exception_ptr failure;
};

// The steps below return whether the iteration goes on.

bool MatchCategory(const char* key, const char* value, void* user_data) {
  constexpr char kCategoryKey[] = "ai-agent-category";
  auto* search = static_cast<CategorySearch*>(user_data);
  if (key == nullptr || std::strcmp(key, kCategoryKey) != 0) return true;
  if (value == nullptr || std::strcmp(value, search->category) != 0) return true;
  search->found = true;
  return false;
}

bool SearchPackage(package_info_h package, CategorySearch& search) {
  const Text id = ReadPackageText(package, package_info_get_package);
  if (id == nullptr) return false;
  const Text version = ReadPackageText(package, package_info_get_version);
  if (version == nullptr) return false;
  if (std::strstr(id.get(), VENDOR_PACKAGE_PREFIX) == nullptr) return true;

  app_info_h app = nullptr;
  if (app_info_create(id.get(), &app) != 0 || app == nullptr) return false;
  // The app info is kept on purpose: which platform functions this look-up calls is fixed.
  KeepBlock(app);
  app_info_foreach_metadata(app, MatchCategory, &search);
  if (!search.found) return true;
  search.match = {id.get(), version.get()};
  return false;
}

bool SearchPackageStep(package_info_h package, void* user_data) {
  auto* search = static_cast<CategorySearch*>(user_data);
  try {
    return SearchPackage(package, *search);
  }
  LET_THREAD_EXIT_PASS
  catch (...) {
    search->failure = std::current_exception();
    return false;
  }
}

}  // namespace

AppIdentity FindPackageOfCategory(const char* category) {
  if (category == nullptr) throw NoSuchAppException();
  CategorySearch search;
  search.category = category;
  // The result is ignored: an iteration that fails after a match has done its work.
  package_manager_foreach_package_info(SearchPackageStep, &search);
  if (search.failure != nullptr) std::rethrow_exception(search.failure);
  if (!search.found) throw NoSuchAppException();
  return search.match;
}

}  // namespace svcmgr
