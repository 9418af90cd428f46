// SPDX-License-Identifier: Apache-2.0
#include "loop_source.h"

#include <algorithm>
#include <atomic>
#include <new>

namespace rpc_port_desktop {
namespace {

using WeakHandler = std::weak_ptr<LoopSource::Handler>;

// GLib allocates the record and releases it; it is zeroed until Attach. The pointer is atomic
// because the source may be attached by one thread and dispatched by another.
struct SourceRecord {
  GSource base;
  std::atomic<WeakHandler*> handler;
};

std::shared_ptr<LoopSource::Handler> HandlerOf(GSource* source) {
  WeakHandler* handler = reinterpret_cast<SourceRecord*>(source)->handler.load();
  return handler == nullptr ? nullptr : handler->lock();
}

gboolean Prepare(GSource* source, gint* timeout) {
  *timeout = -1;
  const auto handler = HandlerOf(source);
  return handler && handler->HasWork() ? TRUE : FALSE;
}

gboolean Dispatch(GSource* source, GSourceFunc, gpointer) {
  const auto handler = HandlerOf(source);
  if (!handler) return G_SOURCE_REMOVE;
  try {
    handler->Dispatch();
  } catch (const std::bad_alloc&) {
    // What could not be done now is found again by the next dispatch.
  }
  return G_SOURCE_CONTINUE;
}

void Finalize(GSource* source) {
  delete reinterpret_cast<SourceRecord*>(source)->handler.exchange(nullptr);
}

GSourceFuncs source_functions = {Prepare, nullptr, Dispatch, Finalize, nullptr, nullptr};

}  // namespace

LoopSource::LoopSource() : source_(g_source_new(&source_functions, sizeof(SourceRecord))) {
  g_source_set_can_recurse(source_, TRUE);
}

LoopSource::~LoopSource() {
  Destroy();
  g_source_unref(source_);
}

void LoopSource::Attach(WeakHandler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (destroyed_) return;
  reinterpret_cast<SourceRecord*>(source_)->handler = new WeakHandler(std::move(handler));
  g_source_attach(source_, nullptr);
}

void LoopSource::Destroy() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (destroyed_) return;
  destroyed_ = true;
  watched_.clear();
  g_source_destroy(source_);
}

std::vector<LoopSource::Watched>::iterator LoopSource::Find(int fd) {
  return std::find_if(watched_.begin(), watched_.end(),
                      [fd](const Watched& watched) { return watched.fd == fd; });
}

void LoopSource::Watch(int fd, GIOCondition events) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (destroyed_) return;
  auto watched = Find(fd);
  if (watched == watched_.end()) {
    watched_.push_back({fd, events, g_source_add_unix_fd(source_, fd, events)});
  } else if (watched->events != events) {
    watched->events = events;
    if (watched->tag != nullptr) g_source_modify_unix_fd(source_, watched->tag, events);
  }
}

void LoopSource::WatchWritable(int fd, bool wanted) {
  GIOCondition events;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto watched = Find(fd);
    if (watched == watched_.end()) return;
    const auto others = watched->events & ~G_IO_OUT;
    events = static_cast<GIOCondition>(wanted ? others | G_IO_OUT : others);
  }
  Watch(fd, events);
}

void LoopSource::Unwatch(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto watched = Find(fd);
  if (watched == watched_.end()) return;
  if (watched->tag != nullptr) g_source_remove_unix_fd(source_, watched->tag);
  watched_.erase(watched);
}

unsigned LoopSource::EventsOf(int fd) {
  const auto watched = Find(fd);
  if (watched == watched_.end() || watched->tag == nullptr) return 0;
  return g_source_query_unix_fd(source_, watched->tag);
}

std::pair<unsigned, unsigned> LoopSource::Events(int first_fd, int second_fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  return {EventsOf(first_fd), EventsOf(second_fd)};
}

void LoopSource::Pause(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto watched = Find(fd);
  if (watched == watched_.end() || watched->tag == nullptr) return;
  g_source_remove_unix_fd(source_, watched->tag);
  watched->tag = nullptr;
}

void LoopSource::Resume(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto watched = Find(fd);
  if (watched == watched_.end() || watched->tag != nullptr) return;
  watched->tag = g_source_add_unix_fd(source_, fd, watched->events);
}

bool LoopSource::StandBack() {
  constexpr gint kBack = G_PRIORITY_DEFAULT + 1;
  if (g_source_get_priority(source_) == kBack) return false;
  g_source_set_priority(source_, kBack);
  return true;
}

void LoopSource::SetDeadline(gint64 time) { g_source_set_ready_time(source_, time); }

}  // namespace rpc_port_desktop
