// SPDX-License-Identifier: Apache-2.0
// gRPC over a Unix socket, as the tutorial of its manual does it: a synchronous service and stub. Its
// guide to performance prefers callbacks, for servers with many clients; with one they are slower.
//
//     grpc_peer int32|licence|models QUERIES MODELS    see query_runs.h

#include <grpcpp/grpcpp.h>
#include <models.grpc.pb.h>

#include <memory>
#include <string>

#include "bench_world.h"
#include "peer_runs.h"
#include "proto_models.h"
#include "query_runs.h"

namespace {

using peers::proto::Agent;
using peers::proto::ModelList;
using peers::proto::Nothing;
using peers::proto::Number;
using peers::proto::Text;

class Service final : public Agent::Service {
 public:
  explicit Service(int models) : models_(MakeProtoModels(models)) {}

  grpc::Status Int32(grpc::ServerContext*, const Nothing*, Number* reply) override {
    reply->set_value(kLevel);
    return grpc::Status::OK;
  }
  grpc::Status Licence(grpc::ServerContext*, const Nothing*, Text* reply) override {
    reply->set_value(licence_);
    return grpc::Status::OK;
  }
  grpc::Status Models(grpc::ServerContext*, const Nothing*, ModelList* reply) override {
    *reply = models_;
    return grpc::Status::OK;
  }

 private:
  std::string licence_ = TextOfLicence();
  ModelList models_;
};

void Serve(const std::string& address, int models, const std::function<void()>& ready) {
  Service service(models);
  grpc::ServerBuilder builder;
  builder.AddListeningPort(address, grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
  Require(server != nullptr, "serve");
  ready();
  server->Wait();
}

class Client {
 public:
  explicit Client(const std::string& address)
      : stub_(Agent::NewStub(grpc::CreateChannel(address, grpc::InsecureChannelCredentials()))) {}

  int AskInt32() const {
    Number number;
    Call(&Agent::Stub::Int32, &number);
    return number.value();
  }
  std::string AskLicence() const {
    Text text;
    Call(&Agent::Stub::Licence, &text);
    return std::move(*text.mutable_value());
  }
  ProtoList AskModels() const {
    ProtoList list;
    Call(&Agent::Stub::Models, list.get());
    return list;
  }

 private:
  template <typename Reply>
  void Call(grpc::Status (Agent::Stub::*method)(grpc::ClientContext*, const Nothing&, Reply*),
            Reply* reply) const {
    grpc::ClientContext context;
    const grpc::Status status = (stub_.get()->*method)(&context, Nothing(), reply);
    if (!status.ok()) std::fprintf(stderr, "%s\n", status.error_message().c_str());
    Require(status.ok(), "call");
  }

  std::unique_ptr<Agent::Stub> stub_;
};

}  // namespace

int main(int argc, char** argv) {
  const QueryRuns runs = ReadQueryRuns(argc, argv);
  const SocketFolder folder;
  const std::string address = "unix:" + folder.socket();
  const PeerServer server(
      [&](const std::function<void()>& ready) { Serve(address, runs.models, ready); });
  const Client client(address);
  RunKind(runs, client, ChecksumOfProtoList);
  return 0;
}
