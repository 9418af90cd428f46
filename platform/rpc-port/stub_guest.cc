// SPDX-License-Identifier: Apache-2.0
#include "stub_guest.h"

#include "stub.h"

namespace rpc_port_desktop {

StubGuest::StubGuest(base::UniqueFd socket, std::weak_ptr<Stub> stub)
    : stream_(std::make_shared<Stream>(std::move(socket), kMaxHandshakeSize)),
      stub_(std::move(stub)) {}

void StubGuest::Attach() {
  source_.Watch(stream_->fd(), G_IO_IN);
  source_.SetDeadline(deadline_);
  source_.Attach(weak_from_this());
}

void StubGuest::Dispatch() {
  const auto stub = stub_.lock();
  if (!stub) return;
  // One that waits for its partner is woken by its end or its deadline only.
  if (has_said_hello_ || g_get_monotonic_time() >= deadline_) return stub->Dismiss(*this);
  stream_->Fill();
  Parcel message;
  if (!stream_->Take(&message)) {
    if (stream_->ended()) stub->Dismiss(*this);
    return;
  }
  if (!hello_.Read(&message)) return stub->Dismiss(*this);
  has_said_hello_ = true;
  source_.Watch(stream_->fd(), GIOCondition{});
  stub->OnHello(shared_from_this());
}

void StubGuest::Answer(Verdict verdict) {
  Parcel parcel;
  // A guest that is gone has no use for it.
  if (WriteVerdict(&parcel, verdict)) (void)stream_->Send(parcel.Seal(), parcel.message_size());
}

std::shared_ptr<Stream> StubGuest::Leave() {
  source_.Destroy();
  return stream_;
}

}  // namespace rpc_port_desktop
