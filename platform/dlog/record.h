// SPDX-License-Identifier: Apache-2.0
#ifndef DLOG_RECORD_H_
#define DLOG_RECORD_H_

#include <dlog.h>
#include <stdarg.h>

#include <cstddef>
#include <memory_resource>
#include <string>
#include <string_view>

#include "owned.h"

namespace dlog_desktop {

// The formatted message, without allocated memory if it is short.
class Message {
 public:
  // Returns 0 or a negative code. For %m, errno is as it was, even where the message is long.
  int Format(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));

  std::string_view text() const { return {heap_ ? heap_.get() : space_, size_}; }
  bool cut() const { return cut_; }

 private:
  int FormatLong(const char* fmt, va_list args) __attribute__((format(printf, 2, 0)));

  char space_[1024];
  base::Malloced<char> heap_;
  size_t size_ = 0;
  bool cut_ = false;
};

// The whole line for the sink, with its end, in this memory. Throws std::bad_alloc.
std::pmr::string RecordLine(log_priority prio, const char* tag, const char* fmt,
                            const Message& message, std::pmr::memory_resource* memory);

}  // namespace dlog_desktop

#endif  // DLOG_RECORD_H_
