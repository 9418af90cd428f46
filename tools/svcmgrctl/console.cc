// SPDX-License-Identifier: Apache-2.0
#include "console.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "table.h"
#include "terminal_text.h"

namespace svcmgrctl {
namespace {

using terminal_text::ForTerminal;
using terminal_text::Shortened;

/** Of a variable of the environment; empty if it is not set. */
std::string_view ValueOf(const char* variable) {
  const char* value = std::getenv(variable);
  return value == nullptr ? "" : value;
}

// One that does not say what it is may know no escape sequence.
bool IsCleverTerminal(int fd) {
  return isatty(fd) != 0 && !ValueOf("TERM").empty() && ValueOf("TERM") != "dumb";
}

bool UseColor(ColorWhen when, int fd) {
  if (when != ColorWhen::kAuto) return when == ColorWhen::kAlways;
  return ValueOf("NO_COLOR").empty() && IsCleverTerminal(fd);
}

Space SizeOfTerminal() {
  winsize size = {};
  Space found;
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return found;
  if (size.ws_row > 0) found.rows = size.ws_row;
  if (size.ws_col > 0) found.columns = size.ws_col;
  return found;
}

// From the line below what was drawn to its first line, of which nothing is left.
std::string Erase(std::size_t lines) {
  return lines == 0 ? "" : "\x1b[" + std::to_string(lines) + "A\r\x1b[J";
}

Failure WriteFailure(int error) {
  return {std::nullopt, "WRITE_FAILED",
          "cannot write to standard output: " + std::generic_category().message(error),
          kExitFailed};
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
  const std::string remedy = RemedyFor(failure);
  return {{"code", failure.code ? Json(*failure.code) : Json()},
          {"name", failure.name},
          {"message", Shortened(failure.message)},
          {"exit", static_cast<int>(failure.exit)},
          {"remedy", remedy.empty() ? Json() : Json(remedy)}};
}

Console::Console(const Options& options)
    : json_(options.json),
      verbose_(options.verbose),
      quiet_(options.quiet),
      cuts_tables_(!options.no_trunc && isatty(STDOUT_FILENO) != 0),
      timeout_(options.timeout),
      selection_(options.selection),
      live_(!options.json && !options.quiet && !selection_ && IsCleverTerminal(STDOUT_FILENO)),
      out_color_(UseColor(options.color, STDOUT_FILENO)),
      err_color_(UseColor(options.color, STDERR_FILENO)) {}

void Console::Data(const Json& json, std::string_view text, const Json& records) {
  if (json_)
    kept_ += Dump(json, 2);
  else if (selection_)
    kept_ += selection_->Print(records, out_color_, table_width());
  else
    kept_ += text;
}

void Console::Line(const Json& json, std::string_view text) {
  if (json_) {
    kept_ += Dump(json, -1);
  } else if (selection_) {
    kept_ += selection_->Line(json);
  } else if (!text.empty()) {
    Draw({});
    kept_ += std::string(text) + "\n";
  }
  WriteLeftovers();
}

void Console::Draw(std::vector<std::string> lines) {
  if (!live_) return;
  // A line that fills the last column would wrap on some terminals.
  const std::size_t width = SizeOfTerminal().columns - 1;
  if (width == 0) lines.clear();
  if (lines == drawn_) return;
  WriteLeftovers();
  // A terminal that lags behind gets fewer pictures, not a queue of them.
  if (!kept_.empty() && !lines.empty()) return;
  kept_ += Erase(drawn_.size());
  for (const std::string& line : lines) kept_ += FirstPaintedCells(line, width) + "\n";
  drawn_ = std::move(lines);
  WriteLeftovers();
}

std::size_t Console::table_width() const { return cuts_tables_ ? SizeOfTerminal().columns : 0; }

std::size_t Console::text_width() const {
  return live_ ? std::clamp(SizeOfTerminal().columns - 1, std::size_t{1}, kWidestText) : 0;
}

Space Console::TerminalSpace() const { return SizeOfTerminal(); }

void Console::WriteLeftovers() {
  // So little never blocks once there is space at all, in a pipe neither.
  constexpr std::size_t kPiece = PIPE_BUF;
  pollfd ready = {STDOUT_FILENO, POLLOUT, 0};
  while (!kept_.empty() && poll(&ready, 1, 0) > 0) {
    const ssize_t written = write(STDOUT_FILENO, kept_.data(), std::min(kPiece, kept_.size()));
    if (written >= 0) {
      kept_.erase(0, static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      has_reader_ = false;
      kept_.clear();
    } else if (errno == EAGAIN) {
      return;
    } else if (const int error = errno; error != EINTR) {
      kept_.clear();
      throw WriteFailure(error);
    }
  }
}

void Console::Note(std::string_view message) const {
  if (!json_ && !quiet_)
    WriteAll(STDERR_FILENO, "svcmgrctl: " + ForTerminal(Shortened(message)) + "\n");
}

void Console::Error(const Failure& failure) const {
  if (json_) {
    WriteAll(STDERR_FILENO, Dump({{"error", ToJson(failure)}}, -1));
    return;
  }
  std::string line = "svcmgrctl: " + Painted("error:", Tone::kBad, err_color_) + " " +
                     ForTerminal(Shortened(failure.message));
  if (const std::string remedy = RemedyFor(failure); !remedy.empty())
    line += "; " + ForTerminal(Shortened(remedy));
  if (failure.code) line += " (" + failure.name + ")";
  WriteAll(STDERR_FILENO, line + "\n");
}

void Console::Flush() {
  const int error = WriteAll(STDOUT_FILENO, std::exchange(kept_, {}));
  if (error == 0 || error == EPIPE) return;
  throw WriteFailure(error);
}

void ReserveStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    // The lowest free number is taken, which is this one. The wrong direction keeps uses failing.
    if (open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) == -1) return;
  }
}

}  // namespace svcmgrctl
