// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_MESSAGES_H_
#define BENCH_MESSAGES_H_

#include <cstddef>
#include <string>

// The agent's messages as they travel, length first.

// Where a reply's value begins, a text's with its length: after the prefix and the command.
constexpr std::size_t kReplyHead = 8;
// Where a list begins: after the prefix, the command, delegate, sequence number, once and result.
constexpr std::size_t kListHead = 21;
// Where a list's sequence number stands.
constexpr std::size_t kListSeq = 12;

std::string LevelMessage();
// What the agent says to a request for an update that it takes.
std::string ConsentMessage();
std::string LicenceMessage();
std::string ListMessage(int delegate, int models);
// Its sequence number stands where a list's does.
std::string ProgressMessage(int delegate);

#endif  // BENCH_MESSAGES_H_
