// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_EVENT_SOURCE_H
#define AGENT_SERVICE_EVENT_SOURCE_H

#include <functional>

namespace sim {

/**
 * Something that the default main context waits for. It is no longer waited for when this object
 * goes, which the action itself may bring about. Stays where it is: the main context knows it.
 */
class EventSource {
 public:
  EventSource() = default;
  ~EventSource() { Stop(); }
  EventSource(const EventSource&) = delete;
  EventSource& operator=(const EventSource&) = delete;

  /** Runs an action once, after so many milliseconds, in the place of what was waited for. */
  void After(unsigned milliseconds, std::function<void()> action);

  /** Runs an action each time that there is something to read, or the peer is gone. */
  void WhenReadable(int fd, std::function<void()> action);

  void Stop();

 private:
  struct Waiting;
  unsigned id_ = 0;  // 0: nothing is waited for
};

}  // namespace sim

#endif  // AGENT_SERVICE_EVENT_SOURCE_H
