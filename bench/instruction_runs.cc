// SPDX-License-Identifier: Apache-2.0
// Calls each exported function under callgrind, and has it write down what one call takes, in a file
// for each; and what the answer to a request takes, from its arrival until the application has
// released it. instructions.py starts it and reads the files.

#include <glib.h>
#include <valgrind/callgrind.h>
#include <velmora_svcmgr.h>

#include <string>

#include "bench_world.h"
#include "exported_calls.h"
#include "servers.h"

namespace {

constexpr int kFirst = 4;  // what only the first calls do is not counted

template <typename Work>
void Count(const std::string& name, Work work) {
  CALLGRIND_ZERO_STATS;
  CALLGRIND_TOGGLE_COLLECT;
  work();
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT(name.c_str());
}

void CountCall(const ExportedCall& call) {
  // How many delegates there are is not to depend on the calls before.
  Prepare(ExportedCall::Needs::kNoConnection);
  for (int i = 0; i < kFirst; ++i) {
    Prepare(call.needs);
    CallStage stage;
    Require(call.call(stage) == 0, call.name);
  }
  Prepare(call.needs);
  CallStage stage;
  int result = -1;
  Count(call.name, [&] { result = call.call(stage); });
  Require(result == 0, call.name);
  if (!stage.awaits) return;
  Count(std::string("answer:") + call.name, [&] {
    while (stage.awaits) g_main_context_iteration(nullptr, TRUE);
  });
}

}  // namespace

int main() {
  const BenchWorld world;
  PrepareExportedCalls(world.folder().c_str());
  const ServerProcess agent = ServerProcess::Agent();
  for (const ExportedCall& call : ExportedCalls()) CountCall(call);
  return 0;
}
