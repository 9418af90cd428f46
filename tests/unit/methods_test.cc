// SPDX-License-Identifier: Apache-2.0
// The catalogue of methods: each request, reply and delegate message byte by byte.

#include <cstring>
#include <functional>
#include <limits>
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
using proxy::AIUpdateProgressInfo;
using proxy::Delegate;
using proxy::DelegateId;
using proxy::MakeDelegate;
using proxy::SvcMgrAppPort;
using svcmgr::CopyText;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

AIModelInfo Model(const char* id, const char* version, const char* title, const char* text) {
  return {CopyText(id), CopyText(version), CopyText(title), CopyText(text)};
}

AIModelList ModelsOf(int count, std::vector<const char*> ids) {
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
         request.agents.push_back(CopyText("a"));
         request.agents.push_back(CopyText("bc"));
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

  Delegate::Record record;
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

TEST_P(EachMethod, ReportsAFailedSendUnderItsName) {
  fake::Next("rpc_port_parcel_send", fake::Fail(-5));
  EXPECT_THROW(Call(), proxy::InvalidIOException);
  EXPECT_THAT(fake::Logs(),
              ElementsAre(IsProxyError(GetParam().name, "Failed to send parcel. result(-5)")));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  EXPECT_EQ(record.alive, GetParam().waits ? 0 : 1);
}

TEST_P(EachMethod, SendsNothingWhenItsParcelCannotBeMade) {
  fake::Next("rpc_port_parcel_create", fake::FailWithGarbage(-12));
  EXPECT_THROW(Call(), proxy::InvalidIOException);
  EXPECT_THAT(fake::CallNames(), ElementsAre("rpc_port_parcel_create"));
}

TEST_P(EachMethod, ReportsAMissingReplyUnderItsName) {
  if (!GetParam().waits) {
    Call();
    EXPECT_EQ(fake::CountCalls("rpc_port_parcel_create_from_port"), 0U);
    return;
  }
  EXPECT_THROW(Call(), proxy::InvalidProtocolException);
  EXPECT_THAT(fake::Logs(), ElementsAre(IsProxyError(GetParam().name, "Invalid protocol")));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
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
  request.agents.push_back(CopyText("a"));
  request.count = 9;
  port->request_update_with_list(request);
  EXPECT_THAT(fake::SentParcels()[0].items, ElementsAre(10, Count(1), "a", 9));
}

TEST_F(ARequest, WritesTheModelsCountAsItStands) {
  Delegate::Record record;
  port->RequestToUninstall(MakeDelegate(&record, false, DelegateId::RequestToUninstall),
                           ModelsOf(-7, {"m"}));
  EXPECT_THAT(fake::SentParcels()[0].items,
              ElementsAre(9, 5, 0, false, Count(1), "m", "2", "t", "", -7));
}

TEST_F(ARequest, WritesTheDelegatesOwnOnceFlagAndSequenceNumber) {
  Delegate::Record record;
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

/* Delegate messages with a list of models. */

/** What a delegate received. */
struct ReceivedModels {
  int calls = 0;
  int result = 0;
  int count = 0;
  std::vector<std::string> texts;  // four for each model
};

template <typename Base>
class ModelsDelegate : public Base {
 public:
  explicit ModelsDelegate(ReceivedModels* received) : received_(received) {}
  void OnReceived(int result, AIModelList list) override {
    ++received_->calls;
    received_->result = result;
    received_->count = list.count;
    for (const AIModelInfo& model : list.models) {
      for (const auto* text : {&model.id, &model.version, &model.title, &model.description}) {
        received_->texts.emplace_back(text->get());
      }
    }
  }

 private:
  ReceivedModels* received_;
};

struct ModelsKind {
  const char* name;
  int id;
  std::function<void(SvcMgrAppPort&, ReceivedModels*)> request;
};

void PrintTo(const ModelsKind& kind, std::ostream* out) { *out << kind.name; }

class AModelsMessage : public proxy::ConnectedPort, public testing::WithParamInterface<ModelsKind> {
 protected:
  void SetUp() override {
    ConnectedPort::SetUp();
    GetParam().request(*port, &received);
  }

  /** Delivers a payload to the delegate, which is the process's first. */
  void Deliver(const fake::Items& payload) {
    fake::DeliverDelegateMessage(GetParam().id, 0, payload);
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  }

  void ExpectFailure() const {
    EXPECT_EQ(received.calls, 1);
    EXPECT_EQ(received.result, -38);
    EXPECT_THAT(received.texts, IsEmpty());
    EXPECT_EQ(received.count, 0);
  }

  ReceivedModels received;
};

INSTANTIATE_TEST_SUITE_P(
    OfEachKind, AModelsMessage,
    testing::Values(
        ModelsKind{"GetUsableModelList", 1,
                   [](SvcMgrAppPort& port, ReceivedModels* received) {
                     port.GetUsableModelList(
                         std::make_unique<ModelsDelegate<proxy::GetUsableModelListCallback>>(
                             received),
                         "a", "1");
                   }},
        ModelsKind{
            "GetUsableModelListWithDesc", 2,
            [](SvcMgrAppPort& port, ReceivedModels* received) {
              port.GetUsableModelListWithDesc(
                  std::make_unique<ModelsDelegate<proxy::GetUsableModelListWithDescCallback>>(
                      received),
                  "a", "1");
            }},
        ModelsKind{"GetModelVersionList", 3,
                   [](SvcMgrAppPort& port, ReceivedModels* received) {
                     port.GetModelVersionList(
                         std::make_unique<ModelsDelegate<proxy::GetModelVersionListCallback>>(
                             received),
                         Model("m", "1", "t", "d"), "a", "1");
                   }}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(AModelsMessage, IsReadByteByByte) {
  const std::string id = "0" + std::to_string(GetParam().id);
  fake::DeliverBytes("01 00 00 00 " + id +
                     " 00 00 00  00 00 00 00  00 "
                     "06 00 00 00 "
                     "02 00 00 00 "
                     "02 00 00 00 61 00 02 00 00 00 62 00 02 00 00 00 63 00 02 00 00 00 64 00 "
                     "02 00 00 00 65 00 01 00 00 00 00 01 00 00 00 00 03 00 00 00 c3 a4 00 "
                     "02 00 00 00");
  EXPECT_EQ(received.calls, 1);
  EXPECT_EQ(received.result, 6);
  EXPECT_EQ(received.count, 2);
  EXPECT_THAT(received.texts, ElementsAre("a", "b", "c", "d", "e", "", "", "\xc3\xa4"));
}

TEST_P(AModelsMessage, KeepsACountThatDiffersFromTheList) {
  Deliver({0, Count(1), "a", "b", "c", "d", 41});
  EXPECT_EQ(received.count, 41);
  EXPECT_THAT(received.texts, SizeIs(4));
  Deliver({0, Count(1), "a", "b", "c", "d", -1});
  EXPECT_EQ(received.count, -1);
  EXPECT_EQ(received.calls, 2);
}

TEST_P(AModelsMessage, ReadsANullTextAsEmpty) {
  Deliver({0, Count(1), fake::NullText(), fake::NullText(), "c", fake::NullText(), 1});
  EXPECT_EQ(received.result, 0);
  EXPECT_THAT(received.texts, ElementsAre("", "", "c", ""));
}

TEST_P(AModelsMessage, IsAFailureWhenItCannotBeReadToItsEnd) {
  const fake::Items payload = {0, Count(2), "a", "b", "c", "d", "e", "f", "g", "h", 2};
  for (std::size_t n = 0; n < payload.size(); ++n) {
    SCOPED_TRACE(n);
    received = {};
    Deliver(fake::CutAfter(payload, n));
    ExpectFailure();
  }
}

TEST_P(AModelsMessage, IsAFailureWhenAnItemReadsAsGarbage) {
  const fake::Items payload = {0, Count(1), "a", "b", "c", "d", 1};
  for (std::size_t n = 0; n < payload.size(); ++n) {
    SCOPED_TRACE(n);
    received = {};
    fake::Items cut(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(n));
    cut.push_back(fake::UnreadableWithGarbage());
    Deliver(cut);
    ExpectFailure();
  }
}

TEST_P(AModelsMessage, TakesANegativeCountForAnEmptyList) {
  for (const int count : {-1, std::numeric_limits<int>::min()}) {
    received = {};
    Deliver({3, Count(count), 5});
    EXPECT_EQ(received.calls, 1);
    EXPECT_EQ(received.result, 3);
    EXPECT_EQ(received.count, 5);
    EXPECT_THAT(received.texts, IsEmpty());
  }
}

TEST_P(AModelsMessage, StopsAtTheFirstMissingElementOfALyingCount) {
  for (const int count : {2, 1000, std::numeric_limits<int>::max()}) {
    SCOPED_TRACE(count);
    received = {};
    Deliver({0, Count(count), "a", "b", "c", "d", fake::Unreadable()});
    ExpectFailure();
  }
}

TEST_P(AModelsMessage, SurvivesACountBelowTheElementsThatFollow) {
  const std::string id = "0" + std::to_string(GetParam().id);
  fake::DeliverBytes("01 00 00 00 " + id +
                     " 00 00 00  00 00 00 00  00  00 00 00 00 "
                     "01 00 00 00 "
                     "02 00 00 00 61 00 02 00 00 00 62 00 02 00 00 00 63 00 02 00 00 00 64 00 "
                     "02 00 00 00 65 00 02 00 00 00 66 00");
  EXPECT_EQ(received.calls, 1);
  EXPECT_EQ(received.result, 0);
  EXPECT_EQ(received.count, 2);  // the length of the text that stands there
  EXPECT_THAT(received.texts, SizeIs(4));
}

/* Delegate messages with progress. */

struct ReceivedProgress {
  int calls = 0;
  int result = 0;
  AIUpdateProgressInfo progress;
};

template <typename Base>
class ProgressDelegate : public Base {
 public:
  explicit ProgressDelegate(ReceivedProgress* received) : received_(received) {}
  void OnReceived(int result, AIUpdateProgressInfo progress) override {
    ++received_->calls;
    received_->result = result;
    received_->progress = progress;
  }

 private:
  ReceivedProgress* received_;
};

struct ProgressKind {
  const char* name;
  int id;
  std::function<void(SvcMgrAppPort&, ReceivedProgress*)> request;
};

void PrintTo(const ProgressKind& kind, std::ostream* out) { *out << kind.name; }

class AProgressMessage : public proxy::ConnectedPort,
                         public testing::WithParamInterface<ProgressKind> {
 protected:
  void SetUp() override {
    ConnectedPort::SetUp();
    GetParam().request(*port, &received);
  }

  void Deliver(const fake::Items& payload) {
    fake::DeliverDelegateMessage(GetParam().id, 0, payload);
    EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
  }

  void ExpectProgress(int state, int index, int count, int percentage) const {
    EXPECT_EQ(received.progress.state, state);
    EXPECT_EQ(received.progress.index, index);
    EXPECT_EQ(received.progress.count, count);
    EXPECT_EQ(received.progress.percentage, percentage);
  }

  ReceivedProgress received;
};

INSTANTIATE_TEST_SUITE_P(
    OfEachKind, AProgressMessage,
    testing::Values(
        ProgressKind{
            "RequestToUpdate", 4,
            [](SvcMgrAppPort& port, ReceivedProgress* received) {
              port.RequestToUpdate(
                  std::make_unique<ProgressDelegate<proxy::RequestToUpdateCallback>>(received), {});
            }},
        ProgressKind{"RequestToUninstall", 5,
                     [](SvcMgrAppPort& port, ReceivedProgress* received) {
                       port.RequestToUninstall(
                           std::make_unique<ProgressDelegate<proxy::RequestToUninstallCallback>>(
                               received),
                           {});
                     }}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(AProgressMessage, IsReadByteByByte) {
  const std::string id = "0" + std::to_string(GetParam().id);
  fake::DeliverBytes("01 00 00 00 " + id +
                     " 00 00 00  00 00 00 00  00 "
                     "02 00 00 00  03 00 00 00  04 00 00 00  05 00 00 00  64 00 00 00");
  EXPECT_EQ(received.calls, 1);
  EXPECT_EQ(received.result, 2);
  ExpectProgress(3, 4, 5, 100);
}

}  // namespace
