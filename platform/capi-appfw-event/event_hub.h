// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_EVENT_EVENT_HUB_H_
#define PLATFORM_EVENT_EVENT_HUB_H_

#include <app_event.h>
#include <glib.h>

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "bus_connection.h"
#include "bus_source.h"

struct event_handler {
  events::EventName name;
  event_cb callback;
  void* user_data;
};

namespace events {

// The process's subscriptions and its connection, which exists while it is needed.
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

  void LeaveParent();
  int Connect();
  void Disconnect();
  void Settle();
  bool IsSettled() const;
  template <typename Use>
  int UseConnection(Use use);
  int Watch(const EventName& name, uint64_t deadline);
  void RetryLater();
  void StopRetrying();
  void Retry();
  bool Has(event_handler_h handler) const;
  std::vector<Handler> HandlersOf(const std::string& name);
  Wish Ask();
  void Dispatch();
  void Process(std::vector<ReceivedEvent>* received);
  void Hold(ReceivedEvent event);
  void DropHeld();
  void Release();
  void Deliver(const ReceivedEvent& event);
  void Call(const Handler& handler, const ReceivedEvent& event, bundle* data);

  // Guards all that follows. Never held while a handler is called.
  std::mutex mutex_;
  std::vector<Handler> handlers_;
  std::unique_ptr<BusConnection> connection_;
  GSource* source_ = nullptr;  // where there is a connection
  GSource* retry_ = nullptr;   // where something is to be tried again
  guint retry_ms_ = 0;         // how long after the last attempt; 0 when all is well
  bool inherited_ = false;     // all of this is the parent's
  std::vector<std::unique_ptr<BusConnection>> of_parents_;
  // A successor's first event; until it is delivered nothing more is read from the bus.
  std::optional<ReceivedEvent> held_;
  GSource* held_source_ = nullptr;  // where an event is held
};

}  // namespace events

#endif  // PLATFORM_EVENT_EVENT_HUB_H_
