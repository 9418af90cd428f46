// SPDX-License-Identifier: Apache-2.0
#include "servers.h"

#include <glib-unix.h>
#include <rpc-port-desktop.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>

#include "bench_world.h"
#include "models.h"

namespace {

constexpr int kReply = 0;
constexpr int kAnswer = 1;
constexpr std::size_t kSeqInFrame = 12;  // after the prefix, the command and the delegate's ID

class Parcel {
 public:
  Parcel() { Require(rpc_port_parcel_create(&handle_) == 0, "make a parcel"); }
  explicit Parcel(rpc_port_h port) {
    Require(rpc_port_parcel_create_from_port(&handle_, port) == 0, "read a request");
  }
  ~Parcel() { rpc_port_parcel_destroy(handle_); }
  Parcel(const Parcel&) = delete;
  Parcel& operator=(const Parcel&) = delete;

  rpc_port_parcel_h get() const { return handle_; }
  int Int32() const {
    int value = 0;
    Require(rpc_port_parcel_read_int32(handle_, &value) == 0, "read a number");
    return value;
  }
  // The message as it travels.
  std::string Frame() const {
    const void* bytes = nullptr;
    std::size_t size = 0;
    rpc_port_desktop_parcel_get_bytes(handle_, &bytes, &size);
    const auto prefix = static_cast<std::uint32_t>(size);
    std::string frame(reinterpret_cast<const char*>(&prefix), sizeof prefix);
    return frame.append(static_cast<const char*>(bytes), size);
  }

 private:
  rpc_port_parcel_h handle_ = nullptr;
};

std::string ReplyFrame(Content content) {
  const Parcel reply;
  rpc_port_parcel_write_int32(reply.get(), kReply);
  if (content == Content::kInt32) {
    rpc_port_parcel_write_int32(reply.get(), kLevel);
  } else {
    rpc_port_parcel_write_string(reply.get(), std::string(kLicenceSize, 'l').c_str());
  }
  return reply.Frame();
}

// The answer for the delegate of this ID.
std::string ListFrame(int delegate, int count) {
  const Parcel answer;
  rpc_port_parcel_write_int32(answer.get(), kAnswer);
  rpc_port_parcel_write_int32(answer.get(), delegate);
  rpc_port_parcel_write_int32(answer.get(), 0);
  rpc_port_parcel_write_bool(answer.get(), false);
  rpc_port_parcel_write_int32(answer.get(), 0);  // result
  WriteModels(answer.get(), count);
  return answer.Frame();
}

struct Frames {
  std::array<std::string, 5> by_content = {ReplyFrame(Content::kInt32),
                                           ReplyFrame(Content::kLicence), ListFrame(1, 10),
                                           ListFrame(2, 100), ListFrame(3, 1000)};

  std::string& operator[](Content content) { return by_content[static_cast<std::size_t>(content)]; }
};

// Methods 2 and 3 wait for a reply; 5, 6 and 7 have the delegates 1, 2 and 3.
int OnReceived(const char*, const char* instance, rpc_port_h port, void* stub) {
  static Frames frames;
  const Parcel request(port);
  const int method = request.Int32();
  if (method == 2 || method == 3) {
    const std::string& reply = frames[method == 2 ? Content::kInt32 : Content::kLicence];
    return rpc_port_desktop_send_bytes(port, reply.data(), reply.size());
  }
  const int delegate = request.Int32();
  const int seq = request.Int32();
  std::string& answer = frames.by_content[static_cast<std::size_t>(delegate) + 1];
  std::memcpy(answer.data() + kSeqInFrame, &seq, sizeof seq);
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

gboolean OnFrame(gint fd, GIOCondition, gpointer) {
  static Frames frames;
  char request[4096];
  const ssize_t size = recv(fd, request, sizeof request, 0);
  if (size <= 0) _exit(0);
  const std::string& answer = frames[static_cast<Content>(request[0])];
  for (std::size_t sent = 0; sent < answer.size();) {
    const ssize_t now = send(fd, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
    if (now < 0) _exit(0);
    sent += static_cast<std::size_t>(now);
  }
  return G_SOURCE_CONTINUE;
}

[[noreturn]] void ServeSocket(int fd) {
  // As any careful server does: without it, GLib re-arms its poll set each time.
  GSource* const source = g_unix_fd_source_new(fd, G_IO_IN);
  g_source_set_can_recurse(source, TRUE);
  g_source_set_callback(source, G_SOURCE_FUNC(OnFrame), nullptr, nullptr);
  g_source_attach(source, nullptr);
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

ServerProcess ServerProcess::Raw(int* socket) {
  int ends[2];
  Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "make a socket");
  *socket = ends[0];
  return ServerProcess(Start(ServeSocket, ends[1], ends[0]));
}

ServerProcess::~ServerProcess() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}
