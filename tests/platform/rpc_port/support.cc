// SPDX-License-Identifier: Apache-2.0
#include "support.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>

namespace fs = std::filesystem;

const std::string kAcceptedBytes = Framed(Int32(0x54434456) + Int32(0));
const std::string kRejectedBytes = Framed(Int32(0x54434456) + Int32(1));

bool RunUntil(const std::function<bool()>& condition) {
  bool expired = false;
  GSource* limit = g_timeout_source_new_seconds(100);
  g_source_set_callback(
      limit, [](gpointer flag) -> gboolean { return (*static_cast<bool*>(flag) = true, FALSE); },
      &expired, nullptr);
  g_source_attach(limit, nullptr);
  // Also looks now and then by itself: some conditions become true without an event.
  GSource* tick = g_timeout_source_new(5);
  g_source_set_callback(tick, [](gpointer) -> gboolean { return TRUE; }, nullptr, nullptr);
  g_source_attach(tick, nullptr);
  bool holds;
  while (!(holds = condition()) && !expired) g_main_context_iteration(nullptr, TRUE);
  for (GSource* source : {limit, tick}) {
    g_source_destroy(source);
    g_source_unref(source);
  }
  return holds;
}

void RunAllReady() {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

Message Message::OfBytes(std::string_view bytes) {
  Message message;
  EXPECT_EQ(rpc_port_desktop_parcel_set_bytes(message.h, bytes.data(), bytes.size()), 0);
  return message;
}

Message Message::From(rpc_port_h port) {
  rpc_port_parcel_h handle = nullptr;
  const int result = rpc_port_parcel_create_from_port(&handle, port);
  EXPECT_EQ(result == 0, handle != nullptr);
  return Message(handle);
}

std::string Message::Bytes() const {
  const void* bytes = nullptr;
  size_t size = 0;
  EXPECT_EQ(rpc_port_desktop_parcel_get_bytes(h, &bytes, &size), 0);
  return {static_cast<const char*>(bytes), size};
}

std::string Message::Text() const {
  char* text = nullptr;
  if (h == nullptr || rpc_port_parcel_read_string(h, &text) != 0) return "?";
  std::string copy = text;
  std::free(text);
  return copy;
}

std::string Call(rpc_port_h port, const std::string& text) {
  if (const int result = Message(text).Send(port)) return "!" + std::to_string(result);
  rpc_port_parcel_h reply = nullptr;
  if (const int result = rpc_port_parcel_create_from_port(&reply, port)) {
    return "!" + std::to_string(result);
  }
  char* back = nullptr;
  std::string copy = rpc_port_parcel_read_string(reply, &back) == 0 ? back : "?";
  std::free(back);
  rpc_port_parcel_destroy(reply);
  return copy;
}

namespace {

Client* AsClient(void* data) { return static_cast<Client*>(data); }
Server* AsServer(void* data) { return static_cast<Server*>(data); }

void RunIfSet(const std::function<void()>& function) {
  // A copy, because the function may destroy what it is kept in.
  if (const auto copy = function) copy();
}

}  // namespace

Client::Client() {
  EXPECT_EQ(rpc_port_proxy_create(&h), 0);
  rpc_port_proxy_add_connected_event_cb(
      h,
      [](const char* endpoint, const char* port_name, rpc_port_h port, void* data) {
        EXPECT_STREQ(port_name, kPortName);
        EXPECT_NE(endpoint, nullptr);
        EXPECT_EQ(port, AsClient(data)->main());
        AsClient(data)->events.push_back("connected");
        RunIfSet(AsClient(data)->on_connected);
      },
      this);
  rpc_port_proxy_add_disconnected_event_cb(
      h,
      [](const char*, const char* port_name, void* data) {
        EXPECT_STREQ(port_name, kPortName);
        AsClient(data)->events.push_back("disconnected");
        RunIfSet(AsClient(data)->on_disconnected);
      },
      this);
  rpc_port_proxy_add_rejected_event_cb(
      h,
      [](const char*, const char* port_name, void* data) {
        EXPECT_STREQ(port_name, kPortName);
        AsClient(data)->events.push_back("rejected");
        RunIfSet(AsClient(data)->on_rejected);
      },
      this);
  rpc_port_proxy_add_received_event_cb(
      h,
      [](const char*, const char* port_name, void* data) {
        EXPECT_STREQ(port_name, kPortName);
        Client* client = AsClient(data);
        if (client->on_received) return RunIfSet(client->on_received);
        client->events.push_back(Message::From(client->callback()).Text());
      },
      this);
}

bool Client::ConnectNow(const char* server) {
  const int result = Connect(server);
  EXPECT_EQ(result, 0);
  return result == 0 && RunUntil([this] { return !events.empty(); }) && Saw("connected");
}

int Client::Destroy() {
  return h == nullptr ? 0 : rpc_port_proxy_destroy(std::exchange(h, nullptr));
}

rpc_port_h Client::Port(rpc_port_port_type_e type) const {
  rpc_port_h port = nullptr;
  EXPECT_EQ(rpc_port_proxy_get_port(h, type, &port), 0);
  return port;
}

bool Client::Saw(const std::string& event) const {
  return std::find(events.begin(), events.end(), event) != events.end();
}

Server::Server(const char* port_name) {
  EXPECT_EQ(rpc_port_stub_create(&h, port_name), 0);
  rpc_port_stub_add_connected_event_cb(
      h,
      [](const char* sender, const char* name, void* data) {
        AsServer(data)->instance = name;
        AsServer(data)->events.push_back(std::string("connected ") + sender);
        RunIfSet(AsServer(data)->on_connected);
      },
      this);
  rpc_port_stub_add_disconnected_event_cb(
      h,
      [](const char* sender, const char*, void* data) {
        AsServer(data)->events.push_back(std::string("disconnected ") + sender);
        RunIfSet(AsServer(data)->on_disconnected);
      },
      this);
  rpc_port_stub_add_received_event_cb(
      h,
      [](const char*, const char*, rpc_port_h port, void* data) -> int {
        if (const auto copy = AsServer(data)->on_received) return copy(port);
        const Message message = Message::From(port);
        return message.h != nullptr && message.Send(port) == 0 ? 0 : -1;
      },
      this);
}

int Server::Destroy() {
  return h == nullptr ? 0 : rpc_port_stub_destroy(std::exchange(h, nullptr));
}

rpc_port_h Server::Port(rpc_port_port_type_e type) const {
  rpc_port_h port = nullptr;
  EXPECT_EQ(rpc_port_stub_get_port(h, type, instance.c_str(), &port), 0);
  return port;
}

bool Server::Saw(const std::string& event) const {
  return std::find(events.begin(), events.end(), event) != events.end();
}

void Server::Decide(std::function<bool()> admission) {
  admission_ = std::move(admission);
  EXPECT_EQ(rpc_port_desktop_stub_set_admission_cb(
                h,
                [](const char*, const char*, void* data) {
                  const auto copy = AsServer(data)->admission_;
                  return copy();
                },
                this),
            0);
}

Peer::Peer(const std::vector<std::string>& arguments, const std::string& app_id) {
  int pipe_ends[2];
  if (pipe2(pipe_ends, O_CLOEXEC) != 0) abort();
  std::vector<std::string> words = {"/proc/self/exe", "--peer"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const std::string id = "VELMORA_APP_ID=" + app_id;
  std::vector<char*> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) environment.push_back(*entry);
  environment.insert(environment.begin(), const_cast<char*>(id.c_str()));
  environment.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(pipe_ends[1], STDOUT_FILENO);
    execve("/proc/self/exe", argv.data(), environment.data());
    _exit(127);
  }
  close(pipe_ends[1]);
  output_ = pipe_ends[0];
}

Peer::~Peer() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    Wait();
  }
  close(output_);
}

std::string Peer::Line() {
  std::string line;
  char c;
  while (read(output_, &c, 1) == 1 && c != '\n') line += c;
  return line;
}

int Peer::Wait() {
  int status = 0;
  if (waitpid(std::exchange(pid_, -1), &status, 0) < 0) return -1000;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

RawStream::RawStream() : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  SocketPath().copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
}

RawStream::~RawStream() { close(fd); }

bool RawStream::Send(const std::string& bytes) const {
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n < 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

std::string RawStream::Read() const {
  std::string bytes(1 << 16, '\0');
  const ssize_t n = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
  bytes.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return bytes;
}

std::string RawStream::Await(size_t size) const {
  std::string bytes;
  EXPECT_TRUE(RunUntil([&] { return (bytes += Read()).size() >= size; }));
  return bytes;
}

bool RawStream::HasEnded() const {
  char c;
  const ssize_t n = recv(fd, &c, 1, MSG_DONTWAIT);
  return n == 0 || (n < 0 && errno != EAGAIN);
}

bool RawStream::AwaitEnd() const {
  return RunUntil([this] { return HasEnded(); });
}

std::string Int32(int32_t value) {
  const auto bits = static_cast<uint32_t>(value);
  std::string bytes;
  for (unsigned shift = 0; shift < 32; shift += 8) {
    bytes += static_cast<char>(bits >> shift & 0xFF);
  }
  return bytes;
}

std::string Text(const std::string& text) {
  return Int32(static_cast<int32_t>(text.size() + 1)) + text + '\0';
}

std::string Framed(const std::string& content) {
  return Int32(static_cast<int32_t>(content.size())) + content;
}

std::string HelloBytes(int32_t kind, char token, int32_t version, const std::string& server,
                       const std::string& port_name, const std::string& sender) {
  return Framed(Int32(0x4F4C4548) + Int32(version) + Int32(kind) + Text(std::string(32, token)) +
                Text(sender) + Text(server) + Text(port_name));
}

std::map<int, std::string> OpenDescriptors() {
  std::map<int, std::string> descriptors;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    const int fd = std::stoi(entry.path().filename());
    std::error_code gone;
    const std::string target = fs::read_symlink(entry.path(), gone);
    // The folder that is being read is one of them.
    if (fcntl(fd, F_GETFD) >= 0 && !gone && target.find("/fd") == std::string::npos) {
      descriptors[fd] = target;
    }
  }
  return descriptors;
}

std::string SocketPath() {
  return std::string(getenv("VELMORA_RUNTIME_DIR")) + "/" + kOwnAppId + ":" + kPortName;
}

PortTest::PortTest() {
  std::string pattern = fs::temp_directory_path() / "rpc-port-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) abort();
  home_ = pattern;
  setenv("VELMORA_RUNTIME_DIR", folder().c_str(), 1);
  check_client_result = 0;
}

PortTest::~PortTest() {
  std::error_code ignored;
  fs::remove_all(home_, ignored);
}
