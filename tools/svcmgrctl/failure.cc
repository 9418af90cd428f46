// SPDX-License-Identifier: Apache-2.0
#include "failure.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <velmora_svcmgr.hpp>

#include "explanations.h"

namespace svcmgrctl {
namespace {

struct ErrorRow {
  int code;
  ExitCode exit;
};

// The others are plain failures.
constexpr ErrorRow kErrors[] = {
    {SVCMGR_ERROR_CONNECTION_FAILED, kExitNoConnection},
    {SVCMGR_ERROR_PERMISSION_DENIED, kExitPermission},
    {SVCMGR_ERROR_NO_SPACE, kExitNoSpace},
    {SVCMGR_ERROR_NOT_CONNECTED, kExitNoConnection},
    {SVCMGR_ERROR_NOT_SUPPORTED, kExitAgentMissing},
    {SVCMGR_ERROR_KYR_DISABLED, kExitKyrDisabled},
    {SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION, kExitAgentMissing},
    {vs::kConnectionLost, kExitNoConnection},
    {vs::kTimedOut, kExitTimeout},
};

}  // namespace

std::string ExitCodeTable() {
  std::string table;
  for (const Explanation& each : Explanations()) {
    if (each.family != Family::kExitStatus) continue;
    const std::string code = std::to_string(each.number);
    table += std::string(5 - code.size(), ' ') + code + "  " + std::string(each.meaning) + "\n";
  }
  return table;
}

std::string RemedyFor(const Failure& failure) {
  return failure.remedy ? *failure.remedy : std::string(HintFor(failure.name));
}

Failure FailureOf(vs::Error error) {
  const int code = error.code();
  const auto* row = std::find_if(std::begin(kErrors), std::end(kErrors),
                                 [code](const ErrorRow& r) { return r.code == code; });
  Failure failure;
  // What the library has no code for is known by its name alone.
  if (code <= 0) failure.code = code;
  failure.name = error.name();
  failure.message = error.meaning();
  if (failure.name == "UNKNOWN") failure.message += " " + std::to_string(code);
  if (row != std::end(kErrors)) failure.exit = row->exit;
  return failure;
}

Failure FailureOf(int code) { return FailureOf(vs::Error(code)); }

Failure FailureOf(int code, std::string message) {
  Failure failure = FailureOf(code);
  failure.message = std::move(message);
  return failure;
}

Failure FailureOf(int code, std::string message, ExitCode exit, std::string remedy) {
  Failure failure = FailureOf(code, std::move(message));
  failure.exit = exit;
  failure.remedy = std::move(remedy);
  return failure;
}

}  // namespace svcmgrctl
