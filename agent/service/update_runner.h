// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_UPDATE_RUNNER_H_
#define AGENT_SERVICE_UPDATE_RUNNER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "scenario/scenario.h"
#include "service/event_source.h"
#include "service/journal.h"

namespace sim {

/**
 * Goes through the steps of updates on the default main context, any number of them side by side.
 * Each step is noted in a journal before it is taken, so that the process that replaces this one goes
 * on after it.
 */
class UpdateRunner {
 public:
  /** Told how steps from outside ended: empty, or why they were not completed. */
  using Done = std::function<void(const std::string& problem)>;

  /**
   * `scenario` must outlive the runner. `journal_file` may be empty: there is no next process then.
   * `replace` ends this process's main loop.
   */
  UpdateRunner(const Scenario& scenario, std::string journal_file, std::function<void()> replace);
  UpdateRunner(const UpdateRunner&) = delete;
  UpdateRunner& operator=(const UpdateRunner&) = delete;

  /** Continues where the previous process stopped. Clients must be able to connect. */
  void Resume();

  /** Who takes the steps that concern the port: `Step::Action` says which. Before any is taken. */
  void SetPort(std::function<void(const Step&)> port) { port_ = std::move(port); }

  /** Takes the steps of a call of a method: after its answer, or at a point of its work. */
  void RunSteps(Method method, std::size_t call, bool at_point, Done done);

  /** What steps have changed so far. */
  const AgentChanges& changes() const { return changes_; }

  /** Begins the scenario's update after a while, unless it is under way. */
  void StartUpdate(const std::vector<std::string>& agents, std::int32_t delay);

  /**
   * Takes steps from outside, a document as ReadStepsDocument reads it. Steps whose ID is known are
   * only waited for. Throws ScenarioError.
   */
  void Run(const std::string& id, const std::string& document, Done done);

  /** The agent ends for good: nobody shall go on. */
  void Close();

 private:
  struct Sequence {
    JournalEntry entry;
    Steps steps;
    Done done;
    EventSource timer;
  };
  using Position = std::list<Sequence>::iterator;

  Steps StepsOf(const JournalEntry& entry) const;
  Position Add(JournalEntry entry, Done done);
  void Recover(const Journal& journal);

  void Schedule(Position sequence, std::int32_t delay);
  void GoOn(Position sequence);
  void Advance(Position sequence);

  /** Takes a step; false if the sequence goes on later, or not in this process. */
  bool Take(Position sequence, const Step& step);
  void Install(Package package) const;
  void Permit(const Patterns& clients) const;
  void KillBus() const;
  void Finish(Position sequence, const std::string& problem);
  void Note(bool replaced) const;

  const Scenario& scenario_;
  const std::string journal_file_;
  const std::function<void()> replace_;
  std::function<void(const Step&)> port_;
  AgentChanges changes_;
  bool stopped_ = false;
  std::list<Sequence> sequences_;
  // How steps from outside ended when nobody was there to be told: whoever waits for them has lost
  // the previous process, and comes back.
  std::map<std::string, std::string> ended_;
};

}  // namespace sim

#endif  // AGENT_SERVICE_UPDATE_RUNNER_H_
