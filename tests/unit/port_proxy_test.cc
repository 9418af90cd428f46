// SPDX-License-Identifier: Apache-2.0
// The port proxy apart from its methods: life, events, dispatch, requests, the lock.

#include <climits>
#include <exception>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "proxy.h"

namespace {

using fake::IsProxyError;
using proxy::Delegate;
using proxy::DelegateId;
using proxy::Listener;
using proxy::MakeDelegate;
using proxy::MakePort;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

/* Exceptions. */

template <typename T>
constexpr bool kIsPlainSubclass =
    std::is_base_of_v<proxy::Exception, T> && !std::is_same_v<proxy::Exception, T> &&
    !std::is_base_of_v<std::exception, T> && std::is_empty_v<T>;

TEST(TheProxysExceptions, AreEmptyTypesOfTheirOwnFamily) {
  static_assert(!std::is_base_of_v<std::exception, proxy::Exception>);
  static_assert(std::is_empty_v<proxy::Exception>);
  EXPECT_TRUE(kIsPlainSubclass<proxy::NotConnectedSocketException>);
  EXPECT_TRUE(kIsPlainSubclass<proxy::InvalidProtocolException>);
  EXPECT_TRUE(kIsPlainSubclass<proxy::InvalidIOException>);
  EXPECT_TRUE(kIsPlainSubclass<proxy::PermissionDeniedException>);
  EXPECT_TRUE(kIsPlainSubclass<proxy::InvalidIDException>);
}

/* Life. */

class APort : public fake::PlatformTest {
 protected:
  Listener listener;
};

TEST_F(APort, ThrowsAnIoExceptionWhenItCannotBeMade) {
  fake::Next("rpc_port_proxy_create", fake::FailWithGarbage(-12));
  EXPECT_THROW(MakePort(&listener), proxy::InvalidIOException);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsProxyError("SvcMgrAppPort", "Failed to create proxy")));
  EXPECT_THAT(fake::CallNames(), ElementsAre("rpc_port_proxy_create"));
}

template <typename Expected>
void ExpectConnectThrows(Listener* listener, int code) {
  const auto port = MakePort(listener);
  fake::Next("rpc_port_proxy_connect", fake::Fail(code));
  try {
    port->Connect();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Expected&) {
  } catch (const proxy::Exception&) {
    ADD_FAILURE() << "another exception of the family";
  }
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsProxyError("Connect", "Failed to connect SvcMgrAppPort")));
}

TEST_F(APort, ThrowsForAnInvalidId) {
  ExpectConnectThrows<proxy::InvalidIDException>(&listener, -22);
}
TEST_F(APort, ThrowsForAnIoFailure) {
  ExpectConnectThrows<proxy::InvalidIOException>(&listener, -5);
}
TEST_F(APort, ThrowsForMissingPermission) {
  ExpectConnectThrows<proxy::PermissionDeniedException>(&listener, -13);
}

TEST_F(APort, ReturnsNormallyForAnyOtherConnectFailure) {
  const auto port = MakePort(&listener);
  for (const int code : {-1, -12, -38, -111, 7}) {
    fake::ClearRecord();
    fake::Next("rpc_port_proxy_connect", fake::Fail(code));
    EXPECT_NO_THROW(port->Connect()) << code;
    EXPECT_THAT(fake::Logs(),
                ElementsAre(IsProxyError("Connect", "Failed to connect SvcMgrAppPort")));
  }
}

TEST_F(APort, DoesNotMindARefusalToDestroyItsHandle) {
  fake::Next("rpc_port_proxy_destroy", fake::FailAfterWork(-5));
  EXPECT_NO_THROW(MakePort(&listener).reset());
}

TEST(ThePort, HasAVirtualDestructor) {
  EXPECT_TRUE(std::has_virtual_destructor_v<proxy::SvcMgrAppPort>);
  EXPECT_TRUE(std::has_virtual_destructor_v<proxy::SvcMgrAppPort::CallbackBase>);
  EXPECT_TRUE(std::has_virtual_destructor_v<proxy::SvcMgrAppPort::IEventListener>);
}

/* Events. */

TEST_F(APort, FetchesTheCallbackPortBeforeItTellsItsListener) {
  const auto port = MakePort(&listener);
  port->Connect();
  fake::ClearRecord();
  std::size_t calls_before_listener = 0;
  listener.inside = [&] { calls_before_listener = fake::Calls().size(); };
  fake::Proxy().FireConnected();
  EXPECT_THAT(listener.events, ElementsAre("connected"));
  EXPECT_THAT(fake::CallNames(), ElementsAre("rpc_port_proxy_get_port"));
  EXPECT_EQ(fake::Calls()[0].arguments, "proxy#1, 1");
  EXPECT_EQ(calls_before_listener, 1U);
}

TEST_F(APort, MayBeUsedByTheListenerOfTheConnectedEvent) {
  const auto port = MakePort(&listener);
  fake::QueueReply({11});
  int level = 0;
  listener.inside = [&] { level = port->get_agent_api_level(); };
  fake::Proxy().FireConnected();
  EXPECT_EQ(level, 11);
}

class ACallbackPort : public fake::PlatformTest, public testing::WithParamInterface<fake::Step> {
 protected:
  Listener listener;
};

TEST_P(ACallbackPort, ThatCannotBeFetchedIsIgnored) {
  const auto port = MakePort(&listener);
  fake::Next("rpc_port_proxy_get_port", GetParam());
  fake::Proxy().FireConnected();
  EXPECT_THAT(listener.events, ElementsAre("connected"));
  fake::QueueReply({11});
  EXPECT_EQ(port->get_agent_api_level(), 11);
  fake::ClearRecord();
  fake::Proxy().FireReceived();
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsProxyError("OnReceivedCB", "Failed to create parcel from port")));
}

INSTANTIATE_TEST_SUITE_P(InAnyWay, ACallbackPort,
                         testing::Values(fake::Fail(-5), fake::FailWithGarbage(-5),
                                         fake::FailWithNull(-22), fake::SucceedWithNull()));

using AConnectedPort = proxy::ConnectedPort;

TEST_F(AConnectedPort, DropsItsDelegatesBeforeItTellsOfADisconnection) {
  Post(&record);
  Post(&record);
  int alive_at_listener = -1;
  listener.inside = [&] { alive_at_listener = record.alive; };
  fake::Proxy().FireDisconnected();
  EXPECT_THAT(listener.events, ElementsAre("disconnected"));
  EXPECT_EQ(alive_at_listener, 0);
}

TEST_F(AConnectedPort, KeepsItsPortsAfterADisconnection) {
  fake::Proxy().FireDisconnected();
  fake::QueueReply({11});
  EXPECT_EQ(port->get_agent_api_level(), 11);
  const int seq = Post(&record);
  fake::DeliverDelegateMessage(1, seq, {});
  EXPECT_EQ(record.messages, 1);
}

TEST_F(AConnectedPort, OnlyTellsOfARejection) {
  Post(&record);
  fake::ClearRecord();
  fake::Proxy().FireRejected();
  EXPECT_THAT(listener.events, ElementsAre("rejected"));
  EXPECT_EQ(record.alive, 1);
  EXPECT_THAT(fake::Calls(), IsEmpty());
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_F(AConnectedPort, DestroysPendingDelegatesWithItself) {
  Post(&record);
  Post(&record);
  EXPECT_EQ(record.alive, 2);
  port.reset();
  EXPECT_EQ(record.alive, 0);
  EXPECT_EQ(record.messages, 0);
}

/* Dispatch. */

TEST_F(AConnectedPort, HandsAMessageToItsDelegate) {
  const int seq = Post(&record);
  int payload = 0;
  record.inside = [&](rpc_port_parcel_h parcel) { rpc_port_parcel_read_int32(parcel, &payload); };
  fake::ClearRecord();
  fake::DeliverDelegateMessage(1, seq, {77});
  EXPECT_EQ(record.messages, 1);
  EXPECT_EQ(payload, 77);
  EXPECT_THAT(fake::CallNames(),
              ElementsAre("rpc_port_parcel_create_from_port", "rpc_port_parcel_read_int32",
                          "rpc_port_parcel_read_int32", "rpc_port_parcel_read_int32",
                          "rpc_port_parcel_read_bool", "rpc_port_parcel_read_int32",
                          "rpc_port_parcel_destroy"));
  EXPECT_EQ(fake::Calls()[0].arguments, "callback port of proxy#1");
}

TEST_F(AConnectedPort, LogsAMessageThatCannotBeReceived) {
  fake::ClearRecord();
  fake::Proxy().FireReceived();
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsProxyError("OnReceivedCB", "Failed to create parcel from port")));
  EXPECT_THAT(fake::CallNames(), ElementsAre("rpc_port_parcel_create_from_port"));
}

TEST_F(AConnectedPort, DoesNotTouchTheGarbageOfAMessageThatCannotBeReceived) {
  fake::Next("rpc_port_parcel_create_from_port", fake::FailWithGarbage(-5));
  fake::Proxy().FireReceived();
  EXPECT_THAT(fake::CallNames(), ElementsAre("rpc_port_parcel_create_from_port"));
}

TEST_F(AConnectedPort, DoesNotUseTheOnceFlagOfAMessage) {
  const int seq = Post(&record);
  fake::DeliverDelegateMessage(1, seq, {}, /*once=*/true);
  fake::DeliverDelegateMessage(1, seq, {}, /*once=*/true);
  EXPECT_EQ(record.messages, 2);
}

TEST_F(AConnectedPort, RemovesAOneShotDelegateAfterItsFirstMessage) {
  Delegate::Record one_shot;
  Delegate::Record other;
  const int seq = Post(&one_shot, /*once=*/true);
  const int other_seq = Post(&other);
  fake::DeliverDelegateMessage(1, seq, {}, /*once=*/false);
  EXPECT_EQ(one_shot.messages, 1);
  EXPECT_EQ(one_shot.alive, 0);
  fake::DeliverDelegateMessage(1, seq, {});
  EXPECT_EQ(one_shot.messages, 1);
  fake::DeliverDelegateMessage(1, other_seq, {});
  EXPECT_EQ(other.messages, 1);
}

TEST_F(AConnectedPort, KeepsAOneShotDelegateAliveThroughItsOwnMessage) {
  const int seq = Post(&record, /*once=*/true);
  int alive_inside = 0;
  record.inside = [&](rpc_port_parcel_h) { alive_inside = record.alive; };
  fake::DeliverDelegateMessage(1, seq, {});
  EXPECT_EQ(alive_inside, 1);
  EXPECT_EQ(record.alive, 0);
}

TEST_F(AConnectedPort, WantsIdAndSequenceNumberToMatch) {
  Delegate::Record first;
  Delegate::Record second;
  const int first_seq = Post(&first);
  const int second_seq = Post(&second);
  fake::ClearRecord();
  fake::DeliverDelegateMessage(2, first_seq, {});
  fake::DeliverDelegateMessage(1, second_seq + 1, {});
  fake::DeliverDelegateMessage(1, -1, {});
  fake::DeliverDelegateMessage(0, first_seq, {});
  fake::DeliverDelegateMessage(-1, second_seq, {});
  fake::DeliverDelegateMessage(INT_MIN + 1, first_seq, {});  // another one by its highest bit alone
  EXPECT_EQ(first.messages + second.messages, 0);
  EXPECT_THAT(fake::Logs(), IsEmpty());
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  fake::DeliverDelegateMessage(1, second_seq, {});
  EXPECT_EQ(first.messages, 0);
  EXPECT_EQ(second.messages, 1);
}

class AnotherCommand : public proxy::ConnectedPort, public testing::WithParamInterface<int> {};

TEST_P(AnotherCommand, OnTheCallbackPortIsDropped) {
  const int seq = Post(&record);
  fake::ClearRecord();
  fake::DeliverMessage({GetParam(), 1, seq, false});
  EXPECT_EQ(record.messages, 0);
  EXPECT_THAT(fake::Logs(), IsEmpty());
  EXPECT_THAT(fake::CallNames(),
              ElementsAre("rpc_port_parcel_create_from_port", "rpc_port_parcel_read_int32",
                          "rpc_port_parcel_destroy"));
}

INSTANTIATE_TEST_SUITE_P(OfAnyValue, AnotherCommand,
                         testing::Values(0, 2, 10, -1, 0x01000000, 2147483647));

class AnUnreadableHeader : public proxy::ConnectedPort,
                           public testing::WithParamInterface<std::size_t> {};

TEST_P(AnUnreadableHeader, DropsTheMessage) {
  const int seq = Post(&record);
  ASSERT_EQ(seq, 0);  // what an unread number would be
  fake::ClearRecord();
  fake::Items header = {1, 1, seq, false};
  fake::DeliverMessage(fake::CutAfter(header, GetParam()));
  header.resize(GetParam(), 0);
  header.push_back(fake::UnreadableWithGarbage());
  fake::DeliverMessage(header);
  EXPECT_EQ(record.messages, 0);
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(AtEachItem, AnUnreadableHeader, testing::Values(0U, 1U, 2U, 3U));

TEST_F(AConnectedPort, FindsEachOfAHundredThousandDelegates) {
  constexpr int kDelegates = 100000;
  fake::SetRecording(false);
  std::vector<Delegate::Record> records(kDelegates);
  std::vector<int> seqs;
  for (Delegate::Record& each : records) seqs.push_back(Post(&each));
  for (const std::size_t i : {0U, 1U, 49999U, 99998U, 99999U}) {
    fake::DeliverDelegateMessage(1, seqs[i], {});
    EXPECT_EQ(records[i].messages, 1) << i;
  }
  int messages = 0;
  for (const Delegate::Record& each : records) messages += each.messages;
  EXPECT_EQ(messages, 5);
  fake::Proxy().FireDisconnected();
  int alive = 0;
  for (const Delegate::Record& each : records) alive += each.alive;
  EXPECT_EQ(alive, 0);
}

/* Sequence numbers. */

TEST(TheSequenceNumber, StartsAtZeroAndCountsOnForEveryDelegateOfTheProcess) {
  Delegate::Record record;
  EXPECT_EQ(MakeDelegate(&record)->seq(), 0);
  EXPECT_EQ(MakeDelegate(&record, false, DelegateId::RequestToUpdate)->seq(), 1);
  EXPECT_EQ(MakeDelegate(&record, true, DelegateId::GetModelVersionList)->seq(), 2);
  const auto a = MakeDelegate(&record);
  const auto b = MakeDelegate(&record);
  EXPECT_EQ(a->id(), b->id());
  EXPECT_EQ(b->seq(), a->seq() + 1);
}

TEST(TheSequenceNumber, IsUniqueAcrossThreads) {
  constexpr int kEach = 2000;
  const auto take = [](std::vector<int>* seqs) {
    Delegate::Record record;
    for (int i = 0; i < kEach; ++i) seqs->push_back(MakeDelegate(&record)->seq());
  };
  std::vector<int> a;
  std::vector<int> b;
  std::thread other(take, &b);
  take(&a);
  other.join();
  a.insert(a.end(), b.begin(), b.end());
  std::sort(a.begin(), a.end());
  for (int i = 0; i < 2 * kEach; ++i) EXPECT_EQ(a[static_cast<std::size_t>(i)], i);
}

/* Requests with a delegate. */

TEST_F(AConnectedPort, KeepsTheDelegateOfARequestThatCouldNotBeSent) {
  auto delegate = MakeDelegate(&record);
  const int seq = delegate->seq();
  fake::Next("rpc_port_parcel_send", fake::Fail(-32));
  EXPECT_THROW(port->GetUsableModelList(std::move(delegate), "id", "version"),
               proxy::InvalidIOException);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsProxyError("GetUsableModelList",
                                                     "Failed to send parcel. result(-32)")));
  EXPECT_EQ(record.alive, 1);
  fake::DeliverDelegateMessage(1, seq, {});
  EXPECT_EQ(record.messages, 1);
  fake::Proxy().FireDisconnected();
  EXPECT_EQ(record.alive, 0);
}

TEST_F(AConnectedPort, ReleasesTheParcelOfAFailedSendBehindItsRecord) {
  fake::Next("rpc_port_parcel_send", fake::Fail(-5));
  EXPECT_THROW(Post(&record), proxy::InvalidIOException);
  const auto trace = fake::Trace();
  ASSERT_GE(trace.size(), 3U);
  EXPECT_EQ(trace[trace.size() - 3], "rpc_port_parcel_send(parcel#1, main port of proxy#1)");
  EXPECT_EQ(trace[trace.size() - 2], "E GetUsableModelList: Failed to send parcel. result(-5)");
  EXPECT_EQ(trace[trace.size() - 1], "rpc_port_parcel_destroy(parcel#1)");
}

TEST_F(AConnectedPort, DispatchesAnAnswerThatArrivesInsideTheSend) {
  auto delegate = MakeDelegate(&record);
  const int seq = delegate->seq();
  fake::Next("rpc_port_parcel_send", fake::Hook([&] { fake::DeliverDelegateMessage(1, seq, {}); }));
  port->GetUsableModelList(std::move(delegate), "id", "version");
  EXPECT_EQ(record.messages, 1);
}

/* Requests with a reply. */

TEST_F(AConnectedPort, WaitsForTheReplyAndReleasesBothParcels) {
  fake::QueueReply({11});
  EXPECT_EQ(port->get_agent_api_level(), 11);
  const auto names = fake::CallNames();
  ASSERT_THAT(names, SizeIs(8));
  EXPECT_THAT(std::vector(names.begin(), names.begin() + 6),
              ElementsAre("rpc_port_parcel_create", "rpc_port_parcel_write_int32",
                          "rpc_port_parcel_send", "rpc_port_parcel_create_from_port",
                          "rpc_port_parcel_read_int32", "rpc_port_parcel_read_int32"));
  EXPECT_EQ(fake::CountCalls("rpc_port_parcel_destroy"), 2U);
  EXPECT_EQ(fake::Calls("rpc_port_parcel_create_from_port")[0].arguments, "main port of proxy#1");
}

TEST_F(AConnectedPort, DoesNotTouchTheGarbageOfAReplyThatCannotBeReceived) {
  fake::Next("rpc_port_parcel_create_from_port", fake::FailWithGarbage(-5));
  EXPECT_THROW(port->get_agent_api_level(), proxy::InvalidProtocolException);
}

TEST_F(AConnectedPort, DiscardsStrayMessagesAndWaitsOn) {
  const int seq = Post(&record);
  fake::QueueStray(1, {1, seq, false});
  fake::QueueStray(2);
  fake::QueueStray(-1, {"text", 5});
  fake::QueueStray(2147483647);
  fake::QueueReply({11});
  EXPECT_EQ(port->get_agent_api_level(), 11);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  EXPECT_EQ(record.messages, 0);
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_F(AConnectedPort, FailsWhenOnlyStrayMessagesCome) {
  fake::QueueStray(5);
  fake::QueueStray(1);
  EXPECT_THROW(port->get_agent_api_level(), proxy::InvalidProtocolException);
  EXPECT_EQ(fake::WaitingMessages(), 0U);
}

TEST_F(AConnectedPort, TakesAnUnreadableCommandForAStrayMessage) {
  fake::QueueMessage({fake::Unreadable()});
  fake::QueueMessage({fake::UnreadableWithGarbage()});
  fake::QueueReply({11});
  EXPECT_EQ(port->get_agent_api_level(), 11);
}

/* The lock. */

TEST_F(AConnectedPort, MayBeCalledAgainInsideASend) {
  fake::QueueReply({1});
  fake::QueueReply({2});
  int inner = 0;
  fake::Next("rpc_port_parcel_send", fake::Hook([&] { inner = port->get_agent_api_level(); }));
  EXPECT_EQ(port->get_agent_api_level(), 2);
  EXPECT_EQ(inner, 1);
}

TEST_F(AConnectedPort, BuildsItsParcelBeforeItTakesTheLock) {
  int inner = 0;
  fake::Next("rpc_port_parcel_write_int32", fake::Hook([&] {
               std::thread([&] {
                 fake::QueueReply({5});
                 inner = port->get_agent_api_level();
                 fake::QueueReply({6});
               }).join();
             }));
  EXPECT_EQ(port->get_agent_api_level(), 6);
  EXPECT_EQ(inner, 5);
}

TEST_F(AConnectedPort, DispatchesWhileAnotherThreadWaitsForAReply) {
  const int seq = Post(&record);
  fake::QueueReply({11});
  fake::Next("rpc_port_parcel_create_from_port", fake::Succeed().Entering([&] {
    // Here the calling thread holds the lock and waits.
    std::thread([&] { fake::DeliverDelegateMessage(1, seq, {}); }).join();
  }));
  EXPECT_EQ(port->get_agent_api_level(), 11);
  EXPECT_EQ(record.messages, 1);
}

TEST_F(AConnectedPort, HoldsNoLockWhenItCallsADelegate) {
  const int seq = Post(&record);
  int level = 0;
  record.inside = [&](rpc_port_parcel_h) {
    std::thread([&] {
      fake::QueueReply({11});
      level = port->get_agent_api_level();
    }).join();
  };
  fake::DeliverDelegateMessage(1, seq, {});
  EXPECT_EQ(level, 11);
}

}  // namespace
