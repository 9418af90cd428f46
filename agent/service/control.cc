// SPDX-License-Identifier: Apache-2.0
#include "service/control.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

namespace sim {
namespace {

constexpr int kBacklog = 64;
// Beyond it, whoever has been there longest and has asked nothing goes.
constexpr std::size_t kMostCallers = 64;

std::system_error Failure(const char* what) {
  return std::system_error(errno, std::generic_category(), what);
}

/** A folder's path may be longer than an address: it is reached through a descriptor. */
class Address {
 public:
  explicit Address(const std::string& path) {
    const std::filesystem::path file(path);
    folder_.Reset(open(file.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    address_.sun_family = AF_UNIX;
    std::snprintf(address_.sun_path, sizeof address_.sun_path, "/proc/self/fd/%d/%s", folder_.get(),
                  file.filename().c_str());
  }

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
  static constexpr socklen_t size() { return sizeof(sockaddr_un); }

 private:
  base::UniqueFd folder_;
  sockaddr_un address_ = {};
};

base::UniqueFd MakeSocket() {
  base::UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!fd) throw Failure("cannot make a socket");
  return fd;
}

/** The next packet; none when the peer is gone. */
std::optional<std::string> Receive(int fd) {
  ssize_t size;
  do {
    size = recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC);
  } while (size < 0 && errno == EINTR);
  std::string packet(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
  if (size <= 0 || recv(fd, packet.data(), packet.size(), 0) != size) return std::nullopt;
  return packet;
}

// An empty packet would look like the end.
constexpr char kAnswerMark = '=';

bool SendPacket(int fd, const std::string& packet) {
  return send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(packet.size());
}

bool IsOurs(int fd) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

std::string NewId() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::to_string(getpid()) + "-" + std::to_string(now.tv_sec) + "-" +
         std::to_string(now.tv_nsec);
}

}  // namespace

base::UniqueFd ListenForSteps(const std::string& path) {
  base::UniqueFd fd = MakeSocket();
  const Address address(path);
  if (bind(fd.get(), address.get(), Address::size()) != 0 || listen(fd.get(), kBacklog) != 0 ||
      fcntl(fd.get(), F_SETFL, O_NONBLOCK) != 0) {
    throw Failure("cannot listen for steps");
  }
  return fd;
}

std::string SendSteps(const std::string& path, const std::string& document) {
  const std::string request = NewId() + "\n" + document;
  for (;;) {
    const base::UniqueFd fd = MakeSocket();
    if (connect(fd.get(), Address(path).get(), Address::size()) != 0) {
      return "there is no agent that runs";
    }
    if (!SendPacket(fd.get(), request)) {
      if (errno == EMSGSIZE) return "these are too many steps at once";
      continue;
    }
    if (const auto answer = Receive(fd.get())) return answer->substr(1);
    // The agent has ended meanwhile: the next one knows more, or there is nobody to connect to.
  }
}

ControlPort::ControlPort(int listener, UpdateRunner& runner)
    : listener_(listener), runner_(runner) {
  source_.WhenReadable(listener, [this] { Accept(); });
}

void ControlPort::Accept() {
  MakeRoom();
  base::UniqueFd fd(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!fd || !IsOurs(fd.get())) return;
  const auto caller = std::make_shared<Caller>();
  caller->fd = std::move(fd);
  // The source is the caller's: a reference that owned it would keep both forever.
  caller->source.WhenReadable(
      caller->fd.get(), [this, caller = std::weak_ptr<Caller>(caller)] { Hear(caller.lock()); });
  callers_.push_back(caller);
}

void ControlPort::MakeRoom() {
  if (callers_.size() < kMostCallers) return;
  const auto idle = std::find_if(callers_.begin(), callers_.end(),
                                 [](const auto& caller) { return !caller->has_asked; });
  if (idle != callers_.end()) callers_.erase(idle);
}

void ControlPort::Hear(const std::shared_ptr<Caller>& caller) {
  const auto request = Receive(caller->fd.get());
  if (!request) {
    Drop(caller);
    return;
  }
  caller->has_asked = true;
  const auto end = request->find('\n');
  const std::weak_ptr<Caller> listener = caller;
  const auto answer = [this, listener](const std::string& problem) {
    if (const auto waiting = listener.lock()) {
      SendPacket(waiting->fd.get(), kAnswerMark + problem);
      Drop(waiting);
    }
  };
  try {
    if (end == std::string::npos || end == 0) throw std::runtime_error("this is no request");
    runner_.Run(request->substr(0, end), request->substr(end + 1), answer);
  } catch (const std::exception& error) {
    answer(error.what());
  }
}

void ControlPort::Drop(const std::shared_ptr<Caller>& caller) { callers_.remove(caller); }

}  // namespace sim
