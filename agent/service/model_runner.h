// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_MODEL_RUNNER_H_
#define AGENT_SERVICE_MODEL_RUNNER_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "protocol/messages.h"
#include "scenario/scenario.h"
#include "service/delivery.h"
#include "service/event_source.h"
#include "service/model_store.h"
#include "service/update_runner.h"

namespace sim {

// The states of model work, as progress messages carry them.
constexpr std::int32_t kStateWorking = 1;
constexpr std::int32_t kStateDone = 2;    // the last message: all models are done
constexpr std::int32_t kStateFailed = 3;  // the last message: the work has ended early

/** Updates and uninstalls models, any number of times side by side, on the default main context. */
class ModelRunner {
 public:
  /** All must outlive the work. */
  ModelRunner(const Scenario& scenario, ModelStore& store, DeliveryQueue& deliveries,
              UpdateRunner& steps);
  ModelRunner(const ModelRunner&) = delete;
  ModelRunner& operator=(const ModelRunner&) = delete;

  /** Begins what a client has asked for, by this call of the method. The work goes on when the client is gone. */
  void Begin(const std::string& instance, const Request& request, std::size_t call);

 private:
  struct Operation {
    std::string instance;
    Request request;
    std::size_t call = 0;
    const MethodScript* script = nullptr;
    std::int32_t index = 0;  // of the model, from 1; 0 before the first
    std::int32_t part = 0;
    std::optional<ModelCopy> copy;
    std::optional<ProgressStep> held;  // where messages change places
    bool reported = false;
    std::set<Turn> turns;               // that the work has taken
    std::optional<std::int32_t> ahead;  // percentage that a turn has reported before its part
    EventSource timer;

    std::int32_t count() const { return static_cast<std::int32_t>(request.models.models.size()); }
    bool updates() const { return request.method == Method::kRequestToUpdate; }
  };

  using Position = std::list<Operation>::iterator;

  /** What comes behind a part of the work. */
  enum class Next {
    kPart,   // another one
    kSteps,  // steps of the agent, then another one
    kEnd,
  };

  void Schedule(Position operation, std::int32_t delay);
  void GoOn(Position operation);
  Next Advance(Operation& operation);
  Next AdvanceModel(Operation& operation);
  Next Take(Operation& operation, Turn turn);
  Next Fail(Operation& operation, std::int32_t percentage, std::int32_t result);
  std::int32_t DoPart(Operation& operation);
  std::int32_t BeginModel(Operation& operation);
  void ReportPoint(Operation& operation, Turn turn);
  /** `last`: nothing may come behind it. */
  void Report(Operation& operation, const ProgressStep& progress, bool last);
  void Send(Operation& operation, const ProgressStep& progress);
  void Announce(const char* status) const;

  const Scenario& scenario_;
  ModelStore& store_;
  DeliveryQueue& deliveries_;
  UpdateRunner& steps_;
  std::list<Operation> operations_;
  const std::shared_ptr<void> alive_ = std::make_shared<char>();
};

}  // namespace sim

#endif  // AGENT_SERVICE_MODEL_RUNNER_H_
