// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_OWN_MOUNTS_H_
#define TESTS_SUPPORT_OWN_MOUNTS_H_

#include <fcntl.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <string>

// Gives the calling process, which must have one thread, a mount table of its own. Empty on success,
// else the reason why this machine does not allow it.
inline std::string EnterOwnMounts() {
  const auto write_text = [](const char* path, const std::string& text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    const bool done = fd >= 0 && write(fd, text.data(), text.size()) > 0;
    if (fd >= 0) close(fd);
    return done;
  };
  const std::string user = std::to_string(geteuid());
  const std::string group = std::to_string(getegid());
  if (unshare(CLONE_NEWNS) != 0) {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
      return std::string("no namespace of its own for a process: ") + strerror(errno);
    }
    write_text("/proc/self/setgroups", "deny");
    if (!write_text("/proc/self/uid_map", user + " " + user + " 1") ||
        !write_text("/proc/self/gid_map", group + " " + group + " 1")) {
      return "no users in a namespace of its own";
    }
  }
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) return "";
  return std::string("no mounts of its own for a process: ") + strerror(errno);
}

// Mounts an empty file system in memory that holds `bytes`. Empty on success, else the reason.
inline std::string MountMemory(const std::string& folder, size_t bytes) {
  const std::string size = "size=" + std::to_string(bytes);
  if (mount("tmpfs", folder.c_str(), "tmpfs", MS_NODEV, size.c_str()) == 0) return "";
  return std::string("no file system in memory: ") + strerror(errno);
}

#endif  // TESTS_SUPPORT_OWN_MOUNTS_H_
