// SPDX-License-Identifier: Apache-2.0
#include "bus_connection.h"

#include <errno.h>
#include <poll.h>
#include <string.h>

#include <exception>
#include <string_view>

namespace events {

namespace {

constexpr char kPath[] = "/org/desktop/ApplicationEvents";
constexpr char kInterface[] = "org.desktop.ApplicationEvents";
constexpr char kMember[] = "Event";
constexpr char kSignature[] = "say";  // the event's name and its data
constexpr char kBusName[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr char kPrefix[] = "event.";
constexpr size_t kLongestName = 255;
constexpr size_t kLargestPayload = 1 << 20;
constexpr uint64_t kPatienceUs = 10 * 1000 * 1000;
// A flood of events leaves the main loop's other sources their turn.
constexpr int kMessagesAtOnce = 64;

struct MessageUnref {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

struct BusError {
  ~BusError() { sd_bus_error_free(&error); }
  sd_bus_error error = {};
};

bool IsSuffix(std::string_view text) {
  constexpr char kAllowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
  return !text.empty() && text.find_first_not_of(kAllowed) == std::string_view::npos;
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

std::unique_ptr<BusConnection> BusConnection::Open() {
  sd_bus* bus = nullptr;
  if (sd_bus_open_user(&bus) < 0) return nullptr;
  std::unique_ptr<BusConnection> connection(new BusConnection(bus));
  sd_bus_set_exit_on_disconnect(bus, false);
  sd_bus_set_method_call_timeout(bus, kPatienceUs);
  // Waits until the bus has greeted: an address behind which nobody listens fails here.
  const char* unique_name = nullptr;
  if (sd_bus_get_unique_name(bus, &unique_name) < 0) return nullptr;
  return connection;
}

BusConnection::~BusConnection() = default;

bool BusConnection::IsOpen() const { return sd_bus_is_open(bus_.get()) > 0; }

bool BusConnection::WantsTurn() const {
  return DueTime() != UINT64_MAX || (PollEvents() & POLLOUT) != 0;
}

uint64_t BusConnection::DueTime() const {
  uint64_t time = 0;
  return sd_bus_get_timeout(bus_.get(), &time) < 0 ? 0 : time;
}

bool BusConnection::AddMatch(const std::string& rule, sd_bus_message_handler_t handler,
                             Slot* slot) {
  sd_bus_slot* added = nullptr;
  if (sd_bus_add_match(bus_.get(), &added, rule.c_str(), handler, this) < 0) return false;
  slot->reset(added);
  return true;
}

bool BusConnection::Watch(const EventName& name) {
  const bool known = packages_.count(name.package) > 0;
  Package& package = packages_[name.package];
  if (package.events.count(name.full) > 0) return true;
  const std::string rule = std::string("type='signal',path='") + kPath + "',interface='" +
                           kInterface + "',member='" + kMember + "',sender='" + name.package +
                           "',arg0='" + name.full + "'";
  Slot slot;
  if ((known || FollowOwner(name.package, &package)) && AddMatch(rule, OnEvent, &slot)) {
    package.events.emplace(name.full, std::move(slot));
    return true;
  }
  if (!known) packages_.erase(name.package);
  return false;
}

void BusConnection::Unwatch(const EventName& name) {
  const auto package = packages_.find(name.package);
  if (package == packages_.end()) return;
  package->second.events.erase(name.full);
  if (package->second.events.empty()) packages_.erase(package);
}

// The changes are asked for first, so that none falls between the two questions.
bool BusConnection::FollowOwner(const std::string& id, Package* package) {
  const std::string rule = std::string("type='signal',sender='") + kBusName + "',path='" +
                           kBusPath + "',interface='" + kBusName +
                           "',member='NameOwnerChanged',arg0='" + id + "'";
  return AddMatch(rule, OnOwnerChanged, &package->owner_changes) && FindOwner(id, package);
}

bool BusConnection::FindOwner(const std::string& id, Package* package) {
  BusError failure;
  sd_bus_message* answer = nullptr;
  const int result = sd_bus_call_method(bus_.get(), kBusName, kBusPath, kBusName, "GetNameOwner",
                                        &failure.error, &answer, "s", id.c_str());
  const Message owned(answer);
  const char* owner = nullptr;
  if (result >= 0 && sd_bus_message_read(answer, "s", &owner) >= 0) {
    package->owner = owner;
    return true;
  }
  return sd_bus_error_has_name(&failure.error, SD_BUS_ERROR_NAME_HAS_NO_OWNER);
}

int BusConnection::OnOwnerChanged(sd_bus_message* message, void* connection, sd_bus_error*) {
  auto* self = static_cast<BusConnection*>(connection);
  const char* id = nullptr;
  const char* owner = nullptr;
  // A message that another client sends straight to this one meets no rule of the bus.
  if (!IsFrom(message, kBusName)) return 0;
  if (sd_bus_message_read(message, "sss", &id, nullptr, &owner) < 0) return 0;
  const auto package = self->packages_.find(id);
  if (package == self->packages_.end()) return 0;
  package->second.owner = owner;
  package->second.owner_is_successor = true;
  return 0;
}

int BusConnection::OnEvent(sd_bus_message* message, void* connection, sd_bus_error*) {
  try {
    static_cast<BusConnection*>(connection)->Receive(message);
  } catch (const std::exception&) {
    // Without memory the event is lost.
  }
  return 0;
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
  if (package->second.owner.empty() || !IsFrom(message, package->second.owner.c_str())) return;
  if (sd_bus_message_read_array(message, 'y', &payload, &size) < 0) return;
  if (size > kLargestPayload) return;
  const auto* bytes = static_cast<const unsigned char*>(payload);
  received_.push_back({name.full, {bytes, bytes + size}, package->second.owner_is_successor});
  package->second.owner_is_successor = false;
}

int BusConnection::Publish(const EventName& name, const unsigned char* payload, size_t size) {
  if (size > kLargestPayload) return -EINVAL;
  if (owned_packages_.count(name.package) == 0) {
    const int result = sd_bus_request_name(bus_.get(), name.package.c_str(), 0);
    if (result == -EEXIST) return -EACCES;
    if (result < 0 && result != -EALREADY) return -EIO;
    owned_packages_.insert(name.package);
  }
  sd_bus_message* signal = nullptr;
  if (sd_bus_message_new_signal(bus_.get(), &signal, kPath, kInterface, kMember) < 0) return -EIO;
  const Message owned(signal);
  if (sd_bus_message_append(signal, "s", name.full.c_str()) < 0 ||
      sd_bus_message_append_array(signal, 'y', payload, size) < 0 ||
      sd_bus_send(bus_.get(), signal, nullptr) < 0 || sd_bus_flush(bus_.get()) < 0) {
    return -EIO;
  }
  return 0;
}

bool BusConnection::Process(std::vector<ReceivedEvent>* received) {
  int result = 1;
  const auto goes_on = [this] { return received_.empty() || !received_.back().from_successor; };
  for (int i = 0; i < kMessagesAtOnce && result > 0 && goes_on(); ++i) {
    result = sd_bus_process(bus_.get(), nullptr);
  }
  received->swap(received_);
  return result >= 0 && IsOpen();
}

}  // namespace events
