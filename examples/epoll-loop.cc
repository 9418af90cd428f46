// SPDX-License-Identifier: Apache-2.0
//
// epoll-loop-cc: lists the models in an application whose main loop is epoll, not GLib. The loop is
// what a session needs of one, and also runs GLib's default main context, where the library's
// callbacks come.
#include <glib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <iostream>
#include <map>
#include <mutex>
#include <new>
#include <utility>
#include <vector>
#include <velmora_svcmgr.hpp>

namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;

namespace {

class EpollLoop final : public vs::Loop {
 public:
  EpollLoop() {
    g_main_context_acquire(context_);
    Add(wake_up_, EPOLLIN);
  }
  ~EpollLoop() override {
    g_main_context_release(context_);
    close(wake_up_);
    close(epoll_);
  }

  // What a session asks of a loop.

  bool Post(vs::Task task) noexcept override {
    try {
      const std::lock_guard lock(mutex_);
      posted_.push_back(std::move(task));
    } catch (const std::bad_alloc&) {
      return false;
    }
    return eventfd_write(wake_up_, 1) == 0;
  }

  TimerId StartTimer(vs::Milliseconds delay, vs::Task task) noexcept override {
    try {
      timers_.emplace(last_timer_ + 1, Timer{Now() + delay, std::move(task)});
    } catch (const std::bad_alloc&) {
      return 0;
    }
    return ++last_timer_;
  }

  void CancelTimer(TimerId timer) noexcept override { timers_.erase(timer); }

  /** One round: waits until something is due, and runs it. */
  void Turn() {
    const int timeout = PrepareGlib();
    epoll_event event;
    epoll_wait(epoll_, &event, 1, timeout);
    DispatchGlib();
    RunTimers();
    RunPosted();
  }

 private:
  struct Timer {
    vs::TimePoint due;
    vs::Task task;
  };

  void Add(int fd, std::uint32_t events) const {
    epoll_event event = {};
    event.events = events;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
  }

  /** Adds what GLib waits for; returns for how long to wait, as epoll_wait. */
  int PrepareGlib() {
    int timeout = -1;
    g_main_context_prepare(context_, &priority_);
    for (;;) {
      const auto room = static_cast<int>(fds_.size());
      count_ = g_main_context_query(context_, priority_, &timeout, fds_.data(), room);
      if (count_ <= room) break;
      fds_.resize(static_cast<std::size_t>(count_));
    }
    // Any event of a descriptor wakes the loop; which, GLib finds out. One may come twice.
    for (int i = 0; i < count_; ++i) {
      const GPollFD& wanted = fds_[static_cast<std::size_t>(i)];
      std::uint32_t& events = in_epoll_[wanted.fd];
      events |= EPOLLIN | EPOLLPRI;
      if ((wanted.events & G_IO_OUT) != 0) events |= EPOLLOUT;
    }
    for (const auto& [fd, events] : in_epoll_) Add(fd, events);
    return Earlier(timeout);
  }

  int Earlier(int timeout) const {
    for (const auto& [id, timer] : timers_) {
      const auto left = std::chrono::ceil<vs::Milliseconds>(timer.due - Now()).count();
      const int wait = static_cast<int>(std::clamp<vs::Milliseconds::rep>(left, 0, 60'000));
      timeout = timeout < 0 ? wait : std::min(timeout, wait);
    }
    return timeout;
  }

  /** The descriptors leave the epoll first: GLib's sources may close them, and others may take their
   *  numbers. */
  void DispatchGlib() {
    for (const auto& [fd, events] : in_epoll_) epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
    in_epoll_.clear();
    g_poll(fds_.data(), static_cast<guint>(count_), 0);
    if (g_main_context_check(context_, priority_, fds_.data(), count_) != FALSE)
      g_main_context_dispatch(context_);
  }

  void RunTimers() {
    const auto is_due = [now = Now()](const auto& each) { return each.second.due <= now; };
    for (;;) {
      const auto timer = std::find_if(timers_.begin(), timers_.end(), is_due);
      if (timer == timers_.end()) return;
      // Taken out first: the task may start and cancel timers.
      vs::Task task = std::move(timer->second.task);
      timers_.erase(timer);
      task();
    }
  }

  void RunPosted() {
    eventfd_t count = 0;
    eventfd_read(wake_up_, &count);
    std::deque<vs::Task> due;
    {
      const std::lock_guard lock(mutex_);
      due.swap(posted_);
    }
    for (vs::Task& task : due) task();
  }

  GMainContext* const context_ = g_main_context_default();
  const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
  const int wake_up_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::vector<GPollFD> fds_;
  int count_ = 0;
  int priority_ = 0;
  /** What GLib waits for in this round, by descriptor. */
  std::map<int, std::uint32_t> in_epoll_;
  std::map<TimerId, Timer> timers_;
  TimerId last_timer_ = 0;
  std::mutex mutex_;
  /** Guarded by mutex_. */
  std::deque<vs::Task> posted_;
};

}  // namespace

int main() {
  bool waiting = true;
  bool listed = false;
  EpollLoop loop;
  vs::Session session(loop);
  const vs::Token listing = session.Models(
      [&](const vs::Outcome<vs::ModelList>& models) {
        waiting = false;
        listed = models.has_value();
        if (!listed) std::cerr << "epoll-loop-cc: " << models.error() << '\n';
        if (!listed) return;
        for (const vs::Model& model : *models) std::cout << model.id() << '\n';
      },
      3s);
  while (waiting) loop.Turn();
  return listed && std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
