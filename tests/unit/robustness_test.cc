// SPDX-License-Identifier: Apache-2.0
// Nothing crashes, escapes or leaks: memory that runs out, callbacks that throw, threads that end.

#include <SvcMgrAppProxyException.h>
#include <SvcmgrException.h>
#include <pthread.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "client.h"
#include "exhaustion.h"
#include "kept.h"

namespace {

using client::Answer;
using client::EmptyList;
using client::kConnected;
using client::kDisconnected;
using client::kRejected;
using client::Models;
using exhaustion::ForEachFailingAllocation;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

/** Records with the message of a caught exception, whichever layer wrote them. */
std::size_t UnknownExceptions() {
  std::size_t n = 0;
  for (const fake::LogRecord& record : fake::Logs()) {
    if (record.priority == DLOG_ERROR && record.message == "Unknown Exception") ++n;
  }
  return n;
}

void ExpectAnswered(int level) {
  fake::QueueReply({level});
  int answer = -2;
  EXPECT_EQ(velmora_svcmgr_get_agent_api_level(&answer), 0);
  EXPECT_EQ(answer, level);
}

/* Memory. */

class OutOfMemory : public client::ConnectedTest {
 protected:
  void SetUp() override {
    ConnectedTest::SetUp();
    if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
  }

  Models models;
  int code = 1;
};

TEST_F(OutOfMemory, IsAnInvalidOperationWhenConnecting) {
  const int failures = ForEachFailingAllocation(
      [&] {
        ASSERT_EQ(velmora_svcmgr_disconnect(), 0);
        connection.notices.clear();
      },
      [&] { code = connection.Connect(); },
      [&](bool) {
        EXPECT_THAT(code, AnyOf(0, -38));
        EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), code == 0 ? 1 : 0);
        if (code == 0) {
          fake::Proxy().FireConnected();
          EXPECT_THAT(connection.notices, ElementsAre(kConnected));
        }
      });
  EXPECT_EQ(code, 0);
  EXPECT_GT(failures, 0);
}

TEST_F(OutOfMemory, LosesNoAnswer) {
  ASSERT_EQ(models.Request(), 0);
  const fake::Items payload = {0, fake::Count(1), "id", "version", "title", "description", 1};
  struct Heard {
    std::size_t answers = 0;
    std::size_t with_the_model = 0;
  } heard;
  const auto count = [](int, velmora_svcmgr_ai_model_list_h list, void* data) {
    auto* const its = static_cast<Heard*>(data);
    ++its->answers;
    if (list == nullptr) return;
    int size = 0;
    velmora_svcmgr_ai_model_list_get_size(list, &size);
    its->with_the_model += static_cast<std::size_t>(size);
    velmora_svcmgr_ai_model_list_destroy(list);
  };
  ASSERT_EQ(velmora_svcmgr_ai_request_usable_model_list(count, &heard), 0);
  const int failures =
      ForEachFailingAllocation([&] { heard.answers = 0; },
                               [&] {
                                 const fake::NewTracking tracking;
                                 fake::DeliverDelegateMessage(1, 1, payload);
                               },
                               [&](bool) {
                                 EXPECT_EQ(heard.answers, 1U);
                                 EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
                               });
  EXPECT_GT(failures, 0);
  // Of all runs one had no list, another one no record; each of the four texts was missing once.
  const std::size_t records = static_cast<std::size_t>(failures) + 1 - 2;
  fake::ExpectKept(fake::Kept::kRecord, records);
  fake::ExpectKept(fake::Kept::kStorage, heard.with_the_model);
  // One had no link to the record, and the one without a list needed none.
  const std::size_t links = static_cast<std::size_t>(failures) + 1 - 2;
  const std::size_t by_new = fake::SeesOperatorNew() ? heard.with_the_model + links : 0;
  fake::ExpectKept(5 * records - 4 + by_new);
}

TEST_F(OutOfMemory, DoesNotKeepEventsFromBeingReported) {
  connection.notices.reserve(100);
  for (const auto fire : {&fake::ProxyControl::FireDisconnected, &fake::ProxyControl::FireRejected,
                          &fake::ProxyControl::FireConnected}) {
    ForEachFailingAllocation([&] { connection.notices.clear(); }, [&] { (fake::Proxy().*fire)(); },
                             [&](bool) { EXPECT_EQ(connection.notices.size(), 1U); });
  }
}

TEST_F(OutOfMemory, DoesNotKeepAConnectionFromEnding) {
  {
    const fake::FailingAllocation failing(fake::Allocator::kAny, 1,
                                          fake::FailingAllocation::Then::kFailAll);
    code = velmora_svcmgr_disconnect();
  }
  EXPECT_EQ(code, 0);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
}

/* Callbacks that throw. */

class AThrowingCallback : public client::ConnectedTest {
 protected:
  void Throw() {
    connection.inside = [] { throw std::runtime_error("application"); };
  }
};

TEST_F(AThrowingCallback, OfTheConnectedEventIsCaughtAndLogged) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_EQ(connection.Connect(), 0);
  Throw();
  fake::Proxy().FireConnected();
  EXPECT_THAT(connection.notices, ElementsAre(kConnected));
  EXPECT_EQ(UnknownExceptions(), 1U);
  EXPECT_EQ(connection.Connect(), -106);
  ExpectAnswered(11);
}

TEST_F(AThrowingCallback, OfTheDisconnectedEventIsCaughtAndLogged) {
  Throw();
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(connection.notices, ElementsAre(kDisconnected));
  EXPECT_EQ(UnknownExceptions(), 1U);
}

TEST_F(AThrowingCallback, OfTheRejectedEventIsCaughtAndLogged) {
  Throw();
  fake::Proxy().FireRejected();
  EXPECT_THAT(connection.notices, ElementsAre(kRejected));
  EXPECT_EQ(UnknownExceptions(), 1U);
}

TEST_F(AThrowingCallback, OfAModelListIsCaughtAndLoggedWhateverItThrows) {
  Models models;
  ASSERT_EQ(models.Request(), 0);
  const std::vector<std::function<void()>> throwing = {
      [] { throw 7; }, [] { throw std::runtime_error("thrown"); }, [] { throw AppInfoException(); },
      [] { throw rpc_port::SvcMgrAppProxy::proxy::InvalidIOException(); }};
  for (const auto& action : throwing) {
    fake::ClearRecord();
    models.inside = action;
    fake::DeliverDelegateMessage(1, 0, EmptyList(0));
    EXPECT_EQ(UnknownExceptions(), 1U);
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  }
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  EXPECT_EQ(models.answers.size(), throwing.size() + 1);
}

TEST_F(AThrowingCallback, InsideAnAttemptDoesNotEscapeFromIt) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  Throw();
  fake::Next("rpc_port_proxy_connect",
             fake::Succeed().Entering([] { fake::Proxy().FireConnected(); }));
  EXPECT_EQ(connection.Connect(), 0);
  EXPECT_EQ(connection.Connect(), -106);
}

/* Platform functions that throw inside events. */

class AThrowingPlatform : public client::ConnectedTest,
                          public testing::WithParamInterface<const char*> {};

TEST_P(AThrowingPlatform, DoesNotMakeAnEventThrow) {
  Models models;
  ASSERT_EQ(models.Request(), 0);
  fake::Next(GetParam(), fake::Throw(std::runtime_error("platform")));
  fake::DeliverDelegateMessage(1, 0, EmptyList(0));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  ExpectAnswered(11);
}

INSTANTIATE_TEST_SUITE_P(WhileDispatching, AThrowingPlatform,
                         testing::Values("rpc_port_parcel_create_from_port",
                                         "rpc_port_parcel_read_int32", "rpc_port_parcel_read_bool",
                                         "rpc_port_parcel_read_array_count",
                                         "package_info_create"));

TEST_F(AThrowingCallback, IsNotNeededForAThrowingConnectedEvent) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  EXPECT_EQ(connection.Connect(), 0);
  fake::Next("rpc_port_proxy_get_port", fake::Throw(std::bad_alloc()));
  fake::Proxy().FireConnected();
  EXPECT_EQ(UnknownExceptions(), 1U);
}

/* Threads that end. */

/** Runs `work` on a thread; returns whether it returned. */
bool ComesBack(const std::function<void()>& work) {
  bool back = false;
  std::thread([&] {
    work();
    back = true;
  }).join();
  return back;
}

void ExitThread() { pthread_exit(nullptr); }

void BeCancelled() {
  pthread_cancel(pthread_self());
  pthread_testcancel();
}

struct Ending {
  const char* name;
  void (*end)();
};

void PrintTo(const Ending& ending, std::ostream* out) { *out << ending.name; }

class AThread : public client::ConnectedTest, public testing::WithParamInterface<Ending> {
 protected:
#if !defined(__GLIBCXX__)
  void SetUp() override {
    ConnectedTest::SetUp();
    GTEST_SKIP() << "with this C++ library no thread may end inside a call";
  }
#endif

  static fake::Step End() { return fake::Succeed().Entering(GetParam().end); }
};

INSTANTIATE_TEST_SUITE_P(Ends, AThread,
                         testing::Values(Ending{"ByExiting", ExitThread},
                                         Ending{"ByCancellation", BeCancelled}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(AThread, IsNotHeldBackByTheFrame) {
  fake::Next("package_info_create", End());
  int level = 0;
  EXPECT_FALSE(ComesBack([&] { velmora_svcmgr_get_agent_api_level(&level); }));
  EXPECT_EQ(UnknownExceptions(), 0U);
  ExpectAnswered(11);
}

TEST_P(AThread, IsNotHeldBackByTheGuardAndGivesTheLockBack) {
  for (const char* const function : {"rpc_port_parcel_create", "rpc_port_parcel_write_int32",
                                     "rpc_port_parcel_send", "rpc_port_parcel_read_int32"}) {
    SCOPED_TRACE(function);
    fake::ForgetMessages();
    fake::QueueReply({3});
    fake::Next(function, End());
    int level = 0;
    EXPECT_FALSE(ComesBack([&] { velmora_svcmgr_get_agent_api_level(&level); }));
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
    fake::ForgetMessages();
    ExpectAnswered(11);
  }
  EXPECT_EQ(UnknownExceptions(), 0U);
}

TEST_P(AThread, GivesTheLockBackWhenItEndsWhileItWaits) {
  fake::Next("rpc_port_parcel_create_from_port", End());
  int level = 0;
  EXPECT_FALSE(ComesBack([&] { velmora_svcmgr_get_agent_api_level(&level); }));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  EXPECT_EQ(UnknownExceptions(), 0U);
  ExpectAnswered(11);
}

TEST_P(AThread, IsNotHeldBackByAModelRequest) {
  static Models models;
  for (const char* const function :
       {"app_get_id", "app_get_version", "rpc_port_parcel_create", "rpc_port_parcel_send"}) {
    SCOPED_TRACE(function);
    fake::Next(function, End());
    EXPECT_FALSE(ComesBack([&] { models.Request(); }));
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  }
  EXPECT_EQ(UnknownExceptions(), 0U);
  EXPECT_EQ(models.Request(), 0);
}

TEST_P(AThread, IsNotHeldBackByConnecting) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), 0);
  fake::Next("rpc_port_proxy_connect", End());
  EXPECT_FALSE(ComesBack([&] { connection.Connect(); }));
  for (const fake::LogRecord& record : fake::Logs()) {
    EXPECT_NE(record.message, "Unexpected Exception occurred!!!");
  }
  fake::AllowHeldConnection();
}

TEST_P(AThread, IsNotHeldBackByEvents) {
  Models models;
  ASSERT_EQ(models.Request(), 0);
  connection.inside = GetParam().end;
  EXPECT_FALSE(ComesBack([] { fake::Proxy().FireConnected(); }));
  models.inside = GetParam().end;
  EXPECT_FALSE(ComesBack([] { fake::DeliverDelegateMessage(1, 0, EmptyList(0)); }));
  connection.inside = GetParam().end;
  EXPECT_FALSE(ComesBack([] { fake::Proxy().FireRejected(); }));
  connection.inside = GetParam().end;
  EXPECT_FALSE(ComesBack([] { fake::Proxy().FireDisconnected(); }));
  EXPECT_EQ(UnknownExceptions(), 0U);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
}

/* Messages of any bytes. */

class AnyMessage : public client::ConnectedTest {};

TEST_F(AnyMessage, CutAnywhereIsSurvivedAndNeverASuccess) {
  Models models;
  ASSERT_EQ(models.Request(), 0);
  const std::string whole =
      "01 00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 "
      "02 00 00 00 61 00 02 00 00 00 62 00 02 00 00 00 63 00 02 00 00 00 64 00 01 00 00 00";
  constexpr std::size_t kHeader = 13;
  const std::size_t size = (whole.size() + 1) / 3;
  for (std::size_t n = 0; n < size; ++n) {
    SCOPED_TRACE(n);
    models.answers.clear();
    fake::DeliverBytes(whole.substr(0, 3 * n));
    if (n < kHeader) {
      EXPECT_THAT(models.answers, IsEmpty());
    } else {
      EXPECT_THAT(models.answers, ElementsAre(Answer{-38, 0}));
    }
  }
}

TEST_F(AnyMessage, WithATextLengthThatLiesIsAFailure) {
  Models models;
  ASSERT_EQ(models.Request(), 0);
  for (const char* const length :
       {"ff ff ff ff", "ff ff ff 7f", "00 00 00 80", "00 00 00 00", "64 00 00 00"}) {
    SCOPED_TRACE(length);
    models.answers.clear();
    fake::DeliverBytes("01 00 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 " +
                       std::string(length) +
                       " 61 00 02 00 00 00 62 00 02 00 00 00 63 00 02 00 00 00 64 00 01 00 00 00");
    EXPECT_THAT(models.answers, ElementsAre(Answer{-38, 0}));
  }
}

}  // namespace
