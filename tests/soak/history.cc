// SPDX-License-Identifier: Apache-2.0
#include "history.h"

#include <velmora_svcmgr.h>

#include <nlohmann/json.hpp>
#include <utility>

namespace soak {
namespace {

using Json = nlohmann::json;

/** An agent's result, of those that occur here, as clients are told it. */
int ErrorOf(int result) { return result == 0 ? SVCMGR_ERROR_NONE : SVCMGR_ERROR_INVALID_OPERATION; }

std::string ModelsOf(const Json& models) {
  std::string text;
  for (const Json& model : models) {
    text += (text.empty() ? "" : ",") + model.at("id").get<std::string>() + "@" +
            model.at("version").get<std::string>();
  }
  return text.empty() ? "none" : text;
}

/** What a client writes of a message. */
std::string ToldOf(const Json& answer) {
  const std::string number = std::to_string(answer.at("delegate").at("seq").get<long>());
  const std::string error = std::to_string(ErrorOf(answer.at("result")));
  if (answer.contains("models")) {
    return "answer " + number + " " + error + " " + ModelsOf(answer["models"]);
  }
  std::string text = "progress " + number + " " + error;
  for (const char* field : {"index", "count", "percentage", "state"}) {
    text += " " + std::to_string(answer.at(field).get<int>());
  }
  return text;
}

int StatusOfFailure(int code) {
  switch (code) {
    case 13:
      return SVCMGR_UPDATE_STATUS_RESULT_13;
    default:
      return SVCMGR_UPDATE_STATUS_FAILED;
  }
}

/** The event that a record tells of; none if clients make nothing of it. */
std::optional<Event> EventOf(const Json& record) {
  const Json& data = record.at("data");
  Event event;
  const auto is = [&](const char* key, Event::Kind kind, int status) {
    if (!data.contains(key)) return false;
    event.kind = kind;
    event.status = status;
    return true;
  };
  using Kind = Event::Kind;
  const bool known = is("Launch", Kind::kLaunch, 0) || is("Update", Kind::kAnnouncement, 0) ||
                     is("Start", Kind::kStart, SVCMGR_UPDATE_STATUS_STARTED) ||
                     is("Complete", Kind::kEnd, SVCMGR_UPDATE_STATUS_COMPLETED) ||
                     is("START", Kind::kModels, SVCMGR_AI_STATUS_STARTED) ||
                     is("COMPLETED", Kind::kModels, SVCMGR_AI_STATUS_COMPLETED) ||
                     is("FAILED", Kind::kModels, SVCMGR_AI_STATUS_FAILED);
  if (known) return event;
  if (!data.contains("Fail")) return std::nullopt;
  event.kind = Kind::kEnd;
  event.status = StatusOfFailure(data["Fail"]);
  return event;
}

class TraceReader {
 public:
  void Take(const std::string& line) {
    const Json record = Json::parse(line, nullptr, false);
    if (!record.is_object()) {
      torn_ = line;
      return;
    }
    const std::string what = record.at("what");
    const Time time = record.at("monotonic");
    // Only the last one of a process that was killed may have been cut off.
    const std::string torn = std::exchange(torn_, "");
    if (!torn.empty() && !(what == "end" && record.contains("signal"))) {
      history_.faults.push_back("a line that is no record: " + torn);
    }
    if (what == "start" || what == "end") return TakeProcess(what, time, record);
    if (history_.processes.empty()) return;
    AgentProcess& process = history_.processes.back();
    if (!process.first_record) process.first_record = time;
    process.last_record = time;
    Settle();
    TakeOfAgent(what, time, record);
  }

  History Finish() { return std::move(history_); }

 private:
  /** What came before in this process is certain once it lives on. */
  void Settle() {
    if (unsettled_event_) history_.events.back().is_certain = true;
    if (unsettled_message_ != nullptr) {
      unsettled_message_->messages.back().is_certain = true;
    }
    Forget();
  }
  void Forget() {
    unsettled_event_ = false;
    unsettled_message_ = nullptr;
  }

  void TakeProcess(const std::string& what, Time time, const Json& record) {
    if (record.at("process") != "agent") return;
    if (what == "start") {
      history_.processes.push_back({time, std::nullopt, time, std::nullopt});
    } else if (!history_.processes.empty()) {
      history_.processes.back().ended = time;
    }
    Forget();
    clients_.clear();
  }

  void TakeOfAgent(const std::string& what, Time time, const Json& record) {
    const int process = static_cast<int>(history_.processes.size()) - 1;
    if (what == "connect") {
      auto& connections = history_.connections[record.at("app")];
      clients_[record.at("client")] = {record.at("app"), connections.size()};
      connections.push_back({time, process, {}});
    } else if (what == "request") {
      TakeRequest(time, record);
    } else if (what == "answer" && !record.value("lost", false)) {
      Connection& connection = ConnectionOf(record);
      connection.messages.push_back({time, false, ToldOf(record)});
      unsettled_message_ = &connection;
    } else if (what == "event") {
      auto event = EventOf(record);
      if (!event) return;
      event->time = time;
      event->process = process;
      history_.events.push_back(*event);
      unsettled_event_ = true;
    } else if (what == "lost") {
      history_.events.back().is_certain = false;
    } else if (what == "unreadable" || what == "message" || what == "full") {
      history_.faults.push_back(record.dump());
    }
  }

  void TakeRequest(Time time, const Json& record) {
    const Json& arguments = record.at("arguments");
    if (!arguments.contains("delegate")) return;
    Request request = {time, arguments["delegate"].at("seq"), record.at("method")};
    if (arguments.contains("model"))
      request.what += " " + arguments["model"].at("title").get<std::string>();
    history_.requests[record.at("app")].push_back(std::move(request));
  }

  Connection& ConnectionOf(const Json& record) {
    const auto& [app, index] = clients_.at(record.at("client"));
    return history_.connections.at(app).at(index);
  }

  History history_;
  std::map<int, std::pair<std::string, std::size_t>> clients_;  // of this process
  std::string torn_;
  bool unsettled_event_ = false;
  Connection* unsettled_message_ = nullptr;
};

}  // namespace

History ReadTrace(std::istream& trace) {
  TraceReader reader;
  for (std::string line; std::getline(trace, line);) reader.Take(line);
  return reader.Finish();
}

ClientLog ReadLog(const std::string& app, std::istream& log) {
  ClientLog client;
  client.app = app;
  Record record;
  while (log >> record.time && log.get() == ' ' && std::getline(log, record.what)) {
    client.records.push_back(record);
  }
  return client;
}

}  // namespace soak
