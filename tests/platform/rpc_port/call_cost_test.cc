// SPDX-License-Identifier: Apache-2.0
// Counts the system calls that a message costs, by replacing functions of the C library. A program
// of its own, because sanitizers replace them, too.
#include <dlfcn.h>
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
thread_local int waits = 0;

void Reset() { sends = receives = waits = 0; }

// Counts a wait and passes it on to the C library's function of that name.
template <typename... Arguments>
int Wait(const char* name, Arguments... arguments) {
  ++waits;
  void* const next = dlsym(RTLD_NEXT, name);
  return reinterpret_cast<int (*)(Arguments...)>(next)(arguments...);
}

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
// By which name a caller such as GLib waits depends on how it was compiled: with limits finer than
// a millisecond, with bounds checks, with 64-bit times on 32 bits.
int poll(pollfd* fds, nfds_t count, int timeout) { return Wait("poll", fds, count, timeout); }
int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  return Wait("ppoll", fds, count, timeout, mask);
}
int __ppoll64(pollfd* fds, nfds_t count, const void* timeout, const sigset_t* mask) {
  return Wait("__ppoll64", fds, count, timeout, mask);
}
int __poll_chk(pollfd* fds, nfds_t count, int timeout, size_t size) {
  return Wait("__poll_chk", fds, count, timeout, size);
}
int __ppoll_chk(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask,
                size_t size) {
  return Wait("__ppoll_chk", fds, count, timeout, mask, size);
}
int __ppoll64_chk(pollfd* fds, nfds_t count, const void* timeout, const sigset_t* mask,
                  size_t size) {
  return Wait("__ppoll64_chk", fds, count, timeout, mask, size);
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
    EXPECT_EQ(waits, kCalls);
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
  std::printf("%d %d %d\n", sends, receives, waits);
  std::fflush(stdout);
  for (;;) pause();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::string(argv[1]) == "--peer") return ServeCounting(std::stoi(argv[3]));
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
