// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <system_error>
#include <utility>

#include "unique_fd.h"

namespace {

struct Pipe {
  base::UniqueFd read_end;
  base::UniqueFd write_end;
};

void Require(bool worked, const char* what) {
  if (!worked) throw std::system_error(errno, std::generic_category(), what);
}

Pipe MakePipe() {
  int ends[2];
  Require(pipe(ends) == 0, "pipe");
  return {base::UniqueFd(ends[0]), base::UniqueFd(ends[1])};
}

Pipe MakeTerminal(const Start& start) {
  int master = -1;
  int slave = -1;
  const winsize size = {start.rows, start.columns, 0, 0};
  Require(openpty(&master, &slave, nullptr, nullptr, &size) == 0, "openpty");
  return {base::UniqueFd(master), base::UniqueFd(slave)};
}

struct Channels {
  Pipe output;
  Pipe errors;
  Pipe waiting;
};

// Unless told otherwise, every program that ThreadSanitizer watches sleeps for a second at its end.
void ShortenThreadSanitizer() {
  const char* options = std::getenv("TSAN_OPTIONS");
  const std::string before = options == nullptr ? "" : options;
  setenv("TSAN_OPTIONS", (before + ":atexit_sleep_ms=0").c_str(), 1);
}

[[noreturn]] void BecomeProgram(const std::string& script, const Start& start,
                                const Channels& channels) {
  for (const char* name : {"NO_COLOR", "TERM", "VELMORA_LOG_FILE", "VELMORA_LOG_LEVEL"})
    unsetenv(name);
  if (start.terminal) setenv("TERM", "xterm", 1);
  ShortenThreadSanitizer();
  for (const auto& [name, value] : start.environment)
    value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  setenv("SVCMGRCTL_SCRIPT", script.c_str(), 1);
  if (start.signal_when_waiting != 0)
    setenv("SVCMGRCTL_SCRIPT_FD", std::to_string(channels.waiting.write_end.get()).c_str(), 1);
  const int out =
      start.standard_output >= 0 ? start.standard_output : channels.output.write_end.get();
  dup2(out, STDOUT_FILENO);
  dup2(start.terminal ? out : channels.errors.write_end.get(), STDERR_FILENO);
  if (start.no_descriptors)
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(fd);
  if (start.no_file_space) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_FSIZE, &none);
  }
  std::vector<char*> arguments;
  std::string program = start.program;
  arguments.push_back(program.data());
  std::vector<std::string> copies = start.arguments;
  for (std::string& copy : copies) arguments.push_back(copy.data());
  arguments.push_back(nullptr);
  execv(program.c_str(), arguments.data());
  _exit(98);
}

// Appends what there is to read, or closes at the end.
void ReadSome(base::UniqueFd* from, std::string* into) {
  std::array<char, 4096> bytes;
  const ssize_t count = read(from->get(), bytes.data(), bytes.size());
  if (count > 0)
    into->append(bytes.data(), static_cast<std::size_t>(count));
  else if (count == 0 || errno != EINTR)  // a terminal's end is an error, EIO
    from->Reset();
}

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SIGNALS_GET_LOST 1
#endif
#endif

// ThreadSanitizer defers signals, and now and then forgets one on the way into a blocking call. There,
// and nowhere else, a signal is sent again until it has had its effect.
#ifdef SIGNALS_GET_LOST
constexpr int kMillisecondsUntilSentAgain = 500;
#else
constexpr int kMillisecondsUntilSentAgain = -1;
#endif

void ReadToTheEnd(Channels* channels, Ending* ending, const std::function<void()>& send_again,
                  const std::function<void()>& look) {
  base::UniqueFd& output = channels->output.read_end;
  base::UniqueFd& errors = channels->errors.read_end;
  while (output.get() >= 0 || errors.get() >= 0) {
    std::array<pollfd, 2> ready = {
        {{output.get(), POLLIN, 0}, {errors.get(), POLLIN, 0}}};  // poll skips -1
    if (poll(ready.data(), ready.size(), kMillisecondsUntilSentAgain) == 0) send_again();
    if (ready[0].revents != 0) ReadSome(&output, &ending->output);
    look();
    if (ready[1].revents != 0) ReadSome(&errors, &ending->errors);
  }
}

}  // namespace

bool HasTerminals() {
  const base::UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY));
  return terminal.get() >= 0 && grantpt(terminal.get()) == 0 && unlockpt(terminal.get()) == 0;
}

Ending RunWith(const Start& start, const std::string& script) {
  Channels channels = {start.terminal ? MakeTerminal(start) : MakePipe(), MakePipe(), MakePipe()};
  if (start.output_without_reader) channels.output.read_end.Reset();
  const pid_t child = fork();
  Require(child >= 0, "fork");
  if (child == 0) BecomeProgram(script, start, channels);
  for (Pipe* pipe : {&channels.output, &channels.errors, &channels.waiting})
    pipe->write_end.Reset();
  char byte = 0;
  if (start.signal_when_waiting != 0 && read(channels.waiting.read_end.get(), &byte, 1) == 1)
    kill(child, start.signal_when_waiting);
  Ending ending;
  bool interrupted = start.interrupt_when_shown.empty();
  ReadToTheEnd(
      &channels, &ending,
      [&] {
        if (start.signal_when_waiting != 0) kill(child, start.signal_when_waiting);
        if (interrupted && !start.interrupt_when_shown.empty()) kill(child, SIGINT);
      },
      [&] {
        if (interrupted || ending.output.find(start.interrupt_when_shown) == std::string::npos)
          return;
        interrupted = true;
        kill(child, SIGINT);
      });
  int status = 0;
  Require(waitpid(child, &status, 0) == child, "waitpid");
  ending.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  return ending;
}

Ending RunScripted(const std::string& script, std::vector<std::string> arguments) {
  Start start;
  start.arguments = std::move(arguments);
  return RunWith(start, script);
}
