// SPDX-License-Identifier: Apache-2.0
// Counts the calls of the kernel that a message costs, by standing in front of the C library. A
// program of its own, because sanitizers stand there too.
#include <glib.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

#include "support.h"

namespace {

thread_local int sends = 0;
thread_local int receives = 0;
thread_local int polls = 0;

void Reset() { sends = receives = polls = 0; }

}  // namespace

extern "C" {
#pragma GCC visibility push(default)
ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  ++sends;
  return syscall(SYS_sendto, fd, bytes, size, flags, nullptr, 0);
}
ssize_t recv(int fd, void* bytes, size_t size, int flags) {
  ++receives;
  return syscall(SYS_recvfrom, fd, bytes, size, flags, nullptr, nullptr);
}
int poll(pollfd* fds, nfds_t count, int timeout) {
  ++polls;
  return static_cast<int>(syscall(SYS_poll, fds, count, timeout));
}
#pragma GCC visibility pop
}

using ACall = PortTest;

TEST_F(ACall, CostsEachSideOneSendOneWaitAndOneRead) {
  constexpr int kCalls = 100;
  for (const size_t size : {size_t{10}, size_t{20000}}) {
    Peer peer({"serve-counting", std::to_string(kCalls)});
    ASSERT_EQ(peer.Line(), "ready");
    Client client;
    ASSERT_TRUE(client.ConnectNow());
    const std::string text(size, 'x');
    Reset();
    for (int i = 0; i < kCalls; ++i) ASSERT_TRUE(Call(client.main(), text) == text);
    EXPECT_EQ(sends, kCalls);
    EXPECT_EQ(receives, kCalls);
    EXPECT_EQ(polls, kCalls);
    EXPECT_EQ(peer.Line(), "99 99 99");
  }
}

namespace {

int ServeCounting(int calls) {
  Server server;
  int served = 0;
  server.on_received = [&](rpc_port_h port) {
    const int result = Message::From(port).Send(port);
    // Connecting has its own price.
    if (++served == 1) Reset();
    return result;
  };
  if (server.Listen() != 0) return 1;
  std::puts("ready");
  std::fflush(stdout);
  while (served < calls) g_main_context_iteration(nullptr, TRUE);
  std::printf("%d %d %d\n", sends, receives, polls);
  std::fflush(stdout);
  for (;;) pause();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::string(argv[1]) == "--peer") return ServeCounting(std::stoi(argv[3]));
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
