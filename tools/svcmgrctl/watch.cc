// SPDX-License-Identifier: Apache-2.0
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "clock.h"
#include "commands.h"
#include "statuses.h"
#include "subscriptions.h"
#include "velmora_svcmgr.h"

namespace svcmgrctl {
namespace {

constexpr double kRetrySeconds = 0.2;

/** Prints what happens, until the reader or the person at the keyboard has enough. */
class Watch {
 public:
  Watch(Session& session, Console& console, std::string what)
      : session_(session), console_(console), what_(std::move(what)) {}

  /** Whoever interrupts it has seen enough. */
  void Run() {
    try {
      Follow();
    } catch (const Failure& failure) {
      if (failure.exit != kExitInterrupted) throw;
    }
  }

 private:
  void Follow() {
    vs::Token updates;
    vs::Token models;
    if (Wants("update"))
      updates = Subscribed(session_.face().OnUpdateStatus([this](vs::UpdateStatus status) {
        const int number = static_cast<int>(status);
        Note("update", UpdateStatus(number), {{"status", number}});
      }));
    if (Wants("model"))
      models = Subscribed(session_.face().OnModelStatus([this](vs::ModelStatus status) {
        const int number = static_cast<int>(status);
        Note("model", ModelStatus(number), {{"status", number}, {"error", SVCMGR_ERROR_NONE}});
      }));
    if (Wants("connection")) {
      session_.TellOfConnection([this](int result, int state) {
        Note("connection", ConnectionState(state), {{"state", state}, {"result", result}});
        return true;
      });
      try {
        session_.Connect();
      } catch (const Failure&) {
        Print();
        throw;
      }
    }
    session_.EndTimeLimit();
    // What a slow reader leaves is offered to it again.
    session_.Every(kRetrySeconds, [this] { time_to_retry_ = console_.HasLeftovers(); });
    for (Print(); console_.HasReader(); Print())
      session_.WaitUntil(
          [this] { return !lines_.empty() || std::exchange(time_to_retry_, false); });
  }

  bool Wants(const char* kind) const { return what_.empty() || what_ == kind; }

  void Note(const char* event, const Status& status, const Json& more) {
    const std::string time = WallTime();
    Json json = {{"time", time}, {"event", event}, {"name", status.name}};
    json.update(more);
    std::string kind = event;
    kind.resize(std::string("connection").size(), ' ');
    lines_.push_back({json, time + "  " + kind + "  " + std::to_string(status.number) + " " +
                                status.name + ": " + status.meaning});
  }

  void Print() {
    for (; !lines_.empty(); lines_.pop_front())
      console_.Line(lines_.front().first, lines_.front().second);
    console_.WriteLeftovers();
  }

  Session& session_;
  Console& console_;
  const std::string what_;
  std::deque<std::pair<Json, std::string>> lines_;
  bool time_to_retry_ = false;
};

std::string CheckWhat(const std::string& what) {
  for (const char* word : {"update", "model", "connection"})
    if (what == word) return {};
  return "'" + what + "' is none of update, model, connection";
}

}  // namespace

void AddWatchCommand(CLI::App& app, Command* chosen) {
  auto what = std::make_shared<std::string>();
  CLI::App* watch = app.add_subcommand("watch", "Print what happens, until interrupted");
  watch->add_option("WHAT", *what, "update, model or connection; without it, all of them")
      ->type_name("")
      ->check(CLI::Validator(CheckWhat, ""));
  watch->callback([chosen, what] {
    *chosen = [what](Session& session, Console& console) { Watch(session, console, *what).Run(); };
  });
}

}  // namespace svcmgrctl
