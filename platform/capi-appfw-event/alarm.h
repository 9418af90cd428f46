// SPDX-License-Identifier: Apache-2.0
#ifndef PLATFORM_EVENT_ALARM_H_
#define PLATFORM_EVENT_ALARM_H_

#include <glib.h>

namespace events {

// Calls a function on the default main context when its time has come. Setting it takes no memory.
class Alarm {
 public:
  // `ring` is called again and again until the alarm is stopped or set again, even inside itself by
  // a nested main loop; it may destroy the alarm.
  Alarm(gint priority, const char* name, void (*ring)());
  ~Alarm();
  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

  // 0: once everything of a higher priority has had its turn.
  void SetAfter(guint ms);
  void Stop();
  bool IsSet() const;

 private:
  GSource* const source_;
};

}  // namespace events

#endif  // PLATFORM_EVENT_ALARM_H_
