// SPDX-License-Identifier: Apache-2.0
#include "service/event_source.h"

#include <glib-unix.h>

#include <utility>

namespace sim {

// The main context keeps it until the action has returned.
struct EventSource::Waiting {
  EventSource* source;
  std::function<void()> action;

  static void Delete(gpointer waiting) { delete static_cast<Waiting*>(waiting); }

  static gboolean RunOnce(gpointer data) {
    const auto* waiting = static_cast<Waiting*>(data);
    waiting->source->id_ = 0;  // the action may wait for something else, or end the source
    waiting->action();
    return G_SOURCE_REMOVE;
  }

  static gboolean Run(gint, GIOCondition, gpointer data) {
    static_cast<Waiting*>(data)->action();
    return G_SOURCE_CONTINUE;
  }
};

void EventSource::After(unsigned milliseconds, std::function<void()> action) {
  Stop();
  id_ = g_timeout_add_full(G_PRIORITY_DEFAULT, milliseconds, Waiting::RunOnce,
                           new Waiting{this, std::move(action)}, Waiting::Delete);
}

void EventSource::WhenReadable(int fd, std::function<void()> action) {
  Stop();
  // A hang-up is told unasked.
  id_ = g_unix_fd_add_full(G_PRIORITY_DEFAULT, fd, G_IO_IN, Waiting::Run,
                           new Waiting{this, std::move(action)}, Waiting::Delete);
}

void EventSource::Stop() {
  if (id_ != 0) g_source_remove(std::exchange(id_, 0));
}

}  // namespace sim
