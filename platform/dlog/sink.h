// SPDX-License-Identifier: Apache-2.0
#ifndef DLOG_SINK_H_
#define DLOG_SINK_H_

#include <dlog.h>
#include <sys/types.h>

#include <string_view>

namespace dlog_desktop {

// Guards the records that wait for a write to the file, and whatever is settled by the first record.
// A fork waits for it.
class Lock {
 public:
  Lock();
  ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
};

// Takes the file that the environment names, else standard error. Once, under the lock, before any
// record is written.
void OpenSink();

// Whether the sink shows colour. Settled when it is opened, as is the process's ID.
bool SinkKeepsColour();
pid_t ProcessId();

// Writes a record, which is a line with its end, at once or, into a file, when enough has gathered.
// Returns 0 or a negative code.
int WriteToSink(log_priority prio, std::string_view line);

}  // namespace dlog_desktop

#endif  // DLOG_SINK_H_
