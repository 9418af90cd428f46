// SPDX-License-Identifier: Apache-2.0
// A command for svcmgr-sim run that shows what happens to it.
//
//   sim_command signals   prints "ready", then each signal that comes; ends with 40 at SIGTERM
//   sim_command hold      prints its process ID and waits for good, deaf to what can be ignored
//   sim_command linger    leaves such a process behind and ends with 3

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace {

int ShowSignals() {
  sigset_t shown;
  sigemptyset(&shown);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    sigaddset(&shown, signal);
  }
  sigprocmask(SIG_BLOCK, &shown, nullptr);
  std::printf("ready\n");
  std::fflush(stdout);
  for (;;) {
    int signal = 0;
    if (sigwait(&shown, &signal) != 0) {
      return 1;
    }
    std::printf("%d\n", signal);
    std::fflush(stdout);
    if (signal == SIGTERM) {
      return 40;
    }
  }
}

int Hold() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    ::signal(signal, SIG_IGN);
  }
  std::printf("%d\n", static_cast<int>(getpid()));
  std::fflush(stdout);
  for (;;) {
    pause();
  }
}

int Linger() {
  int ends[2];
  if (pipe(ends) != 0) {
    return 1;
  }
  const pid_t child = fork();
  if (child == 0) {
    // It stands in the world's folder and keeps a file open there.
    const char* folder = getenv("VELMORA_RUNTIME_DIR");
    std::FILE* file = nullptr;
    if (folder != nullptr && chdir(folder) == 0) {
      file = std::fopen("held", "w");
    }
    const bool told = write(ends[1], "r", 1) == 1;
    return file == nullptr || !told ? 1 : Hold();
  }
  char byte = 0;
  return child > 0 && read(ends[0], &byte, 1) == 1 ? 3 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const char* word = argc == 2 ? argv[1] : "";
  if (std::strcmp(word, "signals") == 0) {
    return ShowSignals();
  }
  if (std::strcmp(word, "hold") == 0) {
    return Hold();
  }
  return std::strcmp(word, "linger") == 0 ? Linger() : 2;
}
