// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "support.h"

#if defined(__has_feature)
#define IS_THREAD_SANITIZED __has_feature(thread_sanitizer)
#elif defined(__SANITIZE_THREAD__)
#define IS_THREAD_SANITIZED 1
#else
#define IS_THREAD_SANITIZED 0
#endif

using testing::ElementsAre;

namespace {

class AConnectionsEnd : public PortTest {
 protected:
  AConnectionsEnd() { EXPECT_EQ(server.Listen(), 0); }

  Server server;
  Client client;
};

void ExpectDeadPort(rpc_port_h port) {
  rpc_port_parcel_h parcel = nullptr;
  EXPECT_EQ(rpc_port_parcel_create_from_port(&parcel, port), -22);
  EXPECT_EQ(parcel, nullptr);
  EXPECT_EQ(Message("text").Send(port), -22);
  EXPECT_EQ(rpc_port_desktop_send_bytes(port, "text", 4), -22);
}

// A proxy whose events find out whether they come after its end.
class WatchedProxy {
 public:
  void Connect() {
    const auto connected = [](const char*, const char*, rpc_port_h, void* data) { OnEvent(data); };
    const auto other = [](const char*, const char*, void* data) { OnEvent(data); };
    EXPECT_EQ(rpc_port_proxy_create(&h_), 0);
    rpc_port_proxy_add_connected_event_cb(h_, connected, this);
    rpc_port_proxy_add_disconnected_event_cb(h_, other, this);
    rpc_port_proxy_add_received_event_cb(h_, other, this);
    EXPECT_EQ(rpc_port_proxy_connect(h_, kOwnAppId, kPortName), 0);
  }

  // Sometimes in the middle of the events, sometimes anywhere.
  void DestroyAfter(int round) {
    while (events_ < round % 3) sched_yield();
    for (int i = 0; i < round % 50; ++i) sched_yield();
    EXPECT_EQ(rpc_port_proxy_destroy(h_), 0);
    destroyed_ = true;
  }

 private:
  static void OnEvent(void* data) {
    auto* proxy = static_cast<WatchedProxy*>(data);
    EXPECT_FALSE(proxy->destroyed_);
    ++proxy->events_;
  }

  rpc_port_proxy_h h_ = nullptr;
  std::atomic<int> events_{0};
  // Plain, so that a callback that still runs is a data race.
  bool destroyed_ = false;
};

// Runs a main loop inside a callback, until the condition holds.
void RunNested(const std::function<bool()>& condition) { EXPECT_TRUE(RunUntil(condition)); }

}  // namespace

TEST_F(AConnectionsEnd, MayComeInsideTheConnectedCallback) {
  bool destroyed = false;
  rpc_port_h main = nullptr;
  client.on_connected = [&] {
    main = client.main();
    EXPECT_EQ(client.Destroy(), 0);
    destroyed = true;
  };
  server.on_connected = [&] { server.Push("too late"); };
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_TRUE(RunUntil([&] { return destroyed; }));
  ASSERT_TRUE(RunUntil([&] { return server.Saw("disconnected org.example.self"); }));
  EXPECT_THAT(client.events, ElementsAre("connected"));
  ExpectDeadPort(main);
}

TEST_F(AConnectionsEnd, MayComeInsideTheDisconnectedCallback) {
  bool destroyed = false;
  client.on_disconnected = [&] {
    EXPECT_EQ(client.Destroy(), 0);
    destroyed = true;
  };
  ASSERT_TRUE(client.ConnectNow());
  server.Destroy();
  ASSERT_TRUE(RunUntil([&] { return destroyed; }));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("connected", "disconnected"));
}

TEST_F(AConnectionsEnd, MayComeInsideTheRejectedCallback) {
  bool destroyed = false;
  server.Decide([] { return false; });
  client.on_rejected = [&] {
    EXPECT_EQ(client.Destroy(), 0);
    destroyed = true;
  };
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_TRUE(RunUntil([&] { return destroyed; }));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("rejected"));
}

TEST_F(AConnectionsEnd, MayComeInsideTheReceivedCallback) {
  for (const bool takes : {false, true}) {
    Client other;
    int offered = 0;
    other.on_received = [&] {
      ++offered;
      const rpc_port_h port = other.callback();
      if (takes) {
        EXPECT_EQ(Message::From(port).Text(), "one");
      }
      EXPECT_EQ(other.Destroy(), 0);
      ExpectDeadPort(port);
    };
    ASSERT_TRUE(other.ConnectNow());
    // Further messages are buffered when the first one ends it all.
    for (const char* text : {"one", "two", "three"}) ASSERT_EQ(server.Push(text), 0);
    ASSERT_TRUE(RunUntil([&] { return offered > 0; }));
    RunAllReady();
    EXPECT_EQ(offered, 1);
    EXPECT_THAT(other.events, ElementsAre("connected"));
  }
}

TEST_F(AConnectionsEnd, SilencesTheOtherCallbacksOfTheSameEvent) {
  client.on_connected = [&] { client.Destroy(); };
  bool second = false;
  rpc_port_proxy_add_connected_event_cb(
      client.h,
      [](const char*, const char*, rpc_port_h, void* data) { *static_cast<bool*>(data) = true; },
      &second);
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_TRUE(RunUntil([&] { return server.Saw("disconnected org.example.self"); }));
  EXPECT_FALSE(second);
}

TEST_F(AConnectionsEnd, MayComeBeforeTheConnectionStands) {
  ASSERT_EQ(client.Connect(), 0);
  EXPECT_EQ(client.Destroy(), 0);
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre());
  Client other;
  EXPECT_TRUE(other.ConnectNow());
}

TEST_F(AConnectionsEnd, MayComeBetweenTheEventAndItsDelivery) {
  ASSERT_TRUE(client.ConnectNow());
  ASSERT_EQ(server.Push("never seen"), 0);
  EXPECT_EQ(client.Destroy(), 0);
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("connected"));
}

TEST_F(AConnectionsEnd, MayComeInANestedMainLoop) {
  bool unwound = false;
  client.on_received = [&] {
    g_idle_add([](gpointer data) -> gboolean { return static_cast<Client*>(data)->Destroy(); },
               &client);
    RunNested([&] { return client.h == nullptr; });
    unwound = true;
  };
  ASSERT_TRUE(client.ConnectNow());
  ASSERT_EQ(server.Push("one"), 0);
  ASSERT_EQ(server.Push("two"), 0);
  ASSERT_TRUE(RunUntil([&] { return unwound; }));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("connected"));
}

TEST_F(AConnectionsEnd, MayBeSeenInANestedMainLoop) {
  bool unwound = false;
  client.on_received = [&] {
    client.events.push_back(Message::From(client.callback()).Text());
    server.Destroy();
    RunNested([&] { return client.Saw("disconnected"); });
    unwound = true;
  };
  ASSERT_TRUE(client.ConnectNow());
  ASSERT_EQ(server.Push("one"), 0);
  ASSERT_TRUE(RunUntil([&] { return unwound; }));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("connected", "one", "disconnected"));
}

TEST_F(AConnectionsEnd, LeavesHandlesThatAreRecognised) {
  ASSERT_TRUE(client.ConnectNow());
  const rpc_port_proxy_h proxy = client.h;
  const rpc_port_h main = client.main();
  const rpc_port_h callback = client.callback();
  EXPECT_EQ(client.Destroy(), 0);
  ExpectDeadPort(main);
  ExpectDeadPort(callback);
  rpc_port_h port = nullptr;
  EXPECT_EQ(rpc_port_proxy_destroy(proxy), -22);
  EXPECT_EQ(rpc_port_proxy_connect(proxy, kOwnAppId, kPortName), -22);
  EXPECT_EQ(rpc_port_proxy_get_port(proxy, RPC_PORT_PORT_MAIN, &port), -22);
  // Nor does a handle of one kind pass for one of another.
  EXPECT_EQ(rpc_port_proxy_destroy(server.h), -22);
  ExpectDeadPort(server.h);
}

TEST_F(AConnectionsEnd, LeavesHandlesOfTheServerThatAreRecognised) {
  ASSERT_TRUE(client.ConnectNow());
  const rpc_port_h main = server.Port(RPC_PORT_PORT_MAIN);
  const rpc_port_h callback = server.callback();
  const rpc_port_stub_h stub = server.h;
  EXPECT_EQ(rpc_port_desktop_stub_disconnect(server.h, server.instance.c_str()), 0);
  ExpectDeadPort(main);
  ExpectDeadPort(callback);
  server.Destroy();
  EXPECT_EQ(rpc_port_stub_destroy(stub), -22);
  EXPECT_EQ(rpc_port_stub_listen(stub), -22);
}

TEST_F(AConnectionsEnd, LeavesTheRepliesThatHadArrived) {
  ASSERT_TRUE(client.ConnectNow());
  ASSERT_EQ(Message("reply").Send(server.Port(RPC_PORT_PORT_MAIN)), 0);
  server.Destroy();
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
  EXPECT_EQ(Message::From(client.main()).Text(), "reply");
  EXPECT_EQ(Message::From(client.main()).h, nullptr);
}

TEST_F(AConnectionsEnd, ReleasesAThreadThatWaitsForAReply) {
  ASSERT_TRUE(client.ConnectNow());
  const rpc_port_h port = client.main();
  std::atomic<bool> called{false};
  server.on_received = [&](rpc_port_h main) {
    Message::From(main);
    called = true;
    return 0;
  };
  std::string reply;
  std::thread caller([&] { reply = Call(port, "text"); });
  ASSERT_TRUE(RunUntil([&] { return called.load(); }));
  EXPECT_EQ(client.Destroy(), 0);
  caller.join();
  // -22 if the thread had not begun to wait yet.
  EXPECT_THAT(reply, testing::AnyOf("!-5", "!-22"));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("connected"));
}

TEST_F(AConnectionsEnd, ReleasesTheCallbackThatWaitsWhenAnotherThreadCausesIt) {
  ASSERT_TRUE(client.ConnectNow());
  std::atomic<bool> waiting{false};
  std::atomic<bool> returned{false};
  const rpc_port_h main = client.main();
  client.on_received = [&] {
    waiting = true;
    // Nobody will answer; the main loop is stuck here.
    EXPECT_EQ(Message::From(main).h, nullptr);
    returned = true;
  };
  ASSERT_EQ(server.Push("go"), 0);
  std::thread destroyer([&] {
    while (!waiting) sched_yield();
    EXPECT_EQ(client.Destroy(), 0);
    EXPECT_TRUE(returned) << "destroy came back while a callback ran";
  });
  ASSERT_TRUE(RunUntil([&] { return returned.load(); }));
  destroyer.join();
}

TEST_F(AConnectionsEnd, MayComeFromTheServersCallbacks) {
  for (const char* where : {"admission", "connected", "received", "disconnected"}) {
    server.Destroy();
    Server other;
    const std::string place = where;
    bool ended = false;
    const auto end = [&] {
      EXPECT_EQ(other.Destroy(), 0);
      ended = true;
    };
    if (place == "admission") {
      other.Decide([&] {
        end();
        return true;
      });
    }
    if (place == "connected") other.on_connected = end;
    if (place == "disconnected") other.on_disconnected = end;
    other.on_received = [&](rpc_port_h port) {
      EXPECT_NE(Message::From(port).h, nullptr);
      if (place == "disconnected") return -1;
      end();
      ExpectDeadPort(port);
      return 0;
    };
    ASSERT_EQ(other.Listen(), 0);
    Client guest;
    guest.on_connected = [&] {
      for (int i = 0; i < 3; ++i) (void)Message("text").Send(guest.main());
    };
    ASSERT_EQ(guest.Connect(), 0);
    ASSERT_TRUE(RunUntil([&] { return guest.Saw("disconnected"); })) << place;
    EXPECT_TRUE(ended) << place;
  }
}

TEST_F(AConnectionsEnd, MayComeFromTheServerInsideItsCallbacks) {
  const auto disconnect = [&] {
    EXPECT_EQ(rpc_port_desktop_stub_disconnect(server.h, server.instance.c_str()), 0);
  };
  server.on_connected = disconnect;
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));

  server.on_connected = nullptr;
  int offered = 0;
  server.on_received = [&](rpc_port_h) {
    ++offered;
    disconnect();
    return -1;
  };
  Client other;
  ASSERT_TRUE(other.ConnectNow());
  for (int i = 0; i < 3; ++i) ASSERT_EQ(Message("text").Send(other.main()), 0);
  ASSERT_TRUE(RunUntil([&] { return other.Saw("disconnected"); }));
  EXPECT_EQ(offered, 1);
  EXPECT_FALSE(server.Saw("disconnected org.example.self"));
}

TEST_F(AConnectionsEnd, LeavesNoDescriptorOpen) {
  // The main context has its own descriptor as soon as it has run.
  RunAllReady();
  const auto before = OpenDescriptors();
  for (int i = 0; i < 5; ++i) {
    Client other;
    ASSERT_TRUE(other.ConnectNow());
    EXPECT_EQ(RunBeside([&] { return Call(other.main(), "text"); }), "text");
    other.Destroy();
    ASSERT_TRUE(RunUntil([&] { return server.Saw("disconnected org.example.self"); }));
    server.events.clear();
  }
  server.Decide([] { return false; });
  Client rejected;
  ASSERT_EQ(rejected.Connect(), 0);
  ASSERT_TRUE(RunUntil([&] { return rejected.Saw("rejected"); }));
  rejected.Destroy();
  EXPECT_EQ(Client().Connect(kOwnAppId, "NoSuchPort"), -5);
  EXPECT_EQ(Server().Listen(), -5);
  {
    const RawStream garbage;
    EXPECT_TRUE(garbage.Send(Framed("garbage")));
    const RawStream silent;
    RunAllReady();
  }
  RunAllReady();
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(AConnectionsEnd, ClosesTheServersDescriptors) {
  server.Destroy();
  RunAllReady();
  const auto before = OpenDescriptors();
  {
    Server other;
    ASSERT_EQ(other.Listen(), 0);
    Client guest;
    ASSERT_TRUE(guest.ConnectNow());
    const RawStream half_open;
    RunAllReady();
    EXPECT_GT(OpenDescriptors().size(), before.size());
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

using AProxysEnd = PortTest;

// The server is a separate process, so that only the thread that destroys the proxy changes the
// main context's sources: the locks inside GLib are invisible to the thread sanitizer.
TEST_F(AProxysEnd, MayComeFromAnyThreadAtAnyTime) {
  Peer server({"serve-pushing"});
  ASSERT_EQ(server.Line(), "ready");
  for (int round = 0; round < 100; ++round) {
    WatchedProxy proxy;
    proxy.Connect();
    RunBeside([&] {
      proxy.DestroyAfter(round);
      return true;
    });
  }
}

TEST_F(AProxysEnd, MayComeFromTheThreadThatConnected) {
#if IS_THREAD_SANITIZED
  GTEST_SKIP() << "two threads change the main context's sources";
#endif
  Server server;
  server.on_connected = [&] {
    for (int i = 0; i < 20; ++i) server.Push("push");
  };
  ASSERT_EQ(server.Listen(), 0);
  RunBeside([&] {
    for (int round = 0; round < 100; ++round) {
      WatchedProxy proxy;
      proxy.Connect();
      proxy.DestroyAfter(round);
    }
    return true;
  });
}

using ADescriptor = PortTest;

TEST_F(ADescriptor, IsNeverInherited) {
  std::vector<int> inherited;
  for (const auto& [fd, target] : OpenDescriptors()) inherited.push_back(fd);
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Client client;
  ASSERT_TRUE(client.ConnectNow());
  const RawStream half_open;
  RunAllReady();
  int checked = 0;
  for (const auto& [fd, target] : OpenDescriptors()) {
    if (std::find(inherited.begin(), inherited.end(), fd) != inherited.end()) continue;
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << target;
    ++checked;
  }
  // Folder, lock, listener, two streams on either side, and the half-open one.
  EXPECT_GE(checked, 9);
}

using ANestedMainLoop = AConnectionsEnd;

TEST_F(ANestedMainLoop, DeliversFurtherPushesOnceTheCallbackHasTakenItsOwn) {
  bool unwound = false;
  client.on_received = [&] {
    client.events.push_back(Message::From(client.callback()).Text());
    if (client.events.back() != "one") return;
    EXPECT_EQ(server.Push("three"), 0);
    RunNested([&] { return client.Saw("three"); });
    unwound = true;
  };
  ASSERT_TRUE(client.ConnectNow());
  // Both arrive in one read: no descriptor shows the second.
  ASSERT_EQ(server.Push("one"), 0);
  ASSERT_EQ(server.Push("two"), 0);
  ASSERT_TRUE(RunUntil([&] { return unwound; }));
  EXPECT_THAT(client.events, ElementsAre("connected", "one", "two", "three"));
}

TEST_F(ANestedMainLoop, LeavesTheMessageToTheCallbackThatHasNotTakenItYet) {
  bool unwound = false;
  client.on_received = [&] {
    if (!client.Saw("one")) {
      EXPECT_EQ(server.Push("two"), 0);
      int turns = 0;
      const auto count = [](gpointer data) -> gboolean { return ++*static_cast<int*>(data) < 50; };
      g_timeout_add(1, count, &turns);
      RunNested([&] { return turns == 50; });
      EXPECT_THAT(client.events, ElementsAre("connected"));
      client.events.push_back(Message::From(client.callback()).Text());
      // Having taken it, it may wait for the next one.
      RunNested([&] { return client.Saw("two"); });
      unwound = true;
      return;
    }
    client.events.push_back(Message::From(client.callback()).Text());
  };
  ASSERT_TRUE(client.ConnectNow());
  ASSERT_EQ(server.Push("one"), 0);
  ASSERT_TRUE(RunUntil([&] { return unwound; }));
  EXPECT_THAT(client.events, ElementsAre("connected", "one", "two"));
}

TEST_F(ANestedMainLoop, ServesRequestsToo) {
  std::vector<std::string> requests;
  server.on_received = [&](rpc_port_h port) {
    requests.push_back(Message::From(port).Text());
    if (requests.size() == 1) RunNested([&] { return requests.size() == 3; });
    return 0;
  };
  ASSERT_TRUE(client.ConnectNow());
  for (const char* text : {"one", "two", "three"}) ASSERT_EQ(Message(text).Send(client.main()), 0);
  ASSERT_TRUE(RunUntil([&] { return requests.size() == 3; }));
  EXPECT_THAT(requests, ElementsAre("one", "two", "three"));
}

TEST_F(ANestedMainLoop, InsideTheConnectedCallbackDeliversPushes) {
  bool unwound = false;
  client.on_connected = [&] {
    EXPECT_EQ(server.Push("one"), 0);
    RunNested([&] { return client.Saw("one"); });
    unwound = true;
  };
  ASSERT_EQ(client.Connect(), 0);
  ASSERT_TRUE(RunUntil([&] { return unwound; }));
  EXPECT_THAT(client.events, ElementsAre("connected", "one"));
}
