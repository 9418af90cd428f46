// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_WORLD_RECORDING_H_
#define AGENT_WORLD_RECORDING_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "protocol/messages.h"
#include "scenario/package.h"
#include "scenario/scenario.h"
#include "trace/trace.h"

namespace sim {

/**
 * What an agent was seen to do, as a scenario that does the same again: each method answers its calls
 * one after the other as they were answered, at the same pace, whatever they ask for. Events follow
 * the answers of the call that was the last one when they came. Times are milliseconds from any start.
 */
class Recording {
 public:
  /** `agent` is its package as it was at the beginning. */
  explicit Recording(Package agent) : agent_(std::move(agent)) {}

  void Connected() { connected_ = true; }
  void Refused(const std::string& app);
  void NotRunning() { not_running_ = true; }

  void Asked(std::int64_t time, const std::string& client, const Request& request);
  /** A message of the main port, or of the callback port. */
  void Replied(std::int64_t time, const std::string& client, std::string_view content);
  void Answered(std::int64_t time, const std::string& client, std::string_view content);
  /** The agent has ended the connection of a client of this application. */
  void Dropped(std::int64_t time, const std::string& client, const std::string& app);
  /** The agent has ended and runs again, as this version. */
  void Restarted(std::int64_t time, const std::string& version);
  /** `step` is the event as a scenario has it. */
  void Published(std::int64_t time, Fields step);

  /** Something that a scenario cannot say. */
  void Lose(const std::string& what) { ++losses_[what]; }

  /** The scenario; Losses() is complete only then. */
  Fields ToScenario(const std::string& description, const Client& client,
                    const std::vector<Package>& packages);

  /** What the scenario does not say, one line each. */
  std::vector<std::string> Losses() const;

 private:
  struct Call {
    std::string client;
    Method method = Method::kGetAgentApiLevel;
    std::optional<Delegate> delegate;
    std::int64_t last = 0;  // when it was asked, or something that belongs to it happened
    bool answered = false;
    Fields first;  // the first answer, to compare others with
    Fields script = Fields::object();
  };

  Call* FindOpen(const std::string& client);
  Call* FindDelegate(const std::string& client, const Fields& delegate);
  void AddProgress(Call& call, std::int64_t pause, const Fields& answer);
  void AddList(Call& call, std::int64_t pause, const Fields& answer);
  void AddStep(std::int64_t time, Fields step);
  Fields Methods();

  Package agent_;
  std::string version_ = agent_.version;
  std::vector<Call> calls_;
  std::vector<std::string> refused_;
  bool not_running_ = false;
  bool connected_ = false;
  std::map<std::string, int> losses_;
};

}  // namespace sim

#endif  // AGENT_WORLD_RECORDING_H_
