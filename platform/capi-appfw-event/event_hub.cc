// SPDX-License-Identifier: Apache-2.0
#include "event_hub.h"

#include <bundle_desktop.h>
#include <dlog.h>
#include <errno.h>
#include <pthread.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "owned.h"

namespace events {

namespace {

// Behind the end of a port, whose priority is one above.
constexpr int kPriorityOfHeld = G_PRIORITY_DEFAULT + 2;
constexpr char kLogTag[] = "APP_EVENT";
// A subscription that takes longer goes on by itself.
constexpr uint64_t kSubscriptionPatienceUs = 100 * 1000;
constexpr uint64_t kPublicationPatienceUs = 2 * 1000 * 1000;
constexpr uint64_t kSettlementPatienceUs = 60 * 1000 * 1000;
constexpr guint kFirstRetryMs = 250;
constexpr guint kToldRetryMs = 500;
constexpr guint kLastRetryMs = 60 * 1000;

uint64_t Now() { return static_cast<uint64_t>(g_get_monotonic_time()); }

}  // namespace

EventHub& EventHub::Get() {
  static EventHub& hub = []() -> EventHub& {
    auto* made = new EventHub;
    pthread_atfork([] { Get().mutex_.lock(); }, [] { Get().mutex_.unlock(); },
                   [] {
                     Get().inherited_ = true;
                     Get().mutex_.unlock();
                   });
    return *made;
  }();
  return hub;
}

// A forked child has none of its parent's subscriptions. At its first use of them, not while it is
// forked: what the main loop and the bus hold must be let go of.
void EventHub::LeaveParent() {
  if (!inherited_) return;
  if (connection_) {
    // Kept, because sd-bus releases in a child nothing of what was made before.
    of_parents_.push_back(std::move(connection_));
    g_source_destroy(source_);
    g_source_unref(source_);
    source_ = nullptr;
  }
  handlers_.clear();
  DropHeld();
  StopRetrying();
  retry_ms_ = 0;
  inherited_ = false;
}

// Makes sure of a connection, which may be one that is being opened, that watches for every
// subscription.
int EventHub::Connect() {
  if (connection_ && !connection_->IsOpen()) Disconnect();
  if (connection_) return 0;
  int error = 0;
  auto connection = BusConnection::Open(&error);
  if (!connection) return error;
  for (const Handler& handler : handlers_) {
    if (!connection->Watch(handler->name)) return -EIO;
  }
  source_ = AttachBusSource(
      connection->fd(), [] { return Get().Ask(); }, [] { Get().Dispatch(); });
  connection_ = std::move(connection);
  return 0;
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
  if (handlers_.empty()) {
    DropHeld();
    StopRetrying();
  }
  if (!connection_) return;
  if (handlers_.empty() && !connection_->IsPublisher()) {
    Disconnect();
  } else if (connection_->WantsTurn()) {
    g_main_context_wakeup(nullptr);
  }
}

bool EventHub::IsSettled() const {
  return std::all_of(handlers_.begin(), handlers_.end(), [this](const Handler& handler) {
    return connection_ && connection_->IsOpen() && connection_->Stands(handler->name);
  });
}

// What failed later than its caller could hear of is tried again, less and less often; and what is
// under way is looked after.
void EventHub::RetryLater() {
  if (retry_ || handlers_.empty()) return;
  retry_ms_ = std::clamp(retry_ms_ * 2, kFirstRetryMs, kLastRetryMs);
  retry_ = g_timeout_source_new(retry_ms_);
  g_source_set_name(retry_, "search for a session bus");
  g_source_set_callback(
      retry_,
      [](void*) -> gboolean {
        Get().Retry();
        return G_SOURCE_REMOVE;
      },
      nullptr, nullptr);
  g_source_attach(retry_, nullptr);
}

void EventHub::StopRetrying() {
  if (!retry_) return;
  g_source_destroy(retry_);
  g_source_unref(retry_);
  retry_ = nullptr;
}

void EventHub::Retry() try {
  const std::lock_guard<std::mutex> lock(mutex_);
  LeaveParent();
  if (!retry_) return;
  StopRetrying();
  bool is_asked = Connect() == 0;
  for (size_t i = 0; is_asked && i < handlers_.size(); ++i) {
    is_asked = connection_->Watch(handlers_[i]->name);
  }
  if (IsSettled()) return;
  if (is_asked && retry_ms_ == kToldRetryMs) {
    dlog_print(DLOG_WARN, kLogTag,
               "The session bus does not answer: there are no events until then");
  }
  RetryLater();
} catch (const std::exception&) {
  const std::lock_guard<std::mutex> lock(mutex_);
  RetryLater();
}

// A bus that went away unnoticed shows when it is spoken to; another may have taken its place.
template <typename Use>
int EventHub::UseConnection(Use use) {
  int result = -EIO;
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int error = Connect();
    if (error < 0) return error == -EAGAIN ? error : -EIO;
    result = use();
    if (result != -EIO || connection_->IsOpen()) break;
  }
  return result;
}

// Success also for what is still under way: the subscription takes effect by itself.
int EventHub::Watch(const EventName& name, uint64_t deadline) {
  const int result = UseConnection([&] {
    if (!connection_->Watch(name)) return -EIO;
    switch (connection_->AwaitWatch(name, deadline)) {
      case Outcome::kStands:
        return 0;
      case Outcome::kUnderWay:
        return -EAGAIN;
      case Outcome::kRefused:
      case Outcome::kGone:
        break;
    }
    return -EIO;
  });
  return result == -EAGAIN ? 0 : result;
}

int EventHub::Add(const EventName& name, event_cb callback, void* user_data,
                  event_handler_h* added) {
  const std::lock_guard<std::mutex> lock(mutex_);
  LeaveParent();
  auto handler = std::make_shared<event_handler>(event_handler{name, callback, user_data});
  handlers_.reserve(handlers_.size() + 1);
  const int result = Watch(name, Now() + kSubscriptionPatienceUs);
  if (result == 0) {
    *added = handler.get();
    handlers_.push_back(std::move(handler));
    if (!connection_ || !connection_->Stands(name)) RetryLater();
  }
  Settle();
  return result;
}

bool EventHub::Has(event_handler_h handler) const {
  return std::any_of(handlers_.begin(), handlers_.end(),
                     [handler](const Handler& h) { return h.get() == handler; });
}

int EventHub::Remove(event_handler_h handler) {
  const std::lock_guard<std::mutex> lock(mutex_);
  LeaveParent();
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
  LeaveParent();
  const uint64_t deadline = Now() + kPublicationPatienceUs;
  const int result =
      UseConnection([&] { return connection_->Publish(name, payload, size, deadline); });
  Settle();
  return result == -EAGAIN ? -EIO : result;
}

int EventHub::Claim(const std::string& package) {
  const std::lock_guard<std::mutex> lock(mutex_);
  LeaveParent();
  const uint64_t deadline = Now() + kPublicationPatienceUs;
  const int result = UseConnection([&] { return connection_->Claim(package, deadline); });
  Settle();
  return result == -EAGAIN ? -ETIMEDOUT : result;
}

int EventHub::AwaitSubscriptions() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t deadline = Now() + kSettlementPatienceUs;
  if (connection_) connection_->AwaitAll(deadline);
  const bool is_settled = IsSettled();
  Settle();
  return is_settled ? 0 : -ETIMEDOUT;
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
  // Due at once, for the dispatch to let it go.
  if (inherited_) return {-1, 0, 0};
  if (!connection_ || held_) return {-1, 0, UINT64_MAX};
  const int events = connection_->PollEvents();
  // A connection that is gone is due at once.
  if (events < 0) return {-1, 0, 0};
  return {connection_->fd(), events, connection_->DueTime()};
}

void EventHub::Dispatch() try {
  std::vector<ReceivedEvent> received;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    LeaveParent();
    if (held_) return;
    if (connection_) Process(&received);
    if (!received.empty() && received.back().from_successor) {
      Hold(std::move(received.back()));
      received.pop_back();
    }
  }
  for (const ReceivedEvent& event : received) Deliver(event);
} catch (const std::exception&) {
  // Without memory events are lost; the main loop goes on.
}

void EventHub::Process(std::vector<ReceivedEvent>* received) {
  const bool goes_on = connection_->Process(received);
  if (!goes_on) {
    Disconnect();
    if (handlers_.empty()) return;
    dlog_print(DLOG_WARN, kLogTag, "The session bus is gone: there are no events until it returns");
  }
  if (!goes_on || connection_->TakeRefusal()) {
    RetryLater();
  } else if (retry_ms_ != 0 && IsSettled()) {
    retry_ms_ = 0;
    StopRetrying();
    dlog_print(DLOG_INFO, kLogTag, "The session bus sends events");
  }
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
    LeaveParent();
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
  const base::Owned<bundle, bundle_free> data(
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
