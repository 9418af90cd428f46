// SPDX-License-Identifier: Apache-2.0
// An application beside an agent that does one kind of work, of some size, several times:
//
//     client_runs KIND SIZE TIMES
//
// prints one line of JSON: the nanoseconds of each time; of each time, the longest turn of the main
// loop, from the end of one wait to the beginning of the next; the bytes that are allocated
// afterwards and were not before; and by how much the memory in use had grown at most, in bytes. It
// knows the library by its public header alone. growth.py and main_loop.py say what agent each kind
// needs.

#include <glib.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench_world.h"

namespace {

using Clock = std::chrono::steady_clock;
using List = velmora_svcmgr_ai_model_list_h;

// ---- What is measured ---------------------------------------------------------------------------

// The main loop's turns.
class Turns {
 public:
  void Watch() { g_main_context_set_poll_func(nullptr, Poll); }
  void Begin() {
    longest_ = {};
    since_ = Clock::now();
  }
  Clock::duration Longest() {
    Close();
    return longest_;
  }

 private:
  static int Poll(GPollFD* fds, guint count, int timeout);
  void Close() { longest_ = std::max(longest_, Clock::now() - since_); }

  Clock::time_point since_;
  Clock::duration longest_{};
};
Turns turns;

int Turns::Poll(GPollFD* fds, guint count, int timeout) {
  turns.Close();
  const int result = g_poll(fds, count, timeout);
  turns.since_ = Clock::now();
  return result;
}

std::size_t Allocated() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

std::size_t BytesOf(const std::filesystem::path& process, const std::string& field) {
  std::ifstream status(process / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field, 0) == 0) return std::stoul(line.substr(field.size())) * 1024;
  }
  return 0;
}

void ForgetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

// The processes of the world beside this one, the agent among them.
std::size_t ResidentOfAgent() {
  const std::string parent = std::to_string(getppid());
  std::ifstream children("/proc/" + parent + "/task/" + parent + "/children");
  std::size_t bytes = 0;
  for (pid_t child = 0; children >> child;) {
    if (child != getpid()) bytes += BytesOf("/proc/" + std::to_string(child), "VmRSS:");
  }
  return bytes;
}

struct Result {
  std::vector<Clock::duration> times;
  std::vector<Clock::duration> longest_turns;
  std::size_t kept = 0;
  std::size_t peak = 0;
};

// Times one piece of work.
void Measure(Result& result, const std::function<void()>& work) {
  turns.Begin();
  const auto start = Clock::now();
  work();
  result.times.push_back(Clock::now() - start);
  result.longest_turns.push_back(turns.Longest());
}

// Also what memory it takes, the first time.
void MeasureWithMemory(Result& result, const std::function<void()>& work) {
  if (!result.times.empty()) return Measure(result, work);
  ForgetPeak();
  const std::size_t allocated = Allocated();
  const std::size_t resident = BytesOf("/proc/self", "VmRSS:");
  Measure(result, work);
  const std::size_t peak = BytesOf("/proc/self", "VmHWM:");
  const std::size_t allocated_now = Allocated();
  result.kept = allocated_now > allocated ? allocated_now - allocated : 0;
  result.peak = peak > resident ? peak - resident : 0;
}

// ---- The application ----------------------------------------------------------------------------

void Turn() { g_main_context_iteration(nullptr, TRUE); }

int connections = 0;

bool lost = false;

void OnConnection(int error, int state, void*) {
  Require(error == 0 && state != SVCMGR_CONNECTION_STATE_REJECTED, "connect");
  if (state == SVCMGR_CONNECTION_STATE_CONNECTED) ++connections;
  if (state == SVCMGR_CONNECTION_STATE_DISCONNECTED) lost = true;
}

void Connect() {
  const int before = connections;
  Require(velmora_svcmgr_connect(OnConnection, nullptr) == 0, "connect");
  while (connections == before) Turn();
}

void Disconnect() { Require(velmora_svcmgr_disconnect() == 0, "disconnect"); }

List list = nullptr;

void OnList(int error, List arrived, void*) {
  Require(error == 0 && arrived != nullptr, "list models");
  list = arrived;
}

void Ask() {
  Require(velmora_svcmgr_ai_request_usable_model_list_with_description(OnList, nullptr) == 0,
          "ask for models");
  while (list == nullptr) Turn();
}

void Release() {
  Require(velmora_svcmgr_ai_model_list_destroy(list) == 0, "release a list");
  list = nullptr;
}

// The agent answers none of these.
void Queue(int requests) {
  for (int i = 0; i < requests; ++i) {
    Require(velmora_svcmgr_ai_request_usable_model_list(OnList, nullptr) == 0, "ask for models");
  }
}

int AskLevel() {
  int level = 0;
  Require(velmora_svcmgr_get_agent_api_level(&level) == 0, "ask for the level");
  return level;
}

std::size_t AskLicence() {
  char* text = nullptr;
  Require(velmora_svcmgr_get_license_fulltext(&text) == 0 && text != nullptr,
          "ask for the licence");
  const std::size_t size = std::strlen(text);
  std::free(text);
  return size;
}

// ---- The kinds of work --------------------------------------------------------------------------

Result Connections(int, int times) {
  Result result;
  for (int i = 0; i < times; ++i) {
    MeasureWithMemory(result, Connect);
    Disconnect();
  }
  return result;
}

Result Levels(int, int times) {
  Result result;
  Connect();
  AskLevel();
  for (int i = 0; i < times; ++i) MeasureWithMemory(result, [] { AskLevel(); });
  return result;
}

Result Licences(int size, int times) {
  Result result;
  Connect();
  AskLevel();
  for (int i = 0; i < times; ++i) {
    MeasureWithMemory(result, [size] {
      Require(AskLicence() == static_cast<std::size_t>(size), "get the whole licence");
    });
  }
  return result;
}

Result Models(int, int times) {
  Result result;
  Connect();
  AskLevel();
  for (int i = 0; i < times; ++i) {
    MeasureWithMemory(result, Ask);
    Release();
  }
  return result;
}

Result Releases(int, int times) {
  Result result;
  Connect();
  for (int i = 0; i < times; ++i) {
    Ask();
    Measure(result, Release);
  }
  return result;
}

Result QueriesInARow(int size, int times) {
  Result result;
  Connect();
  Ask();
  Release();
  for (int i = 0; i < times; ++i) {
    MeasureWithMemory(result, [size] {
      for (int query = 0; query < size; ++query) {
        Ask();
        Release();
      }
    });
  }
  return result;
}

Result Delegates(int size, int times) {
  Result result;
  for (int i = 0; i < times; ++i) {
    Connect();
    Ask();
    Release();
    MeasureWithMemory(result, [size] { Queue(size); });
    Disconnect();
  }
  return result;
}

// One answer, while so many others are awaited.
Result Dispatches(int size, int times) {
  Result result;
  Connect();
  Queue(size);
  Ask();  // behind all of them
  Release();
  for (int i = 0; i < times; ++i) {
    MeasureWithMemory(result, Ask);
    Release();
  }
  return result;
}

Result Disconnections(int size, int times) {
  Result result;
  for (int i = 0; i < times; ++i) {
    Connect();
    Queue(size);
    Ask();
    Release();
    Measure(result, Disconnect);
  }
  return result;
}

// The agent ends the connection instead of answering. There is no second one afterwards.
Result Losses(int size, int) {
  Result result;
  Connect();
  Queue(size);
  Require(velmora_svcmgr_ai_request_usable_model_list_with_description(OnList, nullptr) == 0,
          "ask for models");
  Measure(result, [] {
    while (!lost) Turn();
  });
  return result;
}

// Looks through the application's files.
Result Files(int, int times) {
  Result result;
  for (int i = 0; i < times; ++i) {
    MeasureWithMemory(result, [] {
      int level = 0;
      Require(velmora_svcmgr_get_client_api_level(&level) == 0 && level > 0, "find a marker");
    });
  }
  return result;
}

// ---- Many clients -------------------------------------------------------------------------------

// So many processes beside this one, each with a connection of its own. When they are told to, each
// makes 200 calls and says so. The agent's memory grows for them.
class OtherClients {
 public:
  explicit OtherClients(int count) : count_(count) {
    Require(pipe(ready_) == 0 && pipe(begin_) == 0 && pipe(end_) == 0, "make pipes");
    const std::size_t before = ResidentOfAgent();
    for (int i = 0; i < count; ++i) {
      const pid_t child = fork();
      Require(child >= 0, "start a client");
      if (child == 0) Be();
    }
    Hear();
    const std::size_t now = ResidentOfAgent();
    memory_ = now > before ? now - before : 0;
  }
  ~OtherClients() {
    Tell(end_[1]);
    Tell(begin_[1]);
    for (int status = 0; wait(&status) > 0;) Require(status == 0, "run a client");
  }
  OtherClients(const OtherClients&) = delete;
  OtherClients& operator=(const OtherClients&) = delete;

  void Call() {
    Tell(begin_[1]);
    Hear();
  }
  std::size_t memory() const { return memory_; }

 private:
  [[noreturn]] void Be() {
    constexpr int kCalls = 200;
    Connect();
    AskLevel();
    char byte = 0;
    Require(write(ready_[1], "", 1) == 1 && read(begin_[0], &byte, 1) == 1, "await the others");
    for (int i = 0; i < kCalls; ++i) AskLevel();
    Require(write(ready_[1], "", 1) == 1, "say that all is done");
    _exit(read(end_[0], &byte, 1) == 1 ? 0 : 1);
  }
  void Tell(int pipe) const {
    const std::string all(static_cast<std::size_t>(count_), '\0');
    Require(write(pipe, all.data(), all.size()) == count_, "tell the clients");
  }
  void Hear() {
    char byte = 0;
    for (int i = 0; i < count_; ++i) Require(read(ready_[0], &byte, 1) == 1, "hear the clients");
  }

  const int count_;
  int ready_[2];
  int begin_[2];  // a byte for each client
  int end_[2];
  std::size_t memory_ = 0;
};

Result Clients(int size, int) {
  Result result;
  OtherClients others(size);
  Measure(result, [&] { others.Call(); });
  result.kept = result.peak = others.memory();
  return result;
}

// One call, beside clients that have nothing to say.
Result Bystanders(int size, int times) {
  Result result;
  const OtherClients others(size);
  Connect();
  AskLevel();
  for (int i = 0; i < times; ++i) Measure(result, [] { AskLevel(); });
  result.kept = result.peak = others.memory();
  return result;
}

// ---- Work that the agent reports ----------------------------------------------------------------

int messages = 0;
bool over = false;

void OnProgress(int error, velmora_svcmgr_ai_progress_h progress, void*) {
  constexpr int kAllDone = 2;
  int state = 0;
  Require(error == 0 && velmora_svcmgr_ai_progress_get_state(progress, &state) == 0 &&
              velmora_svcmgr_ai_progress_destroy(progress) == 0,
          "work on a model");
  ++messages;
  over = state == kAllDone;
}

void OnModelStatus(int, int status, void*) {
  ++messages;
  over = status != SVCMGR_AI_STATUS_STARTED;
}

void OnUpdateStatus(int status, void*) {
  ++messages;
  over = status != SVCMGR_UPDATE_STATUS_STARTED;
}

void Work(velmora_svcmgr_ai_progress_cb on_progress) {
  velmora_svcmgr_ai_model_info_h model = nullptr;
  Require(velmora_svcmgr_ai_model_list_get(list, 0, &model) == 0, "look at a model");
  List models = nullptr;
  Require(velmora_svcmgr_ai_model_list_create(&models) == 0 &&
              velmora_svcmgr_ai_model_list_add(models, model) == 0 &&
              velmora_svcmgr_ai_request_to_update(models, on_progress, nullptr) == 0,
          "ask for an update");
  velmora_svcmgr_ai_model_list_destroy(models);
  velmora_svcmgr_ai_model_info_destroy(model);
}

void AwaitEnd() {
  while (!over) Turn();
  over = false;
}

Result Progress(int size, int times) {
  Result result;
  Connect();
  Ask();
  for (int i = 0; i < times; ++i) {
    messages = 0;
    Work(OnProgress);
    Measure(result, AwaitEnd);
    Require(messages == size, "hear of each part");
  }
  return result;
}

Result ModelEvents(int, int times) {
  Result result;
  Connect();
  Ask();
  Require(velmora_svcmgr_ai_register_status_cb(OnModelStatus, nullptr) == 0, "subscribe");
  for (int i = 0; i < times; ++i) {
    Work([](int, velmora_svcmgr_ai_progress_h progress, void*) {
      velmora_svcmgr_ai_progress_destroy(progress);
    });
    Measure(result, AwaitEnd);
  }
  return result;
}

bool Stands() {
  bool updating = false;
  return velmora_svcmgr_is_being_updated(&updating) == 0;
}

// With a restart of the agent and a reconnection, if that is what its update does.
Result Updates(int, int times) {
  Result result;
  Connect();
  Require(velmora_svcmgr_set_update_status_cb(OnUpdateStatus, nullptr) == 0, "subscribe");
  for (int i = 0; i < times; ++i) {
    Require(velmora_svcmgr_request_update() == 0, "ask for an update");
    Measure(result, [] {
      AwaitEnd();
      while (!Stands()) Turn();
    });
    AskLevel();
  }
  return result;
}

// -------------------------------------------------------------------------------------------------

const std::map<std::string, Result (*)(int size, int times)> kKinds = {
    {"connections", Connections},
    {"levels", Levels},
    {"licences", Licences},
    {"models", Models},
    {"releases", Releases},
    {"queries", QueriesInARow},
    {"delegates", Delegates},
    {"dispatches", Dispatches},
    {"disconnections", Disconnections},
    {"losses", Losses},
    {"clients", Clients},
    {"bystanders", Bystanders},
    {"progress", Progress},
    {"model-events", ModelEvents},
    {"updates", Updates},
    {"files", Files},
};

std::string InNanoseconds(const std::vector<Clock::duration>& times) {
  std::string text;
  for (const auto time : times) {
    if (!text.empty()) text += ", ";
    text += std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(time).count());
  }
  return '[' + text + ']';
}

}  // namespace

int main(int argc, char** argv) {
  const auto kind = argc == 4 ? kKinds.find(argv[1]) : kKinds.end();
  if (kind == kKinds.end()) {
    std::fprintf(stderr, "usage: %s KIND SIZE TIMES\n", argv[0]);
    return 2;
  }
  turns.Watch();
  const Result result = kind->second(std::atoi(argv[2]), std::atoi(argv[3]));
  std::printf(R"({"times": %s, "turns": %s, "kept": %zu, "peak": %zu})"
              "\n",
              InNanoseconds(result.times).c_str(), InNanoseconds(result.longest_turns).c_str(),
              result.kept, result.peak);
  return 0;
}
