// SPDX-License-Identifier: Apache-2.0
#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "clock.h"
#include "commands.h"
#include "explanations.h"
#include "packages.h"
#include "statuses.h"
#include "subscriptions.h"
#include "table.h"
#include "terminal_text.h"
#include "work_report.h"

namespace svcmgrctl {
namespace {

using terminal_text::ForTerminal;

std::string Shown(const Status& status) { return status.meaning + " (" + status.name + ")"; }

bool IsBeingUpdated(const vs::Session& face) { return face.IsBeingUpdated().value_or(false); }

/** One update of the agents, from the request to its end. */
class Update {
 public:
  Update(Session& session, Console& console, std::vector<std::string> agents)
      : session_(session), console_(console), report_(console), agents_(std::move(agents)) {}

  void Run() {
    session_.Connect();
    const vs::Token subscription =
        Subscribed(session_.face().OnUpdateStatus([this](vs::UpdateStatus status) {
          news_.push_back({News::kUpdate, static_cast<int>(status), 0});
        }));
    session_.TellOfConnection([this](int result, int state) {
      news_.push_back({News::kConnection, state, result});
      return true;
    });
    Request();
    session_.Every(kPictureSeconds, [this] { time_for_picture_ = true; });
    try {
      Follow();
    } catch (Failure& failure) {
      console_.Draw({});
      Explain(&failure);
      throw;
    }
  }

 private:
  struct News {
    enum Kind { kUpdate, kConnection } kind;
    int status;
    int result;
  };

  void Request() {
    // What the agent says while it is asked belongs to this update; what it said before does not.
    session_.Settle();
    news_.clear();
    report_.Begin();
    try {
      session_.AwaitCall<void>([this](vs::Session::Done done) {
        return agents_.empty() ? session_.face().RequestUpdate(std::move(done))
                               : session_.face().RequestUpdate(agents_, std::move(done));
      });
    } catch (const Failure& failure) {
      if (!session_.HasStuckCall()) ThrowRefusal(failure);
      throw;
    }
    taken_ = true;
    session_.Heard();
    std::vector<std::string> names;
    for (const std::string& agent : agents_) names.push_back(ForTerminal(agent));
    report_.Print(
        "requested", {{"agents", agents_}},
        "the agent was asked to update " + (names.empty() ? "all agents" : Listed(names)));
  }

  [[noreturn]] void ThrowRefusal(const Failure& failure) {
    session_.Settle();
    for (const News& news : news_)
      if (news.kind == News::kConnection) throw FailureOf(vs::Error(vs::kConnectionLost));
    // The library's code for every failure but two; the connection stands.
    if (failure.name == vs::Error(vs::kNotTaken).name())
      throw FailureOf(SVCMGR_ERROR_NOT_CONNECTED, failure.message, kExitFailed,
                      std::string(HintFor(failure.name)));
    throw failure;
  }

  void Follow() {
    while (!ended_) {
      session_.WaitUntil([this] { return time_for_picture_ || !news_.empty(); });
      time_for_picture_ = false;
      for (; !news_.empty() && !ended_; news_.pop_front()) Take(news_.front());
      if (!ended_) ShowPicture();
    }
    console_.Draw({});
    const bool succeeded = final_.number == SVCMGR_UPDATE_STATUS_COMPLETED;
    report_.Print("end",
                  {{"succeeded", succeeded},
                   {"status", final_.number},
                   {"name", final_.name},
                   {"connection_losses", losses_}},
                  losses_ == 0 ? "no loss of the connection was reported"
                               : "the connection to the agent was lost on the way");
    if (!succeeded) throw Failure{std::nullopt, final_.name, Shown(final_), kExitFailed};
  }

  void Take(const News& news) {
    session_.Heard();
    if (news.kind == News::kConnection) {
      TakeConnection(ConnectionState(news.status), news.result);
      return;
    }
    const Status status = UpdateStatus(news.status);
    report_.Print("update", {{"status", status.number}, {"name", status.name}}, Shown(status));
    begun_ = true;
    if (status.number == SVCMGR_UPDATE_STATUS_STARTED) return;
    final_ = status;
    ended_ = true;
  }

  void TakeConnection(const Status& state, int result) {
    lost_ = state.number != SVCMGR_CONNECTION_STATE_CONNECTED;
    losses_ += lost_ ? 1 : 0;
    report_.Print("connection", {{"result", result}, {"state", state.number}, {"name", state.name}},
                  Shown(state));
  }

  const char* Doing() const {
    if (lost_) return "waiting for the agent to come back";
    if (begun_) return "the update is under way";
    return IsBeingUpdated(session_.face()) ? "the agent updates itself"
                                           : "waiting for the update to begin";
  }

  void ShowPicture() {
    constexpr char kSpinner[] = {'|', '/', '-', '\\'};
    picture_ = (picture_ + 1) % sizeof kSpinner;
    console_.Draw({Stamped(report_.Elapsed(), std::string(1, kSpinner[picture_]) + " " + Doing())});
  }

  /** The end of waiting is not the end of the update. */
  void Explain(Failure* failure) const {
    if (ended_ || !taken_) return;
    if (failure->exit == kExitTimeout && lost_) {
      *failure = {std::nullopt, "CONNECTION_LOST",
                  "the connection to the agent was lost in the update, and " + failure->message,
                  kExitNoConnection, kHowItGoesOn};
    } else if (failure->exit == kExitTimeout || lost_) {
      failure->message += "; how the update ends is not known";
      failure->remedy = kHowItGoesOn;
    } else if (failure->exit >= kExitInterrupted) {
      failure->message += "; the agent goes on with the update";
    }
  }

  Session& session_;
  Console& console_;
  WorkReport report_;
  const std::vector<std::string> agents_;
  std::deque<News> news_;
  bool time_for_picture_ = false;
  std::size_t picture_ = 0;
  bool taken_ = false;
  bool begun_ = false;
  bool ended_ = false;
  bool lost_ = false;
  int losses_ = 0;
  Status final_ = {};
};

void ShowUpdating(Session& session, Console& console, double listen) {
  session.Connect();
  const vs::Token subscription = Subscribed(session.face().OnUpdateStatus(nullptr));
  if (listen > 0) {
    const double end = Now() + listen;
    session.EndTimeLimit();
    session.Every(listen, [] {});
    session.WaitUntil([&] { return IsBeingUpdated(session.face()) || Now() >= end; });
  }
  session.Settle();
  const vs::Outcome<bool> answer = session.face().IsBeingUpdated();
  if (!answer) throw FailureOf(answer.error());
  const bool updating = *answer;
  console.Data({{"updating", updating}}, updating ? "yes\n" : "no\n");
}

// Which of them have something newer only the agent knows, and it cannot be asked.
void ShowPlan(Session& session, Console& console, const std::vector<std::string>& agents) {
  session.Connect();
  Json list = Json::array();
  Table table;
  table.AddHeading({"AGENT", "INSTALLED"});
  for (const std::string& agent : agents) {
    const auto version = FindPackage(agent).version;
    list.push_back({{"agent", agent}, {"installed", version ? Json(*version) : Json()}});
    table.AddRow({{agent}, {version.value_or("")}});
  }
  console.Data({{"all", agents.empty()}, {"agents", list}},
               agents.empty() ? "all agents for which the agent has something newer\n"
                              : table.Render(console.color(), console.table_width()),
               list);
}

std::string CheckAgent(const std::string& text) { return text.empty() ? "'' names no agent" : ""; }

void AddUpdate(CLI::App& app, Command* chosen) {
  auto agents = std::make_shared<std::vector<std::string>>();
  CLI::App* update = app.add_subcommand("update", "Update the agents, and follow it to the end");
  update->add_option("AGENT", *agents, "The agents to update; without any, all of them")
      ->type_name("")
      ->check(CLI::Validator(CheckAgent, ""));
  auto dry_run = std::make_shared<bool>(false);
  update->add_flag("--dry-run", *dry_run, "Print which would be updated, and do nothing");
  update->callback([chosen, agents, dry_run] {
    *chosen = [agents, dry_run](Session& session, Console& console) {
      if (*dry_run) return ShowPlan(session, console, *agents);
      Update(session, console, *agents).Run();
    };
  });
}

void AddUpdating(CLI::App& app, Command* chosen) {
  auto listen = std::make_shared<double>(0);
  CLI::App* updating =
      app.add_subcommand("updating", "Tell whether an update of the agents is under way");
  AddListenOption(*updating, listen);
  updating->callback([chosen, listen] {
    *chosen = [listen](Session& session, Console& console) {
      ShowUpdating(session, console, *listen);
    };
  });
}

}  // namespace

void AddListenOption(CLI::App& command, const std::shared_ptr<double>& listen) {
  command
      .add_option("--listen", *listen,
                  "Listen for this many seconds, or until an update is reported (default: 0)")
      ->type_name("SECONDS")
      ->check(CLI::Validator(CheckSeconds, ""));
}

void AddUpdateCommands(CLI::App& app, Command* chosen) {
  AddUpdate(app, chosen);
  AddUpdating(app, chosen);
}

}  // namespace svcmgrctl
