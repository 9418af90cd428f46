// SPDX-License-Identifier: Apache-2.0
#include "bus_connection.h"

#include <dlog.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string_view>

namespace events {

namespace {

constexpr char kPath[] = "/org/desktop/ApplicationEvents";
constexpr char kInterface[] = "org.desktop.ApplicationEvents";
constexpr char kMember[] = "Event";
constexpr char kSignature[] = "say";  // the event's name and its data
constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr char kLogTag[] = "APP_EVENT";
constexpr char kPrefix[] = "event.";
constexpr size_t kLongestName = 255;
constexpr size_t kLargestPayload = 1 << 20;
// Events that the bus has not taken yet.
constexpr size_t kMostUnsentBytes = 64 << 20;
// So that a flood of events leaves the main loop's other sources their turn.
constexpr int kMessagesAtOnce = 64;

bool IsSuffix(std::string_view text) {
  constexpr char kAllowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
  return !text.empty() && text.find_first_not_of(kAllowed) == std::string_view::npos;
}

uint64_t Now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// Null if the bus has not refused.
const char* Refusal(sd_bus_message* answer) {
  if (sd_bus_message_is_method_error(answer, nullptr) <= 0) return nullptr;
  const sd_bus_error* error = sd_bus_message_get_error(answer);
  return error && error->message ? error->message : "no reason given";
}

bool SaysNoOwner(sd_bus_message* answer) {
  return sd_bus_message_is_method_error(answer, SD_BUS_ERROR_NAME_HAS_NO_OWNER) > 0;
}

bool IsOwnerChange(sd_bus_message* message) {
  return sd_bus_message_is_signal(message, kBusName, "NameOwnerChanged") > 0;
}

bool IsEvent(sd_bus_message* message) {
  const char* path = sd_bus_message_get_path(message);
  return sd_bus_message_is_signal(message, kInterface, kMember) > 0 && path &&
         strcmp(path, kPath) == 0;
}

int OrThrow(int result) {
  if (result == -ENOMEM) throw std::bad_alloc();
  return result;
}

bool IsFrom(sd_bus_message* message, const char* sender) {
  const char* actual = sd_bus_message_get_sender(message);
  return actual && strcmp(actual, sender) == 0;
}

}  // namespace

bool EventName::Parse(const char* text, EventName* name) {
  if (!text || strlen(text) > kLongestName) return false;
  const std::string_view full = text;
  const std::string_view prefix = kPrefix;
  if (full.substr(0, prefix.size()) != prefix) return false;
  const size_t dot = full.rfind('.');
  if (dot <= prefix.size() || !IsSuffix(full.substr(dot + 1))) return false;
  name->full = full;
  name->package = full.substr(prefix.size(), dot - prefix.size());
  // A connection's unique name is not one that a package can have.
  return name->package[0] != ':' && sd_bus_service_name_is_valid(name->package.c_str()) > 0;
}

std::unique_ptr<BusConnection> BusConnection::Open(int* error) {
  sd_bus* bus = nullptr;
  *error = sd_bus_open_user(&bus);
  base::Owned<sd_bus, sd_bus_close_unref> owned(bus);
  if (*error < 0) return nullptr;
  std::unique_ptr<BusConnection> connection(new BusConnection(std::move(owned)));
  sd_bus_slot* signals = nullptr;
  *error = sd_bus_add_filter(bus, &signals, OnSignal, connection.get());
  if (*error < 0) return nullptr;
  connection->signals_.reset(signals);
  sd_bus_set_exit_on_disconnect(bus, false);
  // Once it has greeted, a bus answers in the order in which it was asked: there is nothing better
  // to do than to wait, however long it is stopped.
  sd_bus_set_method_call_timeout(bus, UINT64_MAX);
  return connection;
}

BusConnection::~BusConnection() = default;

bool BusConnection::IsPublisher() const {
  return std::any_of(claims_.begin(), claims_.end(),
                     [](const auto& claim) { return claim.second.outcome != Outcome::kRefused; });
}

bool BusConnection::IsOpen() const { return !is_broken_ && sd_bus_is_open(bus_.get()) > 0; }

bool BusConnection::WantsTurn() const {
  return DueTime() != UINT64_MAX || (PollEvents() & POLLOUT) != 0;
}

uint64_t BusConnection::DueTime() const {
  if (!received_.empty() || in_hand_.message || is_broken_) return 0;
  uint64_t time = 0;
  return sd_bus_get_timeout(bus_.get(), &time) < 0 ? 0 : time;
}

template <typename Done>
void BusConnection::Await(uint64_t deadline, Done done) {
  is_awaited_ = true;
  while (IsOpen() && !done()) {
    const int result = Step();
    if (result < 0) break;
    const uint64_t now = Now();
    if (result > 0 && now < deadline) continue;
    if (result == 0 && now >= deadline) is_silent_ = true;
    if (now >= deadline || is_silent_) break;
    sd_bus_wait(bus_.get(), deadline - now);
  }
  is_awaited_ = false;
}

// Handles one message: 1 if there was one, 0 if not, negative for an error. -ENOMEM says to try
// again, unless the connection is no longer open.
int BusConnection::Step() try {
  is_short_of_memory_ = false;
  if (in_hand_.message) {
    LookAtHand();
    in_hand_ = {};
    return 1;
  }
  const int result = OrThrow(sd_bus_process(bus_.get(), nullptr));
  if (result > 0) is_silent_ = false;
  if (result < 0) is_broken_ = true;
  return result;
} catch (const std::bad_alloc&) {
  // Half a greeting is none.
  if (!in_hand_.message && sd_bus_is_ready(bus_.get()) <= 0) is_broken_ = true;
  is_short_of_memory_ = true;
  return -ENOMEM;
}

void BusConnection::LookAtHand() {
  sd_bus_message* message = in_hand_.message.get();
  if (sd_bus_message_rewind(message, true) < 0) return;
  if (in_hand_.package) {
    LearnOwner(message, in_hand_.package);
  } else if (IsOwnerChange(message)) {
    ChangeOwner(message);
  } else {
    Receive(message);
  }
}

int BusConnection::OnSignal(sd_bus_message* message, void* data, sd_bus_error*) {
  if (!IsOwnerChange(message) && !IsEvent(message)) return 0;
  static_cast<BusConnection*>(data)->in_hand_ = {Message(sd_bus_message_ref(message)), nullptr};
  return 0;
}

bool BusConnection::Ask(const char* method, const char* text, sd_bus_message_handler_t answered,
                        void* data, Slot* slot) {
  sd_bus_slot* question = nullptr;
  if (OrThrow(sd_bus_call_method_async(bus_.get(), &question, kBusName, kBusPath, kBusName, method,
                                       answered, data, "s", text)) < 0) {
    return false;
  }
  slot->reset(question);
  return true;
}

bool BusConnection::AddMatch(const std::string& rule, Match* match) {
  match->connection = this;
  match->rule = rule;
  return Ask("AddMatch", rule.c_str(), OnMatchAdded, match, &match->question);
}

// Without memory, the bus keeps sending what nobody listens to.
BusConnection::Match::~Match() {
  sd_bus_message* call = nullptr;
  if (!question || sd_bus_message_new_method_call(connection->bus_.get(), &call, kBusName, kBusPath,
                                                  kBusName, "RemoveMatch") < 0) {
    return;
  }
  const Message owned(call);
  if (sd_bus_message_append(call, "s", rule.c_str()) < 0) return;
  if (sd_bus_message_set_expect_reply(call, false) < 0) return;
  (void)sd_bus_send(connection->bus_.get(), call, nullptr);
}

int BusConnection::OnMatchAdded(sd_bus_message* message, void* data, sd_bus_error*) {
  auto* match = static_cast<Match*>(data);
  const char* refusal = Refusal(message);
  if (refusal && match->connection->IsOpen())
    dlog_print(DLOG_WARN, kLogTag, "The session bus refuses events: %s", refusal);
  match->outcome = refusal ? Outcome::kRefused : Outcome::kStands;
  return 0;
}

bool BusConnection::Watch(const EventName& name) try {
  if (Follow(name)) return true;
  Unwatch(name);
  return false;
} catch (const std::bad_alloc&) {
  Unwatch(name);
  throw;
}

bool BusConnection::Follow(const EventName& name) {
  Package& package = packages_[name.package];
  if (!package.owner_question && !FollowOwner(name.package, &package)) return false;
  const auto [event, is_new] = package.events.try_emplace(name.full);
  return !is_new || AddMatch(std::string("type='signal',path='") + kPath + "',interface='" +
                                 kInterface + "',member='" + kMember + "',sender='" + name.package +
                                 "',arg0='" + name.full + "'",
                             &event->second);
}

void BusConnection::Unwatch(const EventName& name) {
  const auto package = packages_.find(name.package);
  if (package == packages_.end()) return;
  package->second.events.erase(name.full);
  if (package->second.events.empty()) Forget(package);
}

void BusConnection::Forget(std::map<std::string, Package>::iterator package) {
  if (in_hand_.package == &package->second) in_hand_ = {};
  packages_.erase(package);
}

// The changes are asked for first, so that none falls between the two questions.
bool BusConnection::FollowOwner(const std::string& id, Package* package) {
  package->connection = this;
  return AddMatch(std::string("type='signal',sender='") + kBusName + "',path='" + kBusPath +
                      "',interface='" + kBusName + "',member='NameOwnerChanged',arg0='" + id + "'",
                  &package->owner_changes) &&
         Ask("GetNameOwner", id.c_str(), OnOwner, package, &package->owner_question);
}

Outcome BusConnection::OutcomeOf(const Package& package, const Match& event) const {
  const auto outcomes = {package.owner_changes.outcome, package.owner_outcome, event.outcome};
  if (std::count(outcomes.begin(), outcomes.end(), Outcome::kRefused)) return Outcome::kRefused;
  const bool stands = std::count(outcomes.begin(), outcomes.end(), Outcome::kStands) == 3;
  return stands ? Outcome::kStands : Outcome::kUnderWay;
}

bool BusConnection::IsJudged(const Package& package) {
  return !package.owner || package.owner->judgement != Speaker::kAsked;
}

Outcome BusConnection::AwaitWatch(const EventName& name, uint64_t deadline) {
  const Package& package = packages_.at(name.package);
  const Match& event = package.events.at(name.full);
  // What an owner that is known by then says need not wait for the end of a predecessor's port.
  Await(deadline, [&] {
    const Outcome outcome = OutcomeOf(package, event);
    return outcome == Outcome::kStands ? IsJudged(package) : outcome == Outcome::kRefused;
  });
  if (!IsOpen()) return Outcome::kGone;
  const Outcome outcome = OutcomeOf(package, event);
  ForgetRefused();
  return outcome;
}

bool BusConnection::Stands(const EventName& name) const {
  const auto package = packages_.find(name.package);
  if (package == packages_.end()) return false;
  const auto event = package->second.events.find(name.full);
  return event != package->second.events.end() &&
         OutcomeOf(package->second, event->second) == Outcome::kStands;
}

void BusConnection::AwaitAll(uint64_t deadline) {
  is_silent_ = false;  // whoever asks for it waits anew
  Await(deadline, [this] {
    return std::all_of(packages_.begin(), packages_.end(), [this](const auto& package) {
      const auto& events = package.second.events;
      return std::all_of(events.begin(), events.end(), [&](const auto& event) {
        return OutcomeOf(package.second, event.second) != Outcome::kUnderWay;
      });
    });
  });
  ForgetRefused();
}

void BusConnection::ForgetRefused() {
  for (auto package = packages_.begin(); package != packages_.end();) {
    auto& events = package->second.events;
    for (auto event = events.begin(); event != events.end();) {
      const bool gone = OutcomeOf(package->second, event->second) == Outcome::kRefused;
      refused_ |= gone;
      event = gone ? events.erase(event) : std::next(event);
    }
    const auto next = std::next(package);
    if (events.empty()) Forget(package);
    package = next;
  }
}

int BusConnection::OnOwner(sd_bus_message* message, void* data, sd_bus_error*) {
  auto* package = static_cast<Package*>(data);
  package->connection->in_hand_ = {Message(sd_bus_message_ref(message)), package};
  return 0;
}

void BusConnection::LearnOwner(sd_bus_message* message, Package* package) {
  const char* owner = "";
  const bool is_refused = Refusal(message) != nullptr && !SaysNoOwner(message);
  if (is_refused || (!Refusal(message) && sd_bus_message_read(message, "s", &owner) < 0)) {
    package->owner_outcome = Outcome::kRefused;
    return;
  }
  // A new owner may have come since the subscription: nobody knows whose ports the client has.
  Adopt(package, owner, !is_awaited_);
  package->owner_outcome = Outcome::kStands;
}

void BusConnection::ChangeOwner(sd_bus_message* message) {
  const char* id = nullptr;
  const char* owner = nullptr;
  // A message that another client sends straight to this one bypasses the bus's rules.
  if (!IsFrom(message, kBusName)) return;
  if (sd_bus_message_read(message, "sss", &id, nullptr, &owner) < 0) return;
  const auto package = packages_.find(id);
  if (package != packages_.end()) Adopt(&package->second, owner, true);
}

// Its events wait until the bus has said whose process it is. A former owner stays only until that
// is known of it.
void BusConnection::Adopt(Package* package, const char* owner, bool is_successor) {
  if (package->owner && package->owner->unique_name == owner) return;
  std::list<Speaker> adopted;
  if (*owner != '\0') {
    Speaker& speaker = adopted.emplace_back();
    speaker.connection = this;
    speaker.unique_name = owner;
    speaker.is_successor = is_successor;
    AskForUser(&speaker);
  }
  package->speakers.remove_if([](const Speaker& s) { return s.judgement != Speaker::kAsked; });
  package->owner = adopted.empty() ? nullptr : &adopted.front();
  package->speakers.splice(package->speakers.end(), adopted);
}

// The answers come in this order. Since the bus has answered, this connection's name is known.
void BusConnection::AskForUser(Speaker* speaker) {
  const char* own_name = nullptr;
  const bool knows_itself =
      own_user_question_ != nullptr ||
      (sd_bus_get_unique_name(bus_.get(), &own_name) >= 0 &&
       Ask("GetConnectionUnixUser", own_name, OnOwnUser, this, &own_user_question_));
  if (!knows_itself || !Ask("GetConnectionUnixUser", speaker->unique_name.c_str(), OnUser, speaker,
                            &speaker->question)) {
    is_broken_ = true;
  }
}

int BusConnection::OnOwnUser(sd_bus_message* message, void* data, sd_bus_error*) {
  auto* self = static_cast<BusConnection*>(data);
  // In a container the bus may know this user by another number than the process does.
  if (sd_bus_message_read(message, "u", &self->own_user_) < 0) self->own_user_ = geteuid();
  return 0;
}

int BusConnection::OnUser(sd_bus_message* message, void* data, sd_bus_error*) {
  auto* speaker = static_cast<Speaker*>(data);
  BusConnection* self = speaker->connection;
  // A process that is gone before the bus could tell gets the benefit of the doubt: an agent may
  // well say something and end at once, and that must not be lost. The same holds if the bus is
  // gone.
  const bool is_gone = SaysNoOwner(message) || !self->IsOpen();
  uint32_t user = 0;
  const bool is_same = sd_bus_message_read(message, "u", &user) >= 0 && user == self->own_user_;
  self->Judge(speaker, is_same || is_gone ? Speaker::kTrusted : Speaker::kForeign);
  return 0;
}

void BusConnection::Judge(Speaker* speaker, Speaker::Judgement judgement) {
  speaker->judgement = judgement;
  std::list<ReceivedEvent> waiting;
  waiting.swap(speaker->waiting);
  if (judgement == Speaker::kForeign) {
    dlog_print(DLOG_WARN, kLogTag, "Events of %s are dropped: it is another user's process",
               speaker->unique_name.c_str());
    return;
  }
  received_.splice(received_.end(), waiting);
}

// Nothing more will be heard about who they are.
void BusConnection::TrustAll() {
  for (auto& [id, package] : packages_) {
    for (Speaker& speaker : package.speakers) {
      if (speaker.judgement == Speaker::kAsked) Judge(&speaker, Speaker::kTrusted);
    }
  }
}

void BusConnection::Receive(sd_bus_message* message) {
  const char* text = nullptr;
  const void* payload = nullptr;
  size_t size = 0;
  EventName name;
  if (sd_bus_message_has_signature(message, kSignature) <= 0) return;
  if (sd_bus_message_read(message, "s", &text) < 0 || !EventName::Parse(text, &name)) return;
  const auto package = packages_.find(name.package);
  if (package == packages_.end() || package->second.events.count(name.full) == 0) return;
  Speaker* speaker = package->second.owner;
  if (!speaker || !IsFrom(message, speaker->unique_name.c_str())) return;
  if (speaker->judgement == Speaker::kForeign) return;
  if (OrThrow(sd_bus_message_read_array(message, 'y', &payload, &size)) < 0) return;
  if (size > kLargestPayload) return;
  const auto* bytes = static_cast<const unsigned char*>(payload);
  auto& events = speaker->judgement == Speaker::kAsked ? speaker->waiting : received_;
  events.push_back({name.full, {bytes, bytes + size}, speaker->is_successor});
  speaker->is_successor = false;
}

BusConnection::Name* BusConnection::AskForName(const std::string& package) {
  const auto known = claims_.find(package);
  if (known != claims_.end() && known->second.outcome != Outcome::kRefused) return &known->second;
  Name& name = claims_[package];
  name = Name();
  name.connection = this;
  sd_bus_slot* question = nullptr;
  const int result =
      sd_bus_request_name_async(bus_.get(), &question, package.c_str(), 0, OnName, &name);
  if (result < 0) {
    claims_.erase(package);
    OrThrow(result);
    return nullptr;
  }
  name.question.reset(question);
  return &name;
}

int BusConnection::OnName(sd_bus_message* message, void* data, sd_bus_error*) {
  constexpr uint32_t kOwner = 1;
  constexpr uint32_t kAlreadyOwner = 4;
  auto* name = static_cast<Name*>(data);
  uint32_t reply = 0;
  const bool is_answered = sd_bus_message_read(message, "u", &reply) >= 0;
  const bool is_own = is_answered && (reply == kOwner || reply == kAlreadyOwner);
  name->is_anothers = is_answered && !is_own;
  name->outcome = is_own ? Outcome::kStands : Outcome::kRefused;
  if (!is_own && !name->is_awaited && name->connection->IsOpen()) {
    dlog_print(DLOG_ERROR, kLogTag, "Published events are dropped: %s",
               is_answered ? "another process owns the package's name on the session bus"
                           : "the session bus refuses the package's name");
  }
  return 0;
}

int BusConnection::Claim(const std::string& package, uint64_t deadline) {
  Name* name = AskForName(package);
  if (!name) return -EIO;
  name->is_awaited = true;
  Await(deadline, [&] { return name->outcome != Outcome::kUnderWay; });
  name->is_awaited = false;
  if (!IsOpen() || name->outcome == Outcome::kStands) return IsOpen() ? 0 : -EIO;
  if (name->outcome == Outcome::kUnderWay) return -ETIMEDOUT;
  return name->is_anothers ? -EACCES : -EIO;
}

bool BusConnection::HasSentAll() const {
  return sd_bus_is_ready(bus_.get()) > 0 && (PollEvents() & POLLOUT) == 0;
}

int BusConnection::Publish(const EventName& name, const unsigned char* payload, size_t size,
                           uint64_t deadline) {
  if (size > kLargestPayload) return -EINVAL;
  const int claimed = Claim(name.package, deadline);
  if (claimed != 0 && claimed != -ETIMEDOUT) return claimed;
  if (HasSentAll()) unsent_bytes_ = 0;
  if (unsent_bytes_ + size > kMostUnsentBytes) return -EIO;
  if (OrThrow(Send(name, payload, size)) < 0) return -EIO;
  unsent_bytes_ += size;
  Await(deadline, [this] { return HasSentAll(); });
  return IsOpen() ? 0 : -EIO;
}

int BusConnection::Send(const EventName& name, const unsigned char* payload, size_t size) {
  sd_bus_message* signal = nullptr;
  int result = sd_bus_message_new_signal(bus_.get(), &signal, kPath, kInterface, kMember);
  const Message owned(signal);
  if (result >= 0) result = sd_bus_message_append(signal, "s", name.full.c_str());
  if (result >= 0) result = sd_bus_message_append_array(signal, 'y', payload, size);
  if (result >= 0) result = sd_bus_send(bus_.get(), signal, nullptr);
  return result;
}

bool BusConnection::Process(std::list<ReceivedEvent>* received) {
  int result = 1;
  for (int i = 0; i < kMessagesAtOnce && result > 0; ++i) result = Step();
  if (!IsOpen() && !in_hand_.message) TrustAll();
  ForgetRefused();
  received->splice(received->end(), received_);
  return IsOpen() || in_hand_.message;
}

}  // namespace events
