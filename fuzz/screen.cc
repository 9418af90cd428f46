// SPDX-License-Identifier: Apache-2.0
#include "screen.h"

#include <glib.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <utility>
#include <vector>

#include "require.h"
#include "terminal_characters.h"
#include "terminal_text.h"

// Visible, because a sanitizer's library names some of them, too.
#pragma GCC visibility push(default)
extern "C" {
ssize_t __real_write(int fd, const void* bytes, size_t size);
int __real_isatty(int fd);
int __real_ioctl(int fd, unsigned long request, ...);
int __real_poll(pollfd* fds, nfds_t count, int timeout);

ssize_t __wrap_write(int fd, const void* bytes, size_t size);
int __wrap_isatty(int fd);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __wrap_poll(pollfd* fds, nfds_t count, int timeout);
}
#pragma GCC visibility pop

namespace screen {
namespace {

struct {
  bool in_use = false;
  Kind kind = Kind::kPipe;
  winsize size = {};
  std::string output;
  std::string errors;
} state;

bool IsMine(int fd) { return state.in_use && (fd == STDOUT_FILENO || fd == STDERR_FILENO); }

// The number of lines that a sequence at the front erases, 0 if it is none, and its length.
std::pair<std::size_t, std::size_t> EraseAt(std::string_view text) {
  constexpr std::string_view kBegin = "\x1b[";
  constexpr std::string_view kEnd = "A\r\x1b[J";
  if (!text.starts_with(kBegin)) return {};
  std::size_t lines = 0;
  std::size_t at = kBegin.size();
  for (; at < text.size() && g_ascii_isdigit(text[at]) && lines < 100000; ++at)
    lines = lines * 10 + static_cast<std::size_t>(text[at] - '0');
  if (!text.substr(at).starts_with(kEnd)) return {};
  return {lines, at + kEnd.size()};
}

// Where a terminal does not know its width, the usual one is taken.
std::size_t Columns() { return state.size.ws_col == 0 ? 80 : state.size.ws_col; }

// Without the line feed at its end.
std::size_t CellsOf(std::string_view line) {
  return terminal_text::CellWidth(WithoutColors(line.substr(0, line.size() - 1)));
}

}  // namespace

void Use(Kind kind, unsigned short columns, unsigned short rows) {
  static const int environment = setenv("TERM", "xterm", 1) + unsetenv("NO_COLOR");
  REQUIRE(environment == 0);
  state.kind = kind;
  state.size = {rows, columns, 0, 0};
  state.output.clear();
  state.errors.clear();
  state.in_use = true;
}

void Leave() { state.in_use = false; }

const std::string& Output() { return state.output; }

std::string TakeOutput() { return std::exchange(state.output, {}); }
std::string TakeErrors() { return std::exchange(state.errors, {}); }

bool IsPlain(std::string_view text, Characters characters) {
  if (g_utf8_validate_len(text.data(), text.size(), nullptr) == FALSE) return false;
  const char* const end = text.data() + text.size();
  for (const char* at = text.data(); at < end; at = g_utf8_next_char(at)) {
    const gunichar c = g_utf8_get_char(at);
    if (c != '\n' && base::IsUnsafeOnTerminal(c)) return false;
    if (c > '~' && characters == Characters::kAscii) return false;
  }
  return true;
}

std::string WithoutColors(std::string_view text) {
  static constexpr std::string_view kColors[] = {"\x1b[0m", "\x1b[1m", "\x1b[31m", "\x1b[32m"};
  std::string plain;
  while (!text.empty()) {
    const auto* const color =
        std::find_if(std::begin(kColors), std::end(kColors),
                     [&](std::string_view each) { return text.starts_with(each); });
    if (color == std::end(kColors)) plain += text.front();
    text.remove_prefix(color == std::end(kColors) ? 1 : color->size());
  }
  return plain;
}

std::string Shown(std::string_view output) {
  std::vector<std::string> lines;
  while (!output.empty()) {
    if (const auto [erased, length] = EraseAt(output); length > 0) {
      REQUIRE(erased > 0 && erased <= lines.size());
      for (std::size_t i = 0; i < erased; ++i, lines.pop_back())
        REQUIRE(CellsOf(lines.back()) < Columns());
      output.remove_prefix(length);
      continue;
    }
    const std::size_t end = std::min(output.find('\n'), output.size() - 1) + 1;
    lines.emplace_back(output.substr(0, end));
    output.remove_prefix(end);
  }
  std::string shown;
  for (const std::string& line : lines) shown += line;
  return shown;
}

}  // namespace screen

using screen::state;

ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
  if (!screen::IsMine(fd)) return __real_write(fd, bytes, size);
  (fd == STDOUT_FILENO ? state.output : state.errors).append(static_cast<const char*>(bytes), size);
  return static_cast<ssize_t>(size);
}

int __wrap_isatty(int fd) {
  if (!screen::IsMine(fd)) return __real_isatty(fd);
  return state.kind == screen::Kind::kTerminal ? 1 : 0;
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
  std::va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (!screen::IsMine(fd) || request != TIOCGWINSZ) return __real_ioctl(fd, request, argument);
  if (state.kind != screen::Kind::kTerminal) return -1;
  *static_cast<winsize*>(argument) = state.size;
  return 0;
}

// Whoever reads takes all at once.
int __wrap_poll(pollfd* fds, nfds_t count, int timeout) {
  if (count != 1 || !screen::IsMine(fds->fd)) return __real_poll(fds, count, timeout);
  fds->revents = fds->events;
  return 1;
}
