// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_HANDSHAKE_H_
#define RPC_PORT_HANDSHAKE_H_

#include <string>

#include "parcel.h"

/*
 * How a connection begins. The client opens two streams and sends one hello on each; the token,
 * drawn for this connection, tells the server that they belong together. The server answers on the
 * main stream with its verdict, and sends nothing on either stream before it.
 */

namespace rpc_port_desktop {

constexpr size_t kMaxIdLength = 255;
constexpr size_t kTokenLength = 32;
// No honest message of the handshake is longer.
constexpr size_t kMaxHandshakeSize = 1024;

enum StreamKind : int32_t { kMainStream = 0, kCallbackStream = 1 };

struct Hello {
  int32_t version = 0;
  int32_t kind = kMainStream;
  std::string token;
  std::string sender;
  // Which server the client means. Socket names are shortened, so the server compares.
  std::string server;
  std::string port_name;

  // False if the message is no hello at all. One of another version is read up to the version.
  bool Read(Parcel* parcel);
  bool Write(Parcel* parcel) const;
};

constexpr int32_t kProtocolVersion = 1;

enum class Verdict : int32_t { kAccepted = 0, kRejected = 1 };

bool ReadVerdict(Parcel* parcel, Verdict* verdict);
bool WriteVerdict(Parcel* parcel, Verdict verdict);

// A text that can be the ID of an application or the name of a port.
bool IsId(std::string_view text);

// Random hexadecimal digits; empty if the system has none to give.
std::string DrawToken();

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_HANDSHAKE_H_
