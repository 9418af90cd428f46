// SPDX-License-Identifier: Apache-2.0
#include "sink.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "time_text.h"

namespace dlog_desktop {
namespace {

constexpr size_t kBufferSize = 64 * 1024;
constexpr int64_t kOldestBufferedMs = 200;

struct Sink {
  int fd = STDERR_FILENO;
  bool is_file = false;
  bool keeps_colour = false;
};

// Both are set before the first record is written, and read without a lock.
Sink sink;
pid_t pid = 0;

// Guards the records that wait for a write to the file.
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
char buffer[kBufferSize];
size_t buffered = 0;
int64_t oldest_buffered_ms = 0;
bool exiting = false;

int64_t CoarseMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// A way to the sink that never waits. Other processes may share standard error, so that it cannot
// be made non-blocking itself.
class Outlet {
 public:
  Outlet() : fd_(sink.fd) {
    struct stat about;
    if (sink.is_file || fstat(fd_, &about) != 0) return;
    is_socket_ = S_ISSOCK(about.st_mode);
    may_block_ = S_ISFIFO(about.st_mode) || (S_ISCHR(about.st_mode) && isatty(fd_));
    if (!may_block_) return;
    constexpr char kStandardError[] = "/proc/self/fd/2";
    anew_ = open(kStandardError, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (anew_ >= 0) fd_ = anew_;
  }
  ~Outlet() {
    if (anew_ >= 0) close(anew_);
  }
  Outlet(const Outlet&) = delete;
  Outlet& operator=(const Outlet&) = delete;

  // Like write, with EAGAIN where that would wait.
  ssize_t Write(std::string_view text) const {
    if (is_socket_) return send(fd_, text.data(), text.size(), MSG_DONTWAIT);
    if (!may_block_ || anew_ >= 0) return write(fd_, text.data(), text.size());
    // What cannot be reopened, say another user's pipe, takes this much at once if it is ready.
    if (WaitUntilReady(0)) return write(fd_, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
    errno = EAGAIN;
    return -1;
  }

  bool WaitUntilReady(int64_t ms) const {
    pollfd writable = {fd_, POLLOUT, 0};
    return poll(&writable, 1, static_cast<int>(ms)) > 0;
  }

 private:
  int fd_;
  int anew_ = -1;
  bool is_socket_ = false;
  bool may_block_ = false;
};

// What could not be written.
std::atomic<uint64_t> lost_records{0};
// The sink has taken nothing since a record was given up: the next ones are not waited for.
std::atomic<bool> sink_is_stuck{false};
// The last line that was written has no end.
std::atomic<bool> line_is_cut{false};

// Returns how much was written: all, unless writing fails or the sink takes nothing for a while.
size_t WriteAll(const Outlet& outlet, std::string_view text) {
  constexpr int64_t kPatienceMs = 100;
  size_t done = 0;
  int64_t give_up_at = 0;
  while (done < text.size()) {
    const ssize_t written = outlet.Write(text.substr(done));
    if (written >= 0) {
      done += static_cast<size_t>(written);
      sink_is_stuck = false;
      give_up_at = 0;
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) break;
    const int64_t now = CoarseMs();
    if (give_up_at == 0) give_up_at = now + (sink_is_stuck ? 0 : kPatienceMs);
    if (now >= give_up_at) {
      sink_is_stuck = true;
      break;
    }
    outlet.WaitUntilReady(give_up_at - now);
  }
  if (done > 0) line_is_cut = text[done - 1] != '\n';
  return done;
}

bool WriteNotice(const Outlet& outlet, uint64_t lost) {
  TimeText time;
  char notice[160];
  const int size = snprintf(
      notice, sizeof notice, "%s%.*s W DLOG %d: Lost %llu record%s that could not be written\n",
      line_is_cut ? "\n" : "", static_cast<int>(time.text().size()), time.text().data(),
      static_cast<int>(pid), static_cast<unsigned long long>(lost), lost == 1 ? "" : "s");
  const std::string_view text(notice, static_cast<size_t>(size));
  return WriteAll(outlet, text) == text.size();
}

// Writes whole records, each a line, after a notice of those that were lost before.
int WriteRecords(std::string_view records) {
  const Outlet outlet;
  const uint64_t lost = lost_records.exchange(0);
  size_t written = 0;
  if (lost == 0 || WriteNotice(outlet, lost)) {
    written = WriteAll(outlet, records);
  } else {
    lost_records += lost;
  }
  if (written == records.size()) return 0;
  const std::string_view rest = records.substr(written);
  lost_records += static_cast<uint64_t>(std::count(rest.begin(), rest.end(), '\n'));
  return -EIO;
}

int Flush() {
  const size_t size = buffered;
  buffered = 0;
  return WriteRecords({buffer, size});
}

int WriteBuffered(log_priority prio, std::string_view record) {
  Lock lock;
  const int64_t now = CoarseMs();
  const bool old = buffered > 0 && now - oldest_buffered_ms >= kOldestBufferedMs;
  int result = 0;
  if (buffered + record.size() > kBufferSize) result = Flush();
  if (record.size() > kBufferSize) return WriteRecords(record);
  if (buffered == 0) oldest_buffered_ms = now;
  memcpy(buffer + buffered, record.data(), record.size());
  buffered += record.size();
  if (prio >= DLOG_ERROR || old || exiting) result = Flush();
  return result;
}

// A pipe would block the process, at once or when its reader falls behind.
bool IsFileOrCharacterDevice(int fd) {
  struct stat about;
  return fstat(fd, &about) == 0 && (S_ISREG(about.st_mode) || S_ISCHR(about.st_mode));
}

// A terminal of unknown type may know no escape sequence.
bool IsCleverTerminal(int fd) {
  const char* name = secure_getenv("TERM");
  return name && *name && strcmp(name, "dumb") != 0 && isatty(fd);
}

void LockForFork() { pthread_mutex_lock(&mutex); }
void UnlockInParent() { pthread_mutex_unlock(&mutex); }

// The buffered records are the parent's to write, and the lost ones its to report.
void UnlockInChild() {
  buffered = 0;
  lost_records = 0;
  pid = getpid();
  pthread_mutex_unlock(&mutex);
}

// Runs before there can be a second thread, so that even a fork during the first record handles the
// lock.
__attribute__((constructor)) void PrepareForFork() {
  pthread_atfork(LockForFork, UnlockInParent, UnlockInChild);
}

// Later records, from other libraries' destructors, are written at once.
__attribute__((destructor)) void FlushAtExit() {
  Lock lock;
  if (buffered > 0) Flush();
  exiting = true;
}

}  // namespace

Lock::Lock() { pthread_mutex_lock(&mutex); }
Lock::~Lock() { pthread_mutex_unlock(&mutex); }

void OpenSink() {
  const char* path = secure_getenv("VELMORA_LOG_FILE");
  if (path && *path) {
    const int fd =
        open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0644);
    if (fd >= 0 && IsFileOrCharacterDevice(fd)) {
      sink = {fd, true, false};
    } else if (fd >= 0) {
      close(fd);
    }
  }
  const char* no_colour = secure_getenv("NO_COLOR");
  sink.keeps_colour = !(no_colour && *no_colour) && IsCleverTerminal(sink.fd);
  pid = getpid();
}

bool SinkKeepsColour() { return sink.keeps_colour; }
pid_t ProcessId() { return pid; }

int WriteToSink(log_priority prio, std::string_view line) {
  // One write outputs the whole line: no lock is needed.
  return sink.is_file ? WriteBuffered(prio, line) : WriteRecords(line);
}

}  // namespace dlog_desktop
