// SPDX-License-Identifier: Apache-2.0
#include "service/delivery.h"

#include <signal.h>
#include <unistd.h>

#include <utility>

#include "protocol/messages.h"

namespace sim {
namespace {

/** The bytes of a message as they travel on a stream, with any claimed length. */
std::string RawMessage(std::uint32_t length, std::string_view content) {
  std::string raw;
  for (int shift = 0; shift < 32; shift += 8) raw += static_cast<char>((length >> shift) & 0xff);
  return raw.append(content);
}

/** Messages that a client has to ignore: on each port, of the kinds that could mislead it there. */
Parcel StrayMessage(rpc_port_port_type_e port, std::int32_t number) {
  Parcel parcel;
  if (port == RPC_PORT_PORT_MAIN) {
    parcel.Int(number % 2 == 0 ? 1 : 7).Int(number).Text("stray");
    return parcel;
  }
  switch (number % 3) {
    case 0:  // a command that is no answer
      parcel.Int(0).Int(1).Int(0).Flag(false);
      break;
    case 1:  // a delegate that was never registered
      parcel.Int(1).Int(99).Int(0).Flag(false).Int(0);
      break;
    default:  // a sequence number that was never given
      parcel.Int(1).Int(1).Int(0x7fffffff).Flag(true).Int(0).Count(0).Int(0);
      break;
  }
  return parcel;
}

std::string_view Shortened(const MethodScript& script, std::string_view content) {
  const auto half = static_cast<std::int32_t>(content.size() / 2);
  return content.substr(0, static_cast<std::size_t>(script.cut_at.value_or(half)));
}

}  // namespace

void DeliveryQueue::AddFaulty(Fault fault, const MethodScript& script, Parcel parcel,
                              std::deque<Step>* steps) {
  Step step;
  const std::string_view content = parcel.Bytes();
  switch (fault) {
    case Fault::kNone:
    case Fault::kNever:
    case Fault::kDropAfter:
      step.parcel = std::move(parcel);
      break;
    case Fault::kCut:
      step.parcel.emplace().SetBytes(Shortened(script, content));
      break;
    case Fault::kDrop:
      step.action = Action::kDrop;
      break;
    case Fault::kCrash:
      step.action = Action::kCrash;
      break;
    case Fault::kTruncated:
      step.action = Action::kSendRaw;
      step.raw = RawMessage(static_cast<std::uint32_t>(content.size()), Shortened(script, content));
      break;
    case Fault::kOversized:
      step.action = Action::kSendRaw;
      step.raw = RawMessage(kMostBytes + 1, content);
      break;
    case Fault::kNegative:
      step.action = Action::kSendRaw;
      step.raw = RawMessage(0xffffffffu, content);
      break;
  }
  steps->push_back(std::move(step));
}

std::deque<DeliveryQueue::Step> DeliveryQueue::Plan(rpc_port_port_type_e port,
                                                    const MethodScript& script,
                                                    std::vector<TimedParcel> messages) {
  std::deque<Step> steps;
  for (std::int32_t number = 0; number < script.stray; ++number) {
    steps.emplace_back().parcel = StrayMessage(port, number);
  }
  const bool ends_early = script.fault == Fault::kDrop || script.fault == Fault::kCrash ||
                          script.fault == Fault::kTruncated;
  Fault fault = script.fault;
  for (TimedParcel& message : messages) {
    if (script.fault == Fault::kNever) break;
    AddFaulty(fault, script, std::move(message.parcel), &steps);
    steps.back().delay = message.delay;
    fault = Fault::kNone;  // only the first message is spoilt
    if (ends_early) break;
  }
  if (script.fault == Fault::kDropAfter || script.fault == Fault::kTruncated) {
    steps.emplace_back().action = Action::kDrop;
  }
  if (!steps.empty()) steps.front().delay += script.delay;
  return steps;
}

void DeliveryQueue::Deliver(const std::string& instance, rpc_port_port_type_e port,
                            const MethodScript& script, std::vector<TimedParcel> messages) {
  const auto self = deliveries_.emplace(deliveries_.end());
  self->instance = instance;
  self->port = port;
  self->steps = Plan(port, script, std::move(messages));
  if (!Advance(self, false)) deliveries_.erase(self);
}

bool DeliveryQueue::Advance(std::list<Delivery>::iterator delivery, bool from_loop) {
  while (!delivery->steps.empty()) {
    Step& step = delivery->steps.front();
    // The platform is still inside the connection's own event: ending it there waits for the loop.
    const bool unsafe = step.action == Action::kDrop && !from_loop;
    if (step.delay > 0 || unsafe) {
      delivery->timer.After(scenario_.Scaled(std::exchange(step.delay, 0)), [this, delivery] {
        if (!Advance(delivery, true)) deliveries_.erase(delivery);
      });
      return true;
    }
    if (!Take(*delivery, step)) return false;
    delivery->steps.pop_front();
  }
  return false;
}

bool DeliveryQueue::Take(const Delivery& delivery, const Step& step) {
  rpc_port_h port = nullptr;
  if (rpc_port_stub_get_port(stub_, delivery.port, delivery.instance.c_str(), &port) != 0) {
    return false;
  }
  switch (step.action) {
    case Action::kSend:
      return step.parcel->Send(port);
    case Action::kSendRaw:
      return rpc_port_desktop_send_bytes(port, step.raw.data(), step.raw.size()) == 0;
    case Action::kDrop:
      rpc_port_desktop_stub_disconnect(stub_, delivery.instance.c_str());
      return false;
    case Action::kCrash:
      raise(SIGKILL);
      return false;
  }
  return false;
}

}  // namespace sim
