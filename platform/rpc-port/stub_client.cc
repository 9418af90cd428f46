// SPDX-License-Identifier: Apache-2.0
#include "stub_client.h"

#include "stub.h"

namespace rpc_port_desktop {

StubClient::StubClient(std::string sender_id, std::string instance_name,
                       std::shared_ptr<Stream> main, std::shared_ptr<Stream> callback,
                       std::weak_ptr<Stub> stub)
    : sender(std::move(sender_id)),
      instance(std::move(instance_name)),
      connection(std::move(main), std::move(callback)),
      stub_(std::move(stub)),
      pump_(connection.main, connection.source) {
  for (const auto& stream : {connection.main, connection.callback}) {
    stream->set_max_content(kMaxContentSize);
    stream->QueueWrites(connection.source);
  }
  connection.Publish();
}

void StubClient::Attach() {
  connection.source->Watch(connection.main->fd(), G_IO_IN);
  connection.source->Watch(connection.callback->fd(), GIOCondition{});
  connection.source->Attach(weak_from_this());
}

bool StubClient::HasWork() { return !ended_ && pump_.HasWork(); }

void StubClient::Dispatch() {
  const auto stub = stub_.lock();
  if (!stub || ended_) return;
  const Connection::Events events = connection.Look();
  if (events.main & G_IO_OUT) connection.main->Flush();
  if (events.callback & G_IO_OUT) connection.callback->Flush();
  if (Connection::HungUp(events.callback)) {
    // Without one of its streams the connection is over; what the other still holds comes first.
    connection.source->Unwatch(connection.callback->fd());
    connection.main->ShutDown();
  }
  const auto self = shared_from_this();
  const bool goes_on = pump_.Deliver(
      events.main, [&] { return !ended_; },
      [&](uint64_t number) { stub->OnMessage(self, number); });
  if (!goes_on) stub->OnGone(self);
}

bool StubClient::End() {
  if (ended_) return false;
  ended_ = true;
  connection.End();
  return true;
}

}  // namespace rpc_port_desktop
