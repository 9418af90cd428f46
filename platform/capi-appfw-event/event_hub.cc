// SPDX-License-Identifier: Apache-2.0
#include "event_hub.h"

#include <bundle_desktop.h>
#include <dlog.h>
#include <errno.h>
#include <pthread.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "owned.h"

namespace events {

namespace {

// After the end of a port, which comes at G_PRIORITY_DEFAULT + 1.
constexpr int kPriorityOfHeld = G_PRIORITY_DEFAULT + 2;
// Trying at once would only burn time.
constexpr guint kRestMs = 100;
constexpr char kLogTag[] = "APP_EVENT";
// A subscription that takes longer continues by itself.
constexpr uint64_t kSubscriptionPatienceUs = 100 * 1000;
constexpr uint64_t kPublicationPatienceUs = 2 * 1000 * 1000;
constexpr uint64_t kSettlementPatienceUs = 60 * 1000 * 1000;
constexpr guint kFirstRetryMs = 250;
constexpr guint kToldRetryMs = 500;
constexpr guint kLastRetryMs = 60 * 1000;

uint64_t Now() { return static_cast<uint64_t>(g_get_monotonic_time()); }

}  // namespace

struct EventHub::Delivery {
  std::list<ReceivedEvent> event;  // one
  base::Owned<bundle, bundle_free> data;
  std::vector<Handler> handlers;
};

// What each function of the interface holds while it runs. However it ends, a connection that
// nobody needs is closed, the bus is asked again for what it has not granted, and the main loop,
// which may be polling in another thread, hears of messages that came in along with an answer.
class EventHub::Use {
 public:
  explicit Use(EventHub* hub) : hub_(hub), lock_(hub->mutex_) { hub->LeaveParent(); }
  ~Use() { hub_->Settle(); }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

 private:
  EventHub* const hub_;
  const std::lock_guard<OwnedMutex> lock_;
};

EventHub::EventHub()
    : retry_(G_PRIORITY_DEFAULT, "search for a session bus", [] { Get().Retry(); }),
      pause_(kPriorityOfHeld, "application events", [] { Get().GoOn(); }) {}

EventHub& EventHub::Get() {
  static EventHub& hub = []() -> EventHub& {
    auto* made = new EventHub;
    pthread_atfork([] { Get().BeforeFork(); }, [] { Get().AfterFork(); },
                   [] {
                     Get().inherited_ = true;
                     Get().AfterFork();
                   });
    return *made;
  }();
  return hub;
}

void EventHub::BeforeFork() {
  const bool is_own = mutex_.IsOwn();
  if (!is_own) mutex_.lock();
  forks_itself_ = is_own;
}

void EventHub::AfterFork() {
  if (!forks_itself_) mutex_.unlock();
}

// A forked child has none of its parent's subscriptions. Dropped at its first use of them, not
// during the fork: what the main loop and the bus hold must be released.
void EventHub::LeaveParent() {
  if (!inherited_) return;
  if (connection_) {
    // Kept, because in a child sd-bus releases nothing that was made before the fork. Connect has
    // made room.
    of_parents_.push_back(std::move(connection_));
    g_source_destroy(source_);
    g_source_unref(source_);
    source_ = nullptr;
  }
  handlers_.clear();
  pending_.clear();
  pause_.Stop();
  retry_.Stop();
  retry_ms_ = 0;
  inherited_ = false;
}

// Makes sure that a connection, perhaps one still being opened, watches for every subscription.
int EventHub::Connect() {
  if (connection_ && !connection_->IsOpen()) {
    // What has come is not lost with it.
    (void)connection_->Process(&pending_);
    Disconnect();
    if (!pending_.empty()) pause_.SetAfter(0);
  }
  if (connection_) return 0;
  of_parents_.reserve(of_parents_.size() + 1);
  int error = 0;
  auto connection = BusConnection::Open(&error);
  if (!connection) return error;
  for (const Handler& handler : handlers_) {
    if (!connection->Watch(handler->name)) return -EIO;
  }
  source_ = AttachBusSource(connection->fd(), [] { return Get().Ask(); }, [] { Get().Dispatch(); });
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

void EventHub::Settle() {
  if (handlers_.empty()) {
    pending_.clear();
    pause_.Stop();
    retry_.Stop();
  } else if (!IsSettled()) {
    RetryLater();
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

// What failed too late for its caller to hear of is tried again, less and less often; and what is
// under way is checked.
void EventHub::RetryLater() {
  if (retry_.IsSet() || handlers_.empty()) return;
  retry_ms_ = std::clamp(retry_ms_ * 2, kFirstRetryMs, kLastRetryMs);
  retry_.SetAfter(retry_ms_);
}

void EventHub::Retry() try {
  const Use use(this);
  if (!retry_.IsSet()) return;
  retry_.Stop();
  bool is_asked = Connect() == 0;
  for (size_t i = 0; is_asked && i < handlers_.size(); ++i) {
    is_asked = connection_->Watch(handlers_[i]->name);
  }
  if (is_asked && !IsSettled() && retry_ms_ == kToldRetryMs) {
    dlog_print(DLOG_WARN, kLogTag,
               "The session bus does not answer: there are no events until then");
  }
} catch (const std::exception&) {
  // It is tried again.
}

// A bus that went away unnoticed is found out when it is used; another may have taken its place.
template <typename Work>
int EventHub::UseConnection(Work work) {
  int result = -EIO;
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int error = Connect();
    if (error < 0) return error == -EAGAIN || error == -ENOMEM ? error : -EIO;
    result = work();
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
  const Use use(this);
  auto handler = std::make_shared<event_handler>(event_handler{name, callback, user_data});
  handlers_.reserve(handlers_.size() + 1);
  const int result = Watch(name, Now() + kSubscriptionPatienceUs);
  if (result != 0) return result;
  *added = handler.get();
  handlers_.push_back(std::move(handler));
  return 0;
}

bool EventHub::Has(event_handler_h handler) const {
  return std::any_of(handlers_.begin(), handlers_.end(),
                     [handler](const Handler& h) { return h.get() == handler; });
}

// Needs no memory: a subscriber does not expect to hear again of what it has ended.
int EventHub::Remove(event_handler_h handler) {
  const Use use(this);
  const auto found = std::find_if(handlers_.begin(), handlers_.end(),
                                  [handler](const Handler& h) { return h.get() == handler; });
  if (found == handlers_.end()) return -EINVAL;
  const Handler removed = std::move(*found);
  handlers_.erase(found);
  const bool is_last = std::none_of(handlers_.begin(), handlers_.end(), [&](const Handler& h) {
    return h->name.full == removed->name.full;
  });
  if (connection_ && is_last) connection_->Unwatch(removed->name);
  return 0;
}

int EventHub::Publish(const EventName& name, const unsigned char* payload, size_t size) {
  const Use use(this);
  const uint64_t deadline = Now() + kPublicationPatienceUs;
  const int result =
      UseConnection([&] { return connection_->Publish(name, payload, size, deadline); });
  return result == -EAGAIN ? -EIO : result;
}

int EventHub::Claim(const std::string& package) {
  const Use use(this);
  const uint64_t deadline = Now() + kPublicationPatienceUs;
  const int result = UseConnection([&] { return connection_->Claim(package, deadline); });
  return result == -EAGAIN ? -ETIMEDOUT : result;
}

int EventHub::AwaitSubscriptions() {
  const Use use(this);
  const uint64_t deadline = Now() + kSettlementPatienceUs;
  if (connection_) connection_->AwaitAll(deadline);
  return IsSettled() ? 0 : -ETIMEDOUT;
}

std::vector<EventHub::Handler> EventHub::HandlersOf(const std::string& name) {
  std::vector<Handler> found;
  for (const Handler& handler : handlers_) {
    if (handler->name.full == name) found.push_back(handler);
  }
  return found;
}

Wish EventHub::Ask() {
  const std::lock_guard<OwnedMutex> lock(mutex_);
  // Due at once, so that the dispatch drops it.
  if (inherited_) return {-1, 0, 0};
  if (!connection_ || pause_.IsSet()) return {-1, 0, UINT64_MAX};
  const int events = connection_->PollEvents();
  // A connection that is gone is due at once.
  if (events < 0) return {-1, 0, 0};
  return {connection_->fd(), events, connection_->DueTime()};
}

void EventHub::Dispatch() {
  bool has_memory = true;
  {
    const std::lock_guard<OwnedMutex> lock(mutex_);
    LeaveParent();
    if (pause_.IsSet()) return;
    if (connection_) has_memory = Process();
  }
  Deliver();
  if (!has_memory) Rest();
}

// False if there was no memory for all of it.
bool EventHub::Process() {
  const bool goes_on = connection_->Process(&pending_);
  if (goes_on && connection_->IsShortOfMemory()) return false;
  if (!goes_on) {
    Disconnect();
    if (handlers_.empty()) return true;
    dlog_print(DLOG_WARN, kLogTag, "The session bus is gone: there are no events until it returns");
  }
  if (!goes_on || connection_->TakeRefusal()) {
    RetryLater();
  } else if (retry_ms_ != 0 && IsSettled()) {
    retry_ms_ = 0;
    retry_.Stop();
    dlog_print(DLOG_INFO, kLogTag, "The session bus sends events");
  }
  return true;
}

// When the pause is over.
void EventHub::GoOn() {
  {
    const std::lock_guard<OwnedMutex> lock(mutex_);
    LeaveParent();
    if (!pause_.IsSet()) return;
    pause_.Stop();
  }
  Dispatch();
}

void EventHub::Rest() {
  const std::lock_guard<OwnedMutex> lock(mutex_);
  if (connection_ || !pending_.empty()) pause_.SetAfter(kRestMs);
}

// False if nothing is to be delivered now.
bool EventHub::TakeNext(Delivery* delivery) {
  const std::lock_guard<OwnedMutex> lock(mutex_);
  if (inherited_ || pending_.empty() || pause_.IsSet()) return false;
  ReceivedEvent& event = pending_.front();
  // Clients must hear what a successor says after the end of its predecessor. Their ports to the
  // latter show the end by now, but the main loop polled before that: it polls once more, and what
  // it finds is dispatched first.
  if (std::exchange(event.from_successor, false)) {
    pause_.SetAfter(0);
    return false;
  }
  delivery->handlers = HandlersOf(event.name);
  delivery->data.reset(bundle_desktop_decode(event.payload.data(), event.payload.size()));
  if (!delivery->data && errno == ENOMEM) throw std::bad_alloc();
  delivery->event.splice(delivery->event.begin(), pending_, pending_.begin());
  return true;
}

void EventHub::Deliver() {
  for (;;) {
    Delivery delivery;
    try {
      if (!TakeNext(&delivery)) return;
    } catch (const std::bad_alloc&) {
      return Rest();
    }
    if (!delivery.data) continue;
    for (const Handler& handler : delivery.handlers) {
      Call(handler, delivery.event.front(), delivery.data.get());
    }
  }
}

// An earlier handler may have removed this one.
void EventHub::Call(const Handler& handler, const ReceivedEvent& event, bundle* data) {
  {
    const std::lock_guard<OwnedMutex> lock(mutex_);
    if (inherited_ || !Has(handler.get())) return;
  }
  handler->callback(event.name.c_str(), data, handler->user_data);
}

}  // namespace events
