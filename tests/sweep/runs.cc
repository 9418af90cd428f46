// SPDX-License-Identifier: Apache-2.0
#include "runs.h"

#include <execinfo.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <new>
#include <stdexcept>
#include <utility>

#include "places.h"

namespace sweep {
namespace {

/** A client that has done nothing for this long will do nothing more. */
constexpr int kHangSeconds = 60;

/** In place of a status from waitpid. */
constexpr int kHung = -1;

void RestoreSignals() {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

/** Waits for a client's end; true if it had to be ended because it hung. */
bool AwaitEnd(pid_t client, const RunRecord& record) {
  const auto process = static_cast<int>(syscall(SYS_pidfd_open, client, 0));
  if (process < 0) throw std::runtime_error("no descriptor for a process");
  constexpr int kSecond = 1000;
  long before = -1;
  int quiet = 0;
  pollfd ended = {process, POLLIN, 0};
  while (poll(&ended, 1, kSecond) == 0 && quiet < kHangSeconds) {
    const long progress = record.progress + record.failures.counted;
    quiet = progress == before ? quiet + 1 : 0;
    before = progress;
  }
  const bool hung = (ended.revents & POLLIN) == 0;
  if (hung) {
    // Its handler tells where it stood.
    kill(client, SIGQUIT);
    if (poll(&ended, 1, 5 * kSecond) == 0) kill(client, SIGKILL);
  }
  close(process);
  return hung;
}

/** Where a signal came from: past its handler, the kernel's call of that, raise and abort. */
const void* Interrupted(const Stack& stack) {
  int frame = 2;
  // With 32 bits a system call returns through the kernel's own library.
  while (frame < stack.depth &&
         (IsIn(stack.frames[frame], "libc.so") || IsIn(stack.frames[frame], "linux-gate.so")))
    ++frame;
  return frame < stack.depth ? stack.frames[frame] : nullptr;
}

/** Whether GLib asked for one of the allocations that failed. */
bool GlibWentWithout(const Failures& failures) {
  const long count = std::min<long>(failures.failed, Failures::kMostCallers);
  return std::any_of(failures.callers, failures.callers + count,
                     [](const void* caller) { return IsIn(caller, "libglib-2.0."); });
}

}  // namespace

Runs::Runs(Plant plant) : plant_(plant) {
  void* const memory =
      mmap(nullptr, sizeof(RunRecord), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  errors_ = memfd_create("errors", MFD_CLOEXEC);
  if (memory == MAP_FAILED || errors_ < 0) throw std::bad_alloc();
  record_ = new (memory) RunRecord;
  // What a first stack needs is loaded here, so that no client's allocation is spent on it.
  Stack first;
  first.Capture();
}

Runs::~Runs() {
  munmap(record_, sizeof(RunRecord));
  close(errors_);
}

int Runs::Start(const Injection& injection, void* kept_caller) {
  new (record_) RunRecord;
  if (ftruncate(errors_, 0) != 0 || lseek(errors_, 0, SEEK_SET) != 0) {
    throw std::runtime_error("no place for a client's errors");
  }
  fflush(nullptr);
  const pid_t client = fork();
  if (client < 0) throw std::runtime_error("cannot fork");
  if (client == 0) {
    RestoreSignals();
    dup2(errors_, STDERR_FILENO);
    exit(RunClient(injection, plant_, kept_caller, record_));
  }
  const bool hung = AwaitEnd(client, *record_);
  int status = 0;
  if (waitpid(client, &status, 0) != client) throw std::runtime_error("cannot wait");
  return hung ? kHung : status;
}

std::string Runs::Errors() const {
  constexpr off_t kMost = 2000;
  const off_t size = lseek(errors_, 0, SEEK_END);
  const off_t begin = std::max<off_t>(0, size - kMost);
  std::string text(static_cast<std::size_t>(std::max<off_t>(0, size - begin)), '\0');
  const ssize_t count = pread(errors_, text.data(), text.size(), begin);
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(0, count)));
  return text;
}

Judgement Runs::JudgeDeath() const {
  const Stack& death = record_->death;
  const int signal = record_->death_signal;
  const std::string during = std::string(" while ") + record_->failures.doing;
  const bool deliberate = signal == SIGABRT || signal == SIGTRAP;
  const bool by_glib = IsIn(Interrupted(death), "libglib-2.0.");
  const bool says_so = Errors().find(": failed to allocate ") != std::string::npos;
  if (deliberate && by_glib && (GlibWentWithout(record_->failures) || says_so)) {
    return {Verdict::kGlibAbort, "", {}};
  }
  if (signal == SIGABRT && IsOf(Interrupted(death), "velmora_svcmgr_get_client_api_level")) {
    return {Verdict::kAssertion, "", {}};
  }
  return {Verdict::kFailed, std::string("dies of ") + strsignal(signal) + during, Describe(death)};
}

Judgement Runs::Judge(int status) const {
  if (status == kHung) {
    return {Verdict::kFailed, std::string("hangs in ") + record_->failures.doing,
            Describe(record_->death)};
  }
  if (record_->death_signal != 0) return JudgeDeath();
  if (record_->ending == Ending::kFailed) return {Verdict::kFailed, record_->why, {}};
  if (WIFSIGNALED(status)) {
    return {Verdict::kFailed, std::string("dies of ") + strsignal(WTERMSIG(status)), {}};
  }
  if (record_->ending == Ending::kNone || status != 0) {
    return {Verdict::kFailed, "ends with the status " + std::to_string(WEXITSTATUS(status)), {}};
  }
  return {};
}

Outcome Runs::Tell(Judgement judgement) const {
  Outcome outcome;
  outcome.judgement = std::move(judgement);
  outcome.injected = record_->failures.failed > 0;
  outcome.allocation = record_->failures.first;
  outcome.last_allocation = record_->failures.last;
  outcome.doing = record_->failures.first_doing;
  outcome.lost = record_->lost;
  outcome.stranded = record_->stranded;
  outcome.errors = Errors();
  return outcome;
}

/**
 * A place that has more living blocks than in the reference; null if there is none. Other libraries
 * may ask for what they keep at one place instead of another: for them the sum counts.
 */
void* Runs::PlaceWithMoreBlocks() const {
  struct Change {
    long blocks = 0;
    long most = 0;
    void* where = nullptr;
  };
  std::map<const void*, long> here;
  for (int i = 0; i < record_->place_count; ++i) {
    here[record_->places[i].caller] += record_->places[i].blocks;
  }
  for (const LiveBlocks& usual : reference_.places) here[usual.caller] -= usual.blocks;
  std::map<const void*, Change> changes;
  for (const auto& [caller, blocks] : here) {
    Change& change = changes[IsOfThisTree(caller) ? caller : LibraryOf(caller)];
    change.blocks += blocks;
    if (blocks <= change.most) continue;
    change.most = blocks;
    change.where = const_cast<void*>(caller);
  }
  for (const auto& [key, change] : changes) {
    if (change.blocks > 0) return change.where;
  }
  return nullptr;
}

Judgement Runs::JudgeWhatIsLeft(const Injection& injection) {
  // What a client had just been sent when it ended may be left once, but not again and again.
  constexpr int kTimes = 3;
  Judgement judgement;
  for (int i = 0; i < kTimes; ++i) {
    if (record_->ending != Ending::kPassed || record_->stranded) return {};
    const int more = record_->descriptors - reference_.descriptors;
    void* const place = PlaceWithMoreBlocks();
    if (more <= 0 && place == nullptr) return {};
    Start(injection, place);
    judgement = {Verdict::kFailed,
                 more > 0 ? "leaves " + std::to_string(more) + " descriptors open"
                          : "leaves blocks allocated",
                 Describe(record_->kept)};
  }
  return judgement;
}

Outcome Runs::Measure(From from) {
  const int status = Start({from, 0, 0}, nullptr);
  reference_ = {record_->descriptors, {record_->places, record_->places + record_->place_count}};
  return Tell(Judge(status));
}

Outcome Runs::Run(const Injection& injection) {
  const int status = Start(injection, nullptr);
  Outcome outcome = Tell(Judge(status));
  if (outcome.judgement.verdict == Verdict::kPassed) {
    outcome.judgement = JudgeWhatIsLeft(injection);
  }
  return outcome;
}

}  // namespace sweep
