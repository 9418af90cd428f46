// SPDX-License-Identifier: Apache-2.0
#include "test_doubles.h"

#include <app_common.h>
#include <package_desktop.h>

#include <cstdlib>
#include <cstring>

// The program's own definitions come before those of the platform's libraries.

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
