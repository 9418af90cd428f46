// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

#include "support.h"
#include "support/bytes_in_use.h"

using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

namespace {

constexpr size_t kMaxContent = size_t{16} << 20;

std::string OfSize(size_t size) { return std::string(size, 'x'); }

// A server and a client that are connected, in this process.
class AConnection : public PortTest {
 protected:
  AConnection() {
    EXPECT_EQ(server.Listen(), 0);
    EXPECT_TRUE(client.ConnectNow());
  }

  Server server;
  Client client;
};

// A server in another process and a client that is connected to it.
class AServerProcess : public PortTest {
 protected:
  explicit AServerProcess(const char* what = "serve") : peer({what}) {
    EXPECT_EQ(peer.Line(), "ready");
    EXPECT_TRUE(client.ConnectNow());
  }

  Peer peer;
  Client client;
};

class ADyingServerProcess : public AServerProcess {
 protected:
  ADyingServerProcess() : AServerProcess("serve-half") {}
};

std::atomic<int> signals_seen{0};

// Lets signals interrupt every system call.
void CountSignals(int number) {
  struct sigaction action = {};
  action.sa_handler = [](int) { ++signals_seen; };
  sigaction(number, &action, nullptr);
}

}  // namespace

TEST_F(AServerProcess, AnswersACall) { EXPECT_EQ(Call(client.main(), "hello"), "hello"); }

TEST_F(AServerProcess, AnswersCallsOfEverySize) {
  for (const size_t size : {size_t{0}, size_t{200}, size_t{4086}, size_t{4087}, size_t{4088},
                            size_t{20000}, size_t{32758}, size_t{32759}, size_t{32760},
                            size_t{32768}, size_t{300000}, kMaxContent - 5}) {
    const std::string text = OfSize(size);
    ASSERT_TRUE(Call(client.main(), text) == text) << size;
  }
}

TEST_F(AServerProcess, AnswersAnEmptyMessage) {
  EXPECT_EQ(Message().Send(client.main()), 0);
  const Message reply = Message::From(client.main());
  ASSERT_NE(reply.h, nullptr);
  EXPECT_EQ(reply.Bytes(), "");
}

TEST_F(AServerProcess, AnswersRequestsInTheirOrder) {
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(Message(std::to_string(i)).Send(client.main()), 0);
  }
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(Message::From(client.main()).Text(), std::to_string(i));
  }
}

TEST_F(AServerProcess, AnswersTwoThreadsAtOnce) {
  std::thread threads[2];
  std::mutex one_call_at_a_time;
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < 200; ++i) {
        const std::lock_guard<std::mutex> lock(one_call_at_a_time);
        EXPECT_EQ(Call(client.main(), "text"), "text");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(AServerProcess, KeepsMessagesOfManyThreadsWhole) {
  std::thread threads[4];
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < 20; ++i) EXPECT_EQ(Message(OfSize(300000)).Send(client.main()), 0);
    });
  }
  for (int i = 0; i < 80; ++i) ASSERT_TRUE(Message::From(client.main()).Text() == OfSize(300000));
  for (std::thread& thread : threads) thread.join();
}

TEST_F(AServerProcess, TakesALargeRequestOnceItRunsAgain) {
  peer.Signal(SIGSTOP);
  const std::string text = OfSize(4 << 20);
  std::thread sender([&] { EXPECT_EQ(Message(text).Send(client.main()), 0); });
  std::string reply;
  std::thread receiver([&] { reply = Message::From(client.main()).Text(); });
  peer.Signal(SIGCONT);
  sender.join();
  receiver.join();
  EXPECT_TRUE(reply == text);
}

TEST_F(AServerProcess, ReleasesASenderWhenItIsKilled) {
  peer.Signal(SIGSTOP);
  const int result = RunBeside([&] {
    // The rest of it waits for a server that will never run again.
    std::thread killer([&] { peer.Signal(SIGKILL); });
    int code = 0;
    while (code == 0) code = Message(OfSize(1 << 20)).Send(client.main());
    killer.join();
    return code;
  });
  EXPECT_EQ(result, -5);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
}

TEST_F(AServerProcess, ReleasesASenderWhenTheProxyIsDestroyed) {
  peer.Signal(SIGSTOP);
  const rpc_port_h port = client.main();
  std::atomic<int> sent{0};
  std::atomic<int> result{0};
  std::thread sender([&] {
    while (result == 0) {
      result = Message(OfSize(100000)).Send(port);
      ++sent;
    }
  });
  ASSERT_TRUE(RunUntil([&] { return sent > 0; }));
  client.Destroy();
  sender.join();
  EXPECT_THAT(result.load(), testing::AnyOf(-5, -22));
}

TEST_F(AServerProcess, ReleasesAReaderWhenItIsKilled) {
  std::string reply;
  peer.Signal(SIGSTOP);
  std::thread reader([&] { reply = Call(client.main(), "text"); });
  peer.Signal(SIGKILL);
  reader.join();
  EXPECT_EQ(reply, "!-5");
}

TEST_F(AServerProcess, IsStillHeardWhileSignalsComeIn) {
  CountSignals(SIGUSR1);
  std::atomic<bool> done{false};
  std::thread caller([&] {
    for (int i = 0; i < 100; ++i) {
      const std::string text = OfSize(i % 10 == 0 ? 1 << 20 : 10);
      EXPECT_TRUE(Call(client.main(), text) == text);
    }
    done = true;
  });
  while (!done) {
    pthread_kill(caller.native_handle(), SIGUSR1);
    sched_yield();
  }
  caller.join();
  EXPECT_GT(signals_seen, 0);
}

TEST_F(ADyingServerProcess, EndsACallInTheMiddleOfItsAnswer) {
  EXPECT_EQ(Call(client.main(), "text"), "!-5");
  EXPECT_EQ(peer.Wait(), -SIGKILL);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("disconnected"); }));
  RunAllReady();
  EXPECT_THAT(client.events, ElementsAre("connected", "disconnected"));
}

TEST_F(AServerProcess, DoesNotKillItsClientByASignal) {
  signal(SIGPIPE, SIG_DFL);
  peer.Signal(SIGKILL);
  peer.Wait();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Message("text").Send(client.main()), -5);
  EXPECT_EQ(Message("text").Send(client.callback()), -5);
}

using ClientProcesses = PortTest;

TEST_F(ClientProcesses, AreServedSideBySide) {
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Peer one({"call", "100"}, "org.example.one");
  Peer two({"call", "100"}, "org.example.two");
  ASSERT_TRUE(RunUntil([&] {
    return server.Saw("disconnected org.example.one") && server.Saw("disconnected org.example.two");
  }));
  EXPECT_EQ(one.Wait(), 0);
  EXPECT_EQ(two.Wait(), 0);
}

TEST_F(ClientProcesses, DoNotKillTheirServerByASignal) {
  signal(SIGPIPE, SIG_DFL);
  Server server;
  ASSERT_EQ(server.Listen(), 0);
  Peer peer({"stay"}, "org.example.other");
  ASSERT_TRUE(RunUntil([&] { return server.Saw("connected org.example.other"); }));
  const rpc_port_h port = server.callback();
  peer.Signal(SIGKILL);
  peer.Wait();
  EXPECT_EQ(Message("text").Send(port), -5);
  EXPECT_EQ(Message("text").Send(port), -5);
  ASSERT_TRUE(RunUntil([&] { return server.Saw("disconnected org.example.other"); }));
  EXPECT_EQ(Message("text").Send(port), -22);
}

TEST_F(AConnection, CarriesACall) {
  EXPECT_EQ(RunBeside([&] { return Call(client.main(), "hello"); }), "hello");
}

TEST_F(AConnection, CarriesPushesInTheirOrder) {
  for (const char* text : {"one", "two", "three"}) EXPECT_EQ(server.Push(text), 0);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("three"); }));
  EXPECT_THAT(client.events, ElementsAre("connected", "one", "two", "three"));
}

TEST_F(AConnection, CarriesPushesThatWereMadeWhileTheClientConnected) {
  server.on_connected = [this] { EXPECT_EQ(server.Push("welcome"), 0); };
  Client other;
  ASSERT_TRUE(other.ConnectNow());
  ASSERT_TRUE(RunUntil([&] { return other.Saw("welcome"); }));
  EXPECT_THAT(other.events, ElementsAre("connected", "welcome"));
}

TEST_F(AConnection, DeliversEveryMessageOfOneWrite) {
  std::string bytes;
  for (int i = 0; i < 1000; ++i) bytes += Framed(Text(std::to_string(i)));
  EXPECT_EQ(rpc_port_desktop_send_bytes(server.callback(), bytes.data(), bytes.size()), 0);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("999"); }));
  ASSERT_THAT(client.events, SizeIs(1001));
  for (size_t i = 0; i < 1000; ++i) EXPECT_EQ(client.events[i + 1], std::to_string(i));
}

TEST_F(AConnection, DeliversEveryRequestOfOneWrite) {
  std::vector<std::string> requests;
  server.on_received = [&](rpc_port_h port) {
    requests.push_back(Message::From(port).Text());
    return 0;
  };
  std::string bytes;
  for (int i = 0; i < 1000; ++i) bytes += Framed(Text(std::to_string(i)));
  EXPECT_EQ(rpc_port_desktop_send_bytes(client.main(), bytes.data(), bytes.size()), 0);
  ASSERT_TRUE(RunUntil([&] { return requests.size() == 1000; }));
  EXPECT_EQ(requests.back(), "999");
}

TEST_F(AConnection, WaitsForTheRestOfAPush) {
  const std::string bytes = Framed(Text("slow")) + Framed(Text("peer"));
  for (size_t i = 0; i < bytes.size(); ++i) {
    ASSERT_EQ(rpc_port_desktop_send_bytes(server.callback(), &bytes[i], 1), 0);
    RunAllReady();
    EXPECT_EQ(client.Saw("slow"), i + 1 >= Framed(Text("slow")).size());
  }
  EXPECT_THAT(client.events, ElementsAre("connected", "slow", "peer"));
}

TEST_F(AConnection, WaitsForTheRestOfARequest) {
  std::vector<std::string> requests;
  server.on_received = [&](rpc_port_h port) {
    requests.push_back(Message::From(port).Text());
    return 0;
  };
  const std::string bytes = Framed(Text("slow")) + Framed(Text("peer"));
  for (size_t i = 0; i < bytes.size(); ++i) {
    ASSERT_EQ(rpc_port_desktop_send_bytes(client.main(), &bytes[i], 1), 0);
    RunAllReady();
    EXPECT_EQ(!requests.empty(), i + 1 >= Framed(Text("slow")).size());
  }
  EXPECT_THAT(requests, ElementsAre("slow", "peer"));
}

TEST_F(AConnection, WaitsForTheRestOfAReply) {
  const std::string bytes = Framed(Text("stray")) + Framed(Text(OfSize(50000)));
  server.on_received = [&](rpc_port_h port) {
    Message::From(port);
    for (const char& byte : bytes) EXPECT_EQ(rpc_port_desktop_send_bytes(port, &byte, 1), 0);
    return 0;
  };
  const std::string stray = RunBeside([&] { return Call(client.main(), "text"); });
  EXPECT_EQ(stray, "stray");
  EXPECT_TRUE(RunBeside([&] { return Message::From(client.main()).Text(); }) == OfSize(50000));
}

TEST_F(AConnection, CarriesTheLargestMessageBothWays) {
  const std::string text = OfSize(kMaxContent - 5);
  EXPECT_TRUE(RunBeside([&] { return Call(client.main(), text); }) == text);
  EXPECT_EQ(server.Push(text), 0);
  ASSERT_TRUE(RunUntil([&] { return client.events.size() == 2; }));
  EXPECT_TRUE(client.events[1] == text);
}

TEST_F(AConnection, EndsWithAPushOfAnImpossibleLength) {
  for (const int32_t length : {-1, INT32_MIN, INT32_MAX, static_cast<int32_t>(kMaxContent) + 1}) {
    Client other;
    ASSERT_TRUE(other.ConnectNow());
    const std::string bytes = Framed(Text("good")) + Int32(length) + "rest";
    EXPECT_EQ(rpc_port_desktop_send_bytes(server.callback(), bytes.data(), bytes.size()), 0);
    ASSERT_TRUE(RunUntil([&] { return other.Saw("disconnected"); }));
    EXPECT_THAT(other.events, ElementsAre("connected", "good", "disconnected")) << length;
  }
  EXPECT_THAT(client.events, ElementsAre("connected"));
}

TEST_F(AConnection, EndsWithARequestOfAnImpossibleLength) {
  for (const int32_t length : {-1, INT32_MIN, INT32_MAX, static_cast<int32_t>(kMaxContent) + 1}) {
    Client other;
    ASSERT_TRUE(other.ConnectNow());
    server.events.clear();
    const std::string bytes = Int32(length) + "rest";
    EXPECT_EQ(rpc_port_desktop_send_bytes(other.main(), bytes.data(), bytes.size()), 0);
    ASSERT_TRUE(RunUntil([&] { return other.Saw("disconnected"); }));
    EXPECT_THAT(server.events, ElementsAre("disconnected org.example.self"));
  }
  EXPECT_THAT(client.events, ElementsAre("connected"));
}

TEST_F(AConnection, FailsACallWhoseReplyHasAnImpossibleLength) {
  server.on_received = [&](rpc_port_h port) {
    Message::From(port);
    const std::string bytes = Int32(-5) + "rest";
    EXPECT_EQ(rpc_port_desktop_send_bytes(port, bytes.data(), bytes.size()), 0);
    return 0;
  };
  EXPECT_EQ(RunBeside([&] { return Call(client.main(), "text"); }), "!-5");
}

TEST_F(AConnection, DropsAPushThatNoCallbackTakes) {
  int offered = 0;
  client.on_received = [&] {
    if (++offered == 2) client.events.push_back(Message::From(client.callback()).Text());
  };
  for (const char* text : {"one", "two", "three"}) EXPECT_EQ(server.Push(text), 0);
  ASSERT_TRUE(RunUntil([&] { return offered == 3; }));
  RunAllReady();
  EXPECT_EQ(offered, 3);
  EXPECT_THAT(client.events, ElementsAre("connected", "two"));
}

TEST_F(AConnection, DropsARequestThatNoCallbackTakes) {
  int offered = 0;
  server.on_received = [&](rpc_port_h port) {
    return ++offered == 1 ? 0 : Message::From(port).Send(port);
  };
  EXPECT_EQ(Message("dropped").Send(client.main()), 0);
  EXPECT_EQ(RunBeside([&] { return Call(client.main(), "answered"); }), "answered");
  EXPECT_EQ(offered, 2);
}

TEST_F(AConnection, OffersAPushToTheNextCallbackIfTheFirstLeavesIt) {
  std::vector<std::string> taken;
  static Client* current;
  current = &client;
  client.on_received = [] {};
  rpc_port_proxy_add_received_event_cb(
      client.h,
      [](const char*, const char*, void* data) {
        static_cast<std::vector<std::string>*>(data)->push_back(
            Message::From(current->callback()).Text());
      },
      &taken);
  EXPECT_EQ(server.Push("one"), 0);
  ASSERT_TRUE(RunUntil([&] { return !taken.empty(); }));
  client.on_received = nullptr;
  EXPECT_EQ(server.Push("two"), 0);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("two"); }));
  EXPECT_THAT(taken, ElementsAre("one"));
}

TEST_F(AConnection, NeverMakesTheServerWaitForItsClient) {
  const size_t before = BytesInUse();
  constexpr size_t kCount = 60;
  const std::string text = OfSize(1 << 20);
  // All of it is accepted while nobody reads: the client's loop is this one.
  for (size_t i = 0; i < kCount; ++i) ASSERT_EQ(server.Push(text), 0);
  ASSERT_EQ(server.Push("last"), 0);
  ASSERT_TRUE(RunUntil([&] { return client.Saw("last"); }));
  ASSERT_THAT(client.events, SizeIs(kCount + 2));
  for (size_t i = 1; i <= kCount; ++i) ASSERT_TRUE(client.events[i] == text);
  // With the queue gone, everything is as before.
  EXPECT_EQ(server.Push("more"), 0);
  EXPECT_TRUE(RunUntil([&] { return client.Saw("more"); }));
  client.events.clear();
  EXPECT_LT(BytesInUse(), before + (10 << 20));
}

TEST_F(AConnection, IsCutOffWhenTheClientLetsTooMuchPileUp) {
  Client idle;
  ASSERT_TRUE(idle.ConnectNow());
  const std::string text = OfSize(1 << 20);
  int result = 0;
  int accepted = 0;
  while ((result = server.Push(text)) == 0 && accepted < 200) ++accepted;
  EXPECT_EQ(result, -5);
  EXPECT_GE(accepted, 63);
  EXPECT_LT(accepted, 80);
  ASSERT_TRUE(RunUntil([&] { return idle.Saw("disconnected"); }));
  EXPECT_TRUE(server.Saw("disconnected org.example.self"));
  EXPECT_THAT(client.events, ElementsAre("connected"));
  EXPECT_EQ(RunBeside([&] { return Call(client.main(), "still here"); }), "still here");
}

TEST_F(AConnection, CarriesPushesFromAnyThread) {
  const rpc_port_h port = server.callback();
  std::thread threads[3];
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      for (int i = 0; i < 100; ++i) EXPECT_EQ(Message(OfSize(10000)).Send(port), 0);
    });
  }
  EXPECT_TRUE(RunUntil([&] { return client.events.size() == 301; }));
  for (std::thread& thread : threads) thread.join();
  client.events.erase(client.events.begin());
  EXPECT_THAT(client.events, Each(SizeIs(10000)));
}

TEST_F(AConnection, CarriesCallsWhilePushesArrive) {
  server.on_received = [&](rpc_port_h port) {
    EXPECT_EQ(server.Push("push"), 0);
    return Message::From(port).Send(port);
  };
  const int good = RunBeside([&] {
    int count = 0;
    for (int i = 0; i < 500; ++i) {
      const std::string text = std::to_string(i);
      count += Call(client.main(), text) == text ? 1 : 0;
    }
    return count;
  });
  EXPECT_EQ(good, 500);
  EXPECT_TRUE(RunUntil([&] { return client.events.size() == 501; }));
}
