// SPDX-License-Identifier: Apache-2.0
#include "examination.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "bus.h"
#include "clock.h"
#include "explanations.h"
#include "packages.h"
#include "port_folder.h"
#include "queries.h"
#include "subscriptions.h"
#include "version.h"

namespace svcmgrctl {
namespace {

constexpr double kStepSeconds = 0.02;
constexpr double kLongestForBus = 10;
constexpr char kAnew[] =
    " An application in that state has to be started anew: its process never gets a connection.";
constexpr char kSimulated[] = " Without a device: svcmgr-sim run demo -- \u2026";
constexpr char kUpdateAgent[] = "Have the agent updated: svcmgrctl update.";

std::string RemedyOfCode(int code) {
  const Explanation* found = FindExplanation(Family::kError, code);
  return found == nullptr ? "" : std::string(found->remedy);
}

/** Looks at one thing after the other, each as far as those before let it. */
class Examination {
 public:
  Examination(Session& session, double timeout, double listen)
      : session_(session), timeout_(timeout), listen_(listen) {}

  std::vector<Finding> Run() {
    Well("library", "Library",
         LibraryVersion() + ", API level " + std::to_string(VELMORA_SVCMGR_API_LEVEL));
    LookAtPackages();
    LookAtAgent();
    LookAtBus();
    LookAtConnection();
    LookAtLevel();
    LookAtModels();
    LookAtUpdate();
    return std::move(findings_);
  }

 private:
  void Well(const char* part, const char* title, std::string what) {
    findings_.push_back({part, title, Health::kWell, std::move(what), "", std::nullopt});
  }

  void Ill(const char* part, const char* title, Failure failure, std::string remedy) {
    std::string what = failure.message;
    failure.remedy = "";
    findings_.push_back(
        {part, title, Health::kIll, std::move(what), std::move(remedy), std::move(failure)});
  }

  void Unknown(const char* part, const char* title, std::string why) {
    findings_.push_back({part, title, Health::kUnknown, std::move(why), "", std::nullopt});
  }

  void LookAtPackages() {
    const auto count = CountPackages();
    if (!count)
      Ill("packages", "Packages",
          {std::nullopt, "NO_PACKAGES", "the installed packages cannot be read", kExitAgentMissing},
          "See who may read the folder of packages.");
    else if (*count == 0)
      Ill("packages", "Packages",
          {std::nullopt, "NO_PACKAGES", "no package is installed", kExitAgentMissing},
          std::string("See that the folder of packages is the right one "
                      "(VELMORA_PACKAGE_DIR on a desktop), or install the agent.") +
              kSimulated);
    else
      Well("packages", "Packages",
           std::to_string(*count) + (*count == 1 ? " is" : " are") + " installed");
  }

  void LookAtAgent() {
    const Package package = FindAgentPackage();
    is_missing_ = package.is_installed == false;
    if (is_missing_)
      return Ill("agent", "Agent", FailureOf(SVCMGR_ERROR_NOT_SUPPORTED),
                 std::string("Install the package ") + AgentPackageId() + "." + kSimulated);
    if (!package.version)
      return Ill("agent", "Agent",
                 {std::nullopt, "NO_VERSION", "the version of the agent cannot be read",
                  kExitAgentMissing},
                 std::string("Install the package ") + AgentPackageId() + " again.");
    const std::string version = "version " + *package.version;
    if (!IsAtLeast(*package.version, 1, 7))
      return Ill("agent", "Agent",
                 FailureOf(SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION,
                           version + " is too old for models, which need 1.7"),
                 kUpdateAgent);
    if (!IsAtLeast(*package.version, 2, 3))
      return Ill(
          "agent", "Agent",
          FailureOf(SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION,
                    version + " is too old for categories and updates of named agents, which "
                              "need 2.3"),
          kUpdateAgent);
    Well("agent", "Agent", version);
  }

  void LookAtBus() {
    const double limit = timeout_ > 0 ? std::min(kLongestForBus, timeout_ / 3) : kLongestForBus;
    const double end = Now() + limit;
    BusProbe bus;
    BusProbe::State state = bus.Step();
    bool is_time = false;
    session_.Every(kStepSeconds, [&ticks = ticks_] { ++ticks; });
    for (long seen = ticks_; state == BusProbe::State::kUnderWay && !is_time; seen = ticks_) {
      session_.WaitUntil([&] { return ticks_ != seen; });
      state = bus.Step();
      is_time = Now() >= end;
    }
    if (state == BusProbe::State::kAnswers) return Well("bus", "Session bus", "answers");
    const bool is_silent = state == BusProbe::State::kUnderWay;
    Ill("bus", "Session bus",
        {std::nullopt, "NO_BUS",
         is_silent ? "the session bus does not answer" : "there is no session bus: " + bus.reason(),
         kExitFailed},
        is_silent
            ? "See whether the bus is stopped or overloaded. Until it answers, nothing is heard of "
              "updates."
            : "Start a session bus, or let DBUS_SESSION_BUS_ADDRESS name it (dbus-run-session "
              "COMMAND). Without it nothing is heard of updates, and a restart of the agent is a "
              "loss for good." +
                  std::string(kAnew));
  }

  void LookAtConnection() {
    if (is_missing_) return NoConnection("there is no agent to connect to");
    try {
      update_status_ = Subscribed(session_.face().OnUpdateStatus([this](vs::UpdateStatus status) {
        update_has_begun_ = static_cast<int>(status) == SVCMGR_UPDATE_STATUS_STARTED;
      }));
      session_.Connect();
      is_connected_ = true;
    } catch (const Failure& failure) {
      if (failure.exit >= kExitInterrupted) throw;
      return BadConnection(failure);
    }
    Well("port", "Port", "the agent listens");
    Well("permission", "Permission", "this application may connect");
    Well("connection", "Connection", "stands");
  }

  void NoConnection(const std::string& why) {
    for (const auto& [part, title] :
         {std::pair("port", "Port"), {"permission", "Permission"}, {"connection", "Connection"}})
      Unknown(part, title, why);
  }

  void BadConnection(const Failure& failure) {
    if (failure.exit == kExitPermission) return NotPermitted(failure);
    if (failure.code == SVCMGR_ERROR_CONNECTION_FAILED) {
      NoPort(failure);
      Unknown("permission", "Permission", "nobody was asked");
    } else {
      Well("port", "Port", "the agent listens");
      Unknown("permission", "Permission", "the agent has not said");
    }
    if (failure.exit == kExitTimeout)
      Ill("connection", "Connection", failure,
          std::string(
              "The agent neither accepts nor refuses: see whether its process is stopped or hangs, "
              "and restart it.") +
              kAnew);
    else if (failure.code == SVCMGR_ERROR_CONNECTION_FAILED)
      Unknown("connection", "Connection", "there is nobody to connect to");
    else
      Ill("connection", "Connection", failure,
          std::string(
              "The agent went away before it had accepted: see whether it crashes or is being "
              "replaced, then try again.") +
              kAnew);
  }

  void NotPermitted(const Failure& failure) {
    const bool is_refused = failure.message.find("refused") != std::string::npos;
#ifdef SVCMGRCTL_DESKTOP
    const PortFolder folder = LookAtPortFolder();
    if (!is_refused && folder.state == PortFolder::State::kNotTrusted) {
      Ill("port", "Port",
          FailureOf(SVCMGR_ERROR_PERMISSION_DENIED,
                    "the folder of ports '" + folder.path + "' is not this user's alone"),
          "Let it belong to this user and be closed to all others (mode 0700), or let "
          "VELMORA_RUNTIME_DIR name another one.");
      Unknown("permission", "Permission", "nobody was asked");
      return Unknown("connection", "Connection", "none without a port");
    }
#endif
    Well("port", "Port", "the agent listens");
    Ill("permission", "Permission", failure,
        std::string("Declare the privilege that the device asks for, and have the agent admit this "
                    "application.") +
            (is_refused ? kAnew : ""));
    Unknown("connection", "Connection", "none without the permission");
  }

  void NoPort(Failure failure) {
    std::string remedy = "Start the agent; connecting again later works then.";
#ifdef SVCMGRCTL_DESKTOP
    const PortFolder folder = LookAtPortFolder();
    if (folder.state == PortFolder::State::kNoFolder)
      failure.message += ": there is no folder of ports '" + folder.path + "'";
    else if (folder.state == PortFolder::State::kNoPort)
      failure.message += ": it has no port in '" + folder.path + "'";
    else
      failure.message += ": nobody listens at its port in '" + folder.path + "'";
    remedy += " If it runs elsewhere, let VELMORA_RUNTIME_DIR name its folder.";
#endif
    Ill("port", "Port", std::move(failure), remedy + kSimulated);
  }

  /** Asks; whether the connection still stands then. */
  template <class Question>
  void Ask(const char* part, const char* title, const Question& question) {
    if (!is_connected_) return Unknown(part, title, "not asked: there is no connection");
    try {
      Well(part, title, question());
    } catch (const Failure& failure) {
      if (failure.exit >= kExitInterrupted) throw;
      if (failure.exit == kExitTimeout) {
        is_connected_ = false;
        return Ill(
            part, title, failure,
            "The agent has accepted, and does not answer: see whether its process is stopped or "
            "hangs, and restart it. What was asked is never answered; ask again then.");
      }
      if (failure.exit == kExitNoConnection) {
        is_connected_ = false;
        return Ill(part, title, failure,
                   "The agent has gone in place of an answer: see whether it crashes. An "
                   "application waits "
                   "until it is back; what was asked is never answered.");
      }
      Ill(part, title, failure, RemedyOfCode(failure.code.value_or(0)));
    }
  }

  void LookAtLevel() {
    Ask("level", "API level", [this] {
      const int level = AskApiLevel(session_);
      if (level <= 0)
        throw FailureOf(SVCMGR_ERROR_INVALID_API_LEVEL,
                        "the agent says that its level is " + std::to_string(level));
      return std::to_string(level) +
             (level < VELMORA_SVCMGR_API_LEVEL ? ", older than the library's" : "");
    });
  }

  void LookAtModels() {
    Ask("models", "Models", [this] {
      const std::size_t count = AskUsableModels(session_).size();
      return std::to_string(count) + (count == 1 ? " is" : " are") + " usable";
    });
  }

  void LookAtUpdate() {
    Ask("update", "Update", [this]() -> std::string {
      const auto is_under_way = [this] {
        return update_has_begun_ || session_.face().IsBeingUpdated().value_or(false);
      };
      if (listen_ > 0) {
        const double end = Now() + listen_;
        session_.EndTimeLimit();
        session_.WaitUntil([&] { return is_under_way() || Now() >= end; });
      }
      session_.Settle();
      if (is_under_way())
        throw Failure{std::nullopt, "UPDATING", "an update of the agents is under way",
                      kExitFailed};
      return "none is reported";
    });
    Finding& last = findings_.back();
    if (last.failure && last.failure->name == "UPDATING")
      last.remedy =
          "Wait until it has ended: svcmgrctl watch update. Until then requests may fail.";
  }

  Session& session_;
  const double timeout_;
  const double listen_;
  std::vector<Finding> findings_;
  long ticks_ = 0;
  bool is_missing_ = false;
  bool is_connected_ = false;
  bool update_has_begun_ = false;
  vs::Token update_status_;
};

}  // namespace

std::vector<Finding> Examine(Session& session, double timeout, double listen) {
  return Examination(session, timeout, listen).Run();
}

}  // namespace svcmgrctl
