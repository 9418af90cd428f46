// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_JSON_TREE_H_
#define AGENT_SCENARIO_JSON_TREE_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "scenario/problems.h"

namespace sim {

/** A JSON value that still knows where it was written. */
struct JsonNode {
  enum class Kind { kNull, kFlag, kInteger, kNumber, kText, kList, kObject };
  struct Member;

  Kind kind = Kind::kNull;
  Place place;
  bool flag = false;
  std::int64_t integer = 0;
  double number = 0;  // set for integers, too
  std::string text;
  std::vector<JsonNode> elements;
  std::vector<Member> members;
};

struct JsonNode::Member {
  std::string key;
  Place place;
  JsonNode value;
};

/** "an object", "a text", ...: how a kind is called in messages. */
const char* NameOf(JsonNode::Kind kind);

/**
 * The document with blanks in place of its comments, from "//" to the end of the line or between
 * a slash with a star and a star with a slash; all else keeps its place. One that is not closed stays.
 */
std::string WithoutComments(std::string_view document);

/**
 * Reads one JSON document, which may have comments. Duplicate keys, texts with a NUL and documents that nest too deeply are
 * problems like any other; the tree is complete only if no problem was added.
 */
JsonNode ParseJson(std::string_view document, Problems& problems);

}  // namespace sim

#endif  // AGENT_SCENARIO_JSON_TREE_H_
