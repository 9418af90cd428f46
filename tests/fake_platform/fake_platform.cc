// SPDX-License-Identifier: Apache-2.0
#include "fake_platform.h"

#include <cxxabi.h>

#include <algorithm>
#include <array>
#include <sstream>

#include "internal.h"
#include "support/open_descriptors.h"

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SVCMGR_FAKE_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define SVCMGR_FAKE_TSAN 1
#endif

#ifdef SVCMGR_FAKE_TSAN
extern "C" {
void AnnotateIgnoreReadsBegin(const char* file, int line);
void AnnotateIgnoreReadsEnd(const char* file, int line);
void AnnotateIgnoreWritesBegin(const char* file, int line);
void AnnotateIgnoreWritesEnd(const char* file, int line);
void AnnotateIgnoreSyncBegin(const char* file, int line);
void AnnotateIgnoreSyncEnd(const char* file, int line);
}
#endif

namespace fake {

const char* const kAgentId = FAKE_AGENT_PACKAGE_ID;

namespace internal {
namespace {

thread_local int inside_fake = 0;

constexpr std::array kFunctions = {
    "app_get_id",
    "app_get_resource_path",
    "app_get_version",
    "app_info_create",
    "app_info_destroy",
    "app_info_foreach_metadata",
    "bundle_add_byte",
    "bundle_add_str",
    "bundle_add_str_array",
    "bundle_create",
    "bundle_free",
    "bundle_get_byte",
    "bundle_get_str",
    "bundle_get_str_array",
    "dlog_print",
    "event_add_event_handler",
    "event_publish_app_event",
    "event_remove_event_handler",
    "package_info_create",
    "package_info_destroy",
    "package_info_get_package",
    "package_info_get_version",
    "package_manager_foreach_package_info",
    "rpc_port_parcel_create",
    "rpc_port_parcel_create_from_port",
    "rpc_port_parcel_destroy",
    "rpc_port_parcel_read_array_count",
    "rpc_port_parcel_read_bool",
    "rpc_port_parcel_read_int32",
    "rpc_port_parcel_read_string",
    "rpc_port_parcel_send",
    "rpc_port_parcel_write_array_count",
    "rpc_port_parcel_write_bool",
    "rpc_port_parcel_write_int32",
    "rpc_port_parcel_write_string",
    "rpc_port_proxy_add_connected_event_cb",
    "rpc_port_proxy_add_disconnected_event_cb",
    "rpc_port_proxy_add_received_event_cb",
    "rpc_port_proxy_add_rejected_event_cb",
    "rpc_port_proxy_connect",
    "rpc_port_proxy_create",
    "rpc_port_proxy_destroy",
    "rpc_port_proxy_get_port",
    "rpc_port_stub_add_connected_event_cb",
    "rpc_port_stub_add_disconnected_event_cb",
    "rpc_port_stub_add_received_event_cb",
    "rpc_port_stub_create",
    "rpc_port_stub_destroy",
    "rpc_port_stub_get_port",
    "rpc_port_stub_listen",
};

Script& ScriptOf(const std::string& function) {
  const auto known = std::any_of(kFunctions.begin(), kFunctions.end(),
                                 [&](auto name) { return function == name; });
  if (!known) Fault("no platform function is called " + function);
  return state().scripts[function];
}

bool BeginsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

constexpr std::array kKinds = {Kind::kParcel, Kind::kPackageInfo,  Kind::kAppInfo,
                               Kind::kProxy,  Kind::kEventHandler, Kind::kBundle,
                               Kind::kStub};

}  // namespace

Guard::Guard() {
  ++inside_fake;
#ifdef SVCMGR_FAKE_TSAN
  AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
  AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
  AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
#endif
  state().mutex.lock();
}

Guard::~Guard() {
  state().mutex.unlock();
#ifdef SVCMGR_FAKE_TSAN
  AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
  AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
  AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
#endif
  --inside_fake;
}

Inside::Inside() { ++inside_fake; }
Inside::~Inside() { --inside_fake; }
Outside::Outside() : depth_(inside_fake) { inside_fake = 0; }
Outside::~Outside() { inside_fake = depth_; }

bool InsideFake() { return inside_fake > 0; }

State& state() {
  static State* const forever = new State;
  return *forever;
}

const char* KindName(Kind kind) {
  switch (kind) {
    case Kind::kParcel:
      return "parcel";
    case Kind::kPackageInfo:
      return "package info";
    case Kind::kAppInfo:
      return "app info";
    case Kind::kProxy:
      return "proxy";
    case Kind::kEventHandler:
      return "event handler";
    case Kind::kBundle:
      return "bundle";
    case Kind::kStub:
      return "stub";
  }
  return "?";
}

namespace {

Step TakeScripted(const char* function) {
  const Guard guard;
  const auto found = state().scripts.find(function);
  if (found == state().scripts.end()) return {};
  Script& script = found->second;
  ++script.calls;
  if (const auto at = script.at.find(script.calls); at != script.at.end()) {
    Step step = std::move(at->second);
    script.at.erase(at);
    return step;
  }
  if (!script.next.empty()) {
    Step step = std::move(script.next.front());
    script.next.pop_front();
    return step;
  }
  return script.always.empty() ? Step{} : script.always.front();
}

}  // namespace

Hooks hooks;

Step BeginUnrecorded(const char* function) {
  Step step = TakeScripted(function);
  if (hooks.on_call != nullptr) hooks.on_call(function, &step);
  return step;
}

Step Begin(const char* function, const std::string& arguments) {
  const Guard guard;
  if (state().recording) {
    state().calls.push_back({function, arguments});
    state().trace.push_back(state().calls.back().Text());
  }
  return BeginUnrecorded(function);
}

Step BeginRelease(const char* function, const void* handle) {
  if (hooks.on_release != nullptr) hooks.on_release(handle);
  return Begin(function, Name(handle));
}

Object* FindObject(const char* function, const void* handle, Kind kind) {
  const Guard guard;
  const auto found = state().objects.find(handle);
  if (found == state().objects.end()) {
    Fault(std::string(function) + ": unknown handle where a " + KindName(kind) + " is expected");
    return nullptr;
  }
  Object* const object = found->second.get();
  if (object->kind != kind) {
    Fault(std::string(function) + ": " + Name(handle) + " is no " + KindName(kind));
    return nullptr;
  }
  if (!object->alive) {
    Fault(std::string(function) + ": " + Name(handle) + " is used after it was destroyed");
    return nullptr;
  }
  return object;
}

Object* Destroy(const char* function, const void* handle, Kind kind) {
  const Guard guard;
  const auto found = state().objects.find(handle);
  if (found != state().objects.end() && found->second->kind == kind && !found->second->alive) {
    Fault(std::string(function) + ": " + Name(handle) + " is destroyed twice");
    return nullptr;
  }
  Object* const object = FindObject(function, handle, kind);
  if (object == nullptr) return nullptr;
  object->alive = false;
  --state().live[kind];
  return object;
}

std::string Name(const void* handle) {
  const Guard guard;
  if (handle == nullptr) return "null";
  if (IsPoison(handle)) return "garbage";
  if (const auto port = state().ports.find(handle); port != state().ports.end()) {
    const bool main = port->second->type == RPC_PORT_PORT_MAIN;
    return std::string(main ? "main" : "callback") + " port of " + Name(port->second->proxy);
  }
  const auto found = state().objects.find(handle);
  if (found == state().objects.end()) return "unknown";
  return std::string(KindName(found->second->kind)) + "#" + std::to_string(found->second->number);
}

std::string Quote(const char* text) {
  if (text == nullptr) return "null";
  if (IsPoison(text)) return "garbage";
  return '"' + std::string(text) + '"';
}

namespace {

struct InCallback {
  InCallback() {
    if (hooks.on_callback != nullptr) hooks.on_callback(true);
  }
  ~InCallback() {
    if (hooks.on_callback != nullptr) hooks.on_callback(false);
  }
  InCallback(const InCallback&) = delete;
  InCallback& operator=(const InCallback&) = delete;
};

}  // namespace

// The forced unwind of a thread has no object, which UndefinedBehaviorSanitizer would report.
__attribute__((no_sanitize("null"))) void Shielded(const char* what,
                                                   const std::function<void()>& callback) {
  try {
    const Outside outside;
    const InCallback in_callback;
    callback();
#if defined(__GLIBCXX__)  // LLVM's C++ library has no name for it.
  } catch (abi::__forced_unwind&) {
    throw;
#endif
  } catch (...) {
    Fault(std::string("an exception escaped from the ") + what);
  }
}

}  // namespace internal

using internal::Guard;
using internal::state;

/* Scripts. */

Step Step::Entering(std::function<void()> hook) && {
  entering = std::move(hook);
  return std::move(*this);
}

Step Step::Leaving(std::function<void()> hook) && {
  leaving = std::move(hook);
  return std::move(*this);
}

namespace {

Step MakeStep(Step::Shape shape, int result) {
  Step step;
  step.shape = shape;
  step.result = result;
  return step;
}

}  // namespace

Step Succeed() { return {}; }
Step Fail(int code) { return MakeStep(Step::Shape::kUntouched, code); }
Step FailWithGarbage(int code) { return MakeStep(Step::Shape::kGarbage, code); }
Step FailWithNull(int code) { return MakeStep(Step::Shape::kNull, code); }
Step FailAfterWork(int code) { return MakeStep(Step::Shape::kWork, code); }
Step SucceedWithNull() { return MakeStep(Step::Shape::kNull, 0); }

Step SucceedWithText(std::string text) {
  Step step = MakeStep(Step::Shape::kText, 0);
  step.text = std::move(text);
  return step;
}

Step Hook(std::function<void()> hook) { return Step().Leaving(std::move(hook)); }

std::ostream& operator<<(std::ostream& out, const Step& step) {
  constexpr const char* kShapes[] = {"work", "untouched", "garbage", "null", "text"};
  return out << kShapes[static_cast<std::size_t>(step.shape)] << ' ' << step.result;
}

void Next(const std::string& function, Step step) {
  const Guard guard;
  internal::ScriptOf(function).next.push_back(std::move(step));
}

void AtCall(const std::string& function, int n, Step step) {
  const Guard guard;
  auto& script = internal::ScriptOf(function);
  script.at[script.calls + n] = std::move(step);
}

void Always(const std::string& function, Step step) {
  const Guard guard;
  internal::ScriptOf(function).always = {std::move(step)};
}

void ForgetScripts(const std::string& function) {
  const Guard guard;
  internal::ScriptOf(function) = {};
}

/* The record. */

std::ostream& operator<<(std::ostream& out, const Call& call) { return out << call.Text(); }

std::ostream& operator<<(std::ostream& out, const LogRecord& record) {
  return out << '{' << record.priority << ' ' << record.tag << ": " << record.file << ' '
             << record.function << '(' << record.line << ") > " << record.message << '}';
}

std::vector<Call> Calls() { return Calls(""); }

std::vector<Call> Calls(const std::string& prefix) {
  const Guard guard;
  std::vector<Call> calls;
  std::copy_if(state().calls.begin(), state().calls.end(), std::back_inserter(calls),
               [&](const Call& call) { return internal::BeginsWith(call.name, prefix); });
  return calls;
}

std::vector<std::string> CallNames(const std::string& prefix) {
  std::vector<std::string> names;
  for (const Call& call : Calls(prefix)) names.push_back(call.name);
  return names;
}

std::size_t CountCalls(const std::string& function) {
  const Guard guard;
  internal::ScriptOf(function);
  const auto& calls = state().calls;
  return static_cast<std::size_t>(std::count_if(
      calls.begin(), calls.end(), [&](const Call& call) { return call.name == function; }));
}

std::vector<LogRecord> Logs() {
  const Guard guard;
  return state().logs;
}

std::vector<std::string> LogMessages() {
  std::vector<std::string> messages;
  for (const LogRecord& record : Logs()) {
    messages.push_back(record.function + ": " + record.message);
  }
  return messages;
}

std::vector<std::string> Trace() {
  const Guard guard;
  return state().trace;
}

void ClearRecord() {
  const Guard guard;
  state().calls.clear();
  state().logs.clear();
  state().trace.clear();
  state().sent.clear();
}

void SetRecording(bool on) {
  const Guard guard;
  state().recording = on;
}

void OnLog(std::function<void(const LogRecord&)> hook) {
  const Guard guard;
  state().on_log = std::move(hook);
}

/* What lives. */

int LiveObjects(Kind kind) {
  const Guard guard;
  return state().live[kind];
}

void AllowHeld(Kind kind, int n) {
  const Guard guard;
  state().allowed[kind] = n;
}

void AllowPortsAfterTheirProxy() {
  const Guard guard;
  state().ports_after_their_proxy = true;
}

void AllowHeldConnection() {
  AllowHeld(Kind::kProxy, 1);
  AllowHeld(Kind::kEventHandler, 1);
}

void ExpectKept(std::size_t n) {
  const Guard guard;
  state().kept = n;
}

void ExpectKeptText(const std::string& text) {
  const Guard guard;
  state().kept_texts.push_back(text);
}

/* The verdict. */

std::vector<std::string> Faults() {
  const Guard guard;
  return state().faults;
}

void Fault(const std::string& what) {
  const Guard guard;
  state().faults.push_back(what);
  if (internal::hooks.on_fault != nullptr) internal::hooks.on_fault(what);
}

namespace {

void JudgeObjects(std::ostream& verdict) {
  for (const Kind kind : internal::kKinds) {
    const int live = state().live[kind];
    if (live <= state().allowed[kind]) continue;
    verdict << "\n  " << live << " live " << internal::KindName(kind) << "(s), "
            << state().allowed[kind] << " allowed";
  }
}

void JudgeBlocks(std::ostream& verdict) {
  std::vector<Block> blocks = LiveBlocks();
  for (const std::string& text : state().kept_texts) {
    const auto block = std::find_if(blocks.begin(), blocks.end(),
                                    [&](const Block& b) { return b.Text() == text; });
    if (block == blocks.end()) {
      verdict << "\n  no live block holds the text \"" << text << "\"";
    } else {
      blocks.erase(block);
    }
  }
  if (blocks.size() == state().kept) return;
  verdict << "\n  " << blocks.size() << " live block(s), " << state().kept << " expected";
  for (const Block& block : blocks) {
    verdict << "\n    " << block.size << " bytes of " << block.origin << ": \"" << block.Text()
            << '"';
  }
}

void JudgeDescriptors(std::ostream& verdict) {
  const int more = OpenDescriptors() - state().descriptors;
  if (more > 0) verdict << "\n  lost: " << more << " descriptor(s)";
}

std::string GiveVerdict() {
  std::ostringstream verdict;
  {
    const Guard guard;
    for (const std::string& fault : state().faults) verdict << "\n  " << fault;
    JudgeObjects(verdict);
    JudgeBlocks(verdict);
    internal::JudgeKept(verdict);
    JudgeDescriptors(verdict);
    internal::ReleaseLiveBlocks();
  }
  return verdict.str();
}

}  // namespace

void Verify() {
  if (internal::hooks.on_verify != nullptr) {
    internal::hooks.on_verify(__builtin_frame_address(0));
    return Reset();
  }
  const std::string verdict = GiveVerdict();
  Reset();
  if (!verdict.empty()) ADD_FAILURE() << "the platform was misused:" << verdict;
}

void Reset() {
  const Guard guard;
  internal::State& s = state();
  s.recording = true;
  ClearRecord();
  s.faults.clear();
  s.scripts.clear();
  s.on_log = nullptr;
  s.on_send = nullptr;
  s.objects.clear();
  s.ports.clear();
  s.made.clear();
  s.live.clear();
  s.allowed.clear();
  s.ports_after_their_proxy = false;
  s.proxies.clear();
  s.handlers.clear();
  s.main_messages.clear();
  s.application = {};
  s.packages = {{kAgentId, "2.3.0", {}}};
  s.kept = 0;
  s.kept_texts.clear();
  internal::ResetLedger();
  internal::ResetKept();
  s.descriptors = OpenDescriptors();
}

}  // namespace fake
