// SPDX-License-Identifier: Apache-2.0
#include "judge.h"

#include <velmora_svcmgr.h>

#include <algorithm>
#include <compare>
#include <cstdio>
#include <functional>
#include <limits>
#include <set>
#include <sstream>
#include <utility>

namespace soak {
namespace {

constexpr Time kNever = std::numeric_limits<Time>::infinity();

enum class Link { kIdle, kConnecting, kConnected, kDropped };

/** How far an update of the agents has come, as far as a client has heard. */
enum class Update { kNone, kRequested, kAnnounced, kLost, kRelaunched, kUnderWay };

/** A state in which the library of one client may be. */
struct State {
  Link link = Link::kIdle;
  /** Whether the agent's announcements are listened to, and since when at the latest. */
  bool watches = false;
  Time watches_since = 0;
  Update update = Update::kNone;
  /** The agent's process that the connection leads to, and which connection of the client it is. */
  int process = -1;
  int connection = -1;  // -1: accepted by an agent that has died before it could say so
  Time attempt = 0;     // when it began, at the earliest
  std::size_t next_connection = 0;
  std::size_t next_message = 0;
  std::size_t next_event = 0;

  auto operator<=>(const State&) const = default;
};

using States = std::set<State>;

class Model {
 public:
  Model(const History& history, const ClientLog& client) : history_(history) {
    const auto found = history.connections.find(client.app);
    if (found != history.connections.end()) connections_ = &found->second;
    begun_ = client.records.empty() ? kNever : client.records.front().time;
    for (const Record& record : client.records) {
      if (record.what == "subscribed") subscribed_ = record.time;
    }
    State first;
    while (first.next_event < history.events.size() &&
           history.events[first.next_event].time < begun_) {
      ++first.next_event;
    }
    states_ = {first};
  }

  /** False if no state allows it. */
  bool Take(const Record& record) {
    now_ = record.time;
    FollowWhatIsNotTold();
    States after;
    for (const State& state : states_) {
      for (const State& next : After(state, record.what)) after.insert(next);
    }
    before_ = std::exchange(states_, std::move(after));
    since_ = now_;
    return !states_.empty();
  }

  /** What could have come where nothing fitted. */
  std::string Expected() const {
    std::set<std::string> texts;
    for (const State& state : before_) texts.insert(WhatComesNext(state));
    std::string text;
    for (const std::string& one : texts) text += (text.empty() ? "" : "; or ") + one;
    return text;
  }

 private:
  using Words = std::istringstream;

  // ---- What the agents allow ----

  const AgentProcess& ProcessOf(const State& state) const {
    return history_.processes[static_cast<std::size_t>(state.process)];
  }

  bool MayBeDead(const AgentProcess& process) const {
    return process.ended && process.last_record <= now_;
  }

  /** Whether an agent to which an attempt since then may have led may be dead by now. */
  bool SomeMayHaveDied(Time since) const {
    return std::any_of(
        history_.processes.begin(), history_.processes.end(),
        [&](const AgentProcess& each) { return MayBeDead(each) && *each.ended >= since; });
  }

  /** Whether there may have been a moment since then at which no agent listened. */
  bool NobodyMayHaveListened(Time since) const {
    const auto& all = history_.processes;
    for (auto dead = all.begin(); dead != all.end(); ++dead) {
      if (!MayBeDead(*dead)) continue;
      const auto next = std::find_if(dead + 1, all.end(), [](const AgentProcess& each) {
        return each.first_record.has_value();
      });
      if (next == all.end() || *next->first_record >= since) return true;
    }
    return false;
  }

  bool IsInOutage(Time time) const {
    return std::any_of(
        history_.outages.begin(), history_.outages.end(),
        [time](const Outage& outage) { return outage.begin <= time && time <= outage.end; });
  }

  const Message* NextMessage(const State& state) const {
    if (state.connection < 0) return nullptr;
    const auto& messages = (*connections_)[static_cast<std::size_t>(state.connection)].messages;
    return state.next_message < messages.size() ? &messages[state.next_message] : nullptr;
  }

  const Event* NextEvent(const State& state) const {
    const bool there =
        state.next_event < history_.events.size() && history_.events[state.next_event].time <= now_;
    return there ? &history_.events[state.next_event] : nullptr;
  }

  bool MayBeMissed(const State& state, const Event& event) const {
    if (!event.is_certain || IsInOutage(event.time)) return true;
    const bool of_agent =
        event.kind == Event::Kind::kLaunch || event.kind == Event::Kind::kAnnouncement;
    if (of_agent) return !state.watches || event.time <= state.watches_since;
    return event.time <= subscribed_;
  }

  /** What a successor says comes after the end of the connection to the agent before. */
  static bool MayBeHeard(const State& state, const Event& event) {
    return state.link != Link::kConnected || event.process <= state.process;
  }

  /** Whether a client that has waited in vain for long had nothing to wait for. */
  bool MayWait(const State& state) const {
    constexpr Time kSoon = 3;
    // An agent that is stopped, or waits for others, keeps a client waiting for its verdict.
    if (state.link == Link::kConnecting) {
      return connections_ == nullptr || state.next_connection >= connections_->size() ||
             (*connections_)[state.next_connection].time > now_ - kSoon;
    }
    if (state.link != Link::kDropped) return false;
    for (std::size_t i = state.next_event; i < history_.events.size(); ++i) {
      const Event& event = history_.events[i];
      if (event.time > now_ - kSoon) break;
      if (event.kind == Event::Kind::kLaunch && !MayBeMissed(state, event)) return false;
    }
    return true;
  }

  // ---- What is not told ----

  void FollowWhatIsNotTold() {
    std::vector<State> open(states_.begin(), states_.end());
    while (!open.empty()) {
      const State state = open.back();
      open.pop_back();
      for (const State& next : Silent(state)) {
        if (states_.insert(next).second) open.push_back(next);
      }
    }
  }

  std::vector<State> Silent(const State& state) const {
    std::vector<State> next;
    if (const Event* const event = NextEvent(state)) HearInSilence(state, *event, &next);
    const bool loss_is_silent = state.update == Update::kAnnounced;
    if (loss_is_silent && MayBeLost(state)) next.push_back(Lost(state));
    if (state.link == Link::kConnecting && state.update == Update::kRelaunched) {
      Accept(state, &next);
    }
    return next;
  }

  void HearInSilence(const State& state, const Event& event, std::vector<State>* next) const {
    State heard = state;
    ++heard.next_event;
    if (MayBeMissed(state, event)) next->push_back(heard);
    if (!MayBeHeard(state, event)) return;
    switch (event.kind) {
      case Event::Kind::kLaunch:
        if (state.watches) HearOfLaunch(heard, event, next);
        break;
      case Event::Kind::kAnnouncement:
        if (!state.watches) break;
        heard.update = Update::kAnnounced;
        next->push_back(heard);
        break;
      case Event::Kind::kEnd:
        if (state.update == Update::kNone) next->push_back(heard);
        break;
      case Event::Kind::kStart:
      case Event::Kind::kModels:
        break;
    }
  }

  void HearOfLaunch(State heard, const Event& event, std::vector<State>* next) const {
    if (heard.link != Link::kConnected) {
      if (heard.update == Update::kLost) heard.update = Update::kRelaunched;
      heard.watches = false;
      heard.watches_since = 0;
      heard.link = Link::kIdle;
      if (NobodyMayHaveListened(event.time)) next->push_back(heard);
      heard.link = Link::kConnecting;
      heard.attempt = event.time;
    }
    next->push_back(heard);
  }

  bool MayBeLost(const State& state) const {
    if (state.link == Link::kConnecting) return SomeMayHaveDied(state.attempt);
    if (state.link != Link::kConnected || !MayBeDead(ProcessOf(state))) return false;
    if (state.connection < 0) return true;
    const auto& messages = (*connections_)[static_cast<std::size_t>(state.connection)].messages;
    return std::none_of(messages.begin() + static_cast<std::ptrdiff_t>(state.next_message),
                        messages.end(), [](const Message& each) { return each.is_certain; });
  }

  /** Without what only a connection has: two ways to the same end are one. */
  static void Forget(State* state) {
    state->process = state->connection = -1;
    state->next_message = 0;
    state->attempt = 0;
  }

  static State Lost(State state) {
    Forget(&state);
    state.link = Link::kDropped;
    if (state.update == Update::kAnnounced) state.update = Update::kLost;
    return state;
  }

  void Accept(State state, std::vector<State>* next) const {
    state.link = Link::kConnected;
    state.watches = true;
    state.watches_since = now_;
    state.next_message = 0;
    const auto& processes = history_.processes;
    // An agent that dies between its verdict and its record.
    state.connection = -1;
    const Time attempt = std::exchange(state.attempt, 0);
    for (std::size_t i = 0; i < processes.size(); ++i) {
      const AgentProcess& process = processes[i];
      if (!MayBeDead(process) || *process.ended < attempt) continue;
      state.process = static_cast<int>(i);
      Subscribe(state, next);
    }
    if (connections_ == nullptr || state.next_connection >= connections_->size()) return;
    state.connection = static_cast<int>(state.next_connection++);
    state.process = (*connections_)[static_cast<std::size_t>(state.connection)].process;
    if (ProcessOf(state).begun <= now_) Subscribe(state, next);
  }

  /** Without a bus, nobody listens to what the agent announces. */
  void Subscribe(State state, std::vector<State>* next) const {
    next->push_back(state);
    state.watches = false;
    state.watches_since = 0;
    if (IsInOutage(now_)) next->push_back(state);
  }

  // ---- What is told, or done ----

  std::vector<State> After(const State& state, const std::string& what) const {
    Words words(what);
    std::string word;
    words >> word;
    std::vector<State> next;
    if (word == "connection") {
      AfterConnection(state, what, &next);
    } else if (word == "update-status" || word == "model-status") {
      AfterEvent(state, what, &next);
    } else if (word == "answer" || word == "progress") {
      AfterMessage(state, what, &next);
    } else if (word == "connect") {
      AfterConnect(state, words, &next);
    } else if (word == "disconnect") {
      AfterDisconnect(state, &next);
    } else if (word == "ask") {
      AfterAsking(state, words, &next);
    } else if (word == "updating" || word == "level" || word == "request-update") {
      AfterQuestion(state, word, words, &next);
    } else if (word == "stranded") {
      // Whether it is, no application can tell for certain.
      if (state.link != Link::kConnected) next.push_back(state);
    } else if (word == "waited") {
      if (MayWait(state)) next.push_back(state);
    } else {
      next.push_back(state);
    }
    return next;
  }

  void AfterConnection(const State& state, const std::string& what,
                       std::vector<State>* next) const {
    if (what == "connection 0 0") {
      const bool is_told = state.update != Update::kRelaunched;
      if (state.link == Link::kConnecting && is_told) Accept(state, next);
    } else if (what == "connection 0 1") {
      if (state.update != Update::kAnnounced && MayBeLost(state)) next->push_back(Lost(state));
    }
  }

  void AfterEvent(State state, const std::string& what, std::vector<State>* next) const {
    const Event* const event = NextEvent(state);
    if (event == nullptr || !MayBeHeard(state, *event)) return;
    const std::string status = std::to_string(event->status);
    ++state.next_event;
    switch (event->kind) {
      case Event::Kind::kModels:
        if (what == "model-status 0 " + status) next->push_back(state);
        break;
      case Event::Kind::kStart:
        state.update = Update::kUnderWay;
        if (what == "update-status " + status) next->push_back(state);
        break;
      case Event::Kind::kEnd: {
        const bool is_told = std::exchange(state.update, Update::kNone) != Update::kNone;
        if (is_told && what == "update-status " + status) next->push_back(state);
        break;
      }
      case Event::Kind::kLaunch:
      case Event::Kind::kAnnouncement:
        break;
    }
  }

  void AfterMessage(State state, const std::string& what, std::vector<State>* next) const {
    const Message* const message = NextMessage(state);
    if (state.link != Link::kConnected || message == nullptr) return;
    ++state.next_message;
    if (message->time <= now_ && message->told == what) next->push_back(state);
  }

  void AfterConnect(State state, Words& words, std::vector<State>* next) const {
    int code = 0;
    words >> code;
    const bool stands = state.link == Link::kConnected;
    if (stands != (code == SVCMGR_ERROR_ALREADY_CONNECTED)) return;
    const bool fails = code == SVCMGR_ERROR_CONNECTION_FAILED;
    if (state.link == Link::kIdle && fails && NobodyMayHaveListened(since_)) {
      next->push_back(state);
    }
    if (state.link == Link::kIdle && code == SVCMGR_ERROR_NONE) {
      state.link = Link::kConnecting;
      state.attempt = since_;
    }
    if (stands || code == SVCMGR_ERROR_NONE) next->push_back(state);
  }

  static void AfterDisconnect(State state, std::vector<State>* next) {
    if (state.link == Link::kConnected) {
      Forget(&state);
      state.link = Link::kIdle;
      state.watches = false;
      state.watches_since = 0;
    }
    next->push_back(state);
  }

  void AfterAsking(const State& state, Words& words, std::vector<State>* next) const {
    int code = 0;
    words >> code;
    bool fits = false;
    switch (state.link) {
      case Link::kIdle:
        fits = code == SVCMGR_ERROR_NOT_CONNECTED;
        break;
      case Link::kConnecting:
        fits = code == SVCMGR_ERROR_INVALID_OPERATION;
        break;
      case Link::kConnected:
        fits = code == SVCMGR_ERROR_NONE ||
               (code == SVCMGR_ERROR_INVALID_OPERATION && MayBeDead(ProcessOf(state)));
        break;
      case Link::kDropped:
        fits = code == SVCMGR_ERROR_NONE || code == SVCMGR_ERROR_INVALID_OPERATION;
        break;
    }
    if (fits) next->push_back(state);
  }

  /** What answers at once, or waits for the agent's answer. */
  void AfterQuestion(State state, const std::string& word, Words& words,
                     std::vector<State>* next) const {
    int code = 0;
    int value = 0;
    words >> code >> value;
    if (state.link != Link::kConnected) {
      if (code == SVCMGR_ERROR_NOT_CONNECTED) next->push_back(state);
      return;
    }
    const bool may_fail = MayBeDead(ProcessOf(state));
    bool fits = false;
    if (word == "updating") {
      fits = code == SVCMGR_ERROR_NONE && (value != 0) == (state.update > Update::kRequested);
    } else if (word == "level") {
      fits = (code == SVCMGR_ERROR_NONE && value == 11) ||
             (code == SVCMGR_ERROR_INVALID_API_LEVEL && may_fail);
    } else {
      fits = code == SVCMGR_ERROR_NONE || (code == SVCMGR_ERROR_NOT_CONNECTED && may_fail);
      state.update = Update::kRequested;
    }
    if (fits) next->push_back(state);
  }

  // ---- For people ----

  std::string WhatComesNext(const State& state) const {
    static constexpr const char* kLinks[] = {"idle", "connecting", "connected", "dropped"};
    std::string text = kLinks[static_cast<int>(state.link)];
    text += ", update " + std::to_string(static_cast<int>(state.update));
    if (state.link == Link::kConnected) {
      text += ", to agent " + std::to_string(state.process);
      if (const Message* const message = NextMessage(state))
        text += ", next \"" + message->told + "\"";
    }
    if (state.watches) text += ", watching";
    if (state.next_event < history_.events.size()) {
      const Event& event = history_.events[state.next_event];
      static constexpr const char* kKinds[] = {"launch", "announcement", "start", "end", "models"};
      char when[32];
      std::snprintf(when, sizeof when, "%.6f", event.time);
      text += ", next event " + std::string(kKinds[static_cast<int>(event.kind)]) + " " +
              std::to_string(event.status) + " of agent " + std::to_string(event.process) + " at " +
              when;
    }
    return text;
  }

  const History& history_;
  const std::vector<Connection>* connections_ = nullptr;
  Time begun_ = 0;
  Time subscribed_ = kNever;
  Time now_ = 0;
  Time since_ = 0;  // the record before
  States states_;
  States before_;
};

std::string Finding(const ClientLog& client, Time time, const std::string& text) {
  char when[32];
  std::snprintf(when, sizeof when, "%.6f", time);
  return client.app + " at " + when + ": " + text;
}

}  // namespace

std::vector<std::string> JudgeWhatWasTold(const History& history, const ClientLog& client) {
  Model model(history, client);
  for (const Record& record : client.records) {
    if (model.Take(record)) continue;
    return {Finding(client, record.time,
                    "\"" + record.what + "\" where there may have been: " + model.Expected())};
  }
  return {};
}

std::vector<std::string> JudgeRequests(const History& history, const ClientLog& client) {
  const auto found = history.requests.find(client.app);
  if (found == history.requests.end()) return {};
  std::vector<std::string> findings;
  std::vector<std::string> asked;  // by number
  for (const Record& record : client.records) {
    std::istringstream words(record.what);
    std::string word;
    int code = 0;
    std::string what;
    if (!(words >> word >> code) || word != "ask" || code == SVCMGR_ERROR_NOT_CONNECTED) continue;
    std::getline(words >> std::ws, what);
    asked.push_back(what);
  }
  long before = -1;
  for (const Request& request : found->second) {
    const auto index = static_cast<std::size_t>(request.number);
    if (request.number <= before || index >= asked.size() || asked[index] != request.what) {
      findings.push_back(Finding(client, request.time,
                                 "an agent reads request " + std::to_string(request.number) +
                                     ", \"" + request.what + "\", which was not asked so"));
    }
    before = request.number;
  }
  return findings;
}

std::vector<Usage> UsagesOf(const ClientLog& client) {
  std::vector<Usage> usages;
  for (const Record& record : client.records) {
    std::istringstream words(record.what);
    std::string word;
    Usage usage;
    if (words >> word >> usage.descriptors >> usage.sources >> usage.memory && word == "usage") {
      usages.push_back(usage);
    }
  }
  return usages;
}

std::vector<std::string> JudgeUsage(const ClientLog& client) {
  constexpr long kMemory = 32 << 10;
  const std::vector<Usage> usages = UsagesOf(client);
  if (usages.size() < kFewestUsages) return {};
  const auto quarter = static_cast<std::ptrdiff_t>(usages.size() / 4);
  std::vector<std::string> findings;
  const auto judge = [&](const char* what, long Usage::* value, long tolerated) {
    const auto less = [value](const Usage& a, const Usage& b) { return a.*value < b.*value; };
    const long first = *std::max_element(usages.begin(), usages.begin() + quarter, less).*value;
    const long last = *std::min_element(usages.end() - quarter, usages.end(), less).*value;
    if (last <= first + tolerated) return;
    findings.push_back(Finding(client, client.records.back().time,
                               std::string(what) + " grow from " + std::to_string(first) +
                                   " in the first quarter to " + std::to_string(last) +
                                   " in the last"));
  };
  judge("descriptors", &Usage::descriptors, 0);
  judge("sources of the main loop", &Usage::sources, 0);
  judge("allocated bytes", &Usage::memory, kMemory);
  return findings;
}

}  // namespace soak
