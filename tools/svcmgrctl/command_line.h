// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_COMMAND_LINE_H_
#define TOOLS_SVCMGRCTL_COMMAND_LINE_H_

#include <string>
#include <vector>

#include "commands.h"
#include "options.h"

namespace svcmgrctl {

/** What the command line asks for. */
struct Invocation {
  Options options;
  /** Empty if only a text is asked for. */
  Command command;
  /** Help, version or completions. */
  std::string text;
};

/**
 * Reads the command line. A wrong one is a Failure that exits with kExitUsage;
 * `invocation->options` then still tell the form in which to report it.
 */
void ReadCommandLine(int argc, const char* const* argv, Invocation* invocation);

/** The same for words, the first of which is the program's name. */
void ReadCommandLine(const std::vector<std::string>& words, Invocation* invocation);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_COMMAND_LINE_H_
