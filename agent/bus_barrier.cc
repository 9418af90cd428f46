// SPDX-License-Identifier: Apache-2.0
#include "bus_barrier.h"

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience(2);
constexpr char kPeer[] = "org.freedesktop.DBus.Peer";

struct BusClose {
  void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};

struct CredsUnref {
  void operator()(sd_bus_creds* creds) const { sd_bus_creds_unref(creds); }
};

/** The unique name behind a name; empty if nobody owns it. */
std::string OwnerOf(sd_bus* bus, const std::string& name) {
  sd_bus_creds* taken = nullptr;
  const char* owner = nullptr;
  sd_bus_get_name_creds(bus, name.c_str(), SD_BUS_CREDS_UNIQUE_NAME, &taken);
  const std::unique_ptr<sd_bus_creds, CredsUnref> creds(taken);
  if (!creds || sd_bus_creds_get_unique_name(taken, &owner) < 0) {
    return "";
  }
  return owner;
}

/** Asks everybody for a sign of life: it comes behind what they were sent before. */
void PingAll(sd_bus* bus, const std::string& own, int* pending) {
  char** names = nullptr;
  if (sd_bus_list_names(bus, &names, nullptr) < 0) {
    return;
  }
  const std::string owner = OwnerOf(bus, own);
  const char* self = nullptr;
  sd_bus_get_unique_name(bus, &self);
  for (char** name = names; *name != nullptr; ++name) {
    const std::string peer = *name;
    const bool other = peer.front() == ':' && peer != owner && (self == nullptr || peer != self);
    if (other && sd_bus_call_method_async(
                     bus, nullptr, peer.c_str(), "/", kPeer, "Ping",
                     [](sd_bus_message*, void* data, sd_bus_error*) {
                       --*static_cast<int*>(data);
                       return 0;
                     },
                     pending, nullptr) >= 0) {
      ++*pending;
    }
    std::free(*name);
  }
  std::free(names);
}

}  // namespace

void AwaitBusPeers(const std::string& own) {
  sd_bus* opened = nullptr;
  if (sd_bus_open_user(&opened) < 0) {
    return;
  }
  const std::unique_ptr<sd_bus, BusClose> bus(opened);
  int pending = 0;
  PingAll(bus.get(), own, &pending);
  const auto end = Clock::now() + kPatience;
  while (pending > 0) {
    const int progress = sd_bus_process(bus.get(), nullptr);
    if (progress < 0 || Clock::now() >= end) {
      return;
    }
    if (progress == 0) {
      const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now());
      sd_bus_wait(bus.get(), static_cast<std::uint64_t>(left.count() > 0 ? left.count() : 0));
    }
  }
}

}  // namespace sim
