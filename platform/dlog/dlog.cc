// SPDX-License-Identifier: Apache-2.0
#include "dlog.h"

#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <exception>
#include <memory_resource>

#include "record.h"
#include "sink.h"

namespace dlog_desktop {
namespace {

// Records below it are dropped; unset until the first record has read the environment.
constexpr int kUnset = -1;
std::atomic<int> threshold{kUnset};

// Logging leaves errno alone, so that it may stand between a failure and its handling.
class ErrnoKeeper {
 public:
  ~ErrnoKeeper() { errno = saved_; }

 private:
  const int saved_ = errno;
};

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

void Initialize() {
  ErrnoKeeper keeper;
  Lock lock;
  if (threshold.load(std::memory_order_relaxed) != kUnset) return;
  const int lowest = ThresholdFromEnvironment();
  if (lowest != DLOG_SILENT) OpenSink();
  threshold.store(lowest, std::memory_order_release);
}

bool IsFiltered(log_priority prio) {
  int lowest = threshold.load(std::memory_order_acquire);
  if (__builtin_expect(lowest == kUnset, 0)) {
    Initialize();
    lowest = threshold.load(std::memory_order_acquire);
  }
  return prio < lowest;
}

// Kept apart from the filter, which then needs next to no stack.
__attribute__((noinline, format(printf, 3, 0))) int Print(log_priority prio, const char* tag,
                                                          const char* fmt, va_list args) {
  ErrnoKeeper keeper;
  try {
    Message message;
    const int result = message.Format(fmt, args);
    if (result < 0) return result;
    // Most lines fit: they take nothing of the application's heap.
    std::array<std::byte, 1280> space;
    std::pmr::monotonic_buffer_resource memory(space.data(), space.size());
    return WriteToSink(prio, RecordLine(prio, tag, fmt, message, &memory));
  } catch (const std::exception&) {
    return -ENOMEM;  // not "...": a cancelled thread unwinds through here
  }
}

}  // namespace
}  // namespace dlog_desktop

int dlog_print(log_priority prio, const char* tag, const char* fmt, ...) {
  if (!tag || !fmt) return -EINVAL;
  if (prio <= DLOG_UNKNOWN || prio >= DLOG_SILENT) return -EINVAL;
  if (dlog_desktop::IsFiltered(prio == DLOG_DEFAULT ? DLOG_INFO : prio)) return 0;
  va_list args;
  va_start(args, fmt);
  const int result = dlog_desktop::Print(prio, tag, fmt, args);
  va_end(args);
  return result;
}
