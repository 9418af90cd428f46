// SPDX-License-Identifier: Apache-2.0
#include "console.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "table.h"
#include "text.h"

namespace svcmgrctl {
namespace {

bool IsSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool UseColor(ColorWhen when, int fd) {
  if (when != ColorWhen::kAuto) return when == ColorWhen::kAlways;
  if (IsSet("NO_COLOR") || isatty(fd) == 0) return false;
  const char* terminal = std::getenv("TERM");
  return terminal == nullptr || std::string_view(terminal) != "dumb";
}

// Returns 0 or an errno value.
int WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      // Somebody who shares the descriptor made it non-blocking.
      pollfd waiting = {fd, POLLOUT, 0};
      poll(&waiting, 1, -1);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

// ASCII only: no text can reach the terminal as anything but its escaped self.
std::string Dump(const Json& json, int indent) {
  return json.dump(indent, ' ', true, Json::error_handler_t::replace) + "\n";
}

}  // namespace

Json ToJson(const Failure& failure) {
  return {{"code", failure.code ? Json(*failure.code) : Json()},
          {"name", failure.name},
          {"message", failure.message},
          {"exit", static_cast<int>(failure.exit)}};
}

Console::Console(const Options& options)
    : json_(options.json),
      out_color_(UseColor(options.color, STDOUT_FILENO)),
      err_color_(UseColor(options.color, STDERR_FILENO)) {}

void Console::Data(const Json& json, std::string_view text) {
  if (json_)
    kept_ += Dump(json, 2);
  else
    kept_ += text;
}

void Console::Note(std::string_view message) const {
  if (!json_) WriteAll(STDERR_FILENO, "svcmgrctl: " + ForTerminal(message) + "\n");
}

void Console::Error(const Failure& failure) const {
  if (json_) {
    WriteAll(STDERR_FILENO, Dump({{"error", ToJson(failure)}}, -1));
    return;
  }
  std::string line = "svcmgrctl: " + Painted("error:", Tone::kBad, err_color_) + " " +
                     ForTerminal(failure.message);
  if (failure.code) line += " (" + failure.name + ")";
  WriteAll(STDERR_FILENO, line + "\n");
}

void Console::Flush() {
  const int error = WriteAll(STDOUT_FILENO, std::exchange(kept_, {}));
  if (error == 0 || error == EPIPE) return;
  throw Failure{std::nullopt, "WRITE_FAILED",
                "cannot write to standard output: " + std::generic_category().message(error),
                kExitFailed};
}

void ReserveStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    // The lowest free number is taken, which is this one. The wrong direction keeps uses failing.
    if (open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) == -1) return;
  }
}

}  // namespace svcmgrctl
