// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SOAK_JUDGE_H_
#define TESTS_SOAK_JUDGE_H_

#include <cstddef>
#include <string>
#include <vector>

#include "history.h"

namespace soak {

/**
 * Holds what a client was told against a model of the library: every state that the library can be
 * in, after all that the client has done and all that the agents have said, is followed at once. What
 * no state allows is a finding: something missed, extra, or out of order. Of a client, the first is
 * reported. Returns the findings, for people.
 */
std::vector<std::string> JudgeWhatWasTold(const History& history, const ClientLog& client);

/**
 * Holds what agents have read against what the client has asked: nothing else, nothing twice, all in
 * its order.
 */
std::vector<std::string> JudgeRequests(const History& history, const ClientLog& client);

/** What a client uses, at a moment at which it has asked nothing. */
struct Usage {
  long descriptors = 0;
  long sources = 0;  // of the default main context
  long memory = 0;   // allocated bytes, without what answers keep on purpose
};

/** The usages that a client has noted. */
std::vector<Usage> UsagesOf(const ClientLog& client);

/** Of how many usages on they are judged. */
constexpr std::size_t kFewestUsages = 8;

/** Whether a client uses more in the last quarter of its life than in the first. */
std::vector<std::string> JudgeUsage(const ClientLog& client);

}  // namespace soak

#endif  // TESTS_SOAK_JUDGE_H_
