// SPDX-License-Identifier: Apache-2.0
// An application beside an agent that makes one kind of query many times in a row, see
// query_runs.h. It knows the library by its public header alone, and what the library keeps stays in
// its memory.

#include <glib.h>
#include <velmora_svcmgr.h>

#include <cstdlib>
#include <cstring>

#include "bench_world.h"
#include "checksum.h"
#include "query_runs.h"

namespace {

using List = velmora_svcmgr_ai_model_list_h;

void OnConnection(int error, int state, void* connected) {
  Require(error == 0 && state == SVCMGR_CONNECTION_STATE_CONNECTED, "connect");
  *static_cast<bool*>(connected) = true;
}

void Connect() {
  bool connected = false;
  Require(velmora_svcmgr_connect(OnConnection, &connected) == 0, "connect");
  while (!connected) g_main_context_iteration(nullptr, TRUE);
}

int AskLevel() {
  int level = 0;
  Require(velmora_svcmgr_get_agent_api_level(&level) == 0, "ask for the level");
  return level;
}

char* AskLicence() {
  char* text = nullptr;
  Require(velmora_svcmgr_get_license_fulltext(&text) == 0 && text != nullptr,
          "ask for the licence");
  return text;
}

struct Arrival {
  List list = nullptr;
  bool done = false;
};

void OnList(int error, List list, void* arrival) {
  Require(error == 0 && list != nullptr, "list models");
  *static_cast<Arrival*>(arrival) = {list, true};
}

List AskModels() {
  Arrival arrival;
  Require(velmora_svcmgr_ai_request_usable_model_list_with_description(OnList, &arrival) == 0,
          "ask for models");
  while (!arrival.done) g_main_context_iteration(nullptr, TRUE);
  return arrival.list;
}

std::uint64_t ChecksumOfList(List list) {
  int count = 0;
  Require(velmora_svcmgr_ai_model_list_get_size(list, &count) == 0, "count models");
  Checksum sum;
  for (int i = 0; i < count; ++i) {
    velmora_svcmgr_ai_model_info_h model = nullptr;
    Require(velmora_svcmgr_ai_model_list_get(list, i, &model) == 0, "look at a model");
    for (const auto get :
         {velmora_svcmgr_ai_model_info_get_id, velmora_svcmgr_ai_model_info_get_version,
          velmora_svcmgr_ai_model_info_get_title, velmora_svcmgr_ai_model_info_get_description}) {
      char* text = nullptr;
      Require(get(model, &text) == 0, "look at a text");
      sum.Add(text);
      std::free(text);
    }
    velmora_svcmgr_ai_model_info_destroy(model);
  }
  return sum.value();
}

void Release(List list) {
  Require(velmora_svcmgr_ai_model_list_destroy(list) == 0, "release a list");
}

}  // namespace

int main(int argc, char** argv) {
  const QueryRuns runs = ReadQueryRuns(argc, argv);
  Connect();
  if (runs.kind == "int32") {
    RunQueries(runs.queries, AskLevel, ChecksumOf<int>, [](int) {});
  } else if (runs.kind == "licence") {
    RunQueries(runs.queries, AskLicence, ChecksumOf<char*>, [](char* text) { std::free(text); });
  } else {
    RunQueries(runs.queries, AskModels, ChecksumOfList, Release);
  }
  velmora_svcmgr_disconnect();
  return 0;
}
