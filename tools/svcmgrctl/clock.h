// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_CLOCK_H_
#define TOOLS_SVCMGRCTL_CLOCK_H_

#include <string>

namespace svcmgrctl {

/** The time of day, local, to the millisecond: 2030-01-31T09:05:00.250+01:00 */
std::string WallTime();

/** Seconds on a clock that nobody sets. */
double Now();

/** Seconds to the millisecond. */
double Rounded(double seconds);

/** A number with one digit after the point, whatever the locale says. */
std::string Tenths(double number);

/** How long something has taken so far, in front of what is said about it. */
std::string Stamped(double seconds, const std::string& text);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_CLOCK_H_
