// SPDX-License-Identifier: Apache-2.0
#include "world/record.h"

#include <glib.h>
#include <package_manager.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <optional>
#include <stdexcept>

#include "common/report.h"
#include "owned.h"
#include "scenario/scenario_reader.h"
#include "service/event_source.h"
#include "service/packages.h"
#include "world/command.h"
#include "world/guardian.h"
#include "world/recording.h"
#include "world/relay.h"
#include "world/run.h"
#include "world/world.h"

namespace sim {
namespace {

std::string FromEnvironment(const char* name, const std::string& otherwise) {
  const char* const value = getenv(name);
  return value == nullptr || *value == '\0' ? otherwise : value;
}

/** A package as far as it can be known. */
Package Describe(const std::string& id) {
  const char* const folder = getenv("VELMORA_PACKAGE_DIR");
  std::optional<Package> package;
  if (folder != nullptr) package = InstalledPackage(folder, id);
  if (!package) {
    package.emplace();
    package->id = id;
    package->version = InstalledVersion(id);
  }
  return *package;
}

std::vector<Package> OtherPackages() {
  std::vector<Package> packages;
  package_manager_foreach_package_info(
      [](package_info_h info, void* data) {
        char* id = nullptr;
        if (package_info_get_package(info, &id) != 0) return true;
        const base::Malloced<char> owner(id);
        if (std::string(id) != AGENT_PACKAGE_ID) {
          static_cast<std::vector<Package>*>(data)->push_back(Describe(id));
        }
        return true;
      },
      &packages);
  return packages;
}

/** The file beside the one that is to be, so that nothing half is ever found under its name. */
class Draft {
 public:
  explicit Draft(const std::string& file) : file_(file), draft_(file + ".new"), stream_(draft_) {
    if (!stream_) Fail();
  }
  ~Draft() { std::remove(draft_.c_str()); }
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;

  void Finish(const std::string& text) {
    stream_ << text;
    stream_.close();
    if (!stream_ || std::rename(draft_.c_str(), file_.c_str()) != 0) Fail();
  }

 private:
  void Fail() const {
    throw std::runtime_error("cannot write \"" + Quotable(file_) + "\": " + strerror(errno));
  }

  std::string file_;
  std::string draft_;
  std::ofstream stream_;
};

/** Runs the main loop until the command has ended; its exit status. */
int AwaitCommand(pid_t command, const Signals& signals) {
  std::optional<int> status;
  EventSource source;
  source.WhenReadable(signals.fd(), [&] {
    while (const auto info = signals.Next()) {
      const auto signal = static_cast<int>(info->ssi_signo);
      // What the terminal sends reaches the command by itself: it is in the same process group.
      if (signal != SIGCHLD && info->ssi_code <= 0 && !status) kill(command, signal);
    }
    int raw = 0;
    if (!status && waitpid(command, &raw, WNOHANG) == command) status = raw;
  });
  while (!status) g_main_context_iteration(nullptr, TRUE);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  return ExitStatus(*status);
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

void Write(Draft* draft, Recording* recording, const std::vector<std::string>& command,
           const std::vector<Package>& packages) {
  Client client;
  client.id = FromEnvironment("VELMORA_APP_ID", client.id);
  client.version = FromEnvironment("VELMORA_APP_VERSION", client.version);
  const std::string text = recording->ToScenario("recorded: " + Joined(command), client, packages)
                               .dump(2, ' ', false, Fields::error_handler_t::replace) +
                           "\n";
  ReadScenario(text, "the recording", "/");  // it must be one
  draft->Finish(text);
  for (const std::string& loss : recording->Losses()) Report("not in the scenario: " + loss);
}

}  // namespace

int Record(const std::string& file, const std::vector<std::string>& command) {
  Package agent = Describe(AGENT_PACKAGE_ID);
  if (agent.version.empty()) throw std::runtime_error("there is no agent here: " + agent.id);
  const std::vector<Package> packages = OtherPackages();
  Draft draft(file);
  const Signals signals;
  Guardian guardian;
  const std::string runtime = guardian.folder() + "/run";
  if (mkdir(runtime.c_str(), 0700) != 0) throw std::runtime_error("cannot make " + runtime);
  Recording recording(std::move(agent));
  int status = 0;
  {
    const Relay relay(AGENT_PACKAGE_ID, runtime, recording);
    ChildSetup setup;
    setup.arguments = command;
    setup.signal_mask = signals.mask();
    setup.child_action = signals.child_action();
    setup.environment.set = {{"VELMORA_RUNTIME_DIR", runtime}};
    try {
      const pid_t child = StartChild(setup);
      guardian.Watch(child);
      status = AwaitCommand(child, signals);
    } catch (const StartError& error) {
      RemoveTree(guardian.folder());
      return ReportStartError(command.front(), error);
    }
  }
  RemoveTree(guardian.folder());
  Write(&draft, &recording, command, packages);
  return status;
}

}  // namespace sim
