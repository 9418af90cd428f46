// SPDX-License-Identifier: Apache-2.0
#include "app_info.h"

#include <app_info_record.h>
#include <errno.h>

int app_info_create(const char* app_id, app_info_h* app_info) {
  if (!app_id || !app_info) return -EINVAL;
  const app_info_s* held = nullptr;
  if (const int error = packages::HoldApplication(app_id, &held)) return error;
  *app_info = const_cast<app_info_h>(held);
  return 0;
}

int app_info_destroy(app_info_h app_info) {
  if (!app_info) return -EINVAL;
  packages::ReleaseApplication(app_info);
  return 0;
}

int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback, void* user_data) {
  if (!app_info || !callback) return -EINVAL;
  for (const auto& [key, value] : app_info->metadata) {
    if (!callback(key.c_str(), value.c_str(), user_data)) break;
  }
  return 0;
}
