// SPDX-License-Identifier: Apache-2.0
// A server whose clients, and a client whose server, send what they like, over real sockets.
//
// Input: a byte that says which of the two, then steps: a byte that chooses the peer's stream, and
// the piece that it sends as a block. A step with an empty piece closes the stream. So that little
// luck goes far, a single bit makes a server's client send its hello, and a client's server its
// verdict.

#include <glib.h>
#include <package_desktop.h>
#include <rpc-port-desktop.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "input.h"

namespace {

constexpr char kServerId[] = "org.example.server";
constexpr char kPortName[] = "Port";

// A private runtime folder for the life of the process.
class Folder {
 public:
  Folder() {
    const char* parent = std::getenv("TMPDIR");
    path_ = std::string(parent != nullptr ? parent : "/tmp") + "/svcmgr-fuzz-XXXXXX";
    REQUIRE(mkdtemp(path_.data()) != nullptr);
    setenv("VELMORA_RUNTIME_DIR", path_.c_str(), 1);
    setenv("VELMORA_APP_ID", kServerId, 1);
  }
  ~Folder() {
    unlink(Socket().c_str());
    rmdir(path_.c_str());
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  std::string Socket() const { return path_ + "/" + kServerId + ":" + kPortName; }
  sockaddr_un Address() const {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    REQUIRE(Socket().copy(address.sun_path, sizeof address.sun_path - 1) == Socket().size());
    return address;
  }

 private:
  std::string path_;
};

const Folder& Home() {
  static const Folder home;
  return home;
}

void RunLoop() {
  while (g_main_context_iteration(nullptr, FALSE)) continue;
}

// The peer's end of a stream.
class PeerStream {
 public:
  PeerStream() = default;
  PeerStream(const PeerStream&) = delete;
  PeerStream& operator=(const PeerStream&) = delete;
  ~PeerStream() { Close(); }

  bool open() const { return fd_ >= 0; }
  int fd() const { return fd_; }
  void Adopt(int fd) {
    Close();
    fd_ = fd;
  }
  void Make() {
    Adopt(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    REQUIRE(open());
  }
  void Close() {
    if (open()) close(fd_);
    fd_ = -1;
  }

  void Send(std::string_view bytes) const {
    (void)!send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  void Drain() const {
    char bytes[4096];
    while (recv(fd_, bytes, sizeof bytes, 0) > 0) continue;
  }

 private:
  int fd_ = -1;
};

using PeerStreams = std::array<PeerStream, 4>;

// A message with its prefix.
std::string Framed(std::string_view content) {
  std::string message(4, '\0');
  message[0] = static_cast<char>(content.size());
  return message.append(content);
}

std::string Int32(std::size_t value) { return {static_cast<char>(value), '\0', '\0', '\0'}; }
std::string Text(const std::string& text) { return Int32(text.size() + 1) + text + '\0'; }

std::string Hello(std::size_t kind, char token) {
  return Framed("HELO" + Int32(1) + Int32(kind) + Text(std::string(32, token)) +
                Text("org.example.client") + Text(kServerId) + Text(kPortName));
}

// One step: which stream, whether it greets first, and what it sends.
struct Step {
  explicit Step(Input* input) {
    const std::uint8_t choice = input->Byte();
    stream = choice % std::tuple_size<PeerStreams>::value;
    greets = (choice & 8) != 0;
    piece = input->Block();
  }
  bool closes() const { return piece.empty() && !greets; }

  std::size_t stream;
  bool greets;
  std::string_view piece;
};

void Take(const Step& step, const std::string& greeting, PeerStream* peer) {
  if (!peer->open()) return;
  if (step.closes()) {
    peer->Close();
  } else {
    if (step.greets) peer->Send(greeting);
    peer->Send(step.piece);
  }
  RunLoop();
  if (peer->open()) peer->Drain();
}

// ---- The server ---------------------------------------------------------------------------------

// Takes the message and sends it back, on both ports.
int OnReceived(const char*, const char* instance, rpc_port_h port, void* stub) {
  rpc_port_parcel_h parcel = nullptr;
  REQUIRE(rpc_port_parcel_create_from_port(&parcel, port) == 0);
  rpc_port_h callback_port = nullptr;
  REQUIRE(rpc_port_stub_get_port(stub, RPC_PORT_PORT_CALLBACK, instance, &callback_port) == 0);
  rpc_port_parcel_send(parcel, port);
  rpc_port_parcel_send(parcel, callback_port);
  return rpc_port_parcel_destroy(parcel);
}

// Two clients, each with a main and a callback stream.
void FeedServer(Input* input) {
  rpc_port_stub_h stub = nullptr;
  REQUIRE(rpc_port_stub_create(&stub, kPortName) == 0);
  REQUIRE(rpc_port_stub_add_received_event_cb(stub, OnReceived, stub) == 0);
  REQUIRE(rpc_port_stub_listen(stub) == 0);
  {
    const sockaddr_un address = Home().Address();
    PeerStreams peers;
    while (!input->empty()) {
      const Step step(input);
      PeerStream& peer = peers[step.stream];
      if (!peer.open()) {
        peer.Make();
        const auto* name = reinterpret_cast<const sockaddr*>(&address);
        REQUIRE(connect(peer.fd(), name, sizeof address) == 0);
      }
      Take(step, Hello(step.stream % 2, step.stream < 2 ? 'a' : 'b'), &peer);
    }
  }
  RunLoop();
  REQUIRE(rpc_port_stub_destroy(stub) == 0);
}

// ---- The client ---------------------------------------------------------------------------------

struct Client {
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_h main = nullptr;
  rpc_port_h callback = nullptr;
  bool is_over = false;
};

void OnConnected(const char*, const char*, rpc_port_h port, void* data) {
  auto* client = static_cast<Client*>(data);
  REQUIRE(client->main == nullptr && !client->is_over);
  client->main = port;
  REQUIRE(rpc_port_proxy_get_port(client->proxy, RPC_PORT_PORT_CALLBACK, &client->callback) == 0);
}

void OnMessage(const char*, const char*, void* data) {
  rpc_port_parcel_h parcel = nullptr;
  REQUIRE(rpc_port_parcel_create_from_port(&parcel, static_cast<Client*>(data)->callback) == 0);
  rpc_port_parcel_destroy(parcel);
}

void OnEnd(const char*, const char*, void* data) {
  REQUIRE(!std::exchange(static_cast<Client*>(data)->is_over, true));
}

void Create(Client* client) {
  REQUIRE(rpc_port_proxy_create(&client->proxy) == 0);
  REQUIRE(rpc_port_proxy_add_connected_event_cb(client->proxy, OnConnected, client) == 0);
  REQUIRE(rpc_port_proxy_add_received_event_cb(client->proxy, OnMessage, client) == 0);
  REQUIRE(rpc_port_proxy_add_disconnected_event_cb(client->proxy, OnEnd, client) == 0);
  REQUIRE(rpc_port_proxy_add_rejected_event_cb(client->proxy, OnEnd, client) == 0);
}

// Accepts the client's two streams, and sends on them what the input holds.
void FeedClient(Input* input) {
  const sockaddr_un address = Home().Address();
  PeerStream listener;
  listener.Make();
  unlink(address.sun_path);
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  REQUIRE(bind(listener.fd(), name, sizeof address) == 0 && listen(listener.fd(), 2) == 0);

  Client client;
  Create(&client);
  REQUIRE(rpc_port_proxy_connect(client.proxy, kServerId, kPortName) == 0);
  {
    std::array<PeerStream, 2> peers;
    for (PeerStream& peer : peers)
      peer.Adopt(accept4(listener.fd(), nullptr, nullptr, SOCK_NONBLOCK));
    while (!input->empty()) {
      const Step step(input);
      Take(step, Framed("VDCT" + Int32(0)), &peers[step.stream % 2]);
    }
  }
  RunLoop();
  REQUIRE(client.is_over);
  // The replies that have come can still be read, and then nothing is waited for.
  rpc_port_parcel_h parcel = nullptr;
  while (client.main != nullptr && rpc_port_parcel_create_from_port(&parcel, client.main) == 0) {
    rpc_port_parcel_destroy(parcel);
  }
  REQUIRE(rpc_port_proxy_destroy(client.proxy) == 0);
  unlink(address.sun_path);
}

}  // namespace

// The program's own definition takes precedence over that of the platform's libraries.
int package_desktop_check_client(const char*, const char*) { return 0; }

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  Home();
  if (input.Byte() % 2 == 0) {
    FeedServer(&input);
  } else {
    FeedClient(&input);
  }
  return 0;
}
