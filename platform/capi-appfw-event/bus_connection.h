// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_EVENT_BUS_CONNECTION_H_
#define PLATFORM_EVENT_BUS_CONNECTION_H_

#include <stddef.h>
#include <stdint.h>
#include <systemd/sd-bus.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace events {

// An event's name in its parts: "event.PACKAGE.SUFFIX".
struct EventName {
  std::string full;
  std::string package;

  // False if the name is not of this form.
  static bool Parse(const char* text, EventName* name);
};

// An event as it came from its package; the payload is not yet looked at.
struct ReceivedEvent {
  std::string name;
  std::vector<unsigned char> payload;
  // Whether it is the first from a process that has taken another's place.
  bool from_successor;
};

// One connection to the session bus. Not thread-safe.
class BusConnection {
 public:
  // Null if there is no bus.
  static std::unique_ptr<BusConnection> Open();
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  // Whether the connection still stands, as far as is known.
  bool IsOpen() const;
  // Whether this process owns a package's name, which ends with the connection.
  bool IsPublisher() const { return !owned_packages_.empty(); }

  // Asks for the events of a name, once however often it is asked.
  bool Watch(const EventName& name);
  void Unwatch(const EventName& name);

  int Publish(const EventName& name, const unsigned char* payload, size_t size);

  // Takes in what the bus has sent, no further than to an event from a successor. False once the
  // connection is gone.
  bool Process(std::vector<ReceivedEvent>* received);

  // What to poll for.
  int fd() const { return sd_bus_get_fd(bus_.get()); }
  // Events for poll(2), or a negative code once the connection is gone.
  int PollEvents() const { return sd_bus_get_events(bus_.get()); }
  // Time on CLOCK_MONOTONIC in microseconds from which Process is due anyway; UINT64_MAX for never.
  uint64_t DueTime() const;
  // Whether Process has something to do that a poll begun earlier does not wait for.
  bool WantsTurn() const;

 private:
  struct BusClose {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
  };
  struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
  };
  using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;

  // Who may send a package's events, followed as long as any of them is watched.
  struct Package {
    std::string owner;                // a unique name of the bus; empty while there is none
    bool owner_is_successor = false;  // which nothing has come from yet
    Slot owner_changes;
    std::map<std::string, Slot> events;
  };

  explicit BusConnection(sd_bus* bus) : bus_(bus) {}
  bool AddMatch(const std::string& rule, sd_bus_message_handler_t handler, Slot* slot);
  bool FollowOwner(const std::string& id, Package* package);
  bool FindOwner(const std::string& id, Package* package);
  void Receive(sd_bus_message* message);

  static int OnOwnerChanged(sd_bus_message* message, void* connection, sd_bus_error* error);
  static int OnEvent(sd_bus_message* message, void* connection, sd_bus_error* error);

  // Outlives the slots below.
  std::unique_ptr<sd_bus, BusClose> bus_;
  std::map<std::string, Package> packages_;
  std::set<std::string> owned_packages_;
  std::vector<ReceivedEvent> received_;
};

}  // namespace events

#endif  // PLATFORM_EVENT_BUS_CONNECTION_H_
