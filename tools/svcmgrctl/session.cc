// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <glib-unix.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <exception>
#include <memory>
#include <thread>
#include <utility>

namespace svcmgrctl {
namespace {

// A source that runs a function object once; the object goes with the source.
using Event = std::function<void()>;

gboolean RunEvent(gpointer event) {
  (*static_cast<Event*>(event))();
  return G_SOURCE_CONTINUE;
}

void DeleteEvent(gpointer event) { delete static_cast<Event*>(event); }

guint AddTimer(double seconds, Event event) {
  const auto milliseconds = static_cast<guint>(std::max(1.0, std::ceil(seconds * 1000)));
  return g_timeout_add_full(G_PRIORITY_DEFAULT, milliseconds, RunEvent, new Event(std::move(event)),
                            DeleteEvent);
}

guint AddSignal(int signal, Event event) {
  return g_unix_signal_add_full(G_PRIORITY_HIGH, signal, RunEvent, new Event(std::move(event)),
                                DeleteEvent);
}

Failure TimedOut(const char* what_happened, double seconds) {
  char limit[32];
  g_ascii_formatd(limit, sizeof limit, "%g", seconds);
  return {std::nullopt, "TIMEOUT", std::string(what_happened) + " " + limit + " s", kExitTimeout};
}

Failure ConnectFailure(int code) {
  if (code == SVCMGR_ERROR_PERMISSION_DENIED)
    return FailureOf(code, "this application may not connect to the agent");
  return FailureOf(code);
}

}  // namespace

Failure LostConnection() {
  return {std::nullopt, "CONNECTION_LOST", "the connection to the agent was lost",
          kExitNoConnection};
}

Session::Session(double timeout) : timeout_(timeout) {
  LimitTime("the agent did not answer within");
  sources_.push_back(AddSignal(
      SIGINT, [this] { End({std::nullopt, "INTERRUPTED", "interrupted", kExitInterrupted}); }));
  sources_.push_back(AddSignal(
      SIGTERM, [this] { End({std::nullopt, "TERMINATED", "terminated", kExitTerminated}); }));
}

Session::~Session() {
  EndTimeLimit();
  for (guint source : sources_) g_source_remove(source);
  if (!has_stuck_call_) velmora_svcmgr_disconnect();
}

void Session::LimitTime(const char* what_happened) {
  EndTimeLimit();
  if (timeout_ > 0)
    time_limit_ =
        AddTimer(timeout_, [this, what_happened] { End(TimedOut(what_happened, timeout_)); });
}

void Session::EndTimeLimit() {
  if (time_limit_ != 0) g_source_remove(std::exchange(time_limit_, 0));
}

void Session::Heard() { LimitTime("the agent said nothing for"); }

void Session::Every(double seconds, std::function<void()> event) {
  sources_.push_back(AddTimer(seconds, std::move(event)));
}

void Session::TellOfConnection(std::function<bool(int result, int state)> changed) {
  connection_changed_ = std::move(changed);
}

void Session::End(Failure reason) {
  if (!end_) end_ = std::move(reason);
}

void Session::OnConnection(int result, int state, void* session) {
  auto* self = static_cast<Session*>(session);
  const bool goes_on = self->connection_changed_ && self->connection_changed_(result, state);
  switch (state) {
    case SVCMGR_CONNECTION_STATE_CONNECTED:
      self->connected_ = true;
      break;
    case SVCMGR_CONNECTION_STATE_REJECTED:
      self->End(FailureOf(result, "the agent refused the connection", kExitPermission));
      break;
    default:
      if (!goes_on) self->End(LostConnection());
  }
}

void Session::Connect() {
  const int code = velmora_svcmgr_connect(OnConnection, this);
  if (code != SVCMGR_ERROR_NONE) throw ConnectFailure(code);
  WaitUntil([this] { return connected_; });
}

void Session::WaitUntil(const std::function<bool()>& ready) {
  while (!ready()) {
    if (end_) throw *end_;
    g_main_context_iteration(nullptr, TRUE);
  }
}

int Session::Block(std::function<int()> call) {
  struct State {
    std::atomic<bool> done{false};
    int result = SVCMGR_ERROR_INVALID_OPERATION;
  };
  auto state = std::make_shared<State>();
  std::thread thread([state, call = std::move(call)] {
    state->result = call();
    state->done = true;
    g_main_context_wakeup(nullptr);
  });
  try {
    WaitUntil([&state] { return state->done.load(); });
  } catch (...) {
    has_stuck_call_ = true;
    thread.detach();
    throw;
  }
  thread.join();
  return state->result;
}

void Session::OnAnswer(int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
  ModelList owned(list);
  auto* answer = static_cast<Answer*>(user_data);
  if (answer->arrived) return;
  *answer = {true, error, std::move(owned)};
}

ModelList Session::Request(const StartRequest& start) {
  Answer& answer = answers_.emplace_back();
  const int code = start(OnAnswer, &answer);
  if (code != SVCMGR_ERROR_NONE) {
    Settle();
    throw FailureOf(code);
  }
  WaitUntil([&answer] { return answer.arrived; });
  if (answer.error != SVCMGR_ERROR_NONE) throw FailureOf(answer.error);
  if (!answer.list) throw FailureOf(SVCMGR_ERROR_OUT_OF_MEMORY);
  return std::move(answer.list);
}

void Session::Settle() {
  while (!end_ && g_main_context_iteration(nullptr, FALSE) != FALSE) {
  }
  if (end_) throw *end_;
}

}  // namespace svcmgrctl
