// SPDX-License-Identifier: Apache-2.0
#include "statuses.h"

#include <algorithm>
#include <iterator>

#include "velmora_svcmgr.h"

namespace svcmgrctl {
namespace {

struct Row {
  int number;
  const char* name;
  const char* meaning;
};

#define ROW(number, meaning) {number, #number, meaning}

constexpr Row kUpdateStatuses[] = {
    ROW(SVCMGR_UPDATE_STATUS_STARTED, "the update has begun"),
    ROW(SVCMGR_UPDATE_STATUS_COMPLETED, "the update has ended well"),
    ROW(SVCMGR_UPDATE_STATUS_RESULT_1, "the update has failed with the agent's result 1"),
    ROW(SVCMGR_UPDATE_STATUS_RESULT_3, "the update has failed with the agent's result 3"),
    ROW(SVCMGR_UPDATE_STATUS_RESULT_7, "the update has failed with the agent's result 7"),
    ROW(SVCMGR_UPDATE_STATUS_RESULT_10, "the update has failed with the agent's result 10"),
    ROW(SVCMGR_UPDATE_STATUS_FAILED, "the update has failed"),
    ROW(SVCMGR_UPDATE_STATUS_RESULT_13, "the update has failed with the agent's result 13"),
};

constexpr Row kModelStatuses[] = {
    ROW(SVCMGR_AI_STATUS_STARTED, "work on models has begun"),
    ROW(SVCMGR_AI_STATUS_COMPLETED, "work on models has ended well"),
    ROW(SVCMGR_AI_STATUS_FAILED, "work on models has failed"),
};

constexpr Row kConnectionStates[] = {
    ROW(SVCMGR_CONNECTION_STATE_CONNECTED, "the connection stands"),
    ROW(SVCMGR_CONNECTION_STATE_DISCONNECTED, "the connection to the agent was lost"),
    ROW(SVCMGR_CONNECTION_STATE_REJECTED, "the agent refused the connection"),
};

#undef ROW

template <std::size_t size>
Status Find(const Row (&rows)[size], int number) {
  const auto* row = std::find_if(std::begin(rows), std::end(rows),
                                 [number](const Row& each) { return each.number == number; });
  if (row == std::end(rows))
    return {number, "UNKNOWN", "the library reports the unknown number " + std::to_string(number)};
  return {number, row->name, row->meaning};
}

}  // namespace

Status UpdateStatus(int number) { return Find(kUpdateStatuses, number); }
Status ModelStatus(int number) { return Find(kModelStatuses, number); }
Status ConnectionState(int number) { return Find(kConnectionStates, number); }

}  // namespace svcmgrctl
