// SPDX-License-Identifier: Apache-2.0
#include "servers.h"

#include <glib.h>
#include <rpc-port-desktop.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "bench_world.h"
#include "messages.h"

namespace {

constexpr std::array kModels = {10, 100, 1000};

// Methods that wait for a reply; the others have the delegates 1 to 5, in the order of their numbers.
bool Waits(int method) { return method <= 4 || method == 10; }

struct Messages {
  const std::string& Reply(int method) const {
    return method == 2 ? level : method == 3 ? licence : consent;
  }

  std::string level = LevelMessage();
  std::string licence = LicenceMessage();
  std::string consent = ConsentMessage();
  std::array<std::string, 5> answers = {ListMessage(1, kModels[0]), ListMessage(2, kModels[1]),
                                        ListMessage(3, kModels[2]), ProgressMessage(4),
                                        ProgressMessage(5)};
};

int Int32(rpc_port_parcel_h request) {
  int value = 0;
  Require(rpc_port_parcel_read_int32(request, &value) == 0, "read a number");
  return value;
}

int OnReceived(const char*, const char* instance, rpc_port_h port, void* stub) {
  static Messages messages;
  rpc_port_parcel_h request = nullptr;
  Require(rpc_port_parcel_create_from_port(&request, port) == 0, "read a request");
  const int method = Int32(request);
  const bool waits = Waits(method);
  const int delegate = waits ? 0 : Int32(request);
  const int seq = waits ? 0 : Int32(request);
  rpc_port_parcel_destroy(request);
  if (waits) {
    const std::string& reply = messages.Reply(method);
    return rpc_port_desktop_send_bytes(port, reply.data(), reply.size());
  }
  std::string& answer = messages.answers.at(static_cast<std::size_t>(delegate) - 1);
  std::memcpy(answer.data() + kListSeq, &seq, sizeof seq);
  rpc_port_h callback_port = nullptr;
  rpc_port_stub_get_port(stub, RPC_PORT_PORT_CALLBACK, instance, &callback_port);
  return rpc_port_desktop_send_bytes(callback_port, answer.data(), answer.size());
}

[[noreturn]] void ServeForEver() {
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
  std::abort();
}

[[noreturn]] void ServePort(int ready) {
  setenv("VELMORA_APP_ID", AGENT_PACKAGE_ID, 1);
  rpc_port_stub_h stub = nullptr;
  Require(rpc_port_stub_create(&stub, "SvcMgrAppPort") == 0 &&
              rpc_port_stub_add_received_event_cb(stub, OnReceived, stub) == 0 &&
              rpc_port_stub_listen(stub) == 0,
          "serve the agent's port");
  Require(write(ready, "", 1) == 1, "say so");
  ServeForEver();
}

pid_t Start(void (*serve)(int), int fd, int other) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  Require(pid >= 0, "start a server");
  if (pid > 0) {
    close(fd);
    return pid;
  }
  close(other);
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(1);
  serve(fd);
  std::abort();
}

}  // namespace

ServerProcess ServerProcess::Agent() {
  int ready[2];
  Require(pipe(ready) == 0, "make a pipe");
  ServerProcess server(Start(ServePort, ready[1], ready[0]));
  char byte;
  Require(read(ready[0], &byte, 1) == 1, "await the server");
  close(ready[0]);
  return server;
}

ServerProcess::~ServerProcess() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}
