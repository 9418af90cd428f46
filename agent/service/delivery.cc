// SPDX-License-Identifier: Apache-2.0
#include "service/delivery.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "common/marks.h"
#include "protocol/messages.h"

namespace sim {
namespace {

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

/** A fault as scenarios write it. */
const char* WordFor(Fault fault) {
  switch (fault) {
    case Fault::kNone:
      return "none";
    case Fault::kNever:
      return "never";
    case Fault::kDrop:
      return "drop";
    case Fault::kDropAfter:
      return "drop-after";
    case Fault::kCrash:
      return "crash";
    case Fault::kCut:
      return "cut";
    case Fault::kTruncated:
      return "truncated";
    case Fault::kOversized:
      return "oversized";
    case Fault::kNegative:
      return "negative";
  }
  return "";
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
      step.raw = Framed(static_cast<std::uint32_t>(content.size()), Shortened(script, content));
      break;
    case Fault::kOversized:
      step.action = Action::kSendRaw;
      step.raw = Framed(kMostBytes + 1, content);
      break;
    case Fault::kNegative:
      step.action = Action::kSendRaw;
      step.raw = Framed(0xffffffffu, content);
      break;
  }
  if (script.drip) PrepareDrip(*script.drip, &step);
  steps->push_back(std::move(step));
}

void DeliveryQueue::PrepareDrip(const Drip& drip, Step* step) {
  if (step->action == Action::kSend) {
    step->raw = Framed(*step->parcel);
    step->action = Action::kSendRaw;
    step->parcel.reset();
  }
  step->drip = drip;
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
  if (steps.empty() && script.delay > 0) steps.emplace_back().action = Action::kNothing;
  if (!steps.empty()) steps.front().delay += script.delay;
  return steps;
}

void DeliveryQueue::Deliver(const std::string& instance, rpc_port_port_type_e port,
                            const MethodScript& script, std::vector<TimedParcel> messages,
                            std::function<void()> done) {
  const bool none_waits =
      std::all_of(messages.begin(), messages.end(),
                  [](const TimedParcel& message) { return message.delay == 0; });
  if (none_waits && CanSendAtOnce(script)) {
    for (const TimedParcel& message : messages) {
      if (!Send(instance, port, Framed(message.parcel))) break;
    }
    if (done) done();
    return;
  }
  const auto self = deliveries_.emplace(deliveries_.end());
  self->instance = instance;
  self->port = port;
  self->steps = Plan(port, script, std::move(messages));
  if (script.fault != Fault::kNone) trace_.Spoilt(instance, WordFor(script.fault));
  self->done = std::move(done);
  GoOn(self, false);
}

bool DeliveryQueue::CanSendAtOnce(const MethodScript& script) const {
  return deliveries_.empty() && script.delay == 0 && script.stray == 0 && !script.drip &&
         script.fault == Fault::kNone;
}

rpc_port_h DeliveryQueue::FindPort(const std::string& instance, rpc_port_port_type_e port) const {
  rpc_port_h handle = nullptr;
  rpc_port_stub_get_port(stub_, port, instance.c_str(), &handle);
  return handle;
}

bool DeliveryQueue::Send(const std::string& instance, rpc_port_port_type_e port,
                         std::string_view message) {
  return SendOn(FindPort(instance, port), instance, port, message);
}

bool DeliveryQueue::SendOn(rpc_port_h handle, const std::string& instance,
                           rpc_port_port_type_e port, std::string_view message) {
  const bool there = handle != nullptr;
  // Traced first: the client may act on a message before this process runs again.
  trace_.Sent(instance, port, message.substr(kLengthSize), there);
  return there && SendWhole(message, handle);
}

void DeliveryQueue::GoOn(Position delivery, bool from_loop) {
  if (Advance(delivery, from_loop)) return;
  const std::function<void()> done = std::move(delivery->done);
  deliveries_.erase(delivery);
  if (done) done();
}

/** Behind a message that is sent in pieces, answers keep their order. */
bool DeliveryQueue::HasToWait(const Delivery& delivery) const {
  bool earlier = true;
  for (const Delivery& other : deliveries_) {
    if (&other == &delivery) {
      earlier = false;
    } else if (other.port == delivery.port && (other.in_message || (earlier && other.waiting)) &&
               other.instance == delivery.instance) {
      return true;
    }
  }
  return false;
}

bool DeliveryQueue::Advance(Position delivery, bool from_loop) {
  while (!delivery->steps.empty()) {
    Step& step = delivery->steps.front();
    // The platform is still inside the connection's own event: ending it there waits for the loop.
    const bool unsafe = step.action == Action::kDrop && !from_loop;
    delivery->waiting = step.delay == 0 && HasToWait(*delivery);
    if (step.delay > 0 || unsafe || delivery->waiting) {
      const unsigned pause = delivery->waiting ? 1 : scenario_.Scaled(std::exchange(step.delay, 0));
      delivery->timer.After(pause, [this, delivery] { GoOn(delivery, true); });
      return true;
    }
    if (!Take(*delivery, step)) return false;
    if (!delivery->in_message) delivery->steps.pop_front();
  }
  return false;
}

bool DeliveryQueue::Take(Delivery& delivery, Step& step) {
  const rpc_port_h port = FindPort(delivery.instance, delivery.port);
  const bool there = port != nullptr;
  switch (step.action) {
    case Action::kNothing:
      return true;
    case Action::kSend:
      return SendOn(port, delivery.instance, delivery.port, Framed(*step.parcel));
    case Action::kSendRaw:
      if (step.sent == 0) trace_.SentRaw(delivery.instance, delivery.port, step.raw, there);
      return there && SendPiece(delivery, step, port);
    case Action::kDrop:
      if (there) Drop(delivery.instance);
      return false;
    case Action::kCrash:
      if (there) raise(SIGKILL);
      return false;
  }
  return false;
}

bool DeliveryQueue::SendWhole(std::string_view message, rpc_port_h port) {
  Pass(Mark::kMessageTraced);
  if (IsDue(Mark::kInMessage)) {
    const std::size_t half = message.size() / 2;
    rpc_port_desktop_send_bytes(port, message.data(), half);
    Strike();
    message.remove_prefix(half);
    return rpc_port_desktop_send_bytes(port, message.data(), message.size()) == 0;
  }
  const bool sent = rpc_port_desktop_send_bytes(port, message.data(), message.size()) == 0;
  Pass(Mark::kMessageSent);
  return sent;
}

bool DeliveryQueue::SendPiece(Delivery& delivery, Step& step, rpc_port_h port) {
  const std::size_t rest = step.raw.size() - step.sent;
  const std::size_t size =
      step.drip ? std::min(rest, static_cast<std::size_t>(step.drip->bytes)) : rest;
  const char* const bytes = step.raw.data() + step.sent;
  step.sent += size;
  delivery.in_message = step.sent < step.raw.size();
  if (delivery.in_message) step.delay = step.drip->pause;
  return rpc_port_desktop_send_bytes(port, bytes, size) == 0;
}

void DeliveryQueue::Drop(const std::string& instance) {
  trace_.Disconnected(instance, "agent");
  rpc_port_desktop_stub_disconnect(stub_, instance.c_str());
}

}  // namespace sim
