// SPDX-License-Identifier: Apache-2.0
#include "loop_source.h"

#include <algorithm>
#include <atomic>
#include <new>

#include "forks.h"

namespace rpc_port_desktop {
namespace {

using WeakHandler = std::weak_ptr<LoopSource::Handler>;

constexpr gint64 kRest = G_USEC_PER_SEC / 10;

// What a source is attached for.
struct Attachment {
  WeakHandler handler;
  LoopSource* source;  // lives as long as the handler
  Birth birth;
};

// GLib allocates the record and releases it; it is zeroed until Attach. The pointer is atomic
// because the source may be attached by one thread and dispatched by another.
struct SourceRecord {
  GSource base;
  std::atomic<Attachment*> attachment;
};

}  // namespace

// What the main loop calls.
struct SourceCalls {
  static Attachment* Of(GSource* source) {
    return reinterpret_cast<SourceRecord*>(source)->attachment.load();
  }

  static gboolean Prepare(GSource* source, gint* timeout) {
    *timeout = -1;
    const Attachment* const attachment = Of(source);
    if (attachment == nullptr) return FALSE;
    // So that it is dispatched once more, and dropped.
    if (attachment->birth.IsInherited()) return TRUE;
    const auto handler = attachment->handler.lock();
    return handler && !attachment->source->resting_ && handler->HasWork() ? TRUE : FALSE;
  }

  static gboolean Dispatch(GSource* source, GSourceFunc, gpointer) {
    const Attachment* const attachment = Of(source);
    if (attachment == nullptr || attachment->birth.IsInherited()) return G_SOURCE_REMOVE;
    const auto handler = attachment->handler.lock();
    if (!handler) return G_SOURCE_REMOVE;
    LoopSource* const self = attachment->source;
    // The next turn of the loop tells what the descriptors show now.
    if (self->EndRest()) return G_SOURCE_CONTINUE;
    try {
      handler->Dispatch();
    } catch (const std::bad_alloc&) {
      self->Rest();
    }
    return G_SOURCE_CONTINUE;
  }

  static void Finalize(GSource* source) {
    delete reinterpret_cast<SourceRecord*>(source)->attachment.exchange(nullptr);
  }
};

namespace {

GSourceFuncs source_functions = {SourceCalls::Prepare,  nullptr, SourceCalls::Dispatch,
                                 SourceCalls::Finalize, nullptr, nullptr};

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
  reinterpret_cast<SourceRecord*>(source_)->attachment =
      new Attachment{std::move(handler), this, {}};
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
    watched_.push_back({fd, events, /*paused=*/false, nullptr});
    Arm(&watched_.back());
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

// Has the descriptor polled, or not. Needs the mutex, as does the next one.
void LoopSource::Arm(Watched* watched) {
  const bool wanted = !watched->paused && !resting_;
  if (wanted && watched->tag == nullptr) {
    watched->tag = g_source_add_unix_fd(source_, watched->fd, watched->events);
  } else if (!wanted && watched->tag != nullptr) {
    g_source_remove_unix_fd(source_, std::exchange(watched->tag, nullptr));
  }
}

void LoopSource::SetReadyTime() {
  if (!destroyed_) g_source_set_ready_time(source_, resting_ ? end_of_rest_ : deadline_);
}

void LoopSource::Pause(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto watched = Find(fd);
  if (watched == watched_.end()) return;
  watched->paused = true;
  Arm(&*watched);
}

void LoopSource::Resume(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto watched = Find(fd);
  if (watched == watched_.end()) return;
  watched->paused = false;
  Arm(&*watched);
}

void LoopSource::Rest() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (destroyed_ || resting_) return;
  resting_ = true;
  end_of_rest_ = g_get_monotonic_time() + kRest;
  for (Watched& watched : watched_) Arm(&watched);
  SetReadyTime();
}

// False if it did not rest.
bool LoopSource::EndRest() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (destroyed_ || !resting_) return false;
  resting_ = false;
  for (Watched& watched : watched_) Arm(&watched);
  SetReadyTime();
  return true;
}

bool LoopSource::StandBack() {
  constexpr gint kBack = G_PRIORITY_DEFAULT + 1;
  if (g_source_get_priority(source_) == kBack) return false;
  g_source_set_priority(source_, kBack);
  return true;
}

void LoopSource::SetDeadline(gint64 time) {
  std::lock_guard<std::mutex> lock(mutex_);
  deadline_ = time;
  SetReadyTime();
}

}  // namespace rpc_port_desktop
