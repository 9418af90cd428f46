// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_STUB_CLIENT_H_
#define RPC_PORT_STUB_CLIENT_H_

#include <memory>
#include <string>

#include "connection.h"
#include "message_pump.h"

namespace rpc_port_desktop {

class Stub;

// One client of a stub. It keeps the streams of its connection moving and reports to the stub.
class StubClient final : public LoopSource::Handler,
                         public std::enable_shared_from_this<StubClient> {
 public:
  StubClient(std::string sender, std::string instance, std::shared_ptr<Stream> main,
             std::shared_ptr<Stream> callback, std::weak_ptr<Stub> stub);

  void Attach();
  bool HasWork() override;
  void Dispatch() override;

  // Ends its events; true the first time.
  bool End();
  // Whether the message with this number is still to be taken.
  bool Waits(uint64_t number) { return !ended_ && pump_.Waits(number); }

  const std::string sender;
  const std::string instance;
  Connection connection;

 private:
  const std::weak_ptr<Stub> stub_;
  MessagePump pump_;
  bool ended_ = false;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_STUB_CLIENT_H_
