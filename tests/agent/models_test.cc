// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "agent_world.h"
#include "protocol/parcel.h"
#include "raw_client.h"

namespace {

using sim::Parcel;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kUpdate = 8;
constexpr int kUninstall = 9;

using Request = std::vector<std::pair<std::string, std::string>>;  // IDs and versions

/** One message as numbers: result, state, index, count, percentage. */
using Progress = std::vector<int>;

std::string Content(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream content;
  content << stream.rdbuf();
  return content.str();
}

class AStore : public testing::Test {
 protected:
  /** `update` goes into both model methods, `more` into the scenario. */
  void Begin(const std::string& work = "", const std::string& more = "") {
    const std::string script = work.empty() ? "{}" : "{" + work + "}";
    world_.emplace(R"({"models": [
        {"id": "a/b", "versions": ["1", "2"], "available": ["3"], "size": 1000},
        {"id": "new", "versions": [], "available": ["0.9"], "size": 300000},
        {"id": "c", "versions": ["7"]}], "methods": {"RequestToUpdate": )" +
                   script + ", \"RequestToUninstall\": " + script + "}" +
                   (more.empty() ? "" : ", " + more) + "}");
    client_.emplace();
    client_->Connect();
  }

  void Ask(int method, int seq, const Request& models) {
    Parcel request;
    request.Int(method).Int(method - 4).Int(seq).Flag(false);
    request.Count(static_cast<int>(models.size()));
    for (const auto& [id, version] : models) {
      request.Text(id.c_str()).Text(version.c_str()).Text("").Text("");
    }
    request.Int(static_cast<int>(models.size()));
    client_->Send(request);
  }

  /** The next message, and whose it is. */
  Progress Next(int* seq = nullptr) {
    Parcel answer = client_->Answer();
    answer.Int();
    answer.Int();
    const int number = answer.Int();
    if (seq != nullptr) {
      *seq = number;
    }
    answer.Flag();
    Progress progress;
    for (int i = 0; i < 5; ++i) {
      progress.push_back(answer.Int());
    }
    return progress;
  }

  /** All messages of an operation, to the one that ends it. */
  std::vector<Progress> Follow(int method, const Request& models) {
    Ask(method, 0, models);
    std::vector<Progress> messages;
    do {
      messages.push_back(Next());
    } while (messages.back()[1] == 1);
    return messages;
  }

  /** What a list query answers: IDs and versions. */
  Request List(Parcel request) {
    client_->Send(request);
    Parcel answer = client_->Answer();
    for (int i = 0; i < 3; ++i) {
      answer.Int();
    }
    answer.Flag();
    answer.Int();
    Request list;
    for (int left = answer.Count(); left > 0; --left) {
      const std::string id = answer.Text();
      list.emplace_back(id, answer.Text());
      answer.Text();
      answer.Text();
    }
    return list;
  }
  Request Usable() {
    Parcel request;
    request.Int(5).Int(1).Int(0).Flag(false).Text("x").Text("1");
    return List(std::move(request));
  }
  Request Versions(const char* id) {
    Parcel request;
    request.Int(7).Int(3).Int(0).Flag(false);
    request.Text(id).Text("").Text("").Text("").Text("x").Text("1");
    return List(std::move(request));
  }

  std::string StoreFile(const std::string& name) const {
    return world_->folder() + "/xdg/data/models/" + name;
  }
  std::vector<std::string> StoreFiles() const {
    std::vector<std::string> files;
    const std::string store = StoreFile("");
    if (std::filesystem::exists(store)) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(store)) {
        if (entry.is_regular_file()) {
          files.push_back(entry.path().string().substr(store.size()));
        }
      }
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  std::optional<AgentWorld> world_;
  std::optional<RawClient> client_;
};

TEST_F(AStore, UpdatesAModelToItsNewestVersion) {
  Begin("\"parts\": 4");
  EXPECT_THAT(
      Follow(kUpdate, {{"a/b", ""}}),
      ElementsAre(Progress{0, 1, 1, 1, 0}, Progress{0, 1, 1, 1, 25}, Progress{0, 1, 1, 1, 50},
                  Progress{0, 1, 1, 1, 75}, Progress{0, 2, 1, 1, 100}));
  EXPECT_EQ(Usable(), (Request{{"a/b", "3"}, {"c", "7"}}));
  EXPECT_EQ(Versions("a/b"), (Request{{"a/b", "1"}, {"a/b", "2"}, {"a/b", "3"}}));
  EXPECT_THAT(StoreFiles(), ElementsAre("a%2fb/1", "a%2fb/2", "a%2fb/3"));
  EXPECT_EQ(Content(StoreFile("a%2fb/3")).size(), 1000u);
}

TEST_F(AStore, InstallsAModelThatWasNotThere) {
  Begin();
  EXPECT_EQ(Usable(), (Request{{"a/b", "2"}, {"c", "7"}}));
  Follow(kUpdate, {{"new", "0.9"}});
  EXPECT_EQ(Usable(), (Request{{"a/b", "2"}, {"new", "0.9"}, {"c", "7"}}));
  EXPECT_EQ(Content(StoreFile("new/0.9")).size(), 300000u);
}

TEST_F(AStore, UninstallsAModelWithAllVersions) {
  Begin();
  EXPECT_THAT(
      Follow(kUninstall, {{"a/b", "1"}}),
      ElementsAre(Progress{0, 1, 1, 1, 0}, Progress{0, 1, 1, 1, 50}, Progress{0, 2, 1, 1, 100}));
  EXPECT_EQ(Usable(), (Request{{"c", "7"}}));
  EXPECT_THAT(StoreFiles(), IsEmpty());
  EXPECT_THAT(Follow(kUninstall, {{"a/b", ""}}), ElementsAre(Progress{4, 3, 1, 1, 0}));
  Follow(kUpdate, {{"a/b", "2"}});
  EXPECT_EQ(Usable(), (Request{{"a/b", "2"}, {"c", "7"}}));
}

TEST_F(AStore, ListsTheVersionsThatAnUpdateCanBringWhateverIsInstalled) {
  Begin();
  const Request versions = {{"a/b", "1"}, {"a/b", "2"}, {"a/b", "3"}};
  EXPECT_EQ(Versions("a/b"), versions);
  EXPECT_EQ(Versions("new"), (Request{{"new", "0.9"}}));
  Follow(kUninstall, {{"a/b", ""}});
  EXPECT_EQ(Versions("a/b"), versions);
  for (const auto& version : versions) {
    EXPECT_EQ(Follow(kUpdate, {version}).back(), (Progress{0, 2, 1, 1, 100}));
  }
}

TEST_F(AStore, OutlivesTheAgent) {
  Begin();
  Follow(kUninstall, {{"c", ""}});
  Follow(kUpdate, {{"new", ""}});
  world_->Restart();
  client_.emplace();
  client_->Connect();
  EXPECT_EQ(Usable(), (Request{{"a/b", "2"}, {"new", "0.9"}}));
}

TEST_F(AStore, CopiesVersionsFromARepository) {
  const TempFolder repository;
  std::filesystem::create_directory(repository.path() + "/a%2fb");
  std::string content;
  for (int i = 0; i < 100000; ++i) {
    content += std::to_string(i);
  }
  repository.Write("a%2fb/3", content);
  Begin("\"parts\": 7", "\"repository\": \"" + repository.path() + "\"");
  EXPECT_EQ(Follow(kUpdate, {{"a/b", ""}}).back(), (Progress{0, 2, 1, 1, 100}));
  EXPECT_EQ(Content(StoreFile("a%2fb/3")), content);
  EXPECT_EQ(Follow(kUpdate, {{"new", ""}}).back()[0], 4) << "it is not in the repository";
}

TEST_F(AStore, HasNoVersionsThatTheScenarioDoesNotName) {
  Begin();
  EXPECT_THAT(Follow(kUpdate, {{"c", "8"}}), ElementsAre(Progress{4, 3, 1, 1, 0}));
  EXPECT_THAT(Follow(kUpdate, {{"../c", ""}}), ElementsAre(Progress{4, 3, 1, 1, 0}));
  EXPECT_THAT(StoreFiles(), IsEmpty());
}

TEST_F(AStore, RunsOutOfSpaceInTheMiddle) {
  Begin("\"parts\": 4", "\"space\": 219000");  // 67536 are taken
  EXPECT_THAT(Follow(kUpdate, {{"a/b", "3"}, {"new", ""}}).back(), ElementsAre(5, 3, 2, 2, 75));
  EXPECT_EQ(Usable(), (Request{{"a/b", "3"}, {"c", "7"}}));
  EXPECT_THAT(StoreFiles(), ElementsAre("a%2fb/1", "a%2fb/2", "a%2fb/3"));
}

TEST_F(AStore, FailsAtAChosenModelAndPercentage) {
  Begin(R"("parts": 10, "failAt": {"model": 2, "percentage": 33, "result": 6})");
  const auto messages = Follow(kUpdate, {{"a/b", ""}, {"new", ""}, {"c", ""}});
  EXPECT_THAT(messages.back(), ElementsAre(6, 3, 2, 3, 33));
  EXPECT_THAT(messages[messages.size() - 2], ElementsAre(0, 1, 2, 3, 30));
  EXPECT_EQ(Usable(), (Request{{"a/b", "3"}, {"c", "7"}}));
}

TEST_F(AStore, NeverEndsWhereToldSo) {
  Begin(R"("stopAt": {"percentage": 40})");
  Ask(kUpdate, 1, {{"a/b", ""}});
  EXPECT_EQ(Next(), (Progress{0, 1, 1, 1, 0}));
  EXPECT_EQ(Next(), (Progress{0, 1, 1, 1, 40}));
  EXPECT_EQ(Usable(), (Request{{"a/b", "2"}, {"c", "7"}})) << "the next message is the list";
  EXPECT_THAT(StoreFiles(), IsEmpty());
}

TEST_F(AStore, ReportsAPointAtTheEndOfAPartOnce) {
  Begin(R"("calls": [{"stopAt": {"percentage": 50}}, {"stopAt": {"percentage": 100}}])");
  Ask(kUpdate, 1, {{"a/b", ""}});
  for (const int percentage : {0, 50}) EXPECT_EQ(Next(), (Progress{0, 1, 1, 1, percentage}));
  Ask(kUpdate, 2, {{"a/b", ""}});
  for (const int percentage : {0, 50, 100}) EXPECT_EQ(Next(), (Progress{0, 1, 1, 1, percentage}));
  EXPECT_EQ(Usable(), (Request{{"a/b", "2"}, {"c", "7"}})) << "the next message is the list";
}

TEST_F(AStore, DiesWhereToldSo) {
  Begin(R"("crashAt": {"percentage": 40})");
  Ask(kUpdate, 1, {{"a/b", ""}});
  EXPECT_EQ(Next()[4], 0);
  EXPECT_EQ(Next(), (Progress{0, 1, 1, 1, 40}));
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
  const int status = world_->AwaitEnd();
  EXPECT_TRUE(WIFSIGNALED(status));
}

TEST_F(AStore, LosesItsClientWhereToldSoAndWorksOn) {
  Begin(R"("parts": 4, "dropAt": {"model": 1, "percentage": 50})");
  Ask(kUpdate, 1, {{"new", ""}});
  for (const int percentage : {0, 25, 50}) EXPECT_EQ(Next()[4], percentage);
  EXPECT_TRUE(RawClient::Await([&] { return client_->disconnected() == 1; }));
  client_.emplace();
  client_->Connect();
  while (Usable().size() != 3) {
  }
}

TEST_F(AStore, TakesStepsWhereToldSoAndGoesOnAfterThem) {
  Begin(R"("parts": 1, "stepsAt": {"percentage": 30, "steps": [{"apiLevel": 30}]},
           "failAt": {"percentage": 60})");
  Ask(kUpdate, 1, {{"new", ""}});
  EXPECT_EQ(Next()[4], 0);
  EXPECT_EQ(Next(), (Progress{0, 1, 1, 1, 30}));
  EXPECT_EQ(Next(), (Progress{1, 3, 1, 1, 60}));
  Parcel question;
  client_->Send(question.Int(2));
  Parcel reply = client_->Reply();
  reply.Int();
  EXPECT_EQ(reply.Int(), 30);
}

TEST_F(AStore, ReportsAPointAsTheLastOfWhatItReports) {
  Begin(R"("parts": 3, "stopAt": {"percentage": 40},
           "calls": [{"report": "ends"}, {"report": "swapped"}, {"report": "no-last"}])");
  for (const auto& expected :
       {std::vector<int>{0, 40}, std::vector<int>{33, 0, 40}, std::vector<int>{0, 33, 40}}) {
    Ask(kUpdate, 1, {{"a/b", ""}});
    for (const int percentage : expected) EXPECT_EQ(Next()[4], percentage);
  }
  EXPECT_EQ(Usable(), (Request{{"a/b", "2"}, {"c", "7"}})) << "the next message is the list";
}

TEST_F(AStore, WorksDifferentlyFromCallToCall) {
  Begin(R"("parts": 1, "calls": [{"failAt": {"percentage": 70}}, {"result": 7},
                                  {"progress": [{"state": 9}]}, {}])");
  EXPECT_EQ(Follow(kUpdate, {{"a/b", ""}}).back(), (Progress{1, 3, 1, 1, 70}));
  EXPECT_EQ(Follow(kUpdate, {{"a/b", ""}}).back(), (Progress{7, 3, 0, 1, 0}));
  EXPECT_EQ(Follow(kUpdate, {{"a/b", ""}}).back(), (Progress{0, 9, 0, 0, 0}));
  for (int further = 0; further < 3; ++further) {
    EXPECT_EQ(Follow(kUpdate, {{"a/b", ""}}).back(), (Progress{0, 2, 1, 1, 100}));
  }
  EXPECT_EQ(Follow(kUninstall, {{"a/b", ""}}).back()[4], 70) << "each method has its own calls";
}

struct Reporting {
  const char* name;
  const char* word;
  std::vector<int> percentages;
};

void PrintTo(const Reporting& reporting, std::ostream* out) { *out << reporting.name; }

class AStoreThatReports : public AStore, public testing::WithParamInterface<Reporting> {};

TEST_P(AStoreThatReports, SendsTheMessagesThatItIsTold) {
  Begin(std::string("\"parts\": 4, \"report\": \"") + GetParam().word + "\"");
  std::vector<int> percentages;
  for (const Progress& progress : Follow(kUpdate, {{"a/b", ""}})) {
    percentages.push_back(progress[4]);
  }
  EXPECT_EQ(percentages, GetParam().percentages);
}

INSTANTIATE_TEST_SUITE_P(Each, AStoreThatReports,
                         testing::Values(Reporting{"All", "all", {0, 25, 50, 75, 100}},
                                         Reporting{"Ends", "ends", {0, 100}},
                                         Reporting{"Last", "last", {100}},
                                         Reporting{"Swapped", "swapped", {25, 0, 75, 50, 100}}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(AStore, RepeatsEachMessageWhenTold) {
  Begin("\"parts\": 1, \"repeat\": 2");
  Ask(kUninstall, 0, {{"c", ""}});
  for (const Progress& expected : {Progress{0, 1, 1, 1, 0}, Progress{0, 1, 1, 1, 0},
                                   Progress{0, 2, 1, 1, 100}, Progress{0, 2, 1, 1, 100}}) {
    EXPECT_EQ(Next(), expected);
  }
}

TEST_F(AStore, DoesTheWorkWithoutSayingItIsOverWhenTold) {
  Begin("\"report\": \"no-last\"");
  Ask(kUninstall, 0, {{"c", ""}});
  EXPECT_EQ(Next()[4], 0);
  EXPECT_EQ(Next()[4], 50);
  while (Usable().size() != 1) {
  }
}

TEST_F(AStore, WorksOnTenOperationsAtOnce) {
  Begin("\"parts\": 20, \"pace\": 1");
  constexpr int kMany = 10;
  for (int seq = 0; seq < kMany; ++seq) {
    Ask(kUpdate, seq, {{seq % 2 == 0 ? "a/b" : "new", ""}, {"c", ""}});
  }
  std::vector<int> last(kMany, -1);
  for (int over = 0; over < kMany;) {
    int seq = -1;
    const Progress progress = Next(&seq);
    const int now = 1000 * progress[2] + progress[4];
    EXPECT_GT(now, last.at(static_cast<std::size_t>(seq)));
    EXPECT_EQ(progress[0], 0);
    last[static_cast<std::size_t>(seq)] = now;
    over += progress[1] == 2 ? 1 : 0;
  }
  EXPECT_EQ(Usable(), (Request{{"a/b", "3"}, {"new", "0.9"}, {"c", "7"}}));
  EXPECT_THAT(StoreFiles(), ElementsAre("a%2fb/1", "a%2fb/2", "a%2fb/3", "c/7", "new/0.9"));
}

TEST_F(AStore, HoldsNoPartOfAVersionAfterTheAgentHasBeenKilled) {
  Begin("\"parts\": 100, \"pace\": 1000");
  Ask(kUpdate, 0, {{"new", ""}});
  while (Next()[4] == 0) {
  }
  EXPECT_THAT(StoreFiles(), ElementsAre(testing::StartsWith("new/+")));
  world_->Kill();
  world_->Restart();
  EXPECT_THAT(StoreFiles(), IsEmpty());
  client_.emplace();
  client_->Connect();
  EXPECT_EQ(Usable(), (Request{{"a/b", "2"}, {"c", "7"}}));
}

TEST_F(AStore, GoesOnWhenTheClientLeaves) {
  Begin("\"parts\": 20, \"pace\": 1");
  Ask(kUpdate, 0, {{"new", ""}});
  Next();
  client_.emplace();
  client_->Connect();
  while (Usable().size() != 3) {
  }
}

TEST_F(AStore, StartsToWorkAfterTheDelay) {
  Begin("\"delay\": 600000");
  Ask(kUninstall, 0, {{"c", ""}});
  EXPECT_EQ(Usable(), (Request{{"a/b", "2"}, {"c", "7"}}));
}

}  // namespace
