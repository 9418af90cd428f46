// SPDX-License-Identifier: Apache-2.0
#include "failure.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "velmora_svcmgr.h"

namespace svcmgrctl {
namespace {

struct ExitCodeRow {
  ExitCode exit;
  const char* meaning;
};

constexpr ExitCodeRow kExitCodes[] = {
    {kExitDone, "done"},
    {kExitFailed, "failed"},
    {kExitUsage, "the command line is wrong"},
    {kExitPermission, "permission denied"},
    {kExitNotFound, "no such model, category, folder or marker"},
    {kExitAgentMissing, "the agent is not installed, or too old"},
    {kExitNoConnection, "no connection to the agent"},
    {kExitTimeout, "the agent did not answer in time"},
    {kExitNoSpace, "no storage left on the device"},
    {kExitKyrDisabled, "the KYR feature is disabled"},
    {kExitInterrupted, "interrupted (SIGINT)"},
    {kExitTerminated, "terminated (SIGTERM)"},
};

struct ErrorRow {
  int code;
  const char* name;
  ExitCode exit;
  const char* message;
};

#define ERROR_ROW(code, exit, message) {code, #code, exit, message}

constexpr ErrorRow kErrors[] = {
    ERROR_ROW(SVCMGR_ERROR_CONNECTION_FAILED, kExitNoConnection, "the agent is not running"),
    ERROR_ROW(SVCMGR_ERROR_IO_ERROR, kExitFailed, "input or output failed"),
    ERROR_ROW(SVCMGR_ERROR_OUT_OF_MEMORY, kExitFailed, "memory is exhausted"),
    ERROR_ROW(SVCMGR_ERROR_PERMISSION_DENIED, kExitPermission, "permission denied"),
    ERROR_ROW(SVCMGR_ERROR_INVALID_PARAMETER, kExitFailed, "an argument is not valid"),
    ERROR_ROW(SVCMGR_ERROR_NO_SPACE, kExitNoSpace, "the device has no storage left"),
    ERROR_ROW(SVCMGR_ERROR_INVALID_OPERATION, kExitFailed,
              "the operation could not be carried out"),
    ERROR_ROW(SVCMGR_ERROR_ALREADY_CONNECTED, kExitFailed, "connected already"),
    ERROR_ROW(SVCMGR_ERROR_NOT_CONNECTED, kExitNoConnection, "not connected to the agent"),
    ERROR_ROW(SVCMGR_ERROR_NOT_SUPPORTED, kExitAgentMissing, "the agent is not installed"),
    ERROR_ROW(SVCMGR_ERROR_INVALID_API_LEVEL, kExitFailed, "the agent did not tell its API level"),
    ERROR_ROW(SVCMGR_ERROR_KYR_DISABLED, kExitKyrDisabled, "the KYR feature is disabled"),
    ERROR_ROW(SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION, kExitAgentMissing,
              "the installed agent is too old for this"),
    ERROR_ROW(SVCMGR_ERROR_AGENT_CODE_6, kExitFailed, "the agent reports its result 6"),
    ERROR_ROW(SVCMGR_ERROR_OUT_OF_INDEX, kExitFailed, "a list ended too early"),
    ERROR_ROW(SVCMGR_ERROR_AGENT_CODE_3, kExitFailed, "the agent reports its result 3"),
};

#undef ERROR_ROW

}  // namespace

std::string ExitCodeTable() {
  std::string table;
  for (const ExitCodeRow& row : kExitCodes) {
    std::string code = std::to_string(row.exit);
    table += std::string(5 - code.size(), ' ') + code + "  " + row.meaning + "\n";
  }
  return table;
}

Failure FailureOf(int code) {
  const auto* row = std::find_if(std::begin(kErrors), std::end(kErrors),
                                 [code](const ErrorRow& r) { return r.code == code; });
  if (row == std::end(kErrors))
    return {code, "UNKNOWN", "the library reports the unknown code " + std::to_string(code),
            kExitFailed};
  return {code, row->name, row->message, row->exit};
}

Failure FailureOf(int code, std::string message) {
  Failure failure = FailureOf(code);
  failure.message = std::move(message);
  return failure;
}

Failure FailureOf(int code, std::string message, ExitCode exit) {
  Failure failure = FailureOf(code, std::move(message));
  failure.exit = exit;
  return failure;
}

}  // namespace svcmgrctl
