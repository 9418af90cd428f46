// SPDX-License-Identifier: Apache-2.0
#include "service/model_work.h"

#include <dlog.h>

#include <exception>
#include <utility>
#include <vector>

#include "service/events.h"
#include "service/log_tag.h"

namespace sim {
namespace {

constexpr std::int32_t kWhole = 100;

bool IsAt(const std::optional<WorkPoint>& point, std::int32_t model, std::int32_t percentage) {
  return point && point->model == model && percentage >= point->percentage;
}

}  // namespace

ModelWork::ModelWork(const Scenario& scenario, ModelStore& store, DeliveryQueue& deliveries)
    : scenario_(scenario), store_(store), deliveries_(deliveries) {}

void ModelWork::Begin(const std::string& instance, const Request& request) {
  const auto self = operations_.emplace(operations_.end());
  self->instance = instance;
  self->request = request;
  self->script = &scenario_.Script(request.method);
  Schedule(self, self->script->delay);
}

void ModelWork::Schedule(Position operation, std::int32_t delay) {
  operation->timer.After(scenario_.Scaled(delay), [this, operation] { GoOn(operation); });
}

void ModelWork::GoOn(Position operation) {
  bool goes_on = false;
  try {
    goes_on = Advance(*operation);
  } catch (const std::exception& error) {
    dlog_print(DLOG_ERROR, kLogTag, "model work ends: %s", error.what());
  }
  if (goes_on) {
    Schedule(operation, operation->script->pace);
  } else {
    operations_.erase(operation);
  }
}

bool ModelWork::Advance(Operation& operation) {
  if (operation.index == 0) {
    Announce("START");
    operation.index = 1;
  }
  if (operation.count() > 0) return AdvanceModel(operation);
  ProgressStep done;
  done.state = kStateDone;
  Report(operation, done);
  Announce("COMPLETED");
  return false;
}

bool ModelWork::AdvanceModel(Operation& operation) {
  const std::int32_t percentage = kWhole * operation.part / operation.script->parts;
  if (IsAt(operation.script->stop_at, operation.index, percentage)) return false;
  if (IsAt(operation.script->fail_at, operation.index, percentage)) {
    return Fail(operation, operation.script->fail_at->result);
  }
  const std::int32_t result = DoPart(operation);
  if (result != kWorkDone) return Fail(operation, result);
  const bool model_done = operation.part == operation.script->parts;
  const bool all_done = model_done && operation.index == operation.count();
  ProgressStep progress;
  progress.state = all_done ? kStateDone : kStateWorking;
  progress.index = operation.index;
  progress.count = operation.count();
  progress.percentage = percentage;
  Report(operation, progress);
  if (all_done) {
    Announce("COMPLETED");
    return false;
  }
  operation.index += model_done ? 1 : 0;
  operation.part = model_done ? 0 : operation.part + 1;
  return true;
}

bool ModelWork::Fail(Operation& operation, std::int32_t result) {
  operation.copy.reset();
  ProgressStep failed;
  failed.state = kStateFailed;
  failed.index = operation.index;
  failed.count = operation.count();
  failed.percentage = kWhole * operation.part / operation.script->parts;
  failed.result = result;
  Report(operation, failed);
  Announce("FAILED");
  return false;
}

std::int32_t ModelWork::BeginModel(Operation& operation) {
  const ModelInfo& wanted =
      operation.request.models.models[static_cast<std::size_t>(operation.index - 1)];
  if (!operation.updates()) return store_.IsInstalled(wanted.id) ? kWorkDone : kNoSuchModel;
  const std::string version = store_.Choose(wanted.id, wanted.version);
  if (version.empty()) return kNoSuchModel;
  operation.copy.emplace(store_, wanted.id, version);
  return kWorkDone;
}

std::int32_t ModelWork::DoPart(Operation& operation) {
  const std::int32_t parts = operation.script->parts;
  if (operation.part == 0) return BeginModel(operation);
  const bool last = operation.part == parts;
  if (!operation.updates()) {
    const ModelInfo& wanted =
        operation.request.models.models[static_cast<std::size_t>(operation.index - 1)];
    return last ? store_.Uninstall(wanted.id) : kWorkDone;
  }
  std::int32_t result = operation.copy->CopyTo(operation.part, parts);
  if (result == kWorkDone && last) {
    result = operation.copy->Finish();
    operation.copy.reset();
  }
  return result;
}

void ModelWork::Report(Operation& operation, const ProgressStep& progress) {
  const bool final = progress.state != kStateWorking;
  switch (operation.script->report) {
    case Reported::kAll:
      break;
    case Reported::kEnds:
      if (!final && progress.percentage != 0 && progress.percentage != kWhole) return;
      break;
    case Reported::kLast:
      if (!final) return;
      break;
    case Reported::kNoLast:
      if (final) return;
      break;
    case Reported::kSwapped:
      if (!final && !operation.held) {
        operation.held = progress;
        return;
      }
      if (final && operation.held) Send(operation, *std::exchange(operation.held, std::nullopt));
      break;
  }
  Send(operation, progress);
  if (operation.held) Send(operation, *std::exchange(operation.held, std::nullopt));
}

void ModelWork::Send(Operation& operation, const ProgressStep& progress) {
  const bool first = !std::exchange(operation.reported, true);
  MethodScript script;
  if (first || operation.script->fault == Fault::kNever) {
    script = *operation.script;
    script.delay = 0;  // the work itself has begun after it
  }
  std::vector<TimedParcel> messages;
  for (std::int32_t i = 0; i < operation.script->repeat; ++i) {
    messages.push_back(
        {0, AnswerWith(operation.request.delegate, progress.result.value_or(kWorkDone), progress)});
  }
  deliveries_.Deliver(operation.instance, RPC_PORT_PORT_CALLBACK, script, std::move(messages));
}

void ModelWork::Announce(const char* status) const {
  Publish(scenario_.agent.package.id, ModelStatusStep(status).broadcast);
}

}  // namespace sim
