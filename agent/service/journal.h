// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_JOURNAL_H_
#define AGENT_SERVICE_JOURNAL_H_

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace sim {

/** Steps that are under way, as the next process needs to know them. */
struct JournalEntry {
  std::string id;        // of those from outside
  std::string document;  // what came from outside; empty: the scenario's update
  bool recovery = false;
  std::vector<std::string> agents;  // that the update was asked for
  std::size_t next = 0;             // the step that comes next
};

/** What an agent leaves for the process that follows it. */
struct Journal {
  bool found = false;     // there was a process before, and it did not end well
  bool replaced = false;  // it ended to be replaced
  std::vector<JournalEntry> entries;
  std::map<std::string, std::string> ended;  // IDs and outcomes that nobody has been told
};

/** Reads a journal; a missing file, or one that is no journal, gives an empty one. */
Journal ReadJournal(const std::string& file);

/** Replaces a journal atomically. Throws std::runtime_error. */
void WriteJournal(const std::string& file, const Journal& journal);

}  // namespace sim

#endif  // AGENT_SERVICE_JOURNAL_H_
