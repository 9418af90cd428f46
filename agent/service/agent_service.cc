// SPDX-License-Identifier: Apache-2.0
#include "service/agent_service.h"

#include <dlog.h>
#include <glib-unix.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <iterator>
#include <optional>
#include <utility>

#include "common/marks.h"
#include "owned.h"
#include "service/control.h"
#include "service/events.h"
#include "service/log_tag.h"
#include "unique_fd.h"

namespace sim {
namespace {

constexpr char kPortName[] = "SvcMgrAppPort";
// What clients are told while the KYR feature is off.
constexpr char kKyrDisabledText[] = "SVCMGR_ERROR_KYR_DISABLED";
constexpr std::int32_t kKyrDisabledCode = -1073741826;  // 0xBFFFFFFE
constexpr std::int32_t kKyrDisabledResult = 8;

bool Admits(const Model& model, const std::string& app_id) {
  return !model.apps || Includes(*model.apps, app_id);
}

std::vector<TimedParcel> AnswerProgress(const Request& request, const MethodScript& script,
                                        std::int32_t result) {
  std::vector<ProgressStep> steps;
  if (script.progress) {
    steps = *script.progress;
  } else {
    ProgressStep& refusal = steps.emplace_back();
    refusal.state = kStateFailed;
    refusal.count = static_cast<std::int32_t>(request.models.models.size());
  }
  std::vector<TimedParcel> messages;
  for (std::int32_t i = 0; i < script.repeat; ++i) {
    for (const ProgressStep& step : steps) {
      const std::int32_t step_result = step.result.value_or(result);
      messages.push_back({step.delay, AnswerWith(request.delegate, step_result, step)});
    }
  }
  return messages;
}

std::vector<ModelView> Views(const std::vector<ModelInfo>& models) {
  std::vector<ModelView> views;
  views.reserve(models.size());
  for (const ModelInfo& model : models) {
    views.push_back(
        {model.id.c_str(), model.version.c_str(), model.title.c_str(), model.description.c_str()});
  }
  return views;
}

std::string StoreFolder() {
  const char* home = getenv("XDG_DATA_HOME");
  return home == nullptr ? "" : std::string(home) + "/models";
}

}  // namespace

AgentService::AgentService(const Scenario& scenario, UpdateRunner& updates,
                           const std::string& call_file, int last_client)
    : scenario_(scenario),
      updates_(updates),
      trace_(last_client),
      calls_(scenario, call_file),
      store_(scenario, StoreFolder()) {
  Check(rpc_port_stub_create(&stub_, kPortName), "cannot make the port");
  Pass(Mark::kPortMade);
  rpc_port_desktop_stub_set_admission_cb(stub_, OnAdmission, this);
  rpc_port_stub_add_connected_event_cb(stub_, OnConnected, this);
  rpc_port_stub_add_disconnected_event_cb(stub_, OnDisconnected, this);
  rpc_port_stub_add_received_event_cb(stub_, OnReceived, this);
  deliveries_ = std::make_unique<DeliveryQueue>(stub_, scenario_, trace_);
  work_ = std::make_unique<ModelRunner>(scenario_, store_, *deliveries_, updates_);
}

AgentService::~AgentService() { Close(); }

void AgentService::Close() {
  work_.reset();
  deliveries_.reset();
  if (stub_ != nullptr) rpc_port_stub_destroy(std::exchange(stub_, nullptr));
}

void AgentService::Take(const Step& step) {
  if (step.action == Step::Action::kClose) {
    trace_.Closed();
    Close();
    return;
  }
  for (auto guest = guests_.begin(); guest != guests_.end();) {
    const bool meant = Includes(step.clients, guest->second);
    if (meant && deliveries_) deliveries_->Drop(guest->first);
    guest = meant ? guests_.erase(guest) : std::next(guest);
  }
}

bool AgentService::Refuses(const std::string& application) const {
  const Admission& admission = updates_.changes().admission.value_or(scenario_.agent.admission);
  return Includes(admission.refused, application) && !Includes(admission.admitted, application);
}

void AgentService::Listen() {
  const Package& package = scenario_.agent.package;
  // Before any client can be there.
  Trace("start", {{"process", "agent"}, {"pid", getpid()}, {"app", package.id}});
  Check(rpc_port_stub_listen(stub_), "cannot listen on the port");
  Pass(Mark::kListening);
  dlog_print(DLOG_INFO, kLogTag, "%s %s serves %s", package.id.c_str(), package.version.c_str(),
             kPortName);
}

bool AgentService::OnAdmission(const char* sender, const char*, void* data) {
  auto* self = static_cast<AgentService*>(data);
  Pass(Mark::kAdmitting);
  const bool refused = self->Refuses(sender);
  if (refused) self->trace_.Refused(sender);
  dlog_print(DLOG_INFO, kLogTag, "%s asks to connect: %s", sender,
             refused ? "refused" : "admitted");
  return !refused;
}

void AgentService::OnConnected(const char* sender, const char* instance, void* data) {
  auto* self = static_cast<AgentService*>(data);
  self->trace_.Connected(sender, instance);
  Pass(Mark::kConnected);
  self->guests_[instance] = sender;
  dlog_print(DLOG_INFO, kLogTag, "%s is connected as %s", sender, instance);
}

void AgentService::OnDisconnected(const char* sender, const char* instance, void* data) {
  auto* self = static_cast<AgentService*>(data);
  self->trace_.Disconnected(instance, "client");
  self->guests_.erase(instance);
  dlog_print(DLOG_INFO, kLogTag, "%s is gone, which was %s", sender, instance);
}

int AgentService::OnReceived(const char*, const char* instance, rpc_port_h port, void* data) {
  auto* self = static_cast<AgentService*>(data);
  std::optional<Parcel> parcel;
  Pass(Mark::kRequestArrived);
  try {
    parcel.emplace(Parcel::From(port));
    const std::string client = instance;
    self->trace_.Received(client, parcel->Bytes());
    self->Serve(client, *parcel);
    return 0;
  } catch (const std::exception& error) {
    dlog_print(DLOG_WARN, kLogTag, "%s is cut off: %s", instance, error.what());
    self->trace_.Unreadable(instance, parcel ? parcel->Bytes() : "", error.what());
    self->trace_.Disconnected(instance, "agent");
    return -1;
  }
}

void AgentService::Serve(const std::string& instance, Parcel& parcel) {
  const Request request = ReadRequest(parcel);
  dlog_print(DLOG_DEBUG, kLogTag, "%s calls %s", instance.c_str(), InfoOf(request.method).name);
  trace_.Asked(instance, request);
  Pass(Mark::kRequestRead);
  const std::size_t call = calls_.Next(request.method);
  const std::int32_t result = ResultOf(request.method, call);
  const MethodInfo& method = InfoOf(request.method);
  const MethodScript& script = scenario_.Script(request.method, call);
  if (method.answered_by == AnsweredBy::kProgress && !script.progress && result == 0) {
    work_->Begin(instance, request, call);
    return;
  }
  const auto port =
      method.answered_by == AnsweredBy::kReply ? RPC_PORT_PORT_MAIN : RPC_PORT_PORT_CALLBACK;
  const auto done = [this, &script, method = request.method, call] {
    if (!script.steps.empty()) updates_.RunSteps(method, call, false, nullptr);
  };
  if (method.answered_by != AnsweredBy::kProgress && deliveries_->CanSendAtOnce(script)) {
    const std::string& message = Known(request, script, result);
    for (std::int32_t i = 0; i < script.repeat && deliveries_->Send(instance, port, message); ++i) {
    }
    done();
  } else {
    deliveries_->Deliver(instance, port, script, Answer(request, script, result), done);
  }
  if (method.updates_agents && result == 0) updates_.StartUpdate(request.agents, script.delay);
}

std::int32_t AgentService::UsualResult(Method method) const {
  const bool disabled = scenario_.agent.kyr_disabled;
  if (method == Method::kGetAgentApiLevel) {
    return disabled ? kKyrDisabledCode
                    : updates_.changes().api_level.value_or(scenario_.agent.api_level);
  }
  if (!disabled) return 0;
  return InfoOf(method).answered_by == AnsweredBy::kReply ? kKyrDisabledCode : kKyrDisabledResult;
}

std::int32_t AgentService::ResultOf(Method method, std::size_t call) const {
  const auto& results = scenario_.Script(method, call).results;
  return results.empty() ? UsualResult(method) : results[std::min(call, results.size() - 1)];
}

std::vector<TimedParcel> AgentService::Answer(const Request& request, const MethodScript& script,
                                              std::int32_t result) {
  if (InfoOf(request.method).answered_by == AnsweredBy::kProgress) {
    return AnswerProgress(request, script, result);
  }
  const std::string& message = Known(request, script, result);
  std::vector<TimedParcel> messages(static_cast<std::size_t>(script.repeat));
  for (TimedParcel& timed : messages) {
    timed.parcel.SetBytes(std::string_view(message).substr(kLengthSize));
  }
  return messages;
}

/** The reply or the list, as it travels; made anew only where it differs from the last one. */
const std::string& AgentService::Known(const Request& request, const MethodScript& script,
                                       std::int32_t result) {
  if (InfoOf(request.method).answered_by == AnsweredBy::kModels) {
    return KnownListOf(request, script, result);
  }
  return request.method == Method::kGetLicense ? KnownLicence(script) : KnownReply(result);
}

const std::string& AgentService::KnownReply(std::int32_t result) {
  if (known_reply_.message.empty() || known_reply_.result != result) {
    known_reply_ = {result, Framed(ReplyWith(result))};
  }
  return known_reply_.message;
}

const std::string& AgentService::KnownLicence(const MethodScript& script) {
  const Agent& agent = scenario_.agent;
  static const std::string disabled = kKyrDisabledText;
  const std::string& usual = agent.kyr_disabled ? disabled : agent.licence;
  const std::string& text = script.text ? *script.text : usual;
  // All of them are the scenario's, and do not change.
  if (known_licence_.text != &text) known_licence_ = {&text, Framed(ReplyWith(text))};
  return known_licence_.message;
}

const std::string& AgentService::KnownListOf(const Request& request, const MethodScript& script,
                                             std::int32_t result) {
  KnownList& known = known_lists_[request.method];
  if (known.script == &script && known.result == result && known.state == store_.state() &&
      known.app_id == request.app_id && known.model_id == request.model.id) {
    // Only whom it is for may differ.
    Readdress(known.message, request.delegate);
    return known.message;
  }
  std::vector<ModelView> models;
  if (script.models) {
    models = Views(*script.models);
  } else if (!scenario_.agent.kyr_disabled) {
    models = request.method == Method::kGetModelVersionList ? Versions(request) : Models(request);
  }
  const Parcel answer =
      AnswerWith(request.delegate, result, models, {script.array_count, script.count});
  known = {&script, result, store_.state(), request.app_id, request.model.id, Framed(answer)};
  return known.message;
}

std::vector<ModelView> AgentService::Models(const Request& request) const {
  const bool described = request.method == Method::kGetUsableModelListWithDesc;
  std::vector<ModelView> models;
  models.reserve(store_.models().size());
  for (const StoredModel& stored : store_.models()) {
    const Model& model = *stored.model;
    if (!stored.versions.empty() && Admits(model, request.app_id)) {
      models.push_back({model.id.c_str(), stored.versions.back().c_str(), model.title.c_str(),
                        described ? model.description.c_str() : ""});
    }
  }
  return models;
}

std::vector<ModelView> AgentService::Versions(const Request& request) const {
  std::vector<ModelView> versions;
  for (const StoredModel& stored : store_.models()) {
    const Model& model = *stored.model;
    if (model.id != request.model.id || !Admits(model, request.app_id)) continue;
    for (const auto* offered : {&model.versions, &model.available}) {
      for (const std::string& version : *offered) {
        versions.push_back(
            {model.id.c_str(), version.c_str(), model.title.c_str(), model.description.c_str()});
      }
    }
  }
  return versions;
}

namespace {

/** The signals that end an agent, as something to poll. */
base::UniqueFd TakeEndSignals() {
  sigset_t ends;
  sigemptyset(&ends);
  for (const int end : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&ends, end);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  // GLib's own signal sources would start a thread.
  return base::UniqueFd(signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
}

}  // namespace

int RunAgent(const Scenario& scenario, const AgentOptions& options) {
  base::UniqueFd ready(options.ready_fd);
  ObeyMarks();
  Pass(Mark::kBegun);
  signal(SIGPIPE, SIG_IGN);
  const base::UniqueFd signals = TakeEndSignals();
  const base::Owned<GMainLoop, g_main_loop_unref> loop(g_main_loop_new(nullptr, FALSE));

  int status = 0;
  UpdateRunner updates(scenario, options.journal, [&] {
    status = kReplaceMe;
    g_main_loop_quit(loop.get());
  });
  AgentService service(scenario, updates, options.journal.empty() ? "" : options.journal + ".calls",
                       options.last_client);
  updates.SetPort([&](const Step& step) { service.Take(step); });
  if (scenario.bus) {
    // Before there can be a client that would hear somebody else.
    OwnName(scenario.agent.package.id);
    Pass(Mark::kNameOwned);
  }
  service.Listen();
  std::optional<ControlPort> control;
  if (options.control_fd >= 0) control.emplace(options.control_fd, updates);
  Pass(Mark::kOpenToSteps);
  const guint watch = g_unix_fd_add(
      signals.get(), G_IO_IN,
      [](gint, GIOCondition, gpointer data) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(data));
        return G_SOURCE_CONTINUE;
      },
      loop.get());
  updates.Resume();
  if (ready && write(ready.get(), "r", 1) != 1) {
    return 1;  // whoever started the agent is gone
  }
  ready.Reset();
  Pass(Mark::kReady);
  g_main_loop_run(loop.get());
  g_source_remove(watch);
  if (status == 0) updates.Close();
  return status;
}

}  // namespace sim
