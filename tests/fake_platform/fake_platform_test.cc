// SPDX-License-Identifier: Apache-2.0
// The fake judges the library's tests, so it is judged itself: what must fail a test, does.

#include "fake_platform.h"
#include "kept.h"

#include <gtest/gtest-spi.h>
#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SVCMGR_FAKE_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define SVCMGR_FAKE_TSAN 1
#endif

// svcmgr::KeptBlocks::Add and svcmgr::KeepStorage, as the library calls them here.
extern "C" void __wrap__ZN6svcmgr10KeptBlocks3AddEPv(void* self, void* block);
extern "C" void __wrap__ZN6svcmgr11KeepStorageEPv(void* storage);

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

struct FakePlatform : fake::PlatformTest {};

rpc_port_parcel_h NewParcel() {
  rpc_port_parcel_h parcel = nullptr;
  rpc_port_parcel_create(&parcel);
  return parcel;
}

void OnConnected(const char*, const char*, rpc_port_h port, void* data) {
  *static_cast<rpc_port_h*>(data) = port;
}

void OnReceived(const char*, const char*, void* data) { ++*static_cast<int*>(data); }

void OnReceivedThrow(const char*, const char*, void*) { throw std::runtime_error("escapes"); }

/** A connected proxy with its main port. */
struct Connected {
  Connected() {
    rpc_port_proxy_create(&proxy);
    rpc_port_proxy_add_connected_event_cb(proxy, OnConnected, &port);
    rpc_port_proxy_add_received_event_cb(proxy, OnReceived, &received);
    rpc_port_proxy_connect(proxy, "agent", "port");
    fake::Proxy().FireConnected();
  }

  rpc_port_parcel_h NextMessage() const {
    rpc_port_parcel_h parcel = nullptr;
    rpc_port_parcel_create_from_port(&parcel, port);
    return parcel;
  }

  rpc_port_proxy_h proxy = nullptr;
  rpc_port_h port = nullptr;
  int received = 0;
};

void Log(log_priority priority, const char* tag, const char* file) {
  dlog_print(priority, tag, "\033[0;32m %s: %s(%d) > hello\033[0;m", file, "Function", 7);
}

/** Hides from the compiler what becomes of a pointer. */
template <typename T>
T* Opaque(T* pointer) {
  T* volatile hidden = pointer;
  return hidden;
}

/* What must fail a test. */

TEST_F(FakePlatform, FailsATestThatLeaksAParcel) {
  NewParcel();
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live parcel(s), 0 allowed");
}

TEST_F(FakePlatform, FailsATestThatLeaksAPackageInfo) {
  package_info_h info = nullptr;
  package_info_create(fake::kAgentId, &info);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live package info(s), 0 allowed");
}

TEST_F(FakePlatform, FailsATestThatLeaksAnAppInfo) {
  app_info_h info = nullptr;
  app_info_create(fake::kAgentId, &info);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live app info(s), 0 allowed");
}

TEST_F(FakePlatform, FailsATestThatLeaksAProxy) {
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_proxy_create(&proxy);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live proxy(s), 0 allowed");
}

void IgnoreEvent(const char*, bundle*, void*) {}

TEST_F(FakePlatform, FailsATestThatLeaksASubscription) {
  event_handler_h handler = nullptr;
  event_add_event_handler("name", IgnoreEvent, nullptr, &handler);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live event handler(s), 0 allowed");
}

TEST_F(FakePlatform, FailsATestThatLeaksABundle) {
  bundle_create();
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live bundle(s), 0 allowed");
}

TEST_F(FakePlatform, FailsATestThatLeaksATextOfThePlatform) {
  char* id = nullptr;
  app_get_id(&id);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "16 bytes of app_get_id: \"org.example.app\"");
}

template <typename Allocate>
void ExpectLeakReported(Allocate allocate, const std::string& origin) {
  auto* const text = static_cast<char*>(Opaque(static_cast<void*>(allocate())));
  ASSERT_NE(text, nullptr);
  *text = '\0';  // the verdict shows it
  std::string verdict;
  {
    ::testing::TestPartResultArray results;
    ::testing::ScopedFakeTestPartResultReporter reporter(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
    fake::Verify();
    if (results.size() == 1) verdict = results.GetTestPartResult(0).message();
  }
  EXPECT_THAT(verdict, ::testing::HasSubstr("1 live block(s), 0 expected"));
  EXPECT_THAT(verdict, ::testing::HasSubstr("bytes of " + origin));
}

TEST_F(FakePlatform, FailsATestThatLeaksABlockOfAnyAllocator) {
  ExpectLeakReported([] { return malloc(10); }, "malloc");
  ExpectLeakReported([] { return calloc(2, 5); }, "calloc");
  ExpectLeakReported([] { return strdup("text"); }, "strdup");
  ExpectLeakReported([] { return strndup("text", 2); }, "strndup");
  ExpectLeakReported([] { return realloc(malloc(2), 400); }, "realloc");
}

TEST_F(FakePlatform, FailsATestThatLeaksATrackedBlockOfNew) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
  const auto allocate = [] {
    const fake::NewTracking tracking;
    return ::operator new(10);
  };
  ExpectLeakReported(allocate, "new");
}

TEST_F(FakePlatform, ForgetsATrackedBlockOfNewThatIsDeletedAnywhere) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
  std::unique_ptr<int> block;
  {
    const fake::NewTracking tracking;
    block = std::make_unique<int>(1);
  }
  EXPECT_THAT(fake::LiveBlocks(), SizeIs(1));
  block.reset();
  EXPECT_THAT(fake::LiveBlocks(), IsEmpty());
}

TEST_F(FakePlatform, FailsATestThatReleasesABlockTwice) {
  char* id = nullptr;
  app_get_id(&id);
  free(Opaque(id));
  free(Opaque(id));
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "a block is released twice");
}

TEST_F(FakePlatform, FailsATestThatReleasesGarbage) {
  fake::Next("app_get_id", fake::FailWithGarbage(-5));
  char* id = nullptr;
  EXPECT_EQ(app_get_id(&id), -5);
  free(Opaque(id));
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "garbage is released");
}

TEST_F(FakePlatform, FailsATestThatDestroysAParcelTwice) {
  const auto parcel = NewParcel();
  EXPECT_EQ(rpc_port_parcel_destroy(parcel), 0);
  EXPECT_NE(rpc_port_parcel_destroy(parcel), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "rpc_port_parcel_destroy: parcel#1 is destroyed twice");
}

TEST_F(FakePlatform, FailsATestThatDestroysAProxyTwice) {
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_proxy_create(&proxy);
  rpc_port_proxy_destroy(proxy);
  rpc_port_proxy_destroy(proxy);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "proxy#1 is destroyed twice");
}

TEST_F(FakePlatform, FailsATestThatRemovesASubscriptionTwice) {
  event_handler_h handler = nullptr;
  event_add_event_handler("name", IgnoreEvent, nullptr, &handler);
  event_remove_event_handler(handler);
  event_remove_event_handler(handler);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "event handler#1 is destroyed twice");
}

TEST_F(FakePlatform, FailsATestThatUsesADestroyedParcel) {
  const auto parcel = NewParcel();
  rpc_port_parcel_destroy(parcel);
  EXPECT_NE(rpc_port_parcel_write_int32(parcel, 1), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "parcel#1 is used after it was destroyed");
}

TEST_F(FakePlatform, FailsATestThatUsesAnUnknownHandle) {
  int no_handle = 0;
  EXPECT_NE(rpc_port_parcel_destroy(&no_handle), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(),
                          "rpc_port_parcel_destroy: unknown handle where a parcel is expected");
}

TEST_F(FakePlatform, FailsATestThatDestroysAGarbageParcel) {
  fake::Next("rpc_port_parcel_create", fake::FailWithGarbage(-12));
  const auto parcel = NewParcel();
  EXPECT_NE(rpc_port_parcel_destroy(parcel), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "unknown handle where a parcel is expected");
}

TEST_F(FakePlatform, FailsATestThatUsesAHandleOfAnotherKind) {
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_proxy_create(&proxy);
  fake::AllowHeld(fake::Kind::kProxy, 1);
  EXPECT_NE(rpc_port_parcel_destroy(proxy), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "proxy#1 is no parcel");
}

template <typename Read>
void ExpectWrongTypeFault(const fake::Item& item, Read read) {
  const Connected connected;
  fake::QueueMessage({item});
  const auto parcel = connected.NextMessage();
  EXPECT_NE(read(parcel), 0);
  rpc_port_parcel_destroy(parcel);
  rpc_port_proxy_destroy(connected.proxy);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "item 0 of parcel#1 has another type");
}

TEST_F(FakePlatform, FailsATestThatReadsAnItemAsAnotherType) {
  int number = 0;
  bool flag = false;
  char* text = nullptr;
  ExpectWrongTypeFault("text", [&](auto p) { return rpc_port_parcel_read_int32(p, &number); });
  ExpectWrongTypeFault(fake::Count(1),
                       [&](auto p) { return rpc_port_parcel_read_int32(p, &number); });
  ExpectWrongTypeFault(1, [&](auto p) { return rpc_port_parcel_read_array_count(p, &number); });
  ExpectWrongTypeFault(1, [&](auto p) { return rpc_port_parcel_read_bool(p, &flag); });
  ExpectWrongTypeFault(true, [&](auto p) { return rpc_port_parcel_read_string(p, &text); });
}

TEST_F(FakePlatform, FailsATestThatReadsPastTheEnd) {
  const Connected connected;
  fake::QueueMessage({});
  const auto parcel = connected.NextMessage();
  int number = 3;
  EXPECT_EQ(rpc_port_parcel_read_int32(parcel, &number), fake::kIoError);
  EXPECT_EQ(number, 3);
  rpc_port_parcel_destroy(parcel);
  rpc_port_proxy_destroy(connected.proxy);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "parcel#1 is read past its end");
}

TEST_F(FakePlatform, FailsATestThatUsesAPortAfterItsProxy) {
  const Connected connected;
  rpc_port_proxy_destroy(connected.proxy);
  EXPECT_EQ(connected.NextMessage(), nullptr);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "main port of proxy#1 is used after its proxy");
}

TEST_F(FakePlatform, RefusesAPortAfterItsProxyWhereThatIsAllowed) {
  fake::AllowPortsAfterTheirProxy();
  const Connected connected;
  rpc_port_proxy_destroy(connected.proxy);
  EXPECT_EQ(connected.NextMessage(), nullptr);
  fake::Verify();
}

TEST_F(FakePlatform, FailsATestThatFiresAtADestroyedProxy) {
  const Connected connected;
  rpc_port_proxy_destroy(connected.proxy);
  fake::Proxy().FireReceived();
  EXPECT_EQ(connected.received, 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "received event: proxy#1 is used after it was destroyed");
}

TEST_F(FakePlatform, FailsATestThatFiresWithoutAProxy) {
  fake::Proxy();
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "there is no proxy 0");
}

TEST_F(FakePlatform, FailsATestInWhichAnExceptionEscapesFromACallback) {
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_proxy_create(&proxy);
  rpc_port_proxy_add_received_event_cb(proxy, OnReceivedThrow, nullptr);
  fake::Proxy().FireReceived();
  rpc_port_proxy_destroy(proxy);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "an exception escaped from the received event");
}

TEST_F(FakePlatform, FailsATestThatReleasesABorrowedPackageInfo) {
  package_manager_foreach_package_info(
      [](package_info_h info, void*) { return package_info_destroy(info) == 0; }, nullptr);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "package info#1 is borrowed");
}

TEST_F(FakePlatform, FailsATestThatKeepsABorrowedPackageInfo) {
  static package_info_h kept;
  package_manager_foreach_package_info(
      [](package_info_h info, void*) {
        kept = info;
        return true;
      },
      nullptr);
  char* id = nullptr;
  EXPECT_NE(package_info_get_package(kept, &id), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "package info#1 is used after it was destroyed");
}

TEST_F(FakePlatform, FailsATestWithAMalformedLogRecord) {
  dlog_print(DLOG_INFO, "SERVICE_MANAGER_CLIENT", "%s: %s(%d) > hello", "file.cc", "Function", 1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "malformed log record: priority 4");
}

TEST_F(FakePlatform, FailsATestWithALogRecordOfAnotherPriorityTagOrPlace) {
  Log(DLOG_WARN, "SERVICE_MANAGER_CLIENT", "file.cc");
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "malformed log record: priority 5");
  Log(DLOG_ERROR, "SERVICE_MANAGER_CLIENT", "file.cc");
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "malformed log record: priority 6");
  Log(DLOG_INFO, "ANOTHER", "file.cc");
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "tag ANOTHER");
  Log(DLOG_INFO, "RPC_PORT_PROXY", "file.cc");
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "tag RPC_PORT_PROXY");
  Log(DLOG_INFO, "SERVICE_MANAGER_CLIENT", "src/file.cc");
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "log record from a strange place");
}

TEST_F(FakePlatform, FailsATestThatScriptsAFunctionThatDoesNotExist) {
  fake::Next("rpc_port_parcel_sent", fake::Fail(-5));
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "no platform function is called rpc_port_parcel_sent");
}

TEST_F(FakePlatform, FailsATestThatExpectsMoreKeptBlocksThanThereAre) {
  fake::ExpectKept(1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "0 live block(s), 1 expected");
  fake::ExpectKeptText("text");
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "no live block holds the text \"text\"");
}

/* What must not. */

TEST_F(FakePlatform, LetsATestKeepWhatItAnnounces) {
  __wrap__ZN6svcmgr10KeptBlocks3AddEPv(nullptr, Opaque(strdup("kept on purpose")));
  __wrap__ZN6svcmgr11KeepStorageEPv(Opaque(malloc(4)));
  fake::ExpectKept(1);
  fake::ExpectKept(fake::Kept::kFormerText, 1);
  fake::ExpectKept(fake::Kept::kStorage, 1);
  fake::ExpectKeptText("kept on purpose");
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_proxy_create(&proxy);
  fake::AllowHeldConnection();
  EXPECT_THAT(fake::LiveBlocks(), SizeIs(2));
}

TEST_F(FakePlatform, LetsAGarbagePackageInfoBeReleased) {
  fake::Next("package_info_create", fake::FailWithGarbage(-5));
  package_info_h info = nullptr;
  EXPECT_EQ(package_info_create(fake::kAgentId, &info), -5);
  EXPECT_NE(info, nullptr);
  package_info_destroy(info);
  EXPECT_THAT(fake::CallNames(), ElementsAre("package_info_create", "package_info_destroy"));
}

/* Scripts. */

TEST_F(FakePlatform, FollowsScriptsByCallThenByQueueThenByStandingOrder) {
  fake::Always("app_get_id", fake::Fail(-1));
  fake::Next("app_get_id", fake::Fail(-2));
  fake::AtCall("app_get_id", 2, fake::Fail(-3));
  char* id = nullptr;
  EXPECT_EQ(app_get_id(&id), -2);
  EXPECT_EQ(app_get_id(&id), -3);
  EXPECT_EQ(app_get_id(&id), -1);
  EXPECT_EQ(app_get_id(&id), -1);
  EXPECT_EQ(id, nullptr);
  fake::ForgetScripts("app_get_id");
  EXPECT_EQ(app_get_id(&id), 0);
  EXPECT_STREQ(id, "org.example.app");
  free(id);
}

TEST_F(FakePlatform, GivesEachShapeOfResult) {
  char* id = nullptr;
  fake::Next("app_get_id", fake::SucceedWithText("other"));
  EXPECT_EQ(app_get_id(&id), 0);
  EXPECT_STREQ(id, "other");
  free(id);
  fake::Next("app_get_id", fake::Fail(-5));
  id = nullptr;
  EXPECT_EQ(app_get_id(&id), -5);
  EXPECT_EQ(id, nullptr);
  fake::Next("app_get_id", fake::FailWithGarbage(-5));
  EXPECT_EQ(app_get_id(&id), -5);
  EXPECT_NE(id, nullptr);
  fake::Next("app_get_id", fake::SucceedWithNull());
  EXPECT_EQ(app_get_id(&id), 0);
  EXPECT_EQ(id, nullptr);
  fake::Next("app_get_id", fake::FailAfterWork(-5));
  EXPECT_EQ(app_get_id(&id), -5);
  EXPECT_STREQ(id, "org.example.app");
  free(id);
}

TEST(AStep, IsPrintedByItsShapeAndItsResult) {
  EXPECT_EQ(testing::PrintToString(fake::Succeed()), "work 0");
  EXPECT_EQ(testing::PrintToString(fake::Fail(-5)), "untouched -5");
  EXPECT_EQ(testing::PrintToString(fake::FailWithGarbage(-5)), "garbage -5");
  EXPECT_EQ(testing::PrintToString(fake::FailWithNull(-22)), "null -22");
  EXPECT_EQ(testing::PrintToString(fake::SucceedWithText("text")), "text 0");
}

TEST_F(FakePlatform, RunsHooksInsideTheCallAndThrowsOutOfIt) {
  std::vector<std::string> order;
  fake::Next("rpc_port_parcel_create",
             fake::Succeed()
                 .Entering([&] {
                   order.push_back(std::to_string(fake::LiveObjects(fake::Kind::kParcel)));
                 })
                 .Leaving([&] {
                   order.push_back(std::to_string(fake::LiveObjects(fake::Kind::kParcel)));
                 }));
  rpc_port_parcel_destroy(NewParcel());
  EXPECT_THAT(order, ElementsAre("0", "1"));
  fake::Next("rpc_port_parcel_create", fake::Throw(std::bad_alloc()));
  EXPECT_THROW(NewParcel(), std::bad_alloc);
}

/* The record. */

TEST_F(FakePlatform, RecordsCallsAndLogRecordsInOneOrder) {
  const auto parcel = NewParcel();
  rpc_port_parcel_write_string(parcel, "a");
  Log(DLOG_INFO, "SERVICE_MANAGER_CLIENT", "file.cc");
  rpc_port_parcel_destroy(parcel);
  EXPECT_THAT(fake::Trace(), ElementsAre("rpc_port_parcel_create()",
                                         "rpc_port_parcel_write_string(parcel#1, \"a\")",
                                         "I Function: hello", "rpc_port_parcel_destroy(parcel#1)"));
  EXPECT_THAT(fake::Logs(), ElementsAre(fake::IsInfo("file.cc", "Function", "hello")));
  EXPECT_EQ(fake::Logs()[0].line, 7);
  EXPECT_EQ(fake::Logs()[0].text, "\033[0;32m file.cc: Function(7) > hello\033[0;m");
  EXPECT_EQ(fake::CountCalls("rpc_port_parcel_create"), 1U);
}

TEST_F(FakePlatform, TakesTheRecordOfEachLayerApart) {
  dlog_print(DLOG_ERROR, "RPC_PORT_PROXY", "%s: %s(%d) > code %d", "SvcMgrAppProxy.cc", "Connect",
             12, -5);
  dlog_print(DLOG_ERROR, "SERVICE_MANAGER_CLIENT", "\033[0;31m %s: %s(%d) > %s\n\033[0;m", "a.cc",
             "F", 1, "text");
  EXPECT_THAT(fake::Logs(), ElementsAre(fake::IsProxyError("Connect", "code -5"),
                                        fake::IsError("a.cc", "F", "text\n")));
}

/* Parcels. */

TEST_F(FakePlatform, KeepsSentParcelsWithTheirWireForm) {
  const Connected connected;
  const auto parcel = NewParcel();
  rpc_port_parcel_write_int32(parcel, -2);
  rpc_port_parcel_write_bool(parcel, true);
  rpc_port_parcel_write_string(parcel, "ab");
  rpc_port_parcel_write_array_count(parcel, 258);
  EXPECT_EQ(rpc_port_parcel_send(parcel, connected.port), 0);
  rpc_port_parcel_destroy(parcel);
  rpc_port_proxy_destroy(connected.proxy);
  ASSERT_THAT(fake::SentParcels(), SizeIs(1));
  EXPECT_THAT(fake::SentParcels()[0].items, ElementsAre(-2, true, "ab", fake::Count(258)));
  EXPECT_EQ(fake::SentParcels()[0].Hex(), "fe ff ff ff 01 03 00 00 00 61 62 00 02 01 00 00");
}

TEST_F(FakePlatform, DeliversWhatIsQueued) {
  const Connected connected;
  fake::QueueReply({"text", fake::NullText()});
  const auto parcel = connected.NextMessage();
  int command = 1;
  char* text = nullptr;
  char* null_text = nullptr;
  EXPECT_EQ(rpc_port_parcel_read_int32(parcel, &command), 0);
  EXPECT_EQ(command, 0);
  EXPECT_EQ(rpc_port_parcel_read_string(parcel, &text), 0);
  EXPECT_STREQ(text, "text");
  EXPECT_EQ(rpc_port_parcel_read_string(parcel, &null_text), 0);
  EXPECT_EQ(null_text, nullptr);
  free(text);
  rpc_port_parcel_destroy(parcel);
  EXPECT_EQ(connected.NextMessage(), nullptr);
  rpc_port_proxy_destroy(connected.proxy);
}

TEST_F(FakePlatform, ReadsQueuedBytesWithoutTypes) {
  const Connected connected;
  fake::QueueBytes("02 00 00 00  61 00  ff ff ff ff  01");
  const auto parcel = connected.NextMessage();
  char* text = nullptr;
  int number = 0;
  bool flag = false;
  EXPECT_EQ(rpc_port_parcel_read_string(parcel, &text), 0);
  EXPECT_STREQ(text, "a");
  EXPECT_EQ(rpc_port_parcel_read_array_count(parcel, &number), 0);
  EXPECT_EQ(number, -1);
  EXPECT_EQ(rpc_port_parcel_read_bool(parcel, &flag), 0);
  EXPECT_TRUE(flag);
  EXPECT_EQ(rpc_port_parcel_read_int32(parcel, &number), fake::kIoError);
  free(text);
  rpc_port_parcel_destroy(parcel);
  rpc_port_proxy_destroy(connected.proxy);
}

TEST_F(FakePlatform, StaysUnreadableFromAScriptedItemOn) {
  const Connected connected;
  fake::QueueMessage(fake::CutAfter({5, 6}, 1));
  fake::QueueMessage({fake::UnreadableWithGarbage()});
  const auto cut = connected.NextMessage();
  int number = 0;
  EXPECT_EQ(rpc_port_parcel_read_int32(cut, &number), 0);
  EXPECT_EQ(rpc_port_parcel_read_int32(cut, &number), fake::kIoError);
  EXPECT_EQ(rpc_port_parcel_read_int32(cut, &number), fake::kIoError);
  EXPECT_EQ(number, 5);
  const auto garbage = connected.NextMessage();
  EXPECT_EQ(rpc_port_parcel_read_int32(garbage, &number), fake::kIoError);
  EXPECT_EQ(number, fake::kGarbageInt);
  rpc_port_parcel_destroy(cut);
  rpc_port_parcel_destroy(garbage);
  rpc_port_proxy_destroy(connected.proxy);
}

TEST_F(FakePlatform, LetsAnAgentAnswerInsideSend) {
  const Connected connected;
  fake::OnSend([](const fake::Sent& sent) { fake::QueueReply({sent.items[0].number + 1}); });
  const auto parcel = NewParcel();
  rpc_port_parcel_write_int32(parcel, 2);
  rpc_port_parcel_send(parcel, connected.port);
  EXPECT_EQ(fake::WaitingMessages(), 1U);
  rpc_port_parcel_destroy(parcel);
  rpc_port_proxy_destroy(connected.proxy);
}

/* Proxies. */

TEST_F(FakePlatform, HandsOutTheCallbackPortOnlyOnceConnected) {
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_h port = nullptr;
  rpc_port_proxy_create(&proxy);
  EXPECT_EQ(rpc_port_proxy_get_port(proxy, RPC_PORT_PORT_CALLBACK, &port), fake::kIoError);
  rpc_port_proxy_destroy(proxy);
  const Connected connected;
  EXPECT_EQ(rpc_port_proxy_get_port(connected.proxy, RPC_PORT_PORT_CALLBACK, &port), 0);
  EXPECT_NE(port, connected.port);
  EXPECT_EQ(fake::Proxy().Target(), "agent");
  EXPECT_EQ(fake::Proxy().PortName(), "port");
  EXPECT_EQ(fake::ProxyCount(), 2);
  EXPECT_FALSE(fake::Proxy(1).Alive());
  rpc_port_proxy_destroy(connected.proxy);
}

TEST_F(FakePlatform, LetsAProxyBeDestroyedInsideItsOwnCallback) {
  static rpc_port_proxy_h proxy;
  rpc_port_proxy_create(&proxy);
  rpc_port_proxy_add_rejected_event_cb(
      proxy, [](const char*, const char*, void*) { rpc_port_proxy_destroy(proxy); }, nullptr);
  fake::Proxy().FireRejected();
  EXPECT_FALSE(fake::Proxy().Alive());
}

TEST_F(FakePlatform, LetsAThreadExitOutOfACallback) {
#if !defined(__GLIBCXX__)
  GTEST_SKIP() << "with this C++ library no thread may end inside a call";
#endif
  rpc_port_proxy_h proxy = nullptr;
  rpc_port_proxy_create(&proxy);
  rpc_port_proxy_add_received_event_cb(
      proxy, [](const char*, const char*, void*) { pthread_exit(nullptr); }, nullptr);
  bool survived = false;
  std::thread([&] {
    fake::Proxy().FireReceived();
    survived = true;
  }).join();
  EXPECT_FALSE(survived);
  rpc_port_proxy_destroy(proxy);
}

/* Events. */

TEST_F(FakePlatform, RunsTheHandlersOfAName) {
  struct Seen {
    std::vector<std::string> names;
    int value = 0;
  } seen;
  const auto handler = [](const char* name, bundle* data, void* user_data) {
    void* bytes = nullptr;
    std::size_t size = 0;
    bundle_get_byte(data, "code", &bytes, &size);
    auto* const s = static_cast<Seen*>(user_data);
    if (size == sizeof s->value) std::memcpy(&s->value, bytes, size);
    s->names.emplace_back(name);
  };
  event_handler_h a = nullptr;
  event_handler_h b = nullptr;
  event_add_event_handler("a", handler, &seen, &a);
  event_add_event_handler("b", handler, &seen, &b);
  EXPECT_THAT(fake::Subscriptions(), ElementsAre("a", "b"));
  fake::BundleBuilder data;
  data.Int("code", 7);
  EXPECT_EQ(fake::FireEvent("a", data), 1);
  EXPECT_EQ(fake::FireEvent("c", data), 0);
  fake::FireEventAt("b", "other", data.get());
  EXPECT_THAT(seen.names, ElementsAre("a", "other"));
  EXPECT_EQ(seen.value, 7);
  event_remove_event_handler(a);
  event_remove_event_handler(b);
  EXPECT_EQ(fake::FireEvent("a", data), 0);
}

TEST_F(FakePlatform, LetsAHandlerRemoveItself) {
  static event_handler_h handler;
  event_add_event_handler(
      "a", [](const char*, bundle*, void*) { event_remove_event_handler(handler); }, nullptr,
      &handler);
  EXPECT_EQ(fake::FireEvent("a", nullptr), 1);
  EXPECT_THAT(fake::Subscriptions(), IsEmpty());
}

TEST_F(FakePlatform, LeavesTheOutputsOfAFailingBundleGetUntouched) {
  fake::BundleBuilder data;
  data.Str("text", "t").Int("bytes", 1).StrArray("array", {"x", "y"});
  char* text = nullptr;
  void* bytes = nullptr;
  std::size_t size = 99;
  int length = 99;
  EXPECT_NE(bundle_get_str(data.get(), "bytes", &text), 0);
  EXPECT_NE(bundle_get_str(data.get(), "absent", &text), 0);
  EXPECT_NE(bundle_get_byte(data.get(), "text", &bytes, &size), 0);
  EXPECT_EQ(bundle_get_str_array(data.get(), "text", &length), nullptr);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(bytes, nullptr);
  EXPECT_EQ(size, 99U);
  EXPECT_EQ(length, 99);
  EXPECT_STREQ(bundle_get_str_array(data.get(), "array", &length)[1], "y");
  EXPECT_EQ(length, 2);
  EXPECT_EQ(bundle_get_byte(data.get(), "bytes", &bytes, &size), 0);
  EXPECT_NE(reinterpret_cast<std::uintptr_t>(bytes) % alignof(int), 0U);
}

/* Packages. */

TEST_F(FakePlatform, KnowsTheInstalledPackagesAlone) {
  package_info_h info = nullptr;
  EXPECT_EQ(package_info_create("com.example.none", &info), fake::kNoSuchPackage);
  fake::RemoveAgent();
  EXPECT_EQ(package_info_create(fake::kAgentId, &info), fake::kNoSuchPackage);
  fake::InstallAgent("1.6.9");
  EXPECT_EQ(package_info_create(fake::kAgentId, &info), 0);
  char* version = nullptr;
  EXPECT_EQ(package_info_get_version(info, &version), 0);
  EXPECT_STREQ(version, "1.6.9");
  free(version);
  package_info_destroy(info);
}

TEST_F(FakePlatform, EnumeratesPackagesAndMetadataInOrder) {
  fake::SetPackages({{"a", "1", {{"k", "v"}, {std::nullopt, "w"}}}, {"b", std::nullopt, {}}});
  static std::vector<std::string> seen;
  package_manager_foreach_package_info(
      [](package_info_h info, void*) {
        char* id = nullptr;
        char* version = nullptr;
        package_info_get_package(info, &id);
        package_info_get_version(info, &version);
        seen.push_back(std::string(id) + " " + (version != nullptr ? version : "null"));
        app_info_h app = nullptr;
        app_info_create(id, &app);
        app_info_foreach_metadata(
            app,
            [](const char* key, const char* value, void*) {
              seen.push_back(std::string(key != nullptr ? key : "null") + "=" + value);
              return true;
            },
            nullptr);
        app_info_destroy(app);
        free(id);
        free(version);
        return true;
      },
      nullptr);
  EXPECT_THAT(seen, ElementsAre("a 1", "k=v", "null=w", "b null"));
}

/* Allocations. */

TEST_F(FakePlatform, FailsTheAllocationAskedFor) {
  void* blocks[3] = {};
  bool happened = false;
  {
    const fake::FailingAllocation failing(fake::Allocator::kCalloc, 2);
    for (void*& block : blocks) block = calloc(1, 4);
    happened = failing.Happened();
  }
  EXPECT_TRUE(happened);
  EXPECT_NE(blocks[0], nullptr);
  EXPECT_EQ(blocks[1], nullptr);
  EXPECT_NE(blocks[2], nullptr);
  for (void* block : blocks) free(block);
}

TEST_F(FakePlatform, FailsOperatorNewAlsoInsideTheStandardLibrary) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
  bool failed = false;
  {
    const fake::FailingAllocation failing(fake::Allocator::kNew);
    try {
      std::string().reserve(100);
    } catch (const std::bad_alloc&) {
      failed = true;
    }
  }
  EXPECT_TRUE(failed);
}

TEST_F(FakePlatform, CountsAllAllocatorsTogetherAndLeavesItsOwnAlone) {
  char* id = nullptr;
  char* copy = nullptr;
  void* block = nullptr;
  {
    const fake::FailingAllocation failing(fake::Allocator::kAny, 1,
                                          fake::FailingAllocation::Then::kFailAll);
    app_get_id(&id);
    copy = strdup("text");
    block = malloc(3);
  }
  EXPECT_STREQ(id, "org.example.app");
  EXPECT_EQ(copy, nullptr);
  EXPECT_EQ(block, nullptr);
  free(id);
}

TEST_F(FakePlatform, ServesSeveralThreads) {
  constexpr int kRounds = 500;
  const auto work = [] {
    for (int i = 0; i < kRounds; ++i) {
      const auto parcel = NewParcel();
      rpc_port_parcel_write_int32(parcel, i);
      free(strdup("text"));
      rpc_port_parcel_destroy(parcel);
    }
  };
  std::thread other(work);
  work();
  other.join();
  EXPECT_EQ(fake::CountCalls("rpc_port_parcel_destroy"), 2U * kRounds);
}

#ifdef SVCMGR_FAKE_TSAN
TEST(FakePlatformDeathTest, LeavesRacesOfTheLibraryVisible) {
  fake::Reset();
  static int unguarded = 0;
  const auto touch = [] {
    rpc_port_parcel_destroy(NewParcel());
    ++unguarded;
    rpc_port_parcel_destroy(NewParcel());
  };
  EXPECT_EXIT(
      {
        std::thread a(touch);
        std::thread b(touch);
        a.join();
        b.join();
        std::exit(0);
      },
      testing::ExitedWithCode(66), "data race");
}
#endif

}  // namespace
