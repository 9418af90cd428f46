// SPDX-License-Identifier: Apache-2.0
#include "time_text.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

#include <chrono>

namespace dlog_desktop {
namespace {

constexpr size_t kSecondsSize = 48;

// The C library's functions take a lock that a child forked from a threaded process may find held.
void Format(time_t seconds, char (&text)[kSecondsSize]) {
  using namespace std::chrono;
  const sys_seconds time{std::chrono::seconds(seconds)};
  const auto day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss of_day(time - day);
  snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(date.year()),
           static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
           static_cast<int>(of_day.hours().count()), static_cast<int>(of_day.minutes().count()),
           static_cast<int>(of_day.seconds().count()));
}

}  // namespace

TimeText::TimeText() {
  // A burst of records shares its second. The memory is there from the start of the thread: getting
  // it later can fail, which would abort the process.
  __attribute__((tls_model("initial-exec"))) static thread_local time_t last_second;
  __attribute__((tls_model("initial-exec"))) static thread_local char last_text[kSecondsSize];
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (now.tv_sec != last_second || last_text[0] == '\0') {
    last_second = now.tv_sec;
    Format(now.tv_sec, last_text);
  }
  const int ms = static_cast<int>(now.tv_nsec / 1000000);
  const char fraction[] = {'.', static_cast<char>('0' + ms / 100),
                           static_cast<char>('0' + ms / 10 % 10), static_cast<char>('0' + ms % 10),
                           'Z'};
  const size_t seconds = strlen(last_text);
  static_assert(sizeof space_ >= kSecondsSize + sizeof fraction);
  memcpy(space_, last_text, seconds);
  memcpy(space_ + seconds, fraction, sizeof fraction);
  size_ = seconds + sizeof fraction;
}

}  // namespace dlog_desktop
