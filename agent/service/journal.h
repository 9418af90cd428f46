// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_JOURNAL_H_
#define AGENT_SERVICE_JOURNAL_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "scenario/package.h"

namespace sim {

/** Steps that are under way, as the next process needs to know them. */
struct JournalEntry {
  std::string id;         // of those from outside
  std::string document;   // what came from outside; empty: what the scenario has
  std::string method;     // whose steps they are; empty: those of the update
  std::size_t call = 0;   // of the method
  bool at_point = false;  // of its work
  bool recovery = false;
  std::vector<std::string> agents;  // that the update was asked for
  std::size_t next = 0;             // the step that comes next
};

/** What steps have changed of the agent, for all processes that follow. */
struct AgentChanges {
  std::optional<std::int32_t> api_level;
  std::optional<Admission> admission;
};

/** What an agent leaves for the process that follows it. */
struct Journal {
  bool found = false;     // there was a process before, and it did not end well
  bool replaced = false;  // it ended to be replaced
  std::vector<JournalEntry> entries;
  std::map<std::string, std::string> ended;  // IDs and outcomes that nobody has been told
  AgentChanges changes;
};

/** Reads a journal; a missing file, or one that is no journal, gives an empty one. */
Journal ReadJournal(const std::string& file);

/** Replaces a journal atomically. Throws std::runtime_error. */
void WriteJournal(const std::string& file, const Journal& journal);

}  // namespace sim

#endif  // AGENT_SERVICE_JOURNAL_H_
