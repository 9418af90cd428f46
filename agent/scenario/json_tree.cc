// SPDX-License-Identifier: Apache-2.0
#include "scenario/json_tree.h"

#include <glib.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

namespace sim {
namespace {

constexpr std::size_t kDeepest = 32;
constexpr int kNumberOverflow = 406;  // the parser's own number for it
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
constexpr char kBlanks[] = " \t\r\n";
constexpr char kUnclosed[] = "the closing quote of this text is missing";

/** Counts what the parser has consumed, because its events do not say where they happened. */
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

/** The place of a text's closing quote, or of the end of a line that comes before it. */
std::size_t EndOfText(std::string_view document, std::size_t opening) {
  for (std::size_t at = opening + 1; at < document.size(); ++at) {
    if (document[at] == '\\') {
      ++at;
    } else if (document[at] == '"' || document[at] == '\n') {
      return at;
    }
  }
  return document.size();
}

/** Behind the comment that begins here; here if none does; npos if it is not closed. */
std::size_t EndOfComment(std::string_view document, std::size_t begin) {
  const std::string_view opening = document.substr(begin, 2);
  if (opening == "//") return std::min(document.find('\n', begin), document.size());
  if (opening != "/*") return begin;
  const std::size_t closing = document.find("*/", begin + 2);
  return closing == std::string_view::npos ? closing : closing + 2;
}

/**
 * Why what the parser took, from an opening quote to the last byte, is not a text; null if it is one,
 * and only its place is wrong.
 */
const char* FaultOfText(std::string_view text, bool at_end) {
  if (nlohmann::json::accept(text.begin(), text.end())) return nullptr;
  const auto last = static_cast<unsigned char>(text.back());
  if (last == '\n' || last == '\r') return kUnclosed;
  if (last < ' ') return "a control character in a text must be escaped";
  if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
    return "a text must be UTF-8";
  }
  return at_end ? kUnclosed : "unknown or incomplete escape in a text";
}

class TreeBuilder : public nlohmann::json::json_sax_t {
 public:
  TreeBuilder(std::string_view document, Problems& problems)
      : document_(document), problems_(problems) {
    if (document_.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
      token_end_ = kByteOrderMark.size();
    }
  }

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
    last_ = Last::kKey;
    if (!open_.back().keys.insert(name).second) {
      Refuse(place, "the key \"" + name + "\" stands here a second time");
    }
    auto& members = open_.back().node->members;
    members.push_back({std::move(name), place, JsonNode()});
    return RefuseNul(members.back().key, place);
  }

  bool parse_error(std::size_t, const std::string&,
                   const nlohmann::detail::exception& error) override {
    if (error.id == kNumberOverflow) {
      Refuse(NextToken(), "the number is too large");
      return false;
    }
    // In our own words: the parser's wording differs from version to version.
    RefuseSyntax();
    return false;
  }

  std::size_t* consumed() { return &consumed_; }
  JsonNode TakeRoot() { return std::move(root_); }

 private:
  struct OpenNode {
    JsonNode* node;  // its container does not grow while it is open
    std::set<std::string> keys;
  };

  void Refuse(Place place, const std::string& reason) {
    problems_.Add(place, JsonPointer(), reason);
  }

  JsonNode& Slot() {
    if (open_.empty()) return root_;
    JsonNode& parent = *open_.back().node;
    if (parent.kind == JsonNode::Kind::kObject) return parent.members.back().value;
    return parent.elements.emplace_back();
  }

  JsonNode& Add(JsonNode::Kind kind) {
    JsonNode& node = Slot();
    node.kind = kind;
    node.place = NextToken();
    last_ = Last::kValue;
    return node;
  }

  bool Open(JsonNode::Kind kind) {
    JsonNode& node = Add(kind);
    last_ = Last::kOpening;
    open_.push_back({&node, {}});
    if (open_.size() <= kDeepest) return true;
    Refuse(node.place, "nested too deeply");
    return false;
  }

  bool Close() {
    open_.pop_back();
    token_end_ = consumed_;
    last_ = Last::kValue;
    return true;
  }

  // What lies between the last token and this one, which the parser has just consumed, is blank or
  // structure.
  Place NextToken() {
    const std::size_t begin = FirstNotOf(" \t\r\n,:}]", token_end_);
    token_end_ = EndOfToken(begin);
    return PlaceOf(begin);
  }

  std::size_t FirstNotOf(const char* skipped, std::size_t from) const {
    return std::min(document_.find_first_not_of(skipped, from), document_.size());
  }

  // Only the character after a number tells the parser that it has ended, unless there is none; a
  // leading zero ends it, whatever follows.
  std::size_t EndOfToken(std::size_t begin) const {
    const std::size_t digit = begin + (Is(begin, '-') ? 1 : 0);
    if (!IsDigit(digit) || consumed_ == digit + 1) return consumed_;
    const bool leading_zero = Is(digit, '0') && consumed_ == digit + 2;
    return leading_zero || !IsDigit(consumed_ - 1) ? consumed_ - 1 : consumed_;
  }

  bool Is(std::size_t offset, char character) const {
    return offset < document_.size() && document_[offset] == character;
  }
  bool IsDigit(std::size_t offset) const {
    return offset < document_.size() && g_ascii_isdigit(document_[offset]);
  }

  void RefuseSyntax() {
    std::size_t begin = FirstNotOf(kBlanks, token_end_);
    const bool separated = (last_ == Last::kKey && Is(begin, ':')) ||
                           (last_ == Last::kValue && !open_.empty() && Is(begin, ','));
    if (separated) begin = FirstNotOf(kBlanks, begin + 1);
    if (Is(begin, '"')) {
      const auto text = document_.substr(begin, consumed_ - begin);
      const char* const fault = FaultOfText(text, consumed_ == document_.size());
      if (fault != nullptr) {
        Refuse(PlaceOf(fault == kUnclosed ? begin : consumed_ - 1), fault);
        return;
      }
    }
    if (document_.substr(begin, 2) == "/*") {
      Refuse(PlaceOf(begin), "this comment is not closed");
      return;
    }
    const std::string expected = Expected(separated);
    Refuse(PlaceOf(begin), begin == document_.size()
                               ? "the document ends where " + expected + " is expected"
                               : expected + " is expected here");
  }

  const char* Expected(bool separated) const {
    if (last_ == Last::kNothing || (last_ == Last::kKey && separated)) return "a value";
    if (last_ == Last::kKey) return "\":\"";
    if (open_.empty()) return "the end of the document";
    const bool object = open_.back().node->kind == JsonNode::Kind::kObject;
    if (last_ == Last::kOpening) {
      return object ? "a key in quotes or \"}\"" : "a value or \"]\"";
    }
    if (separated) return object ? "a key in quotes" : "a value";
    return object ? "\",\" or \"}\"" : "\",\" or \"]\"";
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
    if (text.find('\0') == std::string::npos) return true;
    Refuse(place, "a text cannot hold the character U+0000");
    return false;
  }

  enum class Last { kNothing, kOpening, kKey, kValue };  // what the parser told of last

  std::string_view document_;
  Problems& problems_;
  JsonNode root_;
  std::vector<OpenNode> open_;
  std::size_t consumed_ = 0;
  std::size_t token_end_ = 0;
  Last last_ = Last::kNothing;
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

std::string WithoutComments(std::string_view document) {
  std::string plain(document);
  std::size_t at = 0;
  while ((at = plain.find_first_of("\"/", at)) != std::string::npos) {
    if (plain[at] == '"') {
      at = EndOfText(plain, at) + 1;
      continue;
    }
    const std::size_t end = EndOfComment(plain, at);
    if (end == std::string::npos) break;
    if (end == at) ++at;  // a slash of its own
    for (; at < end; ++at) {
      if (plain[at] != '\n') plain[at] = ' ';
    }
  }
  return plain;
}

JsonNode ParseJson(std::string_view text, Problems& problems) {
  const std::string document = WithoutComments(text);
  TreeBuilder builder(document, problems);
  const char* begin = document.data();
  const char* end = begin + document.size();
  nlohmann::json::sax_parse(CountingIterator(begin, builder.consumed()),
                            CountingIterator(end, builder.consumed()), &builder);
  return builder.TakeRoot();
}

}  // namespace sim
