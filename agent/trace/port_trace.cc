// SPDX-License-Identifier: Apache-2.0
#include "trace/port_trace.h"

#include "trace/messages.h"

namespace sim {
namespace {

const char* NameOf(rpc_port_port_type_e port) {
  return port == RPC_PORT_PORT_MAIN ? "main" : "callback";
}

/** Whether bytes are a message: its content's length, then the content. */
bool IsWhole(std::string_view bytes) {
  if (bytes.size() < kLengthSize) return false;
  std::size_t length = 0;
  for (std::size_t i = kLengthSize; i-- > 0;) {
    length = length << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return length == bytes.size() - kLengthSize;
}

void CaptureSent(Packet packet, rpc_port_port_type_e port, std::string_view content,
                 bool delivered) {
  packet.to_client = true;
  packet.stream = port;
  if (delivered) Capture(packet, content);
}

}  // namespace

Fields PortTrace::About(const std::string& instance) const {
  const auto found = clients_.find(instance);
  if (found == clients_.end()) return Fields::object();
  return {{"client", found->second.number}, {"app", found->second.app}};
}

Packet PortTrace::PacketOf(const std::string& instance, Packet::Kind kind) const {
  Packet packet;
  packet.kind = kind;
  const auto found = clients_.find(instance);
  if (found != clients_.end()) packet.client = found->second.number;
  return packet;
}

void PortTrace::Refused(const std::string& app) {
  Trace("refuse", {{"app", app}});
  Capture(PacketOf("", Packet::Kind::kRefuse), app);
}

void PortTrace::Connected(const std::string& app, const std::string& instance) {
  Client& client = clients_[instance];
  client.number = ++last_client_;
  client.app = app;
  Trace("connect", About(instance));
  Capture(PacketOf(instance, Packet::Kind::kConnect), app);
}

void PortTrace::Disconnected(const std::string& instance, const char* by) {
  Fields fields = About(instance);
  Packet packet = PacketOf(instance, Packet::Kind::kDisconnect);
  packet.to_client = by == std::string_view("agent");
  if (clients_.erase(instance) == 0) return;
  fields["by"] = by;
  Trace("disconnect", fields);
  Capture(packet, "");
}

void PortTrace::Received(const std::string& instance, std::string_view content) {
  if (Tracing()) Capture(PacketOf(instance, Packet::Kind::kMessage), content);
}

void PortTrace::Closed() {
  while (!clients_.empty()) Disconnected(std::string(clients_.begin()->first), "agent");
}

void PortTrace::Asked(const std::string& instance, const Request& request) {
  if (!Tracing()) return;
  const MethodInfo& method = InfoOf(request.method);
  if (method.answered_by == AnsweredBy::kReply) clients_[instance].asked = request.method;
  Fields fields = About(instance);
  fields["method"] = method.name;
  fields["arguments"] = ArgumentsOf(request);
  Trace("request", fields);
}

void PortTrace::Unreadable(const std::string& instance, std::string_view content,
                           const char* problem) {
  Fields fields = About(instance);
  fields["problem"] = problem;
  fields.update(BytesIn(content));
  Trace("unreadable", fields);
}

void PortTrace::Sent(const std::string& instance, rpc_port_port_type_e port,
                     std::string_view content, bool delivered) {
  if (!Tracing()) return;
  CaptureSent(PacketOf(instance, Packet::Kind::kMessage), port, content, delivered);
  const auto client = clients_.find(instance);
  const bool main = port == RPC_PORT_PORT_MAIN;
  const auto message =
      main ? ReplyIn(content, client == clients_.end() ? std::nullopt : client->second.asked)
           : AnswerIn(content);
  Fields fields = About(instance);
  if (message) {
    fields.update(*message);
  } else {
    fields["port"] = NameOf(port);
    fields.update(BytesIn(content));
  }
  if (!delivered) fields["lost"] = true;
  Trace(!message ? "message" : main ? "reply" : "answer", fields);
}

void PortTrace::SentRaw(const std::string& instance, rpc_port_port_type_e port,
                        std::string_view bytes, bool delivered) {
  if (IsWhole(bytes)) return Sent(instance, port, bytes.substr(kLengthSize), delivered);
  CaptureSent(PacketOf(instance, Packet::Kind::kBytes), port, bytes, delivered);
  Fields fields = About(instance);
  fields["port"] = NameOf(port);
  fields.update(BytesIn(bytes));
  if (!delivered) fields["lost"] = true;
  Trace("raw", fields);
}

void PortTrace::Spoilt(const std::string& instance, const char* fault) {
  Fields fields = About(instance);
  fields["fault"] = fault;
  Trace("fault", fields);
}

}  // namespace sim
