// SPDX-License-Identifier: Apache-2.0
#include "peer_runs.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "bench_world.h"

namespace {

struct Pipe {
  Pipe() { Require(pipe(ends) == 0, "make a pipe"); }
  int ends[2] = {};  // to read from, to write to
};

// `run` never returns.
pid_t StartProcess(const std::function<void()>& run) {
  const pid_t parent = getpid();
  const pid_t pid = fork();
  Require(pid >= 0, "start a process");
  if (pid > 0) return pid;
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) _exit(1);
  run();
  std::fprintf(stderr, "the server has ended\n");
  _exit(1);
}

void EndProcess(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

}  // namespace

PeerRuns ReadPeerRuns(int argc, char** argv, const std::string& ways) {
  const std::string all = "|" + ways + "|";
  if (argc != 5 || all.find("|" + std::string(argv[1]) + "|") == std::string::npos) {
    std::fprintf(stderr, "usage: %s %s KIND TIMES MODELS\n", argv[0], ways.c_str());
    std::exit(2);
  }
  return {argv[1], ReadQueryRuns(argc - 1, argv + 1)};
}

int RunBusPeer(int argc, char** argv, const BusPeer& peer) {
  const auto [way, runs] = ReadPeerRuns(argc, argv, "daemon|direct");
  if (runs.kind == "event") {
    peer.events(runs.queries);
  } else if (way == "daemon") {
    peer.by_daemon(runs);
  } else {
    peer.directly(runs);
  }
  return 0;
}

PeerServer::PeerServer(const std::function<void(const std::function<void()>& ready)>& serve) {
  const Pipe pipe;
  pid_ = StartProcess([&] {
    close(pipe.ends[0]);
    serve([&] {
      Require(write(pipe.ends[1], "", 1) == 1, "say that the server is ready");
      close(pipe.ends[1]);
    });
  });
  close(pipe.ends[1]);
  char byte = 0;
  Require(read(pipe.ends[0], &byte, 1) == 1, "await the server");
  close(pipe.ends[0]);
}

PeerServer::~PeerServer() { EndProcess(pid_); }

SocketFolder::SocketFolder() {
  const char* const parent = std::getenv("TMPDIR");
  folder_ = std::string(parent != nullptr ? parent : "/tmp") + "/svcmgr-peer-XXXXXX";
  Require(mkdtemp(folder_.data()) != nullptr, "make a folder");
}

SocketFolder::~SocketFolder() {
  std::error_code error;
  std::filesystem::remove_all(folder_, error);
}

EventTimes::EventTimes(const std::function<std::function<void()>()>& connect) {
  void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  Require(memory != MAP_FAILED, "share memory");
  shared_ = new (memory) Shared;
  const Pipe pipe;
  ask_ = pipe.ends[1];
  pid_ = StartProcess([&] {
    const std::function<void()> send = connect();
    char byte = 0;
    while (read(pipe.ends[0], &byte, 1) == 1) {
      shared_->sent = Clock::now();
      send();
    }
  });
  close(pipe.ends[0]);
}

EventTimes::~EventTimes() {
  EndProcess(pid_);
  close(ask_);
  munmap(shared_, sizeof(Shared));
}

void EventTimes::Ask() {
  has_arrived_ = false;
  Require(write(ask_, "", 1) == 1, "have an event sent");
}

void EventTimes::Arrived(const char* name, const void* data, std::size_t size) {
  const auto now = Clock::now();
  times_.push_back(now - shared_->sent);
  has_arrived_ = true;
  const std::string sent = EventData();
  Require(std::strcmp(name, kEventName) == 0 && size == sent.size() &&
              std::memcmp(data, sent.data(), size) == 0,
          "know the event again");
}

void EventTimes::Print() const {
  std::printf("%zu\n", times_.size());
  PrintTimes(times_);
}

std::string EventData() { return std::string(kEventBytes, 'e'); }
