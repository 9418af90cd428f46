// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_LOOP_SOURCE_H_
#define RPC_PORT_LOOP_SOURCE_H_

#include <glib.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace rpc_port_desktop {

// A source of the default main context that watches several descriptors. It may be dispatched
// inside its own dispatch, by a nested main loop: the main loop then need not re-arm its poll set
// around each dispatch, and the handler decides what a nested loop delivers.
//
// Thread-safe; the handler is called on the thread that runs the context.
class LoopSource {
 public:
  class Handler {
   public:
    virtual ~Handler() = default;
    // Whether there is work that no descriptor shows.
    virtual bool HasWork() { return false; }
    // If it throws std::bad_alloc, the source rests.
    virtual void Dispatch() = 0;
  };

  LoopSource();
  ~LoopSource();
  LoopSource(const LoopSource&) = delete;
  LoopSource& operator=(const LoopSource&) = delete;

  // Starts to call the handler, which is kept alive during its calls, not between them, and must
  // keep the source alive.
  void Attach(std::weak_ptr<Handler> handler);
  // No further call begins; the descriptors may be closed now.
  void Destroy();

  // Watches for `events`; a hang-up is always watched for, unless Unwatch is called.
  void Watch(int fd, GIOCondition events);
  void WatchWritable(int fd, bool wanted);
  void Unwatch(int fd);
  // What these descriptors showed when this dispatch began; 0 for one that is not watched.
  std::pair<unsigned, unsigned> Events(int first_fd, int second_fd);

  // Stops and restarts watching; events set meanwhile take effect on the restart.
  void Pause(int fd);
  void Resume(int fd);

  // From now on it is dispatched only when nothing of the ordinary priority is ready. False if it
  // already was so. For the thread that runs the main loop.
  bool StandBack();

  // Calls the handler at this time of the monotonic clock, in microseconds; never if negative.
  void SetDeadline(gint64 time);

  // Does nothing for a while, then looks at everything again: for want of memory or descriptors,
  // where trying again at once would only burn time.
  void Rest();

 private:
  friend struct SourceCalls;

  struct Watched {
    int fd;
    GIOCondition events;
    bool paused;
    gpointer tag;  // null while paused, and while the source rests
  };

  std::vector<Watched>::iterator Find(int fd);
  unsigned EventsOf(int fd);
  void Arm(Watched* watched);
  void SetReadyTime();
  bool EndRest();

  GSource* const source_;
  std::mutex mutex_;  // guards the rest
  std::vector<Watched> watched_;
  bool destroyed_ = false;
  gint64 deadline_ = -1;
  gint64 end_of_rest_ = -1;
  // Written under the mutex.
  std::atomic<bool> resting_{false};
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_LOOP_SOURCE_H_
