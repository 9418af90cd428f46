// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_PLATFORM_RPC_PORT_SUPPORT_H_
#define TESTS_PLATFORM_RPC_PORT_SUPPORT_H_

#include <gmock/gmock.h>
#include <rpc-port-desktop.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <future>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "test_doubles.h"

constexpr char kPortName[] = "TestPort";

// Runs the default main context until the condition holds; false if that takes absurdly long.
bool RunUntil(const std::function<bool()>& condition);

// Lets the main context do all that it can do without waiting.
void RunAllReady();

// Runs `work` on another thread and the main context meanwhile; returns what it returns. The main
// context's own sources are set up before the thread begins.
template <typename Work>
auto RunBeside(Work work) {
  std::promise<decltype(work())> promise;
  auto result = promise.get_future();
  std::thread thread;
  EXPECT_TRUE(RunUntil([&] {
    if (!thread.joinable()) thread = std::thread([&] { promise.set_value(work()); });
    return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  }));
  thread.join();
  return result.get();
}

// A parcel that releases itself.
class Message {
 public:
  Message() { EXPECT_EQ(rpc_port_parcel_create(&h), 0); }
  explicit Message(const std::string& text) : Message() {
    EXPECT_EQ(rpc_port_parcel_write_string(h, text.c_str()), 0);
  }
  static Message OfBytes(std::string_view bytes);
  static Message From(rpc_port_h port);  // null handle on failure
  Message(Message&& other) noexcept : h(std::exchange(other.h, nullptr)) {}
  ~Message() {
    if (h != nullptr) rpc_port_parcel_destroy(h);
  }

  int Send(rpc_port_h port) const { return rpc_port_parcel_send(h, port); }
  std::string Bytes() const;
  // Reads a string; "?" if there is none.
  std::string Text() const;

  rpc_port_parcel_h h = nullptr;

 private:
  explicit Message(rpc_port_parcel_h handle) : h(handle) {}
};

// Sends a text and waits for the text that comes back; "!" and the code if that fails.
std::string Call(rpc_port_h port, const std::string& text);

// A proxy with a record of its events.
class Client {
 public:
  Client();
  ~Client() { Destroy(); }
  Client(const Client&) = delete;

  int Connect(const char* server = kOwnAppId, const char* port_name = kPortName) {
    return rpc_port_proxy_connect(h, server, port_name);
  }
  // Starts to connect and waits until it is connected.
  bool ConnectNow(const char* server = kOwnAppId);
  int Destroy();
  rpc_port_h Port(rpc_port_port_type_e type) const;
  rpc_port_h main() const { return Port(RPC_PORT_PORT_MAIN); }
  rpc_port_h callback() const { return Port(RPC_PORT_PORT_CALLBACK); }
  bool Saw(const std::string& event) const;

  rpc_port_proxy_h h = nullptr;
  std::vector<std::string> events;
  // Called after recording; `on_received` instead of taking a message and recording its text.
  std::function<void()> on_connected, on_disconnected, on_rejected, on_received;
};

// A stub with a record of its events, which answers each message with itself.
class Server {
 public:
  explicit Server(const char* port_name = kPortName);
  ~Server() { Destroy(); }
  Server(const Server&) = delete;

  int Listen() { return rpc_port_stub_listen(h); }
  int Destroy();
  rpc_port_h Port(rpc_port_port_type_e type) const;  // of the client that connected last
  rpc_port_h callback() const { return Port(RPC_PORT_PORT_CALLBACK); }
  int Push(const std::string& text) const { return Message(text).Send(callback()); }
  bool Saw(const std::string& event) const;
  void Decide(std::function<bool()> admission);

  rpc_port_stub_h h = nullptr;
  std::vector<std::string> events;
  std::string instance;  // of the client that connected last
  std::function<void()> on_connected, on_disconnected;
  std::function<int(rpc_port_h port)> on_received;
  std::function<bool()> admission_;
};

// A second process: this program with other arguments, see peer.cc. Killed when it goes out of
// scope.
class Peer {
 public:
  explicit Peer(const std::vector<std::string>& arguments, const std::string& app_id = kOwnAppId);
  ~Peer();
  Peer(const Peer&) = delete;

  // Waits for a line that the peer prints; empty when it ends before.
  std::string Line();
  void Signal(int number) const { kill(pid_, number); }
  // Waits for its end: the exit status, or the negated signal.
  int Wait();

 private:
  pid_t pid_ = -1;
  int output_ = -1;
};
int RunPeer(const std::vector<std::string>& arguments);

// A plain socket that talks to a server byte by byte.
class RawStream {
 public:
  RawStream();
  ~RawStream();
  RawStream(const RawStream&) = delete;

  // Sends all of it; false if the peer is gone.
  bool Send(const std::string& bytes) const;
  // What has arrived, without waiting.
  std::string Read() const;
  // Runs the main context until this many bytes have come, or the end.
  std::string Await(size_t size) const;
  // Whether the peer has ended the stream; takes a byte if it has sent one.
  bool HasEnded() const;
  bool AwaitEnd() const;

  int fd = -1;
};

std::string Int32(int32_t value);
std::string Text(const std::string& text);       // a string as a parcel holds it
std::string Framed(const std::string& content);  // a message with its prefix
std::string HelloBytes(int32_t kind, char token, int32_t version = 1,
                       const std::string& server = kOwnAppId,
                       const std::string& port_name = kPortName,
                       const std::string& sender = "org.example.raw");
extern const std::string kAcceptedBytes;
extern const std::string kRejectedBytes;

// The open descriptors of this process, with what they refer to.
std::map<int, std::string> OpenDescriptors();

std::string SocketPath();  // of the test's own server

// Each test has its own runtime folder, which does not exist yet.
class PortTest : public testing::Test {
 protected:
  PortTest();
  ~PortTest() override;

  const std::string& home() const { return home_; }
  std::string folder() const { return home_ + "/run"; }

 private:
  std::string home_;
};

#endif  // TESTS_PLATFORM_RPC_PORT_SUPPORT_H_
