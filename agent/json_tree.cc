// SPDX-License-Identifier: Apache-2.0
#include "json_tree.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>

namespace sim {
namespace {

constexpr std::size_t kDeepest = 32;
constexpr int kNumberOverflow = 406;  // the parser's own number for it

/** Counts what the parser has consumed: its events say nothing about where they happened. */
class CountingIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = const char&;

  CountingIterator(const char* at, std::size_t* consumed) : at_(at), consumed_(consumed) {}

  reference operator*() const { return *at_; }
  CountingIterator& operator++() {
    ++at_;
    ++*consumed_;
    return *this;
  }
  CountingIterator operator++(int) {
    CountingIterator before = *this;
    ++*this;
    return before;
  }
  bool operator==(const CountingIterator& other) const { return at_ == other.at_; }
  bool operator!=(const CountingIterator& other) const { return at_ != other.at_; }

 private:
  const char* at_;
  std::size_t* consumed_;
};

/** Turns the parser's own wording into a reason: without its error numbers and the bytes it read.
 */
std::string ReasonOf(std::string message) {
  const auto reason = message.find("syntax error");
  if (reason != std::string::npos) {
    message.erase(0, reason);
  }
  const auto read = message.find("; last read: ");
  if (read != std::string::npos) {
    const auto expected = message.find("; expected ", read);
    message.erase(read, expected == std::string::npos ? expected : expected - read);
  }
  return message;
}

class TreeBuilder : public nlohmann::json::json_sax_t {
 public:
  TreeBuilder(std::string_view document, std::vector<Problem>& problems)
      : document_(document), problems_(problems) {}

  bool null() override {
    Add(JsonNode::Kind::kNull);
    return true;
  }
  bool boolean(bool value) override {
    Add(JsonNode::Kind::kFlag).flag = value;
    return true;
  }
  bool number_integer(number_integer_t value) override {
    JsonNode& node = Add(JsonNode::Kind::kInteger);
    node.integer = value;
    node.number = static_cast<double>(value);
    return true;
  }
  bool number_unsigned(number_unsigned_t value) override {
    if (value <= static_cast<number_unsigned_t>(std::numeric_limits<std::int64_t>::max())) {
      return number_integer(static_cast<number_integer_t>(value));
    }
    Add(JsonNode::Kind::kNumber).number = static_cast<double>(value);
    return true;
  }
  bool number_float(number_float_t value, const string_t&) override {
    Add(JsonNode::Kind::kNumber).number = value;
    return true;
  }
  bool string(string_t& value) override {
    JsonNode& node = Add(JsonNode::Kind::kText);
    node.text = std::move(value);
    return RefuseNul(node.text, node.place);
  }
  bool binary(binary_t&) override { return false; }

  bool start_object(std::size_t) override { return Open(JsonNode::Kind::kObject); }
  bool start_array(std::size_t) override { return Open(JsonNode::Kind::kList); }
  bool end_object() override { return Close(); }
  bool end_array() override { return Close(); }

  bool key(string_t& name) override {
    const Place place = NextToken();
    auto& members = open_.back()->members;
    const bool known = std::any_of(members.begin(), members.end(),
                                   [&](const auto& member) { return member.key == name; });
    if (known) {
      problems_.push_back({place, "", "the key \"" + name + "\" stands here a second time"});
    }
    members.push_back({std::move(name), place, JsonNode()});
    return RefuseNul(members.back().key, place);
  }

  bool parse_error(std::size_t, const std::string&,
                   const nlohmann::detail::exception& error) override {
    if (error.id == kNumberOverflow) {
      problems_.push_back({NextToken(), "", "the number is too large"});
      return false;
    }
    const std::size_t last = consumed_ > 0 ? consumed_ - 1 : 0;
    problems_.push_back({PlaceOf(last), "", ReasonOf(error.what())});
    return false;
  }

  std::size_t* consumed() { return &consumed_; }
  JsonNode TakeRoot() { return std::move(root_); }

 private:
  JsonNode& Slot() {
    if (open_.empty()) {
      return root_;
    }
    JsonNode& parent = *open_.back();
    if (parent.kind == JsonNode::Kind::kObject) {
      return parent.members.back().value;
    }
    return parent.elements.emplace_back();
  }

  JsonNode& Add(JsonNode::Kind kind) {
    JsonNode& node = Slot();
    node.kind = kind;
    node.place = NextToken();
    return node;
  }

  bool Open(JsonNode::Kind kind) {
    JsonNode& node = Add(kind);
    open_.push_back(&node);
    if (open_.size() <= kDeepest) {
      return true;
    }
    problems_.push_back({node.place, "", "nested too deeply"});
    return false;
  }

  bool Close() {
    open_.pop_back();
    token_end_ = consumed_;
    return true;
  }

  // The parser has just consumed the token, and for a number one character more; what lies between
  // the last token and this one is blank or structure.
  Place NextToken() {
    const auto begin = document_.find_first_not_of(" \t\r\n,:}]\xef\xbb\xbf", token_end_);
    token_end_ = consumed_;
    return PlaceOf(begin == std::string_view::npos ? document_.size() : begin);
  }

  // Offsets only grow, so lines are counted once.
  Place PlaceOf(std::size_t offset) {
    for (; counted_ < offset && counted_ < document_.size(); ++counted_) {
      if (document_[counted_] == '\n') {
        ++line_;
        line_begin_ = counted_ + 1;
      }
    }
    return {line_, static_cast<int>(offset - std::min(offset, line_begin_)) + 1};
  }

  bool RefuseNul(const std::string& text, Place place) {
    if (text.find('\0') == std::string::npos) {
      return true;
    }
    problems_.push_back({place, "", "a text cannot hold the character U+0000"});
    return false;
  }

  std::string_view document_;
  std::vector<Problem>& problems_;
  JsonNode root_;
  std::vector<JsonNode*> open_;  // their containers do not grow while they are open
  std::size_t consumed_ = 0;
  std::size_t token_end_ = 0;
  std::size_t counted_ = 0;
  std::size_t line_begin_ = 0;
  int line_ = 1;
};

}  // namespace

const char* NameOf(JsonNode::Kind kind) {
  switch (kind) {
    case JsonNode::Kind::kNull:
      return "null";
    case JsonNode::Kind::kFlag:
      return "true or false";
    case JsonNode::Kind::kInteger:
      return "a whole number";
    case JsonNode::Kind::kNumber:
      return "a number";
    case JsonNode::Kind::kText:
      return "a text";
    case JsonNode::Kind::kList:
      return "a list";
    case JsonNode::Kind::kObject:
      return "an object";
  }
  return "unknown";
}

JsonNode ParseJson(std::string_view document, std::vector<Problem>& problems) {
  TreeBuilder builder(document, problems);
  const char* begin = document.data();
  const char* end = begin + document.size();
  nlohmann::json::sax_parse(CountingIterator(begin, builder.consumed()),
                            CountingIterator(end, builder.consumed()), &builder);
  return builder.TakeRoot();
}

}  // namespace sim
