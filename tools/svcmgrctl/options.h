// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_OPTIONS_H_
#define TOOLS_SVCMGRCTL_OPTIONS_H_

#include <optional>
#include <string>

#include "selection.h"

namespace svcmgrctl {

/** When to use colours. */
enum class ColorWhen { kAuto, kAlways, kNever };

/** What is said once, for every command. */
struct Options {
  /** Data and errors as JSON documents. */
  bool json = false;
  /** The library's log records too. */
  bool verbose = false;
  /** Nothing but data and errors. */
  bool quiet = false;
  /** Tables whole, also where they do not fit the terminal. */
  bool no_trunc = false;
  /** Seconds that the whole command may take; 0 for no limit. */
  double timeout = 30;
  ColorWhen color = ColorWhen::kAuto;
  /** The form of the data, as it was given. */
  std::optional<std::string> format;
  std::optional<std::string> fields;
  /** The same, understood; absent where the form is the usual one. */
  std::optional<Selection> selection;
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_OPTIONS_H_
