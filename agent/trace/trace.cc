// SPDX-License-Identifier: Apache-2.0
#include "trace/trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "common/marks.h"
#include "trace/words.h"
#include "unique_fd.h"

namespace sim {
namespace {

constexpr char kFull[] = "full";
constexpr std::array<std::string_view, 4> kFormatNames = {"world", "lines", "words", "capture"};

std::vector<TraceSink>& Sinks() {
  static std::vector<TraceSink> sinks;
  return sinks;
}

/** Whether some of it is written in a format. */
bool Wanted(TraceFormat format) {
  return std::any_of(Sinks().begin(), Sinks().end(),
                     [format](const TraceSink& sink) { return sink.format == format; });
}

/** Keeps the records of all processes apart, and their times in order. */
class WritersTurn {
 public:
  explicit WritersTurn(int fd) : fd_(fd) {
    // A process that is killed gives it back, other than one that holds a lock in memory.
    while (!Set(F_WRLCK) && errno == EINTR) {
    }
  }
  ~WritersTurn() { Set(F_UNLCK); }
  WritersTurn(const WritersTurn&) = delete;
  WritersTurn& operator=(const WritersTurn&) = delete;

 private:
  bool Set(int type) const {
    struct flock lock = {};
    lock.l_type = static_cast<short>(type);
    lock.l_whence = SEEK_SET;
    return fcntl(fd_, F_SETLKW, &lock) == 0;
  }

  int fd_;
};

struct Stamp {
  char wall[64];       // as RFC 3339 has it
  char monotonic[32];  // seconds

  Stamp() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::snprintf(monotonic, sizeof monotonic, "%lld.%06ld", static_cast<long long>(now.tv_sec),
                  now.tv_nsec / 1000);
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    gmtime_r(&now.tv_sec, &parts);
    const std::size_t length = strftime(wall, sizeof wall, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(wall + length, sizeof wall - length, ".%06ldZ", now.tv_nsec / 1000);
  }
};

/** In one piece, unless the disk is full or a signal comes in the middle. */
void WriteWhole(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::string Line(const Stamp& stamp, const char* what, const std::string& fields) {
  std::string line = R"({"time":")";
  line += stamp.wall;
  line += R"(","monotonic":)";
  line += stamp.monotonic;
  line += R"(,"what":")";
  line += what;
  line += fields == "{}" ? "\"" : "\",";
  return line.append(fields, 1) + "\n";
}

/** Of a regular file only; the descriptor need not be readable. */
bool EndsWithinALine(int fd) {
  struct stat status = {};
  if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size == 0) return false;
  const std::string itself = "/proc/self/fd/" + std::to_string(fd);
  const base::UniqueFd file(open(itself.c_str(), O_RDONLY | O_CLOEXEC));
  char last = '\n';
  return file && pread(file.get(), &last, 1, status.st_size - 1) == 1 && last != '\n';
}

void WriteBounded(int fd, const Stamp& stamp, const std::string& line) {
  if (lseek(fd, 0, SEEK_END) >= kMostTraceBytes) return;
  WriteWhole(fd, line);
  if (lseek(fd, 0, SEEK_END) >= kMostTraceBytes) WriteWhole(fd, Line(stamp, kFull, "{}"));
}

}  // namespace

const char* NameOf(TraceFormat format) {
  return kFormatNames[static_cast<std::size_t>(format)].data();
}

TraceFormat TraceFormatOf(const std::string& name) {
  const auto* const found = std::find(kFormatNames.begin(), kFormatNames.end(), name);
  if (found == kFormatNames.end()) throw std::runtime_error("there is no trace of " + name);
  return static_cast<TraceFormat>(found - kFormatNames.begin());
}

void OpenTrace(std::vector<TraceSink> sinks) { Sinks() = std::move(sinks); }

bool Tracing() { return !Sinks().empty(); }

void Trace(const char* what, const Fields& fields) {
  if (!Tracing()) return;
  const std::string text = fields.dump(-1, ' ', false, Fields::error_handler_t::replace);
  const std::string words = Wanted(TraceFormat::kWords) ? InWords(what, fields) : "";
  const WritersTurn turn(Sinks().front().fd);
  Pass(Mark::kTracing);
  const Stamp stamp;
  const std::string line = Line(stamp, what, text);
  for (const TraceSink& sink : Sinks()) {
    switch (sink.format) {
      case TraceFormat::kWorld:
        WriteBounded(sink.fd, stamp, line);
        break;
      case TraceFormat::kLines:
        WriteWhole(sink.fd, line);
        break;
      case TraceFormat::kWords:
        WriteWhole(sink.fd, ClockOf(stamp.wall) + "  " + words + "\n");
        break;
      case TraceFormat::kCapture:
        break;
    }
  }
}

void EndTornRecord() {
  if (!Tracing()) return;
  const WritersTurn turn(Sinks().front().fd);
  for (const TraceSink& sink : Sinks()) {
    if (sink.format != TraceFormat::kCapture && EndsWithinALine(sink.fd)) WriteWhole(sink.fd, "\n");
  }
}

void Capture(const Packet& packet, std::string_view content) {
  if (!Wanted(TraceFormat::kCapture)) return;
  const WritersTurn turn(Sinks().front().fd);
  const std::string block = CaptureBlock(packet, content);
  for (const TraceSink& sink : Sinks()) {
    if (sink.format == TraceFormat::kCapture) WriteWhole(sink.fd, block);
  }
}

int LastClientIn(const std::string& trace_file) {
  int last = 0;
  std::ifstream stream(trace_file, std::ios::binary);
  for (std::string line; std::getline(stream, line);) {
    if (line.find(R"("what":"connect")") == std::string::npos) continue;
    const auto record = nlohmann::json::parse(line, nullptr, false);
    if (record.is_object() && record.value("what", "") == "connect") last = record["client"];
  }
  return last;
}

}  // namespace sim
