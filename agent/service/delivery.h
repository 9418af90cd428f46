// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_DELIVERY_H_
#define AGENT_SERVICE_DELIVERY_H_

#include <rpc-port.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/parcel.h"
#include "scenario/scenario.h"
#include "service/event_source.h"
#include "trace/port_trace.h"

namespace sim {

/** A message and the pause before it, in milliseconds of the scenario. */
struct TimedParcel {
  std::int32_t delay = 0;
  Parcel parcel;
};

/**
 * Brings answers to clients: after their delays, and with the faults that the scenario wants. What
 * waits for a client that has gone is dropped.
 */
class DeliveryQueue {
 public:
  /** All must outlive the queue. */
  DeliveryQueue(rpc_port_stub_h stub, const Scenario& scenario, PortTrace& trace)
      : stub_(stub), scenario_(scenario), trace_(trace) {}
  DeliveryQueue(const DeliveryQueue&) = delete;
  DeliveryQueue& operator=(const DeliveryQueue&) = delete;

  /**
   * Sends the messages one after the other: before it returns, if there are no delays and faults.
   * `done` is called when that is over, however it went.
   */
  void Deliver(const std::string& instance, rpc_port_port_type_e port, const MethodScript& script,
               std::vector<TimedParcel> messages, std::function<void()> done = nullptr);

  /** Whether an answer by this script has nothing to wait for, and is not to be spoilt. */
  bool CanSendAtOnce(const MethodScript& script) const;
  /** Sends a message, as it travels; false if it is for nobody. Only where CanSendAtOnce. */
  bool Send(const std::string& instance, rpc_port_port_type_e port, std::string_view message);

  /** Ends a connection. From the main loop, not inside an event of the port. */
  void Drop(const std::string& instance);

 private:
  enum class Action { kNothing, kSend, kSendRaw, kDrop, kCrash };
  struct Step {
    std::int32_t delay = 0;
    Action action = Action::kSend;
    std::optional<Parcel> parcel;  // kSend
    std::string raw;               // kSendRaw
    std::optional<Drip> drip;      // kSendRaw
    std::size_t sent = 0;          // of it
  };
  struct Delivery {
    std::string instance;
    rpc_port_port_type_e port = RPC_PORT_PORT_MAIN;
    std::deque<Step> steps;
    std::function<void()> done;
    bool in_message = false;  // which others on the same port must not interrupt
    bool waiting = false;     // for such a message to end
    EventSource timer;
  };
  using Position = std::list<Delivery>::iterator;

  static std::deque<Step> Plan(rpc_port_port_type_e port, const MethodScript& script,
                               std::vector<TimedParcel> messages);
  static void AddFaulty(Fault fault, const MethodScript& script, Parcel parcel,
                        std::deque<Step>* steps);
  static void PrepareDrip(const Drip& drip, Step* step);
  /** Takes steps until one has to wait; false when the delivery is over. */
  bool Advance(Position delivery, bool from_loop);
  void GoOn(Position delivery, bool from_loop);
  bool Take(Delivery& delivery, Step& step);
  /** Null if the client has gone. */
  rpc_port_h FindPort(const std::string& instance, rpc_port_port_type_e port) const;
  bool SendOn(rpc_port_h handle, const std::string& instance, rpc_port_port_type_e port,
              std::string_view message);
  static bool SendWhole(std::string_view message, rpc_port_h port);
  bool SendPiece(Delivery& delivery, Step& step, rpc_port_h port);
  bool HasToWait(const Delivery& delivery) const;

  rpc_port_stub_h stub_;
  const Scenario& scenario_;
  PortTrace& trace_;
  std::list<Delivery> deliveries_;
};

}  // namespace sim

#endif  // AGENT_SERVICE_DELIVERY_H_
