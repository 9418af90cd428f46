// SPDX-License-Identifier: Apache-2.0
// The connection and the update of the agents, walked through in every order, against a model.
//
// A walk is an order of the steps in kSteps. The library takes it on the fake platform, and the
// model below says what must be seen: return codes, application callbacks, platform calls and log
// records, in one order, and what velmora_svcmgr_is_being_updated says after each step.
//
// What is walked: a step that cannot happen (a port event without a proxy, an event without a
// subscription) is left out, after checking that the platform has indeed nobody to tell: without
// it the walk is a shorter one, which is walked too. Then
//   - every order up to kForked steps, each in a process of its own;
//   - every order up to kExhaustive steps, and every order up to kConnected steps after
//     "connect connected", in one process, which starts each walk from an idle context: all that
//     differs from a new process then is that the singletons exist;
//   - the orders up to kPruned steps, but a walk goes on only if no other walk of its length or
//     shorter has led to the same state of the model by the same two last steps.
//
// SVCMGR_WALK_LENGTH=7 walks every order up to that length, in a process for each processor: some
// minutes. A walk that fails prints itself; SVCMGR_WALK="connect connected ..." walks it alone.

#include <SvcMgrAppProxyHandler.h>
#include <agent_update_state.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "event_support.h"

namespace {

// Sanitizers and emulators take ten times as long for a walk, and what they find needs no longer ones.
#ifdef SLOW
constexpr std::size_t kFewerSteps = 1;
#else
constexpr std::size_t kFewerSteps = 0;
#endif
constexpr std::size_t kForked = 4 - kFewerSteps;
constexpr std::size_t kExhaustive = 5 - kFewerSteps;
constexpr std::size_t kConnected = 4 - kFewerSteps;
constexpr std::size_t kPruned = 7;

using Lines = std::vector<std::string>;

/* The model: what the library has to do, with nothing taken from it. */

class Model {
 public:
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
    connected_ = true;
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
    connected_ = false;
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
    Finish(4);  // the agent's result is 7
    return Done();
  }

  Lines Request() {
    Frame();
    if (!connected_) {
      Info("velmora_svcmgr_request_update", "not initialized");
      return Return(-107);
    }
    update_ = 1;
    Say("rpc_port_parcel_create()");
    Say("rpc_port_parcel_write_int32(parcel, 4)");
    Say("rpc_port_parcel_send(parcel, main port of " + Proxy() + ")");
    Say("rpc_port_parcel_create_from_port(main port of " + Proxy() + ")");
    Say("rpc_port_parcel_read_int32(parcel)");
    Say("rpc_port_parcel_read_int32(parcel)");
    Say("rpc_port_parcel_destroy(parcel)");
    Say("rpc_port_parcel_destroy(parcel)");
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
    connected_ = false;
    if (proxy_) Say("rpc_port_proxy_destroy(" + Proxy() + ")");
    proxy_ = false;
    Info("DontCareConnection", "Don't care about CONNECTION");
    if (watch_ != 0) {
      Say("event_remove_event_handler(event handler#" + std::to_string(watch_) + ")");
    }
    watch_ = 0;
    Info("Disconnect", "proxy handle was destroyed");
  }

  // The event holds no text array "Start" and no number for the application.
  void LookForOwnResult() {
    Say("bundle_get_str_array(bundle, \"Start\")");
    Say("app_get_id()");
    Say("bundle_get_byte(bundle, \"org.example.app\")");
    Say("bundle_get_str(bundle, \"Complete\")");
  }

  void Finish(int status) {
    if (update_ != 0) Say("status " + std::to_string(status));
    update_ = 0;
  }

  bool connected_ = false;
  bool proxy_ = false;
  int watch_ = 0;  // number of the watch's subscription, or 0
  int update_ = 0;
  int application_ = 0;  // whose connection callback is stored
  int applications_ = 0;
  int proxies_ = 0;
  int handlers_ = 1;  // the first is that of the update statuses
  Lines lines_;
};

/* The library, under the same steps. */

class Library {
 public:
  Library() {
    fake::Reset();
    fake::OnSend([](const fake::Sent&) { fake::QueueReply({0}); });
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
  void Fail() { Delivered(events::AnnounceFailure(7)); }

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
  bool IsWatching() const {
    const auto names = fake::Subscriptions();
    return std::find(names.begin(), names.end(), events::kAgentStatus) != names.end();
  }
  bool HoldsNothingElse() const {
    return fake::LiveObjects(fake::Kind::kParcel) == 0 &&
           fake::LiveObjects(fake::Kind::kPackageInfo) == 0 && fake::WaitingMessages() == 0;
  }

 private:
  struct Application {
    Library* library;
    int number;
  };

  static void OnConnection(int result, int state, void* user_data) {
    const auto* const application = static_cast<Application*>(user_data);
    application->library->Say("connection " + std::to_string(application->number) + ": result " +
                              std::to_string(result) + ", state " + std::to_string(state));
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
  Lines lines_;
};

/* Steps and walks. */

struct Step {
  const char* name;
  Lines (Model::*expected)();
  void (Library::*act)();
  bool (Model::*possible)() const;
};

constexpr Step kSteps[] = {
    {"connect", &Model::Connect, &Library::Connect, &Model::Always},
    {"disconnect", &Model::Disconnect, &Library::Disconnect, &Model::Always},
    {"connected", &Model::PortConnected, &Library::PortConnected, &Model::HasProxy},
    {"disconnected", &Model::PortDisconnected, &Library::PortDisconnected, &Model::HasProxy},
    {"rejected", &Model::PortRejected, &Library::PortRejected, &Model::HasProxy},
    {"Update", &Model::Update, &Library::Update, &Model::IsWatching},
    {"Launch", &Model::Launch, &Library::Launch, &Model::IsWatching},
    {"Start", &Model::Start, &Library::Start, &Model::Always},
    {"Complete", &Model::Complete, &Library::Complete, &Model::Always},
    {"Fail", &Model::Fail, &Library::Fail, &Model::Always},
    {"request", &Model::Request, &Library::Request, &Model::Always},
};

using Walk = std::vector<const Step*>;

std::string Script(const Walk& walk) {
  std::string script;
  for (const Step* step : walk) script += (script.empty() ? "" : " ") + std::string(step->name);
  return script;
}

/** Stops at a word that is no step. */
Walk ParseScript(const std::string& script) {
  Walk walk;
  std::istringstream words(script);
  for (std::string word; words >> word;) {
    const auto* const step = std::find_if(std::begin(kSteps), std::end(kSteps),
                                          [&](const Step& known) { return word == known.name; });
    if (step == std::end(kSteps)) {
      ADD_FAILURE() << "no step is called " << word;
      break;
    }
    walk.push_back(step);
  }
  return walk;
}

void Print(std::ostream& out, const char* title, const Lines& lines) {
  out << title << '\n';
  for (const std::string& line : lines) out << "    " << line << '\n';
}

/** Empty if the library does what the model says at each step. */
std::string Differences(const Walk& walk) {
  std::ostringstream report;
  Model model;
  Library library;
  for (std::size_t i = 0; i < walk.size(); ++i) {
    (library.*walk[i]->act)();
    const Lines seen = library.Take();
    const Lines expected = (model.*walk[i]->expected)();
    const std::string answer = library.IsBeingUpdated();
    const bool holds_the_same = library.HasProxy() == model.HasProxy() &&
                                library.IsWatching() == model.IsWatching() &&
                                library.HoldsNothingElse();
    if (seen == expected && answer == model.IsBeingUpdated() && holds_the_same) continue;
    const Walk failing(walk.begin(), walk.begin() + static_cast<std::ptrdiff_t>(i) + 1);
    report << "SVCMGR_WALK=\"" << Script(failing) << "\"\n";
    Print(report, "  the last step must leave", expected);
    Print(report, "  it left", seen);
    report << "  must be " << model.IsBeingUpdated() << ", is " << answer << '\n';
    if (!holds_the_same) report << "  proxy, subscription or parcels are not as they must be\n";
    break;
  }
  return report.str();
}

std::string DifferencesInAProcessOfItsOwn(const Walk& walk) {
  const pid_t child = fork();
  if (child == 0) {
    const std::string report = Differences(walk);
    static_cast<void>(std::fputs(report.c_str(), stderr));
    _exit(report.empty() ? 0 : 1);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return "no process";
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "" : "SVCMGR_WALK=\"" + Script(walk) + '"';
}

/** One of the equal parts into which the work is divided. */
struct Share {
  std::size_t number = 0;
  std::size_t of = 1;
};

/** Walks shortest first, so that the first failure is a short one. */
class Generator {
 public:
  using Check = std::string (*)(const Walk&);

  explicit Generator(Check check, Share share = {}) : check_(check), share_(share) {}

  /** Checks each order of up to `length` steps after `start`, as far as it is in the share; false
   *  if one fails. Orders that are not short are checked as beginnings of the longest. */
  bool WalkAll(const Walk& start, std::size_t length) {
    Model model;
    for (const Step* step : start) (model.*step->expected)();
    for (std::size_t i = 1; i <= length; ++i) {
      if (i > kExhaustive && i < length) continue;
      if (!Extend(start, model, i)) return false;
    }
    return true;
  }

  /** Checks one order for each state and two last steps up to `length` steps. */
  bool WalkPruned(std::size_t length) {
    std::vector<std::pair<Walk, Model>> ends = {{{}, Model()}};
    for (std::size_t i = 0; i < length; ++i) {
      std::vector<std::pair<Walk, Model>> next;
      for (const auto& [walk, model] : ends) {
        for (const Step& step : kSteps) {
          if (!(model.*step.possible)()) continue;
          auto longer = std::make_pair(walk, model);
          longer.first.push_back(&step);
          (longer.second.*step.expected)();
          const Step* const before = walk.empty() ? nullptr : walk.back();
          if (!Passes(longer.first)) return false;
          if (known_.insert({longer.second.state(), before, &step}).second) {
            next.push_back(std::move(longer));
          }
        }
      }
      ends = std::move(next);
    }
    return true;
  }

  std::size_t walks() const { return walks_; }

 private:
  // The depth at which walks are divided into shares: there are enough for equal ones.
  static constexpr std::size_t kShared = 3;

  bool Extend(const Walk& walk, const Model& model, std::size_t more) {
    if (walk.size() == kShared && branches_++ % share_.of != share_.number) return true;
    if (more == 0) return Passes(walk);
    for (const Step& step : kSteps) {
      if (!(model.*step.possible)()) continue;
      Walk longer = walk;
      longer.push_back(&step);
      Model next = model;
      (next.*step.expected)();
      if (!Extend(longer, next, more - 1)) return false;
    }
    return true;
  }

  bool Passes(const Walk& walk) {
    ++walks_;
    const std::string differences = check_(walk);
    if (differences.empty()) return true;
    ADD_FAILURE() << differences;
    return false;
  }

  Check check_;
  Share share_;
  std::size_t branches_ = 0;
  std::size_t walks_ = 0;
  std::set<std::tuple<Model::State, const Step*, const Step*>> known_;
};

class AWalk : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    if (const char* script = std::getenv("SVCMGR_WALK")) {
      Expect(script);
      GTEST_SKIP() << "walked one walk alone";
    }
  }

  static void Expect(const std::string& script) {
    const std::string differences = Differences(ParseScript(script));
    if (!differences.empty()) ADD_FAILURE() << differences;
  }

  static void ExpectAll(const char* start, std::size_t length, Generator::Check check) {
    Generator generator(check);
    generator.WalkAll(ParseScript(start), length);
    Report(generator);
  }

  /** The same in a process for each processor, each with its share; all take the shortest. */
  static void ExpectAllInShares(std::size_t length) {
    const std::size_t shares =
        static_cast<std::size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
    std::vector<pid_t> children;
    for (std::size_t i = 0; i < shares; ++i) {
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        Generator generator(Differences, {i, shares});
        generator.WalkAll({}, length);
        std::printf("share %zu of %zu: %zu walks\n", i + 1, shares, generator.walks());
        static_cast<void>(std::fflush(stdout));
        _exit(HasFailure() || generator.walks() == 0 ? 1 : 0);
      }
      children.push_back(child);
    }
    for (const pid_t child : children) {
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
  }

  static void Report(const Generator& generator) {
    EXPECT_GT(generator.walks(), 300U);
    RecordProperty("walks", std::to_string(generator.walks()));
  }
};

TEST_F(AWalk, InANewProcessIsAsTheModelSays) {
  ExpectAll("", kForked, DifferencesInAProcessOfItsOwn);
}

TEST_F(AWalk, OfEveryOrderIsAsTheModelSays) {
  if (const char* const length = std::getenv("SVCMGR_WALK_LENGTH")) {
    ExpectAllInShares(std::strtoul(length, nullptr, 10));
  } else {
    ExpectAll("", kExhaustive, Differences);
  }
}

TEST_F(AWalk, OfEveryOrderOnAConnectionIsAsTheModelSays) {
  ExpectAll("connect connected", kConnected, Differences);
}

TEST_F(AWalk, ToEveryStateByEveryTwoLastStepsIsAsTheModelSays) {
  Generator generator(Differences);
  generator.WalkPruned(kPruned);
  Report(generator);
}

// The five steps in which an agent replaces itself, spelled out.
TEST_F(AWalk, ThroughTheAgentsOwnUpdateIsAsTheModelSays) {
  Expect("connect connected request Update disconnected Launch connected Start Complete");
}

}  // namespace
