// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_TRACE_CAPTURE_H_
#define AGENT_TRACE_CAPTURE_H_

#include <rpc-port.h>

#include <cstdint>
#include <string>
#include <string_view>

/*
 * A capture: what goes over the sockets of a port, as packets of a pcapng file. Each packet is of the
 * link type "upper PDU", which names its dissector, and begins with a header of eight bytes:
 *
 *   byte 0      version of this header: 1
 *   byte 1      direction: 0 to the agent, 1 to the client
 *   byte 2      stream: 0 main, 1 callback
 *   byte 3      kind, below
 *   byte 4..7   the client's number, little-endian; 0: it has none
 */

namespace sim {

struct Packet {
  enum class Kind : std::uint8_t {
    kMessage = 0,     // as on the socket: its content's length, then the content
    kBytes = 1,       // bytes that are no whole message
    kConnect = 2,     // the application's ID: its client is served
    kDisconnect = 3,  // nothing: the connection has ended
    kRefuse = 4,      // the application's ID: its client is turned away
  };

  Kind kind = Kind::kMessage;
  bool to_client = false;
  rpc_port_port_type_e stream = RPC_PORT_PORT_MAIN;
  int client = 0;
};

/** What a capture begins with. */
std::string CaptureHeader();

/**
 * A packet as a block of the file, with the time of this call; of a long one the beginning. `content`
 * is without the length that precedes a message.
 */
std::string CaptureBlock(const Packet& packet, std::string_view content);

}  // namespace sim

#endif  // AGENT_TRACE_CAPTURE_H_
