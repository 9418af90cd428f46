// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>

#include "command_line.h"
#include "console.h"
#include "session.h"

namespace svcmgrctl {
namespace {

struct Outcome {
  std::optional<Failure> failure;
  // A thread still uses the library: see Session::HasStuckCall.
  bool stuck = false;
};

template <class Work>
std::optional<Failure> FailureFrom(Work work) {
  try {
    work();
    return std::nullopt;
  } catch (const Failure& failure) {
    return failure;
  } catch (const std::exception& error) {
    return Failure{std::nullopt, "UNFORESEEN", error.what(), kExitFailed};
  }
}

bool LogsToTerminal() {
  const char* file = std::getenv("VELMORA_LOG_FILE");
  return (file == nullptr || *file == '\0') && isatty(STDERR_FILENO) != 0;
}

// The library's records are for developers: a person gets the message of the program. Among JSON
// documents a record makes standard error unreadable for a program, and on a terminal it hides the
// message, so there even a level that somebody else set does not count.
void ChooseLogLevel(const Options& options) {
  constexpr char kLevel[] = "VELMORA_LOG_LEVEL";
  const bool overrules = options.verbose || options.json || LogsToTerminal();
  setenv(kLevel, options.verbose ? "info" : "silent", overrules ? 1 : 0);
}

Outcome Carry(const Command& command, const Options& options, Console* console) {
  Outcome outcome;
  Session session(options.timeout);
  outcome.failure = FailureFrom([&] { command(session, *console); });
  outcome.stuck = session.HasStuckCall();
  return outcome;
}

int Run(int argc, const char* const* argv) {
  Invocation invocation;
  const auto wrong = FailureFrom([&] { ReadCommandLine(argc, argv, &invocation); });
  Console console(invocation.options);
  if (wrong) {
    console.Error(*wrong);
    return wrong->exit;
  }
  Outcome outcome;
  if (invocation.command) {
    ChooseLogLevel(invocation.options);
    outcome = Carry(invocation.command, invocation.options, &console);
  } else {
    console.Text(invocation.text);
  }
  const auto unwritten = FailureFrom([&] { console.Flush(); });
  if (!outcome.failure) outcome.failure = unwritten;
  if (outcome.failure) console.Error(*outcome.failure);
  const int status = outcome.failure ? outcome.failure->exit : kExitDone;
  if (outcome.stuck) _exit(status);
  return status;
}

}  // namespace
}  // namespace svcmgrctl

int main(int argc, char** argv) {
  svcmgrctl::ReserveStandardDescriptors();
  std::signal(SIGPIPE, SIG_IGN);
  return svcmgrctl::Run(argc, argv);
}
