// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_COMMANDS_H_
#define TOOLS_SVCMGRCTL_COMMANDS_H_

#include <CLI/App.hpp>
#include <functional>
#include <memory>
#include <string>

#include "console.h"
#include "session.h"

namespace svcmgrctl {

/** What a command does: asks the agent, hands its data to the console, or fails with a Failure. A
 *  command that has data in spite of a failure hands it over first. */
using Command = std::function<void(Session&, Console&)>;

// Each adds one family of commands to the command line. The command that the user names, and no
// other, is stored in *chosen.

/** status */
void AddStatusCommand(CLI::App& app, Command* chosen);
/** api-level, license */
void AddAgentCommands(CLI::App& app, Command* chosen);
/** update, updating */
void AddUpdateCommands(CLI::App& app, Command* chosen);
/** models list, models versions, and those of AddModelWorkCommands */
void AddModelCommands(CLI::App& app, Command* chosen);
/** update, uninstall: below models */
void AddModelWorkCommands(CLI::App& models, Command* chosen);
/** client-level */
void AddClientLevelCommand(CLI::App& app, Command* chosen);
/** doctor */
void AddDoctorCommand(CLI::App& app, Command* chosen);
/** explain */
void AddExplainCommand(CLI::App& app, Command* chosen);
/** watch */
void AddWatchCommand(CLI::App& app, Command* chosen);

/** --listen SECONDS, for a command that listens for updates. */
void AddListenOption(CLI::App& command, const std::shared_ptr<double>& listen);

/** What is wrong with a number of seconds; empty if nothing is. */
std::string CheckSeconds(const std::string& text);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_COMMANDS_H_
