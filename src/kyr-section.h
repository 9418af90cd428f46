// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_KYR_SECTION_H_
#define SVCMGR_KYR_SECTION_H_

#include <ftw.h>
#include <sys/stat.h>

#include <cstdint>

#include "text.h"

namespace svcmgr {

// What a marker section says: the client API level and version that a file was built against.
struct KyrRecord {
  char magic[4];
  std::uint16_t reserved;
  std::uint16_t format;
  std::uint16_t api_level;
  std::uint16_t version_major;
  std::uint16_t version_minor;
  std::uint16_t version_patch;
};
static_assert(sizeof(KyrRecord) == 16);

using OwnedKyrRecord = std::unique_ptr<KyrRecord, FreeDeleter>;

}  // namespace svcmgr

// Searches all files below a folder; the newest record, or null, logged, if there is none. Calls
// from several threads at once interfere.
svcmgr::OwnedKyrRecord kyr_section_get_latest(const char* root_path);

// The step of that search: reads one file. Always returns 0, so that the search goes on.
int kyr_section_read_file(const char* path, const struct stat* status, int type, struct FTW* place);

#endif  // SVCMGR_KYR_SECTION_H_
