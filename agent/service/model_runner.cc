// SPDX-License-Identifier: Apache-2.0
#include "service/model_runner.h"

#include <dlog.h>
#include <signal.h>

#include <exception>
#include <map>
#include <utility>
#include <vector>

#include "common/marks.h"
#include "service/bus_barrier.h"
#include "service/events.h"
#include "service/log_tag.h"

namespace sim {
namespace {

constexpr std::int32_t kWhole = 100;

/** The first point that the work has reached and not yet dealt with. */
std::optional<Turn> NextTurn(const std::map<Turn, WorkPoint>& points, const std::set<Turn>& taken,
                             std::int32_t model, std::int32_t percentage) {
  std::optional<Turn> next;
  for (const auto& [turn, point] : points) {
    if (point.model != model || point.percentage > percentage || taken.count(turn) > 0) continue;
    if (!next || point.percentage < points.at(*next).percentage) next = turn;
  }
  return next;
}

}  // namespace

ModelRunner::ModelRunner(const Scenario& scenario, ModelStore& store, DeliveryQueue& deliveries,
                         UpdateRunner& steps)
    : scenario_(scenario), store_(store), deliveries_(deliveries), steps_(steps) {}

void ModelRunner::Begin(const std::string& instance, const Request& request, std::size_t call) {
  const auto self = operations_.emplace(operations_.end());
  self->instance = instance;
  self->request = request;
  self->call = call;
  self->script = &scenario_.Script(request.method, call);
  Schedule(self, self->script->delay);
}

void ModelRunner::Schedule(Position operation, std::int32_t delay) {
  operation->timer.After(scenario_.Scaled(delay), [this, operation] { GoOn(operation); });
}

void ModelRunner::GoOn(Position operation) {
  Next next = Next::kEnd;
  try {
    next = Advance(*operation);
  } catch (const std::exception& error) {
    dlog_print(DLOG_ERROR, kLogTag, "model work ends: %s", error.what());
  }
  const Method method = operation->request.method;
  switch (next) {
    case Next::kPart:
      Schedule(operation, operation->script->pace);
      break;
    case Next::kSteps:
      // The steps may close the port, and end all work with it.
      steps_.RunSteps(method, operation->call, true,
                      [this, operation, alive = std::weak_ptr<void>(alive_)](const std::string&) {
                        if (!alive.expired()) Schedule(operation, 0);
                      });
      break;
    case Next::kEnd:
      if (!operation->script->steps.empty()) {
        steps_.RunSteps(method, operation->call, false, nullptr);
      }
      operations_.erase(operation);
      break;
  }
}

ModelRunner::Next ModelRunner::Advance(Operation& operation) {
  if (operation.index == 0) {
    Announce("START");
    Pass(Mark::kWorkBegun);
    operation.index = 1;
  }
  if (operation.count() > 0) return AdvanceModel(operation);
  ProgressStep done;
  done.state = kStateDone;
  Report(operation, done, true);
  Announce("COMPLETED");
  return Next::kEnd;
}

ModelRunner::Next ModelRunner::AdvanceModel(Operation& operation) {
  const MethodScript& script = *operation.script;
  const std::int32_t percentage = kWhole * operation.part / script.parts;
  const auto turn = NextTurn(script.points, operation.turns, operation.index, percentage);
  if (turn) return Take(operation, *turn);
  const std::int32_t result = DoPart(operation);
  Pass(Mark::kPartDone);
  if (result != kWorkDone) return Fail(operation, percentage, result);
  const bool model_done = operation.part == script.parts;
  const bool all_done = model_done && operation.index == operation.count();
  const bool is_reported = std::exchange(operation.ahead, std::nullopt) == percentage && !all_done;
  if (!is_reported) {
    ProgressStep progress;
    progress.state = all_done ? kStateDone : kStateWorking;
    progress.index = operation.index;
    progress.count = operation.count();
    progress.percentage = percentage;
    Report(operation, progress, all_done);
  }
  if (all_done) {
    Pass(Mark::kWorkFinished);
    Announce("COMPLETED");
    return Next::kEnd;
  }
  operation.index += model_done ? 1 : 0;
  operation.part = model_done ? 0 : operation.part + 1;
  return Next::kPart;
}

ModelRunner::Next ModelRunner::Take(Operation& operation, Turn turn) {
  const WorkPoint& point = operation.script->points.at(turn);
  operation.turns.insert(turn);
  if (turn == Turn::kFail) return Fail(operation, point.percentage, point.result);
  ReportPoint(operation, turn);
  switch (turn) {
    case Turn::kSteps:
      return Next::kSteps;
    case Turn::kDrop:
      deliveries_.Drop(operation.instance);
      return AdvanceModel(operation);
    case Turn::kCrash:
      AwaitBusPeers(scenario_.agent.package.id);
      raise(SIGKILL);
      break;
    case Turn::kFail:
    case Turn::kStop:
      break;
  }
  return Next::kEnd;
}

void ModelRunner::ReportPoint(Operation& operation, Turn turn) {
  const std::int32_t percentage = operation.script->points.at(turn).percentage;
  if (std::exchange(operation.ahead, percentage) == percentage) return;
  ProgressStep progress;
  progress.state = kStateWorking;
  progress.index = operation.index;
  progress.count = operation.count();
  progress.percentage = percentage;
  Report(operation, progress, turn != Turn::kSteps);
}

ModelRunner::Next ModelRunner::Fail(Operation& operation, std::int32_t percentage,
                                    std::int32_t result) {
  operation.copy.reset();
  ProgressStep failed;
  failed.state = kStateFailed;
  failed.index = operation.index;
  failed.count = operation.count();
  failed.percentage = percentage;
  failed.result = result;
  Report(operation, failed, true);
  Announce("FAILED");
  return Next::kEnd;
}

std::int32_t ModelRunner::BeginModel(Operation& operation) {
  const ModelInfo& wanted =
      operation.request.models.models[static_cast<std::size_t>(operation.index - 1)];
  if (!operation.updates()) return store_.IsInstalled(wanted.id) ? kWorkDone : kNoSuchModel;
  const std::string version = store_.Choose(wanted.id, wanted.version);
  if (version.empty()) return kNoSuchModel;
  operation.copy.emplace(store_, wanted.id, version);
  return kWorkDone;
}

std::int32_t ModelRunner::DoPart(Operation& operation) {
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

void ModelRunner::Report(Operation& operation, const ProgressStep& progress, bool last) {
  const bool ends = progress.state != kStateWorking;
  switch (operation.script->report) {
    case Reported::kAll:
      break;
    case Reported::kEnds:
      if (!last && progress.percentage != 0 && progress.percentage != kWhole) return;
      break;
    case Reported::kLast:
      if (!ends) return;
      break;
    case Reported::kNoLast:
      if (ends) return;
      break;
    case Reported::kSwapped:
      if (!last && !operation.held) {
        operation.held = progress;
        return;
      }
      if (last && operation.held) Send(operation, *std::exchange(operation.held, std::nullopt));
      break;
  }
  Send(operation, progress);
  if (operation.held) Send(operation, *std::exchange(operation.held, std::nullopt));
}

void ModelRunner::Send(Operation& operation, const ProgressStep& progress) {
  const bool first = !std::exchange(operation.reported, true);
  MethodScript script;
  if (first || operation.script->fault == Fault::kNever) {
    script = *operation.script;
    script.delay = 0;  // the work itself has begun after it
  }
  std::vector<TimedParcel> messages;
  messages.reserve(static_cast<std::size_t>(operation.script->repeat));
  for (std::int32_t i = 0; i < operation.script->repeat; ++i) {
    messages.push_back(
        {0, AnswerWith(operation.request.delegate, progress.result.value_or(kWorkDone), progress)});
  }
  deliveries_.Deliver(operation.instance, RPC_PORT_PORT_CALLBACK, script, std::move(messages));
}

void ModelRunner::Announce(const char* status) const {
  Publish(scenario_.agent.package.id, ModelStatusStep(status).broadcast);
}

}  // namespace sim
