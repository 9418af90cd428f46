// SPDX-License-Identifier: Apache-2.0
// The least that any implementation has to do for the queries of query_client: two processes with a
// socket and nothing else, which send messages of the same content. Of a list, each model becomes
// one record, with a block of its own for each text.

#include <glib-unix.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench_world.h"
#include "checksum.h"
#include "messages.h"
#include "query_runs.h"

namespace {

constexpr std::size_t kPrefix = sizeof(std::uint32_t);

// ---- The server ---------------------------------------------------------------------------------

struct Server {
  int socket;
  std::string answer;
};

gboolean OnRequest(gint fd, GIOCondition, gpointer data) {
  const std::string& answer = static_cast<Server*>(data)->answer;
  char request[256];
  if (recv(fd, request, sizeof request, 0) <= 0) _exit(0);
  for (std::size_t sent = 0; sent < answer.size();) {
    const ssize_t now = send(fd, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
    if (now < 0) _exit(0);
    sent += static_cast<std::size_t>(now);
  }
  return G_SOURCE_CONTINUE;
}

[[noreturn]] void Serve(Server server) {
  // As any careful server does: without it, GLib re-arms its poll set each time.
  GSource* const source = g_unix_fd_source_new(server.socket, G_IO_IN);
  g_source_set_can_recurse(source, TRUE);
  g_source_set_callback(source, G_SOURCE_FUNC(OnRequest), &server, nullptr);
  g_source_attach(source, nullptr);
  g_main_loop_run(g_main_loop_new(nullptr, FALSE));
  std::abort();
}

int StartServer(const std::string& answer) {
  int ends[2];
  Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "make a socket");
  const pid_t pid = fork();
  Require(pid >= 0, "start a server");
  if (pid == 0) {
    // It ends with the other end of its socket.
    close(ends[0]);
    Serve({ends[1], answer});
  }
  close(ends[1]);
  return ends[0];
}

// ---- The client ---------------------------------------------------------------------------------

class Client {
 public:
  Client(int socket, std::size_t request_size)
      : socket_(socket), request_(request_size), frame_(std::size_t{8} << 20) {}

  // Sends a request and reads the message that comes back.
  const char* Exchange() {
    Require(
        send(socket_, request_.data(), request_.size(), 0) == static_cast<ssize_t>(request_.size()),
        "send");
    std::size_t got = 0;
    for (std::size_t wanted = kPrefix; got < wanted; wanted = kPrefix + Size(got)) {
      pollfd wait = {socket_, POLLIN, 0};
      poll(&wait, 1, -1);
      const ssize_t now = recv(socket_, frame_.data() + got, frame_.size() - got, 0);
      Require(now > 0, "receive");
      got += static_cast<std::size_t>(now);
    }
    return frame_.data();
  }

 private:
  std::size_t Size(std::size_t got) const {
    std::uint32_t size = 0;
    if (got >= sizeof size) std::memcpy(&size, frame_.data(), sizeof size);
    return size;
  }

  int socket_;
  std::vector<char> request_;
  std::vector<char> frame_;
};

// The models of a message, one record each.
class Records {
 public:
  explicit Records(const char* message) {
    message += kListHead;
    const std::uint32_t count = Number(&message);
    for (std::uint32_t i = 0; i < count; ++i) {
      auto* record = records_.emplace_back(new std::array<char*, 4>);
      for (char*& text : *record) {
        const std::uint32_t size = Number(&message);
        text = static_cast<char*>(std::malloc(size));
        std::memcpy(text, message, size);
        message += size;
      }
    }
  }
  ~Records() {
    for (auto* record : records_) {
      for (char* text : *record) std::free(text);
      delete record;
    }
  }
  Records(Records&&) = default;
  Records& operator=(Records&&) = default;

  std::uint64_t ChecksumOfTexts() const {
    Checksum sum;
    for (const auto* record : records_) {
      for (const char* text : *record) sum.Add(text);
    }
    return sum.value();
  }

 private:
  static std::uint32_t Number(const char** from) {
    std::uint32_t number = 0;
    std::memcpy(&number, *from, sizeof number);
    *from += sizeof number;
    return number;
  }

  std::vector<std::array<char*, 4>*> records_;
};

int Number(const char* message) {
  int number = 0;
  std::memcpy(&number, message + kReplyHead, sizeof number);
  return number;
}

}  // namespace

int main(int argc, char** argv) {
  const QueryRuns runs = ReadQueryRuns(argc, argv);
  if (runs.kind == "int32") {
    Client client(StartServer(LevelMessage()), 8);
    RunQueries(
        runs.queries, [&] { return Number(client.Exchange()); }, ChecksumOf<int>, [](int) {});
  } else if (runs.kind == "licence") {
    Client client(StartServer(LicenceMessage()), 8);
    RunQueries(
        runs.queries, [&] { return strdup(client.Exchange() + kReplyHead + kPrefix); },
        ChecksumOf<char*>, [](char* text) { std::free(text); });
  } else {
    Client client(StartServer(ListMessage(2, runs.models)), 60);
    RunQueries(
        runs.queries, [&] { return Records(client.Exchange()); },
        [](const Records& records) { return records.ChecksumOfTexts(); }, [](const Records&) {});
  }
  return 0;
}
