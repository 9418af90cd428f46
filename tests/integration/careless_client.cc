// SPDX-License-Identifier: Apache-2.0
// An application that frees all that it is given, or forgets something: careless_client FORGOTTEN.
// What the library keeps on purpose, it keeps here several times over.
#include <glib.h>
#include <velmora_svcmgr.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct Client {
  const char* forgotten;
  GMainLoop* loop;
  int answers = 0;

  bool Forgets(const char* what) const { return std::strcmp(forgotten, what) == 0; }
};

void Require(int result, const char* what) {
  if (result == SVCMGR_ERROR_NONE) return;
  std::fprintf(stderr, "%s: %d\n", what, result);
  std::exit(2);
}

void OnVersions(int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
  auto* client = static_cast<Client*>(user_data);
  Require(error, "versions");
  Require(velmora_svcmgr_ai_model_list_destroy(list), "destroy");
  if (++client->answers == 3) g_main_loop_quit(client->loop);
}

void ReadFirst(const Client& client, velmora_svcmgr_ai_model_list_h list) {
  velmora_svcmgr_ai_model_info_h model = nullptr;
  Require(velmora_svcmgr_ai_model_list_get(list, 0, &model), "get");
  char* id = nullptr;
  Require(velmora_svcmgr_ai_model_info_get_id(model, &id), "id");
  if (!client.Forgets("text")) std::free(id);
  id = nullptr;
  // The former text stays, on purpose.
  Require(velmora_svcmgr_ai_model_info_set_title(model, "another title"), "set");
  if (!client.Forgets("model")) Require(velmora_svcmgr_ai_model_info_destroy(model), "destroy");
  model = nullptr;
}

void OnModels(int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
  auto* client = static_cast<Client*>(user_data);
  Require(error, "models");
  ReadFirst(*client, list);
  if (!client->Forgets("list")) Require(velmora_svcmgr_ai_model_list_destroy(list), "destroy");
  if (++client->answers == 3) g_main_loop_quit(client->loop);
}

void NameAgents(const Client& client) {
  velmora_svcmgr_agent_list_h agents = nullptr;
  Require(velmora_svcmgr_agent_list_create(&agents), "create");
  for (int i = 0; i < 3; ++i) Require(velmora_svcmgr_agent_list_add(agents, "an agent"), "add");
  if (!client.Forgets("agents")) Require(velmora_svcmgr_agent_list_destroy(agents), "destroy");
}

void OnConnection(int result, int, void* user_data) {
  auto* client = static_cast<Client*>(user_data);
  Require(result, "connection");
  NameAgents(*client);
  velmora_svcmgr_ai_model_info_h model = nullptr;
  Require(velmora_svcmgr_ai_model_info_create(&model), "create");
  Require(velmora_svcmgr_ai_model_info_set_id(model, "vision.segment"), "set");
  Require(velmora_svcmgr_ai_model_info_set_version(model, "1"), "set");
  Require(velmora_svcmgr_ai_model_info_set_title(model, "a title"), "set");
  Require(velmora_svcmgr_ai_model_info_set_description(model, "a description"), "set");
  Require(velmora_svcmgr_ai_request_model_version_list(model, OnVersions, client), "ask");
  Require(velmora_svcmgr_ai_model_info_destroy(model), "destroy");
  Require(velmora_svcmgr_ai_request_usable_model_list_with_description(OnModels, client), "ask");
  Require(velmora_svcmgr_ai_request_usable_model_list_with_category(OnModels, "vision", client),
          "ask");
}

}  // namespace

int main(int argc, char** argv) {
  Client client = {argc > 1 ? argv[1] : "", g_main_loop_new(nullptr, FALSE)};
  Require(velmora_svcmgr_connect(OnConnection, &client), "connect");
  if (client.answers < 3) g_main_loop_run(client.loop);
  Require(velmora_svcmgr_disconnect(), "disconnect");
  g_main_loop_unref(client.loop);
  return 0;
}
