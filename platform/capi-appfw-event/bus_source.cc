// SPDX-License-Identifier: Apache-2.0
#include "bus_source.h"

#include <poll.h>

#include <algorithm>

namespace events {

namespace {

struct BusSource {
  GSource base;
  gpointer tag;
  int fd;
  Wish (*ask)();
  void (*dispatch)();
  int poll_events;  // what the descriptor is polled for now
  uint64_t due_time;
};

bool IsDue(const BusSource& source) {
  return static_cast<uint64_t>(g_get_monotonic_time()) >= source.due_time;
}

gboolean Prepare(GSource* base, gint* timeout_ms) {
  auto* source = reinterpret_cast<BusSource*>(base);
  const Wish wish = source->ask();
  source->due_time = wish.due_time;
  if (wish.fd >= 0 && wish.fd != source->fd) {
    g_source_remove_unix_fd(base, source->tag);
    source->fd = wish.fd;
    source->poll_events = wish.poll_events;
    source->tag = g_source_add_unix_fd(base, wish.fd, static_cast<GIOCondition>(wish.poll_events));
  }
  // Only what changes: each modification wakes the loop, which would never sleep again.
  if (wish.poll_events != source->poll_events) {
    source->poll_events = wish.poll_events;
    g_source_modify_unix_fd(base, source->tag, static_cast<GIOCondition>(wish.poll_events));
  }
  *timeout_ms = -1;
  if (wish.due_time == UINT64_MAX) return FALSE;
  if (IsDue(*source)) return TRUE;
  const uint64_t now = static_cast<uint64_t>(g_get_monotonic_time());
  const uint64_t wait_ms = wish.due_time > now ? (wish.due_time - now) / 1000 + 1 : 0;
  *timeout_ms = static_cast<gint>(std::min<uint64_t>(wait_ms, G_MAXINT));
  return FALSE;
}

gboolean Check(GSource* base) {
  auto* source = reinterpret_cast<BusSource*>(base);
  // Another thread may have read messages meanwhile, which come before other sources.
  source->due_time = source->ask().due_time;
  // A hang-up shows even where nothing is polled for.
  const bool shows = source->poll_events != 0 && g_source_query_unix_fd(base, source->tag) != 0;
  return shows || IsDue(*source);
}

gboolean Dispatch(GSource* base, GSourceFunc, gpointer) {
  reinterpret_cast<BusSource*>(base)->dispatch();
  return G_SOURCE_CONTINUE;
}

GSourceFuncs functions = {Prepare, Check, Dispatch, nullptr, nullptr, nullptr};

}  // namespace

GSource* AttachBusSource(int fd, Wish (*ask)(), void (*dispatch)()) {
  GSource* base = g_source_new(&functions, sizeof(BusSource));
  auto* source = reinterpret_cast<BusSource*>(base);
  source->tag = g_source_add_unix_fd(base, fd, G_IO_IN);
  source->fd = fd;
  source->ask = ask;
  source->dispatch = dispatch;
  source->poll_events = G_IO_IN;
  source->due_time = 0;
  g_source_set_name(base, "application events");
  // A handler may run its own main loop.
  g_source_set_can_recurse(base, TRUE);
  g_source_attach(base, nullptr);
  return base;
}

}  // namespace events
