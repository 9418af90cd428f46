// SPDX-License-Identifier: Apache-2.0
// What the tests' second process does.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support.h"

namespace {

void Say(const char* line) {
  std::puts(line);
  std::fflush(stdout);
}

bool Never() { return false; }

// Serves until it is killed.
int Serve() {
  Server server;
  if (server.Listen() != 0) return 1;
  Say("ready");
  RunUntil(Never);
  return 2;
}

// Serves, and has much to say to each client that connects.
int ServePushing(const std::string& text) {
  Server server;
  server.on_connected = [&] {
    for (int i = 0; i < 20; ++i) server.Push(text);
    Say("pushed");
  };
  if (server.Listen() != 0) return 1;
  Say("ready");
  RunUntil(Never);
  return 2;
}

// Serves, and ends in the middle of its answer.
int ServeHalf() {
  Server server;
  server.on_received = [](rpc_port_h port) {
    const std::string half = Framed(Text("half")).substr(0, 7);
    Message::From(port);
    rpc_port_desktop_send_bytes(port, half.data(), half.size());
    raise(SIGKILL);
    return 0;
  };
  if (server.Listen() != 0) return 1;
  Say("ready");
  RunUntil(Never);
  return 2;
}

// A forked child that tells who it is and stays.
void LeaveChild() {
  if (fork() != 0) return;
  // In case nobody ends it.
  alarm(200);
  Say(std::to_string(getpid()).c_str());
  for (;;) pause();
}

// Serves, after a forked child has done its worst to the port.
int ServeForking() {
  Server server;
  if (server.Listen() != 0) return 1;
  const pid_t child = fork();
  if (child == 0) {
    RunAllReady();
    // A normal end, with what runs at exit.
    std::exit(server.Destroy() == -22 ? 0 : 1);
  }
  int status = -1;
  if (waitpid(child, &status, 0) != child || status != 0) return 2;
  Say("ready");
  RunUntil(Never);
  return 3;
}

// Serves, forks and dies.
int ServeLeaveChild() {
  Server server;
  if (server.Listen() != 0) return 1;
  LeaveChild();
  return raise(SIGKILL);
}

// Connects, forks and dies.
int ConnectAndLeaveChild() {
  Client client;
  if (!client.ConnectNow()) return 1;
  LeaveChild();
  return raise(SIGKILL);
}

// Only tries to serve.
int Listen() {
  Server server;
  return server.Listen() == 0 ? 0 : 1;
}

// Connects, calls this many times, and ends as a good client does.
int Call(const std::string& count) {
  Client client;
  if (!client.ConnectNow()) return 1;
  Say("connected");
  for (int i = 0; i < std::stoi(count); ++i) {
    const std::string text = "call " + std::to_string(i);
    if (::Call(client.main(), text) != text) return 2;
  }
  return 0;
}

// Connects and stays until it is killed.
int Stay() {
  Client client;
  if (!client.ConnectNow()) return 1;
  Say("connected");
  RunUntil(Never);
  return 2;
}

}  // namespace

int RunPeer(const std::vector<std::string>& arguments) {
  const std::string& what = arguments.at(0);
  if (what == "serve") return Serve();
  if (what == "serve-pushing") {
    return ServePushing(arguments.size() > 1 ? std::string(std::stoul(arguments[1]), 'x') : "push");
  }
  if (what == "serve-forking") return ServeForking();
  if (what == "serve-leave-child") return ServeLeaveChild();
  if (what == "leave-child") return ConnectAndLeaveChild();
  if (what == "serve-half") return ServeHalf();
  if (what == "listen") return Listen();
  if (what == "call") return Call(arguments.at(1));
  if (what == "stay") return Stay();
  return 100;
}
