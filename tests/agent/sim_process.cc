// SPDX-License-Identifier: Apache-2.0
#include "sim_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

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

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t size = read(fd, buffer, sizeof buffer);
    if (size > 0) {
      text.append(buffer, static_cast<std::size_t>(size));
    } else if (size == 0 || errno != EINTR) {
      return text;
    }
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

std::string SimProcess::Output() { return ReadAll(output_.get()); }
std::string SimProcess::Errors() { return ReadAll(errors_.get()); }

Finished RunSim(const std::vector<std::string>& arguments, const std::function<void()>& prepare) {
  SimProcess process(arguments, prepare);
  Finished finished;
  finished.output = process.Output();
  finished.errors = process.Errors();
  finished.status = process.Await();
  return finished;
}
