// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_UNIX_SOCKET_H_
#define RPC_PORT_UNIX_SOCKET_H_

#include <optional>
#include <string>

#include "forks.h"
#include "unique_fd.h"

namespace rpc_port_desktop {

// The peer runs as the same user as this process.
bool PeerIsOwnUser(int socket);

// Connects to the socket `name` of the folder without waiting. -5 if nobody listens there or the
// listener's queue is full, -13 if it is not this user's.
int ConnectTo(int folder, const std::string& name, base::UniqueFd* connected);

// A listening socket in a folder, removed from it when this is destroyed.
//
// A lock beside the socket tells a living server from a dead one: the system releases it however
// the server ends, and whoever holds it may replace the socket. A forked child holds neither.
class ServerSocket {
 public:
  ~ServerSocket();

  // -5 if a living server listens there already.
  int Listen(base::UniqueFd folder, const std::string& name);
  int fd() const { return socket_->get(); }

 private:
  bool TakeLock();

  base::UniqueFd folder_;
  std::string name_;
  std::optional<OwnFd> lock_;
  std::optional<OwnFd> socket_;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_UNIX_SOCKET_H_
