// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_OBJECT_READER_H_
#define AGENT_SCENARIO_OBJECT_READER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "scenario/json_tree.h"

namespace sim {

/** One value of a document, its JSON pointer, and where problems with it are noted. */
class Value {
 public:
  Value(const JsonNode& node, JsonPointer pointer, Problems& problems)
      : node_(&node), pointer_(std::move(pointer)), problems_(&problems) {}

  const JsonNode& node() const { return *node_; }

  /** Notes that the value is wrong. */
  void Refuse(const std::string& reason) const;

  /** Tells whether the value is of a kind, and refuses it if not. */
  bool Is(JsonNode::Kind kind) const;

  /** A value inside this one: the one under a key, which must live on, or the one at an index. */
  Value Inside(const JsonNode& node, std::string_view key) const;
  Value Inside(const JsonNode& node, std::size_t index) const;

 private:
  const JsonNode* node_;
  JsonPointer pointer_;
  Problems* problems_;
};

/** Says what is wrong with a text; nothing if it is right. */
using TextRule = std::function<std::optional<std::string>(const std::string&)>;

/**
 * Reads the members of one object. Each call names one key that is allowed, leaves its output alone
 * where the key is absent or wrong, and tells whether it was set.
 */
class ObjectReader {
 public:
  explicit ObjectReader(const Value& value);

  bool Flag(const char* key, bool* out);
  bool Integer(const char* key, std::int32_t* out,
               std::int32_t least = std::numeric_limits<std::int32_t>::min(),
               std::int32_t most = std::numeric_limits<std::int32_t>::max());
  bool Integer(const char* key, std::optional<std::int32_t>* out,
               std::int32_t least = std::numeric_limits<std::int32_t>::min());
  bool Number(const char* key, double* out, double least, double most);
  bool Text(const char* key, std::string* out, const TextRule& rule = nullptr);
  bool Texts(const char* key, std::vector<std::string>* out, const TextRule& rule = nullptr);

  /** The same where a text may also be written as in ReadLongText. */
  bool LongText(const char* key, std::string* out, const TextRule& rule = nullptr);
  bool LongTexts(const char* key, std::vector<std::string>* out, const TextRule& rule = nullptr);

  /** One of a few words, each with what it stands for. */
  template <typename T>
  bool Choice(const char* key, T* out, const std::vector<std::pair<const char*, T>>& choices);

  /** The value under a key, for shapes of its own; its kind has not been looked at. */
  std::optional<Value> Take(const char* key);

  /** The object under a key, read by `read`. */
  bool Object(const char* key, const std::function<void(ObjectReader&)>& read);

  /** The list of objects under a key, each read by `read`. */
  bool Objects(const char* key, const std::function<void(ObjectReader&)>& read);

  /** Every member as a key and a text. */
  template <typename Map>
  void AllTexts(Map* out, const TextRule& key_rule);

  /** Refuses the object where a key is missing. */
  void Require(const char* key);

  /** Refuses every key that was not named, and says which are allowed. Comes last. */
  void Finish();

  const Value& value() const { return value_; }

  /** The value under a key, to refuse it as a whole; the object where there is none. */
  Value At(const char* key) const;

 private:
  const JsonNode::Member* Find(const char* key) const;
  using Reader = bool (*)(const Value&, std::string*);
  bool TextReadBy(Reader read, const char* key, std::string* out, const TextRule& rule);
  int ChoiceIndex(const char* key, const std::vector<const char*>& words);

  Value value_;
  bool readable_;
  bool allows_all_ = false;
  std::vector<const char*> allowed_;
};

/** Reads a text. */
bool ReadText(const Value& value, std::string* out);

/** Reads a text, or an object that says what it is made of: `fill`, again and again, to `bytes`. */
bool ReadLongText(const Value& value, std::string* out);

/** Reads a list of texts: each by the rule, none twice. */
bool ReadTexts(const Value& list, std::vector<std::string>* out, const TextRule& rule,
               bool (*read)(const Value&, std::string*) = ReadText);

/** Reads a whole number within bounds. */
bool ReadInteger(const Value& value, std::int32_t* out,
                 std::int32_t least = std::numeric_limits<std::int32_t>::min(),
                 std::int32_t most = std::numeric_limits<std::int32_t>::max());

template <typename T>
bool ObjectReader::Choice(const char* key, T* out,
                          const std::vector<std::pair<const char*, T>>& choices) {
  std::vector<const char*> words;
  words.reserve(choices.size());
  for (const auto& choice : choices) words.push_back(choice.first);
  const int index = ChoiceIndex(key, words);
  if (index < 0) return false;
  *out = choices[static_cast<std::size_t>(index)].second;
  return true;
}

template <typename Map>
void ObjectReader::AllTexts(Map* out, const TextRule& key_rule) {
  if (!readable_) return;
  allows_all_ = true;
  for (const auto& member : value_.node().members) {
    const Value text = value_.Inside(member.value, member.key);
    if (const auto reason = key_rule(member.key)) {
      text.Refuse(*reason);
    } else if (text.Is(JsonNode::Kind::kText)) {
      (*out)[member.key] = member.value.text;
    }
  }
}

}  // namespace sim

#endif  // AGENT_SCENARIO_OBJECT_READER_H_
