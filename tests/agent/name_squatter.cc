// SPDX-License-Identifier: Apache-2.0
// Queues for a name on the session bus, and says when it waits and when it has the name.
// Ends with the bus.
//
//   name_squatter NAME

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdio>

namespace {

int OnNameAcquired(sd_bus_message*, void*, sd_bus_error*) {
  std::puts("acquired");
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  sd_bus* bus = nullptr;
  if (argc != 2 || sd_bus_open_user(&bus) < 0) return 1;
  sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus", nullptr, "org.freedesktop.DBus",
                      "NameAcquired", OnNameAcquired, nullptr);
  if (sd_bus_request_name(bus, argv[1], SD_BUS_NAME_QUEUE) != 0) return 1;
  std::puts("queued");
  std::fflush(stdout);
  for (int result = 0; result >= 0;) {
    result = sd_bus_process(bus, nullptr);
    if (result == 0) result = sd_bus_wait(bus, UINT64_MAX);
  }
  sd_bus_unref(bus);
  return 0;
}
