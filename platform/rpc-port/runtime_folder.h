// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_RUNTIME_FOLDER_H_
#define RPC_PORT_RUNTIME_FOLDER_H_

#include <string>
#include <string_view>

#include "unique_fd.h"

/*
 * Where the sockets are: $VELMORA_RUNTIME_DIR, else $XDG_RUNTIME_DIR/velmora, else
 * /tmp/velmora-UID. The folder is trusted only if it is no symbolic link, belongs to this user and
 * is closed to all others. Everything in it is reached through its descriptor, so that renaming it
 * or putting another one in its place changes nothing, and its path may be of any length.
 */

namespace rpc_port_desktop {

enum class IfMissing { kFail, kMake };

// Opens the folder. -5 if it is not there or cannot be made, -13 if it cannot be trusted.
int OpenRuntimeFolder(IfMissing if_missing, base::UniqueFd* folder);

// The name of a port's socket in the folder: printable, short enough for a socket address.
std::string SocketName(std::string_view app_id, std::string_view port_name);

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_RUNTIME_FOLDER_H_
