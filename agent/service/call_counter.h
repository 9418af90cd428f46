// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_CALL_COUNTER_H_
#define AGENT_SERVICE_CALL_COUNTER_H_

#include <array>
#include <cstddef>
#include <string>

#include "protocol/messages.h"
#include "scenario/scenario.h"

namespace sim {

/** Counts the calls of each method: of all clients and, with a file, of all the agent's processes. */
class CallCounter {
 public:
  /** Goes on where the file says that the process before has stopped; an empty name: no file. */
  CallCounter(const Scenario& scenario, std::string file);

  /** The number of this call, from 0. It is in the file before anything can come of the call. */
  std::size_t Next(Method method);

 private:
  void Write() const;

  const Scenario& scenario_;
  const std::string file_;
  std::array<std::size_t, kMethodCount> calls_{};
};

}  // namespace sim

#endif  // AGENT_SERVICE_CALL_COUNTER_H_
