// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_OWN_APP_ID_H_
#define RPC_PORT_OWN_APP_ID_H_

#include <string>

namespace rpc_port_desktop {

// The ID of the calling application. Fails as the platform does, and with -22 if the ID cannot
// travel.
int OwnAppId(std::string* id);

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_OWN_APP_ID_H_
