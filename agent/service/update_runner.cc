// SPDX-License-Identifier: Apache-2.0
#include "service/update_runner.h"

#include <dlog.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "common/marks.h"
#include "common/platform_error.h"
#include "service/bus_barrier.h"
#include "service/events.h"
#include "service/log_tag.h"
#include "service/packages.h"
#include "trace/trace.h"

namespace sim {
namespace {

/** The version with its last number one higher; a further number where there is none. */
std::string NextVersion(const std::string& version) {
  const auto begin = version.find_last_not_of("0123456789") + 1;
  const std::string number = version.substr(begin);
  constexpr std::size_t kLongest = 9;
  if (number.empty() || number.size() > kLongest) return version + ".1";
  return version.substr(0, begin) + std::to_string(std::stoi(number) + 1);
}

const char* PackageFolder() { return getenv("VELMORA_PACKAGE_DIR"); }

/** Tells whether steps are, or hold, the scenario's update. */
bool IsUpdate(const JournalEntry& entry) {
  if (!entry.method.empty()) return false;
  if (entry.document.empty()) return true;
  const Steps steps = ReadStepsDocument(entry.document, "steps");
  return std::any_of(steps.begin(), steps.end(),
                     [](const Step& step) { return step.action == Step::Action::kUpdate; });
}

Steps StepsOfMethod(const Scenario& scenario, const JournalEntry& entry) {
  const auto found = std::find_if(Methods().begin(), Methods().end(),
                                  [&](const auto& each) { return entry.method == each.name; });
  if (found == Methods().end()) return {};
  const MethodScript& script = scenario.Script(found->method, entry.call);
  if (!entry.at_point) return script.steps;
  const auto point = script.points.find(Turn::kSteps);
  return point == script.points.end() ? Steps() : point->second.steps;
}

/** The word of a step, as `svcmgr-sim send` has it; null for an event, which has a record of its own. */
const char* WordOf(Step::Action action) {
  switch (action) {
    case Step::Action::kBroadcast:
    case Step::Action::kUpdate:
      break;
    case Step::Action::kWait:
      return "wait";
    case Step::Action::kInstall:
      return "install";
    case Step::Action::kRestart:
      return "restart";
    case Step::Action::kKill:
      return "kill";
    case Step::Action::kRemove:
      return "remove";
    case Step::Action::kPermit:
      return "clients";
    case Step::Action::kAdmit:
      return "refuse";
    case Step::Action::kDrop:
      return "drop";
    case Step::Action::kClose:
      return "close";
    case Step::Action::kKillBus:
      return "kill-bus";
    case Step::Action::kLevel:
      return "api-level";
  }
  return nullptr;
}

void TraceStep(const Step& step) {
  const char* const word = WordOf(step.action);
  if (word == nullptr) return;
  Fields fields = {{"step", word}};
  if (!step.package.id.empty()) fields["package"] = step.package.id;
  if (!step.package.version.empty()) fields["version"] = step.package.version;
  if (step.action == Step::Action::kWait) fields["milliseconds"] = step.number;
  if (step.action == Step::Action::kLevel) fields["level"] = step.number;
  Trace("step", fields);
}

}  // namespace

UpdateRunner::UpdateRunner(const Scenario& scenario, std::string journal_file,
                           std::function<void()> replace)
    : scenario_(scenario), journal_file_(std::move(journal_file)), replace_(std::move(replace)) {}

void UpdateRunner::Close() {
  stopped_ = true;
  if (!journal_file_.empty()) unlink(journal_file_.c_str());
}

Steps UpdateRunner::StepsOf(const JournalEntry& entry) const {
  const Update& update = scenario_.update;
  if (!entry.method.empty()) return StepsOfMethod(scenario_, entry);
  if (entry.document.empty()) return entry.recovery ? update.recovery : update.steps;
  Steps steps;
  for (Step& step : ReadStepsDocument(entry.document, "steps")) {
    if (step.action == Step::Action::kUpdate) {
      steps.insert(steps.end(), update.steps.begin(), update.steps.end());
    } else {
      steps.push_back(std::move(step));
    }
  }
  return steps;
}

UpdateRunner::Position UpdateRunner::Add(JournalEntry entry, Done done) {
  Steps steps = StepsOf(entry);
  const auto sequence = sequences_.emplace(sequences_.end());
  sequence->steps = std::move(steps);
  sequence->entry = std::move(entry);
  sequence->done = std::move(done);
  return sequence;
}

void UpdateRunner::Resume() {
  const Journal journal = ReadJournal(journal_file_);
  ended_ = journal.ended;
  changes_ = journal.changes;
  Pass(Mark::kJournalRead);
  if (!journal.found && scenario_.bus) {
    // It follows nobody who could have said so: whoever listens already hears that an agent runs.
    Publish(scenario_.agent.package.id, LaunchStep().broadcast);
  }
  if (journal.found && !journal.replaced) {
    Recover(journal);
  } else {
    for (const JournalEntry& entry : journal.entries) Schedule(Add(entry, nullptr), 0);
  }
  Note(false);
  Pass(Mark::kLaunched);
}

void UpdateRunner::Recover(const Journal& journal) {
  bool updating = false;
  for (const JournalEntry& entry : journal.entries) {
    updating = updating || IsUpdate(entry);
    if (!entry.id.empty()) ended_[entry.id] = "the agent was killed in the middle of the steps";
  }
  if (!updating) {
    Publish(scenario_.agent.package.id, LaunchStep().broadcast);
    return;
  }
  JournalEntry recovery;
  recovery.recovery = true;
  Schedule(Add(std::move(recovery), nullptr), 0);
}

void UpdateRunner::StartUpdate(const std::vector<std::string>& agents, std::int32_t delay) {
  const bool updating = std::any_of(sequences_.begin(), sequences_.end(),
                                    [](const auto& each) { return IsUpdate(each.entry); });
  if (updating) return;
  JournalEntry entry;
  entry.agents = agents;
  Schedule(Add(std::move(entry), nullptr), delay);
}

void UpdateRunner::RunSteps(Method method, std::size_t call, bool at_point, Done done) {
  JournalEntry entry;
  entry.method = InfoOf(method).name;
  entry.call = call;
  entry.at_point = at_point;
  Schedule(Add(std::move(entry), std::move(done)), 0);
}

void UpdateRunner::Run(const std::string& id, const std::string& document, Done done) {
  const auto ended = ended_.find(id);
  if (ended != ended_.end()) {
    done(ended->second);
    ended_.erase(ended);
    return;
  }
  const auto known = std::find_if(sequences_.begin(), sequences_.end(),
                                  [&](const Sequence& each) { return each.entry.id == id; });
  if (known != sequences_.end()) {
    known->done = std::move(done);
    return;
  }
  JournalEntry entry;
  entry.id = id;
  entry.document = document;
  Schedule(Add(std::move(entry), std::move(done)), 0);
}

void UpdateRunner::Schedule(Position sequence, std::int32_t delay) {
  sequence->timer.After(scenario_.Scaled(delay), [this, sequence] { GoOn(sequence); });
}

void UpdateRunner::GoOn(Position sequence) {
  try {
    Advance(sequence);
  } catch (const std::exception& error) {
    dlog_print(DLOG_ERROR, kLogTag, "an update ends: %s", error.what());
    Finish(sequence, error.what());
  }
}

void UpdateRunner::Advance(Position sequence) {
  while (!stopped_ && sequence->entry.next < sequence->steps.size()) {
    Note(false);
    Pass(Mark::kStepNoted);
    const Step& step = sequence->steps[sequence->entry.next++];
    if (!Take(sequence, step)) return;
    Pass(Mark::kStepTaken);
  }
  if (!stopped_) Finish(sequence, "");
}

bool UpdateRunner::Take(Position sequence, const Step& step) {
  const std::string& id = scenario_.agent.package.id;
  TraceStep(step);
  switch (step.action) {
    case Step::Action::kBroadcast:
      Publish(id, step.broadcast, sequence->entry.agents);
      return true;
    case Step::Action::kWait:
      Schedule(sequence, step.number);
      return false;
    case Step::Action::kInstall:
      Install(step.package);
      return true;
    case Step::Action::kRemove:
      Check(RemovePackage(PackageFolder(), step.package.id.empty() ? id : step.package.id),
            "cannot remove the package");
      return true;
    case Step::Action::kPermit:
      Permit(step.clients);
      return true;
    case Step::Action::kAdmit:
      changes_.admission = step.admission;
      return true;
    case Step::Action::kLevel:
      changes_.api_level = step.number;
      return true;
    case Step::Action::kDrop:
    case Step::Action::kClose:
      AwaitBusPeers(id);
      port_(step);
      return true;
    case Step::Action::kKillBus:
      AwaitBusPeers(id);
      KillBus();
      return true;
    case Step::Action::kUpdate:
      return true;  // its steps stand in its place
    case Step::Action::kRestart:
      AwaitBusPeers(id);
      Note(true);
      Pass(Mark::kReplacementWanted);
      stopped_ = true;
      replace_();
      return false;
    case Step::Action::kKill:
      AwaitBusPeers(id);
      if (sequence->done) sequence->done("");
      raise(SIGKILL);
      return false;
  }
  return false;
}

void UpdateRunner::Install(Package package) const {
  const Package& own = scenario_.agent.package;
  if (package.id.empty() || package.id == own.id) {
    const auto installed = InstalledPackage(PackageFolder(), own.id);
    const Package& former = installed ? *installed : own;
    package.id = own.id;
    if (package.version.empty()) {
      package.version = installed ? NextVersion(former.version) : own.version;
    }
    if (!package.clients) package.clients = former.clients;
    if (package.metadata.empty()) package.metadata = former.metadata;
  }
  if (package.version.empty()) package.version = kUsualVersion;
  Check(InstallPackage(PackageFolder(), package), "cannot install the package");
}

void UpdateRunner::Permit(const Patterns& clients) const {
  auto package = InstalledPackage(PackageFolder(), scenario_.agent.package.id);
  if (!package) throw std::runtime_error("the agent's package is not installed");
  package->clients = clients;
  Check(InstallPackage(PackageFolder(), *package), "cannot change the agent's package");
}

/** A second time there is none to kill. */
void UpdateRunner::KillBus() const {
  if (journal_file_.empty()) return;  // no world, or none that has a bus of its own
  const std::string file = std::filesystem::path(journal_file_).replace_filename("bus.pid");
  pid_t bus = 0;
  if (std::ifstream(file) >> bus && bus > 0 && unlink(file.c_str()) == 0) kill(bus, SIGKILL);
}

void UpdateRunner::Finish(Position sequence, const std::string& problem) {
  const Done done = std::move(sequence->done);
  if (!done && !sequence->entry.id.empty()) ended_[sequence->entry.id] = problem;
  sequences_.erase(sequence);
  Note(false);
  if (done) done(problem);
}

void UpdateRunner::Note(bool replaced) const {
  if (journal_file_.empty()) return;
  Journal journal;
  journal.replaced = replaced;
  journal.ended = ended_;
  journal.changes = changes_;
  for (const Sequence& sequence : sequences_) journal.entries.push_back(sequence.entry);
  try {
    WriteJournal(journal_file_, journal);
  } catch (const std::exception& error) {
    dlog_print(DLOG_ERROR, kLogTag, "the next process will know nothing: %s", error.what());
  }
}

}  // namespace sim
