// SPDX-License-Identifier: Apache-2.0
#include "worker.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "common/marks.h"
#include "service/control.h"
#include "unique_fd.h"

namespace soak {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Json = nlohmann::json;

/** For what comes at once on an idle machine. */
constexpr seconds kPatience(60);

double Now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/** A process that can be signalled without a risk of meeting another that has its number. */
class Target {
 public:
  Target() = default;
  /** `program` is the beginning of its command line. */
  Target(pid_t pid, const std::string& program)
      : fd_(pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1) {
    std::string line;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/cmdline"), line, '\0');
    if (fs::path(line).filename() != program) fd_.Reset();
  }
  bool Send(int signal) const {
    return fd_ && syscall(SYS_pidfd_send_signal, fd_.get(), signal, nullptr, 0) == 0;
  }

 private:
  base::UniqueFd fd_;
};

class Worker {
 public:
  explicit Worker(const WorkerOptions& options)
      : options_(options),
        random_(options.seed),
        world_(fs::path(getenv(sim::kControlVariable)).parent_path()) {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    shared_ = new (memory) Shared();
    marks_ = sim::MapMarks(getenv(sim::kMarksVariable));
  }
  ~Worker() {
    for (Client& client : clients_) {
      if (client.pid > 0) kill(client.pid, SIGKILL);
      if (client.pid > 0) waitpid(client.pid, nullptr, 0);
    }
    if (bus_ > 0) kill(bus_, SIGKILL);
    if (bus_ > 0) waitpid(bus_, nullptr, 0);
    munmap(shared_, sizeof(Shared));
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  int Work() {
    for (int slot = 0; slot < Shared::kClients; ++slot) StartClient(slot);
    const bool ready = Await("the clients' beginning", [&] { return shared_->measured.load(); });
    for (int i = 0; ready && faults_.empty() && i < options_.count; ++i) MakeTrouble(i);
    if (faults_.empty()) Settle();
    Tell();
    return EXIT_SUCCESS;
  }

 private:
  struct Client {
    pid_t pid = 0;
    int generation = 0;
  };

  // ---- Clients ----

  void StartClient(int slot) {
    Client& client = clients_[static_cast<std::size_t>(slot)];
    const std::string name =
        "soak.client" + std::to_string(slot) + "." + std::to_string(client.generation++);
    ClientOptions options;
    options.slot = slot;
    options.seed = static_cast<std::uint32_t>(random_());
    options.log = options_.folder + "/" + name + ".log";
    options.plant = slot == 1 ? options_.plant : Plant::kNone;
    client.pid = fork();
    if (client.pid < 0) throw std::runtime_error("cannot fork");
    if (client.pid > 0) return;
    setenv("VELMORA_APP_ID", name.c_str(), 1);
    setenv("VELMORA_LOG_LEVEL", "silent", 1);
    exit(RunClient(options, shared_));
  }

  /** Replaces clients that only a new process helps. */
  void Reap() {
    int status = 0;
    for (int slot = 0; slot < Shared::kClients; ++slot) {
      Client& client = clients_[static_cast<std::size_t>(slot)];
      if (client.pid <= 0 || waitpid(client.pid, &status, WNOHANG) != client.pid) continue;
      client.pid = 0;
      const bool stranded = WIFEXITED(status) && WEXITSTATUS(status) == kStranded;
      const bool ended = WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
      if (stranded) ++stranded_;
      if (!stranded && !(ended && shared_->settles)) {
        faults_.push_back("client " + std::to_string(slot) + " ends with the status " +
                          std::to_string(status));
      }
      shared_->slots[slot].settled = true;
      if (stranded && !shared_->settles) StartClient(slot);
    }
  }

  // ---- Time ----

  bool Await(const char* what, const std::function<bool()>& done, milliseconds limit = kPatience) {
    const auto end = Clock::now() + limit;
    while (!done()) {
      Reap();
      if (!faults_.empty()) return false;
      if (Clock::now() > end) {
        if (what != nullptr) faults_.push_back(std::string(what) + " does not come");
        return false;
      }
      std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
  }

  void Pause(unsigned most) {
    const auto end = Clock::now() + std::chrono::microseconds(random_() % (most * 1000));
    while (Clock::now() < end) std::this_thread::sleep_for(std::chrono::microseconds(200));
    Reap();
  }

  bool OneIn(unsigned chance) { return random_() % chance == 0; }

  long Answers() const {
    long sum = 0;
    for (const Shared::Slot& slot : shared_->slots) sum += slot.answers;
    return sum;
  }

  // ---- Trouble ----

  void MakeTrouble(int number) {
    switch (options_.trouble) {
      case Trouble::kKills:
        // Every other one at a mark, each mark in its turn.
        if (number % 2 == 0) {
          StrikeAtMark(number / 2, SIGKILL);
        } else {
          KillAgent();
        }
        // A life between two deaths, or none.
        if (OneIn(2)) AwaitAnswers();
        break;
      case Trouble::kStops:
        Stop(number);
        break;
      case Trouble::kBuses:
        ReplaceBus();
        break;
    }
  }

  void AwaitAnswers() {
    const long before = Answers();
    Await("an answer to any client", [&] { return Answers() > before; });
  }

  pid_t AgentPid() const {
    pid_t pid = 0;
    std::ifstream(world_ / "agent.pid") >> pid;
    return pid;
  }

  Target Agent() const { return {AgentPid(), "svcmgr-sim-agent"}; }

  void KillAgent() {
    constexpr unsigned kMostPause = 80;
    Pause(kMostPause);
    Await("an agent to kill", [&] { return Agent().Send(SIGKILL); });
    ++counts_["at a random moment"];
  }

  void StrikeAtMark(int turn, int signal) {
    constexpr int kMarks = static_cast<int>(sim::Mark::kCount);
    constexpr unsigned kMostPasses = 4;
    const int mark = turn % kMarks;
    const int before = marks_->struck;
    marks_->signal = signal;
    // While it begins, an agent passes each mark once.
    const bool begins = mark <= static_cast<int>(sim::Mark::kReady);
    marks_->passes = begins ? 0 : static_cast<int>(random_() % kMostPasses);
    marks_->armed = mark + 1;
    // An agent that lives passes none of those: another one has to begin.
    if (begins) Await("an agent to kill", [&] { return Agent().Send(SIGKILL); });
    if (begins) ++counts_["to have another one begin"];
    const char* const name = sim::NameOf(static_cast<sim::Mark>(mark));
    if (Await(name, [&] { return marks_->struck > before; })) ++counts_[name];
    marks_->armed = 0;
  }

  void Stop(int number) {
    constexpr unsigned kMostPause = 30;
    switch (number % 4) {
      case 0: {
        const int before = marks_->struck;
        StrikeAtMark(
            static_cast<int>(sim::Mark::kAdmitting) +
                number / 4 %
                    (static_cast<int>(sim::Mark::kCount) - static_cast<int>(sim::Mark::kAdmitting)),
            SIGSTOP);
        if (marks_->struck > before) {
          Pause(kMostPause);
          const Target agent = Agent();
          // It may not have stopped yet.
          Await("the agent's stop", [&] { return IsStopped(AgentPid()); });
          agent.Send(SIGCONT);
        }
        return;
      }
      case 1:
        return StopFor(Agent(), "the agent stopped");
      case 2: {
        const Client& client = clients_[random_() % Shared::kClients];
        if (client.pid <= 0) return;
        kill(client.pid, SIGSTOP);
        Pause(kMostPause * 4);
        kill(client.pid, SIGCONT);
        ++counts_["a client stopped"];
        return;
      }
      default:
        return StopFor(Bus(), "the bus stopped");
    }
  }

  void StopFor(const Target& target, const char* what) {
    constexpr unsigned kMostPause = 40;
    if (!target.Send(SIGSTOP)) return;
    Pause(kMostPause);
    target.Send(SIGCONT);
    ++counts_[what];
    Pause(kMostPause);
  }

  static bool IsStopped(pid_t pid) {
    std::string word;
    std::ifstream status("/proc/" + std::to_string(pid) + "/stat");
    status >> word >> word >> word;
    return word == "T";
  }

  // ---- The bus ----

  Target Bus() const {
    pid_t pid = bus_;
    if (pid <= 0) std::ifstream(world_ / "bus.pid") >> pid;
    return {pid, "dbus-daemon"};
  }

  /** Without a bus a client does not come to hear of the next agent: it had better be connected. */
  void AwaitAnswersToAll() {
    constexpr seconds kLimit(10);
    std::array<long, Shared::kClients> before = {};
    for (std::size_t i = 0; i < before.size(); ++i) before[i] = shared_->slots[i].answers;
    Await(
        nullptr,
        [&] {
          for (std::size_t i = 0; i < before.size(); ++i) {
            if (shared_->slots[i].answers == before[i]) return false;
          }
          return true;
        },
        kLimit);
  }

  void ReplaceBus() {
    constexpr unsigned kMostPause = 50;
    AwaitAnswersToAll();
    // What it has taken just before may still be in it.
    constexpr double kLastMoments = 0.5;
    Json outage = {Now() - kLastMoments};
    if (!Bus().Send(SIGKILL)) {
      faults_.push_back("there is no bus to kill");
      return;
    }
    if (bus_ > 0) waitpid(bus_, nullptr, 0);
    ++counts_["the bus killed"];
    Pause(kMostPause);
    if (OneIn(2)) KillAgent();
    StartBus();
    std::array<long, Shared::kClients> before = {};
    for (std::size_t i = 0; i < before.size(); ++i) before[i] = shared_->slots[i].events;
    const auto all_hear = [&] {
      for (std::size_t i = 0; i < before.size(); ++i) {
        if (shared_->slots[i].events == before[i]) return false;
      }
      return true;
    };
    const auto end = Clock::now() + kPatience;
    while (!Await(nullptr, all_hear, milliseconds(50)) && faults_.empty()) {
      Send(R"([{"modelStatus": "FAILED"}])");
      if (Clock::now() > end) faults_.push_back("not every client hears events on a new bus");
    }
    // Whoever has missed the launch of an agent is led out.
    outage.push_back(Now());
    outages_.push_back(outage);
    Send(R"([{"event": "Launch"}])");
  }

  void StartBus() {
    std::string config = "--config-file=" + (world_ / "bus.conf").string();
    std::string words[] = {"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog", config};
    std::vector<char*> arguments;
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (world_ / "bus.log").c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int failure =
        posix_spawnp(&bus_, "dbus-daemon", &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failure != 0) throw std::runtime_error("cannot start a bus");
  }

  // ---- The end ----

  void Send(const std::string& steps) {
    const std::string why = sim::SendSteps((world_ / "control").string(), steps);
    if (!why.empty()) faults_.push_back("the agent takes no steps: " + why);
  }

  void Settle() {
    shared_->settles = true;
    Send(R"([{"event": "Launch"}])");
    const auto settled = [&] {
      for (const Shared::Slot& slot : shared_->slots) {
        if (!slot.settled) return false;
      }
      return true;
    };
    if (!Await("rest", settled)) return;
    Send(R"([{"event": "Start"}, {"event": "Fail", "code": 13}])");
    Await("the clients' end", [&] {
      for (const Client& client : clients_) {
        if (client.pid > 0) return false;
      }
      return true;
    });
  }

  void Tell() const {
    const Json tree = {{"faults", faults_},
                       {"outages", outages_},
                       {"counts", counts_},
                       {"stranded", stranded_},
                       {"kept", {shared_->kept[0].load(), shared_->kept[1].load()}}};
    std::ofstream(options_.folder + "/worker.json") << tree.dump(1) << "\n";
  }

  const WorkerOptions options_;
  std::mt19937 random_;
  const fs::path world_;
  Shared* shared_ = nullptr;
  sim::MarkTable* marks_ = nullptr;
  std::array<Client, Shared::kClients> clients_ = {};
  pid_t bus_ = -1;
  int stranded_ = 0;
  std::map<std::string, int> counts_;
  Json outages_ = Json::array();
  std::vector<std::string> faults_;
};

}  // namespace

int RunWorker(const WorkerOptions& options) { return Worker(options).Work(); }

}  // namespace soak
