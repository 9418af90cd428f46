// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_FAILURE_H_
#define TOOLS_SVCMGRCTL_FAILURE_H_

#include <optional>
#include <string>
#include <velmora_svcmgr.hpp>

namespace svcmgrctl {

namespace vs = velmora::svcmgr;

/** What the process ends with. Scripts rely on the numbers: none of them ever changes its meaning.
 */
enum ExitCode {
  kExitDone = 0,
  kExitFailed = 1,
  kExitUsage = 2,
  kExitPermission = 3,
  kExitNotFound = 4,
  kExitAgentMissing = 5,
  kExitNoConnection = 6,
  kExitTimeout = 7,
  kExitNoSpace = 8,
  kExitKyrDisabled = 9,
  kExitInterrupted = 130,
  kExitTerminated = 143,
};

/** The exit codes and their meanings, one line each, for people. */
std::string ExitCodeTable();

/** Why a command failed. Thrown; the one place that catches it reports it and ends the process. */
struct Failure {
  /** The library's code; absent where the failure is the program's own. */
  std::optional<int> code;
  /** The code's name in the public header, or the program's own name for what happened. */
  std::string name;
  /** For people, not yet made safe for a terminal. */
  std::string message;
  ExitCode exit = kExitFailed;
  /** What a person does about it, in a few words; absent where the name says enough for that, empty
   *  where there is nothing to say. */
  std::optional<std::string> remedy = std::nullopt;
};

/** What a person does about a failure, in a few words; empty where there is nothing to say. */
std::string RemedyFor(const Failure& failure);

/** The failure that an error stands for. Codes that are not in the header, which a newer library may
 *  return, make a plain failure. */
Failure FailureOf(vs::Error error);

/** The same for a code of velmora_svcmgr_error_e. */
Failure FailureOf(int code);

/** The same, with a message that knows more than the code does. */
Failure FailureOf(int code, std::string message);

/** The same, with another exit code too: another failure than that which the code usually stands for,
 *  with a remedy of its own. */
Failure FailureOf(int code, std::string message, ExitCode exit, std::string remedy);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_FAILURE_H_
