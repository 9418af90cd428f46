// SPDX-License-Identifier: Apache-2.0
// The catalogue of methods: each request and reply byte by byte.

#include <functional>
#include <string>
#include <vector>

#include "client.h"
#include "proxy.h"

namespace {

using fake::Count;
using fake::IsProxyError;
using proxy::AgentUpdateRequest;
using proxy::AIModelInfo;
using proxy::AIModelList;
using proxy::Delegate;
using proxy::DelegateId;
using proxy::MakeDelegate;
using proxy::SvcMgrAppPort;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

AIModelInfo Model(const char* id, const char* version, const char* title, const char* text) {
  return {id, version, title, text};
}

AIModelList ModelsOf(int count, const std::vector<const char*>& ids) {
  AIModelList list;
  for (const char* id : ids) list.models.push_back(Model(id, "2", "t", ""));
  list.count = count;
  return list;
}

/* What every method has in common. */

struct Method {
  const char* name;
  bool waits;
  std::function<void(SvcMgrAppPort&, Delegate::Record*)> call;
  const char* request;  // the bytes, with sequence number 0
};

void PrintTo(const Method& method, std::ostream* out) { *out << method.name; }

std::vector<Method> Methods() {
  const auto delegate = [](Delegate::Record* record, int id) {
    return MakeDelegate(record, false, static_cast<DelegateId>(id));
  };
  return {
      {"get_agent_api_level", true, [](SvcMgrAppPort& port, auto) { port.get_agent_api_level(); },
       "02 00 00 00"},
      {"get_license", true, [](SvcMgrAppPort& port, auto) { port.get_license(); }, "03 00 00 00"},
      {"request_update", true, [](SvcMgrAppPort& port, auto) { port.request_update(); },
       "04 00 00 00"},
      {"GetUsableModelList", false,
       [=](SvcMgrAppPort& port, auto record) {
         port.GetUsableModelList(delegate(record, 1), "app", "1.0");
       },
       "05 00 00 00 "
       "01 00 00 00 00 00 00 00 00 "
       "04 00 00 00 61 70 70 00 "
       "04 00 00 00 31 2e 30 00"},
      {"GetUsableModelListWithDesc", false,
       [=](SvcMgrAppPort& port, auto record) {
         port.GetUsableModelListWithDesc(delegate(record, 2), "app", "1.0");
       },
       "06 00 00 00 "
       "02 00 00 00 00 00 00 00 00 "
       "04 00 00 00 61 70 70 00 "
       "04 00 00 00 31 2e 30 00"},
      {"GetModelVersionList", false,
       [=](SvcMgrAppPort& port, auto record) {
         port.GetModelVersionList(delegate(record, 3), Model("m", "2", "ti", ""), "app", "1.0");
       },
       "07 00 00 00 "
       "03 00 00 00 00 00 00 00 00 "
       "02 00 00 00 6d 00 "
       "02 00 00 00 32 00 "
       "03 00 00 00 74 69 00 "
       "01 00 00 00 00 "
       "04 00 00 00 61 70 70 00 "
       "04 00 00 00 31 2e 30 00"},
      {"RequestToUpdate", false,
       [=](SvcMgrAppPort& port, auto record) {
         port.RequestToUpdate(delegate(record, 4), ModelsOf(2, {"m", "n"}));
       },
       "08 00 00 00 "
       "04 00 00 00 00 00 00 00 00 "
       "02 00 00 00 "
       "02 00 00 00 6d 00 02 00 00 00 32 00 02 00 00 00 74 00 01 00 00 00 00 "
       "02 00 00 00 6e 00 02 00 00 00 32 00 02 00 00 00 74 00 01 00 00 00 00 "
       "02 00 00 00"},
      {"RequestToUninstall", false,
       [=](SvcMgrAppPort& port, auto record) {
         port.RequestToUninstall(delegate(record, 5), ModelsOf(1, {"m"}));
       },
       "09 00 00 00 "
       "05 00 00 00 00 00 00 00 00 "
       "01 00 00 00 "
       "02 00 00 00 6d 00 02 00 00 00 32 00 02 00 00 00 74 00 01 00 00 00 00 "
       "01 00 00 00"},
      {"request_update_with_list", true,
       [](SvcMgrAppPort& port, auto) {
         AgentUpdateRequest request;
         request.agents.push_back("a");
         request.agents.push_back("bc");
         request.count = 2;
         port.request_update_with_list(request);
       },
       "0a 00 00 00 "
       "02 00 00 00 02 00 00 00 61 00 03 00 00 00 62 63 00 "
       "02 00 00 00"},
  };
}

class EachMethod : public proxy::ConnectedPort, public testing::WithParamInterface<Method> {
 protected:
  void Call() { GetParam().call(*port, &record); }
};

INSTANTIATE_TEST_SUITE_P(OfTheCatalogue, EachMethod, testing::ValuesIn(Methods()),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(EachMethod, SendsItsRequestByteByByte) {
  if (GetParam().waits) {
    fake::QueueBytes("00 00 00 00  02 00 00 00  41 00");
  }
  Call();
  ASSERT_THAT(fake::SentParcels(), SizeIs(1));
  EXPECT_EQ(fake::SentParcels()[0].Hex(), GetParam().request);
  EXPECT_THAT(fake::SentParcels(RPC_PORT_PORT_CALLBACK), IsEmpty());
  EXPECT_THAT(fake::Logs(), IsEmpty());
}

TEST_P(EachMethod, WritesNothingBeforeTheConnectedEvent) {
  const auto unconnected = proxy::MakePort(&listener);
  fake::ClearRecord();
  EXPECT_THROW(GetParam().call(*unconnected, &record), proxy::NotConnectedSocketException);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsProxyError(GetParam().name, "Not connected")));
  EXPECT_THAT(fake::Calls(), IsEmpty());
  EXPECT_EQ(record.alive, 0);
}

/* Replies. */

using AReply = proxy::ConnectedPort;

TEST_F(AReply, ToGetAgentApiLevelIsAnInt32) {
  fake::QueueBytes("00 00 00 00  0b 00 00 00");
  EXPECT_EQ(port->get_agent_api_level(), 11);
  fake::QueueBytes("00 00 00 00  fe ff ff bf");
  EXPECT_EQ(port->get_agent_api_level(), client::kKyrDisabled);
}

TEST_F(AReply, ToGetLicenseIsAString) {
  fake::QueueBytes("00 00 00 00  08 00 00 00 4c 69 63 65 6e 63 65 00");
  EXPECT_STREQ(port->get_license().get(), "Licence");
  fake::QueueBytes("00 00 00 00  01 00 00 00 00");
  EXPECT_STREQ(port->get_license().get(), "");
}

TEST_F(AReply, ToGetLicenseIsEmptyWhenTheTextIsNull) {
  fake::QueueReply({fake::NullText()});
  EXPECT_STREQ(port->get_license().get(), "");
}

TEST_F(AReply, ToGetLicenseMayBeLarge) {
  const std::string text(1 << 20, 'x');
  fake::QueueReply({text});
  EXPECT_EQ(port->get_license().get(), text);
}

TEST_F(AReply, ToRequestUpdateIsAnInt32) {
  fake::QueueBytes("00 00 00 00  f3 ff ff ff");
  EXPECT_EQ(port->request_update(), -13);
}

TEST_F(AReply, ToRequestUpdateWithListIsAnInt32) {
  fake::QueueBytes("00 00 00 00  05 00 00 00");
  EXPECT_EQ(port->request_update_with_list({}), 5);
}

/* Requests that carry lists. */

using ARequest = proxy::ConnectedPort;

TEST_F(ARequest, WritesTheAgentsCountAsItStands) {
  fake::QueueReply({0});
  AgentUpdateRequest request;
  request.agents.push_back("a");
  request.count = 9;
  port->request_update_with_list(request);
  EXPECT_THAT(fake::SentParcels()[0].items, ElementsAre(10, Count(1), "a", 9));
}

TEST_F(ARequest, WritesTheModelsCountAsItStands) {
  port->RequestToUninstall(MakeDelegate(&record, false, DelegateId::RequestToUninstall),
                           ModelsOf(-7, {"m"}));
  EXPECT_THAT(fake::SentParcels()[0].items,
              ElementsAre(9, 5, 0, false, Count(1), "m", "2", "t", "", -7));
}

TEST_F(ARequest, WritesTheDelegatesOwnOnceFlagAndSequenceNumber) {
  MakeDelegate(&record);
  port->GetUsableModelList(MakeDelegate(&record, /*once=*/true), "a", "1");
  EXPECT_THAT(fake::SentParcels()[0].items, ElementsAre(5, 1, 1, true, "a", "1"));
}

TEST_F(ARequest, IsNotSentWhenItsArrayCannotBeWritten) {
  fake::AtCall("rpc_port_parcel_write_array_count", 1, fake::Fail(-12));
  EXPECT_THROW(port->request_update_with_list({}), proxy::InvalidIOException);
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
}

}  // namespace
