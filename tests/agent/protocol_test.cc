// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "agent_world.h"
#include "protocol/parcel.h"
#include "raw_client.h"
#include "scenario/scenario_files.h"

namespace {

using sim::Parcel;

constexpr char kModels[] = R"(
  "agent": {"apiLevel": 11, "licence": "First line\nsecond line\n"},
  "models": [
    {"id": "a", "title": "A", "description": "about a", "versions": ["1", "2"]},
    {"id": "b", "title": "B", "description": "about b", "versions": ["7"],
     "apps": ["com.velmora.*"]}])";

/** A scenario with two models and more members. */
std::string WithModels(const std::string& members = "") {
  return "{" + std::string(kModels) + (members.empty() ? "" : ", " + members) + "}";
}

std::string WithMethod(const std::string& method, const std::string& script) {
  return WithModels("\"timeScale\": 0, \"methods\": {\"" + method + "\": {" + script + "}}");
}

Parcel Call(int method) {
  Parcel request;
  request.Int(method);
  return request;
}

/** A request with a delegate: its ID follows from the method. */
Parcel Ask(int method, int seq) {
  Parcel request;
  request.Int(method).Int(method - 4).Int(seq).Flag(false);
  return request;
}

Parcel AskModels(int method, int seq, const char* app = "com.example.client") {
  Parcel request = Ask(method, seq);
  request.Text(app).Text("1.0.0");
  return request;
}

Parcel AskVersions(int seq, const char* model, const char* app = "com.example.client") {
  Parcel request = Ask(7, seq);
  request.Text(model).Text("1").Text("title").Text("description").Text(app).Text("1.0.0");
  return request;
}

Parcel AskWork(int method, int seq, const std::vector<const char*>& models) {
  Parcel request = Ask(method, seq);
  request.Count(static_cast<int>(models.size()));
  for (const char* model : models) {
    request.Text(model).Text("").Text("t").Text("d");
  }
  request.Int(static_cast<int>(models.size()));
  return request;
}

/** What an answer begins with. */
Parcel AnswerHead(int delegate, int seq, int result) {
  Parcel head;
  head.Int(1).Int(delegate).Int(seq).Flag(false).Int(result);
  return head;
}

class AnAgent : public testing::Test {
 protected:
  void Begin(const std::string& document) {
    world_.emplace(document);
    client_.emplace();
    client_->Connect();
  }

  int Level() {
    client_->Send(Call(2));
    Parcel reply = client_->Reply();
    EXPECT_EQ(reply.Int(), 0);
    return reply.Int();
  }

  // Each message is held against one written field by field.
  void ExpectReply(const Parcel& expected) {
    EXPECT_EQ(client_->Reply().Bytes(), expected.Bytes());
  }
  void ExpectAnswer(const Parcel& expected) {
    EXPECT_EQ(client_->Answer().Bytes(), expected.Bytes());
  }
  void ExpectProgress(int method, int seq, std::vector<int> fields) {
    Parcel expected = AnswerHead(method - 4, seq, fields[0]);
    expected.Int(fields[1]).Int(fields[2]).Int(fields[3]).Int(fields[4]);
    ExpectAnswer(expected);
  }
  void ExpectEmptyList(int delegate, int seq, int result) {
    Parcel expected = AnswerHead(delegate, seq, result);
    expected.Count(0).Int(0);
    ExpectAnswer(expected);
  }

  std::optional<AgentWorld> world_;
  std::optional<RawClient> client_;
};

TEST_F(AnAgent, TellsItsApiLevel) {
  Begin(WithModels());
  client_->Send(Call(2));
  Parcel expected;
  expected.Int(0).Int(11);
  ExpectReply(expected);
}

TEST_F(AnAgent, TellsItsLicence) {
  Begin(WithModels());
  client_->Send(Call(3));
  Parcel expected;
  expected.Int(0).Text("First line\nsecond line\n");
  ExpectReply(expected);
}

TEST_F(AnAgent, AnswersWithTheTextOfACall) {
  Begin(WithMethod("get_license", R"("calls": [{"text": "one"}, {}])"));
  for (const char* text : {"one", "First line\nsecond line\n"}) {
    client_->Send(Call(3));
    Parcel expected;
    expected.Int(0).Text(text);
    ExpectReply(expected);
  }
}

TEST_F(AnAgent, ListsTheModelsOfACall) {
  Begin(WithMethod("GetModelVersionList", R"("calls": [
      {"models": [{"id": "x", "version": "9", "title": "X"}, {"id": "y", "description": "d"}]},
      {"models": [], "result": 7}])"));
  Parcel expected = AnswerHead(3, 1, 0);
  expected.Count(2).Text("x").Text("9").Text("X").Text("").Text("y").Text("").Text("").Text("d");
  expected.Int(2);
  client_->Send(AskVersions(1, "a"));
  ExpectAnswer(expected);
  client_->Send(AskVersions(2, "a"));
  Parcel none = AnswerHead(3, 2, 7);
  none.Count(0).Int(0);
  ExpectAnswer(none);
}

TEST_F(AnAgent, AnswersARequestForItsUpdate) {
  Begin(WithMethod("request_update", "\"result\": -5"));
  client_->Send(Call(4));
  Parcel expected;
  expected.Int(0).Int(-5);
  ExpectReply(expected);
}

TEST_F(AnAgent, AnswersARequestForUpdatesOfAList) {
  Begin(WithMethod("request_update_with_list", "\"result\": 3"));
  Parcel request = Call(10);
  request.Count(2).Text("one").Text("two").Int(2);
  client_->Send(request);
  Parcel expected;
  expected.Int(0).Int(3);
  ExpectReply(expected);
}

TEST_F(AnAgent, AnswersARequestForUpdatesOfAnEmptyList) {
  Begin(WithModels());
  Parcel request = Call(10);
  request.Count(0).Int(0);
  client_->Send(request);
  Parcel expected;
  expected.Int(0).Int(0);
  ExpectReply(expected);
}

TEST_F(AnAgent, ListsModelsWithoutDescriptions) {
  Begin(WithModels());
  client_->Send(AskModels(5, 41));
  Parcel expected = AnswerHead(1, 41, 0);
  expected.Count(1).Text("a").Text("2").Text("A").Text("").Int(1);
  ExpectAnswer(expected);
}

TEST_F(AnAgent, ListsModelsWithDescriptions) {
  Begin(WithModels());
  client_->Send(AskModels(6, 42));
  Parcel expected = AnswerHead(2, 42, 0);
  expected.Count(1).Text("a").Text("2").Text("A").Text("about a").Int(1);
  ExpectAnswer(expected);
}

TEST_F(AnAgent, ListsOtherModelsForAnotherApplication) {
  Begin(WithModels());
  client_->Send(AskModels(5, 0, "com.velmora.notes"));
  Parcel expected = AnswerHead(1, 0, 0);
  expected.Count(2);
  expected.Text("a").Text("2").Text("A").Text("");
  expected.Text("b").Text("7").Text("B").Text("");
  expected.Int(2);
  ExpectAnswer(expected);
}

TEST_F(AnAgent, ListsTheVersionsOfAModel) {
  Begin(WithModels());
  client_->Send(AskVersions(7, "a"));
  Parcel expected = AnswerHead(3, 7, 0);
  expected.Count(2);
  expected.Text("a").Text("1").Text("A").Text("about a");
  expected.Text("a").Text("2").Text("A").Text("about a");
  expected.Int(2);
  ExpectAnswer(expected);
}

TEST_F(AnAgent, ListsNoVersionsOfAModelThatTheApplicationHasNot) {
  Begin(WithModels());
  client_->Send(AskVersions(8, "b"));
  ExpectEmptyList(3, 8, 0);
  client_->Send(AskVersions(9, "unknown"));
  ExpectEmptyList(3, 9, 0);
}

TEST_F(AnAgent, ReportsTheProgressOfAnUpdate) {
  Begin(WithModels());
  client_->Send(AskWork(8, 5, {"a", "b"}));
  ExpectProgress(8, 5, {0, 1, 1, 2, 0});
  ExpectProgress(8, 5, {0, 1, 1, 2, 50});
  ExpectProgress(8, 5, {0, 1, 1, 2, 100});
  ExpectProgress(8, 5, {0, 1, 2, 2, 0});
  ExpectProgress(8, 5, {0, 1, 2, 2, 50});
  ExpectProgress(8, 5, {0, 2, 2, 2, 100});
}

TEST_F(AnAgent, ReportsTheProgressOfAnUninstallation) {
  Begin(WithModels());
  client_->Send(AskWork(9, 6, {"a"}));
  ExpectProgress(9, 6, {0, 1, 1, 1, 0});
  ExpectProgress(9, 6, {0, 1, 1, 1, 50});
  ExpectProgress(9, 6, {0, 2, 1, 1, 100});
}

TEST_F(AnAgent, IsDoneAtOnceWithNoModels) {
  Begin(WithModels());
  client_->Send(AskWork(8, 1, {}));
  ExpectProgress(8, 1, {0, 2, 0, 0, 0});
}

TEST_F(AnAgent, ReportsAFailedUpdateOnce) {
  Begin(WithMethod("RequestToUpdate", "\"result\": 5"));
  client_->Send(AskWork(8, 1, {"a", "b"}));
  ExpectProgress(8, 1, {5, 3, 0, 2, 0});
  client_->Send(AskWork(9, 2, {}));
  ExpectProgress(9, 2, {0, 2, 0, 0, 0});
}

TEST_F(AnAgent, ReportsTheProgressOfItsScenario) {
  Begin(WithMethod("RequestToUninstall", R"("result": 1, "repeat": 2, "progress": [
      {"state": -1, "index": 2, "count": 3, "percentage": 400, "delay": 1000},
      {"state": 9, "result": 10}])"));
  client_->Send(AskWork(9, 3, {"a"}));
  for (int round = 0; round < 2; ++round) {
    ExpectProgress(9, 3, {1, -1, 2, 3, 400});
    ExpectProgress(9, 3, {10, 9, 0, 0, 0});
  }
}

TEST_F(AnAgent, SaysThatKyrIsDisabled) {
  Begin(R"({"agent": {"kyr": "disabled"}, "models": [{"id": "m", "versions": ["1"]}]})");
  Parcel level;
  level.Int(0).Int(-1073741826);
  client_->Send(Call(2));
  ExpectReply(level);
  client_->Send(Call(4));
  ExpectReply(level);
  client_->Send(Call(3));
  Parcel licence;
  licence.Int(0).Text("SVCMGR_ERROR_KYR_DISABLED");
  ExpectReply(licence);
  client_->Send(AskModels(5, 0));
  ExpectEmptyList(1, 0, 8);
  client_->Send(AskModels(6, 1));
  ExpectEmptyList(2, 1, 8);
  client_->Send(AskVersions(2, "m"));
  ExpectEmptyList(3, 2, 8);
  client_->Send(AskWork(8, 3, {"m"}));
  ExpectProgress(8, 3, {8, 3, 0, 1, 0});
  client_->Send(AskWork(9, 4, {"m"}));
  ExpectProgress(9, 4, {8, 3, 0, 1, 0});
}

TEST_F(AnAgent, GivesOneResultAfterTheOther) {
  Begin(WithMethod("get_agent_api_level", "\"result\": [4, -1, 9]"));
  EXPECT_EQ(Level(), 4);
  EXPECT_EQ(Level(), -1);
  EXPECT_EQ(Level(), 9);
  EXPECT_EQ(Level(), 9);
}

TEST_F(AnAgent, AnswersWithTheDelegateAsItCame) {
  Begin(WithModels());
  Parcel request;
  request.Int(5).Int(-77).Int(2147483647).Flag(true).Text("x").Text("");
  client_->Send(request);
  Parcel expected;
  expected.Int(1).Int(-77).Int(2147483647).Flag(true).Int(0);
  expected.Count(1).Text("a").Text("2").Text("A").Text("").Int(1);
  ExpectAnswer(expected);
}

TEST_F(AnAgent, LiesAboutCountsWhenTold) {
  Begin(WithMethod("GetUsableModelList", "\"count\": 17, \"arrayCount\": -3"));
  client_->Send(AskModels(5, 0));
  Parcel expected = AnswerHead(1, 0, 0);
  expected.Count(-3).Text("a").Text("2").Text("A").Text("").Int(17);
  ExpectAnswer(expected);
}

TEST_F(AnAgent, AnswersADelegateSeveralTimesWhenTold) {
  Begin(WithMethod("GetModelVersionList", "\"repeat\": 3"));
  client_->Send(AskVersions(4, "b"));
  for (int i = 0; i < 3; ++i) {
    ExpectEmptyList(3, 4, 0);
  }
}

TEST_F(AnAgent, SendsStrayMessagesBeforeAReply) {
  Begin(WithMethod("get_agent_api_level", "\"stray\": 2"));
  client_->Send(Call(2));
  EXPECT_EQ(client_->Reply().Int(), 1);
  EXPECT_EQ(client_->Reply().Int(), 7);
  Parcel expected;
  expected.Int(0).Int(11);
  ExpectReply(expected);
}

TEST_F(AnAgent, SendsStrayMessagesBeforeAnAnswer) {
  Begin(WithMethod("GetModelVersionList", "\"stray\": 3"));
  client_->Send(AskVersions(4, "b"));
  EXPECT_EQ(client_->Answer().Int(), 0);
  Parcel unknown = client_->Answer();
  EXPECT_EQ(unknown.Int(), 1);
  EXPECT_EQ(unknown.Int(), 99);
  Parcel out_of_turn = client_->Answer();
  EXPECT_EQ(out_of_turn.Int(), 1);
  EXPECT_EQ(out_of_turn.Int(), 1);
  EXPECT_EQ(out_of_turn.Int(), 2147483647);
  ExpectEmptyList(3, 4, 0);
}

TEST_F(AnAgent, NeverAnswersWhenToldSo) {
  Begin(WithMethod("get_license", "\"fault\": \"never\", \"stray\": 1"));
  client_->Send(Call(3));
  EXPECT_EQ(client_->Reply().Int(), 1);
  EXPECT_EQ(Level(), 11) << "the next message is the next method's";
}

TEST_F(AnAgent, DropsTheConnectionInsteadOfAReply) {
  Begin(WithMethod("get_license", "\"fault\": \"drop\""));
  client_->Send(Call(3));
  EXPECT_THROW(client_->Reply(), sim::PlatformError);
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
}

TEST_F(AnAgent, DropsTheConnectionInsteadOfAnAnswer) {
  Begin(WithMethod("GetUsableModelList", "\"fault\": \"drop\""));
  client_->Send(AskModels(5, 0));
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
}

TEST_F(AnAgent, ServesOthersAfterItHasDroppedOne) {
  Begin(WithMethod("get_license", "\"fault\": \"drop\""));
  RawClient other;
  other.Connect();
  client_->Send(Call(3));
  EXPECT_THROW(client_->Reply(), sim::PlatformError);
  other.Send(Call(2));
  EXPECT_EQ(other.Reply().Int(), 0);
  client_.emplace();
  client_->Connect();
  EXPECT_EQ(Level(), 11);
}

TEST_F(AnAgent, DropsTheConnectionAfterAReply) {
  Begin(WithMethod("get_license", "\"fault\": \"drop-after\""));
  client_->Send(Call(3));
  Parcel expected;
  expected.Int(0).Text("First line\nsecond line\n");
  ExpectReply(expected);
  EXPECT_THROW(client_->Reply(), sim::PlatformError);
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
}

TEST_F(AnAgent, CrashesWhenToldSo) {
  Begin(WithMethod("GetUsableModelList", "\"fault\": \"crash\""));
  client_->Send(AskModels(5, 0));
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
  const int status = world_->AwaitEnd();
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST_F(AnAgent, CutsAReplyWhereTold) {
  Begin(WithMethod("get_license", "\"fault\": \"cut\", \"cutAt\": 6"));
  client_->Send(Call(3));
  Parcel whole;
  whole.Int(0).Text("First line\nsecond line\n");
  EXPECT_EQ(client_->Reply().Bytes(), whole.Bytes().substr(0, 6));
}

TEST_F(AnAgent, CutsAnAnswerInHalf) {
  Begin(WithMethod("GetUsableModelListWithDesc", "\"fault\": \"cut\""));
  client_->Send(AskModels(6, 3));
  Parcel whole = AnswerHead(2, 3, 0);
  whole.Count(1).Text("a").Text("2").Text("A").Text("about a").Int(1);
  EXPECT_EQ(client_->Answer().Bytes(), whole.Bytes().substr(0, whole.Bytes().size() / 2));
}

TEST_F(AnAgent, CutsOnlyTheFirstMessage) {
  Begin(WithMethod("GetModelVersionList", R"("fault": "cut", "cutAt": 1000, "repeat": 2)"));
  client_->Send(AskVersions(4, "b"));
  ExpectEmptyList(3, 4, 0);
  ExpectEmptyList(3, 4, 0);
}

TEST_F(AnAgent, BreaksOffInTheMiddleOfAMessage) {
  Begin(WithMethod("get_license", "\"fault\": \"truncated\""));
  client_->Send(Call(3));
  EXPECT_THROW(client_->Reply(), sim::PlatformError);
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
}

TEST_F(AnAgent, BreaksOffInTheMiddleOfAnAnswer) {
  Begin(WithMethod("GetModelVersionList", "\"fault\": \"truncated\""));
  client_->Send(AskVersions(4, "a"));
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
}

TEST_F(AnAgent, AnnouncesMoreThanAMessageMayHold) {
  Begin(WithMethod("get_license", "\"fault\": \"oversized\""));
  client_->Send(Call(3));
  EXPECT_THROW(client_->Reply(), sim::PlatformError);
}

TEST_F(AnAgent, AnnouncesANegativeLength) {
  Begin(WithMethod("get_license", "\"fault\": \"negative\""));
  client_->Send(Call(3));
  EXPECT_THROW(client_->Reply(), sim::PlatformError);
}

TEST_F(AnAgent, AnswersALaterRequestBeforeADelayedOne) {
  Begin(WithModels(R"("methods": {"GetUsableModelList": {"delay": 600000}})"));
  client_->Send(AskModels(5, 0));
  client_->Send(AskVersions(1, "b"));
  ExpectEmptyList(3, 1, 0);
  EXPECT_EQ(Level(), 11);
}

TEST_F(AnAgent, AnswersAfterADelay) {
  Begin(WithModels(R"("timeScale": 0.001, "methods": {
      "get_agent_api_level": {"delay": 10000}, "GetUsableModelList": {"delay": 1000}})"));
  client_->Send(AskModels(5, 0));
  EXPECT_EQ(client_->Answer().Int(), 1);
  EXPECT_EQ(Level(), 11);
}

TEST_F(AnAgent, ForgetsADelayedAnswerForAClientThatHasGone) {
  Begin(WithModels(R"("timeScale": 0.001, "methods": {"GetUsableModelList": {"delay": 20000}})"));
  client_->Send(AskModels(5, 0));
  client_.emplace();
  client_->Connect();
  client_->Send(AskModels(5, 1));
  Parcel answer = client_->Answer();
  EXPECT_EQ(answer.Int(), 1);
  EXPECT_EQ(answer.Int(), 1);
  EXPECT_EQ(answer.Int(), 1) << "the answer is the second client's";
}

TEST_F(AnAgent, ListsAThousandModels) {
  Begin(R"({"generate": 1000})");
  client_->Send(AskModels(5, 0));
  Parcel answer = client_->Answer();
  Parcel head = AnswerHead(1, 0, 0);
  EXPECT_EQ(answer.Bytes().substr(0, head.Bytes().size()), head.Bytes());
  for (int i = 0; i < 3; ++i) {
    answer.Int();
  }
  answer.Flag();
  answer.Int();
  ASSERT_EQ(answer.Count(), 1000);
  for (int i = 0; i < 1000; ++i) {
    EXPECT_THAT(answer.Text(), testing::StartsWith("generated.model."));
    answer.Text();
    answer.Text();
    EXPECT_EQ(answer.Text(), "");
  }
  EXPECT_EQ(answer.Int(), 1000);
}

TEST_F(AnAgent, CutsOffAClientThatCallsNoMethod) {
  Begin(WithModels());
  for (const int number : {0, 1, 11, -2, -2147483647 - 1}) {
    RawClient rude;
    rude.Connect();
    rude.Send(Call(number));
    EXPECT_TRUE(RawClient::Await([&] { return rude.disconnected() == 1; })) << number;
  }
  EXPECT_EQ(Level(), 11) << "others are served";
}

TEST_F(AnAgent, CutsOffAClientWhoseRequestEndsEarly) {
  Begin(WithModels());
  std::vector<Parcel> requests;
  requests.push_back(Parcel());
  requests.push_back(Ask(5, 0));
  requests.push_back(Ask(7, 0));
  requests.push_back(Call(8));
  Parcel endless = Ask(8, 0);
  endless.Count(2147483647).Text("id");
  requests.push_back(std::move(endless));
  Parcel unfinished = Call(10);
  unfinished.Count(3).Text("one");
  requests.push_back(std::move(unfinished));
  for (const Parcel& request : requests) {
    RawClient rude;
    rude.Connect();
    rude.Send(request);
    EXPECT_TRUE(RawClient::Await([&] { return rude.disconnected() == 1; }));
  }
  EXPECT_EQ(Level(), 11) << "others are served";
}

TEST_F(AnAgent, TakesANegativeCountForAnEmptyList) {
  Begin(WithModels());
  Parcel request = Ask(8, 0);
  request.Count(-1).Int(5);
  client_->Send(request);
  ExpectProgress(8, 0, {0, 2, 0, 0, 0});
}

TEST_F(AnAgent, ServesManyClientsAtOnce) {
  Begin(WithModels());
  std::deque<RawClient> clients(8);
  for (RawClient& client : clients) {
    client.Connect();
  }
  for (int round = 0; round < 20; ++round) {
    int seq = 100 * round;
    for (RawClient& client : clients) {
      client.Send(AskVersions(seq++, "b"));
    }
    seq = 100 * round;
    for (RawClient& client : clients) {
      Parcel expected = AnswerHead(3, seq++, 0);
      expected.Count(0).Int(0);
      EXPECT_EQ(client.Answer().Bytes(), expected.Bytes());
    }
  }
}

TEST_F(AnAgent, TurnsClientsAwayWhenTold) {
  world_.emplace(R"({"agent": {"refuse": true}})");
  RawClient client;
  ASSERT_EQ(client.StartConnecting(), 0);
  EXPECT_TRUE(RawClient::Await([&] { return client.rejected() == 1; }));
  EXPECT_FALSE(client.connected());
}

struct Door {
  const char* name;
  const char* agent;
  bool admitted;
};

void PrintTo(const Door& door, std::ostream* out) { *out << door.name; }

class AnAgentThatChooses : public AnAgent, public testing::WithParamInterface<Door> {};

TEST_P(AnAgentThatChooses, TurnsAwayTheClientsThatAreNamed) {
  world_.emplace(std::string("{\"agent\": {") + GetParam().agent + "}}");
  RawClient client;
  ASSERT_EQ(client.StartConnecting(), 0);
  EXPECT_TRUE(RawClient::Await([&] { return client.rejected() == 1 || client.connected(); }));
  EXPECT_EQ(client.connected(), GetParam().admitted);
}

INSTANTIATE_TEST_SUITE_P(
    Each, AnAgentThatChooses,
    testing::Values(Door{"ByAPattern", R"("refuse": ["com.other", "com.ex*"])", false},
                    Door{"AnotherOne", R"("refuse": ["com.other"])", true},
                    Door{"AllButThis", R"("refuse": true, "admit": ["com.example.client"])", true},
                    Door{"AllButAnotherOne", R"("refuse": ["com.*"], "admit": ["com.other"])",
                         false},
                    Door{"Nobody", R"("refuse": [])", true}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(AnAgent, AnswersDifferentlyFromCallToCall) {
  Begin(WithMethod("get_agent_api_level",
                   R"("result": [1, 2, 3, 4], "delay": 600000,
                      "calls": [{}, {"result": 9}, {"stray": 2}, {"fault": "drop"}])"));
  EXPECT_EQ(Level(), 1);
  EXPECT_EQ(Level(), 9);
  client_->Send(Call(2));
  EXPECT_EQ(client_->Reply().Int(), 1) << "a stray one";
  EXPECT_EQ(client_->Reply().Int(), 7) << "another one";
  Parcel reply = client_->Reply();
  EXPECT_EQ(reply.Int(), 0);
  EXPECT_EQ(reply.Int(), 3);
  client_->Send(Call(2));
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
}

TEST_F(AnAgent, SendsAnAnswerInDripsAndTheOthersBehindIt) {
  Begin(WithModels(R"("methods": {"GetUsableModelList": {
      "drip": {"bytes": 3, "pause": 1}, "calls": [{}, {"fault": "truncated"}]}})"));
  client_->Send(AskModels(5, 1));
  client_->Send(AskVersions(2, "b"));
  Parcel expected = AnswerHead(1, 1, 0);
  expected.Count(1).Text("a").Text("2").Text("A").Text("").Int(1);
  ExpectAnswer(expected);
  ExpectEmptyList(3, 2, 0);
  client_->Send(AskModels(5, 3));
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
}

TEST_F(AnAgent, TakesStepsOnceItHasAnswered) {
  Begin(WithMethod("get_license", R"("delay": 5, "steps": [{"drop": ["com.example.*"]}])"));
  client_->Send(Call(3));
  Parcel reply = client_->Reply();
  EXPECT_EQ(reply.Int(), 0);
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
}

TEST_F(AnAgent, IsNotToBeReachedByClientsThatItDoesNotAdmit) {
  world_.emplace(R"({"agent": {"clients": ["com.velmora.*"]}})");
  RawClient client;
  EXPECT_EQ(client.StartConnecting(), -13);
}

TEST_F(AnAgent, IsReachedByClientsThatItAdmits) {
  Begin(R"({"agent": {"clients": ["x", "com.example.*"]}})");
  EXPECT_EQ(Level(), 11);
}

TEST_F(AnAgent, AdmitsNobodyByAnEmptyList) {
  world_.emplace(R"({"agent": {"clients": []}})");
  RawClient client;
  EXPECT_EQ(client.StartConnecting(), -13);
}

TEST_F(AnAgent, CannotBeReachedWhenItDoesNotRun) {
  world_.emplace(R"({"agent": {"running": false}})");
  RawClient client;
  EXPECT_EQ(client.StartConnecting(), -5);
}

TEST_F(AnAgent, CannotBeReachedWhenItIsNotInstalled) {
  world_.emplace(R"({"agent": {"installed": false, "running": false}})");
  RawClient client;
  EXPECT_EQ(client.StartConnecting(), -22);
}

TEST_F(AnAgent, SaysTheSameEveryTime) {
  Begin(sim::FindScenario("result-codes").document);
  const auto hear = [this] {
    std::vector<std::string> bytes;
    for (int seq = 0; seq < 14; ++seq) {
      client_->Send(AskModels(5, seq));
      bytes.emplace_back(client_->Answer().Bytes());
      client_->Send(AskVersions(seq, "vision.segment"));
      bytes.emplace_back(client_->Answer().Bytes());
    }
    return bytes;
  };
  const auto first = hear();
  world_->Restart();
  client_.emplace();
  client_->Connect();
  EXPECT_EQ(hear(), first);
}

}  // namespace
