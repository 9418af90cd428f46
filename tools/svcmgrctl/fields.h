// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_FIELDS_H_
#define TOOLS_SVCMGRCTL_FIELDS_H_

#include <CLI/App.hpp>
#include <string>
#include <vector>

namespace svcmgrctl {

/** The fields of the records that a command prints as it was given: what its JSON calls them, without
 *  what is nested. Empty for what prints no records. */
std::vector<std::string> FieldsOf(const CLI::App& command);

/** Those of all forms that the command has. */
std::vector<std::string> AllFieldsOf(const CLI::App& command);

/** What help says of them, in lines; empty where there are none. */
std::string FieldsForHelp(const CLI::App& command);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_FIELDS_H_
