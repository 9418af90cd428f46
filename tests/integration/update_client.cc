// SPDX-License-Identifier: Apache-2.0
// A client that stays connected while the agent replaces itself, again and again: update_client
// UPDATES [COMMAND]. With a command it is that which has the agent update itself, and the client
// looks at nothing before it has ended. Prints what the client saw, and what it has more of after
// the last update than after the first.
#include <glib.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "support/bytes_in_use.h"
#include "support/open_descriptors.h"

namespace {

struct Client {
  int connections = 0;
  int losses = 0;
  int completed = 0;
  int other_statuses = 0;
};

void OnConnection(int, int state, void* user_data) {
  auto* client = static_cast<Client*>(user_data);
  ++(state == SVCMGR_CONNECTION_STATE_CONNECTED ? client->connections : client->losses);
}

void OnStatus(int status, void* user_data) {
  auto* client = static_cast<Client*>(user_data);
  if (status == SVCMGR_UPDATE_STATUS_COMPLETED) {
    ++client->completed;
  } else if (status != SVCMGR_UPDATE_STATUS_STARTED) {
    ++client->other_statuses;
  }
}

// What answers look-ups without a system call is made, and kept, during some of them.
void LookUpOften() {
  constexpr int kOften = 1000;
  bool updating = false;
  for (int i = 0; i < kOften; ++i) velmora_svcmgr_is_being_updated(&updating);
}

gboolean LookAgain(void*) { return G_SOURCE_CONTINUE; }

// The library does not tell of the return of a connection whose loss it did not tell of.
void AwaitAnAnswer() {
  int level = 0;
  while (velmora_svcmgr_get_agent_api_level(&level) != SVCMGR_ERROR_NONE) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

bool Request(const char* command) {
  return command == nullptr ? velmora_svcmgr_request_update() == SVCMGR_ERROR_NONE
                            : std::system(command) == 0;
}

void Update(const Client& client, const char* command) {
  const int expected = client.completed + 1;
  AwaitAnAnswer();
  if (!Request(command)) std::exit(EXIT_FAILURE);
  while (client.completed < expected) g_main_context_iteration(nullptr, TRUE);
  AwaitAnAnswer();
}

}  // namespace

int main(int argc, char** argv) {
  const int updates = argc > 1 ? std::atoi(argv[1]) : 1;
  const char* command = argc > 2 ? argv[2] : nullptr;
  Client client;
  g_timeout_add(5, LookAgain, nullptr);
  if (velmora_svcmgr_set_update_status_cb(OnStatus, &client) != SVCMGR_ERROR_NONE) return 2;
  if (velmora_svcmgr_connect(OnConnection, &client) != SVCMGR_ERROR_NONE) return 3;
  LookUpOften();
  // What is made once and kept stands after a few updates.
  const int first = std::min(30, updates / 2);
  for (int i = 0; i < first; ++i) Update(client, command);
  const int descriptors = OpenDescriptors();
  const auto memory = static_cast<long>(BytesInUse());
  for (int i = first; i < updates; ++i) Update(client, command);
  const long growth = static_cast<long>(BytesInUse()) - memory;
  std::printf("updates %d, losses %d, other statuses %d, descriptors %+d, memory %s\n",
              client.completed, client.losses, client.other_statuses,
              OpenDescriptors() - descriptors, growth < 32768 ? "as before" : "grown");
  return EXIT_SUCCESS;
}
