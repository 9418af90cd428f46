// SPDX-License-Identifier: Apache-2.0
#include "scenario/object_reader.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <set>
#include <sstream>
#include <utility>

#include "scenario/limits.h"
#include "scenario/text_rules.h"

namespace sim {
namespace {

std::string Joined(const std::vector<const char*>& words) {
  std::string text;
  for (const char* word : words) {
    text += (text.empty() ? "" : ", ");
    text += word;
  }
  return text;
}

}  // namespace

void Value::Refuse(const std::string& reason) const {
  problems_->Add(node_->place, pointer_, reason);
}

bool Value::Is(JsonNode::Kind kind) const {
  if (node_->kind == kind) return true;
  Refuse(std::string("must be ") + NameOf(kind) + ", not " + NameOf(node_->kind));
  return false;
}

Value Value::Inside(const JsonNode& node, std::string_view key) const {
  return Value(node, pointer_.Of(key), *problems_);
}

Value Value::Inside(const JsonNode& node, std::size_t index) const {
  return Value(node, pointer_.Of(index), *problems_);
}

namespace {

/** A whole number may be written with a point or an exponent, as far as every number has a neighbour. */
bool IsWhole(const JsonNode& node) {
  constexpr double kExact = 9007199254740992;  // 2 to the power of 53
  return node.kind == JsonNode::Kind::kNumber && std::fabs(node.number) <= kExact &&
         std::trunc(node.number) == node.number;
}

}  // namespace

bool ReadInteger(const Value& value, std::int32_t* out, std::int32_t least, std::int32_t most) {
  const JsonNode& node = value.node();
  const bool whole = IsWhole(node);
  if (!whole && !value.Is(JsonNode::Kind::kInteger)) return false;
  const std::int64_t number = whole ? static_cast<std::int64_t>(node.number) : node.integer;
  if (number < least || number > most) {
    value.Refuse("must be from " + std::to_string(least) + " to " + std::to_string(most));
    return false;
  }
  *out = static_cast<std::int32_t>(number);
  return true;
}

bool ReadText(const Value& value, std::string* out) {
  if (!value.Is(JsonNode::Kind::kText)) return false;
  *out = value.node().text;
  return true;
}

bool ReadLongText(const Value& value, std::string* out) {
  if (value.node().kind != JsonNode::Kind::kObject) return ReadText(value, out);
  ObjectReader object(value);
  std::string fill;
  std::int32_t bytes = 0;
  const bool filled = object.Text("fill", &fill, NotEmpty);
  const bool measured = object.Integer("bytes", &bytes, 0, kLongestFill);
  object.Require("fill");
  object.Require("bytes");
  object.Finish();
  if (!filled || !measured) return false;
  out->clear();
  const auto size = static_cast<std::size_t>(bytes);
  while (out->size() < size) *out += fill;
  const bool in_character = out->size() > size && ((*out)[size] & 0xc0) == 0x80;
  if (in_character) value.Refuse("would end inside a character");
  out->resize(size);
  return !in_character;
}

bool ReadTexts(const Value& list, std::vector<std::string>* out, const TextRule& rule,
               bool (*read)(const Value&, std::string*)) {
  if (!list.Is(JsonNode::Kind::kList)) return false;
  out->clear();
  std::set<std::string> seen;
  bool right = true;
  for (const JsonNode& element : list.node().elements) {
    const Value value = list.Inside(element, out->size());
    std::string& text = out->emplace_back();
    if (!read(value, &text)) {
      right = false;
    } else if (const auto reason = rule ? rule(text) : std::nullopt) {
      value.Refuse(*reason);
      right = false;
    } else if (rule && !seen.insert(text).second) {
      value.Refuse("\"" + text + "\" stands in this list already");
      right = false;
    }
  }
  return right;
}

ObjectReader::ObjectReader(const Value& value)
    : value_(value), readable_(value.Is(JsonNode::Kind::kObject)) {}

const JsonNode::Member* ObjectReader::Find(const char* key) const {
  const auto& members = value_.node().members;
  const auto found = std::find_if(members.begin(), members.end(),
                                  [&](const auto& member) { return member.key == key; });
  return found == members.end() ? nullptr : &*found;
}

std::optional<Value> ObjectReader::Take(const char* key) {
  allowed_.push_back(key);
  const JsonNode::Member* member = Find(key);
  if (member == nullptr) return std::nullopt;
  return value_.Inside(member->value, key);
}

Value ObjectReader::At(const char* key) const {
  const JsonNode::Member* member = Find(key);
  return member == nullptr ? value_ : value_.Inside(member->value, key);
}

bool ObjectReader::Flag(const char* key, bool* out) {
  const auto value = Take(key);
  if (!value || !value->Is(JsonNode::Kind::kFlag)) return false;
  *out = value->node().flag;
  return true;
}

bool ObjectReader::Integer(const char* key, std::int32_t* out, std::int32_t least,
                           std::int32_t most) {
  const auto value = Take(key);
  return value && ReadInteger(*value, out, least, most);
}

bool ObjectReader::Integer(const char* key, std::optional<std::int32_t>* out, std::int32_t least) {
  std::int32_t number = 0;
  if (!Integer(key, &number, least)) return false;
  *out = number;
  return true;
}

bool ObjectReader::Number(const char* key, double* out, double least, double most) {
  const auto value = Take(key);
  if (!value) return false;
  const JsonNode& node = value->node();
  if (node.kind != JsonNode::Kind::kInteger && !value->Is(JsonNode::Kind::kNumber)) return false;
  if (node.number < least || node.number > most) {
    std::ostringstream reason;
    reason << "must be from " << least << " to " << most;
    value->Refuse(reason.str());
    return false;
  }
  *out = node.number;
  return true;
}

bool ObjectReader::TextReadBy(Reader read, const char* key, std::string* out,
                              const TextRule& rule) {
  const auto value = Take(key);
  std::string text;
  if (!value || !read(*value, &text)) return false;
  if (const auto reason = rule ? rule(text) : std::nullopt) {
    value->Refuse(*reason);
    return false;
  }
  *out = std::move(text);
  return true;
}

bool ObjectReader::Text(const char* key, std::string* out, const TextRule& rule) {
  return TextReadBy(ReadText, key, out, rule);
}

bool ObjectReader::LongText(const char* key, std::string* out, const TextRule& rule) {
  return TextReadBy(ReadLongText, key, out, rule);
}

bool ObjectReader::Texts(const char* key, std::vector<std::string>* out, const TextRule& rule) {
  const auto value = Take(key);
  return value && ReadTexts(*value, out, rule);
}

bool ObjectReader::LongTexts(const char* key, std::vector<std::string>* out, const TextRule& rule) {
  const auto value = Take(key);
  return value && ReadTexts(*value, out, rule, ReadLongText);
}

int ObjectReader::ChoiceIndex(const char* key, const std::vector<const char*>& words) {
  const auto value = Take(key);
  if (!value || !value->Is(JsonNode::Kind::kText)) return -1;
  const auto found = std::find(words.begin(), words.end(), value->node().text);
  if (found == words.end()) {
    value->Refuse("\"" + value->node().text + "\" is not one of: " + Joined(words));
    return -1;
  }
  return static_cast<int>(found - words.begin());
}

bool ObjectReader::Object(const char* key, const std::function<void(ObjectReader&)>& read) {
  const auto value = Take(key);
  if (!value || !value->Is(JsonNode::Kind::kObject)) return false;
  ObjectReader object(*value);
  read(object);
  object.Finish();
  return true;
}

bool ObjectReader::Objects(const char* key, const std::function<void(ObjectReader&)>& read) {
  const auto list = Take(key);
  if (!list || !list->Is(JsonNode::Kind::kList)) return false;
  std::size_t index = 0;
  for (const JsonNode& element : list->node().elements) {
    const Value value = list->Inside(element, index++);
    if (!value.Is(JsonNode::Kind::kObject)) continue;
    ObjectReader object(value);
    read(object);
    object.Finish();
  }
  return true;
}

void ObjectReader::Require(const char* key) {
  if (readable_ && Find(key) == nullptr) {
    value_.Refuse(std::string("the key \"") + key + "\" is missing");
  }
}

void ObjectReader::Finish() {
  if (allows_all_) return;
  for (const auto& member : value_.node().members) {
    const bool known = std::any_of(allowed_.begin(), allowed_.end(),
                                   [&](const char* key) { return member.key == key; });
    if (known) continue;
    JsonNode at_key;
    at_key.place = member.place;
    value_.Inside(at_key, member.key)
        .Refuse("unknown key \"" + member.key + "\"; allowed here: " + Joined(allowed_));
  }
}

}  // namespace sim
