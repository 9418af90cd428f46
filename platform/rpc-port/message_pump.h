// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_MESSAGE_PUMP_H_
#define RPC_PORT_MESSAGE_PUMP_H_

#include <memory>
#include <new>

#include "loop_source.h"
#include "stream.h"

namespace rpc_port_desktop {

// Offers the messages of a stream one by one to a callback that takes each from the port. It offers
// whole messages only, so that a callback never waits for a slow peer, and drops the message that a
// callback has left behind, so that no message is offered twice.
//
// A message that a callback could not take for want of memory is kept, and offered again when the
// source has rested.
//
// A main loop that runs inside such a callback is offered further messages as soon as the callback
// has taken its own; until then the stream is not watched.
class MessagePump {
 public:
  MessagePump(std::shared_ptr<Stream> stream, std::shared_ptr<LoopSource> source)
      : stream_(std::move(stream)), source_(std::move(source)) {
    stream_->KeepWhatDoesNotFit();
  }

  // Whether the message with this number has not been taken yet.
  bool Waits(uint64_t number) { return stream_->Front() == number; }

  // For the source's HasWork: whole messages wait that no descriptor shows.
  bool HasWork();

  // For the source's Dispatch: reads once if the stream's events say so, then calls `offer` with
  // the number of each whole message while `alive` holds. Returns false if the stream is over.
  // Throws std::bad_alloc if memory is short.
  template <typename Alive, typename Offer>
  bool Deliver(unsigned events, Alive alive, Offer offer) {
    if (!Read(events)) return true;
    while (alive()) {
      const auto front = stream_->Front();
      if (!front) return !stream_->ended();
      offered_ = front;
      offer(*front);
      if (!stream_->Discard(*front)) {
        offered_.reset();
        throw std::bad_alloc();
      }
    }
    return true;
  }

 private:
  bool Read(unsigned events);
  bool FrontIsOnOffer();

  const std::shared_ptr<Stream> stream_;
  const std::shared_ptr<LoopSource> source_;
  std::optional<uint64_t> offered_;
  bool paused_ = false;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_MESSAGE_PUMP_H_
