// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_STUB_GUEST_H_
#define RPC_PORT_STUB_GUEST_H_

#include <memory>

#include "handshake.h"
#include "loop_source.h"
#include "stream.h"
#include "unique_fd.h"

namespace rpc_port_desktop {

class Stub;

// A stream that a stub has accepted and that is not part of a connection yet.
class StubGuest final : public LoopSource::Handler, public std::enable_shared_from_this<StubGuest> {
 public:
  StubGuest(base::UniqueFd socket, std::weak_ptr<Stub> stub);

  void Attach();
  void Dispatch() override;

  // Complete once has_said_hello().
  const Hello& hello() const { return hello_; }
  bool has_said_hello() const { return has_said_hello_; }

  void Answer(Verdict verdict);
  // Gives the stream away.
  std::shared_ptr<Stream> Leave();

 private:
  // Far more than an honest client needs, which sends its hello as soon as it has connected.
  static constexpr gint64 kPatience = 10 * G_USEC_PER_SEC;

  const std::shared_ptr<Stream> stream_;
  const std::weak_ptr<Stub> stub_;
  const gint64 deadline_ = g_get_monotonic_time() + kPatience;
  LoopSource source_;
  Hello hello_;
  bool has_said_hello_ = false;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_STUB_GUEST_H_
