// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_DELIVERY_H_
#define AGENT_SERVICE_DELIVERY_H_

#include <rpc-port.h>

#include <cstdint>
#include <deque>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "protocol/parcel.h"
#include "scenario/scenario.h"
#include "service/event_source.h"

namespace sim {

/** A message and the pause before it, in milliseconds of the scenario. */
struct TimedParcel {
  std::int32_t delay;
  Parcel parcel;
};

/**
 * Brings answers to clients: after their delays, and with the faults that the scenario wants. What
 * waits for a client that has gone is dropped.
 */
class DeliveryQueue {
 public:
  /** Both must outlive the queue. */
  DeliveryQueue(rpc_port_stub_h stub, const Scenario& scenario)
      : stub_(stub), scenario_(scenario) {}
  DeliveryQueue(const DeliveryQueue&) = delete;
  DeliveryQueue& operator=(const DeliveryQueue&) = delete;

  /** Sends the messages one after the other: before it returns, if there are no delays and faults. */
  void Deliver(const std::string& instance, rpc_port_port_type_e port, const MethodScript& script,
               std::vector<TimedParcel> messages);

 private:
  enum class Action { kSend, kSendRaw, kDrop, kCrash };
  struct Step {
    std::int32_t delay = 0;
    Action action = Action::kSend;
    std::optional<Parcel> parcel;  // kSend
    std::string raw;               // kSendRaw
  };
  struct Delivery {
    std::string instance;
    rpc_port_port_type_e port = RPC_PORT_PORT_MAIN;
    std::deque<Step> steps;
    EventSource timer;
  };

  static std::deque<Step> Plan(rpc_port_port_type_e port, const MethodScript& script,
                               std::vector<TimedParcel> messages);
  static void AddFaulty(Fault fault, const MethodScript& script, Parcel parcel,
                        std::deque<Step>* steps);
  /** Takes steps until one has to wait; false when the delivery is over. */
  bool Advance(std::list<Delivery>::iterator delivery, bool from_loop);
  bool Take(const Delivery& delivery, const Step& step);

  rpc_port_stub_h stub_;
  const Scenario& scenario_;
  std::list<Delivery> deliveries_;
};

}  // namespace sim

#endif  // AGENT_SERVICE_DELIVERY_H_
