// SPDX-License-Identifier: Apache-2.0
#include "injection.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ftw.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "balance.h"
#include "fake_platform.h"
#include "internal.h"

namespace faults {
namespace {

/* What may fail, and how. */

enum class Output { kNone, kNumber, kPointer };

struct Row {
  const char* name;
  Family family;
  Output output = Output::kNone;
  bool releases = false;  // the object goes even if the call says that it failed
  std::vector<int> codes = {fake::kIoError};
};

constexpr Family kPlatform = Family::kPlatform;

const std::vector<Row>& Rows() {
  static const auto* const rows = new std::vector<Row>{
      {"app_get_id", kPlatform, Output::kPointer},
      {"app_get_resource_path", kPlatform},  // fails by null
      {"app_get_version", kPlatform, Output::kPointer},
      {"app_info_create", kPlatform, Output::kPointer},
      {"app_info_foreach_metadata", kPlatform},
      {"bundle_get_byte", kPlatform, Output::kPointer},
      {"bundle_get_str", kPlatform, Output::kPointer},
      {"bundle_get_str_array", kPlatform},  // fails by null
      {"dlog_print", kPlatform},
      {"event_add_event_handler", kPlatform, Output::kPointer},
      {"event_remove_event_handler", kPlatform, Output::kNone, true},
      {"package_info_create",
       kPlatform,
       Output::kPointer,
       false,
       {fake::kIoError, fake::kNoSuchPackage}},
      {"package_info_destroy", kPlatform, Output::kNone, true},
      {"package_info_get_package", kPlatform, Output::kPointer},
      {"package_info_get_version", kPlatform, Output::kPointer},
      {"package_manager_foreach_package_info", kPlatform},
      {"rpc_port_parcel_create", kPlatform, Output::kPointer},
      {"rpc_port_parcel_create_from_port", kPlatform, Output::kPointer},
      {"rpc_port_parcel_destroy", kPlatform, Output::kNone, true},
      {"rpc_port_parcel_read_array_count", kPlatform, Output::kNumber},
      {"rpc_port_parcel_read_bool", kPlatform, Output::kNumber},
      {"rpc_port_parcel_read_int32", kPlatform, Output::kNumber},
      {"rpc_port_parcel_read_string", kPlatform, Output::kPointer},
      {"rpc_port_parcel_send", kPlatform},
      {"rpc_port_parcel_write_array_count", kPlatform},
      {"rpc_port_parcel_write_bool", kPlatform},
      {"rpc_port_parcel_write_int32", kPlatform},
      {"rpc_port_parcel_write_string", kPlatform},
      {"rpc_port_proxy_add_connected_event_cb", kPlatform},
      {"rpc_port_proxy_add_disconnected_event_cb", kPlatform},
      {"rpc_port_proxy_add_received_event_cb", kPlatform},
      {"rpc_port_proxy_add_rejected_event_cb", kPlatform},
      {"rpc_port_proxy_connect",
       kPlatform,
       Output::kNone,
       false,
       {fake::kIoError, fake::kPermissionDenied, fake::kInvalidParameter, -12}},
      {"rpc_port_proxy_create", kPlatform, Output::kPointer},
      {"rpc_port_proxy_destroy", kPlatform, Output::kNone, true},
      {"rpc_port_proxy_get_port", kPlatform, Output::kPointer},
      {"malloc", Family::kMemory},
      {"calloc", Family::kMemory},
      {"realloc", Family::kMemory},
      {"strdup", Family::kMemory},
      {"strndup", Family::kMemory},
      {"operator new", Family::kMemory},
      {"open64", Family::kFiles, Output::kNone, false, {EMFILE, EACCES}},
      {"fstat64", Family::kFiles, Output::kNumber, false, {EIO}},
      {"pread64", Family::kFiles, Output::kNumber, false, {EIO}},
      {"nftw64", Family::kFiles, Output::kNone, false, {EMFILE}},
  };
  return *rows;
}

const Row* FindRow(const char* name, Function* function) {
  const auto& rows = Rows();
  for (std::size_t i = 0; i < rows.size(); ++i) {
    if (std::strcmp(rows[i].name, name) != 0) continue;
    *function = static_cast<Function>(i);
    return &rows[i];
  }
  return nullptr;
}

/* The run. */

Plan plan;
RunRecord* run = nullptr;
SiteRecord* site_record = nullptr;
std::atomic<bool> armed{false};
pid_t armed_process = 0;
thread_local int uncounted = 0;
thread_local bool injected_here = false;

struct Uncounted {
  Uncounted() { ++uncounted; }
  ~Uncounted() { --uncounted; }
};

/** Counts a call, if it is the library's; whether it is to fail. */
bool IsItsTurn(Family family, Function function) {
  if (!armed || uncounted > 0) return false;
  // Who calls is asked only if it matters, which is what a run takes longest for.
  if (plan.shape != Shape::kNone && family != plan.family) return false;
  const Uncounted own;
  const Caller caller = FindCaller();
  if (caller.owner != Owner::kLibrary) return false;
  const fake::internal::Guard guard;
  const auto index = static_cast<std::size_t>(family);
  const long n = ++run->counted[index];
  const Stack stack = {function, caller};
  if (plan.shape == Shape::kNone) {
    if (n <= RunRecord::kMostCalls) run->calls[index][n - 1] = run->stacks.NumberOf(stack);
    return false;
  }
  if (n < plan.first || n > plan.last) return false;
  const StackTable::Number site = site_record->stacks.NumberOf(stack);
  if (run->injected++ == 0) run->site = site;
  injected_here = true;
  return true;
}

/* Into the library, from inside the platform. */

void IgnoreConnection(int, int, void*) {}
void IgnoreStatus(int, void*) {}
void DropModels(int, velmora_svcmgr_ai_model_list_h list, void*) {
  if (list != nullptr) velmora_svcmgr_ai_model_list_destroy(list);
}

constexpr long kReentries = 5;
constexpr long kDisconnects = 0;

void CallTheLibrary() {
  int level = 0;
  switch (plan.first % kReentries) {
    case kDisconnects:
      velmora_svcmgr_disconnect();
      break;
    case 1:
      velmora_svcmgr_connect(IgnoreConnection, nullptr);
      break;
    case 2:
      velmora_svcmgr_get_agent_api_level(&level);
      break;
    case 3:
      velmora_svcmgr_ai_request_usable_model_list(DropModels, nullptr);
      break;
    default:
      velmora_svcmgr_set_update_status_cb(IgnoreStatus, nullptr);
      velmora_svcmgr_unset_update_status_cb();
  }
}

/**
 * A test that ends its thread inside the platform does it here, too, if it is this call's turn. Then
 * the platform's function around it never returns what it has made, or is left from a destructor:
 * that is two mishaps at once, and none of the library's.
 */
void Reenter() try {
  const Uncounted own;
  CallTheLibrary();
} catch (abi::__forced_unwind&) {
  GiveUp();
}

fake::Step ChangedStep(fake::Step step, const Row& row) {
  switch (plan.shape) {
    case Shape::kError:
      return row.releases ? fake::FailAfterWork(plan.code) : fake::Fail(plan.code);
    case Shape::kGarbage:
      return fake::FailWithGarbage(plan.code);
    case Shape::kNull:
      return fake::SucceedWithNull();
    case Shape::kReentry: {
      // Behind its work: before that, the platform would be left with a handle that is gone.
      auto scripted = step.leaving;
      return std::move(step).Leaving([scripted] {
        if (scripted) scripted();
        Reenter();
      });
    }
    default:
      return step;
  }
}

void OnCall(const char* name, fake::Step* step) {
  Function function = 0;
  const Row* const row = armed ? FindRow(name, &function) : nullptr;
  if (row == nullptr || !IsItsTurn(Family::kPlatform, function)) return;
  // What a function may do decides, also for those after the first.
  const bool allowed =
      plan.shape == Shape::kReentry || plan.shape == Shape::kError ||
      (plan.shape == Shape::kNull ? row->output == Output::kPointer : row->output != Output::kNone);
  if (allowed) *step = ChangedStep(std::move(*step), *row);
}

const char* NameOf(fake::Allocator which) {
  switch (which) {
    case fake::Allocator::kMalloc:
      return "malloc";
    case fake::Allocator::kCalloc:
      return "calloc";
    case fake::Allocator::kRealloc:
      return "realloc";
    case fake::Allocator::kStrdup:
      return "strdup";
    case fake::Allocator::kStrndup:
      return "strndup";
    default:
      return "operator new";
  }
}

bool OnAllocation(fake::Allocator which) {
  if (!armed || uncounted > 0) return false;
  Function function = 0;
  FindRow(NameOf(which), &function);
  return IsItsTurn(Family::kMemory, function);
}

bool FileCallFails(const char* name) {
  Function function = 0;
  return armed && FindRow(name, &function) != nullptr && IsItsTurn(Family::kFiles, function);
}

template <typename Next>
Next NextDefinition(const char* name) {
  return reinterpret_cast<Next>(dlsym(RTLD_NEXT, name));
}

bool IsLibrarys() { return FindCaller().owner == Owner::kLibrary; }

int FailWith(int code) {
  errno = code;
  return -1;
}

}  // namespace

const char* NameOf(Shape shape) {
  switch (shape) {
    case Shape::kNone:
      return "nothing";
    case Shape::kError:
      return "error";
    case Shape::kGarbage:
      return "error with garbage";
    case Shape::kNull:
      return "success with null";
    case Shape::kReentry:
      return "re-entry";
    case Shape::kInterrupted:
      return "interrupted";
    case Shape::kShort:
      return "less than asked for";
  }
  return "?";
}

const std::vector<std::string>& FunctionNames() {
  static const auto* const names = [] {
    auto* const made = new std::vector<std::string>;
    for (const Row& row : Rows()) made->emplace_back(row.name);
    return made;
  }();
  return *names;
}

std::vector<Way> WaysOf(Function function) {
  const Row& row = Rows()[function];
  std::vector<Way> ways;
  for (const int code : row.codes) ways.push_back({Shape::kError, code, true});
  if (row.family == Family::kMemory) return ways;
  if (row.output != Output::kNone) ways.push_back({Shape::kGarbage, row.codes.front(), true});
  if (row.output == Output::kPointer) ways.push_back({Shape::kNull, 0, true});
  if (row.family == Family::kPlatform) ways.push_back({Shape::kReentry, 0, false});
  if (row.name == std::string("pread64")) {
    ways.push_back({Shape::kInterrupted, EINTR, false});
    ways.push_back({Shape::kShort, 0, true});
  }
  return ways;
}

void Arm(const Plan& its_plan, RunRecord* its_run, SiteRecord* its_sites) {
  static const bool children_are_told [[maybe_unused]] =
      pthread_atfork(nullptr, nullptr, [] { armed_process = 0, armed = false; }) == 0;
  FunctionNames();  // before the allocations count
  plan = its_plan;
  run = its_run;
  site_record = its_sites;
  armed_process = getpid();
  fake::internal::hooks.on_call = OnCall;
  fake::internal::hooks.on_allocation = OnAllocation;
  armed = true;
}

void Disarm() { armed = false; }

void GiveUp() {
  run->ending = Ending::kGaveUp;
  _exit(EXIT_SUCCESS);
}

bool IsArmedProcess() { return armed_process == getpid(); }

Shape InjectedShape() { return run->injected > 0 ? plan.shape : Shape::kNone; }

std::string InjectedFunction() {
  if (run->injected == 0) return "";
  return FunctionNames()[site_record->stacks[run->site].function];
}

bool InjectedDisconnection() {
  return InjectedShape() == Shape::kReentry && plan.first % kReentries == kDisconnects;
}

bool InjectedHere() { return injected_here; }

namespace {

__attribute__((format(printf, 2, 0))) void Note(const Caller& where, const char* format,
                                                va_list arguments) {
  if (!IsArmedProcess() || run->finding[0] != '\0') return;
  run->where = where;
  std::vsnprintf(run->finding, sizeof run->finding, format, arguments);
}

}  // namespace

void Find(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Note(FindCaller(), format, arguments);
  va_end(arguments);
}

void FindAt(const Caller& where, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Note(where, format, arguments);
  va_end(arguments);
}

}  // namespace faults

/* The functions of the system that the search for markers calls: the program's come first. */

extern "C" {

int open64(const char* path, int flags, ...) {
  static const auto next = faults::NextDefinition<int (*)(const char*, int, ...)>("open64");
  if (faults::FileCallFails("open64")) return faults::FailWith(faults::plan.code);
  va_list arguments;
  va_start(arguments, flags);
  const auto mode =
      va_arg(arguments, mode_t);  // no more than a register's content, if there is none
  va_end(arguments);
  const int descriptor = next(path, flags, mode);
  if (descriptor >= 0 && faults::armed && faults::IsLibrarys()) faults::NoteOpened(descriptor);
  return descriptor;
}

int close(int descriptor) {
  static const auto next = faults::NextDefinition<int (*)(int)>("close");
  if (faults::armed) faults::NoteClosed(descriptor);
  return next(descriptor);
}

int fstat64(int descriptor, struct stat64* status) noexcept {
  static const auto next = faults::NextDefinition<int (*)(int, struct stat64*)>("fstat64");
  if (!faults::FileCallFails("fstat64")) return next(descriptor, status);
  if (faults::plan.shape == faults::Shape::kGarbage) std::memset(status, 0x5a, sizeof *status);
  return faults::FailWith(faults::plan.code);
}

ssize_t pread64(int descriptor, void* bytes, std::size_t size, off64_t offset) {
  static const auto next =
      faults::NextDefinition<ssize_t (*)(int, void*, std::size_t, off64_t)>("pread64");
  if (!faults::FileCallFails("pread64")) return next(descriptor, bytes, size, offset);
  if (faults::plan.shape == faults::Shape::kShort) {
    return next(descriptor, bytes, (size + 1) / 2, offset);
  }
  if (faults::plan.shape == faults::Shape::kGarbage) std::memset(bytes, 0x5a, size);
  return faults::FailWith(faults::plan.code);
}

int nftw64(const char* path, __nftw64_func_t visit, int descriptors, int flags) {
  static const auto next =
      faults::NextDefinition<int (*)(const char*, __nftw64_func_t, int, int)>("nftw64");
  if (!faults::FileCallFails("nftw64")) return next(path, visit, descriptors, flags);
  return faults::FailWith(faults::plan.code);
}

}  // extern "C"
