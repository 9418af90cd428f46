// SPDX-License-Identifier: Apache-2.0
// The four requests that wait for their answer, and all that may keep it away.

#include <functional>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "SvcMgrAppProxyException.h"
#include "SvcmgrException.h"
#include "connection_support.h"
#include "event_support.h"
#include "model_support.h"
#include "rules.h"
#include "svcmgr_protocol.h"

namespace {

using fake::IsError;
using fake::IsInfo;
using fake::IsProxyError;
using testing::ElementsAreArray;

constexpr char kContextFile[] = "SvcMgrAppProxyHandler.cc";

struct Request {
  std::string name;       // the exported function, without the common prefix
  std::string operation;  // of the client context, and of the proxy
  int failure;            // what it returns without an answer
  std::string record;     // the one that follows then
  std::string no_proxy;   // the one that follows if there is no proxy
  bool tells_exceptions;  // whether its records tell exceptions apart
  int state;              // of updates, after it

  const rules::Function& function() const { return rules::Find("velmora_svcmgr_" + name); }
};

void PrintTo(const Request& request, std::ostream* out) { *out << request.operation; }

constexpr char kNoUpdate[] = "Failed to invoke_request_update. err = ";

const auto kRequests = testing::Values(
    Request{"get_license_fulltext", "get_license", SVCMGR_ERROR_NONE, "can't get agent license",
            "can't get agent license", true, 0},
    Request{"get_agent_api_level", "get_agent_api_level", SVCMGR_ERROR_INVALID_API_LEVEL,
            "invalid api level", "invalid api level", true, 0},
    Request{"request_update", "request_update", SVCMGR_ERROR_NOT_CONNECTED,
            kNoUpdate + std::string("-38"), kNoUpdate + std::string("-38"), true, 1},
    Request{"request_update_with_list", "request_update_with_list", SVCMGR_ERROR_NOT_CONNECTED,
            kNoUpdate + std::string("-38"), kNoUpdate + std::string("-107"), false, 1});

struct Mishap {
  std::string name;
  std::function<void()> prepare;
  std::string proxy_message;  // of the proxy's record; empty if it writes none
  std::string message;        // of the context's, if that tells exceptions apart
};

void PrintTo(const Mishap& row, std::ostream* out) { *out << row.name; }

constexpr char kOfTheProxy[] = "PROXY EXCEPTION!!!";
constexpr char kUnknown[] = "Unknown Exception";

Mishap Failing(const char* name, const char* function, const char* proxy_message) {
  return {name, [=] { fake::Next(function, fake::Fail(-32)); }, proxy_message, kOfTheProxy};
}

Mishap Replying(const char* name, const fake::Item& item) {
  return {name, [=] { fake::QueueReply({item}); }, "Invalid protocol", kOfTheProxy};
}

template <typename T>
Mishap Throwing(const char* name, const char* message) {
  return {name, [] { fake::Next("rpc_port_parcel_send", fake::Throw(T())); }, "", message};
}

struct Unnamed {};

Mishap Making(const char* name, const fake::Step& step) {
  return {name, [=] { fake::Next("rpc_port_parcel_create", step); }, "", kOfTheProxy};
}

const auto kMishaps = testing::Values(
    Making("NotMade", fake::Fail(-32)), Making("NotMadeButGarbage", fake::FailWithGarbage(-32)),
    Making("MadeButNothing", fake::SucceedWithNull()),
    Failing("NotWritten", "rpc_port_parcel_write_int32", ""),
    Failing("NotSent", "rpc_port_parcel_send", "Failed to send parcel. result(-32)"),
    Mishap{"NoReply", [] {}, "Invalid protocol", kOfTheProxy},
    Replying("AnUnreadableReply", fake::Unreadable()),
    Replying("AReplyOfGarbage", fake::UnreadableWithGarbage()),
    Throwing<AppInfoException>("AppInfo", "Failed to get app info."),
    Throwing<rpc::Exception>("TheProxysRoot", kOfTheProxy),
    Throwing<rpc::NotConnectedSocketException>("NotConnected", kOfTheProxy),
    Throwing<rpc::InvalidProtocolException>("InvalidProtocol", kOfTheProxy),
    Throwing<rpc::InvalidIOException>("InvalidIO", kOfTheProxy),
    Throwing<rpc::PermissionDeniedException>("PermissionDenied", kOfTheProxy),
    Throwing<rpc::InvalidIDException>("InvalidID", kOfTheProxy),
    Throwing<SvcmgrException>("TheClientsBase", kUnknown),
    Throwing<std::bad_alloc>("OutOfMemory", kUnknown),
    Throwing<std::exception>("AStandardOne", kUnknown),
    Throwing<Unnamed>("AnUnknownClass", kUnknown), Throwing<int>("ANumber", kUnknown));

void ExpectRecords(const Request& request, const std::string& proxy_message,
                   const std::string& message, const std::string& follow_up) {
  std::vector<testing::Matcher<const fake::LogRecord&>> records;
  if (!proxy_message.empty()) {
    records.emplace_back(IsProxyError(request.operation, proxy_message));
  }
  records.emplace_back(IsError(kContextFile, request.operation, message));
  records.emplace_back(IsInfo("velmora_svcmgr.cc", request.function().name, follow_up));
  EXPECT_THAT(fake::Logs(), ElementsAreArray(records));
}

class AMishap : public fake::PlatformTest,
                public testing::WithParamInterface<std::tuple<Request, Mishap>> {};

INSTANTIATE_TEST_SUITE_P(Of, AMishap, testing::Combine(kRequests, kMishaps), [](const auto& row) {
  return std::get<0>(row.param).operation + "_" + std::get<1>(row.param).name;
});

TEST_P(AMishap, KeepsTheAnswerAwayAndLeavesTheConnectionUsable) {
  const auto& [request, mishap] = GetParam();
  rules::Stage stage;
  connection::Stand();
  const std::string before = stage.Contents();
  mishap.prepare();
  EXPECT_EQ(request.function().Call(stage), request.failure);
  ExpectRecords(request, mishap.proxy_message, request.tells_exceptions ? mishap.message : kUnknown,
                request.record);
  EXPECT_EQ(stage.Contents(), before);
  EXPECT_EQ(events::State(), request.state);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  fake::QueueReply(request.function().reply);
  EXPECT_EQ(request.function().Call(stage), SVCMGR_ERROR_NONE);
  EXPECT_EQ(fake::WaitingMessages(), 0U);
}

class AWaitingRequest : public fake::PlatformTest, public testing::WithParamInterface<Request> {};

INSTANTIATE_TEST_SUITE_P(Of, AWaitingRequest, kRequests,
                         [](const auto& row) { return row.param.operation; });

TEST_P(AWaitingRequest, ComesToNothingIfItIsConnectedWithoutAProxy) {
  rules::Stage stage;
  connection::StandWithoutProxy();
  const std::string before = stage.Contents();
  EXPECT_EQ(GetParam().function().Call(stage), GetParam().failure);
  ExpectRecords(GetParam(), "", "Not connected", GetParam().no_proxy);
  EXPECT_EQ(stage.Contents(), before);
  EXPECT_EQ(events::State(), 0);
}

TEST_P(AWaitingRequest, DoesNotLookAtTheReplyIfItCannotBeSent) {
  rules::Stage stage;
  connection::Stand();
  fake::Next("rpc_port_parcel_send", fake::Fail(-32));
  fake::QueueReply(GetParam().function().reply);
  EXPECT_EQ(GetParam().function().Call(stage), GetParam().failure);
  EXPECT_EQ(fake::WaitingMessages(), 1U);
}

}  // namespace
