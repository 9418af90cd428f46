// SPDX-License-Identifier: Apache-2.0
#include "world/recording.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "scenario/limits.h"
#include "scenario/scenario_reader.h"

namespace {

using sim::Fields;
using sim::Method;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ARecording : public testing::Test {
 protected:
  static sim::Package Agent() {
    sim::Package agent;
    agent.id = "com.velmora.svcmgr";
    agent.version = "2.3.0";
    return agent;
  }

  void Ask(std::int64_t time, Method method, int seq = 0) {
    sim::Request request;
    request.method = method;
    request.delegate = {sim::InfoOf(method).delegate, seq, false};
    recording_.Asked(time, "c", request);
  }

  Fields Made() {
    const Fields scenario = recording_.ToScenario("d", sim::Client(), {});
    EXPECT_NO_THROW(sim::ReadScenario(scenario.dump(), "made", "/")) << scenario.dump(1);
    return scenario;
  }

  sim::Recording recording_{Agent()};
};

TEST_F(ARecording, HasThePauseBeforeEachAnswer) {
  Ask(100, Method::kGetLicense);
  recording_.Replied(350, "c", sim::ReplyWith(std::string("t")).Bytes());
  Ask(400, Method::kRequestToUpdate, 1);
  sim::ProgressStep step;
  step.state = 1;
  for (const int time : {410, 410, 500}) {
    recording_.Answered(time, "c", sim::AnswerWith({4, 1, false}, 0, step).Bytes());
  }
  const Fields methods = Made()["methods"];
  EXPECT_EQ(methods["get_license"]["calls"][0], (Fields{{"delay", 250}, {"text", "t"}}));
  const Fields progress = methods["RequestToUpdate"]["calls"][0]["progress"];
  ASSERT_EQ(progress.size(), 3u);
  EXPECT_EQ(progress[0]["delay"], 10);
  EXPECT_FALSE(progress[1].contains("delay"));
  EXPECT_EQ(progress[2]["delay"], 90);
}

TEST_F(ARecording, CountsAnswersThatAreRepeatedAndTellsOfOthers) {
  Ask(0, Method::kGetUsableModelList, 1);
  using Models = std::vector<sim::ModelView>;
  const sim::Parcel answer = sim::AnswerWith({1, 1, false}, 0, Models{{"i", "v", "", ""}}, {{}, 8});
  for (int i = 0; i < 3; ++i) recording_.Answered(0, "c", answer.Bytes());
  recording_.Answered(0, "c", sim::AnswerWith({1, 1, false}, 5, Models()).Bytes());
  recording_.Answered(0, "c", sim::AnswerWith({1, 99, false}, 5, Models()).Bytes());
  const Fields call = Made()["methods"]["GetUsableModelList"]["calls"][0];
  EXPECT_EQ(call["repeat"], 3);
  EXPECT_EQ(call["count"], 8);
  EXPECT_EQ(call["models"], Fields::parse(R"([{"id": "i", "version": "v"}])"));
  EXPECT_THAT(recording_.Losses(),
              ElementsAre(HasSubstr("different answer"), HasSubstr("nothing")));
}

TEST_F(ARecording, LetsEventsFollowTheCallBeforeThem) {
  recording_.Published(0, {{"broadcast", "agent_status"}});
  Ask(10, Method::kRequestUpdate);
  recording_.Replied(10, "c", sim::ReplyWith(0).Bytes());
  recording_.Published(30, {{"broadcast", "a"}});
  recording_.Restarted(30, "2.4.0");
  recording_.Published(40, {{"broadcast", "b"}});
  EXPECT_EQ(Made()["methods"]["request_update"]["calls"][0]["steps"], Fields::parse(R"([
      {"wait": 20}, {"broadcast": "a"}, {"install": "2.4.0"}, {"restart": true}, {"wait": 10},
      {"broadcast": "b"}])"));
  EXPECT_THAT(recording_.Losses(), ElementsAre("an event before the first request"));
}

TEST_F(ARecording, TellsALossInsteadOfAnAnswerFromALossBehindIt) {
  Ask(0, Method::kGetLicense);
  recording_.Dropped(5, "c", "org.me");
  Ask(10, Method::kRequestUpdate);
  recording_.Replied(10, "c", sim::ReplyWith(3).Bytes());
  recording_.Dropped(10, "c", "org.me");
  const Fields methods = Made()["methods"];
  EXPECT_EQ(methods["get_license"]["calls"][0], (Fields{{"delay", 5}, {"fault", "drop"}}));
  EXPECT_EQ(methods["request_update"]["calls"][0]["steps"],
            Fields::parse(R"([{"drop": ["org.me"]}])"));
}

TEST_F(ARecording, HasNoMoreCallsThanAScenarioTakes) {
  for (std::size_t i = 0; i < sim::kMostCalls + 2; ++i) {
    Ask(0, Method::kGetAgentApiLevel);
    recording_.Replied(0, "c", sim::ReplyWith(static_cast<std::int32_t>(i)).Bytes());
  }
  EXPECT_THAT(recording_.Losses(), IsEmpty());
  EXPECT_EQ(Made()["methods"]["get_agent_api_level"]["calls"].size(), sim::kMostCalls);
  EXPECT_THAT(recording_.Losses(), ElementsAre(HasSubstr("beyond the first 100 (2 times)")));
}

}  // namespace
