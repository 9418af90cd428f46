// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_BARS_H_
#define TOOLS_SVCMGRCTL_BARS_H_

#include <string>
#include <vector>

#include "space.h"
#include "work_progress.h"

namespace svcmgrctl {

/** A length of time for people: 12 s, 3 min 5 s, 2 h 10 min. */
std::string Duration(double seconds);

/** How fast it goes and how long it will take, or that it does not go; empty if nothing can be
 *  told. */
std::string Pace(const WorkProgress& progress, double now);

/** A bar for each model and one for the whole. Where there is not space for all, those around the
 *  current model are shown. The lines fit from 20 columns on. `names` must be safe for a terminal,
 *  one for each model. */
std::vector<std::string> Bars(const std::vector<std::string>& names, const WorkProgress& progress,
                              double now, Space space, bool color = false);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_BARS_H_
