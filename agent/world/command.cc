// SPDX-License-Identifier: Apache-2.0
#include "world/command.h"

#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <stdexcept>

#include "common/report.h"
#include "world/run.h"

namespace sim {
namespace {

/** A folder of PATH that may not be entered must not pass for a command that may not be executed. */
int ReasonFor(const std::string& command, int reason) {
  if (reason != EACCES || command.find('/') != std::string::npos) return reason;
  const char* path = getenv("PATH");
  std::istringstream folders(path != nullptr ? path : "");
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (access(((folder.empty() ? "." : folder) + "/" + command).c_str(), F_OK) == 0) return EACCES;
  }
  return ENOENT;
}

}  // namespace

Signals::Signals() {
  struct sigaction usual = {};
  usual.sa_handler = SIG_DFL;
  sigaction(SIGCHLD, &usual, &child_action_);  // an ignored one would take our children's status
  sigset_t taken;
  sigemptyset(&taken);
  for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&taken, signal);
  sigprocmask(SIG_BLOCK, &taken, &mask_);
  fd_.Reset(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd_) throw std::runtime_error(std::string("cannot take signals: ") + strerror(errno));
}

std::optional<signalfd_siginfo> Signals::Next() const {
  signalfd_siginfo info;
  if (read(fd_.get(), &info, sizeof info) != sizeof info) return std::nullopt;
  return info;
}

int ExitStatus(int raw) { return WIFSIGNALED(raw) ? kKilledBy + WTERMSIG(raw) : WEXITSTATUS(raw); }

int ReportStartError(const std::string& command, const StartError& error) {
  const int reason = ReasonFor(command, error.reason);
  Report(Quotable(command) + ": " + strerror(reason));
  return reason == ENOENT ? kNotFound : kNotExecutable;
}

}  // namespace sim
