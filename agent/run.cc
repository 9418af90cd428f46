// SPDX-License-Identifier: Apache-2.0
#include "run.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <deque>
#include <exception>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "child.h"
#include "guardian.h"
#include "unique_fd.h"
#include "world.h"

namespace sim {
namespace {

constexpr std::chrono::seconds kAgentPatience(10);

/** Something went wrong that is not the command's doing. */
class RunError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/** A child and, once it has ended, how. */
struct Process {
  pid_t pid = -1;
  std::optional<int> status;  // as waitpid has it

  bool running() const { return pid > 0 && !status; }

  void Reap() {
    int raw = 0;
    if (running() && waitpid(pid, &raw, WNOHANG) == pid) {
      status = raw;
    }
  }
};

/** The signals that this process takes one by one; what they did before is kept for its children.
 */
class Signals {
 public:
  Signals() {
    struct sigaction usual = {};
    usual.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &usual, &child_action_);  // an ignored one would take our children's status
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
      sigaddset(&taken, signal);
    }
    sigprocmask(SIG_BLOCK, &taken, &mask_);
    fd_.Reset(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd_) {
      throw RunError(std::string("cannot take signals: ") + strerror(errno));
    }
  }

  int fd() const { return fd_.get(); }
  const sigset_t& mask() const { return mask_; }
  const struct sigaction& child_action() const { return child_action_; }

  /** The next one that has arrived. */
  std::optional<signalfd_siginfo> Next() const {
    signalfd_siginfo info;
    if (read(fd_.get(), &info, sizeof info) != sizeof info) {
      return std::nullopt;
    }
    return info;
  }

 private:
  sigset_t mask_;
  struct sigaction child_action_;
  UniqueFd fd_;
};

int ExitStatus(int raw) { return WIFSIGNALED(raw) ? kKilledBy + WTERMSIG(raw) : WEXITSTATUS(raw); }

/** The agent ends by itself only by a fault of its own; by SIGKILL where somebody wanted it so. */
bool EndedAsWanted(int raw) {
  if (WIFSIGNALED(raw)) {
    return WTERMSIG(raw) == SIGKILL || WTERMSIG(raw) == SIGTERM;
  }
  return WEXITSTATUS(raw) == 0;
}

std::string HowItEnded(int raw) {
  return WIFSIGNALED(raw) ? std::string("was killed by signal ") + std::to_string(WTERMSIG(raw))
                          : "ended with status " + std::to_string(WEXITSTATUS(raw));
}

std::string LastLines(const std::string& file) {
  constexpr std::size_t kLines = 60;
  std::ifstream log(file);
  std::deque<std::string> lines;
  for (std::string line; std::getline(log, line);) {
    lines.push_back(line);
    if (lines.size() > kLines) {
      lines.pop_front();
    }
  }
  std::string text;
  for (const std::string& line : lines) {
    text += "\n  | " + line;
  }
  return text;
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary);
  file << content;
  file.close();
  if (!file) {
    throw RunError("cannot write " + path);
  }
}

/** A folder of PATH that may not be entered must not pass for a command that may not be executed. */
int ReasonFor(const std::string& command, int reason) {
  if (reason != EACCES || command.find('/') != std::string::npos) {
    return reason;
  }
  const char* path = getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (access(((folder.empty() ? "." : folder) + "/" + command).c_str(), F_OK) == 0) {
      return EACCES;
    }
  }
  return ENOENT;
}

class Run {
 public:
  Run(const ScenarioSource& source, const Scenario& scenario, const RunOptions& options)
      : source_(source),
        scenario_(scenario),
        options_(options),
        guardian_(options.keep ? nullptr : std::make_unique<Guardian>()),
        world_(scenario, guardian_ ? guardian_->folder() : MakeWorldFolder()) {
    if (options.keep) {
      world_.Keep();
      std::fprintf(stderr, "svcmgr-sim: the world is kept in %s\n", world_.folder().c_str());
    }
  }

  ~Run() {
    End(command_);
    End(agent_);
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  int Execute();

 private:
  static void End(Process& process);
  ChildSetup Setup() const;
  void StartAgent();
  void AwaitAgent(int ready);
  int StartCommand();
  void AwaitCommand();
  void StopAgent();
  void CheckAgent();
  void ReportAgent(const std::string& what);

  /** Waits for a signal or for `other` to be readable, no longer than the time, and takes signals. */
  void Wait(int other, int timeout_ms);
  void TakeSignals();

  const ScenarioSource& source_;
  const Scenario& scenario_;
  const RunOptions& options_;
  const Signals signals_;
  const std::unique_ptr<Guardian> guardian_;  // none where the world is kept
  World world_;
  Process agent_;
  bool agent_failed_ = false;
  Process command_;
  int interrupted_by_ = 0;  // a signal that came while there was no command to pass it on to
};

void Run::End(Process& process) {
  if (process.running()) {
    int raw = 0;
    kill(process.pid, SIGKILL);
    waitpid(process.pid, &raw, 0);
    process.status = raw;
  }
}

ChildSetup Run::Setup() const {
  ChildSetup setup;
  setup.signal_mask = signals_.mask();
  setup.child_action = signals_.child_action();
  return setup;
}

void Run::Wait(int other, int timeout_ms) {
  pollfd watched[] = {{signals_.fd(), POLLIN, 0}, {other, POLLIN, 0}};
  poll(watched, 2, timeout_ms);
  TakeSignals();
}

void Run::TakeSignals() {
  while (const auto info = signals_.Next()) {
    const auto signal = static_cast<int>(info->ssi_signo);
    if (signal == SIGCHLD) {
      continue;
    }
    // What the terminal sends reaches the command by itself: it is in the same process group.
    const bool from_process = info->ssi_code <= 0;
    if (!command_.running()) {
      interrupted_by_ = signal;
    } else if (from_process) {
      kill(command_.pid, signal);
    }
  }
  agent_.Reap();
  command_.Reap();
}

void Run::StartAgent() {
  const std::string scenario_file = world_.folder() + "/scenario.json";
  WriteFile(scenario_file, source_.document);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw RunError(std::string("cannot make a pipe: ") + strerror(errno));
  }
  UniqueFd ready(ends[0]);
  UniqueFd told(ends[1]);
  UniqueFd log;

  ChildSetup setup = Setup();
  setup.program = "/proc/self/exe";
  setup.arguments = {"svcmgr-sim-agent", "agent", scenario_file, "--folder", source_.folder};
  if (options_.time_scale) {
    setup.arguments.insert(setup.arguments.end(),
                           {"--time-scale", std::to_string(*options_.time_scale)});
  }
  setup.environment = world_.AgentEnvironment(scenario_.agent);
  setup.detached = true;
  setup.extra = told.get();
  if (options_.verbose) {
    setup.environment.set.emplace_back("VELMORA_LOG_LEVEL", "debug");
  } else {
    log.Reset(open(world_.log_file().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    setup.output = log.get();
  }
  try {
    agent_.pid = StartChild(setup);
  } catch (const StartError& error) {
    throw RunError(std::string("cannot start the agent: ") + strerror(error.reason));
  }
  if (guardian_) {
    guardian_->Watch(agent_.pid);
  }
  WriteFile(world_.pid_file(), std::to_string(agent_.pid) + "\n");
  told.Reset();
  AwaitAgent(ready.get());
}

void Run::AwaitAgent(int ready) {
  char byte = 0;
  pollfd readable = {ready, POLLIN, 0};
  while (interrupted_by_ == 0 && poll(&readable, 1, 0) == 0) {
    Wait(ready, -1);
  }
  if (interrupted_by_ != 0) {
    return;
  }
  if (read(ready, &byte, 1) != 1) {
    throw RunError("the agent does not start" + LastLines(world_.log_file()));
  }
}

int Run::StartCommand() {
  ChildSetup setup = Setup();
  setup.arguments = options_.command;
  setup.environment = world_.ClientEnvironment(scenario_.client);
  try {
    command_.pid = StartChild(setup);
  } catch (const StartError& error) {
    const std::string& name = options_.command.front();
    const int reason = ReasonFor(name, error.reason);
    std::fprintf(stderr, "svcmgr-sim: %s: %s\n", name.c_str(), strerror(reason));
    return reason == ENOENT ? kNotFound : kNotExecutable;
  }
  if (guardian_) {
    guardian_->Watch(command_.pid);
  }
  return 0;
}

void Run::AwaitCommand() {
  command_.Reap();
  while (command_.running()) {
    Wait(-1, -1);
    CheckAgent();
  }
}

void Run::StopAgent() {
  agent_.Reap();
  if (agent_.running()) {
    // It may have been stopped. Behind SIGTERM this could hit it while a sanitizer that looks for
    // leaks has stopped it at its end, and waits for that stop.
    kill(agent_.pid, SIGCONT);
    kill(agent_.pid, SIGTERM);
  }
  const auto end = std::chrono::steady_clock::now() + kAgentPatience;
  while (agent_.running()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      ReportAgent("did not end when it was asked to");
      End(agent_);
      return;
    }
    Wait(-1, static_cast<int>(left.count()));
  }
  CheckAgent();
}

void Run::CheckAgent() {
  if (agent_.status && !EndedAsWanted(*agent_.status)) {
    ReportAgent(HowItEnded(*agent_.status));
  }
}

void Run::ReportAgent(const std::string& what) {
  if (!std::exchange(agent_failed_, true)) {
    std::fprintf(stderr, "svcmgr-sim: the agent %s%s\n", what.c_str(),
                 LastLines(world_.log_file()).c_str());
  }
}

int Run::Execute() {
  if (scenario_.agent.running) {
    StartAgent();
  }
  TakeSignals();
  if (interrupted_by_ != 0) {
    return kKilledBy + interrupted_by_;
  }
  int status = StartCommand();
  if (command_.pid > 0) {
    AwaitCommand();
    status = ExitStatus(*command_.status);
  }
  StopAgent();
  return status == 0 && agent_failed_ ? kOwnFailure : status;
}

}  // namespace

int RunInWorld(const ScenarioSource& source, const Scenario& scenario, const RunOptions& options) {
  try {
    return Run(source, scenario, options).Execute();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "svcmgr-sim: %s\n", error.what());
    return kOwnFailure;
  }
}

}  // namespace sim
