// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_SERVICE_MODEL_WORK_H_
#define AGENT_SERVICE_MODEL_WORK_H_

#include <cstdint>
#include <list>
#include <optional>
#include <string>

#include "protocol/messages.h"
#include "scenario/scenario.h"
#include "service/delivery.h"
#include "service/event_source.h"
#include "service/model_store.h"

namespace sim {

// The states of model work, as progress messages carry them.
constexpr std::int32_t kStateWorking = 1;
constexpr std::int32_t kStateDone = 2;    // the last message: all models are done
constexpr std::int32_t kStateFailed = 3;  // the last message: the work has ended early

/** Updates and uninstalls models, any number of times side by side, on the default main context. */
class ModelWork {
 public:
  /** All must outlive the work. */
  ModelWork(const Scenario& scenario, ModelStore& store, DeliveryQueue& deliveries);
  ModelWork(const ModelWork&) = delete;
  ModelWork& operator=(const ModelWork&) = delete;

  /** Begins what a client has asked for. The work goes on when the client is gone. */
  void Begin(const std::string& instance, const Request& request);

 private:
  struct Operation {
    std::string instance;
    Request request;
    const MethodScript* script = nullptr;
    std::int32_t index = 0;  // of the model, from 1; 0 before the first
    std::int32_t part = 0;
    std::optional<ModelCopy> copy;
    std::optional<ProgressStep> held;  // where messages change places
    bool reported = false;
    EventSource timer;

    std::int32_t count() const { return static_cast<std::int32_t>(request.models.models.size()); }
    bool updates() const { return request.method == Method::kRequestToUpdate; }
  };

  using Position = std::list<Operation>::iterator;

  void Schedule(Position operation, std::int32_t delay);
  void GoOn(Position operation);

  /** Does the next part; false when the work is over. */
  bool Advance(Operation& operation);
  bool AdvanceModel(Operation& operation);
  bool Fail(Operation& operation, std::int32_t result);
  std::int32_t DoPart(Operation& operation);
  std::int32_t BeginModel(Operation& operation);
  void Report(Operation& operation, const ProgressStep& progress);
  void Send(Operation& operation, const ProgressStep& progress);
  void Announce(const char* status) const;

  const Scenario& scenario_;
  ModelStore& store_;
  DeliveryQueue& deliveries_;
  std::list<Operation> operations_;
};

}  // namespace sim

#endif  // AGENT_SERVICE_MODEL_WORK_H_
