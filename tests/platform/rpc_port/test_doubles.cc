// SPDX-License-Identifier: Apache-2.0
#include "test_doubles.h"

#include <app_common.h>
#include <package_desktop.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

// The program's own definitions take precedence over those of the platform's libraries.

int check_client_result = 0;
std::string checked_server;
std::string checked_client;

int package_desktop_check_client(const char* server, const char* client) {
  checked_server = server;
  checked_client = client;
  return check_client_result;
}

int app_get_id(char** id) {
  const char* given = std::getenv("VELMORA_APP_ID");
  *id = strdup(given != nullptr ? given : kOwnAppId);
  return *id == nullptr ? -12 : 0;
}

int accept_failure = 0;

extern "C" __attribute__((visibility("default"))) int accept4(int fd, sockaddr* address,
                                                              socklen_t* length, int flags) {
  if (accept_failure != 0) {
    errno = accept_failure;
    return -1;
  }
  return static_cast<int>(syscall(SYS_accept4, fd, address, length, flags));
}
