// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_SESSION_H_
#define TOOLS_SVCMGRCTL_SESSION_H_

#include <glib.h>

#include <deque>
#include <functional>
#include <optional>
#include <vector>

#include "failure.h"
#include "handles.h"

namespace svcmgrctl {

Failure LostConnection();

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

  /**
   * Runs `call`, which may block, on a thread of its own, and waits until it has returned; returns
   * what it returned. `call` must own what it works on: when the wait fails it keeps running.
   */
  int Block(std::function<int()> call);

  /** Starts a request and waits for its answer, which must be free of errors. `start` passes on the
   *  callback and the user data, and returns the library's code. */
  using StartRequest = std::function<int(velmora_svcmgr_ai_model_list_cb, void*)>;
  ModelList Request(const StartRequest& start);

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
  struct Answer {
    bool arrived = false;
    int error = 0;
    ModelList list;
  };

  void End(Failure reason);
  void LimitTime(const char* what_happened);

  static void OnConnection(int result, int state, void* session);
  static void OnAnswer(int error, velmora_svcmgr_ai_model_list_h list, void* answer);

  const double timeout_;
  // Sources of the main loop; 0 where there is none.
  guint time_limit_ = 0;
  std::vector<guint> sources_;
  std::function<bool(int, int)> connection_changed_;
  bool connected_ = false;
  bool has_stuck_call_ = false;
  // Why no wait can succeed any more; the first reason stays.
  std::optional<Failure> end_;
  // Answers may come again until the connection ends: their places stay until then.
  std::deque<Answer> answers_;
};

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_SESSION_H_
