/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_FAKE_PLATFORM_H_
#define SVCMGR_FAKE_PLATFORM_H_

/*
 * The whole of the platform's C interface, scripted and recorded, for tests of the library's
 * objects.
 *
 * 1. Without a script, every call succeeds in a small default world: the agent is installed in
 *    version 2.3.0, the application is "org.example.app" in version "1.2.3" with resources in
 *    "/opt/org.example.app/res/", nothing waits on any port.
 * 2. Scripts change the outcome of single calls (Next, AtCall) or of all calls (Always) of one
 *    function.
 * 3. Everything that the library does is recorded: calls, log records, sent parcels, live objects.
 * 4. What no caller may do is a fault: a read of the wrong type, a handle that is unknown or gone,
 *    a double release, a malformed log record, an exception that escapes from a callback. Verify()
 *    fails the test for every fault, and for every live object and every live block that the test
 *    did not announce.
 * 5. Hooks and callbacks run with no lock of the fake held; all functions may be called from any
 *    thread. The fake is invisible to ThreadSanitizer: it adds no ordering between the library's
 *    threads.
 */

#include <app_common.h>
#include <app_event.h>
#include <app_info.h>
#include <bundle.h>
#include <dlog.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <package_info.h>
#include <package_manager.h>
#include <rpc-port.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iosfwd>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace fake {

/* The default world. */

inline constexpr int kNoSuchPackage = static_cast<int>(0xFEEB0071U);
inline constexpr int kInvalidParameter = -22;
inline constexpr int kIoError = -5;
inline constexpr int kPermissionDenied = -13;

/** The ID under which the agent is installed: the library's own build-time value. */
extern const char* const kAgentId;

/** What a garbage output holds; never a usable pointer, count or size. */
inline constexpr int kGarbageInt = 0x5a5a5a5a;

/** The static text that get_error_message returns for a code. */
std::string ErrorText(int code);

/*
 * Scripts.
 */

/** What one call of a platform function does. */
struct Step {
  enum class Shape {
    kWork,       // do the function's work; a non-zero `result` is returned all the same
    kUntouched,  // leave the output alone, return `result`
    kGarbage,    // write garbage into the output, return `result`
    kNull,       // write null (zero, false) into the output, return `result`
    kText,       // hand out `text`, return `result`
  };

  Shape shape = Shape::kWork;
  int result = 0;
  std::string text;
  std::function<void()> entering;  // runs first inside the call; may re-enter the library, or throw
  std::function<void()> leaving;   // runs last inside the call; may re-enter the library, or throw

  /** Adds a hook that runs inside the call, before anything else. */
  Step Entering(std::function<void()> hook) &&;
  /** Adds a hook that runs inside the call, after its work and just before it returns. */
  Step Leaving(std::function<void()> hook) &&;
};
/** The shape and the result, so that nobody prints the bytes, of which some are never set. */
std::ostream& operator<<(std::ostream& out, const Step& step);

/** The function's normal work. */
Step Succeed();
/** Nothing is done, the output stays untouched. */
Step Fail(int code);
/** Nothing is done, the output receives garbage. */
Step FailWithGarbage(int code);
/** Nothing is done, the output receives null, false or zero. */
Step FailWithNull(int code);
/** All the work is done, real outputs included, and the call fails all the same. */
Step FailAfterWork(int code);
/** Nothing is done, the output receives null, false or zero, and the call succeeds. */
Step SucceedWithNull();
/** A text output receives a malloc'd copy of `text`. */
Step SucceedWithText(std::string text);
/** The normal work, then `hook` inside the call. */
Step Hook(std::function<void()> hook);

/** Throws `exception` out of the call. */
template <typename T>
Step Throw(const T& exception) {
  Step step;
  step.entering = [exception] { throw exception; };
  return step;
}

/** Scripts the next unscripted call of the platform function `function`; several calls queue up. */
void Next(const std::string& function, Step step);
/** Scripts the n-th call from now on, counted from 1. Takes precedence over Next and Always. */
void AtCall(const std::string& function, int n, Step step);
/** Scripts all calls that neither AtCall nor Next scripts. */
void Always(const std::string& function, Step step);
/** Forgets all scripts of one function. */
void ForgetScripts(const std::string& function);

/*
 * The record.
 */

struct Call {
  std::string name;
  std::string arguments;  // rendered, separated by ", ": texts quoted, objects as "parcel#1"

  std::string Text() const { return name + "(" + arguments + ")"; }
};
std::ostream& operator<<(std::ostream& out, const Call& call);

struct LogRecord {
  int priority = 0;
  std::string tag;
  std::string format;
  std::string text;  // rendered, colour included
  std::string file;
  std::string function;
  int line = 0;
  std::string message;  // rendered: what follows "> ", without the end of the colour
};
std::ostream& operator<<(std::ostream& out, const LogRecord& record);

/** All calls in order, without dlog_print, get_error_message and the bundle's own functions. */
std::vector<Call> Calls();
/** The calls whose names begin with `prefix`. */
std::vector<Call> Calls(const std::string& prefix);
/** The names of Calls(prefix). */
std::vector<std::string> CallNames(const std::string& prefix = "");
/** How often a function was called. */
std::size_t CountCalls(const std::string& function);
/** All log records in order. */
std::vector<LogRecord> Logs();
/** The messages of all log records: "function: message". */
std::vector<std::string> LogMessages();
/** Calls ("name(arguments)") and log records ("I function: message", "E ...") in one order. */
std::vector<std::string> Trace();
/** Forgets calls, log records, trace and sent parcels; what lives and what is scripted stays. */
void ClearRecord();
/** Stops or restarts the recording of calls, log records and sent parcels, for very long tests. */
void SetRecording(bool on);
/** Called for each log record, inside dlog_print. */
void OnLog(std::function<void(const LogRecord&)> hook);

/** A log record by priority, tag, file, function and message. */
MATCHER_P3(IsInfo, file, function, message, "") {
  return arg.priority == DLOG_INFO && arg.tag == "SERVICE_MANAGER_CLIENT" && arg.file == file &&
         arg.function == function && arg.message == message;
}
MATCHER_P3(IsError, file, function, message, "") {
  return arg.priority == DLOG_ERROR && arg.tag == "SERVICE_MANAGER_CLIENT" && arg.file == file &&
         arg.function == function && arg.message == message;
}
/** A record of the proxy layer, which logs only errors. */
MATCHER_P2(IsProxyError, function, message, "") {
  return arg.priority == DLOG_ERROR && arg.tag == "RPC_PORT_PROXY" &&
         arg.file == "SvcMgrAppProxy.cc" && arg.function == function && arg.message == message;
}

/*
 * Parcels.
 */

/** One item of a parcel. Converts from int, bool and text. */
struct Item {
  enum class Type { kInt32, kBool, kString, kNullString, kCount, kUnreadable, kGarbage, kEnd };

  Item(int value) : type(Type::kInt32), number(value) {}         // NOLINT(google-explicit-*)
  Item(bool value) : type(Type::kBool), number(value) {}         // NOLINT(google-explicit-*)
  Item(const char* value) : type(Type::kString), text(value) {}  // NOLINT(google-explicit-*)
  Item(std::string value) : type(Type::kString), text(std::move(value)) {}  // NOLINT
  Item(Type item_type, int value) : type(item_type), number(value) {}

  Type type;
  int number = 0;
  std::string text;
};
bool operator==(const Item& a, const Item& b);
std::ostream& operator<<(std::ostream& out, const Item& item);

using Items = std::vector<Item>;

/** An array count. */
Item Count(int count);
/** A text that reads as success with a null pointer. */
Item NullText();
/** Reading here, and ever after, fails with an I/O error and leaves the output untouched. */
Item Unreadable();
/** Reading here, and ever after, fails with an I/O error and writes garbage into the output. */
Item UnreadableWithGarbage();
/** The first `n` items, then Unreadable(). */
Items CutAfter(const Items& items, std::size_t n);
/** All items of `a`, then all items of `b`. */
Items operator+(Items a, const Items& b);

/** The wire form of items, as on the desktop. */
std::vector<std::uint8_t> Bytes(const Items& items);
/** "05 00 00 00": two digits per byte. */
std::string Hex(const std::vector<std::uint8_t>& bytes);

/** A parcel that was sent with success. */
struct Sent {
  int proxy = 0;  // number of the proxy, from 1
  rpc_port_port_type_e port = RPC_PORT_PORT_MAIN;
  Items items;

  std::string Hex() const { return fake::Hex(Bytes(items)); }
};

/** What was sent on main ports, in order. */
std::vector<Sent> SentParcels();
/** What was sent on ports of one kind. */
std::vector<Sent> SentParcels(rpc_port_port_type_e port);
/** Called for each parcel that is sent, inside rpc_port_parcel_send: an agent that answers. */
void OnSend(std::function<void(const Sent&)> agent);

/** Queues a message on the main port. An item type other than the one read is a fault. */
void QueueMessage(Items items);
/** Queues a reply on the main port: int32 0, then the values. */
void QueueReply(const Items& values);
/** Queues a message with a command other than 0 on the main port. */
void QueueStray(int command, const Items& rest = {});
/** Queues a message on the main port as bytes ("00 00 00 00 ..."), which have no types. */
void QueueBytes(const std::string& hex);
/** How many messages wait on the main port. */
std::size_t WaitingMessages();
/** Takes all messages off the main port. */
void ForgetMessages();

/*
 * Proxies.
 */

/** One proxy of the library, alive or destroyed. Firing at a destroyed one is a fault. */
class ProxyControl {
 public:
  explicit ProxyControl(void* handle) : handle_(handle) {}

  bool Alive() const;
  /** The application ID and the port name of rpc_port_proxy_connect. */
  std::string Target() const;
  std::string PortName() const;

  /** Both ports are connected from now on; runs the connected callback. */
  void FireConnected() const;
  void FireDisconnected() const;
  void FireRejected() const;
  /** Runs the received callback, whether a message waits or not. */
  void FireReceived() const;

  /** Queues a message on the callback port without running the callback. */
  void QueueCallbackMessage(Items items) const;
  void QueueCallbackBytes(const std::string& hex) const;

 private:
  void* handle_;
};

/** The latest proxy; a fault if there is none. */
ProxyControl Proxy();
/** The n-th proxy of the test, from 1. */
ProxyControl Proxy(int n);
/** How many proxies were created. */
int ProxyCount();

/**
 * Queues (int32 1, id, seq, bool once, payload) on the callback port and runs the received
 * callback.
 */
void DeliverDelegateMessage(int id, int seq, const Items& payload, bool once = false);
/** Queues any message on the callback port and runs the received callback. */
void DeliverMessage(const Items& items);
void DeliverBytes(const std::string& hex);

/*
 * Application events.
 */

/** A bundle made by a test; the bytes are never aligned and end where their block ends. */
class BundleBuilder {
 public:
  BundleBuilder();
  ~BundleBuilder();
  BundleBuilder(const BundleBuilder&) = delete;
  BundleBuilder& operator=(const BundleBuilder&) = delete;

  BundleBuilder& Str(const std::string& key, const std::string& value);
  BundleBuilder& Bytes(const std::string& key, const void* bytes, std::size_t size);
  /** The four bytes of an int in native order. */
  BundleBuilder& Int(const std::string& key, int value);
  BundleBuilder& StrArray(const std::string& key, const std::vector<std::string>& values);

  bundle* get() const { return bundle_; }

 private:
  bundle* bundle_;
};

/** The names of the live subscriptions, in the order in which they were made. */
std::vector<std::string> Subscriptions();
/** Runs the handlers that are subscribed to the name; returns how many ran. */
int FireEvent(const std::string& name, bundle* data);
int FireEvent(const std::string& name, const BundleBuilder& data);
/** Runs the handler subscribed to `subscribed` with any name, null included, and any data. */
void FireEventAt(const std::string& subscribed, const char* name, bundle* data);

/*
 * Application and packages.
 */

struct Metadata {
  std::optional<std::string> key;
  std::optional<std::string> value;
};

/** An installed package, with one application of the same ID. */
struct Package {
  std::optional<std::string> id;
  std::optional<std::string> version;
  std::vector<Metadata> metadata;
  bool has_application = true;
};

struct Application {
  std::string id = "org.example.app";
  std::string version = "1.2.3";
  std::optional<std::string> resource_path = "/opt/org.example.app/res/";
};

void SetApplication(Application application);
/** Replaces the installed packages, the agent's too; enumerated in this order. */
void SetPackages(std::vector<Package> packages);
/** Installs the agent in a version, or replaces it. */
void InstallAgent(const std::string& version);
void RemoveAgent();

/*
 * What lives.
 */

enum class Kind { kParcel, kPackageInfo, kAppInfo, kProxy, kEventHandler, kBundle, kStub };

/** How many objects of a kind are alive. */
int LiveObjects(Kind kind);
/** Lets up to `n` objects of a kind live at the end of the test. */
void AllowHeld(Kind kind, int n);
/** Lets a proxy and the watch's subscription live at the end, for a test that ends connected. */
void AllowHeldConnection();
/** Lets a port be used after its proxy, for a test in which other threads are inside calls when the
 *  connection ends: such a call fails. */
void AllowPortsAfterTheirProxy();

/** A live block of malloc, calloc, realloc, strdup, strndup or, in a NewTracking, operator new. */
struct Block {
  void* pointer = nullptr;
  std::size_t size = 0;
  std::string origin;  // "calloc", ..., or the platform function that handed the text out

  /** The bytes of the block up to the first NUL. */
  std::string Text() const;
};

/** The live blocks, oldest first. */
std::vector<Block> LiveBlocks();
/** Announces how many blocks, no more and no fewer, are left at the end; Verify releases them. */
void ExpectKept(std::size_t n);
/**
 * Announces, by its content, one more block that is left on purpose; the verdict names a missing
 * one.
 */
void ExpectKeptText(const std::string& text);

/**
 * Whether operator new can be tracked and made to fail: not under clang's sanitizers, which bring
 * their own. Tests that need it skip themselves then.
 */
bool SeesOperatorNew();

/** During its life, tracks this thread's blocks of operator new as if malloc had made them. */
class NewTracking {
 public:
  NewTracking();
  ~NewTracking();
  NewTracking(const NewTracking&) = delete;
  NewTracking& operator=(const NewTracking&) = delete;
};

enum class Allocator { kMalloc, kCalloc, kRealloc, kStrdup, kStrndup, kNew, kAny };

/**
 * During its life the n-th allocation, from 1, that this thread makes by `which` fails: null, or
 * std::bad_alloc from operator new. Allocations of the fake itself are not counted and never fail.
 */
class FailingAllocation {
 public:
  enum class Then { kSucceed, kFailAll };

  explicit FailingAllocation(Allocator which, int n = 1, Then then = Then::kSucceed);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  /** Whether the n-th allocation was reached. */
  bool Happened() const;
};

/*
 * The verdict.
 */

/** The faults so far. */
std::vector<std::string> Faults();
/** Records a fault of the test's own making. */
void Fault(const std::string& what);
/** Fails the test once, naming every fault, unannounced live object and live block; then Reset. */
void Verify();
/** Back to the default world; nothing recorded, nothing scripted, nothing alive. */
void Reset();

class PlatformTest : public ::testing::Test {
 protected:
  void SetUp() override { Reset(); }
  void TearDown() override { Verify(); }
};

}  // namespace fake

#endif  // SVCMGR_FAKE_PLATFORM_H_
