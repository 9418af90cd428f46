// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_EVENT_EVENT_HUB_H_
#define PLATFORM_EVENT_EVENT_HUB_H_

#include <app_event.h>
#include <glib.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "alarm.h"
#include "bus_connection.h"
#include "bus_source.h"

struct event_handler {
  events::EventName name;
  event_cb callback;
  void* user_data;
};

namespace events {

// Knows whether the calling thread holds it: the bus library forks for addresses that name a
// program.
class OwnedMutex {
 public:
  void lock() {
    mutex_.lock();
    owner_ = std::this_thread::get_id();
  }
  void unlock() {
    owner_ = std::thread::id();
    mutex_.unlock();
  }
  bool IsOwn() const { return owner_ == std::this_thread::get_id(); }

 private:
  std::mutex mutex_;
  std::atomic<std::thread::id> owner_;
};

// The process's subscriptions and its connection, which exists while it is needed. What fails for
// want of memory is tried again from the main loop.
class EventHub {
 public:
  // Never destroyed: subscriptions may outlast the library's statics.
  static EventHub& Get();

  int Add(const EventName& name, event_cb callback, void* user_data, event_handler_h* added);
  int Remove(event_handler_h handler);
  int Publish(const EventName& name, const unsigned char* payload, size_t size);
  int Claim(const std::string& package);
  int AwaitSubscriptions();

 private:
  using Handler = std::shared_ptr<event_handler>;
  // An event on its way to those that had subscribed when its turn came.
  struct Delivery;
  class Use;

  EventHub();
  void BeforeFork();
  void AfterFork();
  void LeaveParent();
  int Connect();
  void Disconnect();
  void Settle();
  bool IsSettled() const;
  template <typename Work>
  int UseConnection(Work work);
  int Watch(const EventName& name, uint64_t deadline);
  void RetryLater();
  void Retry();
  bool Has(event_handler_h handler) const;
  std::vector<Handler> HandlersOf(const std::string& name);
  Wish Ask();
  void Dispatch();
  bool Process();
  void GoOn();
  void Rest();
  bool TakeNext(Delivery* delivery);
  void Deliver();
  void Call(const Handler& handler, const ReceivedEvent& event, bundle* data);

  // Guards all that follows. Never held while a handler is called.
  OwnedMutex mutex_;
  bool forks_itself_ = false;  // while a process is forked: by the thread that holds the mutex
  std::vector<Handler> handlers_;
  std::unique_ptr<BusConnection> connection_;
  GSource* source_ = nullptr;  // where there is a connection
  Alarm retry_;                // set while the bus is to be asked again
  guint retry_ms_ = 0;         // how long after the last attempt; 0 when all is well
  bool inherited_ = false;     // all of this is the parent's
  std::vector<std::unique_ptr<BusConnection>> of_parents_;
  // What is to be delivered. While the alarm is set, delivery waits and nothing is read from the
  // bus.
  std::list<ReceivedEvent> pending_;
  Alarm pause_;
};

}  // namespace events

#endif  // PLATFORM_EVENT_EVENT_HUB_H_
