// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_COMPLETION_H_
#define TOOLS_SVCMGRCTL_COMPLETION_H_

#include <CLI/App.hpp>
#include <string>
#include <vector>

#include "command_line.h"

namespace svcmgrctl {

/** How long a person who has pressed the key for completion is kept waiting for the agent. */
inline constexpr double kCompletionSeconds = 1;

/** Makes `invocation` print what may stand in place of the last of these words, one candidate in each
 *  line. It never fails: where nothing can be told, it prints nothing. */
void Complete(const CLI::App& app, const std::vector<std::string>& words, Invocation* invocation);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_COMPLETION_H_
