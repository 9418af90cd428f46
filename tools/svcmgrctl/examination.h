// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_EXAMINATION_H_
#define TOOLS_SVCMGRCTL_EXAMINATION_H_

#include <optional>
#include <string>
#include <vector>

#include "session.h"

namespace svcmgrctl {

/** How one part is. */
enum class Health { kWell, kIll, kUnknown };

/** What was found of one part. */
struct Finding {
  /** The part's name for programs, and for people. */
  const char* part;
  const char* title;
  Health health;
  std::string what;
  /** What to do about it; empty where there is nothing to do. */
  std::string remedy;
  /** With which the command ends, where it is the first. */
  std::optional<Failure> failure;
};

/**
 * Looks at all that has to be well between this machine and the agent: at one thing after the other,
 * each as far as those before let it. Being interrupted is a Failure; all else is a finding.
 *
 * @param timeout  Seconds that all of it may take, as the session knows too; 0 for no limit.
 * @param listen   Seconds for which to listen for updates at the end.
 */
std::vector<Finding> Examine(Session& session, double timeout, double listen);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_EXAMINATION_H_
