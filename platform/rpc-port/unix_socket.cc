// SPDX-License-Identifier: Apache-2.0
#include "unix_socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>

#include "codes.h"

namespace rpc_port_desktop {
namespace {

base::UniqueFd NewSocket() {
  return base::UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// The address of what a descriptor refers to or, with a name, of an entry below it.
bool ProcAddress(int fd, const char* slash, const std::string& name, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  const int length = std::snprintf(address->sun_path, sizeof address->sun_path,
                                   "/proc/self/fd/%d%s%s", fd, slash, name.c_str());
  return static_cast<size_t>(length) < sizeof address->sun_path;
}

std::string LockName(const std::string& name) { return name + ".lock"; }

}  // namespace

bool PeerIsOwnUser(int socket) {
  ucred peer = {};
  socklen_t size = sizeof peer;
  return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

int ConnectTo(int folder, const std::string& name, base::UniqueFd* connected) {
  // Opened first, because connecting by name would follow a symbolic link.
  const base::UniqueFd place(openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!place || fstat(place.get(), &status) != 0) return kIoError;
  if (!S_ISSOCK(status.st_mode) || status.st_uid != geteuid()) return kPermissionDenied;

  base::UniqueFd socket = NewSocket();
  sockaddr_un address;
  if (!socket || !ProcAddress(place.get(), "", "", &address)) return kIoError;
  if (connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return errno == EACCES || errno == EPERM ? kPermissionDenied : kIoError;
  }
  if (!PeerIsOwnUser(socket.get())) return kPermissionDenied;
  *connected = std::move(socket);
  return kOk;
}

ServerSocket::~ServerSocket() {
  // A forked child must not remove its parent's files.
  if (!lock_ || lock_->get() < 0) return;
  if (socket_) unlinkat(folder_.get(), name_.c_str(), 0);
  unlinkat(folder_.get(), LockName(name_).c_str(), 0);
}

bool ServerSocket::TakeLock() {
  const std::string name = LockName(name_);
  for (;;) {
    base::UniqueFd lock(
        openat(folder_.get(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) return false;
    struct stat locked;
    struct stat named;
    if (fstat(lock.get(), &locked) != 0) return false;
    // A server that ends removes its lock. Only the file that still has the name excludes others.
    if (fstatat(folder_.get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
        named.st_dev == locked.st_dev && named.st_ino == locked.st_ino) {
      lock_.emplace(std::move(lock));
      return true;
    }
  }
}

int ServerSocket::Listen(base::UniqueFd folder, const std::string& name) {
  folder_ = std::move(folder);
  name_ = name;
  if (!TakeLock()) return kIoError;
  base::UniqueFd socket = NewSocket();
  sockaddr_un address;
  if (!socket || !ProcAddress(folder_.get(), "/", name_, &address)) return kIoError;
  if (unlinkat(folder_.get(), name_.c_str(), 0) != 0 && errno != ENOENT) return kIoError;
  if (bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return kIoError;
  }
  socket_.emplace(std::move(socket));
  // Whatever the process's umask is, its own user may connect.
  if (fchmodat(folder_.get(), name_.c_str(), 0600, 0) != 0) return kIoError;
  return listen(fd(), SOMAXCONN) == 0 ? kOk : kIoError;
}

}  // namespace rpc_port_desktop
