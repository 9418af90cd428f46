// SPDX-License-Identifier: Apache-2.0
#include "clock.h"

#include <glib.h>

#include <algorithm>
#include <cmath>

#include "owned.h"

namespace svcmgrctl {

std::string WallTime() {
  const base::Owned<GDateTime, g_date_time_unref> now(g_date_time_new_now_local());
  const base::Owned<char, g_free> zone(g_date_time_format(now.get(), "%:z"));
  char time[64];
  g_snprintf(time, sizeof time, "%04d-%02d-%02dT%02d:%02d:%02d.%03d",
             g_date_time_get_year(now.get()), g_date_time_get_month(now.get()),
             g_date_time_get_day_of_month(now.get()), g_date_time_get_hour(now.get()),
             g_date_time_get_minute(now.get()), g_date_time_get_second(now.get()),
             g_date_time_get_microsecond(now.get()) / 1000);
  return std::string(time) + zone.get();
}

double Now() { return static_cast<double>(g_get_monotonic_time()) / G_USEC_PER_SEC; }

double Rounded(double seconds) { return std::round(seconds * 1000) / 1000; }

std::string Tenths(double number) {
  char text[64];
  return g_ascii_formatd(text, sizeof text, "%.1f", number);
}

std::string Stamped(double seconds, const std::string& text) {
  constexpr std::size_t kCells = 6;
  const std::string shown = Tenths(seconds);
  return std::string(kCells - std::min(kCells, shown.size()), ' ') + shown + " s  " + text;
}

}  // namespace svcmgrctl
