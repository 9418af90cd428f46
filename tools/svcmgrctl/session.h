// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_SESSION_H_
#define TOOLS_SVCMGRCTL_SESSION_H_

#include <glib.h>

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>
#include <velmora_svcmgr_glib.hpp>

#include "failure.h"

namespace svcmgrctl {

/**
 * One stay with the agent: a connection, a time limit, and the signals that end it early.
 *
 * A command runs on the main thread from top to bottom. Where it has to wait, the main loop runs,
 * so that the time limit, a signal and the loss of the connection end every wait with a Failure.
 *
 * There is one session in a process, and the main loop does not run once it is gone.
 */
class Session {
 public:
  /** @param timeout  Seconds until every wait fails; 0 for no limit. */
  explicit Session(double timeout);
  /** Disconnects, unless a call is stuck. */
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /** Connects, and waits until the connection stands. */
  void Connect();

  /** What the agent can be asked, without a time limit or a signal. */
  vs::Session& face() { return *face_; }

  /** Starts a request, which passes on the callable, and waits for its answer. An error is thrown. */
  template <typename T>
  T Await(const std::function<vs::Token(vs::Callable<void(vs::Outcome<T>)>)>& start) {
    auto answer = std::make_shared<std::optional<vs::Outcome<T>>>();
    const vs::Token token =
        start([answer](vs::Outcome<T> outcome) { answer->emplace(std::move(outcome)); });
    WaitUntil([&answer] { return answer->has_value(); });
    if constexpr (std::is_void_v<T>) {
      if (!**answer) throw FailureOf((*answer)->error());
    } else {
      if (!**answer) throw FailureOf((*answer)->error());
      return std::move(***answer);
    }
  }

  /** The same for a request that blocks on another thread: when the wait fails it keeps running. */
  template <typename T>
  T AwaitCall(const std::function<vs::Token(vs::Callable<void(vs::Outcome<T>)>)>& start) {
    has_stuck_call_ = true;
    struct Returned {
      ~Returned() { *stuck = *waiting; }
      bool* stuck;
      const bool* waiting;
    };
    bool waiting = true;
    const Returned returned = {&has_stuck_call_, &waiting};
    return Await<T>([&](vs::Callable<void(vs::Outcome<T>)> done) {
      return start([&waiting, done = std::move(done)](vs::Outcome<T> outcome) mutable {
        waiting = false;
        done(std::move(outcome));
      });
    });
  }

  /** Runs the main loop until `ready`, or until a reason to end; the reason is thrown. */
  void WaitUntil(const std::function<bool()>& ready);

  /** Runs `event` every so many seconds, in the main loop, as long as the session stands. */
  void Every(double seconds, std::function<void()> event);

  /** The agent has said something: from now on the time limit is for its silence alone, and begins
   *  anew with each call. */
  void Heard();

  /** From now on there is no time limit. */
  void EndTimeLimit();

  /** Tells `changed` of every change of the connection, with its result and its state. Where it
   *  returns true a loss is no reason to end: the library may find the agent again. */
  void TellOfConnection(std::function<bool(int result, int state)> changed);

  /** Lets the main loop handle all that has happened up to now; fails if that is the end of the
   *  connection. A call that fails because the agent died may return before that is known. */
  void Settle();

  /** Whether a call that blocks was given up. The process must then end without tidying: the thread
   *  still uses the library. */
  bool HasStuckCall() const { return has_stuck_call_; }

 private:
  void End(Failure reason);
  void LimitTime(const char* what_happened);

  void OnConnection(vs::ConnectionReport report);

  const double timeout_;
  // Sources of the main loop; 0 where there is none.
  guint time_limit_ = 0;
  std::vector<guint> sources_;
  std::function<bool(int, int)> connection_changed_;
  bool connected_ = false;
  bool has_stuck_call_ = false;
  // Why no wait can succeed any more; the first reason stays.
  std::optional<Failure> end_;
  vs::GlibLoop loop_;
  std::optional<vs::Session> face_;
  vs::Token reports_;
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_SESSION_H_
