// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_TRACE_CONDITION_H_
#define AGENT_TRACE_CONDITION_H_

#include <cstddef>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sim {

/** What somebody expects of a trace. */
struct Condition {
  std::string text;                    // as it was written
  std::vector<nlohmann::json> shapes;  // a record must have one of them; see HasShape
  std::optional<int> percentage;       // and this much of the work done, at least
  int times = 1;                       // so many records; 0: none at all
  std::optional<int> clients;          // instead of all that: so many are connected
};

/**
 * Reads a condition: a sentence, or a JSON object that is a shape. Throws std::runtime_error that says
 * what is wrong.
 */
Condition ReadCondition(const std::string& text);

/** The sentences that ReadCondition knows, one line each. */
std::string HelpForConditions();

/**
 * Whether a value has all that the shape has: an object each of its members, a list for each of its
 * elements one that has its shape; null is any value, anything else the same one.
 */
bool HasShape(const nlohmann::json& value, const nlohmann::json& shape);

/**
 * Follows a trace, record by record, until conditions have come true, one after the other: each counts
 * what stands behind the record that met the one before it. Records that are not to be must not stand
 * in front of the one that meets the next condition; if there is none, nowhere up to now.
 */
class Expectation {
 public:
  explicit Expectation(std::vector<Condition> conditions);

  /** The next record of the trace. */
  void Take(const nlohmann::ordered_json& record);

  enum class State { kWaiting, kMet, kFailed };

  /** How things stand after all that has been taken. */
  State Look();

  /** The condition that is waited for, or has failed. Not after kMet. */
  const Condition& current() const { return conditions_[failed_ ? *failed_ : next_]; }

  /** The last of what was seen since the conditions before it came true, in words. */
  const std::deque<std::string>& seen() const { return seen_; }

  std::size_t clients() const { return clients_.size(); }

 private:
  void Follow(const nlohmann::json& record);
  void Meet();

  std::vector<Condition> conditions_;
  std::size_t met_ = 0;   // conditions before it are done with
  std::size_t next_ = 0;  // the first from there on that is not about what must not be
  int count_ = 0;         // records that fit it
  std::optional<std::size_t> failed_;
  std::deque<std::string> seen_;
  std::set<int> clients_;
};

}  // namespace sim

#endif  // AGENT_TRACE_CONDITION_H_
