// SPDX-License-Identifier: Apache-2.0
#include "service/bus_barrier.h"

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "owned.h"

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(2);
constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";

/** Who is on the bus, and of how many of its questions the answer is still to come. */
struct Barrier {
  // No flush: a bus that accepts nothing must not be waited for.
  base::Owned<sd_bus, sd_bus_close_unref> bus;
  std::string owner;  // of the name that is left out
  int pending = 0;

  template <typename... Arguments>
  void Ask(const char* whom, const char* path, const char* interface, const char* method,
           sd_bus_message_handler_t answered, const char* types, Arguments... arguments) {
    if (sd_bus_call_method_async(bus.get(), nullptr, whom, path, interface, method, answered, this,
                                 types, arguments...) >= 0) {
      ++pending;
    }
  }
};

int OnPong(sd_bus_message*, void* barrier, sd_bus_error*) {
  --static_cast<Barrier*>(barrier)->pending;
  return 0;
}

int OnOwner(sd_bus_message* message, void* data, sd_bus_error*) {
  auto* barrier = static_cast<Barrier*>(data);
  --barrier->pending;
  const char* owner = nullptr;
  if (sd_bus_message_is_method_error(message, nullptr) <= 0 &&
      sd_bus_message_read(message, "s", &owner) >= 0) {
    barrier->owner = owner;
  }
  return 0;
}

/** Asks everybody for a sign of life, which arrives after what they were sent before. */
int OnNames(sd_bus_message* message, void* data, sd_bus_error*) {
  auto* barrier = static_cast<Barrier*>(data);
  --barrier->pending;
  char** names = nullptr;
  const char* self = nullptr;
  if (sd_bus_message_is_method_error(message, nullptr) > 0 ||
      sd_bus_message_read_strv(message, &names) < 0 || names == nullptr) {
    return 0;
  }
  sd_bus_get_unique_name(barrier->bus.get(), &self);
  for (char** name = names; *name != nullptr; ++name) {
    const std::string peer = *name;
    if (peer.front() == ':' && peer != barrier->owner && (self == nullptr || peer != self)) {
      barrier->Ask(peer.c_str(), "/", "org.freedesktop.DBus.Peer", "Ping", OnPong, "");
    }
    std::free(*name);
  }
  std::free(names);
  return 0;
}

}  // namespace

void AwaitBusPeers(const std::string& own) {
  const auto end = Clock::now() + kPatience;
  sd_bus* opened = nullptr;
  if (sd_bus_open_user(&opened) < 0) return;
  Barrier barrier;
  barrier.bus.reset(opened);
  barrier.Ask(kBus, kBusPath, kBus, "GetNameOwner", OnOwner, "s", own.c_str());
  barrier.Ask(kBus, kBusPath, kBus, "ListNames", OnNames, "");
  while (barrier.pending > 0) {
    const int progress = sd_bus_process(opened, nullptr);
    if (progress < 0 || Clock::now() >= end) return;
    if (progress == 0) {
      const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now());
      sd_bus_wait(opened, static_cast<std::uint64_t>(left.count() > 0 ? left.count() : 0));
    }
  }
}

}  // namespace sim
