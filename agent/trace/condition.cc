// SPDX-License-Identifier: Apache-2.0
#include "trace/condition.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>

#include "common/report.h"
#include "protocol/messages.h"
#include "terminal_text.h"
#include "trace/words.h"

namespace sim {
namespace {

using Json = nlohmann::json;
using Words = std::vector<std::string>;
/** What stands in a sentence for the words in capitals of its form. */
using Places = std::map<std::string, std::string>;

Words WordsOf(const std::string& text) {
  std::istringstream stream(text);
  Words words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

std::optional<int> NumberIn(const std::string& word) {
  int number = 0;
  const char* const end = word.data() + word.size();
  const auto [last, error] = std::from_chars(word.data(), end, number);
  return error == std::errc() && last == end ? std::optional(number) : std::nullopt;
}

int NeedNumber(const std::string& word) {
  const auto number = NumberIn(word);
  if (!number) throw std::runtime_error("\"" + Quotable(word) + "\" is no whole number");
  return *number;
}

void NeedMethod(const std::string& word) {
  std::vector<std::string> names;
  for (const MethodInfo& info : Methods()) names.emplace_back(info.name);
  if (std::find(names.begin(), names.end(), word) != names.end()) return;
  std::string message = "\"" + Quotable(word) + "\" is no method";
  const auto similar = terminal_text::SimilarTo(word, names);
  if (!similar.empty()) message += "; is " + similar.front() + " meant?";
  throw std::runtime_error(message);
}

Json ShapeOf(const Places& places, const char* what) {
  Json shape = {{"what", what}};
  for (const char* name : {"method", "app", "event", "step", "process"}) {
    const auto place = places.find(name);
    if (place != places.end()) shape[name] = place->second;
  }
  return shape;
}

void Ask(const Places& places, Condition* condition) {
  NeedMethod(places.at("method"));
  const Json shape = ShapeOf(places, "request");
  const auto id = places.find("id");
  if (id == places.end()) {
    condition->shapes.push_back(shape);
    return;
  }
  for (const Json& arguments :
       {Json{{"models", {{{"id", id->second}}}}}, Json{{"model", {{"id", id->second}}}},
        Json{{"agents", Json::array({id->second})}}}) {
    condition->shapes.push_back(shape);
    condition->shapes.back()["arguments"] = arguments;
  }
}

void Answer(const Places& places, Condition* condition) {
  NeedMethod(places.at("method"));
  for (const char* what : {"reply", "answer"}) {
    Json shape = ShapeOf(places, what);
    if (places.count("code") > 0) shape["result"] = NeedNumber(places.at("code"));
    condition->shapes.push_back(std::move(shape));
  }
}

void Progress(const Places& places, Condition* condition) {
  NeedMethod(places.at("method"));
  condition->shapes.push_back(ShapeOf(places, "answer"));
  condition->percentage = NeedNumber(places.at("number"));
}

void Clients(const Places& places, Condition* condition) {
  condition->clients = NeedNumber(places.at("number"));
}

template <const char* what>
void Plain(const Places& places, Condition* condition) {
  condition->shapes.push_back(ShapeOf(places, what));
}
constexpr char kConnect[] = "connect";
constexpr char kRefuse[] = "refuse";
constexpr char kDisconnect[] = "disconnect";
constexpr char kStep[] = "step";
constexpr char kStart[] = "start";
constexpr char kEnd[] = "end";

// An event is known by what it carries: "Launch", "Complete", "START".
void Event(const Places& places, Condition* condition) {
  condition->shapes.push_back({{"what", "event"}, {"data", {{places.at("key"), nullptr}}}});
}

/** A word in capitals stands for any word; brackets are around what may be missing. */
struct Form {
  const char* words;
  const char* help;
  void (*read)(const Places& places, Condition* condition);
};

const Form kForms[] = {
    {"METHOD [of ID] asked [by APP]", "a client has asked (for that model or agent)", Ask},
    {"METHOD answered [with CODE]", "a reply or an answer was sent", Answer},
    {"METHOD at NUMBER percent", "progress was sent, so much or more", Progress},
    {"NUMBER clients connected", "so many are connected now", Clients},
    {"client [APP] connected", "one has connected", Plain<kConnect>},
    {"client [APP] refused", "one was turned away", Plain<kRefuse>},
    {"client [APP] disconnected", "one has gone, or was cut off", Plain<kDisconnect>},
    {"event KEY", "an event with that key: Start, Launch, COMPLETED, ...", Event},
    {"step STEP", "the agent has taken it: install, restart, kill, wait, ...", Plain<kStep>},
    {"PROCESS started", "the agent, the command or the bus", Plain<kStart>},
    {"PROCESS ended", "the same", Plain<kEnd>},
};

bool IsPlace(const std::string& word) {
  return std::all_of(word.begin(), word.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

std::string Lower(std::string word) {
  for (char& c : word) c = static_cast<char>(c - 'A' + 'a');
  return word;
}

/** Whether words from `word` on are those of a form from `part` on; fills the places. */
bool IsOf(const Words& form, std::size_t part, const Words& words, std::size_t word,
          Places* places) {
  if (part == form.size()) return word == words.size();
  if (form[part].front() == '[') {
    std::size_t end = part;
    while (form[end].back() != ']') ++end;
    Words inside(form.begin() + static_cast<std::ptrdiff_t>(part),
                 form.begin() + static_cast<std::ptrdiff_t>(end) + 1);
    inside.front().erase(0, 1);
    inside.back().pop_back();
    inside.insert(inside.end(), form.begin() + static_cast<std::ptrdiff_t>(end) + 1, form.end());
    Places with = *places;
    if (IsOf(inside, 0, words, word, &with)) {
      *places = with;
      return true;
    }
    return IsOf(form, end + 1, words, word, places);
  }
  if (word == words.size()) return false;
  if (IsPlace(form[part])) {
    (*places)[Lower(form[part])] = words[word];
  } else if (form[part] != words[word]) {
    return false;
  }
  return IsOf(form, part + 1, words, word + 1, places);
}

/** "no client connected" is about now, as "0 clients connected"; "client connected" is not. */
Words Normal(Words words, Condition* condition) {
  const bool none = words.size() > 1 && words.front() == "no";
  const bool counts_clients = words.size() == 3 &&
                              (words[1] == "client" || words[1] == "clients") &&
                              words[2] == "connected" && (none || NumberIn(words[0]));
  if (counts_clients) {
    words[0] = none ? "0" : words[0];
    words[1] = "clients";
    return words;
  }
  if (none) {
    condition->times = 0;
    words.erase(words.begin());
  }
  if (words.size() > 2 && words.back() == "times") {
    condition->times = NeedNumber(words[words.size() - 2]);
    words.resize(words.size() - 2);
    if (none || condition->times < 1) {
      throw std::runtime_error("\"times\" needs a number from 1, and no \"no\"");
    }
  }
  return words;
}

bool Fits(const Json& record, const Condition& condition) {
  return std::any_of(condition.shapes.begin(), condition.shapes.end(),
                     [&](const Json& shape) { return HasShape(record, shape); }) &&
         record.value("percentage", 0) >= condition.percentage.value_or(0);
}

Json ReadShape(const std::string& text) {
  Json shape = Json::parse(text, nullptr, false);
  if (!shape.is_object()) throw std::runtime_error("this is no JSON object: " + Quotable(text));
  return shape;
}

}  // namespace

bool HasShape(const Json& value, const Json& shape) {
  if (shape.is_object()) {
    return value.is_object() &&
           std::all_of(shape.items().begin(), shape.items().end(), [&](const auto& member) {
             const auto found = value.find(member.key());
             return found != value.end() && HasShape(*found, member.value());
           });
  }
  if (shape.is_array()) {
    return value.is_array() && std::all_of(shape.begin(), shape.end(), [&](const Json& wanted) {
             return std::any_of(value.begin(), value.end(),
                                [&](const Json& element) { return HasShape(element, wanted); });
           });
  }
  return shape.is_null() || value == shape;
}

Condition ReadCondition(const std::string& text) {
  Condition condition;
  condition.text = text;
  const auto begin = text.find_first_not_of(" \t\r\n");
  if (begin != std::string::npos && text[begin] == '{') {
    condition.shapes.push_back(ReadShape(text));
    return condition;
  }
  const Words words = Normal(WordsOf(text), &condition);
  for (const Form& form : kForms) {
    Places places;
    if (!IsOf(WordsOf(form.words), 0, words, 0, &places)) continue;
    form.read(places, &condition);
    return condition;
  }
  throw std::runtime_error("\"" + Quotable(text) +
                           "\" is no condition; each is one argument, and is one of:\n" +
                           HelpForConditions());
}

std::string HelpForConditions() {
  std::string help;
  for (const Form& form : kForms) {
    char line[160];
    std::snprintf(line, sizeof line, "  %-30s %s\n", form.words, form.help);
    help += line;
  }
  return help;
}

Expectation::Expectation(std::vector<Condition> conditions) : conditions_(std::move(conditions)) {
  Meet();
}

// Goes on to the next condition that can come true.
void Expectation::Meet() {
  count_ = 0;
  next_ = met_;
  while (next_ < conditions_.size() && conditions_[next_].times == 0) ++next_;
}

void Expectation::Follow(const Json& record) {
  const std::string what = record.value("what", "");
  if (what == "connect") clients_.insert(record.value("client", 0));
  if (what == "disconnect") clients_.erase(record.value("client", 0));
  if (what == "end" && record.value("process", "") == "agent") clients_.clear();
}

void Expectation::Take(const nlohmann::ordered_json& record) {
  constexpr std::size_t kMostSeen = 40;
  const Json fields = record;
  Follow(fields);
  if (failed_) return;
  seen_.push_back(InWords(record));
  if (seen_.size() > kMostSeen) seen_.pop_front();
  for (std::size_t i = met_; i < next_; ++i) {
    if (!Fits(fields, conditions_[i])) continue;
    failed_ = i;
    return;
  }
  if (next_ == conditions_.size() || !Fits(fields, conditions_[next_])) return;
  if (++count_ < conditions_[next_].times) return;
  met_ = next_ + 1;
  seen_.clear();
  Meet();
}

Expectation::State Expectation::Look() {
  if (failed_) return State::kFailed;
  while (next_ < conditions_.size()) {
    const auto& clients = conditions_[next_].clients;
    if (!clients || clients_.size() != static_cast<std::size_t>(*clients)) return State::kWaiting;
    met_ = next_ + 1;
    seen_.clear();
    Meet();
  }
  return State::kMet;
}

}  // namespace sim
