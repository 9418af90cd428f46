// SPDX-License-Identifier: Apache-2.0
#include "trace/words.h"

#include <cstddef>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <vector>

#include "common/report.h"
#include "terminal_text.h"

namespace sim {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kMostElements = 8;
constexpr std::size_t kMostCells = 60;     // of one text
constexpr std::size_t kMostOfLine = 1000;  // of all; times four for UTF-8, a pipe takes it whole

std::string Text(const std::string& text) {
  constexpr std::size_t kEnough = 8 * kMostCells;  // bytes, of which more than those cells come
  const std::string safe = Quotable(text.substr(0, kEnough));
  std::string begin = terminal_text::FirstCells(safe, kMostCells);
  return begin.size() < safe.size() ? begin + "..." : begin;
}

std::string ShownValue(const Json& value);

std::string Joined(const std::vector<std::string>& parts, const char* separator) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : separator) + part;
  return text;
}

std::string List(const Json& list) {
  std::vector<std::string> parts;
  for (const Json& element : list) {
    if (parts.size() == kMostElements) {
      return Joined(parts, ", ") + " and " + std::to_string(list.size() - kMostElements) + " more";
    }
    parts.push_back(ShownValue(element));
  }
  return parts.empty() ? "none" : Joined(parts, ", ");
}

/** The fields of an object by their names; all that is empty is left out. */
std::string Named(const Json& object) {
  std::vector<std::string> parts;
  for (const auto& [name, value] : object.items()) {
    if (value.is_string() && value.get_ref<const std::string&>().empty()) continue;
    parts.push_back(Text(name) + " " + ShownValue(value));
  }
  return Joined(parts, ", ");
}

std::string ShownModel(const Json& model) {
  std::string text = ShownValue(model["id"]);
  const std::string version = ShownValue(model.value("version", Json("")));
  return version.empty() ? text : text + " " + version;
}

std::string ShownValue(const Json& value) {
  if (value.is_string()) return Text(value.get<std::string>());
  if (value.is_array()) return List(value);
  if (!value.is_object()) return value.dump();
  return value.contains("id") && value.contains("title") ? ShownModel(value) : Named(value);
}

std::string Field(const Json& fields, const char* name) {
  const auto found = fields.find(name);
  return found == fields.end() ? "" : ShownValue(*found);
}

std::string ShownClient(const Json& fields) { return "client " + Field(fields, "client"); }

/** All fields but those of the line itself and those that were said already. */
std::string Others(const Json& fields, std::initializer_list<const char*> said) {
  Json others = fields;
  for (const char* name : said) others.erase(name);
  const std::string text = Named(others);
  return text.empty() ? "" : ": " + text;
}

std::string Sentence(const std::string& what, const Json& fields) {
  const auto field = [&](const char* name) { return Field(fields, name); };
  if (what == "start") return field("process") + " starts" + Others(fields, {"process"});
  if (what == "end") return field("process") + " ends" + Others(fields, {"process"});
  if (what == "refuse") return field("app") + " is refused";
  if (what == "connect") return ShownClient(fields) + " connects: " + field("app");
  if (what == "disconnect") {
    return ShownClient(fields) + (field("by") == "agent" ? " is cut off" : " disconnects");
  }
  if (what == "request") {
    const Json arguments = fields.value("arguments", Json::object());
    return ShownClient(fields) + " asks " + field("method") +
           Others(arguments, {"delegate", "count"});
  }
  if (what == "reply") {
    return ShownClient(fields) + " gets the reply to " + field("method") +
           Others(fields, {"client", "app", "method"});
  }
  if (what == "answer") {
    return ShownClient(fields) + " gets an answer to " + field("method") +
           Others(fields, {"client", "app", "method", "delegate"});
  }
  if (what == "message" || what == "raw") {
    return ShownClient(fields) + " gets " + (what == "raw" ? "bytes" : "a message") +
           " of no meaning" + Others(fields, {"client", "app"});
  }
  if (what == "unreadable") {
    return ShownClient(fields) + " sends what is no request" + Others(fields, {"client", "app"});
  }
  if (what == "fault") return ShownClient(fields) + " is to meet the fault " + field("fault");
  if (what == "event") {
    return "event " + field("event") + Others(fields.value("data", Json::object()), {});
  }
  if (what == "step") return "step " + field("step") + Others(fields, {"step"});
  return Text(what) + Others(fields, {});
}

}  // namespace

std::string InWords(const std::string& what, const Json& fields) {
  const std::string sentence = Sentence(what, fields);
  std::string begin = terminal_text::FirstCells(sentence, kMostOfLine);
  return begin.size() < sentence.size() ? begin + "..." : begin;
}

std::string InWords(const Json& record) {
  Json fields = record;
  const std::string time = record.value("time", "");
  const std::string what = record.value("what", "");
  for (const char* name : {"time", "monotonic", "what"}) fields.erase(name);
  return ClockOf(time) + "  " + InWords(what, fields);
}

std::string ClockOf(const std::string& time) {
  constexpr std::size_t kDate = 11;
  return time.size() < kDate + 1 ? Text(time) : Text(time.substr(kDate, time.size() - kDate - 1));
}

}  // namespace sim
