// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_EVENT_SOURCE_H_
#define AGENT_SERVICE_EVENT_SOURCE_H_

#include <functional>

namespace sim {

/**
 * Something that the default main context waits for, until this object is destroyed, which the
 * action itself may do. It cannot be moved: the main context knows its address.
 */
class EventSource {
 public:
  EventSource() = default;
  ~EventSource() { Stop(); }
  EventSource(const EventSource&) = delete;
  EventSource& operator=(const EventSource&) = delete;

  /** Runs an action once, after this many milliseconds, instead of what was waited for. */
  void After(unsigned milliseconds, std::function<void()> action);

  /** Runs an action each time that there is something to read, or the peer is gone. */
  void WhenReadable(int fd, std::function<void()> action);

  void Stop();

 private:
  struct Waiting;
  unsigned id_ = 0;  // 0: nothing is waited for
};

}  // namespace sim

#endif  // AGENT_SERVICE_EVENT_SOURCE_H_
