// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_EXPORTED_CALLS_H_
#define BENCH_EXPORTED_CALLS_H_

#include <velmora_svcmgr.h>

#include <vector>

// Each exported function, how it is called, and what one call costs, as far as that can be counted.
//
// A call goes through the desktop's platform to an agent in a process of its own (ServerProcess).
// Application events have a stand-in in the program, because what the bus's library does differs
// from version to version.

// What a call is made with; made anew for each call.
class CallStage {
 public:
  CallStage();
  // Awaits the answer of a request, and releases all that the call has left.
  ~CallStage();
  CallStage(const CallStage&) = delete;
  CallStage& operator=(const CallStage&) = delete;

  // Filled.
  velmora_svcmgr_agent_list_h agents = nullptr;
  velmora_svcmgr_ai_model_info_h model = nullptr;
  velmora_svcmgr_ai_model_list_h models = nullptr;
  velmora_svcmgr_ai_progress_h progress = nullptr;
  // With nothing in them.
  velmora_svcmgr_ai_model_info_h empty_model = nullptr;

  velmora_svcmgr_agent_list_h made_agents = nullptr;
  velmora_svcmgr_ai_model_info_h made_model = nullptr;
  velmora_svcmgr_ai_model_list_h made_models = nullptr;
  velmora_svcmgr_ai_progress_h made_progress = nullptr;
  char* text = nullptr;
  int number = 0;
  bool flag = false;

  // Whether an answer is on its way.
  bool awaits = false;
};

struct CallCosts {
  int looks = 1;  // at the agent's package, by name
  int records = 0;
  int allocations = 0;
  int system_calls = 0;        // of the client
  int agent_system_calls = 0;  // of the agent, until the answer is dispatched
  int switches = 0;            // tasks: how often the client waits
  // Whether the figures are upper limits, because what is called differs from system to system.
  bool at_most = false;
};

struct ExportedCall {
  enum class Needs {
    kConnection,
    kNoConnection,
    kSubscriptions,  // and a connection
  };

  const char* name;  // without velmora_svcmgr_
  int (*call)(CallStage&);
  CallCosts costs;
  Needs needs = Needs::kConnection;
};

const std::vector<ExportedCall>& ExportedCalls();

// What lies around the client: an application's folder with a marker, a package that declares a
// category. In a BenchWorld, once; ends the process if that cannot be made.
void PrepareExportedCalls(const char* world_folder);

// Brings about what a call needs.
void Prepare(ExportedCall::Needs needs);

#endif  // BENCH_EXPORTED_CALLS_H_
