// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sim_process.h"
#include "support/lines.h"
#include "temp_folder.h"
#include "unique_fd.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/** `run` of a shell script, in a folder for worlds that must be empty at the end. */
class ARun : public testing::Test {
 protected:
  void SetUp() override { setenv("TMPDIR", worlds_.path().c_str(), 1); }
  void TearDown() override {
    EXPECT_TRUE(std::filesystem::is_empty(worlds_.path())) << "a world was left behind";
  }

  static std::vector<std::string> Script(const std::string& script,
                                         const std::string& scenario = "demo") {
    return {"run", scenario, "--", "/bin/sh", "-c", script};
  }
  static Finished RunScript(const std::string& script, const std::string& scenario = "demo") {
    return RunSim(Script(script, scenario));
  }

  const TempFolder worlds_;
};

/** Makes this process the parent of what its descendants leave behind. */
void AdoptOrphans() { ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }

/** Waits until no child of this process is left, own or adopted. */
void AwaitAllChildren() {
  while (wait(nullptr) > 0 || errno == EINTR) {
  }
  ASSERT_EQ(errno, ECHILD);
}

TEST_F(ARun, ReturnsTheCommandsStatus) {
  for (const int status : {0, 1, 2, 77, 125, 126, 127, 255}) {
    const Finished run = RunScript("exit " + std::to_string(status));
    EXPECT_EQ(run.status, status);
    EXPECT_THAT(run.errors, IsEmpty());
  }
}

TEST_F(ARun, ReturnsTheSignalThatKilledTheCommand) {
  for (const int signal : {SIGKILL, SIGTERM, SIGINT, SIGHUP}) {
    EXPECT_EQ(RunScript("kill -" + std::to_string(signal) + " $$").status, 128 + signal);
  }
}

TEST_F(ARun, SaysWhenThereIsNoCommandOfTheName) {
  const Finished run = RunSim({"run", "demo", "--", "no-such-command-anywhere"});
  EXPECT_EQ(run.status, 127);
  EXPECT_EQ(run.errors, "svcmgr-sim: no-such-command-anywhere: No such file or directory\n");
}

TEST_F(ARun, SaysWhenTheCommandCannotBeExecuted) {
  const Finished run = RunSim({"run", "demo", "--", "/"});
  EXPECT_EQ(run.status, 126);
  EXPECT_EQ(run.errors, "svcmgr-sim: /: Permission denied\n");
}

TEST_F(ARun, LooksForTheCommandAlongThePathAsAShellDoes) {
  const TempFolder folder;
  std::filesystem::create_directory(folder.path() + "/closed");
  std::filesystem::permissions(folder.path() + "/closed", std::filesystem::perms::none);
  folder.Write("no-program", "");
  setenv("PATH", (folder.path() + "/closed:" + folder.path() + "::/usr/bin:/bin").c_str(), 1);
  EXPECT_EQ(RunSim({"run", "demo", "--", "true"}).status, 0);
  EXPECT_EQ(RunSim({"run", "demo", "--", "no-such-command-anywhere"}).status, 127);
  EXPECT_EQ(RunSim({"run", "demo", "--", "no-program"}).status, 126);
  std::filesystem::permissions(folder.path() + "/closed", std::filesystem::perms::owner_all);
}

TEST_F(ARun, PassesArgumentsAsTheyAre) {
  const Finished run = RunSim({"run", "demo", "--", "printf", "<%s>", "a b", "--help", "--", ""});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, "<a b><--help><--><>");
}

TEST_F(ARun, PassesInputAndOutputs) {
  const Finished run = RunSim(Script("cat; echo error >&2"), [] {
    int ends[2];
    if (pipe(ends) == 0 && write(ends[1], "input", 5) == 5) {
      dup2(ends[0], STDIN_FILENO);
    }
    close(ends[0]);
    close(ends[1]);
  });
  EXPECT_EQ(run.output, "input");
  EXPECT_EQ(run.errors, "error\n");
}

TEST_F(ARun, AddsItsOwnToTheEnvironmentAndNothingElse) {
  setenv("VELMORA_APP_ID", "from.outside", 1);
  setenv("XDG_RUNTIME_DIR", "/from/outside", 1);
  const auto is_own = [](const std::string& entry) {
    return entry.rfind("VELMORA_", 0) == 0 || entry.rfind("DBUS_SESSION_BUS_ADDRESS=", 0) == 0 ||
           entry.rfind("SVCMGR_SIM_", 0) == 0;
  };
  std::set<std::string> difference;  // to be emptied by what the command sees
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (!is_own(*entry)) {
      difference.insert(*entry);
    }
  }
  std::set<std::string> own;
  std::istringstream seen(RunSim({"run", "demo", "--", "/usr/bin/env", "-0"}).output);
  for (std::string entry; std::getline(seen, entry, '\0');) {
    if (is_own(entry)) {
      own.insert(entry.substr(0, entry.find('=')));
    } else if (difference.erase(entry) == 0) {
      difference.insert("new: " + entry);
    }
  }
  EXPECT_THAT(difference, IsEmpty());
  EXPECT_THAT(own, testing::ElementsAre("DBUS_SESSION_BUS_ADDRESS", "SVCMGR_SIM_CONTROL",
                                        "SVCMGR_SIM_TRACE", "VELMORA_APP_ID", "VELMORA_APP_ROOT",
                                        "VELMORA_APP_VERSION", "VELMORA_PACKAGE_DIR",
                                        "VELMORA_RUNTIME_DIR"));
}

TEST_F(ARun, GivesTheCommandTheScenariosIdentity) {
  const std::string file = worlds_.Write(
      "mine.json", R"({"client": {"id": "org.example.me", "version": "4.5", "root": "my/app"}})");
  const Finished run =
      RunScript("echo $VELMORA_APP_ID $VELMORA_APP_VERSION $VELMORA_APP_ROOT", file);
  EXPECT_EQ(run.output, "org.example.me 4.5 " + worlds_.path() + "/my/app\n");
  std::filesystem::remove(file);
}

TEST_F(ARun, GivesTheCommandTheIdentityOfItsOptions) {
  const Finished run =
      RunSim({"run", "demo", "--app-id", "a.b", "--app-version=7", "--app-root", "/r", "--",
              "/bin/sh", "-c", "echo $VELMORA_APP_ID $VELMORA_APP_VERSION $VELMORA_APP_ROOT"});
  EXPECT_EQ(run.output, "a.b 7 /r\n");
}

TEST_F(ARun, HasPrivateFolders) {
  const Finished run = RunScript(
      "stat -c %a \"$VELMORA_RUNTIME_DIR/..\" \"$VELMORA_RUNTIME_DIR\" \"$VELMORA_PACKAGE_DIR\" "
      "\"$VELMORA_APP_ROOT/res\"");
  EXPECT_EQ(run.output, "700\n700\n700\n700\n");
}

TEST_F(ARun, InstallsTheScenariosPackages) {
  const Finished run = RunScript("cd \"$VELMORA_PACKAGE_DIR\" && ls && cat com.velmora.notes.*");
  EXPECT_EQ(run.output,
            "com.velmora.gallery.package\ncom.velmora.notes.package\ncom.velmora.svcmgr.package\n"
            "[Package]\nVersion=1.4.0\n\n[Application com.velmora.notes]\n"
            "ai-agent-category=text\n");
}

TEST_F(ARun, HasNoAgentPackageWhenItIsMissing) {
  const Finished run = RunScript("ls \"$VELMORA_PACKAGE_DIR\"", "agent-missing");
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.status, 0);
}

TEST_F(ARun, HasNoPortWhenTheAgentDoesNotRun) {
  const Finished run = RunScript("ls \"$VELMORA_RUNTIME_DIR\"", "agent-not-running");
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.status, 0);
}

TEST_F(ARun, HandsDownNoDescriptorOfItsOwnOrItsCallers) {
  const Finished run = RunSim({"run", "demo", "--", "/bin/ls", "/proc/self/fd"}, [] {
    dup2(STDOUT_FILENO, 9);
    dup2(STDOUT_FILENO, 20);
  });
  EXPECT_EQ(run.output, "0\n1\n2\n3\n") << "3 is the folder that is listed";
}

TEST_F(ARun, WorksWithStandardDescriptorsClosed) {
  const Finished run = RunSim(Script("exit 5"), [] {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
  });
  EXPECT_EQ(run.status, 5);
}

TEST_F(ARun, LetsItsCommandsUsesOfAClosedDescriptorFail) {
  const Finished run =
      RunSim(Script("cat && exit 1; echo text && exit 2; echo text >&2 && exit 3; exit 7"), [] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
      });
  EXPECT_EQ(run.status, 7);
}

TEST_F(ARun, WorksWhereSigchldIsIgnored) {
  const Finished run = RunSim(Script("exit 6"), [] { ::signal(SIGCHLD, SIG_IGN); });
  EXPECT_EQ(run.status, 6);
}

TEST_F(ARun, KeepsTheWorldWhenAsked) {
  const Finished run =
      RunSim({"run", "demo", "--keep", "--", "/bin/sh", "-c", "echo $VELMORA_RUNTIME_DIR"});
  EXPECT_EQ(run.status, 0);
  const std::string runtime = Lines(run.output).at(0);
  const std::string world = std::filesystem::path(runtime).parent_path();
  EXPECT_EQ(run.errors, "svcmgr-sim: the world is kept in " + world + "\n");
  EXPECT_TRUE(std::filesystem::is_directory(runtime));
  EXPECT_TRUE(std::filesystem::exists(world + "/agent.log"));
  EXPECT_GT(std::filesystem::remove_all(world), 0u);
}

TEST_F(ARun, RemovesWhatTheCommandLeftInItsWorld) {
  const Finished run = RunScript(
      "cd \"$VELMORA_RUNTIME_DIR/..\" && mkdir -p a/b/c && touch a/b/c/file && ln -s / a/root && "
      "mkfifo a/fifo && chmod 0 a/b/c && chmod 500 a/b && chmod 500 .");
  EXPECT_EQ(run.status, 0);
}

TEST_F(ARun, IsGoneBeforeAProcessThatTheCommandLeft) {
  AdoptOrphans();
  SimProcess process({"run", "demo", "--", SIM_COMMAND, "linger"});
  const pid_t orphan = std::stoi(process.Line());
  EXPECT_EQ(process.Await(), 3);
  EXPECT_TRUE(std::filesystem::is_empty(worlds_.path()));
  EXPECT_EQ(kill(orphan, SIGKILL), 0) << "it should still be there";
  AwaitAllChildren();
}

TEST_F(ARun, PassesSignalsToTheCommandAndReturnsItsStatus) {
  SimProcess process({"run", "demo", "--", SIM_COMMAND, "signals"});
  ASSERT_EQ(process.Line(), "ready");
  for (const int signal : {SIGINT, SIGHUP, SIGQUIT, SIGTERM}) {
    process.Signal(signal);
    EXPECT_EQ(process.Line(), std::to_string(signal));
  }
  EXPECT_EQ(process.Await(), 40);
}

TEST_F(ARun, ReturnsTheSignalThatItPassedOn) {
  SimProcess process({"run", "demo", "--", "/bin/sh", "-c", "echo ready; exec cat /dev/zero >&2"});
  ASSERT_EQ(process.Line(), "ready");
  process.Signal(SIGTERM);
  EXPECT_EQ(process.Await(), 128 + SIGTERM);
}

TEST_F(ARun, TakesEverythingWithItWhenItIsKilled) {
  AdoptOrphans();
  SimProcess process({"run", "demo", "--", "/bin/sh", "-c",
                      "cat \"$VELMORA_RUNTIME_DIR/../agent.pid\"; exec \"$0\" hold", SIM_COMMAND});
  const pid_t agent = std::stoi(process.Line());
  const pid_t command = std::stoi(process.Line());
  ASSERT_EQ(kill(agent, 0), 0);
  ASSERT_EQ(kill(command, 0), 0);
  process.Signal(SIGKILL);
  EXPECT_EQ(process.Await(), -SIGKILL);
  // The agent, the command and whoever cleans up are this process's children now.
  AwaitAllChildren();
  EXPECT_NE(kill(agent, 0), 0);
  EXPECT_NE(kill(command, 0), 0);
  EXPECT_TRUE(std::filesystem::is_empty(worlds_.path()));
}

TEST_F(ARun, LeavesNothingWhenItIsKilledWhileItStarts) {
  AdoptOrphans();
  const auto world_holds = [this](const std::string& name) {
    for (const auto& world : std::filesystem::directory_iterator(worlds_.path())) {
      if (name.empty() || std::filesystem::exists(world.path() / name)) {
        return true;
      }
    }
    return false;
  };
  for (const char* sign :
       {"", "run", "packages/com.velmora.svcmgr.package", "bus.conf", "bus.pid", "scenario.json",
        "control", "agent.log", "agent.pid", "run/com.velmora.svcmgr:SvcMgrAppPort"}) {
    SimProcess process({"run", "demo", "--", SIM_COMMAND, "hold"});
    while (!world_holds(sign)) {
      sched_yield();
    }
    process.Signal(SIGKILL);
    EXPECT_EQ(process.Await(), -SIGKILL);
    AwaitAllChildren();
    EXPECT_TRUE(std::filesystem::is_empty(worlds_.path())) << "killed after " << sign;
  }
}

TEST_F(ARun, EndsByASignalThatComesBeforeTheCommandRuns) {
  // It is pending from the beginning, and so taken as soon as signals are taken at all.
  const Finished run = RunSim(Script("echo ran"), [] {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    raise(SIGTERM);
  });
  EXPECT_EQ(run.status, 128 + SIGTERM);
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.errors, "");
}

TEST_F(ARun, LeavesNoProcessBehind) {
  AdoptOrphans();
  EXPECT_EQ(RunScript("exit 0").status, 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(ARun, SurvivesAnAgentThatIsKilled) {
  AdoptOrphans();
  const Finished run = RunScript("kill -KILL $(cat \"$VELMORA_RUNTIME_DIR/../agent.pid\"); exit 9");
  EXPECT_EQ(run.status, 9);
  EXPECT_THAT(run.errors, IsEmpty());
}

TEST_F(ARun, FailsWhenTheAgentFailsByItself) {
  const Finished run = RunScript("kill -ABRT $(cat \"$VELMORA_RUNTIME_DIR/../agent.pid\")");
  EXPECT_EQ(run.status, 125);
  EXPECT_THAT(run.errors, StartsWith("svcmgr-sim: the agent was killed by signal 6\n"));
}

TEST_F(ARun, PrefersTheCommandsFailureToTheAgents) {
  const Finished run = RunScript("kill -ABRT $(cat \"$VELMORA_RUNTIME_DIR/../agent.pid\"); exit 4");
  EXPECT_EQ(run.status, 4);
  EXPECT_THAT(run.errors, StartsWith("svcmgr-sim: the agent was killed by signal 6\n"));
}

TEST_F(ARun, EndsAnAgentThatWasStopped) {
  EXPECT_EQ(RunScript("kill -STOP $(cat \"$VELMORA_RUNTIME_DIR/../agent.pid\")").status, 0);
}

// The squatter's output is read by nobody but this script, and ends with the world's bus.
const char kSquat[] =
    "mkfifo \"$VELMORA_APP_ROOT/says\" && exec 3<>\"$VELMORA_APP_ROOT/says\";"
    " " NAME_SQUATTER " " AGENT_PACKAGE_ID " >&3 & read says <&3; ";

TEST_F(ARun, FailsWhenAnotherProcessGetsTheNameOfAnAgentThatRestarts) {
  const Finished run =
      RunScript(std::string(kSquat) + SVCMGR_SIM " send restart; read says <&3; echo $says");
  EXPECT_EQ(run.status, 125);
  EXPECT_EQ(run.output, "acquired\n");
  EXPECT_THAT(run.errors, HasSubstr(AGENT_PACKAGE_ID
                                    ": another process owns the agent's name on the session bus"));
}

TEST_F(ARun, KeepsItsNameFromWhoWaitsForIt) {
  const Finished run = RunScript(std::string(kSquat) + SVCMGR_SIM " send update-start; echo $says");
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.output, "queued\n");
  EXPECT_THAT(run.errors, IsEmpty());
}

TEST_F(ARun, GoesOnWhereItsBusIsStopped) {
  const auto begin = std::chrono::steady_clock::now();
  const Finished run =
      RunScript("kill -STOP $(cat \"$VELMORA_RUNTIME_DIR/../bus.pid\") && " SVCMGR_SIM
                " send update-start restart update-complete && " SVCMGR_SIM " send kill");
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.errors, IsEmpty());
  // Much longer than all of its time limits, much shorter than those of the bus's clients.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(60));
}

TEST_F(ARun, ShowsWhatTheAgentDoesWhenAsked) {
  const Finished run =
      RunSim({"run", "demo", "--verbose", "--", "/bin/sh", "-c", "ls \"$VELMORA_RUNTIME_DIR/..\""});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.errors, HasSubstr("SVCMGR_SIM_AGENT"));
  EXPECT_THAT(run.output, testing::Not(HasSubstr("agent.log")));
}

TEST_F(ARun, FailsWhereItCannotMakeAWorld) {
  setenv("TMPDIR", "/proc", 1);
  const Finished run = RunScript("echo ran");
  EXPECT_EQ(run.status, 125);
  EXPECT_EQ(run.output, "");
  const std::string said =
      "svcmgr-sim: cannot make a folder for the world in \"/proc\": No such file or directory\n";
  EXPECT_EQ(run.errors, said);
  EXPECT_EQ(RunSim({"run", "demo", "--keep", "--", "true"}).errors, said);
}

TEST_F(ARun, TakesTmpWhereTmpdirIsNoFolder) {
  setenv("TMPDIR", (worlds_.path() + "/missing").c_str(), 1);
  EXPECT_THAT(RunScript("echo $VELMORA_RUNTIME_DIR").output, StartsWith("/tmp/svcmgr-sim-"));
}

TEST_F(ARun, RefusesAWrongScenarioBeforeItMakesAnything) {
  const TempFolder folder;
  const std::string file = folder.Write("wrong.json", "{\"agent\": 5}");
  const Finished run = RunScript("echo ran", file);
  EXPECT_EQ(run.status, 125);
  EXPECT_EQ(run.output, "");
  EXPECT_EQ(run.errors, file + ":1:11: /agent: must be an object, not a whole number\n");
}

TEST_F(ARun, GoesOnBesideManyOthers) {
  constexpr std::size_t kMany = 16;
  std::deque<SimProcess> processes;
  std::set<std::string> folders;
  std::set<std::string> agents;
  for (std::size_t i = 0; i < kMany; ++i) {
    processes.emplace_back(std::vector<std::string>{
        "run", "demo", "--", "/bin/sh", "-c",
        "echo \"$VELMORA_RUNTIME_DIR\"; cat \"$VELMORA_RUNTIME_DIR/../agent.pid\"; "
        "exec \"$0\" signals",
        SIM_COMMAND});
  }
  for (SimProcess& process : processes) {
    folders.insert(process.Line());
    agents.insert(process.Line());
    EXPECT_EQ(process.Line(), "ready");
  }
  EXPECT_EQ(folders.size(), kMany);
  EXPECT_EQ(agents.size(), kMany);
  for (SimProcess& process : processes) {
    process.Signal(SIGTERM);
  }
  for (SimProcess& process : processes) {
    EXPECT_EQ(process.Await(), 40);
  }
}

/** svcmgr-sim as the foreground process group of a terminal. */
class ATerminalRun : public ARun {
 protected:
  void Start(const std::vector<std::string>& arguments) {
    int terminal = -1;
    pid_ = forkpty(&terminal, nullptr, nullptr, nullptr);
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
      std::vector<char*> pointers = {const_cast<char*>("svcmgr-sim")};
      for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
      }
      pointers.push_back(nullptr);
      execv(SVCMGR_SIM, pointers.data());
      _exit(99);
    }
    terminal_.Reset(terminal);
  }

  std::string Line() const {
    std::string line;
    char c = 0;
    while (read(terminal_.get(), &c, 1) == 1 && c != '\n') {
      line += c;
    }
    line.erase(std::remove(line.begin(), line.end(), '\r'), line.end());
    return line;
  }

  int Await() {
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }

  pid_t pid_ = -1;
  base::UniqueFd terminal_;
};

TEST_F(ATerminalRun, LetsTheInterruptKeyReachTheCommandOnce) {
  Start({"run", "demo", "--", SIM_COMMAND, "signals"});
  ASSERT_EQ(Line(), "ready");
  ASSERT_EQ(write(terminal_.get(), "\x03", 1), 1);
  EXPECT_EQ(Line(), "^C" + std::to_string(SIGINT));
  // It takes its own interrupt before this, so that an echo of it would have to come first.
  kill(pid_, SIGTERM);
  EXPECT_EQ(Line(), std::to_string(SIGTERM));
  EXPECT_EQ(Await(), 40);
}

TEST_F(ATerminalRun, LeavesTheTerminalToTheCommand) {
  Start({"run", "demo", "--", "/bin/sh", "-c", "read line; echo \"got $line\""});
  ASSERT_EQ(write(terminal_.get(), "a line\n", 7), 7);
  EXPECT_EQ(Line(), "a line") << "the terminal's echo";
  EXPECT_EQ(Line(), "got a line");
  EXPECT_EQ(Await(), 0);
}

class ACall : public ARun {};

TEST_F(ACall, ThatIsMistypedIsToldWhatMayHaveBeenMeant) {
  const std::pair<std::vector<std::string>, const char*> rows[] = {
      {{}, "a command is missing; see 'svcmgr-sim --help'"},
      {{"rnu"}, "there is no command 'rnu'; did you mean 'run'; see 'svcmgr-sim --help'"},
      {{"frobnicate"}, "there is no command 'frobnicate'; see 'svcmgr-sim --help'"},
      {{"help", "chekc"},
       "there is no command 'chekc'; did you mean 'check'; see 'svcmgr-sim --help'"},
      {{"run", "demo", "--trcae", "x", "--", "true"},
       "there is no option '--trcae'; did you mean '--trace'; see 'svcmgr-sim run --help'"},
      {{"list", "more"}, "there is no use for 'more'; see 'svcmgr-sim list --help'"},
      {{"list", "--", "true"}, "there is no use for 'true'; see 'svcmgr-sim list --help'"},
      {{"run", "demo"}, "-- COMMAND is required; see 'svcmgr-sim run --help'"},
      {{"run", "demo", "true"}, "the command must stand behind '--'; see 'svcmgr-sim run --help'"},
      {{"run", "demo", "--time-scale", "--", "true"},
       "--time-scale needs NUMBER; see 'svcmgr-sim run --help'"},
      {{"run", "demo", "--app-id=a", "--app-id=b", "--", "true"},
       "--app-id is given more than once; see 'svcmgr-sim run --help'"},
      {{"run", "demo", "--keep=yes", "--", "true"},
       "--keep takes no value; see 'svcmgr-sim run --help'"},
      {{"expect", "--timeout"}, "--timeout needs SECONDS; see 'svcmgr-sim expect --help'"},
  };
  for (const auto& [arguments, message] : rows) {
    const Finished run = RunSim(arguments);
    EXPECT_EQ(run.status, 2) << message;
    EXPECT_EQ(run.output, "") << message;
    EXPECT_EQ(run.errors, "svcmgr-sim: " + std::string(message) + "\n");
  }
}

TEST_F(ACall, ForHelpIsACommandOrAnOption) {
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{}, {"run"}, {"expect"}, {"help"}}) {
    std::vector<std::string> by_command = command;
    by_command.insert(by_command.begin(), "help");
    std::vector<std::string> by_option = command;
    by_option.emplace_back("--help");
    const Finished help = RunSim(by_command);
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, HasSubstr("Usage: svcmgr-sim"));
    EXPECT_EQ(help.output, RunSim(by_option).output);
  }
}

TEST_F(ACall, WithoutScenarioOrCommandIsAWrongUsage) {
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"run"},
                                             {"run", "demo"},
                                             {"run", "demo", "--"},
                                             {"run", "--", "true"},
                                             {"run", "demo", "true"},
                                             {"run", "demo", "--no-such-option", "--", "true"},
                                             {"run", "demo", "--time-scale", "-1", "--", "true"},
                                             {"run", "demo", "--time-scale", "nan", "--", "true"},
                                             {"run", "demo", "--time-scale", "-nan", "--", "true"},
                                             {"run", "demo", "--time-scale", "inf", "--", "true"},
                                             {"run", "demo", "--time-scale", "1001", "--", "true"},
                                             {"check"},
                                             {"list", "demo"},
                                             {"list", "--", "x"},
                                             {"frobnicate"}}) {
    const Finished call = RunSim(arguments);
    EXPECT_EQ(call.status, 2) << testing::PrintToString(arguments);
    EXPECT_EQ(call.output, "") << testing::PrintToString(arguments);
    EXPECT_THAT(call.errors, StartsWith("svcmgr-sim: ")) << testing::PrintToString(arguments);
  }
}

TEST_F(ACall, QuotesNothingThatSteersATerminal) {
  const TempFolder folder;
  const std::string file = folder.Write(
      "wrong.json", R"({"agent": {"kyr": "\u001b[31m\u009b1m\u202e\n"}, "\u001b": 1})");
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{"check", file},
                                             {"check", "x\x1b[31m"},
                                             {"check", "./x\x1b[31m\n"},
                                             {"run", "x\x1b[31m", "--", "true"},
                                             {"run", "demo", "--", "no\x1b[31mcommand"},
                                             {"run", "demo", "--", "/no\x1b[31m/command"},
                                             {"send", "x\x1b[31m"},
                                             {"send", R"({"x\u001b": 1})"},
                                             {"send", "update-result=\x1b[31m"},
                                             {"list", "x\x1b[31m"},
                                             {"run", "demo", "--time-scale", "\x1b[31m"}}) {
    const Finished call = RunSim(arguments, [] { setenv("SVCMGR_SIM_CONTROL", "/nowhere", 1); });
    EXPECT_NE(call.status, 0);
    EXPECT_THAT(call.errors, HasSubstr("\\x1B"));
    for (const char* steering : {"\x1b", "\xc2\x9b", "\xe2\x80\xae"}) {
      EXPECT_THAT(call.errors, testing::Not(HasSubstr(steering)))
          << testing::PrintToString(arguments);
    }
  }
  for (const char* name : {"one\ntwo", "./one\ntwo"}) {
    EXPECT_EQ(Lines(RunSim({"check", name}).errors).size(), 1u);
  }
}

TEST_F(ACall, WhoseOutputCannotBeWrittenFailsAndSaysSo) {
  const auto to_full = [] {
    const int full = open("/dev/full", O_WRONLY);
    dup2(full, STDOUT_FILENO);
  };
  const auto to_nobody = [] { close(STDOUT_FILENO); };
  for (const char* call : {"--help", "--version", "list"}) {
    const Finished full = RunSim({call}, to_full);
    EXPECT_EQ(full.status, 125) << call;
    EXPECT_EQ(full.errors,
              "svcmgr-sim: cannot write to standard output: No space left on device\n");
    const Finished closed = RunSim({call}, to_nobody);
    EXPECT_EQ(closed.status, 125) << call;
    EXPECT_EQ(closed.errors, "svcmgr-sim: cannot write to standard output: Bad file descriptor\n");
  }
}

TEST_F(ACall, ForHelpNamesTheWords) {
  const Finished call = RunSim({"--help"});
  EXPECT_EQ(call.status, 0);
  for (const char* word : {"run", "check", "list", "SCENARIO", "125"}) {
    EXPECT_THAT(call.output, HasSubstr(word));
  }
  EXPECT_THAT(call.output, testing::Not(ContainsRegex("agent  +Be")));
  EXPECT_EQ(call.errors, "");
}

/** The page as it reads, but for its fonts and paragraphs. */
std::string ManPage() {
  std::ifstream file(SVCMGR_SIM_MAN_PAGE);
  std::string page((std::istreambuf_iterator<char>(file)), {});
  for (std::size_t at = 0; (at = page.find("\\-", at)) != std::string::npos; ++at) {
    page.erase(at, 1);
  }
  return page;
}

std::set<std::string> AllMatches(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  std::set<std::string> found;
  for (std::sregex_iterator it(text.begin(), text.end(), regex), end; it != end; ++it) {
    found.insert((*it)[1]);
  }
  return found;
}

/** Whether a line in bold has the word. */
bool Explains(const std::string& page, const std::string& word) {
  const auto lines = Lines(page);
  return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
    const auto words = AllMatches(line, "[ \"](-*[a-z][a-z-]*)");
    return line.rfind(".B", 0) == 0 && words.count(word) > 0;
  });
}

TEST_F(ACall, ForHelpNamesNothingThatTheManPageDoesNotHave) {
  const std::string page = ManPage();
  const std::string help = RunSim({"--help"}).output;
  const auto commands = AllMatches(help.substr(help.find("Subcommands:")), "\n  ([a-z]+)  ");
  ASSERT_EQ(commands,
            (std::set<std::string>{"check", "expect", "help", "list", "record", "run", "send"}));
  std::set<std::string> options = AllMatches(help, "(--[a-z][a-z-]*)");
  for (const std::string& command : commands) {
    EXPECT_THAT(page, HasSubstr("\n.SS " + command + "\n"));
    options.merge(AllMatches(RunSim({command, "--help"}).output, "(--[a-z][a-z-]*)"));
  }
  EXPECT_EQ(options.size(), 12u);
  for (const std::string& option : options) {
    EXPECT_TRUE(Explains(page, option)) << option;
  }
  const std::string steps = RunSim({"send", "--help"}).output;
  const auto words = AllMatches(steps.substr(steps.find("or one of:")), "\n  ([a-z-]+) ");
  EXPECT_EQ(words.size(), 23u);
  for (const std::string& word : words) {
    EXPECT_TRUE(Explains(page, word)) << word;
  }
}

TEST_F(ACall, InAWorldHasTheVariablesOfTheManPage) {
  const std::string before = RunSim({"run", "demo", "--", "env"}, [] { clearenv(); }).output;
  const auto variables = AllMatches("\n" + before, "\n([A-Z_]+)=");
  const std::string page = ManPage();
  EXPECT_GE(variables.size(), 7u);
  for (const std::string& variable : variables) {
    if (variable != "PWD" && variable != "SHLVL" && variable != "_") {
      EXPECT_THAT(page, HasSubstr(variable));
    }
  }
}

TEST_F(ACall, ForTheVersionPrintsIt) {
  const Finished call = RunSim({"--version"});
  EXPECT_EQ(call.status, 0);
  EXPECT_EQ(call.output, "svcmgr-sim " SVCMGR_SIM_VERSION "\n");
}

TEST_F(ACall, ForTheListNamesEachScenarioWithALineAndItsAdviceWithTheNext) {
  const Finished call = RunSim({"list"});
  EXPECT_EQ(call.status, 0);
  EXPECT_THAT(call.output,
              ContainsRegex("\ndemo  +a well-behaved agent.*\n +Show the models.*\\.\n"));
  const auto lines = Lines(call.output);
  EXPECT_GE(lines.size(), 100u);
  for (std::size_t line = 0; line < lines.size(); ++line) {
    EXPECT_THAT(lines[line],
                ContainsRegex(line % 2 == 0 ? "^[a-z0-9-]+  +[a-z]" : "^ +[A-Z].*\\.$"));
  }
}

TEST_F(ACall, ForACheckOfRightScenariosSaysNothing) {
  const TempFolder folder;
  const Finished call = RunSim({"check", "demo", folder.Write("right.json", "{}"), "large"});
  EXPECT_EQ(call.status, 0);
  EXPECT_EQ(call.output + call.errors, "");
}

TEST_F(ACall, ForACheckSaysWhatIsWrongWithEachScenario) {
  const TempFolder folder;
  const std::string one = folder.Write("one.json", "{\n \"timeScale\": -1}");
  const std::string two = folder.Write("two.json", "{");
  const Finished call = RunSim({"check", one, "demo", two, "unheard-of"});
  EXPECT_EQ(call.status, 1);
  EXPECT_EQ(call.output, "");
  const auto lines = Lines(call.errors);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], one + ":2:15: /timeScale: must be from 0 to 1000");
  EXPECT_EQ(lines[1], two + ":1:2: the document ends where a key in quotes or \"}\" is expected");
  EXPECT_THAT(lines[2], StartsWith("unheard-of: no scenario of this name ships"));
}

}  // namespace
