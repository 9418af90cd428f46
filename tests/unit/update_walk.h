/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_UPDATE_WALK_H_
#define SVCMGR_UPDATE_WALK_H_

/* The connection and the update of the agents: a model, and the library under the same steps on the
 * fake platform. */

#include <SvcMgrAppProxyHandler.h>
#include <agent_update_state.h>

#include <algorithm>
#include <cstddef>
#include <deque>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "event_support.h"

namespace update_walk {

using Lines = std::vector<std::string>;

/** Which numbers the agent says, in the next step. */
struct Sayings {
  int answer = 0;
  int failure = 7;
};

/* The model: what the library has to do, with nothing taken from it. */

class Model {
 public:
  static constexpr int kKyrDisabled = -1073741826;
  static constexpr int kInvalidLevel = -1073741825;

  /** The lines that each step must leave; the model is in the next state then. */
  Lines Connect() {
    Frame();
    ++applications_;
    if (connected_) {
      Error("velmora_svcmgr_connect", "already connected\n");
      return Return(-106);
    }
    StartConnecting(applications_);
    return Return(0);
  }

  Lines Disconnect() {
    Frame();
    if (connected_) EndConnection();
    return Return(0);
  }

  Lines PortConnected() {
    Say("rpc_port_proxy_get_port(" + Proxy() + ", 1)");
    Info("OnConnected", "OnConnected");
    connected_ = port_ = true;
    Info("KeepConnection", "Keep the CONNECTION");
    if (watch_ == 0) {
      watch_ = ++handlers_;
      Say("event_add_event_handler(\"event." AGENT_PACKAGE_ID ".agent_status\", null)");
    }
    if (update_ != 4) Notify(0, 0);
    return Done();
  }

  Lines PortDisconnected() {
    Info("OnDisconnected", "OnDisconnected");
    connected_ = awaits_ = false;
    if (update_ == 2) {
      update_ = 3;
    } else {
      Notify(0, 1);
    }
    return Done();
  }

  Lines PortRejected() {
    Info("OnRejected", "OnRejected");
    connected_ = false;
    Notify(-13, 2);
    return Done();
  }

  Lines Update() {
    Say("bundle_get_str(bundle, \"Update\")");
    update_ = 2;
    Info("PrepareSvcmgrUpdate",
         "The connection to the proxy will be disconnected soonas the service-manager is updated.");
    return Done();
  }

  Lines Launch() {
    Say("bundle_get_str(bundle, \"Update\")");
    Say("bundle_get_str(bundle, \"Launch\")");
    // Whoever is subscribed wants the connection.
    if (connected_) return Done();
    if (update_ == 3) update_ = 4;
    Info("Reconnect", "Re-connect");
    EndConnection();
    StartConnecting(application_);
    return Done();
  }

  Lines Start() {
    Say("bundle_get_str_array(bundle, \"Start\")");
    update_ = 5;
    Say("status 0");
    return Done();
  }

  Lines Complete() {
    LookForOwnResult();
    Finish(1);
    return Done();
  }

  Lines Fail() {
    LookForOwnResult();
    Say("bundle_get_byte(bundle, \"Fail\")");
    Finish(said.failure == 0 ? 6 : StatusOf(said.failure));
    return Done();
  }

  Lines OwnResult() {
    LookUnderOwnId();
    Finish(StatusOf(said.failure));
    return Done();
  }

  Lines Request() {
    Frame();
    if (!connected_) {
      Info("velmora_svcmgr_request_update", "not initialized");
      return Return(-107);
    }
    update_ = 1;
    AskFor(4);
    switch (said.answer) {
      case 0:
        return Return(0);
      case -13:
        Info("velmora_svcmgr_request_update", "Permission denied");
        return Return(-13);
      case kKyrDisabled:
        Info("velmora_svcmgr_request_update", "KYR is disabled");
        return Return(kKyrDisabled);
      default:
        Info("velmora_svcmgr_request_update",
             "Failed to invoke_request_update. err = " + std::to_string(said.answer));
        return Return(-107);
    }
  }

  Lines Level() {
    Frame();
    if (!connected_) {
      Info("velmora_svcmgr_get_agent_api_level", "not initialized");
      return Return(-107);
    }
    AskFor(2);
    if (said.answer == kKyrDisabled) {
      Info("velmora_svcmgr_get_agent_api_level", "KYR is disabled");
      return Return(kKyrDisabled);
    }
    if (said.answer == -1) {
      Info("velmora_svcmgr_get_agent_api_level", "invalid api level");
      return Return(kInvalidLevel);
    }
    Say("level " + std::to_string(said.answer));
    return Return(0);
  }

  /** A request for a list, which the agent answers when it likes, and as often as it likes. What else
   *  asking and answering leave is not compared here. */
  Lines Ask() {
    if (!proxy_) return Return(-107);
    // The port of a connection that is lost still takes what is sent.
    if (!port_) return Return(-38);
    asked_ = awaits_ = true;
    return Return(0);
  }

  /** To the last request. The connection may be another one by now. */
  Lines Answer() {
    if (awaits_) Say("models " + std::to_string(ErrorOf(said.answer)) + ", 0");
    return Done();
  }

  /** The update's status, once more with the same callback. */
  Lines Follow() {
    Frame();
    if (status_ == 0) {
      status_ = ++handlers_;
      Say("event_add_event_handler(\"event." AGENT_PACKAGE_ID ".update_status\", null)");
    }
    return Return(0);
  }

  Lines Unfollow() {
    Frame();
    if (status_ != 0) {
      Say("event_remove_event_handler(event handler#" + std::to_string(status_) + ")");
    }
    status_ = 0;
    return Return(0);
  }

  /** What velmora_svcmgr_is_being_updated says. */
  std::string IsBeingUpdated() const {
    if (!connected_) return "not connected";
    return update_ > 1 ? "updating" : "not updating";
  }

  bool Always() const { return true; }
  bool HasProxy() const { return proxy_; }
  bool IsWatching() const { return watch_ != 0; }
  bool IsFollowing() const { return status_ != 0; }
  bool CanBeAnswered() const { return connected_ && asked_; }

  Sayings said;

  /** All that the model's future depends on, except the numbers that name things. */
  using State = std::tuple<bool, bool, bool, int>;
  State state() const { return {connected_, proxy_, watch_ != 0, update_}; }

 private:
  void Say(std::string line) { lines_.push_back(std::move(line)); }
  void Info(const std::string& function, const std::string& message) {
    Say("I " + function + ": " + message);
  }
  void Error(const std::string& function, const std::string& message) {
    Say("E " + function + ": " + message);
  }
  Lines Done() { return std::exchange(lines_, {}); }
  Lines Return(int code) {
    Say("returns " + std::to_string(code));
    return Done();
  }

  void Frame() {
    Say("package_info_create(\"" AGENT_PACKAGE_ID "\")");
    Say("package_info_destroy(package info)");
  }

  std::string Proxy() const { return "proxy#" + std::to_string(proxies_); }

  void Notify(int result, int state) {
    Say("connection " + std::to_string(application_) + ": result " + std::to_string(result) +
        ", state " + std::to_string(state));
  }

  // A question, and an answer that holds one number.
  void AskFor(int method) {
    Say("rpc_port_parcel_create()");
    Say("rpc_port_parcel_write_int32(parcel, " + std::to_string(method) + ")");
    Say("rpc_port_parcel_send(parcel, main port of " + Proxy() + ")");
    Say("rpc_port_parcel_create_from_port(main port of " + Proxy() + ")");
    Say("rpc_port_parcel_read_int32(parcel)");
    Say("rpc_port_parcel_read_int32(parcel)");
    Say("rpc_port_parcel_destroy(parcel)");
    Say("rpc_port_parcel_destroy(parcel)");
  }

  void StartConnecting(int application) {
    Info("Connect", "Connect");
    application_ = application;
    if (proxy_) return;
    proxy_ = true;
    ++proxies_;
    Say("rpc_port_proxy_create()");
    for (const char* event : {"connected", "disconnected", "rejected", "received"}) {
      Say(std::string("rpc_port_proxy_add_") + event + "_event_cb(" + Proxy() + ")");
    }
    Say("rpc_port_proxy_connect(" + Proxy() + ", \"" AGENT_PACKAGE_ID "\", \"SvcMgrAppPort\")");
  }

  void EndConnection() {
    Info("Disconnect", "Disconnect");
    connected_ = port_ = awaits_ = false;
    if (proxy_) Say("rpc_port_proxy_destroy(" + Proxy() + ")");
    proxy_ = false;
    Info("DontCareConnection", "Don't care about CONNECTION");
    if (watch_ != 0) {
      Say("event_remove_event_handler(event handler#" + std::to_string(watch_) + ")");
    }
    watch_ = 0;
    Info("Disconnect", "proxy handle was destroyed");
  }

  // The event holds no text array "Start".
  void LookUnderOwnId() {
    Say("bundle_get_str_array(bundle, \"Start\")");
    Say("app_get_id()");
    Say("bundle_get_byte(bundle, \"org.example.app\")");
  }

  // There is no number for the application.
  void LookForOwnResult() {
    LookUnderOwnId();
    Say("bundle_get_str(bundle, \"Complete\")");
  }

  static int ErrorOf(int result) {
    constexpr int kErrors[] = {0,   -38, 0, -1073741831, -38, -28, -1073741829, -38, kKyrDisabled,
                               -13, 0};
    return result >= 0 && result <= 10 ? kErrors[result] : -38;
  }

  static int StatusOf(int result) {
    switch (result) {
      case 0:
        return 1;
      case 1:
        return 2;
      case 3:
        return 3;
      case 7:
        return 4;
      case 10:
        return 5;
      case 13:
        return 7;
      default:
        return 6;
    }
  }

  void Finish(int status) {
    if (update_ != 0) Say("status " + std::to_string(status));
    update_ = 0;
  }

  bool connected_ = false;
  bool proxy_ = false;
  bool port_ = false;    // whether the proxy has been connected
  int watch_ = 0;        // number of the watch's subscription, or 0
  bool asked_ = false;   // whether a list was ever asked for
  bool awaits_ = false;  // whether it was by the present connection
  int update_ = 0;
  int application_ = 0;  // whose connection callback is stored
  int applications_ = 0;
  int proxies_ = 0;
  int handlers_ = 1;
  int status_ = 1;  // the subscription to the update's statuses, which is the first
  Lines lines_;
};

/* The library, under the same steps. */

class Library {
 public:
  Library() {
    fake::Reset();
    fake::OnSend([this](const fake::Sent& request) {
      // What names a delegate is answered when a step says so.
      if (request.items.size() == 1) fake::QueueReply({said.answer});
    });
    velmora_svcmgr_set_update_status_cb(OnStatus, this);
    fake::ClearRecord();
  }

  // Leaves an idle context behind.
  ~Library() {
    SvcMgrAppProxyHandler::GetInstance().Disconnect();
    velmora_svcmgr_unset_update_status_cb();
    svcmgr::agent_update_state.End();
  }

  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;

  void Connect() {
    applications_.push_back({this, static_cast<int>(applications_.size()) + 1});
    Return(velmora_svcmgr_connect(OnConnection, &applications_.back()));
  }
  void Disconnect() { Return(velmora_svcmgr_disconnect()); }
  void Request() { Return(velmora_svcmgr_request_update()); }

  void PortConnected() { Port(&fake::ProxyControl::FireConnected); }
  void PortDisconnected() { Port(&fake::ProxyControl::FireDisconnected); }
  void PortRejected() { Port(&fake::ProxyControl::FireRejected); }

  void Update() { Delivered(events::AnnounceUpdate()); }
  void Launch() { Delivered(events::AnnounceLaunch()); }
  void Start() { Delivered(events::AnnounceStart()); }
  void Complete() { Delivered(events::AnnounceComplete()); }
  void Fail() { Delivered(events::AnnounceFailure(said.failure)); }
  void OwnResult() {
    Delivered(fake::FireEvent(events::kUpdateStatus,
                              fake::BundleBuilder().Int("org.example.app", said.failure)));
  }

  void Level() {
    int level = 0;
    const int code = velmora_svcmgr_get_agent_api_level(&level);
    if (code == 0) Say("level " + std::to_string(level));
    Return(code);
  }
  void Ask() {
    const int code = velmora_svcmgr_ai_request_usable_model_list(OnModels, this);
    if (code == 0) request_ = fake::SentParcels().back().items;
    fake::ClearRecord();
    Return(code);
  }
  void Answer() {
    const int error = said.answer;
    fake::DeliverDelegateMessage(request_[1].number, request_[2].number,
                                 {error, fake::Count(0), 0});
    fake::ClearRecord();
  }
  void Follow() { Return(velmora_svcmgr_set_update_status_cb(OnStatus, this)); }
  void Unfollow() { Return(velmora_svcmgr_unset_update_status_cb()); }

  /** The lines since the last call. */
  Lines Take() {
    Drain();
    for (const std::string& fault : fake::Faults()) lines_.push_back("fault: " + fault);
    return std::exchange(lines_, {});
  }

  std::string IsBeingUpdated() {
    bool updating = false;
    const int code = velmora_svcmgr_is_being_updated(&updating);
    fake::ClearRecord();
    if (code == -107) return "not connected";
    if (code != 0) return "fails with " + std::to_string(code);
    return updating ? "updating" : "not updating";
  }

  bool HasProxy() const { return fake::LiveObjects(fake::Kind::kProxy) > 0; }
  bool IsWatching() const { return IsSubscribed(events::kAgentStatus); }
  bool IsFollowing() const { return IsSubscribed(events::kUpdateStatus); }
  bool HoldsNothingElse() const {
    return fake::LiveObjects(fake::Kind::kParcel) == 0 &&
           fake::LiveObjects(fake::Kind::kPackageInfo) == 0 && fake::WaitingMessages() == 0;
  }

  Sayings said;

 private:
  struct Application {
    Library* library;
    int number;
  };

  static bool IsSubscribed(const char* event) {
    const auto names = fake::Subscriptions();
    return std::find(names.begin(), names.end(), event) != names.end();
  }

  static void OnConnection(int result, int state, void* user_data) {
    const auto* const application = static_cast<Application*>(user_data);
    application->library->Say("connection " + std::to_string(application->number) + ": result " +
                              std::to_string(result) + ", state " + std::to_string(state));
  }

  static void OnModels(int error, velmora_svcmgr_ai_model_list_h list, void* user_data) {
    int size = -1;
    velmora_svcmgr_ai_model_list_get_size(list, &size);
    velmora_svcmgr_ai_model_list_destroy(list);
    fake::ClearRecord();
    static_cast<Library*>(user_data)->Say("models " + std::to_string(error) + ", " +
                                          std::to_string(size));
  }

  static void OnStatus(int status, void* user_data) {
    static_cast<Library*>(user_data)->Say("status " + std::to_string(status));
  }

  void Port(void (fake::ProxyControl::*event)() const) {
    if (HasProxy()) {
      (fake::Proxy().*event)();
    } else {
      Say("there is no proxy");
    }
  }

  void Delivered(int handlers) {
    if (handlers != 1) Say("the event had " + std::to_string(handlers) + " handlers");
  }

  void Return(int code) { Say("returns " + std::to_string(code)); }

  // Takes over what the fake has recorded, so that all lines are in one order.
  void Drain() {
    for (std::string& line : fake::Trace()) lines_.push_back(WithoutNumbers(std::move(line)));
    fake::ClearRecord();
  }

  void Say(std::string line) {
    Drain();
    lines_.push_back(std::move(line));
  }

  // Parcels, bundles and package infos need no numbers.
  static std::string WithoutNumbers(std::string line) {
    for (const char* kind : {"(parcel#", "(bundle#", "(package info#"}) {
      const std::size_t found = line.find(kind);
      if (found == std::string::npos) continue;
      const std::size_t number = line.find('#', found);
      line.erase(number, line.find_first_not_of("0123456789", number + 1) - number);
    }
    return line;
  }

  std::deque<Application> applications_;
  fake::Items request_;
  Lines lines_;
};

/* Steps and walks. */

struct Step {
  const char* name;
  Lines (Model::*expected)();
  void (Library::*act)();
  bool (Model::*possible)() const;
};

inline constexpr Step kSteps[] = {
    {"connect", &Model::Connect, &Library::Connect, &Model::Always},
    {"disconnect", &Model::Disconnect, &Library::Disconnect, &Model::Always},
    {"connected", &Model::PortConnected, &Library::PortConnected, &Model::HasProxy},
    {"disconnected", &Model::PortDisconnected, &Library::PortDisconnected, &Model::HasProxy},
    {"rejected", &Model::PortRejected, &Library::PortRejected, &Model::HasProxy},
    {"Update", &Model::Update, &Library::Update, &Model::IsWatching},
    {"Launch", &Model::Launch, &Library::Launch, &Model::IsWatching},
    {"Start", &Model::Start, &Library::Start, &Model::IsFollowing},
    {"Complete", &Model::Complete, &Library::Complete, &Model::IsFollowing},
    {"Fail", &Model::Fail, &Library::Fail, &Model::IsFollowing},
    {"request", &Model::Request, &Library::Request, &Model::Always},
};

/** Steps that only long walks take. */
inline constexpr Step kMoreSteps[] = {
    {"own", &Model::OwnResult, &Library::OwnResult, &Model::IsFollowing},
    {"level", &Model::Level, &Library::Level, &Model::Always},
    {"ask", &Model::Ask, &Library::Ask, &Model::Always},
    {"answer", &Model::Answer, &Library::Answer, &Model::CanBeAnswered},
    {"follow", &Model::Follow, &Library::Follow, &Model::Always},
    {"unfollow", &Model::Unfollow, &Library::Unfollow, &Model::Always},
};

using Walk = std::vector<const Step*>;

inline std::string Script(const Walk& walk) {
  std::string script;
  for (const Step* step : walk) script += (script.empty() ? "" : " ") + std::string(step->name);
  return script;
}

inline void Print(std::ostream& out, const char* title, const Lines& lines) {
  out << title << '\n';
  for (const std::string& line : lines) out << "    " << line << '\n';
}

/** Empty if the library does what the model says at each step, in which the agent says the number of
 *  the same place, if there is one. */
inline std::string DifferencesOf(const Walk& walk, const std::vector<Sayings>& said) {
  std::ostringstream report;
  Model model;
  Library library;
  for (std::size_t i = 0; i < walk.size(); ++i) {
    if (i < said.size()) model.said = library.said = said[i];
    (library.*walk[i]->act)();
    const Lines seen = library.Take();
    const Lines expected = (model.*walk[i]->expected)();
    const std::string answer = library.IsBeingUpdated();
    const bool holds_the_same =
        library.HasProxy() == model.HasProxy() && library.IsWatching() == model.IsWatching() &&
        library.IsFollowing() == model.IsFollowing() && library.HoldsNothingElse();
    if (seen == expected && answer == model.IsBeingUpdated() && holds_the_same) continue;
    const Walk failing(walk.begin(), walk.begin() + static_cast<std::ptrdiff_t>(i) + 1);
    report << "SVCMGR_WALK=\"" << Script(failing) << "\"\n";
    if (i < said.size())
      report << "  the agent says " << said[i].answer << " or " << said[i].failure << '\n';
    Print(report, "  the last step must leave", expected);
    Print(report, "  it left", seen);
    report << "  must be " << model.IsBeingUpdated() << ", is " << answer << '\n';
    if (!holds_the_same) report << "  proxy, subscription or parcels are not as they must be\n";
    break;
  }
  return report.str();
}

/** The same where the agent always says the same numbers. */
inline std::string Differences(const Walk& walk) { return DifferencesOf(walk, {}); }

}  // namespace update_walk

#endif  // SVCMGR_UPDATE_WALK_H_
