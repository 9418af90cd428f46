// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_EVENT_BUS_CONNECTION_H_
#define PLATFORM_EVENT_BUS_CONNECTION_H_

#include <stddef.h>
#include <stdint.h>
#include <systemd/sd-bus.h>

#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "owned.h"

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

// What has become of something that the bus was asked for.
enum class Outcome { kUnderWay, kStands, kRefused, kGone };

// One connection to the session bus. Not thread-safe. Only the functions that are given a deadline,
// a time on CLOCK_MONOTONIC in microseconds, wait for the bus. Once one has waited in vain, none
// waits until the bus has said something.
//
// Where memory is short, functions throw std::bad_alloc and change nothing; what the bus has sent
// is kept until there is memory to look at it. Only a connection that is being opened breaks.
//
// Rules and signals bypass sd-bus's own matches, which a failed allocation damages.
class BusConnection {
 public:
  // Begins to open a connection. Null if that fails at once, with a negative code: -EAGAIN from a
  // bus that exists but accepts nobody at the moment.
  static std::unique_ptr<BusConnection> Open(int* error);
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  // Whether the connection is open or being opened, as far as is known.
  bool IsOpen() const;
  // Whether this process owns a package's name or has asked for it; that ends with the connection.
  bool IsPublisher() const;

  // Asks for the events of a name, only once however often it is called. What the bus refuses is
  // forgotten. False if the bus cannot be asked.
  bool Watch(const EventName& name);
  void Unwatch(const EventName& name);
  // Gives the bus time to answer. From kStands on, events come.
  Outcome AwaitWatch(const EventName& name, uint64_t deadline);
  // Whether the bus sends the events of a name.
  bool Stands(const EventName& name) const;
  // Gives the bus time to answer all that is under way.
  void AwaitAll(uint64_t deadline);
  // Whether the bus has refused something since this was asked last.
  bool TakeRefusal() { return std::exchange(refused_, false); }

  // Makes this process the owner of the package's name, without ever queueing for it: -EACCES if it
  // is another's, -ETIMEDOUT while the bus has not answered.
  int Claim(const std::string& package, uint64_t deadline);
  // Claims the package's name and sends an event. What the bus does not take in time is sent by
  // Process.
  int Publish(const EventName& name, const unsigned char* payload, size_t size, uint64_t deadline);

  // Processes what the bus has sent, or a part of it if it is much, and appends the events that
  // have come. False once the connection is gone and nothing of it is left.
  bool Process(std::list<ReceivedEvent>* received);
  // Whether Process went no further for want of memory.
  bool IsShortOfMemory() const { return is_short_of_memory_; }

  // What to poll for. The descriptor may change while the connection is being opened.
  int fd() const { return sd_bus_get_fd(bus_.get()); }
  // Events for poll(2), or a negative code once the connection is gone.
  int PollEvents() const { return sd_bus_get_events(bus_.get()); }
  // Time on CLOCK_MONOTONIC in microseconds from which Process is due anyway; UINT64_MAX for never.
  uint64_t DueTime() const;
  // Whether Process has something to do that a poll begun earlier does not wait for.
  bool WantsTurn() const;

 private:
  using Slot = base::Owned<sd_bus_slot, sd_bus_slot_unref>;
  using Message = base::Owned<sd_bus_message, sd_bus_message_unref>;

  // A client of the bus that owns, or has owned, a package's name.
  struct Speaker {
    enum Judgement { kAsked, kTrusted, kForeign };

    BusConnection* connection = nullptr;
    std::string unique_name;
    bool is_successor = false;  // and nothing has come from it yet
    Judgement judgement = kAsked;
    std::list<ReceivedEvent> waiting;  // for the judgement
    Slot question;
  };

  // A rule for what the bus is to send.
  struct Match {
    Match() = default;
    ~Match();
    Match(const Match&) = delete;
    Match& operator=(const Match&) = delete;

    BusConnection* connection = nullptr;
    std::string rule;
    Outcome outcome = Outcome::kUnderWay;
    Slot question;  // null until the bus has been asked
  };

  // Who may send a package's events, followed as long as any of them is watched.
  struct Package {
    BusConnection* connection = nullptr;
    Match owner_changes;
    Outcome owner_outcome = Outcome::kUnderWay;
    Slot owner_question;
    Speaker* owner = nullptr;  // null while there is none
    std::list<Speaker> speakers;
    std::map<std::string, Match> events;
  };

  // What the bus has said and nobody has looked at yet.
  struct InHand {
    Message message;
    Package* package = nullptr;  // if it names this one's owner
  };

  // A name that this process owns or has asked for.
  struct Name {
    BusConnection* connection = nullptr;
    Outcome outcome = Outcome::kUnderWay;
    bool is_anothers = false;
    bool is_awaited = false;  // by a caller, who is told of the outcome
    Slot question;
  };

  explicit BusConnection(base::Owned<sd_bus, sd_bus_close_unref> bus) : bus_(std::move(bus)) {}
  template <typename Done>
  void Await(uint64_t deadline, Done done);
  int Step();
  void LookAtHand();
  bool Ask(const char* method, const char* text, sd_bus_message_handler_t answered, void* data,
           Slot* slot);
  bool AddMatch(const std::string& rule, Match* match);
  bool FollowOwner(const std::string& id, Package* package);
  bool Follow(const EventName& name);
  void Forget(std::map<std::string, Package>::iterator package);
  Outcome OutcomeOf(const Package& package, const Match& event) const;
  static bool IsJudged(const Package& package);
  void ForgetRefused();
  void LearnOwner(sd_bus_message* message, Package* package);
  void ChangeOwner(sd_bus_message* message);
  void Adopt(Package* package, const char* owner, bool is_successor);
  void AskForUser(Speaker* speaker);
  void Judge(Speaker* speaker, Speaker::Judgement judgement);
  void TrustAll();
  void Receive(sd_bus_message* message);
  Name* AskForName(const std::string& package);
  bool HasSentAll() const;
  int Send(const EventName& name, const unsigned char* payload, size_t size);

  static int OnMatchAdded(sd_bus_message* message, void* match, sd_bus_error* error);
  static int OnOwner(sd_bus_message* message, void* package, sd_bus_error* error);
  static int OnSignal(sd_bus_message* message, void* connection, sd_bus_error* error);
  static int OnOwnUser(sd_bus_message* message, void* connection, sd_bus_error* error);
  static int OnUser(sd_bus_message* message, void* speaker, sd_bus_error* error);
  static int OnName(sd_bus_message* message, void* name, sd_bus_error* error);

  // Outlives the slots below. Its end waits for nothing, unlike the functions that flush.
  base::Owned<sd_bus, sd_bus_close_unref> bus_;
  std::map<std::string, Package> packages_;
  std::map<std::string, Name> claims_;
  std::list<ReceivedEvent> received_;
  InHand in_hand_;
  Slot signals_;
  Slot own_user_question_;
  uint32_t own_user_;        // as the bus has it, once that is known
  bool is_awaited_ = false;  // somebody waits for what the bus says
  bool is_broken_ = false;   // using it further cannot be right
  bool refused_ = false;     // see TakeRefusal
  bool is_silent_ = false;   // since somebody has waited in vain
  bool is_short_of_memory_ = false;
  size_t unsent_bytes_ = 0;  // of events, since the bus last had taken everything
};

}  // namespace events

#endif  // PLATFORM_EVENT_BUS_CONNECTION_H_
