// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "judge.h"
#include "support/command.h"

namespace {

using soak::ClientLog;
using soak::History;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace fs = std::filesystem;

// ---- The judges, with a short story ----

std::string At(double time, const std::string& rest) {
  return "{\"monotonic\":" + std::to_string(time) + ",\"what\":" + rest + "}\n";
}

std::string Answer(double time, int number) {
  return At(time, R"("answer","client":1,"app":"a","delegate":{"seq":)" + std::to_string(number) +
                      R"(},"result":0,"models":[{"id":"m","version":"1"}])");
}

std::string Models(double time, const char* key) {
  return At(time, R"("event","data":{")" + std::string(key) + "\":1}");
}

/** An agent that answers twice, is killed, and is followed by another one that is silent. */
std::string Trace(const std::string& announcement = "") {
  return At(1, R"("start","process":"agent")") + Models(1.1, "Launch") +
         At(2.1, R"("connect","client":1,"app":"a")") +
         At(3.1, R"("request","app":"a","method":"X","arguments":{"delegate":{"seq":0}})") +
         Answer(3.2, 0) +
         At(4.1, R"("request","app":"a","method":"X","arguments":{"delegate":{"seq":1}})") +
         Models(4.2, "START") + Answer(4.3, 1) + Models(4.4, "COMPLETED") + announcement +
         At(5, R"("step")") + At(6, R"("end","process":"agent")") +
         At(7, R"("start","process":"agent")") + Models(7.1, "Launch") + Models(7.2, "FAILED") +
         At(8.1, R"("connect","client":1,"app":"a")") + Models(8.6, "START") + At(9, R"("step")");
}

constexpr char kAnnouncement[] = "{\"monotonic\":4.5,\"what\":\"event\",\"data\":{\"Update\":1}}\n";

using Lines = std::vector<std::string>;

const Lines kStory = {
    "1.5 begin",          "1.6 subscribed",        "1.7 connect 0",         "2.0 connection 0 0",
    "3.0 ask 0 X",        "3.3 answer 0 0 m@1",    "4.0 ask 0 X",           "4.5 model-status 0 17",
    "4.6 answer 1 0 m@1", "4.7 model-status 0 20", "6.1 connection 0 1",    "7.3 model-status 0 24",
    "8.0 connection 0 0", "8.5 updating 0 0",      "8.7 model-status 0 17", "9.5 end"};

History HistoryOf(const std::string& trace) {
  std::istringstream stream(trace);
  return soak::ReadTrace(stream);
}

ClientLog LogOf(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  std::istringstream stream(text);
  return soak::ReadLog("a", stream);
}

Lines Without(Lines lines, std::size_t index) {
  lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(index));
  return lines;
}

bool IsFound(const Lines& lines, const std::string& trace = Trace()) {
  return !soak::JudgeWhatWasTold(HistoryOf(trace), LogOf(lines)).empty();
}

TEST(TheJudge, FindsNothingInAStoryThatIsRight) {
  EXPECT_THAT(soak::JudgeWhatWasTold(HistoryOf(Trace()), LogOf(kStory)), IsEmpty());
  EXPECT_THAT(soak::JudgeRequests(HistoryOf(Trace()), LogOf(kStory)), IsEmpty());
}

TEST(TheJudge, FindsEachNoticeThatIsMissed) {
  for (const std::size_t index : {3U, 5U, 7U, 8U, 9U, 10U, 11U, 12U}) {
    EXPECT_TRUE(IsFound(Without(kStory, index))) << kStory[index];
  }
}

TEST(TheJudge, FindsEachNoticeThatComesTwice) {
  for (const std::size_t index : {3U, 5U, 7U, 8U, 9U, 10U, 11U, 12U}) {
    Lines lines = kStory;
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(index), kStory[index]);
    EXPECT_TRUE(IsFound(lines)) << kStory[index];
  }
}

TEST(TheJudge, FindsTwoEventsOrTwoAnswersInTheWrongOrder) {
  Lines lines = kStory;
  lines[7] = "4.5 model-status 0 20";
  lines[9] = "4.7 model-status 0 17";
  EXPECT_TRUE(IsFound(lines));
  lines = kStory;
  lines[5] = "4.55 answer 1 0 m@1";
  lines[8] = "4.6 answer 0 0 m@1";
  EXPECT_TRUE(IsFound(lines));
}

TEST(TheJudge, FindsASuccessorsEventBeforeTheLossOfTheAgentBefore) {
  Lines lines = kStory;
  lines[10] = "7.3 model-status 0 24";
  lines[11] = "7.4 connection 0 1";
  EXPECT_TRUE(IsFound(lines));
}

TEST(TheJudge, FindsAnAnswerThatIsNotWhatTheAgentSaid) {
  Lines lines = kStory;
  lines[5] = "3.3 answer 0 0 m@2";
  EXPECT_TRUE(IsFound(lines));
}

TEST(TheJudge, FindsWhatIsToldBeforeAnAgentHasSaidIt) {
  Lines lines = kStory;
  lines[5] = "3.15 answer 0 0 m@1";
  EXPECT_TRUE(IsFound(lines));
}

TEST(TheJudge, FindsALossThatIsToldAlthoughItWasAnnounced) {
  EXPECT_TRUE(IsFound(kStory, Trace(kAnnouncement)));
  // As it has to be: neither the loss nor the return is told, and the update counts as under way.
  Lines lines = Without(Without(kStory, 12), 10);
  EXPECT_TRUE(IsFound(lines, Trace(kAnnouncement)));
  lines[11] = "8.5 updating 0 1";
  EXPECT_FALSE(IsFound(lines, Trace(kAnnouncement)));
}

TEST(TheJudge, FindsALossWhereTheAgentLives) {
  const std::string trace = Trace();
  EXPECT_TRUE(IsFound(kStory, trace.substr(0, trace.find("{\"monotonic\":6."))));
}

TEST(TheJudge, LetsTheLastWordsOfAnAgentThatIsKilledBeMissed) {
  std::string trace = Trace();
  const auto step = trace.find("{\"monotonic\":5.");
  trace.erase(step, trace.find('\n', step) + 1 - step);
  EXPECT_FALSE(IsFound(Without(kStory, 9), trace));
  EXPECT_FALSE(IsFound(kStory, trace));
  EXPECT_TRUE(IsFound(Without(kStory, 8), trace)) << "the answer before was not the last word";
}

TEST(TheJudge, LetsEventsBeMissedWhileThereIsNoBus) {
  History history = HistoryOf(Trace());
  history.outages = {{4.15, 4.25}};
  EXPECT_THAT(soak::JudgeWhatWasTold(history, LogOf(Without(kStory, 7))), IsEmpty());
  EXPECT_FALSE(soak::JudgeWhatWasTold(history, LogOf(Without(kStory, 9))).empty());
}

TEST(TheJudge, FindsAClientThatWaitsInVainAlthoughAnAgentHasBegun) {
  Lines lines(kStory.begin(), kStory.begin() + 12);
  lines.insert(lines.end(), {"12 waited", "12 stranded"});
  lines.erase(lines.begin() + 11);
  EXPECT_TRUE(IsFound(lines));
}

TEST(TheJudge, FindsARequestThatAnAgentReadsTwiceOrThatWasNotAsked) {
  std::string trace = Trace();
  const auto request = trace.find("\"seq\":1");
  EXPECT_THAT(soak::JudgeRequests(HistoryOf(trace.replace(request, 7, "\"seq\":0")), LogOf(kStory)),
              ElementsAre(HasSubstr("request 0")));
  EXPECT_THAT(soak::JudgeRequests(HistoryOf(Trace()), LogOf(Without(kStory, 6))),
              ElementsAre(HasSubstr("request 1")));
}

Lines Usages(int descriptors, int sources, int memory) {
  Lines lines = {"0 begin"};
  for (int i = 0; i < 40; ++i) {
    lines.push_back("1 usage " + std::to_string(10 + i * descriptors / 10) + " " +
                    std::to_string(3 + i * sources / 10) + " " +
                    std::to_string(100000 + i * memory));
  }
  return lines;
}

TEST(TheJudge, FindsDescriptorsSourcesAndMemoryThatGrow) {
  EXPECT_THAT(soak::JudgeUsage(LogOf(Usages(0, 0, 100))), IsEmpty());
  EXPECT_THAT(soak::JudgeUsage(LogOf(Usages(1, 0, 0))), ElementsAre(HasSubstr("descriptors grow")));
  EXPECT_THAT(soak::JudgeUsage(LogOf(Usages(0, 1, 0))), ElementsAre(HasSubstr("sources")));
  EXPECT_THAT(soak::JudgeUsage(LogOf(Usages(0, 0, 4096))),
              ElementsAre(HasSubstr("allocated bytes grow")));
}

// ---- The soak itself ----

Ran Soak(const std::string& arguments) { return RunCommand("'" SOAK "' " + arguments + " 2>&1"); }

class Folder {
 public:
  Folder() : path_(testing::TempDir() + "/soak-XXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) abort();
  }
  ~Folder() { fs::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

bool IsToldToAClient(const std::string& what) {
  for (const char* word : {"connection", "update-status", "model-status", "answer", "progress"}) {
    if (what.rfind(std::string(word) + " ", 0) == 0) return true;
  }
  return false;
}

/** What is found of notices that are left out of a real story, or told twice. */
struct Spoilt {
  int notices = 0;
  int found_missing = 0;
  int found_twice = 0;
};

void Spoil(const History& history, const ClientLog& client, Spoilt* spoilt) {
  for (std::size_t i = 0; i < client.records.size(); ++i) {
    if (!IsToldToAClient(client.records[i].what)) continue;
    ClientLog spoilt_client = client;
    const auto here = spoilt_client.records.begin() + static_cast<std::ptrdiff_t>(i);
    ++spoilt->notices;
    const soak::Record notice = *here;
    spoilt_client.records.insert(here, notice);
    spoilt->found_twice += !soak::JudgeWhatWasTold(history, spoilt_client).empty();
    spoilt_client = client;
    spoilt_client.records.erase(spoilt_client.records.begin() + static_cast<std::ptrdiff_t>(i));
    spoilt->found_missing += !soak::JudgeWhatWasTold(history, spoilt_client).empty();
  }
}

TEST(AShortSoak, FindsNothingAndWouldHaveFoundEachNoticeThatWasMissedOrExtra) {
  const Folder folder;
  const Ran soaked =
      Soak("--once --kills 6 --stops 0 --buses 0 --seed 5 --keep '" + folder.path() + "'");
  ASSERT_EQ(soaked.status, 0) << soaked.output;
  std::ifstream trace(folder.path() + "/0-kills/trace");
  const History history = soak::ReadTrace(trace);
  Spoilt spoilt;
  for (const auto& entry : fs::directory_iterator(folder.path() + "/0-kills")) {
    if (entry.path().extension() != ".log") continue;
    std::ifstream stream(entry.path());
    Spoil(history, soak::ReadLog(entry.path().stem().string(), stream), &spoilt);
  }
  EXPECT_GT(spoilt.notices, 50) << soaked.output;
  // What an agent said last before its death may have been missed, or have come.
  EXPECT_GE(spoilt.found_missing * 10, spoilt.notices * 8);
  EXPECT_GE(spoilt.found_twice * 10, spoilt.notices * 9);
  std::cout << spoilt.found_missing << " missing, " << spoilt.found_twice << " extra of "
            << spoilt.notices << "\n";
}

struct PlantedFault {
  const char* name;
  const char* trouble;
  const char* found;
};

constexpr char kKills[] = "--kills 20 --buses 0";
// In which clients live long.
constexpr char kBuses[] = "--kills 0 --buses 12";

void PrintTo(const PlantedFault& fault, std::ostream* out) { *out << fault.name; }

class APlantedFault : public testing::TestWithParam<PlantedFault> {
 protected:
  void SetUp() override {
    if (getenv("SVCMGR_TEST_EXTRA") == nullptr) GTEST_SKIP() << "with ./dev test --extra";
  }
};
INSTANTIATE_TEST_SUITE_P(
    Of, APlantedFault,
    testing::Values(PlantedFault{"missed", kKills, "where there may have been"},
                    PlantedFault{"extra", kKills, "where there may have been"},
                    PlantedFault{"order", kKills, "where there may have been"},
                    PlantedFault{"descriptor", kBuses, "descriptors grow"},
                    PlantedFault{"source", kBuses, "sources of the main loop grow"},
                    PlantedFault{"memory", kBuses, "allocated bytes grow"}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(APlantedFault, IsFound) {
  const Ran soaked = Soak("--once --stops 0 --seed 7 " + std::string(GetParam().trouble) +
                          " --plant " + GetParam().name);
  EXPECT_EQ(soaked.status, 1) << soaked.output;
  EXPECT_THAT(soaked.output, HasSubstr(GetParam().found));
}

TEST(AWrongOption, IsRefused) { EXPECT_EQ(Soak("--kills none").status, 2); }

}  // namespace
