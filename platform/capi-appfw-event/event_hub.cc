// SPDX-License-Identifier: Apache-2.0
#include "event_hub.h"

#include <bundle_desktop.h>
#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>

namespace events {

namespace {

// Behind the end of a port, whose priority is one above.
constexpr int kPriorityOfHeld = G_PRIORITY_DEFAULT + 2;

struct BundleFree {
  void operator()(bundle* b) const { bundle_free(b); }
};

}  // namespace

EventHub& EventHub::Get() {
  static EventHub& hub = *new EventHub;
  return hub;
}

// Makes sure of a connection that watches for every subscription.
bool EventHub::Connect() {
  // A forked child must not speak on its parent's connection, nor hear what came over it.
  if (process_ != getpid()) DropHeld();
  if (connection_ && (process_ != getpid() || !connection_->IsOpen())) Disconnect();
  if (connection_) return true;
  auto connection = BusConnection::Open();
  if (!connection) return false;
  for (const Handler& handler : handlers_) {
    if (!connection->Watch(handler->name)) return false;
  }
  source_ = AttachBusSource(
      connection->fd(), [] { return Get().Ask(); }, [] { Get().Dispatch(); });
  connection_ = std::move(connection);
  process_ = getpid();
  return true;
}

void EventHub::Disconnect() {
  if (!connection_) return;
  g_source_destroy(source_);
  g_source_unref(source_);
  source_ = nullptr;
  connection_.reset();
}

// At the end of each function of the interface: a connection that nobody needs goes, and the main
// loop, which may be polling in another thread, hears of messages that came in along with an
// answer.
void EventHub::Settle() {
  if (handlers_.empty()) DropHeld();
  if (!connection_) return;
  if (handlers_.empty() && !connection_->IsPublisher()) {
    Disconnect();
  } else if (connection_->WantsTurn()) {
    g_main_context_wakeup(nullptr);
  }
}

// A bus that went away unnoticed shows when it is spoken to; another may have taken its place.
bool EventHub::Watch(const EventName& name) {
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!Connect()) return false;
    if (connection_->Watch(name)) return true;
    if (connection_->IsOpen()) return false;
  }
  return false;
}

int EventHub::Add(const EventName& name, event_cb callback, void* user_data,
                  event_handler_h* added) {
  const std::lock_guard<std::mutex> lock(mutex_);
  auto handler = std::make_shared<event_handler>(event_handler{name, callback, user_data});
  handlers_.reserve(handlers_.size() + 1);
  const bool watched = Watch(name);
  if (watched) {
    *added = handler.get();
    handlers_.push_back(std::move(handler));
  }
  Settle();
  return watched ? 0 : -EIO;
}

bool EventHub::Has(event_handler_h handler) const {
  return std::any_of(handlers_.begin(), handlers_.end(),
                     [handler](const Handler& h) { return h.get() == handler; });
}

int EventHub::Remove(event_handler_h handler) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = std::find_if(handlers_.begin(), handlers_.end(),
                                  [handler](const Handler& h) { return h.get() == handler; });
  if (found == handlers_.end()) return -EINVAL;
  const EventName name = (*found)->name;
  handlers_.erase(found);
  if (connection_ && HandlersOf(name.full).empty()) connection_->Unwatch(name);
  Settle();
  return 0;
}

int EventHub::Publish(const EventName& name, const unsigned char* payload, size_t size) {
  const std::lock_guard<std::mutex> lock(mutex_);
  int result = -EIO;
  for (int attempt = 0; attempt < 2 && Connect(); ++attempt) {
    result = connection_->Publish(name, payload, size);
    if (result != -EIO || connection_->IsOpen()) break;
  }
  Settle();
  return result;
}

std::vector<EventHub::Handler> EventHub::HandlersOf(const std::string& name) {
  std::vector<Handler> found;
  for (const Handler& handler : handlers_) {
    if (handler->name.full == name) found.push_back(handler);
  }
  return found;
}

Wish EventHub::Ask() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!connection_ || held_) return {0, UINT64_MAX};
  const int events = connection_->PollEvents();
  // A connection that is gone is due at once.
  if (events < 0) return {0, 0};
  return {events, connection_->DueTime()};
}

void EventHub::Dispatch() try {
  std::vector<ReceivedEvent> received;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (held_) return;
    if (connection_ && !connection_->Process(&received)) Disconnect();
    if (!received.empty() && received.back().from_successor) {
      Hold(std::move(received.back()));
      received.pop_back();
    }
  }
  for (const ReceivedEvent& event : received) Deliver(event);
} catch (const std::exception&) {
  // Without memory events are lost; the main loop goes on.
}

// What a successor says, clients must hear behind the end of its predecessor. Their ports to that
// one show the end by now, but the main loop polled before: it polls once more, and what it finds
// is dispatched first.
void EventHub::Hold(ReceivedEvent event) {
  held_ = std::move(event);
  held_source_ = g_idle_source_new();
  g_source_set_priority(held_source_, kPriorityOfHeld);
  g_source_set_name(held_source_, "application event of a successor");
  g_source_set_callback(
      held_source_,
      [](void*) -> gboolean {
        Get().Release();
        return G_SOURCE_REMOVE;
      },
      nullptr, nullptr);
  g_source_attach(held_source_, nullptr);
}

void EventHub::DropHeld() {
  if (!held_) return;
  held_.reset();
  g_source_destroy(held_source_);
  g_source_unref(held_source_);
  held_source_ = nullptr;
}

void EventHub::Release() try {
  std::optional<ReceivedEvent> event;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    event.swap(held_);
    if (!event) return;
    g_source_unref(held_source_);
    held_source_ = nullptr;
  }
  Deliver(*event);
} catch (const std::exception&) {
  // As in Dispatch.
}

void EventHub::Deliver(const ReceivedEvent& event) {
  const std::unique_ptr<bundle, BundleFree> data(
      bundle_desktop_decode(event.payload.data(), event.payload.size()));
  if (!data) return;
  std::vector<Handler> handlers;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    handlers = HandlersOf(event.name);
  }
  for (const Handler& handler : handlers) Call(handler, event, data.get());
}

// An earlier handler may have removed this one.
void EventHub::Call(const Handler& handler, const ReceivedEvent& event, bundle* data) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!Has(handler.get())) return;
  }
  handler->callback(event.name.c_str(), data, handler->user_data);
}

}  // namespace events
