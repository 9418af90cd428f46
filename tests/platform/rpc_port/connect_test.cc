// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

#include "support.h"

using testing::ElementsAre;

namespace {

// What a proxy finds in place of a stub: a socket that does as the test says.
class FakeServer {
 public:
  FakeServer() : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    mkdir(std::getenv("VELMORA_RUNTIME_DIR"), 0700);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    SocketPath().copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener_, 8), 0);
  }
  ~FakeServer() { Close(); }
  FakeServer(const FakeServer&) = delete;

  // The main stream comes first.
  void AcceptBoth() {
    main = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    callback = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_GE(callback, 0);
  }
  void Close() {
    for (int* fd : {&listener_, &main, &callback}) {
      if (*fd >= 0) close(*fd);
      *fd = -1;
    }
  }
  static void Send(int fd, const std::string& bytes) {
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }

  int main = -1;
  int callback = -1;

 private:
  int listener_;
};

std::string Received(int fd) {
  std::string bytes(4096, '\0');
  const ssize_t n = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
  bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return bytes;
}

}  // namespace

using AProxy = PortTest;

TEST_F(AProxy, ReportsThatItIsConnectedOnceBothStreamsStand) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_EQ(client.Connect(), 0);
  EXPECT_THAT(client.events, ElementsAre());
  ASSERT_TRUE(RunUntil([&] { return !client.events.empty(); }));
  EXPECT_THAT(client.events, ElementsAre("connected"));
  EXPECT_THAT(server.events, ElementsAre("connected org.example.self"));
  EXPECT_NE(client.main(), client.callback());
}

TEST_F(AProxy, AsksWhetherTheServerAdmitsThisApplication) {
  Client client;
  EXPECT_EQ(client.Connect("org.example.server"), -5);
  EXPECT_EQ(checked_server, "org.example.server");
  EXPECT_EQ(checked_client, kOwnAppId);
}

TEST_F(AProxy, SaysThatTheServerIsNotInstalled) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  check_client_result = -22;
  Client client;
  EXPECT_EQ(client.Connect(), -22);
  RunAllReady();
  EXPECT_THAT(server.events, ElementsAre());
}

TEST_F(AProxy, SaysThatTheServerDoesNotAdmitThisApplication) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  check_client_result = -13;
  Client client;
  EXPECT_EQ(client.Connect(), -13);
  RunAllReady();
  EXPECT_THAT(server.events, ElementsAre());
}

TEST_F(AProxy, FailsWhereNoServerHasEverRun) {
  Client client;
  EXPECT_EQ(client.Connect(), -5);
  EXPECT_NE(access(folder().c_str(), F_OK), 0);
}

TEST_F(AProxy, FailsWhereTheServerHasEnded) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  server.Destroy();
  Client client;
  EXPECT_EQ(client.Connect(), -5);
}

TEST_F(AProxy, FailsWhereTheServerWasKilled) {
  Peer peer({"serve"});
  ASSERT_EQ(peer.Line(), "ready");
  peer.Signal(SIGKILL);
  EXPECT_EQ(peer.Wait(), -SIGKILL);
  EXPECT_EQ(access(SocketPath().c_str(), F_OK), 0);
  Client client;
  EXPECT_EQ(client.Connect(), -5);
}

TEST_F(AProxy, MayConnectAgainAfterConnectHasFailed) {
  Client client;
  EXPECT_EQ(client.Connect(), -5);
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  EXPECT_TRUE(client.ConnectNow());
}

TEST_F(AProxy, ConnectsOnlyOnce) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_EQ(client.Connect(), 0);
  EXPECT_EQ(client.Connect(), -22);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("connected"); }));
  EXPECT_EQ(client.Connect(), -22);
  server.Destroy();
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
  EXPECT_EQ(client.Connect(), -22);
}

TEST_F(AProxy, RefusesImpossibleNames) {
  Client client;
  const std::string long_name(256, 'x');
  EXPECT_EQ(client.Connect(nullptr), -22);
  EXPECT_EQ(client.Connect(""), -22);
  EXPECT_EQ(client.Connect(long_name.c_str()), -22);
  EXPECT_EQ(client.Connect(kOwnAppId, nullptr), -22);
  EXPECT_EQ(client.Connect(kOwnAppId, ""), -22);
  EXPECT_EQ(client.Connect(kOwnAppId, long_name.c_str()), -22);
}

TEST_F(AProxy, RefusesInvalidArguments) {
  Client client;
  rpc_port_h port = nullptr;
  EXPECT_EQ(rpc_port_proxy_create(nullptr), -22);
  EXPECT_EQ(rpc_port_proxy_destroy(nullptr), -22);
  EXPECT_EQ(rpc_port_proxy_connect(nullptr, kOwnAppId, kPortName), -22);
  EXPECT_EQ(rpc_port_proxy_add_connected_event_cb(client.h, nullptr, nullptr), -22);
  EXPECT_EQ(rpc_port_proxy_add_disconnected_event_cb(client.h, nullptr, nullptr), -22);
  EXPECT_EQ(rpc_port_proxy_add_rejected_event_cb(client.h, nullptr, nullptr), -22);
  EXPECT_EQ(rpc_port_proxy_add_received_event_cb(client.h, nullptr, nullptr), -22);
  const auto callback = [](const char*, const char*, void*) {};
  EXPECT_EQ(rpc_port_proxy_add_received_event_cb(nullptr, callback, nullptr), -22);
  EXPECT_EQ(rpc_port_proxy_get_port(nullptr, RPC_PORT_PORT_MAIN, &port), -22);
  EXPECT_EQ(rpc_port_proxy_get_port(client.h, RPC_PORT_PORT_MAIN, nullptr), -22);
}

TEST_F(AProxy, HasNoPortsBeforeItIsConnected) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  rpc_port_h port = nullptr;
  EXPECT_EQ(rpc_port_proxy_get_port(client.h, RPC_PORT_PORT_MAIN, &port), -5);
  ASSERT_EQ(client.Connect(), 0);
  EXPECT_EQ(rpc_port_proxy_get_port(client.h, RPC_PORT_PORT_CALLBACK, &port), -5);
  EXPECT_EQ(port, nullptr);
}

TEST_F(AProxy, ReportsOnceThatItWasRejected) {
  Server server;
  server.Decide([] { return false; });
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_TRUE(RunUntil([&] { return !client.events.empty(); }));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("rejected"));
  EXPECT_THAT(server.events, ElementsAre());
  rpc_port_h port = nullptr;
  EXPECT_EQ(rpc_port_proxy_get_port(client.h, RPC_PORT_PORT_MAIN, &port), -5);
}

TEST_F(AProxy, ReportsOnceThatTheServerHasEnded) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  server.Destroy();
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("connected", "disconnected"));
  EXPECT_EQ(Call(client.main(), "text"), "!-5");
}

TEST_F(AProxy, ReportsOnceThatTheServerWasKilled) {
  Peer peer({"serve"});
  ASSERT_EQ(peer.Line(), "ready");
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  peer.Signal(SIGKILL);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("connected", "disconnected"));
}

TEST_F(AProxy, DeliversWhatTheServerSentBeforeItEnded) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  const std::string large(100000, 'x');
  for (const std::string& text : {std::string("one"), large, std::string("three")}) {
    ASSERT_EQ(server.Push(text), 0);
  }
  server.Destroy();
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
  EXPECT_THAT(client.events, ElementsAre("connected", "one", large, "three", "disconnected"));
}

TEST_F(AProxy, IsDisconnectedWhenTheServerEndsBeforeItsVerdict) {
  FakeServer server;
  Client client;
  ASSERT_EQ(client.Connect(), 0);
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre());
  server.Close();
  ASSERT_TRUE(RunUntil([&] { return !client.events.empty(); }));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("disconnected"));
}

TEST_F(AProxy, IsDisconnectedWhenTheServerDropsOneStreamBeforeItsVerdict) {
  FakeServer server;
  Client client;
  ASSERT_EQ(client.Connect(), 0);
  server.AcceptBoth();
  shutdown(server.callback, SHUT_RDWR);
  ASSERT_TRUE(RunUntil([&] { return !client.events.empty(); }));
  EXPECT_THAT(client.events, ElementsAre("disconnected"));
}

TEST_F(AProxy, IsDisconnectedByNonsenseInPlaceOfAVerdict) {
  for (const std::string& bytes :
       {Int32(-1) + std::string(8, 'x'), Int32(1 << 20) + std::string(8, 'x'), Framed(""),
        Framed("nonsense"), Framed(Int32(0x54434456)), Framed(Int32(0x54434456) + Int32(2)),
        Framed(Int32(0x54434456) + Int32(-1))}) {
    FakeServer server;
    Client client;
    ASSERT_EQ(client.Connect(), 0);
    server.AcceptBoth();
    FakeServer::Send(server.main, bytes);
    ASSERT_TRUE(RunUntil([&] { return !client.events.empty(); }));
    EXPECT_THAT(client.events, ElementsAre("disconnected")) << testing::PrintToString(bytes);
    unlink(SocketPath().c_str());
  }
}

TEST_F(AProxy, SaysHelloOnBothStreams) {
  FakeServer server;
  Client client;
  ASSERT_EQ(client.Connect(), 0);
  server.AcceptBoth();
  const std::string main = Received(server.main);
  const std::string callback = Received(server.callback);
  // Only the token is left to chance; it is the same on both.
  const size_t token_place = 4 + 4 + 4 + 4 + 4;
  const std::string token = main.substr(token_place, 32);
  EXPECT_EQ(token.find_first_not_of("0123456789abcdef"), std::string::npos);
  for (int kind = 0; kind < 2; ++kind) {
    std::string expected = HelloBytes(kind, '*', 1, kOwnAppId, kPortName, kOwnAppId);
    expected.replace(token_place, 32, token);
    EXPECT_EQ(kind == 0 ? main : callback, expected);
  }
}

TEST_F(AProxy, UnderstandsAVerdictThatComesByteByByte) {
  FakeServer server;
  Client client;
  ASSERT_EQ(client.Connect(), 0);
  server.AcceptBoth();
  for (const char byte : kAcceptedBytes) {
    EXPECT_THAT(client.events, ElementsAre());
    FakeServer::Send(server.main, std::string(1, byte));
    RunAllReady();
  }
  EXPECT_THAT(client.events, ElementsAre("connected"));
}

TEST_F(AProxy, ConnectsBeforeItReportsWhatCameWithTheVerdict) {
  FakeServer server;
  Client client;
  ASSERT_EQ(client.Connect(), 0);
  server.AcceptBoth();
  FakeServer::Send(server.callback, Framed(Text("early")));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre());
  FakeServer::Send(server.main, kAcceptedBytes + Framed(Text("reply")));
  server.Close();
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
  EXPECT_THAT(client.events, ElementsAre("connected", "early", "disconnected"));
  EXPECT_EQ(Message::From(client.main()).Text(), "reply");
}

TEST_F(AProxy, IsDisconnectedWhenTheServerDropsOneStream) {
  for (const bool drops_main : {true, false}) {
    FakeServer server;
    Client client;
    ASSERT_EQ(client.Connect(), 0);
    server.AcceptBoth();
    FakeServer::Send(server.main, kAcceptedBytes);
    ASSERT_TRUE(RunUntil([&] { return client.Saw("connected"); }));
    FakeServer::Send(server.callback, Framed(Text("last")));
    shutdown(drops_main ? server.main : server.callback, SHUT_RDWR);
    ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
    EXPECT_THAT(client.events, ElementsAre("connected", "last", "disconnected"));
    EXPECT_EQ(Call(client.main(), "text"), "!-5");
    unlink(SocketPath().c_str());
  }
}

TEST_F(AProxy, CallsAllCallbacksOfAnEventInTheirOrder) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  const auto callback = [](const char*, const char*, rpc_port_h, void* data) {
    static_cast<Client*>(data)->events.push_back("connected again");
  };
  ASSERT_EQ(rpc_port_proxy_add_connected_event_cb(client.h, callback, &client), 0);
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("connected again"); }));
  EXPECT_THAT(client.events, ElementsAre("connected", "connected again"));
}

// What only a race would spoil, ThreadSanitizer sees.
TEST_F(AProxy, TakesCallbacksFromManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kOfEach = 100;
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  int calls = 0;
  const auto count = [](const char*, const char*, rpc_port_h, void* called) {
    ++*static_cast<int*>(called);
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < kOfEach; ++n) {
        EXPECT_EQ(rpc_port_proxy_add_connected_event_cb(client.h, count, &calls), 0);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(client.ConnectNow());
  EXPECT_TRUE(RunUntil([&] { return calls == kThreads * kOfEach; }));
}

TEST_F(AProxy, KnowsWhomItIsConnectedTo) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  std::string endpoint;
  const auto callback = [](const char* name, const char*, rpc_port_h, void* data) {
    *static_cast<std::string*>(data) = name;
  };
  ASSERT_EQ(rpc_port_proxy_add_connected_event_cb(client.h, callback, &endpoint), 0);
  ASSERT_TRUE(client.ConnectNow());
  EXPECT_EQ(endpoint, kOwnAppId);
}

using AStub = PortTest;

TEST_F(AStub, RefusesInvalidArguments) {
  Server server;
  rpc_port_h port = nullptr;
  const std::string long_name(256, 'x');
  rpc_port_stub_h stub = nullptr;
  EXPECT_EQ(rpc_port_stub_create(nullptr, kPortName), -22);
  EXPECT_EQ(rpc_port_stub_create(&stub, nullptr), -22);
  EXPECT_EQ(rpc_port_stub_create(&stub, ""), -22);
  EXPECT_EQ(rpc_port_stub_create(&stub, long_name.c_str()), -22);
  EXPECT_EQ(stub, nullptr);
  EXPECT_EQ(rpc_port_stub_destroy(nullptr), -22);
  EXPECT_EQ(rpc_port_stub_listen(nullptr), -22);
  EXPECT_EQ(rpc_port_stub_add_connected_event_cb(server.h, nullptr, nullptr), -22);
  EXPECT_EQ(rpc_port_stub_add_disconnected_event_cb(server.h, nullptr, nullptr), -22);
  EXPECT_EQ(rpc_port_stub_add_received_event_cb(server.h, nullptr, nullptr), -22);
  EXPECT_EQ(rpc_port_stub_get_port(server.h, RPC_PORT_PORT_MAIN, "nobody", &port), -22);
  EXPECT_EQ(rpc_port_stub_get_port(server.h, RPC_PORT_PORT_MAIN, nullptr, &port), -22);
  EXPECT_EQ(rpc_port_stub_get_port(server.h, RPC_PORT_PORT_MAIN, "nobody", nullptr), -22);
  EXPECT_EQ(rpc_port_stub_get_port(nullptr, RPC_PORT_PORT_MAIN, "nobody", &port), -22);
  EXPECT_EQ(rpc_port_desktop_stub_disconnect(server.h, "nobody"), -22);
  EXPECT_EQ(rpc_port_desktop_stub_disconnect(server.h, nullptr), -22);
  EXPECT_EQ(rpc_port_desktop_stub_set_admission_cb(nullptr, nullptr, nullptr), -22);
}

TEST_F(AStub, ListensOnlyOnce) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  EXPECT_EQ(server.Listen(), -22);
  Client client;
  EXPECT_TRUE(client.ConnectNow());
}

TEST_F(AStub, ServesEveryNameThatAPortCanHave) {
  const std::string long_name(255, 'x');
  const std::string nearly_the_same = long_name.substr(1) + 'y';
  for (const std::string& name :
       {std::string("../escape"), std::string("a/b"), std::string(".."), std::string("%2F"),
        std::string("a b\n\x01\xFF"), std::string(":"), long_name, nearly_the_same}) {
    rpc_port_stub_h stub = nullptr;
    ASSERT_EQ(rpc_port_stub_create(&stub, name.c_str()), 0);
    ASSERT_EQ(rpc_port_stub_listen(stub), 0) << name;
    rpc_port_proxy_h proxy = nullptr;
    ASSERT_EQ(rpc_port_proxy_create(&proxy), 0);
    bool connected = false;
    const auto callback = [](const char*, const char*, rpc_port_h, void* data) {
      *static_cast<bool*>(data) = true;
    };
    rpc_port_proxy_add_connected_event_cb(proxy, callback, &connected);
    ASSERT_EQ(rpc_port_proxy_connect(proxy, kOwnAppId, name.c_str()), 0) << name;
    EXPECT_TRUE(RunUntil([&] { return connected; }));
    EXPECT_EQ(rpc_port_proxy_destroy(proxy), 0);
    EXPECT_EQ(rpc_port_stub_destroy(stub), 0);
  }
}

// The name is between processes that need not have the same library.
TEST_F(AStub, IsFoundUnderTheSameFileNameByAnyBuildHoweverLongItsNameIs) {
  Server server(std::string(100, 'p').c_str());
  ASSERT_EQ(server.Listen(), 0);
  EXPECT_TRUE(std::filesystem::exists(folder() + "/org.example.self:" + std::string(46, 'p') +
                                      "~80896fcafcb6503f"));
}

TEST_F(AStub, IsNotFoundUnderTheNameOfAnother) {
  const std::string one(255, 'x');
  const std::string other = one.substr(1) + 'y';
  rpc_port_stub_h stub = nullptr;
  ASSERT_EQ(rpc_port_stub_create(&stub, one.c_str()), 0);
  ASSERT_EQ(rpc_port_stub_listen(stub), 0);
  Client client;
  EXPECT_EQ(client.Connect(kOwnAppId, other.c_str()), -5);
  rpc_port_stub_destroy(stub);
}

TEST_F(AStub, ReportsOnceThatAClientHasGone) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  client.Destroy();
  const std::string gone = "disconnected org.example.self";
  ASSERT_TRUE(RunUntil([&] { return server.Saw(gone); }));
  RunAllReady();
  EXPECT_THAT(server.events, ElementsAre("connected org.example.self", gone));
}

TEST_F(AStub, ReportsOnceThatAClientWasKilled) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Peer peer({"stay"}, "org.example.other");
  ASSERT_TRUE(RunUntil([&] { return server.Saw("connected org.example.other"); }));
  EXPECT_EQ(peer.Line(), "connected");
  peer.Signal(SIGKILL);
  ASSERT_TRUE(RunUntil([&] { return server.Saw("disconnected org.example.other"); }));
  RunAllReady();
  EXPECT_THAT(server.events, testing::SizeIs(2));
}

TEST_F(AStub, TellsItsClientsApart) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client one;
  ASSERT_TRUE(one.ConnectNow());
  const std::string first = server.instance;
  Client two;
  ASSERT_TRUE(two.ConnectNow());
  EXPECT_NE(server.instance, first);
  EXPECT_EQ(server.Push("for the second"), 0);
  ASSERT_TRUE(RunUntil([&] { return two.Saw("for the second"); }));
  server.instance = first;
  EXPECT_EQ(server.Push("for the first"), 0);
  ASSERT_TRUE(RunUntil([&] { return one.Saw("for the first"); }));
  EXPECT_EQ(two.events.size(), 2U);
}

TEST_F(AStub, KnowsTheClientThatItAdmits) {
  Server server;
  std::string asked_for;
  rpc_port_desktop_stub_set_admission_cb(
      server.h,
      [](const char* sender, const char* instance, void* data) {
        *static_cast<std::string*>(data) = std::string(sender) + " " + instance;
        return true;
      },
      &asked_for);
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  EXPECT_EQ(asked_for, kOwnAppId + std::string(" ") + server.instance);
}

TEST_F(AStub, EndsAConnectionWithoutAnEventOfItsOwn) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  EXPECT_EQ(rpc_port_desktop_stub_disconnect(server.h, server.instance.c_str()), 0);
  EXPECT_EQ(rpc_port_desktop_stub_disconnect(server.h, server.instance.c_str()), -22);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
  EXPECT_THAT(server.events, ElementsAre("connected org.example.self"));
}

TEST_F(AStub, EndsTheConnectionWhoseMessageItsCallbackRefuses) {
  Server server;
  server.on_received = [](rpc_port_h port) {
    Message::From(port);
    return -1;
  };
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  EXPECT_EQ(Message("refused").Send(client.main()), 0);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
  EXPECT_THAT(server.events,
              ElementsAre("connected org.example.self", "disconnected org.example.self"));
}
