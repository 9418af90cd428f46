// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_EVENT_BUS_SOURCE_H_
#define PLATFORM_EVENT_BUS_SOURCE_H_

#include <glib.h>
#include <stdint.h>

namespace events {

// What a connection wants from the main loop at the moment.
struct Wish {
  int fd = -1;            // what to poll; -1 for what was polled before
  int poll_events = 0;    // for poll(2)
  uint64_t due_time = 0;  // on CLOCK_MONOTONIC in microseconds; UINT64_MAX for never
};

// Attaches a source for the descriptor to the default main context. `ask` is called before and
// after each poll; `dispatch` when the descriptor or the time has come. Both may be called until
// the source is destroyed, and once more by a dispatch that is under way in another thread.
GSource* AttachBusSource(int fd, Wish (*ask)(), void (*dispatch)());

}  // namespace events

#endif  // PLATFORM_EVENT_BUS_SOURCE_H_
