// SPDX-License-Identifier: Apache-2.0
#include "world/run.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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
#include <vector>

#include "common/report.h"
#include "service/agent_service.h"
#include "service/control.h"
#include "trace/trace.h"
#include "unique_fd.h"
#include "world/child.h"
#include "world/command.h"
#include "world/guardian.h"
#include "world/world.h"

namespace sim {
namespace {

constexpr std::chrono::seconds kAgentPatience(10);
// Appends, because several processes write.
constexpr int kTraceFlags = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC;

/** Something went wrong that is not the command's doing. */
class RunError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

constexpr char kAgent[] = "agent";

/** Containers run commands as users that nobody has entered anywhere; dbus-daemon refuses those. */
void WarnOfUserWithoutEntry() {
  passwd user;
  passwd* found = nullptr;
  std::vector<char> texts(64 * 1024);
  getpwuid_r(geteuid(), &user, texts.data(), texts.size(), &found);
  if (found != nullptr) return;
  Report("user " + std::to_string(geteuid()) +
         " has no entry in the password database, so that the session bus admits nobody and events "
         "are lost: enter the user, or run as another one; a scenario with \"bus\": false needs no "
         "bus");
}

/** A child and, once it has ended, its status. */
struct Process {
  const char* name = "";  // in the trace
  pid_t pid = -1;
  std::optional<int> status;  // as waitpid has it

  bool running() const { return pid > 0 && !status; }

  void Reap(int options = WNOHANG) {
    int raw = 0;
    if (!running() || waitpid(pid, &raw, options) != pid) return;
    status = raw;
    Fields fields = {{"process", name}, {"pid", pid}};

    if (WIFSIGNALED(raw)) EndTornRecord();
    fields[WIFSIGNALED(raw) ? "signal" : "status"] =
        WIFSIGNALED(raw) ? WTERMSIG(raw) : WEXITSTATUS(raw);
    Trace("end", fields);
  }
};

/** The agent ends by itself only by a fault of its own; by SIGKILL where somebody wanted it so. */
bool EndedAsWanted(int raw) {
  if (WIFSIGNALED(raw)) return WTERMSIG(raw) == SIGKILL || WTERMSIG(raw) == SIGTERM;
  return WEXITSTATUS(raw) == 0 || WEXITSTATUS(raw) == kReplaceMe;
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
    if (lines.size() > kLines) lines.pop_front();
  }
  std::string text;
  for (const std::string& line : lines) text += "\n  | " + Quotable(line);
  return text;
}

/** Readers see the old content or the new, never a part. */
void WriteFile(const std::string& path, const std::string& content) {
  const std::string draft = path + ".new";
  std::ofstream file(draft, std::ios::binary);
  file << content;
  file.close();
  if (!file || std::rename(draft.c_str(), path.c_str()) != 0) {
    throw RunError("cannot write " + path);
  }
}

struct Pipe {
  base::UniqueFd read_end;
  base::UniqueFd write_end;

  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw RunError(std::string("cannot make a pipe: ") + strerror(errno));
    }
    read_end.Reset(ends[0]);
    write_end.Reset(ends[1]);
  }
};

base::UniqueFd OpenTraceFile(const std::string& path) {
  base::UniqueFd fd(path == "-" ? fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)
                                : open(path.c_str(), kTraceFlags, 0666));
  if (!fd) throw RunError("cannot write \"" + Quotable(path) + "\": " + strerror(errno));
  return fd;
}

base::UniqueFd OpenLog(const std::string& path) {
  return base::UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
}

std::string XmlText(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

/** A bus that starts no services, reads no files of the system, and is open to its own user. */
std::string BusConfiguration(const std::string& address) {
  return "<busconfig>\n<type>session</type>\n<listen>" + XmlText(address) +
         "</listen>\n<auth>EXTERNAL</auth>\n"
         "<policy context=\"default\">\n"
         "<allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
         "<allow eavesdrop=\"true\"/>\n<allow own=\"*\"/>\n</policy>\n"
         "<limit name=\"max_connections_per_user\">10000</limit>\n"
         "<limit name=\"max_match_rules_per_connection\">10000</limit>\n"
         "</busconfig>\n";
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
      Report("the world is kept in " + Quotable(world_.folder()));
    }
  }

  ~Run() {
    End(command_);
    End(agent_);
    End(bus_);
    OpenTrace({});
  }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  int Execute();

 private:
  void OpenTraces();
  static void End(Process& process);
  ChildSetup Setup() const;
  pid_t Start(const ChildSetup& setup, const std::string& what);
  void StartBus();
  void StartAgent();
  void StartAgentProcess(int ready);
  void Await(int ready, const std::string& what, const std::string& log);
  void FollowAgent();
  bool WantsAnotherAgent() const;
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
  base::UniqueFd control_;  // the agents' one after the other, so that none who knocks is lost
  std::vector<base::UniqueFd> trace_files_;
  std::vector<TraceSink> traces_;
  Process bus_{"bus", -1, {}};
  Process agent_{kAgent, -1, {}};
  bool agent_failed_ = false;
  Process command_{"command", -1, {}};
  int interrupted_by_ = 0;  // a signal that came while there was no command to pass it on to
};

void Run::End(Process& process) {
  if (process.running()) {
    kill(process.pid, SIGKILL);
    process.Reap(0);
  }
}

void Run::OpenTraces() {
  const auto add = [this](const std::string& path, TraceFormat format) {
    trace_files_.push_back(OpenTraceFile(path));
    traces_.push_back({trace_files_.back().get(), format});
  };
  if (!options_.untraced) add(world_.trace_file(), TraceFormat::kWorld);
  for (const std::string& path : options_.traces) {
    add(path, path == "-" ? TraceFormat::kWords : TraceFormat::kLines);
  }
  for (const std::string& path : options_.captures) {
    add(path, TraceFormat::kCapture);
    const std::string header = CaptureHeader();
    if (write(traces_.back().fd, header.data(), header.size()) !=
        static_cast<ssize_t>(header.size())) {
      throw RunError("cannot write \"" + Quotable(path) + "\": " + strerror(errno));
    }
  }
  OpenTrace(traces_);
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
    if (signal == SIGCHLD) continue;
    // What the terminal sends reaches the command by itself: it is in the same process group.
    const bool from_process = info->ssi_code <= 0;
    if (!command_.running()) {
      interrupted_by_ = signal;
    } else if (from_process) {
      kill(command_.pid, signal);
    }
  }
  bus_.Reap();
  agent_.Reap();
  command_.Reap();
}

pid_t Run::Start(const ChildSetup& setup, const std::string& what) {
  pid_t child = -1;
  try {
    child = StartChild(setup);
  } catch (const StartError& error) {
    throw RunError("cannot start " + what + ": " + strerror(error.reason));
  }
  if (guardian_) guardian_->Watch(child);
  return child;
}

void Run::StartBus() {
  WarnOfUserWithoutEntry();
  const std::string configuration = world_.folder() + "/bus.conf";
  const std::string log_file = world_.folder() + "/bus.log";
  WriteFile(configuration, BusConfiguration(world_.bus_address()));
  Pipe ready;
  const base::UniqueFd log = OpenLog(log_file);
  ChildSetup setup = Setup();
  setup.arguments = {"dbus-daemon",
                     "--nofork",
                     "--nopidfile",
                     "--nosyslog",
                     "--config-file=" + configuration,
                     "--print-address=" + std::to_string(kFirstPassedFd)};
  setup.detached = true;
  setup.output = log.get();
  setup.passed = {ready.write_end.get()};
  bus_.pid = Start(setup,
                   "the session bus (dbus-daemon, of the Debian package of that name; a "
                   "scenario with \"bus\": false needs none)");
  WriteFile(world_.folder() + "/bus.pid", std::to_string(bus_.pid) + "\n");
  Trace("start", {{"process", bus_.name}, {"pid", bus_.pid}});
  ready.write_end.Reset();
  Await(ready.read_end.get(), "the session bus", log_file);
}

void Run::StartAgent() {
  WriteFile(world_.folder() + "/scenario.json", source_.document);
  control_ = ListenForSteps(world_.control_file());
  Pipe ready;
  StartAgentProcess(ready.write_end.get());
  ready.write_end.Reset();
  Await(ready.read_end.get(), "the agent", world_.log_file());
}

void Run::StartAgentProcess(int ready) {
  base::UniqueFd log;
  ChildSetup setup = Setup();
  setup.program = "/proc/self/exe";
  setup.arguments = {"svcmgr-sim-agent",
                     "agent",
                     world_.folder() + "/scenario.json",
                     "--folder",
                     source_.folder,
                     "--control",
                     "--journal",
                     world_.journal_file()};
  for (const TraceSink& trace : traces_) {
    setup.arguments.insert(setup.arguments.end(), {"--trace", NameOf(trace.format)});
  }
  setup.arguments.insert(setup.arguments.end(),
                         {"--last-client", std::to_string(LastClientIn(world_.trace_file()))});
  if (options_.time_scale) {
    setup.arguments.insert(setup.arguments.end(),
                           {"--time-scale", std::to_string(*options_.time_scale)});
  }
  setup.environment = world_.AgentEnvironment(scenario_.agent);
  setup.detached = true;
  setup.passed = {ready, control_.get()};
  for (const TraceSink& trace : traces_) setup.passed.push_back(trace.fd);
  if (options_.verbose) {
    setup.environment.set.emplace_back("VELMORA_LOG_LEVEL", "debug");
  } else {
    log = OpenLog(world_.log_file());
    setup.output = log.get();
  }
  agent_.status.reset();
  agent_.pid = Start(setup, "the agent");
  WriteFile(world_.pid_file(), std::to_string(agent_.pid) + "\n");
}

void Run::Await(int ready, const std::string& what, const std::string& log) {
  char byte = 0;
  pollfd readable = {ready, POLLIN, 0};
  while (interrupted_by_ == 0 && poll(&readable, 1, 0) == 0) Wait(ready, -1);
  if (interrupted_by_ != 0) return;
  if (read(ready, &byte, 1) != 1) throw RunError(what + " does not start" + LastLines(log));
}

bool Run::WantsAnotherAgent() const {
  const bool replaced = WIFEXITED(*agent_.status) && WEXITSTATUS(*agent_.status) == kReplaceMe;
  switch (scenario_.agent.restart) {
    case Restart::kNever:
      return false;
    case Restart::kOnRequest:
      return replaced;
    case Restart::kAlways:
      return replaced || WIFSIGNALED(*agent_.status);
  }
  return false;
}

/** Replaces an agent that has ended; if no other is to come, nobody shall wait for one. */
void Run::FollowAgent() {
  if (!agent_.status || !control_) return;
  CheckAgent();
  if (agent_failed_ || !WantsAnotherAgent()) {
    control_.Reset();
    return;
  }
  const base::UniqueFd nobody(open("/dev/null", O_WRONLY | O_CLOEXEC));
  StartAgentProcess(nobody.get());
}

int Run::StartCommand() {
  ChildSetup setup = Setup();
  setup.arguments = options_.command;
  setup.environment = world_.ClientEnvironment(scenario_.client);
  Trace("start", {{"process", command_.name}, {"command", options_.command}});
  try {
    command_.pid = StartChild(setup);
  } catch (const StartError& error) {
    return ReportStartError(options_.command.front(), error);
  }
  if (guardian_) guardian_->Watch(command_.pid);
  return 0;
}

void Run::AwaitCommand() {
  command_.Reap();
  while (command_.running()) {
    FollowAgent();
    Wait(-1, -1);
  }
}

void Run::StopAgent() {
  agent_.Reap();
  if (agent_.running()) {
    // It may have been stopped. After SIGTERM this could hit it while a sanitizer that looks for
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
  if (agent_.status && !EndedAsWanted(*agent_.status)) ReportAgent(HowItEnded(*agent_.status));
}

void Run::ReportAgent(const std::string& what) {
  if (!std::exchange(agent_failed_, true)) {
    Report("the agent " + what + LastLines(world_.log_file()));
  }
}

int Run::Execute() {
  OpenTraces();
  if (scenario_.bus) StartBus();
  if (scenario_.agent.running && interrupted_by_ == 0) StartAgent();
  TakeSignals();
  if (interrupted_by_ != 0) return kKilledBy + interrupted_by_;
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
    Report(error.what());
    return kOwnFailure;
  }
}

}  // namespace sim
