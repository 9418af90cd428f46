// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_TRACE_PORT_TRACE_H_
#define AGENT_TRACE_PORT_TRACE_H_

#include <rpc-port.h>

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "protocol/messages.h"
#include "trace/trace.h"

namespace sim {

/** Traces what clients do, and what the agent sends them. Its clients are numbered as they come. */
class PortTrace {
 public:
  /** `last_client` is the number of the last one of the processes before. */
  explicit PortTrace(int last_client = 0) : last_client_(last_client) {}

  void Refused(const std::string& app);
  void Connected(const std::string& app, const std::string& instance);
  /** `by` is "client" or "agent". A client that is not known is ignored. */
  void Disconnected(const std::string& instance, const char* by);
  /** The agent has ended all connections. */
  void Closed();

  /** A message of a client, before it is read. */
  void Received(const std::string& instance, std::string_view content);
  void Asked(const std::string& instance, const Request& request);
  /** It was no request. */
  void Unreadable(const std::string& instance, std::string_view content, const char* problem);

  /** A message that was sent, or could not be, because the client is gone. */
  void Sent(const std::string& instance, rpc_port_port_type_e port, std::string_view content,
            bool delivered);
  /** Bytes that may be no whole message, or are about to be sent in pieces. */
  void SentRaw(const std::string& instance, rpc_port_port_type_e port, std::string_view bytes,
               bool delivered);
  /** Something that is done to an answer on purpose. */
  void Spoilt(const std::string& instance, const char* fault);

 private:
  struct Client {
    int number = 0;
    std::string app;
    std::optional<Method> asked;  // on the main port, where a client waits for each reply
  };

  /** A packet between a client and the agent. */
  Packet PacketOf(const std::string& instance, Packet::Kind kind) const;

  /** The fields of a record about a client, to be added to. */
  Fields About(const std::string& instance) const;

  int last_client_;
  std::map<std::string, Client> clients_;  // by their connections
};

}  // namespace sim

#endif  // AGENT_TRACE_PORT_TRACE_H_
