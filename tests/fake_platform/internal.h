/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_FAKE_PLATFORM_INTERNAL_H_
#define SVCMGR_FAKE_PLATFORM_INTERNAL_H_

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "fake_platform.h"

namespace fake::internal {

/**
 * Entered wherever the fake works on its own state: holds the state's lock, hides from
 * ThreadSanitizer, and keeps the fake's own allocations out of the ledger. Never held while a hook
 * or a callback runs.
 */
class Guard {
 public:
  Guard();
  ~Guard();
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;
};

/**
 * At the top of each function of the platform and of the control interface that does more than
 * enter a Guard: what this thread allocates from here on is the fake's own.
 */
class Inside {
 public:
  Inside();
  ~Inside();
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

/** Surrounds hooks and callbacks: what they allocate is not the fake's own. */
class Outside {
 public:
  Outside();
  ~Outside();
  Outside(const Outside&) = delete;
  Outside& operator=(const Outside&) = delete;

 private:
  int depth_;
};

/** Whether this thread is working for the fake itself. */
bool InsideFake();

/** Runs a hook, if there is one. */
inline void RunHook(const std::function<void()>& hook) {
  if (!hook) return;
  const Outside outside;
  hook();
}

/** What a handle stands for. Destroyed objects stay as tombstones, so that later uses are seen. */
struct Object {
  Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  virtual ~Object() = default;

  Kind kind = Kind::kParcel;
  int number = 0;
  bool alive = true;
};

struct Parcel : Object {
  Items items;
  bool untyped = false;
  std::string bytes;  // content of an untyped parcel
  std::size_t position = 0;
};

struct Message {
  Items items;
  bool untyped = false;
  std::string bytes;
};

struct ProxyObject;

struct Port {
  ProxyObject* proxy = nullptr;
  rpc_port_port_type_e type = RPC_PORT_PORT_MAIN;
};

template <typename Callback>
struct Registered {
  Callback callback;
  void* data;
};

struct ProxyObject : Object {
  std::string target;
  std::string port_name;
  bool connected = false;
  Port main;
  Port callback;
  std::deque<Message> messages;  // on the callback port
  std::vector<Registered<rpc_port_proxy_connected_event_cb>> connected_callbacks;
  std::vector<Registered<rpc_port_proxy_disconnected_event_cb>> disconnected_callbacks;
  std::vector<Registered<rpc_port_proxy_rejected_event_cb>> rejected_callbacks;
  std::vector<Registered<rpc_port_proxy_received_event_cb>> received_callbacks;
};

struct Script {
  std::map<int, Step> at;
  std::deque<Step> next;
  std::vector<Step> always;  // empty or one
  int calls = 0;
};

struct State {
  std::recursive_mutex mutex;
  bool recording = true;
  std::vector<Call> calls;
  std::vector<LogRecord> logs;
  std::vector<std::string> trace;
  std::vector<std::string> faults;
  std::vector<Sent> sent;
  std::map<std::string, Script> scripts;
  std::function<void(const LogRecord&)> on_log;
  std::function<void(const Sent&)> on_send;

  std::unordered_map<const void*, std::unique_ptr<Object>> objects;
  std::unordered_map<const void*, Port*> ports;
  std::map<Kind, int> made;
  std::map<Kind, int> live;
  std::map<Kind, int> allowed;
  bool ports_after_their_proxy = false;
  std::vector<ProxyObject*> proxies;
  std::vector<event_handler*> handlers;
  std::deque<Message> main_messages;

  Application application;
  std::vector<Package> packages;

  int descriptors = 0;  // that were open at the start

  std::size_t kept = 0;
  std::vector<std::string> kept_texts;
};

/** Never destroyed: the library may call the platform from destructors that run at exit. */
State& state();

const char* KindName(Kind kind);

/** Records a call and says what it has to do. */
Step Begin(const char* function, const std::string& arguments);
/** Like Begin, for functions that the record leaves out. */
Step BeginUnrecorded(const char* function);

/** Puts an object under the care of the state and numbers it. */
template <typename T>
T* Adopt(Kind kind) {
  const Guard guard;
  auto object = std::make_unique<T>();
  T* const raw = object.get();
  raw->kind = kind;
  raw->number = ++state().made[kind];
  ++state().live[kind];
  state().objects[static_cast<void*>(raw)] = std::move(object);
  return raw;
}

/** The live object of a handle; null, and a fault, if there is none of that kind. */
Object* FindObject(const char* function, const void* handle, Kind kind);

template <typename T>
T* Find(const char* function, const void* handle, Kind kind) {
  return static_cast<T*>(FindObject(function, handle, kind));
}

/** Ends an object; a fault if it is unknown or gone already. */
Object* Destroy(const char* function, const void* handle, Kind kind);

/** Records the call of a function that takes a handle back, and says what it has to do. */
Step BeginRelease(const char* function, const void* handle);

/** "parcel#3" for the record. */
std::string Name(const void* handle);
/** A text in quotes, or null. */
std::string Quote(const char* text);

/** A pointer that no one may follow or release. */
void* PoisonPointer();
/** A malloc'd copy in the ledger, which the caller of the platform releases. */
char* HandOut(const char* function, const std::string& text);

template <typename T>
void Spoil(T** out) {
  *out = static_cast<T*>(PoisonPointer());
}
inline void Spoil(void** out) { *out = PoisonPointer(); }
inline void Spoil(int* out) { *out = kGarbageInt; }
inline void Spoil(bool* out) { *out = true; }

/** How a program that judges the library otherwise takes part; null by default. */
struct Hooks {
  /** May change what a call of the platform is about to do. */
  void (*on_call)(const char* function, Step* step) = nullptr;
  /** Whether an allocation fails. */
  bool (*on_allocation)(Allocator which) = nullptr;
  /** A block has entered the ledger. */
  void (*on_block)(void* block) = nullptr;
  /** A handle is given back, whether or not the platform takes it. */
  void (*on_release)(const void* handle) = nullptr;
  /** The library keeps something on purpose. */
  void (*on_kept)(const void* block) = nullptr;
  void (*on_fault)(const std::string& what) = nullptr;
  /** A callback of the library begins, or has ended. */
  void (*on_callback)(bool begins) = nullptr;
  /** Takes the place of the verdict. From `frames` on, the stack is the test's and its callers'. */
  void (*on_verify)(const void* frames) = nullptr;
};
extern Hooks hooks;

/** Stands for the output of functions that have none. */
struct NoOutput {};
inline void Spoil(NoOutput*) {}

inline void PutText(const char* function, const std::string& text, char** out) {
  *out = HandOut(function, text);
}
/** What is handed out together with a failure is nobody's. */
template <typename T>
void LetGo(T* out) {
  if constexpr (std::is_pointer_v<T>) {
    if (hooks.on_release != nullptr && out != nullptr) hooks.on_release(*out);
  }
}

template <typename T>
void PutText(const char* function, const std::string&, T*) {
  Fault(std::string(function) + " has no text output to script");
}

/** Carries out one step; `work` does what the function is for and returns its result. */
template <typename Out, typename Work>
int Perform(const char* function, const Step& step, Out* out, Work work) {
  RunHook(step.entering);
  int result = step.result;
  switch (step.shape) {
    case Step::Shape::kWork: {
      const int worked = work();
      if (result != 0 && worked == 0) LetGo(out);
      if (result == 0) result = worked;
      break;
    }
    case Step::Shape::kUntouched:
      break;
    case Step::Shape::kGarbage:
      if (out != nullptr) Spoil(out);
      break;
    case Step::Shape::kNull:
      if (out != nullptr) *out = Out{};
      break;
    case Step::Shape::kText:
      if (out != nullptr) PutText(function, step.text, out);
      break;
  }
  RunHook(step.leaving);
  return result;
}

template <typename Work>
int Perform(const char* function, const Step& step, Work work) {
  return Perform(function, step, static_cast<NoOutput*>(nullptr), work);
}

/** Runs a callback of the library; what escapes from it is a fault. */
void Shielded(const char* what, const std::function<void()>& callback);

/* The ledger of blocks (ledger.cc). */
void ResetLedger();
/** Lets the ledger hold the blocks of operator new, too, from here on. */
void TrackNew();
void ReleaseLiveBlocks();
/** What has made a live block; empty if there is none. */
std::string OriginOf(const void* block);

/* The ledger of what is kept (kept.cc). */
void ResetKept();
void JudgeKept(std::ostream& verdict);
/** A block is released, so that its address may come again. */
void ForgetKept(const void* block);

bool IsPoison(const void* pointer);

}  // namespace fake::internal

struct _bundle_t : fake::internal::Object {
  struct Value {
    enum class Type { kStr, kByte, kStrArray } type = Type::kStr;
    std::string text;
    std::unique_ptr<unsigned char[]> bytes;  // one byte before the value, so that it is misaligned
    std::size_t size = 0;
    std::vector<std::string> texts;
    std::vector<const char*> pointers;
  };
  std::map<std::string, Value> values;
};

struct event_handler : fake::internal::Object {
  std::string name;
  event_cb callback = nullptr;
  void* data = nullptr;
};

struct package_info_s : fake::internal::Object {
  fake::Package package;
  bool borrowed = false;
};

struct app_info_s : fake::internal::Object {
  fake::Package package;
};

#endif  // SVCMGR_FAKE_PLATFORM_INTERNAL_H_
