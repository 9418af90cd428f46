// SPDX-License-Identifier: Apache-2.0
#ifndef DLOG_SINK_H_
#define DLOG_SINK_H_

#include <dlog.h>
#include <sys/types.h>

#include <string_view>

namespace dlog_desktop {

// Guards the records that wait for a write to the file, and whatever the first record sets up. A
// fork waits for it.
class Lock {
 public:
  Lock();
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
};

// Opens the file that the environment names, or takes standard error. Called once, under the lock,
// before any record is written.
void OpenSink();

// Whether the sink shows colour. Set when it is opened, as is the process's ID.
bool SinkKeepsColour();
pid_t ProcessId();

// Writes a record, a line with its newline: at once or, to a file, when enough has accumulated.
// Returns 0 or a negative code.
int WriteToSink(log_priority prio, std::string_view line);

}  // namespace dlog_desktop

#endif  // DLOG_SINK_H_
