// SPDX-License-Identifier: Apache-2.0
// A client that connects, asks everything from several threads at once, and disconnects, again and
// again: cycle_client CYCLES. Prints what it saw, and how many descriptors it has before and after.
#include <glib.h>
#include <velmora_svcmgr.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "support/open_descriptors.h"

namespace {

constexpr int kThreads = 3;

struct Client {
  bool connected = false;
  int refusals = 0;
  int lists = 0;
  int models = 0;
  std::atomic<int> failures{0};
};

void OnConnection(int, int state, void* user_data) {
  auto* client = static_cast<Client*>(user_data);
  client->connected = state == SVCMGR_CONNECTION_STATE_CONNECTED;
  if (!client->connected) ++client->refusals;
}

void OnModels(int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
  auto* client = static_cast<Client*>(user_data);
  int size = 0;
  if (error != SVCMGR_ERROR_NONE) ++client->failures;
  if (velmora_svcmgr_ai_model_list_get_size(list, &size) != SVCMGR_ERROR_NONE) ++client->failures;
  if (velmora_svcmgr_ai_model_list_destroy(list) != SVCMGR_ERROR_NONE) ++client->failures;
  client->models += size;
  ++client->lists;
}

// Asks what is waited for, while the main loop dispatches what is not.
void Ask(Client* client) {
  char* text = nullptr;
  int level = 0;
  for (int i = 0; i < 10; ++i) {
    if (velmora_svcmgr_get_agent_api_level(&level) != SVCMGR_ERROR_NONE || level != 11) {
      ++client->failures;
    }
    if (velmora_svcmgr_get_license_fulltext(&text) != SVCMGR_ERROR_NONE) ++client->failures;
    std::free(text);
    text = nullptr;
    if (velmora_svcmgr_ai_request_usable_model_list_with_description(OnModels, client) !=
        SVCMGR_ERROR_NONE) {
      ++client->failures;
    }
  }
}

void RunUntil(bool (*done)(const Client&), const Client& client) {
  while (!done(client)) g_main_context_iteration(nullptr, TRUE);
}

void Cycle(Client* client) {
  client->lists = 0;
  if (velmora_svcmgr_connect(OnConnection, client) != SVCMGR_ERROR_NONE) ++client->failures;
  RunUntil([](const Client& c) { return c.connected; }, *client);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(Ask, client);
  RunUntil([](const Client& c) { return c.lists == kThreads * 10; }, *client);
  for (std::thread& thread : threads) thread.join();
  if (velmora_svcmgr_disconnect() != SVCMGR_ERROR_NONE) ++client->failures;
  client->connected = false;
}

}  // namespace

int main(int argc, char** argv) {
  const int cycles = argc > 1 ? std::atoi(argv[1]) : 1;
  Client client;
  // What is opened once and kept is open after the first cycle.
  Cycle(&client);
  const int before = OpenDescriptors();
  for (int i = 1; i < cycles; ++i) Cycle(&client);
  std::printf("cycles %d, models %d, failures %d, refusals %d, descriptors %+d\n", cycles,
              client.models, client.failures.load(), client.refusals, OpenDescriptors() - before);
  return client.failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
