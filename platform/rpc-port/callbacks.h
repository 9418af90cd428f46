// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_CALLBACKS_H_
#define RPC_PORT_CALLBACKS_H_

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "forks.h"

namespace rpc_port_desktop {

// The callbacks of one event, in the order in which they were added. More may be added while they
// are being called.
template <typename Function>
class CallbackList {
 public:
  // Has room for the first callback, so that adding just one never fails.
  CallbackList() { entries_.reserve(1); }

  struct Entry {
    Function function;
    void* data;
  };

  void Add(Function function, void* data) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back({function, data});
  }

  std::optional<Entry> At(size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index >= entries_.size()) return std::nullopt;
    return entries_[index];
  }

 private:
  std::mutex mutex_;
  std::vector<Entry> entries_;
};

// Ends the callbacks of an object that any thread may destroy, even inside one of them. In a forked
// child none begins.
class CallbackGate {
 public:
  // Held while a callback runs; false if none may begin.
  class Pass {
   public:
    explicit Pass(CallbackGate* gate) : gate_(gate->Enter() ? gate : nullptr) {}
    ~Pass() {
      if (gate_ != nullptr) gate_->Leave();
    }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;
    explicit operator bool() const { return gate_ != nullptr; }

   private:
    CallbackGate* const gate_;
  };

  bool closed() {
    std::lock_guard<std::mutex> lock(mutex_);
    return closed_;
  }

  // From now on no callback begins.
  void Close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
  }

  // Waits until those that run on another thread have returned.
  void AwaitRunning() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (running_on_ == std::this_thread::get_id()) return;
    idle_.wait(lock, [this] { return running_ == 0; });
  }

 private:
  bool Enter() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_ || birth_.IsInherited()) return false;
    ++running_;
    running_on_ = std::this_thread::get_id();
    return true;
  }

  void Leave() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--running_ > 0) return;
    running_on_ = {};
    idle_.notify_all();
  }

  const Birth birth_{};
  std::mutex mutex_;  // guards the rest
  std::condition_variable idle_;
  std::thread::id running_on_;
  int running_ = 0;  // more than one when main loops nest
  bool closed_ = false;
};

inline bool Always() { return true; }

// Calls one callback after the other while the gate is open and `wanted` holds.
template <typename Function, typename Wanted, typename Call>
void CallEach(CallbackGate* gate, CallbackList<Function>* list, Wanted wanted, Call call) {
  for (size_t i = 0;; ++i) {
    const auto entry = list->At(i);
    if (!entry || !wanted()) return;
    const CallbackGate::Pass pass(gate);
    if (!pass) return;
    call(*entry);
  }
}

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_CALLBACKS_H_
