// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_STATUSES_H_
#define TOOLS_SVCMGRCTL_STATUSES_H_

#include <string>

namespace svcmgrctl {

/** A number that the library reports, as the public header names it. */
struct Status {
  int number;
  /** "UNKNOWN" for a number that is not in the header, which a newer library may report. */
  std::string name;
  /** For people. */
  std::string meaning;
};

Status UpdateStatus(int number);
Status ModelStatus(int number);
Status ConnectionState(int number);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_STATUSES_H_
