// SPDX-License-Identifier: Apache-2.0
#include "service/journal.h"

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "common/marks.h"

namespace sim {
namespace {

JournalEntry EntryOf(const nlohmann::json& tree) {
  JournalEntry entry;
  entry.id = tree.at("id").get<std::string>();
  entry.document = tree.at("document").get<std::string>();
  entry.method = tree.at("method").get<std::string>();
  entry.call = tree.at("call").get<std::size_t>();
  entry.at_point = tree.at("atPoint").get<bool>();
  entry.recovery = tree.at("recovery").get<bool>();
  entry.agents = tree.at("agents").get<std::vector<std::string>>();
  entry.next = tree.at("next").get<std::size_t>();
  return entry;
}

AgentChanges ChangesOf(const nlohmann::json& tree) {
  AgentChanges changes;
  if (tree.contains("apiLevel")) changes.api_level = tree["apiLevel"].get<std::int32_t>();
  if (tree.contains("refuse")) {
    changes.admission = {tree["refuse"].get<Patterns>(), tree.at("admit").get<Patterns>()};
  }
  return changes;
}

nlohmann::json TreeOf(const AgentChanges& changes) {
  nlohmann::json tree = nlohmann::json::object();
  if (changes.api_level) tree["apiLevel"] = *changes.api_level;
  if (changes.admission) {
    tree["refuse"] = changes.admission->refused;
    tree["admit"] = changes.admission->admitted;
  }
  return tree;
}

}  // namespace

Journal ReadJournal(const std::string& file) {
  Journal journal;
  std::ifstream stream(file, std::ios::binary);
  try {
    const nlohmann::json tree = nlohmann::json::parse(stream);
    journal.replaced = tree.at("replaced").get<bool>();
    for (const nlohmann::json& entry : tree.at("entries")) {
      journal.entries.push_back(EntryOf(entry));
    }
    journal.ended = tree.at("ended").get<std::map<std::string, std::string>>();
    journal.changes = ChangesOf(tree.at("changes"));
    journal.found = true;
  } catch (const nlohmann::json::exception&) {
    return {};
  }
  return journal;
}

void WriteJournal(const std::string& file, const Journal& journal) {
  nlohmann::json tree = {{"replaced", journal.replaced},
                         {"entries", nlohmann::json::array()},
                         {"ended", journal.ended},
                         {"changes", TreeOf(journal.changes)}};
  for (const JournalEntry& entry : journal.entries) {
    tree["entries"].push_back({{"id", entry.id},
                               {"document", entry.document},
                               {"method", entry.method},
                               {"call", entry.call},
                               {"atPoint", entry.at_point},
                               {"recovery", entry.recovery},
                               {"agents", entry.agents},
                               {"next", entry.next}});
  }
  const std::string draft = file + ".new";
  std::ofstream stream(draft, std::ios::binary);
  // Agents' names come from clients and may hold any bytes.
  stream << tree.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  stream.close();
  Pass(Mark::kJournalDrafted);
  if (!stream || std::rename(draft.c_str(), file.c_str()) != 0) {
    throw std::runtime_error("cannot write " + file);
  }
}

}  // namespace sim
