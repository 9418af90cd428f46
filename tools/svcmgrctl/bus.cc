// SPDX-License-Identifier: Apache-2.0
#include "bus.h"

#include <systemd/sd-bus.h>

#include <system_error>

#include "owned.h"

namespace svcmgrctl {

struct BusProbe::Bus {
  base::Owned<sd_bus, sd_bus_close_unref> connection;
  int error = 0;
};

BusProbe::BusProbe() : bus_(std::make_unique<Bus>()) {
  sd_bus* bus = nullptr;
  bus_->error = sd_bus_open_user(&bus);
  bus_->connection.reset(bus);
}

BusProbe::~BusProbe() = default;

BusProbe::State BusProbe::Step() {
  int more = bus_->error < 0 ? bus_->error : 1;
  while (more > 0) more = sd_bus_process(bus_->connection.get(), nullptr);
  const int ready = more < 0 ? more : sd_bus_is_ready(bus_->connection.get());
  if (ready > 0) return State::kAnswers;
  if (ready == 0) return State::kUnderWay;
  bus_->error = ready;
  return State::kFails;
}

std::string BusProbe::reason() const { return std::generic_category().message(-bus_->error); }

}  // namespace svcmgrctl
