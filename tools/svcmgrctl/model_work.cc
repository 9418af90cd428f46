// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "bars.h"
#include "clock.h"
#include "commands.h"
#include "model_plan.h"
#include "queries.h"
#include "statuses.h"
#include "subscriptions.h"
#include "table.h"
#include "terminal_text.h"
#include "work_progress.h"
#include "work_report.h"

namespace svcmgrctl {
namespace {

using terminal_text::ForTerminal;

struct Kind {
  decltype(&vs::Session::Update) request;
  bool takes_versions;
  const char* doing;
  const char* done;
};

constexpr Kind kUpdate = {&vs::Session::Update, true, "update", "updated"};
constexpr Kind kUninstall = {&vs::Session::Uninstall, false, "uninstallation", "uninstalled"};

std::string NameOf(const Model& model) {
  return *model.id + (model.version->empty() ? "" : "@" + *model.version);
}

std::string Counted(std::size_t models) {
  return std::to_string(models) + (models == 1 ? " model is " : " models are ");
}

/** One update or uninstallation of models, from the request to its end. */
class ModelWork {
 public:
  ModelWork(Session& session, Console& console, const Kind& kind, std::vector<Model> models)
      : session_(session),
        console_(console),
        report_(console),
        kind_(kind),
        models_(std::move(models)) {}

  /** @param asks_first  What is up to date already is left out. */
  void Run(bool asks_first) {
    session_.Connect();
    report_.Begin();
    if (asks_first) LeaveOutWhatIsUpToDate();
    for (const Model& model : models_) names_.push_back(ForTerminal(NameOf(model)));
    if (models_.empty()) return EndWithoutWork();
    const vs::Token subscription =
        Subscribed(session_.face().OnModelStatus([this](vs::ModelStatus status) {
          news_.emplace_back(ModelStatus(static_cast<int>(status)));
        }));
    Request();
    session_.Every(kPictureSeconds, [this] { time_for_picture_ = true; });
    try {
      Follow();
    } catch (Failure& failure) {
      if (failure.exit != kExitTimeout || work_.TimeIsUp() == vs::Verdict::kGoesOn) {
        LeavePicture();
        Explain(&failure);
        throw;
      }
    }
    Finish();
  }

 private:
  void LeaveOutWhatIsUpToDate() {
    for (const Model& model : TakeUpToDate(session_, &models_))
      report_.Print(
          "skipped", {{"id", *model.id}, {"version", *model.version}},
          ForTerminal(*model.id) + ": " + ForTerminal(*model.version) + " is installed already");
  }

  void EndWithoutWork() {
    report_.Print("end",
                  {{"succeeded", true}, {"error", SVCMGR_ERROR_NONE}, {"decided_by", "versions"}},
                  "nothing to do");
  }

  void Request() {
    std::vector<vs::ModelName> names;
    for (const Model& model : models_) names.push_back(NameFrom(model));
    session_.Settle();
    news_.clear();
    report_.Begin();
    work_ = (session_.face().*kind_.request)(
        std::move(names), [this](const vs::Progress& progress) { news_.emplace_back(progress); },
        [this](vs::Outcome<void> end) { end_ = end; }, {});
    progress_.emplace(work_.tracker(), Now());
    if (!work_.asked()) {
      session_.WaitUntil([this] { return end_.has_value(); });
      throw FailureOf(end_->error());
    }
    Json ids = Json::array();
    for (const Model& model : models_)
      ids.push_back({{"id", *model.id}, {"version", *model.version}});
    report_.Print(
        "requested", {{"work", kind_.doing}, {"models", ids}},
        std::string("the agent was asked for the ") + kind_.doing + " of " + Listed(names_));
  }

  void Follow() {
    while (!end_) {
      session_.WaitUntil([this] { return time_for_picture_ || !news_.empty() || end_; });
      time_for_picture_ = false;
      for (; !news_.empty(); news_.pop_front()) Take(news_.front());
      TellOfStall();
      ShowPicture();
    }
    if (!*end_ && end_->error() == vs::Error(vs::kConnectionLost)) throw FailureOf(end_->error());
  }

  using News = std::variant<vs::Progress, Status>;

  void Take(const News& news) {
    session_.Heard();
    stall_told_ = false;
    if (const auto* status = std::get_if<Status>(&news)) {
      progress_->Note(Now());
      report_.Print("model", {{"status", status->number}, {"name", status->name}}, "");
    } else {
      TakeProgress(std::get<vs::Progress>(news));
    }
  }

  void TakeProgress(const vs::Progress& progress) {
    const double now = Now();
    progress_->Note(now);
    const vs::WorkReport& numbers = progress.report;
    const std::size_t model = progress.model;
    const int percent = progress.percent;
    const auto rate = progress_->RateAt(now);
    const auto remaining = progress_->RemainingAt(now);
    // Enough for a log; a terminal shows every change.
    const bool worth_a_line =
        !console_.live() && (model != told_model_ || percent / 10 > told_tenth_);
    if (worth_a_line) {
      told_model_ = model;
      told_tenth_ = percent / 10;
    }
    report_.Print("progress",
                  {{"error", numbers.error},
                   {"state", static_cast<int>(numbers.state)},
                   {"index", numbers.index},
                   {"count", numbers.count},
                   {"percentage", numbers.percentage},
                   {"id", *models_[model].id},
                   {"model_percent", percent},
                   {"total_percent", progress.total},
                   {"rate", rate ? Json(Rounded(*rate)) : Json()},
                   {"remaining", remaining ? Json(Rounded(*remaining)) : Json()}},
                  worth_a_line ? names_[model] + ": " + std::to_string(percent) + " % (total " +
                                     std::to_string(progress.total) + " %)"
                               : "");
  }

  void TellOfStall() {
    const auto silence = progress_->StallAt(Now());
    if (!silence || std::exchange(stall_told_, true)) return;
    report_.Print(
        "stalled", {{"silence", Rounded(*silence)}},
        console_.live() ? "" : "stalled: nothing was heard for " + Duration(std::floor(*silence)));
  }

  void ShowPicture() {
    if (console_.live())
      console_.Draw(Bars(names_, *progress_, Now(), console_.TerminalSpace(), console_.color()));
  }

  void LeavePicture() {
    ShowPicture();
    console_.KeepDrawn();
  }

  void Finish() {
    LeavePicture();
    const vs::Error failure = work_.tracker()->failure();
    const bool succeeded = work_.tracker()->verdict() == vs::Verdict::kDone;
    const bool has_code = !succeeded && failure != vs::Error(vs::kWorkFailed);
    report_.Print(
        "end",
        {{"succeeded", succeeded},
         {"error", has_code ? failure.code() : SVCMGR_ERROR_NONE},
         {"decided_by", work_.ended_by_events() ? "event" : "progress"}},
        succeeded ? Counted(models_.size()) + kind_.done : std::string(kind_.doing) + " failed");
    if (!succeeded) throw Reason(failure);
  }

  /** Why the work has failed: what the agent says, or that it does not know what was asked for. */
  Failure Reason(vs::Error error) {
    const std::string name = NameOf(models_[progress_->Current()]);
    Failure failure = FailureOf(error);
    if (error.code() == SVCMGR_ERROR_INVALID_OPERATION) {
      if (const auto unknown = FindUnknown()) return *unknown;
    }
    failure.message = name + ": " + failure.message;
    return failure;
  }

  /** The agent has one code for all that cannot be done; whether it is because there is no such model
   *  has to be asked. Without an answer the code is all that is known. */
  std::optional<Failure> FindUnknown() {
    try {
      for (std::size_t i = progress_->Current(); i < models_.size(); ++i) {
        if (auto failure =
                kind_.takes_versions ? IfNotOffered(session_, models_[i]) : IfNotUsable(models_[i]))
          return failure;
      }
    } catch (const Failure&) {
    }
    return std::nullopt;
  }

  std::optional<Failure> IfNotUsable(const Model& wanted) {
    const std::vector<Model> usable = AskUsableModels(session_);
    const bool found = std::any_of(usable.begin(), usable.end(),
                                   [&](const Model& each) { return each.id == wanted.id; });
    if (found) return std::nullopt;
    return NoSuchModel(*wanted.id, usable);
  }

  /** The end of waiting is not the end of the work. */
  void Explain(Failure* failure) const {
    const std::size_t model = progress_->Current();
    const std::string where = std::string(kind_.doing) + " of " + NameOf(models_[model]) + " (" +
                              std::to_string(model + 1) + " of " + std::to_string(models_.size()) +
                              ", " + std::to_string(progress_->PercentOf(model)) + " %)";
    if (failure->exit == kExitTimeout || failure->exit == kExitNoConnection) {
      failure->message += "; how the " + where + " ends is not known";
      failure->remedy = kHowItGoesOn;
    } else if (failure->exit >= kExitInterrupted) {
      failure->message += "; the agent goes on with the " + where;
    }
  }

  Session& session_;
  Console& console_;
  WorkReport report_;
  const Kind& kind_;
  std::vector<Model> models_;
  std::vector<std::string> names_;
  std::deque<News> news_;
  vs::ModelWork work_;
  std::optional<vs::Outcome<void>> end_;
  std::optional<WorkProgress> progress_;
  bool time_for_picture_ = false;
  bool stall_told_ = false;
  // The last line for people.
  std::size_t told_model_ = 0;
  int told_tenth_ = -1;
};

/** ID@VERSION; the last @ counts, and an empty version means the newest. */
Model ModelFrom(const std::string& text, bool takes_versions) {
  const std::size_t at = takes_versions ? text.rfind('@') : std::string::npos;
  Model model;
  model.id = text.substr(0, at);
  model.version = at == std::string::npos ? "" : text.substr(at + 1);
  return model;
}

std::string CheckModel(const std::string& text) {
  return text.empty() || text[0] == '@' ? "'" + text + "' names no model" : std::string();
}

Json ToJson(const std::vector<PlannedModel>& plan) {
  const auto or_null = [](const std::optional<std::string>& text) {
    return text ? Json(*text) : Json();
  };
  Json list = Json::array();
  for (const PlannedModel& each : plan)
    list.push_back({{"action", each.action},
                    {"id", each.id},
                    {"installed", or_null(each.installed)},
                    {"version", or_null(each.version)}});
  return list;
}

std::string TableOf(const std::vector<PlannedModel>& plan, const Console& console) {
  Table table;
  table.AddHeading({"ACTION", "ID", "INSTALLED", "VERSION"});
  for (const PlannedModel& each : plan)
    table.AddRow(
        {{each.action}, {each.id}, {each.installed.value_or("")}, {each.version.value_or("")}});
  return table.Render(console.color(), console.table_width());
}

struct WorkOptions {
  std::vector<std::string> models;
  bool force = false;
  bool dry_run = false;
};

void ShowPlan(Session& session, Console& console, const Kind& kind,
              const std::vector<Model>& models, bool force) {
  session.Connect();
  const auto plan = kind.takes_versions ? PlanUpdate(session, models, force)
                                        : PlanUninstallation(session, models);
  if (std::all_of(plan.begin(), plan.end(), [](const PlannedModel& each) {
        return std::string_view(each.action) == "nothing";
      }))
    console.Note("nothing to do");
  const Json records = ToJson(plan);
  console.Data({{"work", kind.doing}, {"models", records}}, TableOf(plan, console), records);
}

CLI::App* AddWork(CLI::App& models, Command* chosen, const Kind& kind, const char* name,
                  const char* description, const char* placeholder,
                  const std::shared_ptr<WorkOptions>& options) {
  CLI::App* work = models.add_subcommand(name, description);
  work->add_option(placeholder, options->models, "The models, as 'models list' shows them")
      ->type_name("")
      ->required()
      ->check(CLI::Validator(CheckModel, ""));
  work->add_flag("--dry-run", options->dry_run, "Print what would be done, and do nothing");
  work->callback([chosen, options, &kind] {
    *chosen = [options, &kind](Session& session, Console& console) {
      std::vector<Model> list;
      for (const std::string& text : options->models)
        list.push_back(ModelFrom(text, kind.takes_versions));
      if (options->dry_run) return ShowPlan(session, console, kind, list, options->force);
      ModelWork(session, console, kind, list).Run(kind.takes_versions && !options->force);
    };
  });
  return work;
}

}  // namespace

void AddModelWorkCommands(CLI::App& models, Command* chosen) {
  const auto options = std::make_shared<WorkOptions>();
  CLI::App* update =
      AddWork(models, chosen, kUpdate, "update", "Install or update models, and follow the work",
              "ID[@VERSION]", options);
  update->add_flag("--force", options->force,
                   "Have the agent do it also where nothing newer is wanted than is installed");
  AddWork(models, chosen, kUninstall, "uninstall", "Remove models, and follow the work", "ID",
          std::make_shared<WorkOptions>());
}

}  // namespace svcmgrctl
