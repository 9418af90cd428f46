// SPDX-License-Identifier: Apache-2.0
#include "statuses.h"

#include "explanations.h"

namespace svcmgrctl {
namespace {

Status Find(Family family, int number) {
  const Explanation* found = FindExplanation(family, number);
  if (found == nullptr)
    return {number, "UNKNOWN", "the library reports the unknown number " + std::to_string(number)};
  return {number, std::string(found->name), std::string(found->meaning)};
}

}  // namespace

Status UpdateStatus(int number) { return Find(Family::kUpdateStatus, number); }
Status ModelStatus(int number) { return Find(Family::kModelStatus, number); }
Status ConnectionState(int number) { return Find(Family::kConnectionState, number); }

}  // namespace svcmgrctl
