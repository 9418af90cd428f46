// SPDX-License-Identifier: Apache-2.0
#ifndef DLOG_TIME_TEXT_H_
#define DLOG_TIME_TEXT_H_

#include <cstddef>
#include <string_view>

namespace dlog_desktop {

// The current time, "2026-01-31T23:59:59.999Z". Takes no lock and no memory: it is needed in a
// child forked from a threaded process, too, and when memory is short.
class TimeText {
 public:
  TimeText();

  std::string_view text() const { return {space_, size_}; }

 private:
  char space_[56];
  size_t size_;
};

}  // namespace dlog_desktop

#endif  // DLOG_TIME_TEXT_H_
