// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_OWN_APP_ID_H_
#define RPC_PORT_OWN_APP_ID_H_

#include <string>

namespace rpc_port_desktop {

// The ID of the calling application. Fails with app_get_id's code, or with -22 if the ID is empty
// or too long to send.
int OwnAppId(std::string* id);

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_OWN_APP_ID_H_
