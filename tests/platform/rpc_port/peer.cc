// SPDX-License-Identifier: Apache-2.0
// What the tests' second process does.

#include <cstdio>

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
int ServePushing() {
  Server server;
  server.on_connected = [&] {
    for (int i = 0; i < 20; ++i) server.Push("push");
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

// Only tries to serve.
int Listen() {
  Server server;
  return server.Listen() == 0 ? 0 : 1;
}

// Connects, calls so many times, and ends as a good client does.
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
  if (what == "serve-pushing") return ServePushing();
  if (what == "serve-half") return ServeHalf();
  if (what == "listen") return Listen();
  if (what == "call") return Call(arguments.at(1));
  if (what == "stay") return Stay();
  return 100;
}
