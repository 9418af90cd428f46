// SPDX-License-Identifier: Apache-2.0
// Cap'n Proto's RPC over a Unix socket, as its manual does it: EzRpcServer and EzRpcClient.
//
//     capnp_peer copied int32|licence|models QUERIES MODELS    see query_runs.h
//     capnp_peer in-place|records models QUERIES MODELS

#include <capnp/ez-rpc.h>
#include <capnp/message.h>

#include <string>

#include "bench_world.h"
#include "capnp_models.h"
#include "peer_runs.h"
#include "query_runs.h"

namespace {

using peers::capnproto::Agent;
using peers::capnproto::ModelList;
using ModelsResponse = capnp::Response<Agent::ModelsResults>;

class Server final : public Agent::Server {
 public:
  explicit Server(int models) { BuildModels(models_.initRoot<ModelList>(), models); }

  kj::Promise<void> int32(Int32Context context) override {
    context.getResults().setValue(kLevel);
    return kj::READY_NOW;
  }
  kj::Promise<void> licence(LicenceContext context) override {
    context.getResults(capnp::MessageSize{licence_.size() / sizeof(capnp::word) + 8, 0})
        .setValue(licence_.c_str());
    return kj::READY_NOW;
  }
  kj::Promise<void> models(ModelsContext context) override {
    const auto models = models_.getRoot<ModelList>().asReader();
    capnp::MessageSize size = models.totalSize();
    size.wordCount += 8;
    context.getResults(size).setValue(models);
    return kj::READY_NOW;
  }

 private:
  std::string licence_ = TextOfLicence();
  capnp::MallocMessageBuilder models_;
};

void Serve(const std::string& address, int models, const std::function<void()>& ready) {
  capnp::EzRpcServer server(kj::heap<Server>(models), address.c_str());
  server.getPort().wait(server.getWaitScope());
  ready();
  kj::NEVER_DONE.wait(server.getWaitScope());
}

class Client {
 public:
  explicit Client(const std::string& address)
      : client_(address.c_str()), agent_(client_.getMain<Agent>()) {}

  int AskInt32() { return agent_.int32Request().send().wait(scope()).getValue(); }
  std::string AskLicence() {
    const auto response = agent_.licenceRequest().send().wait(scope());
    return CopyOf(response.getValue());
  }
  ModelTextsList AskModels() { return CopyOf(AskForMessage().getValue()); }
  ModelsResponse AskForMessage() { return agent_.modelsRequest().send().wait(scope()); }

 private:
  kj::WaitScope& scope() { return client_.getWaitScope(); }

  capnp::EzRpcClient client_;
  Agent::Client agent_;
};

// Until each text has been looked up in the message, which stays.
ModelsResponse AskInPlace(Client& client) {
  ModelsResponse response = client.AskForMessage();
  Require(SizeOfTexts(response.getValue()) > 0, "read a list");
  return response;
}

}  // namespace

int main(int argc, char** argv) {
  const auto arguments = ReadPeerRuns(argc, argv, "copied|in-place|records");
  const std::string& way = arguments.way;
  const QueryRuns& runs = arguments.queries;
  const SocketFolder folder;
  const std::string address = "unix:" + folder.socket();
  const PeerServer server(
      [&](const std::function<void()>& ready) { Serve(address, runs.models, ready); });
  Client client(address);
  if (way == "records") {
    RunQueriesForRecords(runs.queries, [&](TwoRecords* records) {
      MakeRecords(client.AskForMessage().getValue(), records);
    });
  } else if (way == "in-place") {
    RunQueries(
        runs.queries, [&] { return AskInPlace(client); },
        [](const ModelsResponse& response) { return ChecksumOfReader(response.getValue()); },
        [](const ModelsResponse&) {});
  } else {
    RunKind(runs, client, ChecksumOfModels);
  }
  return 0;
}
