// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_PACKAGE_MANAGER_SNAPSHOT_READER_H_
#define PLATFORM_PACKAGE_MANAGER_SNAPSHOT_READER_H_

#include <string>
#include <string_view>

#include "snapshot.h"

namespace packages {

inline constexpr std::string_view kKeyFileSuffix = ".package";

// Whether a folder's entry of this name is a package's key file.
bool IsKeyFileName(std::string_view name);

// Whether a package may have this ID: it is the name of a file that is not hidden.
bool IsPackageId(std::string_view id);

// Fills `package` from the text of its key file. On failure `complaint` says why.
bool ParsePackage(std::string_view id, std::string_view text, package_info_s* package,
                  std::string* complaint);

// Reads a folder; one that does not exist has no packages, and a key file that is broken is left
// out with a complaint. Returns 0 or a negative code if the folder cannot be read for now.
int ReadFolder(const std::string& folder, Snapshot::Content* content);

}  // namespace packages

#endif  // PLATFORM_PACKAGE_MANAGER_SNAPSHOT_READER_H_
