/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_CPP_FACE_SUPPORT_H_
#define SVCMGR_TESTS_CPP_FACE_SUPPORT_H_

// A main loop that a test turns by hand, with a clock of its own, and a session on it over the fake
// platform.

#include <event_support.h>
#include <fake_platform.h>
#include <model_support.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>
#include <velmora_svcmgr.hpp>

namespace velmora::svcmgr {

inline void PrintTo(State state, std::ostream* out) { *out << NameOf(state); }
inline void PrintTo(Error error, std::ostream* out) { *out << error.name(); }

}  // namespace velmora::svcmgr

namespace face {

namespace vs = velmora::svcmgr;
using namespace std::chrono_literals;  // NOLINT(google-build-using-namespace)

/** Runs nothing but what a test tells it to. */
class ManualLoop final : public vs::Loop {
 public:
  bool Post(vs::Task task) noexcept override {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (refuses) {
      ++refused;
      return false;
    }
    try {
      tasks_.push_back(std::move(task));
    } catch (const std::bad_alloc&) {
      return false;
    }
    posted_.notify_all();
    return true;
  }

  TimerId StartTimer(vs::Milliseconds delay, vs::Task task) noexcept override {
    if (refuses) return 0;
    try {
      timers_.emplace(++last_timer_, Timer{now_ + delay, std::move(task)});
    } catch (const std::bad_alloc&) {
      return 0;
    }
    return last_timer_;
  }

  void CancelTimer(TimerId timer) noexcept override { timers_.erase(timer); }

  vs::TimePoint Now() const noexcept override { return now_; }

  /** Runs what was posted, and what that posts, until nothing is left. */
  void Turn() {
    while (true) {
      vs::Task task = Next();
      if (!task) return;
      task();
    }
  }

  /** Waits until another thread has posted something, then runs it. */
  void Await() {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      ASSERT_TRUE(posted_.wait_for(lock, 60s, [this] { return !tasks_.empty(); }));
    }
    Turn();
  }

  /** Lets time pass, and runs the timers that come due on the way. */
  void Pass(vs::Milliseconds time) {
    Turn();
    const vs::TimePoint end = now_ + time;
    while (true) {
      auto first = timers_.end();
      for (auto each = timers_.begin(); each != timers_.end(); ++each)
        if (each->second.due <= end &&
            (first == timers_.end() || each->second.due < first->second.due))
          first = each;
      if (first == timers_.end()) break;
      now_ = std::max(now_, first->second.due);
      vs::Task task = std::move(first->second.task);
      timers_.erase(first);
      task();
      Turn();
    }
    now_ = end;
  }

  std::size_t timers() const { return timers_.size(); }
  std::size_t tasks() const { return tasks_.size(); }

  /** Takes nothing any more. */
  std::atomic<bool> refuses{false};
  /** How many tasks it did not take. */
  std::atomic<int> refused{0};

 private:
  struct Timer {
    vs::TimePoint due;
    vs::Task task;
  };

  vs::Task Next() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (tasks_.empty()) return nullptr;
    vs::Task task = std::move(tasks_.front());
    tasks_.pop_front();
    return task;
  }

  std::mutex mutex_;
  std::condition_variable posted_;
  std::deque<vs::Task> tasks_;
  std::map<TimerId, Timer> timers_;
  TimerId last_timer_ = 0;
  vs::TimePoint now_{std::chrono::hours(1000)};
};

/** What came of something, as a word: "ok", or the name of the error. */
template <typename T>
std::string Word(const vs::Outcome<T>& outcome) {
  return outcome ? "ok" : outcome.error().name();
}

/** The IDs of the models, or the name of the error. */
inline std::vector<std::string> Ids(const vs::Outcome<vs::ModelList>& models) {
  if (!models) return {models.error().name()};
  std::vector<std::string> ids;
  for (const vs::Model& model : *models) ids.push_back(model.id());
  return ids;
}

/** An answer's payload: the agent's result and models of these IDs. */
inline fake::Items AnswerOf(const std::vector<std::string>& ids, int result = 0) {
  fake::Items items = {result, fake::Count(static_cast<int>(ids.size()))};
  for (const std::string& id : ids) {
    for (const std::string& text : {id, std::string("1.0"), std::string(), std::string()})
      items.emplace_back(text);
  }
  items.emplace_back(static_cast<int>(ids.size()));
  return items;
}

/** A progress message's payload. */
inline fake::Items ReportOf(int index, int count, int percentage, int state = 1, int result = 0) {
  return {result, state, index, count, percentage};
}

// The IDs of the delegates.
inline constexpr int kModels = 1;
inline constexpr int kDescribed = 2;
inline constexpr int kVersions = 3;
inline constexpr int kUpdate = 4;
inline constexpr int kUninstall = 5;

/** Begins with a session on a loop, which has not turned yet. */
class ASession : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    fake::AllowHeldConnection();
    Open();
  }

  void TearDown() override {
    session.reset();
    fake::ExpectKept(kept);
    PlatformTest::TearDown();
  }

  void Open(vs::Options options = {}) {
    session.reset();
    session = std::make_unique<vs::Session>(loop, std::move(options));
    session->OnState([this](vs::State state) { states.push_back(state); });
  }

  /** The connection stands. */
  void Connect() {
    loop.Turn();
    fake::Proxy().FireConnected();
    loop.Turn();
    EXPECT_EQ(session->state(), vs::State::kConnected);
    states.clear();
    fake::ClearRecord();
  }

  /** The agent has announced that it replaces itself, and has gone. */
  void LoseInUpdate() {
    events::AnnounceUpdate();
    fake::Proxy().FireDisconnected();
  }

  /** The new agent has said that it runs, and has accepted the library. */
  void ReturnFromUpdate() {
    events::AnnounceLaunch();
    fake::Proxy().FireConnected();
  }

  /** Asks for the models; what comes of it is noted. */
  vs::Token Ask(vs::Milliseconds limit = vs::kNoLimit) {
    return session->Models(
        [this](vs::Outcome<vs::ModelList> models) { answers.push_back(Ids(models)); }, limit);
  }

  /** The agent answers the query of this number, from 0. The library keeps each model of an answer. */
  void Answer(int query, const std::vector<std::string>& ids, int delegate = kModels) {
    fake::DeliverDelegateMessage(delegate, query, AnswerOf(ids));
    kept += 5 * ids.size();
  }

  ManualLoop loop;
  std::unique_ptr<vs::Session> session;
  std::vector<vs::State> states;
  std::vector<std::vector<std::string>> answers;
  std::size_t kept = 0;
};

class AConnectedSession : public ASession {
 protected:
  void SetUp() override {
    ASession::SetUp();
    Connect();
  }
};

/** Threads wait here until it is opened. */
class Gate {
 public:
  void Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void Pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return open_; });
  }
  bool PassWithin(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

}  // namespace face

#endif  // SVCMGR_TESTS_CPP_FACE_SUPPORT_H_
