// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <glib-unix.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <utility>

#include "explanations.h"

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

// Nothing is sent again, and nothing waits: whoever asked decides. Time limits are the session's own.
vs::Options FaceOptions() {
  vs::Options options;
  options.connect = false;
  options.connect_limit = vs::kNoLimit;
  options.resend = vs::Resend::kNever;
  options.restart_patience = vs::Milliseconds(0);
  return options;
}

}  // namespace

Session::Session(double timeout) : timeout_(timeout) {
  face_.emplace(loop_, FaceOptions());
  reports_ = face_->OnConnection([this](vs::ConnectionReport report) { OnConnection(report); })
                 .value_or(vs::Token());
  LimitTime("the agent did not answer within");
  sources_.push_back(AddSignal(
      SIGINT, [this] { End({std::nullopt, "INTERRUPTED", "interrupted", kExitInterrupted}); }));
  sources_.push_back(AddSignal(
      SIGTERM, [this] { End({std::nullopt, "TERMINATED", "terminated", kExitTerminated}); }));
}

Session::~Session() {
  EndTimeLimit();
  for (guint source : sources_) g_source_remove(source);
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

void Session::OnConnection(vs::ConnectionReport report) {
  const bool goes_on = connection_changed_ && connection_changed_(report.result, report.state);
  switch (report.state) {
    case SVCMGR_CONNECTION_STATE_CONNECTED:
      connected_ = true;
      break;
    case SVCMGR_CONNECTION_STATE_REJECTED:
      End(FailureOf(report.result, "the agent refused the connection", kExitPermission,
                    std::string(HintFor(vs::Error(SVCMGR_ERROR_PERMISSION_DENIED).name()))));
      break;
    default:
      if (!goes_on) End(FailureOf(vs::Error(vs::kConnectionLost)));
  }
}

void Session::Connect() {
  const vs::Outcome<void> started = face_->Connect();
  if (!started) {
    // What was reported all the same is told before.
    while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
    }
    throw ConnectFailure(started.error().code());
  }
  WaitUntil([this] { return connected_; });
}

void Session::WaitUntil(const std::function<bool()>& ready) {
  while (!ready()) {
    if (end_) throw *end_;
    g_main_context_iteration(nullptr, TRUE);
  }
}

void Session::Settle() {
  while (!end_ && g_main_context_iteration(nullptr, FALSE) != FALSE) {
  }
  if (end_) throw *end_;
}

}  // namespace svcmgrctl
