// SPDX-License-Identifier: Apache-2.0
// What memory a client takes at each stage of its life:
//
//     resident_client LIBRARY
//
// prints one object of JSON: for each stage, the KB of this process that are resident, that no other
// process shares with it, and that are allocated. The library is loaded when its stage comes.

#include <dlfcn.h>
#include <glib.h>
#include <malloc.h>
#include <velmora_svcmgr.h>

#include <fstream>
#include <string>

#include "bench_world.h"

namespace {

constexpr int kRequests = 1000;

long KiloBytes(const std::string& field) {
  std::ifstream rollup("/proc/self/smaps_rollup");
  for (std::string line; std::getline(rollup, line);) {
    if (line.rfind(field, 0) == 0) return std::stol(line.substr(field.size()));
  }
  return -1;
}

void Print(const char* stage, const char* separator = ",") {
  const struct mallinfo2 info = mallinfo2();
  std::printf(R"("%s": {"resident": %ld, "its own": %ld, "allocated": %.1f}%s)", stage,
              KiloBytes("Rss:"), KiloBytes("Private_Clean:") + KiloBytes("Private_Dirty:"),
              static_cast<double>(info.uordblks + info.hblkhd) / 1024, separator);
}

template <typename Function>
Function Find(void* library, const char* name, Function) {
  void* const found = dlsym(library, name);
  Require(found != nullptr, name);
  return reinterpret_cast<Function>(found);
}
#define FIND(library, name) Find(library, #name, static_cast<decltype(&(name))>(nullptr))

void OnConnection(int error, int, void* connected) {
  Require(error == 0, "connect");
  *static_cast<bool*>(connected) = true;
}

void OnModels(int, velmora_svcmgr_ai_model_list_h, void*) {}

}  // namespace

int main(int argc, char** argv) {
  Require(argc == 2, "go without the library's path");
  g_main_context_iteration(nullptr, FALSE);
  KiloBytes("Rss:");
  std::printf("{");
  Print("a main loop of GLib, nothing else");
  void* const library = dlopen(argv[1], RTLD_NOW);
  Require(library != nullptr, "load the library");
  const auto connect = FIND(library, velmora_svcmgr_connect);
  const auto request = FIND(library, velmora_svcmgr_ai_request_usable_model_list);
  Print("library and desktop platform loaded");
  bool connected = false;
  Require(connect(OnConnection, &connected) == 0, "connect");
  while (!connected) g_main_context_iteration(nullptr, TRUE);
  while (g_main_context_iteration(nullptr, FALSE)) continue;
  Print("connected, idle");
  for (int i = 0; i < kRequests; ++i) Require(request(OnModels, nullptr) == 0, "ask for models");
  Print("with 1,000 queued delegates", "}\n");
  return 0;
}
