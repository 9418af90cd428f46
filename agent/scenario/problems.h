// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SCENARIO_PROBLEMS_H_
#define AGENT_SCENARIO_PROBLEMS_H_

#include <cstddef>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace sim {

/** Where something stands in a file; both count from 1, columns in bytes. */
struct Place {
  int line = 1;
  int column = 1;
};

/**
 * The JSON pointer of a value, one step longer than that of what holds it. It becomes a text only
 * when somebody asks: most values are right. Keys must outlive it.
 */
class JsonPointer {
 public:
  /** Of the whole document. */
  JsonPointer() = default;

  JsonPointer Of(std::string_view key) const;
  JsonPointer Of(std::size_t index) const;

  /** Empty for the whole document; very long keys are shortened. */
  std::string Text() const;

 private:
  struct Step;
  explicit JsonPointer(std::shared_ptr<const Step> last) : last_(std::move(last)) {}

  std::shared_ptr<const Step> last_;
};

/** A scenario that cannot be read: what() is one line per problem, each with its file and place. */
class ScenarioError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/**
 * What is wrong with a document: the first hundred problems in the document's order, whatever the
 * order in which they are found, and how many others there are.
 */
class Problems {
 public:
  void Add(Place place, const JsonPointer& pointer, std::string_view reason);

  /** Throws ScenarioError if there are any: a line for each, and one for all that are left out. */
  void ThrowIfAny(const std::string& name) const;

 private:
  std::multimap<std::pair<int, int>, std::string> first_;  // by line and column
  std::size_t count_ = 0;
};

}  // namespace sim

#endif  // AGENT_SCENARIO_PROBLEMS_H_
