// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_MODEL_VERSIONS_H_
#define TOOLS_SVCMGRCTL_MODEL_VERSIONS_H_

#include <optional>
#include <string>
#include <vector>

#include "queries.h"

namespace svcmgrctl {

/** Whether version `a` is newer than `b`: numbers count as numbers, and what a "-" introduces is older
 *  than the version without it. */
bool IsNewer(const std::string& a, const std::string& b);

/** The newest version among these; absent if there is none. */
std::optional<std::string> NewestOf(const std::vector<Model>& versions);

/** The version of the model with this ID among those that are installed; absent if it is not. */
std::optional<std::string> InstalledVersion(const std::vector<Model>& usable,
                                            const std::string& id);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_MODEL_VERSIONS_H_
