// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>

#include "support.h"
#include "support/forked_child.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

// The sockets that were opened since then, lowest first: for a connection the main stream, then the
// callback stream.
std::vector<int> SocketsSince(const std::map<int, std::string>& before) {
  std::vector<int> opened;
  for (const auto& [fd, target] : OpenDescriptors()) {
    if (before.count(fd) == 0 && target.rfind("socket:", 0) == 0) opened.push_back(fd);
  }
  return opened;
}

bool AwaitBytes(int fd) {
  pollfd wait = {fd, POLLIN, 0};
  return poll(&wait, 1, 100 * 1000) == 1;
}

class AForkedChild : public PortTest {
 protected:
  AForkedChild() { EXPECT_EQ(server.Line(), "ready"); }

  void ExpectServed() const { EXPECT_EQ(Call(client.main(), "text"), "text"); }

  Peer server{{"serve"}};
  Client client;
};

}  // namespace

TEST_F(AForkedChild, HasNoneOfItsParentsSockets) {
  const auto before = OpenDescriptors();
  ASSERT_TRUE(client.ConnectNow());
  const std::vector<int> sockets = SocketsSince(before);
  ASSERT_THAT(sockets, SizeIs(2));
  EXPECT_TRUE(HoldsInAChild([&] {
    for (const int fd : sockets) EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    // Nor does it close what has got their numbers since.
    const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const int fd : sockets) EXPECT_EQ(dup3(other, fd, O_CLOEXEC), fd);
    RunAllReady();
    client.Destroy();
    for (const int fd : sockets) EXPECT_NE(fcntl(fd, F_GETFD), -1);
  }));
  ExpectServed();
}

TEST_F(AForkedChild, FindsItsParentsHandlesInvalid) {
  ASSERT_TRUE(client.ConnectNow());
  const rpc_port_h main = client.main();
  const rpc_port_h callback = client.callback();
  EXPECT_TRUE(HoldsInAChild([&] {
    for (const rpc_port_h inherited : {main, callback}) {
      rpc_port_parcel_h parcel = nullptr;
      EXPECT_EQ(rpc_port_parcel_create_from_port(&parcel, inherited), -22);
      EXPECT_EQ(Message("text").Send(inherited), -22);
    }
    rpc_port_h port = nullptr;
    EXPECT_EQ(rpc_port_proxy_get_port(client.h, RPC_PORT_PORT_MAIN, &port), -22);
    EXPECT_EQ(client.Connect(), -22);
    EXPECT_EQ(client.Destroy(), -22);
  }));
  ExpectServed();
  EXPECT_THAT(client.events, ElementsAre("connected"));
}

TEST_F(AForkedChild, LeavesTheVerdictToItsParent) {
  const auto before = OpenDescriptors();
  ASSERT_EQ(client.Connect(), 0);
  const std::vector<int> sockets = SocketsSince(before);
  ASSERT_THAT(sockets, SizeIs(2));
  ASSERT_TRUE(AwaitBytes(sockets[0]));
  EXPECT_TRUE(HoldsInAChild([&] {
    RunAllReady();
    EXPECT_THAT(client.events, IsEmpty());
    client.Destroy();
  }));
  EXPECT_TRUE(RunUntil([&] { return client.Saw("connected"); }));
  ExpectServed();
}

TEST_F(AForkedChild, LeavesMessagesToItsParent) {
  server.Signal(SIGKILL);
  server.Wait();
  Peer pushing({"serve-pushing"});
  ASSERT_EQ(pushing.Line(), "ready");
  const auto before = OpenDescriptors();
  ASSERT_TRUE(client.ConnectNow());
  const std::vector<int> sockets = SocketsSince(before);
  ASSERT_THAT(sockets, SizeIs(2));
  // In the kernel, and some perhaps in the parent's memory.
  EXPECT_TRUE(client.events.size() > 1 || AwaitBytes(sockets[1]));
  const size_t seen = client.events.size();
  EXPECT_TRUE(HoldsInAChild([&] {
    RunAllReady();
    EXPECT_THAT(client.events, SizeIs(seen));
  }));
  EXPECT_TRUE(RunUntil([&] { return client.events.size() == 21; }));
  client.events.erase(client.events.begin());
  EXPECT_THAT(client.events, Each("push"));
}

TEST_F(AForkedChild, ConnectsAnew) {
  ASSERT_TRUE(client.ConnectNow());
  EXPECT_TRUE(HoldsInAChild([&] {
    Client another;
    ASSERT_TRUE(another.ConnectNow());
    EXPECT_EQ(Call(another.main(), "from the child"), "from the child");
    // And so does the child's own child.
    const rpc_port_h inherited = another.main();
    EXPECT_TRUE(HoldsInAChild([&] {
      EXPECT_EQ(Message("text").Send(inherited), -22);
      Client third;
      ASSERT_TRUE(third.ConnectNow());
      EXPECT_EQ(Call(third.main(), "deeper"), "deeper");
    }));
    EXPECT_EQ(Call(another.main(), "again"), "again");
    EXPECT_EQ(another.Destroy(), 0);
    EXPECT_THAT(another.events, ElementsAre("connected"));
  }));
  ExpectServed();
  EXPECT_THAT(client.events, ElementsAre("connected"));
}

TEST_F(AForkedChild, IsLeftAloneByTheCallbackThatMadeIt) {
  pid_t child = -1;
  const auto fork_inside = [&] { child = fork(); };
  client.on_connected = fork_inside;
  ASSERT_TRUE(client.ConnectNow());
  if (child == 0) {
    // Only what the callback itself has recorded.
    EXPECT_THAT(client.events, ElementsAre("connected"));
    RunAllReady();
    Client second;
    EXPECT_TRUE(second.ConnectNow());
    EXPECT_EQ(Call(second.main(), "text"), "text");
    EXPECT_THAT(client.events, ElementsAre("connected"));
    _exit(HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ExpectServed();
}

TEST_F(AForkedChild, ConnectsAnewWhateverAnotherThreadOfItsParentDoes) {
  ASSERT_TRUE(client.ConnectNow());
  const rpc_port_h main = client.main();
  std::atomic<bool> done{false};
  std::thread caller([&] {
    while (!done) EXPECT_EQ(Call(main, "text"), "text");
  });
  for (int i = 0; i < 30; ++i) {
    EXPECT_TRUE(HoldsInAChild([] {
      Client another;
      ASSERT_TRUE(another.ConnectNow());
      EXPECT_EQ(Call(another.main(), "child"), "child");
    }));
  }
  done = true;
  caller.join();
}

TEST_F(AForkedChild, DoesNotKeepItsParentsEndFromTheServer) {
  server.Signal(SIGKILL);
  server.Wait();
  Server own;
  ASSERT_EQ(own.Listen(), 0);
  Peer peer({"leave-child"}, "org.example.parent");
  std::string line;
  std::thread reader([&] { line = peer.Line(); });
  EXPECT_TRUE(RunUntil([&] { return own.Saw("disconnected org.example.parent"); }));
  reader.join();
  const pid_t child = std::stoi(line);
  EXPECT_EQ(kill(child, SIGKILL), 0);
}

TEST_F(AForkedChild, OfAServerLeavesThePortToItsParent) {
  server.Signal(SIGKILL);
  server.Wait();
  Peer forking({"serve-forking"});
  ASSERT_EQ(forking.Line(), "ready");
  EXPECT_TRUE(std::filesystem::exists(SocketPath()));
  EXPECT_NE(Server().Listen(), 0);
  ASSERT_TRUE(client.ConnectNow());
  ExpectServed();
}

TEST_F(AForkedChild, OfAServerDoesNotKeepThePortFromASuccessor) {
  server.Signal(SIGKILL);
  server.Wait();
  Peer dead({"serve-leave-child"});
  const pid_t child = std::stoi(dead.Line());
  EXPECT_EQ(dead.Wait(), -SIGKILL);
  Server successor;
  EXPECT_EQ(successor.Listen(), 0);
  ASSERT_TRUE(client.ConnectNow());
  EXPECT_EQ(kill(child, SIGKILL), 0);
}
