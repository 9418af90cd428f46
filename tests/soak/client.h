// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SOAK_CLIENT_H_
#define TESTS_SOAK_CLIENT_H_

#include <atomic>
#include <cstdint>
#include <string>

namespace soak {

/** A fault of a client itself, which the judges must find. */
enum class Plant { kNone, kMissed, kExtra, kOrder, kDescriptor, kSource, kMemory };

/** What the clients of a world share with the process that disturbs it. */
struct Shared {
  static constexpr int kClients = 8;

  /** Nothing new is to be asked. Each client then awaits what is under way, and the last event. */
  std::atomic<bool> settles;
  /** Bytes that one answer keeps, by kind; measured by the first client before anything happens. */
  std::atomic<long> kept[2];
  std::atomic<bool> measured;
  struct Slot {
    std::atomic<long> answers;
    std::atomic<long> notices;
    std::atomic<long> events;
    std::atomic<bool> settled;
  } slots[kClients];
};

/** How a client's process ends, beside EXIT_SUCCESS. */
constexpr int kStranded = 3;

struct ClientOptions {
  int slot = 0;
  std::uint32_t seed = 0;
  std::string log;
  Plant plant = Plant::kNone;
};

/**
 * A client's whole life, in a process of its own that has not called the library yet: it asks, follows
 * events, connects again where the library does not, and writes a line of what it does and is told,
 * until it is to settle or only a new process helps. Returns the process's exit status.
 */
int RunClient(const ClientOptions& options, Shared* shared);

}  // namespace soak

#endif  // TESTS_SOAK_CLIENT_H_
