// SPDX-License-Identifier: Apache-2.0
#include "sim_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <utility>

namespace {

struct Pipe {
  base::UniqueFd read_end;
  base::UniqueFd write_end;

  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      throw std::runtime_error("no pipe");
    }
    read_end.Reset(ends[0]);
    write_end.Reset(ends[1]);
  }
};

// Appends what is there to read; at the end of the stream, closes it.
void ReadSome(base::UniqueFd& from, std::string& text) {
  char buffer[4096];
  const ssize_t size = read(from.get(), buffer, sizeof buffer);
  if (size > 0) {
    text.append(buffer, static_cast<std::size_t>(size));
  } else if (size == 0 || errno != EINTR) {
    from.Reset();
  }
}

}  // namespace

SimProcess::SimProcess(const std::vector<std::string>& arguments,
                       const std::function<void()>& prepare) {
  Pipe output;
  Pipe errors;
  std::vector<char*> pointers = {const_cast<char*>("svcmgr-sim")};
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    dup2(output.write_end.get(), STDOUT_FILENO);
    dup2(errors.write_end.get(), STDERR_FILENO);
    if (prepare) {
      prepare();
    }
    execv(SVCMGR_SIM, pointers.data());
    _exit(99);
  }
  output_ = std::move(output.read_end);
  errors_ = std::move(errors.read_end);
}

SimProcess::~SimProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void SimProcess::Signal(int signal) const { kill(pid_, signal); }

std::string SimProcess::Line() {
  std::string line;
  char c = 0;
  while (read(output_.get(), &c, 1) == 1 && c != '\n') {
    line += c;
  }
  return line;
}

int SimProcess::Await() {
  int status = 0;
  if (waitpid(pid_, &status, 0) != pid_) {
    throw std::runtime_error("cannot wait");
  }
  pid_ = -1;
  return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

std::string SimProcess::Output() {
  ReadToTheEndOf(output_);
  return std::exchange(output_text_, {});
}

std::string SimProcess::Errors() {
  ReadToTheEndOf(errors_);
  return std::exchange(errors_text_, {});
}

// Of one output, and meanwhile all of the other: whoever writes more into it than its pipe holds
// would wait for ever.
void SimProcess::ReadToTheEndOf(const base::UniqueFd& output) {
  while (output) {
    std::array<pollfd, 2> pipes = {{{output_.get(), POLLIN, 0}, {errors_.get(), POLLIN, 0}}};
    if (poll(pipes.data(), pipes.size(), -1) < 0) {
      continue;
    }
    if (pipes[0].revents != 0) {
      ReadSome(output_, output_text_);
    }
    if (pipes[1].revents != 0) {
      ReadSome(errors_, errors_text_);
    }
  }
}

Finished RunSim(const std::vector<std::string>& arguments, const std::function<void()>& prepare) {
  SimProcess process(arguments, prepare);
  Finished finished;
  finished.output = process.Output();
  finished.errors = process.Errors();
  finished.status = process.Await();
  return finished;
}
