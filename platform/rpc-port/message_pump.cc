// SPDX-License-Identifier: Apache-2.0
#include "message_pump.h"

namespace rpc_port_desktop {

bool MessagePump::FrontIsOnOffer() {
  const auto front = stream_->Front();
  return front && front == offered_;
}

bool MessagePump::HasWork() {
  const auto front = stream_->Front();
  if (front && front == offered_) return false;
  if (paused_) {
    paused_ = false;
    source_->Resume(stream_->fd());
  }
  return front.has_value();
}

// False if nothing may be offered now.
bool MessagePump::Read(unsigned events) {
  if (FrontIsOnOffer()) {
    // In a nested main loop the descriptor stays readable: watching it would only burn time.
    paused_ = true;
    source_->Pause(stream_->fd());
    return false;
  }
  if (events & (G_IO_IN | G_IO_HUP | G_IO_ERR)) stream_->Fill();
  return true;
}

}  // namespace rpc_port_desktop
