// SPDX-License-Identifier: Apache-2.0
#include "dlog.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

namespace {

constexpr size_t kLongestMessage = 64 * 1024;
constexpr size_t kLongestTag = 256;
constexpr char kCutMark[] = " [cut]";
constexpr char kColourReset[] = "\x1b[0m";
constexpr size_t kBufferSize = 64 * 1024;
constexpr int64_t kOldestBufferedMs = 200;
constexpr char kLetters[] = "??VDIWEFS";

// Records below it are dropped; unset until the first record has read the environment.
constexpr int kUnset = -1;
std::atomic<int> threshold{kUnset};

struct Sink {
  int fd = STDERR_FILENO;
  bool is_file = false;
  bool keeps_colour = false;
};

// Both are settled before the threshold is, and read without a lock.
Sink sink;
pid_t pid = 0;

// Guards the records that wait for a write to the file.
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
char buffer[kBufferSize];
size_t buffered = 0;
int64_t oldest_buffered_ms = 0;
bool exiting = false;

class Lock {
 public:
  Lock() { pthread_mutex_lock(&mutex); }
  ~Lock() { pthread_mutex_unlock(&mutex); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
};

// Logging leaves errno alone, so that it may stand between a failure and its handling.
class ErrnoKeeper {
 public:
  ~ErrnoKeeper() { errno = saved_; }

 private:
  const int saved_ = errno;
};

int64_t CoarseMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Calendar date of a day counted from 1970-01-01. The C library's functions take a lock that a
// child forked from a threaded process may find held.
void DateOfDay(int64_t day, int* year, int* month, int* day_of_month) {
  // Counted from 0000-03-01, so that the leap day ends a year, in eras of 400 years.
  constexpr int64_t kDaysBefore1970 = 719468;
  constexpr int64_t kDaysPerEra = 146097;
  const int64_t era = (day + kDaysBefore1970) / kDaysPerEra;
  const int64_t of_era = (day + kDaysBefore1970) % kDaysPerEra;
  const int64_t year_of_era =
      (of_era - of_era / 1460 + of_era / 36524 - of_era / (kDaysPerEra - 1)) / 365;
  const int64_t of_year = of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const int64_t from_march = (5 * of_year + 2) / 153;
  *day_of_month = static_cast<int>(of_year - (153 * from_march + 2) / 5 + 1);
  *month = static_cast<int>(from_march < 10 ? from_march + 3 : from_march - 9);
  *year = static_cast<int>(era * 400 + year_of_era + (*month <= 2 ? 1 : 0));
}

// The time now, "2026-01-31T23:59:59.999Z".
class TimeText {
 public:
  TimeText() {
    // A burst of records shares its second. Memory that a thread has from its start: to get it later
    // can fail, which would abort the process.
    __attribute__((tls_model("initial-exec"))) static thread_local time_t last_second;
    __attribute__((tls_model("initial-exec"))) static thread_local char last_text[kSecondsSize];
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != last_second || last_text[0] == '\0') {
      last_second = now.tv_sec;
      int year, month, day;
      DateOfDay(now.tv_sec / 86400, &year, &month, &day);
      const int second = static_cast<int>(now.tv_sec % 86400);
      snprintf(last_text, sizeof last_text, "%04d-%02d-%02dT%02d:%02d:%02d", year, month, day,
               second / 3600, second / 60 % 60, second % 60);
    }
    const int ms = static_cast<int>(now.tv_nsec / 1000000);
    const char fraction[] = {'.', static_cast<char>('0' + ms / 100),
                             static_cast<char>('0' + ms / 10 % 10),
                             static_cast<char>('0' + ms % 10), 'Z'};
    const size_t seconds = strlen(last_text);
    memcpy(space_, last_text, seconds);
    memcpy(space_ + seconds, fraction, sizeof fraction);
    size_ = seconds + sizeof fraction;
  }

  std::string_view text() const { return {space_, size_}; }

 private:
  static constexpr size_t kSecondsSize = 48;
  char space_[kSecondsSize + 8];
  size_t size_;
};

// The way to the sink, which never waits. Standard error may be other processes', too, so that it cannot
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

  // As write, with EAGAIN where that would wait.
  ssize_t Write(std::string_view text) const {
    if (is_socket_) return send(fd_, text.data(), text.size(), MSG_DONTWAIT);
    if (!may_block_ || anew_ >= 0) return write(fd_, text.data(), text.size());
    // What cannot be opened anew, say another user's pipe, takes this much at once if it is ready.
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

// Returns how much was written: all, but for an error, or a sink that takes nothing for a while.
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

int ThresholdFromEnvironment() {
  static constexpr struct {
    const char* name;
    int level;
  } kLevels[] = {
      {"verbose", DLOG_VERBOSE}, {"debug", DLOG_DEBUG}, {"info", DLOG_INFO},
      {"warn", DLOG_WARN},       {"error", DLOG_ERROR}, {"fatal", DLOG_FATAL},
      {"silent", DLOG_SILENT},
  };
  const char* name = secure_getenv("VELMORA_LOG_LEVEL");
  for (const auto& level : kLevels) {
    if (name && strcmp(name, level.name) == 0) return level.level;
  }
  return DLOG_WARN;
}

// A pipe would hold the process up, at once or when its reader falls behind.
bool IsFileOrCharacterDevice(int fd) {
  struct stat about;
  return fstat(fd, &about) == 0 && (S_ISREG(about.st_mode) || S_ISCHR(about.st_mode));
}

// One that does not say what it is may know no escape sequence.
bool IsCleverTerminal(int fd) {
  const char* name = secure_getenv("TERM");
  return name && *name && strcmp(name, "dumb") != 0 && isatty(fd);
}

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
}

void LockForFork() { pthread_mutex_lock(&mutex); }
void UnlockInParent() { pthread_mutex_unlock(&mutex); }

// The buffered records are the parent's to write, and the lost ones its to tell of.
void UnlockInChild() {
  buffered = 0;
  lost_records = 0;
  pid = getpid();
  pthread_mutex_unlock(&mutex);
}

void Initialize() {
  ErrnoKeeper keeper;
  Lock lock;
  if (threshold.load(std::memory_order_relaxed) != kUnset) return;
  const int lowest = ThresholdFromEnvironment();
  if (lowest != DLOG_SILENT) OpenSink();
  pid = getpid();
  threshold.store(lowest, std::memory_order_release);
}

// Before there can be a second thread: a fork while the first record is being written finds the
// lock taken care of.
__attribute__((constructor)) void PrepareForFork() {
  pthread_atfork(LockForFork, UnlockInParent, UnlockInChild);
}

// Later records, from other libraries' destructors, are written at once.
__attribute__((destructor)) void FlushAtExit() {
  Lock lock;
  if (buffered > 0) Flush();
  exiting = true;
}

bool IsFiltered(log_priority prio) {
  int lowest = threshold.load(std::memory_order_acquire);
  if (__builtin_expect(lowest == kUnset, 0)) {
    Initialize();
    lowest = threshold.load(std::memory_order_acquire);
  }
  return prio < lowest;
}

// Length of the colour sequence (ESC [ digits and semicolons m) that `text` starts with, or 0.
size_t ColourLength(std::string_view text) {
  if (text.size() < 3 || text[0] != '\x1b' || text[1] != '[') return 0;
  const size_t end = text.find_first_not_of("0123456789;", 2);
  return end != std::string_view::npos && text[end] == 'm' ? end + 1 : 0;
}

void AppendEscaped(std::string* out, char c) {
  if (c == '\n') {
    *out += "\\n";
    return;
  }
  char escaped[8];
  snprintf(escaped, sizeof escaped, "\\x%02x",
           static_cast<unsigned>(static_cast<unsigned char>(c)));
  *out += escaped;
}

// Whether one of eight bytes may need a look: all do but printable ASCII.
bool MayNeedLook(const char* bytes) {
  constexpr uint64_t kOnes = 0x0101010101010101;
  constexpr uint64_t kHighBits = kOnes * 0x80;
  uint64_t word;
  memcpy(&word, bytes, sizeof word);
  const uint64_t below_space = word - kOnes * ' ';
  const uint64_t is_delete = (word ^ (kOnes * 0x7f)) - kOnes;
  return ((word | below_space | is_delete) & kHighBits) != 0;
}

// A character of more than one byte that `text` starts with, and its length; 0 if it is not UTF-8.
size_t DecodeWide(std::string_view text, uint32_t* character) {
  static constexpr uint32_t kLeastOfLength[] = {0, 0, 0x80, 0x800, 0x10000};
  const auto first = static_cast<unsigned char>(text[0]);
  const size_t length = first < 0xc0   ? 0
                        : first < 0xe0 ? 2
                        : first < 0xf0 ? 3
                        : first < 0xf8 ? 4
                                       : 0;
  if (length == 0 || length > text.size()) return 0;
  uint32_t value = first & (0x7fu >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xc0) != 0x80) return 0;
    value = value << 6 | (next & 0x3fu);
  }
  const bool is_half = value >= 0xd800 && value <= 0xdfff;
  if (value < kLeastOfLength[length] || value > 0x10ffff || is_half) return 0;
  *character = value;
  return length;
}

// Whether a character above ASCII steers a terminal, or makes a line look like another one.
bool IsUnsafe(uint32_t c) {
  static constexpr struct {
    uint32_t first;
    uint32_t last;
  } kUnsafe[] = {
      {0x0080, 0x009f},  // control characters that need no escape
      {0x061c, 0x061c},  // Arabic letter mark
      {0x200e, 0x200f},  // left-to-right and right-to-left marks
      {0x2028, 0x202e},  // line and paragraph separators, embeddings and overrides of direction
      {0x2066, 0x2069},  // isolates of direction
      {0xfeff, 0xfeff},  // byte order mark
      {0xfff9, 0xfffb},  // interlinear annotations
  };
  for (const auto& range : kUnsafe) {
    if (c >= range.first && c <= range.last) return true;
  }
  return false;
}

// Length of the character that `text` starts with if it may be written as it stands, else 0.
size_t HarmlessLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return (first < ' ' && first != '\t') || first == 0x7f ? 0 : 1;
  uint32_t character = 0;
  const size_t length = DecodeWide(text, &character);
  return length > 0 && !IsUnsafe(character) ? length : 0;
}

// Length of what `text` starts with that may be written as it stands.
size_t PlainLength(std::string_view text) {
  size_t length = 0;
  while (length < text.size()) {
    if (length + 8 <= text.size() && !MayNeedLook(text.data() + length)) {
      length += 8;
      continue;
    }
    const size_t step = HarmlessLength(text.substr(length));
    if (step == 0) break;
    length += step;
  }
  return length;
}

// The bytes of what must not reach a terminal become visible one by one.
void AppendVisible(std::string* out, std::string_view text) {
  while (!text.empty()) {
    size_t length = PlainLength(text);
    out->append(text.data(), length);
    if (length == 0) {
      AppendEscaped(out, text[0]);
      length = 1;
    }
    text.remove_prefix(length);
  }
}

void DropNewlinesAtEnd(std::string_view* text) {
  const size_t last = text->find_last_not_of('\n');
  text->remove_suffix(text->size() - (last == std::string_view::npos ? 0 : last + 1));
}

// Length of the sequence at the end of `text` that ends all colour, or 0.
size_t ResetLength(std::string_view text) {
  const size_t escape = text.rfind('\x1b');
  if (escape == std::string_view::npos) return 0;
  const std::string_view sequence = text.substr(escape);
  const bool is_reset = ColourLength(sequence) == sequence.size() &&
                        sequence.find_first_not_of("0;", 2) == sequence.size() - 1;
  return is_reset ? sequence.size() : 0;
}

// One record is one line, in the colour that its format begins with: any sequence that an argument
// brought along is no colour of the record's.
void AppendLine(std::string* out, std::string_view text, std::string_view format, bool cut,
                bool keeps_colour) {
  const std::string_view colour = text.substr(0, ColourLength(format));
  text.remove_prefix(colour.size());
  DropNewlinesAtEnd(&text);
  DropNewlinesAtEnd(&format);
  if (!cut && ResetLength(format) > 0) {
    text.remove_suffix(ResetLength(text));
    DropNewlinesAtEnd(&text);
  }
  if (keeps_colour) *out += colour;
  AppendVisible(out, text);
  if (cut) *out += kCutMark;
  if (keeps_colour && !colour.empty()) *out += kColourReset;
}

struct FreeDeleter {
  void operator()(char* text) const { free(text); }
};

// The formatted message, in `space` if it fits there.
class Message {
 public:
  int Format(const char* fmt, va_list args) __attribute__((format(printf, 2, 0))) {
    va_list again;
    va_copy(again, args);
    const int error = errno;
    const int length = vsnprintf(space_, sizeof space_, fmt, args);
    errno = error;
    int result = length < 0 ? -EINVAL : 0;
    size_ = length < 0 ? 0 : static_cast<size_t>(length);
    if (size_ >= sizeof space_) result = FormatLong(fmt, again);
    va_end(again);
    return result;
  }

  std::string_view text() const { return {heap_ ? heap_.get() : space_, size_}; }
  bool cut() const { return cut_; }

 private:
  int FormatLong(const char* fmt, va_list args) __attribute__((format(printf, 2, 0))) {
    cut_ = size_ > kLongestMessage;
    if (cut_) size_ = kLongestMessage;
    heap_.reset(static_cast<char*>(malloc(size_ + 1)));
    if (!heap_) return -ENOMEM;
    return vsnprintf(heap_.get(), size_ + 1, fmt, args) < 0 ? -EINVAL : 0;
  }

  char space_[1024];
  std::unique_ptr<char, FreeDeleter> heap_;
  size_t size_ = 0;
  bool cut_ = false;
};

int Write(log_priority prio, const char* tag, const char* fmt, const Message& message) {
  std::string record;
  record.reserve(message.text().size() + 160);
  record += TimeText().text();
  const int letter = prio < DLOG_VERBOSE ? DLOG_INFO : prio;
  record += ' ';
  record += kLetters[letter];
  record += ' ';
  AppendVisible(&record, std::string_view(tag, strnlen(tag, kLongestTag)));
  record += ' ';
  record += std::to_string(pid);
  record += ": ";
  AppendLine(&record, message.text(), fmt, message.cut(), sink.keeps_colour);
  record += '\n';
  // One write puts the whole line out: no lock needed.
  if (!sink.is_file) return WriteRecords(record);
  return WriteBuffered(prio, record);
}

// Apart from the filter, which then needs next to no stack.
__attribute__((noinline, format(printf, 3, 0))) int Print(log_priority prio, const char* tag,
                                                          const char* fmt, va_list args) {
  ErrnoKeeper keeper;
  try {
    Message message;
    const int result = message.Format(fmt, args);
    return result < 0 ? result : Write(prio, tag, fmt, message);
  } catch (const std::exception&) {
    return -ENOMEM;  // not "...": a cancelled thread unwinds through here
  }
}

}  // namespace

int dlog_print(log_priority prio, const char* tag, const char* fmt, ...) {
  if (!tag || !fmt) return -EINVAL;
  if (prio <= DLOG_UNKNOWN || prio >= DLOG_SILENT) return -EINVAL;
  if (IsFiltered(prio == DLOG_DEFAULT ? DLOG_INFO : prio)) return 0;
  va_list args;
  va_start(args, fmt);
  const int result = Print(prio, tag, fmt, args);
  va_end(args);
  return result;
}
