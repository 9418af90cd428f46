// SPDX-License-Identifier: Apache-2.0
#include "world/recording.h"

#include <algorithm>
#include <utility>

#include "scenario/limits.h"
#include "trace/messages.h"

namespace sim {
namespace {

void SetPause(Fields& object, const char* key, std::int64_t pause) {
  if (pause > 0) object[key] = std::min<std::int64_t>(pause, kLongestDelay);
}

Fields FieldsOf(const Package& package) {
  Fields fields = {{"id", package.id}, {"version", package.version}};
  if (package.clients) fields["clients"] = *package.clients;
  if (!package.metadata.empty()) fields["metadata"] = package.metadata;
  return fields;
}

/** The models of an answer, without what is empty. */
Fields Listed(const Fields& models) {
  Fields list = Fields::array();
  for (const Fields& model : models) {
    Fields& listed = list.emplace_back(Fields{{"id", model["id"]}});
    for (const char* name : {"version", "title", "description"}) {
      if (!model[name].get<std::string>().empty()) listed[name] = model[name];
    }
  }
  return list;
}

}  // namespace

void Recording::Refused(const std::string& app) {
  if (std::find(refused_.begin(), refused_.end(), app) == refused_.end()) refused_.push_back(app);
}

void Recording::Asked(std::int64_t time, const std::string& client, const Request& request) {
  Call& call = calls_.emplace_back();
  call.client = client;
  call.method = request.method;
  call.last = time;
  if (InfoOf(request.method).answered_by != AnsweredBy::kReply) call.delegate = request.delegate;
}

/** The call on the main port whose reply a client waits for. */
Recording::Call* Recording::FindOpen(const std::string& client) {
  const auto found = std::find_if(calls_.rbegin(), calls_.rend(), [&](const Call& call) {
    return call.client == client && !call.delegate;
  });
  return found == calls_.rend() || found->answered ? nullptr : &*found;
}

Recording::Call* Recording::FindDelegate(const std::string& client, const Fields& delegate) {
  const auto found = std::find_if(calls_.rbegin(), calls_.rend(), [&](const Call& call) {
    return call.client == client && call.delegate && call.delegate->id == delegate["id"] &&
           call.delegate->seq == delegate["seq"];
  });
  return found == calls_.rend() ? nullptr : &*found;
}

void Recording::Replied(std::int64_t time, const std::string& client, std::string_view content) {
  Call* call = FindOpen(client);
  const auto reply = call == nullptr ? std::nullopt : ReplyIn(content, call->method);
  if (!reply) return Lose("a message of the main port that means nothing");
  SetPause(call->script, "delay", time - call->last);
  for (const char* name : {"result", "text"}) {
    if (reply->contains(name)) call->script[name] = (*reply)[name];
  }
  call->answered = true;
  call->last = time;
}

void Recording::Answered(std::int64_t time, const std::string& client, std::string_view content) {
  const auto answer = AnswerIn(content);
  Call* call = answer ? FindDelegate(client, (*answer)["delegate"]) : nullptr;
  if (call == nullptr) return Lose("a message of the callback port that means nothing");
  const std::int64_t pause = time - call->last;
  if (InfoOf(call->method).answered_by == AnsweredBy::kProgress) {
    AddProgress(*call, pause, *answer);
  } else {
    AddList(*call, pause, *answer);
  }
  call->answered = true;
  call->last = time;
}

void Recording::AddProgress(Call& call, std::int64_t pause, const Fields& answer) {
  Fields step = Fields::object();
  for (const char* name : {"state", "index", "count", "percentage", "result"}) {
    step[name] = answer[name];
  }
  SetPause(step, "delay", pause);
  call.script["progress"].push_back(std::move(step));
}

void Recording::AddList(Call& call, std::int64_t pause, const Fields& answer) {
  if (call.answered) {
    if (answer != call.first) return Lose("a further, different answer to the same call");
    call.script["repeat"] = call.script.value("repeat", 1) + 1;
    return;
  }
  call.first = answer;
  call.script["result"] = answer["result"];
  SetPause(call.script, "delay", pause);
  call.script["models"] = Listed(answer["models"]);
  if (answer["count"] != answer["models"].size()) call.script["count"] = answer["count"];
}

void Recording::Dropped(std::int64_t time, const std::string& client, const std::string& app) {
  const auto open = std::find_if(calls_.rbegin(), calls_.rend(), [&](const Call& call) {
    return call.client == client && !call.answered;
  });
  if (open == calls_.rend()) return AddStep(time, {{"drop", Fields::array({app})}});
  SetPause(open->script, "delay", time - open->last);
  open->script["fault"] = "drop";
  open->answered = true;
  open->last = time;
}

void Recording::Restarted(std::int64_t time, const std::string& version) {
  if (version != version_) AddStep(time, {{"install", version}});
  version_ = version;
  AddStep(time, {{"restart", true}});
}

void Recording::Published(std::int64_t time, Fields step) { AddStep(time, std::move(step)); }

void Recording::AddStep(std::int64_t time, Fields step) {
  if (calls_.empty()) return Lose("an event before the first request");
  Call& call = calls_.back();
  Fields wait = Fields::object();
  SetPause(wait, "wait", time - call.last);
  if (!wait.empty()) call.script["steps"].push_back(std::move(wait));
  call.script["steps"].push_back(std::move(step));
  call.last = time;
}

Fields Recording::Methods() {
  Fields methods = Fields::object();
  for (const Call& call : calls_) {
    const char* const name = InfoOf(call.method).name;
    Fields& calls = methods[name]["calls"];
    if (calls.size() == kMostCalls) {
      Lose(std::string("a call of ") + name + " beyond the first " + std::to_string(kMostCalls));
      continue;
    }
    calls.push_back(call.script);
    if (!call.answered) calls.back()["fault"] = "never";
  }
  return methods;
}

Fields Recording::ToScenario(const std::string& description, const Client& client,
                             const std::vector<Package>& packages) {
  Fields agent = FieldsOf(agent_);
  if (not_running_ && !connected_) agent["running"] = false;
  if (!refused_.empty()) agent["refuse"] = refused_;
  Fields scenario = {{"description", description},
                     {"agent", agent},
                     {"client", {{"id", client.id}, {"version", client.version}}}};
  for (const Package& package : packages) scenario["packages"].push_back(FieldsOf(package));
  // What followed a request stands with its call.
  scenario["update"] = {{"steps", Fields::array()}};
  scenario["methods"] = Methods();
  return scenario;
}

std::vector<std::string> Recording::Losses() const {
  std::vector<std::string> lines;
  for (const auto& [what, count] : losses_) {
    lines.push_back(what + (count > 1 ? " (" + std::to_string(count) + " times)" : ""));
  }
  return lines;
}

}  // namespace sim
