// SPDX-License-Identifier: Apache-2.0
// ZeroMQ over a Unix socket, as its guide does it: REQ asks, REP answers. It carries bytes, and leaves
// to its users what they mean: a list is a message of Protocol Buffers here.
//
//     zmq_peer int32|licence|models QUERIES MODELS    see query_runs.h

#include <cstdint>
#include <cstring>
#include <string>
#include <zmq.hpp>

#include "bench_world.h"
#include "peer_runs.h"
#include "proto_models.h"
#include "query_runs.h"

namespace {

// Made once, as its server may do with its own bytes.
std::string AnswerTo(const QueryRuns& runs) {
  if (runs.kind == "licence") return TextOfLicence();
  if (runs.kind == "models") return MakeProtoModels(runs.models).SerializeAsString();
  const std::int32_t level = kLevel;
  return {reinterpret_cast<const char*>(&level), sizeof level};
}

void Serve(const std::string& address, const std::string& answer,
           const std::function<void()>& ready) {
  zmq::context_t context;
  zmq::socket_t socket(context, zmq::socket_type::rep);
  socket.bind(address);
  ready();
  for (;;) {
    zmq::message_t request;
    Require(socket.recv(request).has_value(), "receive");
    Require(socket.send(zmq::buffer(answer)).has_value(), "send");
  }
}

class Client {
 public:
  explicit Client(const std::string& address) : socket_(context_, zmq::socket_type::req) {
    socket_.connect(address);
  }

  int AskInt32() {
    const zmq::message_t reply = Ask();
    std::int32_t number = 0;
    Require(reply.size() == sizeof number, "read a number");
    std::memcpy(&number, reply.data(), sizeof number);
    return number;
  }
  std::string AskLicence() { return Ask().to_string(); }
  ProtoList AskModels() {
    const zmq::message_t reply = Ask();
    ProtoList list;
    Require(list.get()->ParseFromArray(reply.data(), static_cast<int>(reply.size())),
            "read a list");
    return list;
  }

 private:
  zmq::message_t Ask() {
    Require(socket_.send(zmq::str_buffer("ask")).has_value(), "send");
    zmq::message_t reply;
    Require(socket_.recv(reply).has_value(), "receive");
    return reply;
  }

  zmq::context_t context_;
  zmq::socket_t socket_;
};

}  // namespace

int main(int argc, char** argv) {
  const QueryRuns runs = ReadQueryRuns(argc, argv);
  const SocketFolder folder;
  const std::string address = "ipc://" + folder.socket();
  const PeerServer server(
      [&](const std::function<void()>& ready) { Serve(address, AnswerTo(runs), ready); });
  Client client(address);
  RunKind(runs, client, ChecksumOfProtoList);
  return 0;
}
