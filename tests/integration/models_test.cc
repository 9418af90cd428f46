// SPDX-License-Identifier: Apache-2.0
// What clients see of work on models, and what the agent's store holds then.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "scripted_run.h"
#include "unique_fd.h"

namespace {

using testing::ElementsAreArray;

const Lines kNothingMore = {"descriptors +0, memory as before"};

Lines Times(int times, const Lines& lines) {
  Lines all;
  for (int i = 0; i < times; ++i) all = all + lines;
  return all;
}

const Lines kConnect = {"follow-models", "connect", "until=connection: 0 0"};
const Lines kConnected = {"connect: 0", "connection: 0 0"};

/** What is said of one request's work, done in two parts for each model. */
Lines Progress(const std::string& request, int models) {
  Lines lines;
  const std::string count = std::to_string(models);
  for (int model = 1; model <= models; ++model) {
    const std::string position = request + ": 0 " + std::to_string(model) + "/" + count + " ";
    const std::string end = model == models ? "100% state 2" : "100% state 1";
    lines = lines + Lines{position + "0% state 1", position + "50% state 1", position + end};
  }
  return lines;
}

Lines Until(const Lines& lines) {
  Lines words;
  for (const std::string& line : lines) words.push_back("until=" + line);
  return words;
}

/** Has work done, and goes on when it and its events have come to their end. */
Lines Work(const std::string& word, const std::string& request, int models) {
  return Lines{word} + Until({Progress(request, models).back(), "model status: 0 20"});
}
Lines Worked(const std::string& request, int models) {
  return Lines{"ask for " + request + ": 0"} + Progress(request, models);
}

/** Asks for a list, which must come so. */
Lines List(const std::string& word, const std::string& answer) {
  return Lines{word} + Until({answer});
}
Lines Listed(const std::string& request, const std::string& answer) {
  return {"ask for " + request + ": 0", request + ": 0" + answer};
}

// ---- One client ----

constexpr char kThreeModels[] = R"({
  "repository": "repository",
  "models": [
    {"id": "text", "versions": ["1.0"], "available": ["1.1", "2.0"]},
    {"id": "sound", "versions": ["3.0", "3.1"], "available": ["4.0"]},
    {"id": "sight", "versions": ["5.0"]},
    {"id": "touch", "versions": [], "available": ["6.0", "7.0"]}]})";

class AClientThatWorksOnModels : public testing::Test {
 protected:
  AClientThatWorksOnModels() : world_(kThreeModels) {
    namespace fs = std::filesystem;
    for (const std::string version : {"text/1.0", "text/1.1", "text/2.0", "sound/3.0", "sound/3.1",
                                      "sound/4.0", "sight/5.0", "touch/6.0", "touch/7.0"}) {
      fs::create_directories(fs::path(Content(version)).parent_path());
      std::string content(100000, version.front());
      content += version;
      world_.folder().Write("repository/" + version, content);
    }
  }

  std::string Content(const std::string& version) const {
    return world_.folder().path() + "/repository/" + version;
  }

  /** Goes on if the agent has this version as the repository has it. */
  std::string IsWhole(const std::string& version) const {
    return "run=cmp " + Content(version) + " xdg/data/models/" + version;
  }

  static std::string Holds(const std::string& model, const std::string& versions) {
    return "run=test \"$(echo $(ls -A xdg/data/models/" + model + "))\" = '" + versions + "'";
  }

  const ScriptedWorld world_;
};

TEST_F(AClientThatWorksOnModels, SeesEachVersionComeAndGo) {
  const Lines said =
      world_.Run(1, kConnect + List("models", "models 1: 0 text@1.0 sound@3.1 sight@5.0") +
                        List("versions=text", "versions 2: 0 text@1.0 text@1.1 text@2.0") +
                        List("versions=sound", "versions 3: 0 sound@3.0 sound@3.1 sound@4.0") +
                        Work("update=text+sound@4.0", "update 4", 2) +
                        Lines{IsWhole("text/2.0"), IsWhole("sound/4.0"), Holds("text", "1.0 2.0"),
                              Holds("sound", "3.0 3.1 4.0")} +
                        List("models", "models 5: 0 text@2.0 sound@4.0 sight@5.0") +
                        List("versions=text", "versions 6: 0 text@1.0 text@1.1 text@2.0") +
                        List("versions=sound", "versions 7: 0 sound@3.0 sound@3.1 sound@4.0") +
                        Work("uninstall=sound", "uninstall 8", 1) +
                        Lines{Holds("sound", ""), Holds("text", "1.0 2.0")} +
                        List("models", "models 9: 0 text@2.0 sight@5.0") +
                        List("versions=sound", "versions 10: 0 sound@3.0 sound@3.1 sound@4.0") +
                        Lines{"disconnect"});
  EXPECT_THAT(
      NotBeginning("model status", said),
      ElementsAreArray(kConnected + Listed("models 1", " text@1.0 sound@3.1 sight@5.0") +
                       Listed("versions 2", " text@1.0 text@1.1 text@2.0") +
                       Listed("versions 3", " sound@3.0 sound@3.1 sound@4.0") +
                       Worked("update 4", 2) + Listed("models 5", " text@2.0 sound@4.0 sight@5.0") +
                       Listed("versions 6", " text@1.0 text@1.1 text@2.0") +
                       Listed("versions 7", " sound@3.0 sound@3.1 sound@4.0") +
                       Worked("uninstall 8", 1) + Listed("models 9", " text@2.0 sight@5.0") +
                       Listed("versions 10", " sound@3.0 sound@3.1 sound@4.0") +
                       Lines{"disconnect: 0"}));
  EXPECT_THAT(Beginning("model status", said),
              ElementsAreArray(Times(2, {"model status: 0 17", "model status: 0 20"})));
}

TEST_F(AClientThatWorksOnModels, HearsWhichModelFailsAndKeepsThoseBefore) {
  const Lines failed = {"update 1: 0 1/3 0% state 1", "update 1: 0 1/3 50% state 1",
                        "update 1: 0 1/3 100% state 1", "update 1: -38 2/3 0% state 3"};
  const Lines said = world_.Run(1, kConnect + Lines{"update=text@1.1+nothing+sound"} +
                                       Until({failed.back(), "model status: 0 24"}) +
                                       List("models", "models 2: 0 text@1.1 sound@3.1 sight@5.0"));
  EXPECT_THAT(NotBeginning("model status", said),
              ElementsAreArray(kConnected + Lines{"ask for update 1: 0"} + failed +
                               Listed("models 2", " text@1.1 sound@3.1 sight@5.0")));
  EXPECT_THAT(Beginning("model status", said),
              ElementsAreArray({"model status: 0 17", "model status: 0 24"}));
}

TEST_F(AClientThatWorksOnModels, HasNoMoreDescriptorsAndMemoryThanBefore) {
  constexpr int kRounds = 12;
  const Lines said =
      world_.Run(kRounds, kConnect + Work("update=touch@6.0+touch", "update 1", 2) +
                              List("versions=touch", "versions 2: 0 touch@6.0 touch@7.0") +
                              Work("uninstall=touch", "uninstall 3", 1) +
                              List("versions=touch", "versions 4: 0 touch@6.0 touch@7.0") +
                              Lines{"disconnect"});
  EXPECT_THAT(NotBeginning("model status", said),
              ElementsAreArray(Times(kRounds, kConnected + Worked("update 1", 2) +
                                                  Listed("versions 2", " touch@6.0 touch@7.0") +
                                                  Worked("uninstall 3", 1) +
                                                  Listed("versions 4", " touch@6.0 touch@7.0") +
                                                  Lines{"disconnect: 0"}) +
                               kNothingMore));
}

// ---- Several clients ----

/** Each request of each client has models of its own, as many as its number says. */
struct Part {
  int client;
  int request;

  std::string Model(int number) const {
    return std::to_string(client) + "-" + std::to_string(request) + "-" + std::to_string(number);
  }
  std::string Models() const {
    std::string models = Model(1);
    for (int i = 2; i <= request; ++i) models += "+" + Model(i);
    return models;
  }
  // At first the models of every other request are installed.
  bool installs(int phase) const { return (request + phase) % 2 == 1; }
};

/** Goes on when every client has come so far. */
std::string Meet(std::size_t clients) {
  return "run=echo >> came; echo >> came.$PPID; until test $(wc -l < came) -ge $((" +
         std::to_string(clients) + " * $(wc -l < came.$PPID))); do sleep 0.01; done";
}

TEST(TenOperationsAtOnce, EndEachWithItsOwnProgress) {
  constexpr int kRounds = 4;
  constexpr int kPhases = 2;
  const std::vector<int> requests_of = {4, 3, 3};
  std::string models;
  std::string installed[kPhases];
  for (int client = 0; client < 3; ++client) {
    for (int request = 1; request <= requests_of[static_cast<std::size_t>(client)]; ++request) {
      const Part part = {client, request};
      for (int number = 1; number <= request; ++number) {
        const bool first = part.installs(0);
        models +=
            std::string(models.empty() ? "" : ", ") + R"({"id": ")" + part.Model(number) +
            (first ? R"(", "versions": [], "available": ["1"]})" : R"(", "versions": ["1"]})");
        installed[first ? 0 : 1] += " " + part.Model(number) + "@1";
      }
    }
  }
  const ScriptedWorld world(R"({"methods": {"RequestToUpdate": {"pace": 5},
                                            "RequestToUninstall": {"pace": 5}},
                                "models": [)" +
                            models + "]}");
  const std::string meet = Meet(requests_of.size());
  const Lines events = Times(10, {"model status: 0 17", "model status: 0 20"});
  std::vector<Lines> words;
  for (int client = 0; client < 3; ++client) {
    Lines mine = kConnect;
    int asked = 0;
    for (int phase = 0; phase < kPhases; ++phase) {
      Lines ends;
      mine.push_back(meet);
      for (int request = 1; request <= requests_of[static_cast<std::size_t>(client)]; ++request) {
        const Part part = {client, request};
        const std::string verb = part.installs(phase) ? "update" : "uninstall";
        mine.push_back(verb + "=" + part.Models());
        ends.push_back(Progress(verb + " " + std::to_string(++asked), request).back());
      }
      const std::string list = "models " + std::to_string(++asked) + ": 0" + installed[phase];
      mine = mine + Until(ends + events) + Lines{meet} + List("models", list);
    }
    words.push_back(mine + Lines{meet, "disconnect"});
  }
  const std::vector<Lines> said = world.RunAtOnce(kRounds, words);
  for (int client = 0; client < 3; ++client) {
    const Lines& mine = said[static_cast<std::size_t>(client)];
    int asked = 0;
    for (int phase = 0; phase < kPhases; ++phase) {
      for (int request = 1; request <= requests_of[static_cast<std::size_t>(client)]; ++request) {
        const std::string name =
            (Part{client, request}.installs(phase) ? "update " : "uninstall ") +
            std::to_string(++asked);
        EXPECT_THAT(Beginning(name + ":", mine),
                    ElementsAreArray(Times(kRounds, Progress(name, request))));
      }
      const std::string list = "models " + std::to_string(++asked) + ":";
      EXPECT_THAT(Beginning(list, mine),
                  ElementsAreArray(Times(kRounds, {list + " 0" + installed[phase]})));
    }
    EXPECT_EQ(Beginning("model status", mine).size(), events.size() * kPhases * kRounds);
    EXPECT_THAT(Beginning("connection", mine),
                ElementsAreArray(Times(kRounds, {"connection: 0 0"})));
    EXPECT_THAT(Beginning("descriptors", mine), ElementsAreArray(kNothingMore));
  }
}

// ---- An agent that is killed in the middle ----

/** A world in which the agent comes to the middle of version 2.0, and no further: the other half of
 * its content never comes out of a pipe, which somebody keeps open. */
class InTheMiddleOfAModel : public testing::Test {
 protected:
  static constexpr int kSize = 65536;

  explicit InTheMiddleOfAModel(const std::string& restart)
      : world_(R"({"agent": {"restart": ")" + restart +
               R"("}, "repository": "repository", "models": [
                   {"id": "text", "versions": ["1.0"], "available": ["2.0", "3.0"],
                    "size": )" +
               std::to_string(kSize) + "}]}") {
    const std::string folder = world_.folder().path() + "/repository/text";
    std::filesystem::create_directories(folder);
    world_.folder().Write("repository/text/1.0", std::string(100, '1'));
    world_.folder().Write("repository/text/3.0", std::string(300, '3'));
    pipe_ = folder + "/2.0";
    EXPECT_EQ(mkfifo(pipe_.c_str(), 0600), 0);
    kept_open_.Reset(open(pipe_.c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_TRUE(kept_open_);
    const std::string half = std::to_string(kSize / 2);
    kill_ = {"run=head -c " + half + " /dev/zero > " + pipe_,
             "update=text@2.0",
             "until=update 1: 0 1/1 50% state 1",
             "run=test \"$(stat -c %s xdg/data/models/text/+*)\" = " + half,
             "run=kill -KILL $(cat agent.pid)",
             "until=connection: 0 1"};
  }

  static std::string Holds(const std::string& versions) {
    return "run=test \"$(echo $(ls -A xdg/data/models/text))\" = '" + versions + "'";
  }

  const ScriptedWorld world_;
  std::string pipe_;
  base::UniqueFd kept_open_;
  Lines kill_;
  const Lines killed_ = {"ask for update 1: 0", "update 1: 0 1/1 0% state 1",
                         "update 1: 0 1/1 50% state 1", "connection: 0 1"};
};

class AClientOfAnAgentThatIsKilledAndReturns : public InTheMiddleOfAModel {
 protected:
  AClientOfAnAgentThatIsKilledAndReturns() : InTheMiddleOfAModel("always") {}
};

TEST_F(AClientOfAnAgentThatIsKilledAndReturns, FindsWhatThereWasBeforeAndCanAskAgain) {
  constexpr int kRounds = 6;
  const Lines said = world_.Run(
      kRounds, kConnect + kill_ + Lines{"until=connection: 0 0", Holds("1.0")} +
                   List("versions=text", "versions 2: 0 text@1.0 text@2.0 text@3.0") +
                   Work("update=text@3.0", "update 3", 1) +
                   Lines{Holds("1.0 3.0"), "run=cmp " + world_.folder().path() +
                                               "/repository/text/3.0 xdg/data/models/text/3.0"} +
                   List("versions=text", "versions 4: 0 text@1.0 text@2.0 text@3.0") +
                   Work("uninstall=text", "uninstall 5", 1) +
                   Work("update=text@1.0", "update 6", 1) + Lines{Holds("1.0"), "disconnect"});
  EXPECT_THAT(
      NotBeginning("model status", said),
      ElementsAreArray(Times(kRounds, kConnected + killed_ + Lines{"connection: 0 0"} +
                                          Listed("versions 2", " text@1.0 text@2.0 text@3.0") +
                                          Worked("update 3", 1) +
                                          Listed("versions 4", " text@1.0 text@2.0 text@3.0") +
                                          Worked("uninstall 5", 1) + Worked("update 6", 1) +
                                          Lines{"disconnect: 0"}) +
                       kNothingMore));
  // What the killed agent began nobody says to have ended.
  EXPECT_THAT(
      Beginning("model status", said),
      ElementsAreArray(Times(kRounds, Lines{"model status: 0 17"} +
                                          Times(3, {"model status: 0 17", "model status: 0 20"}))));
}

class AClientOfAnAgentThatIsKilledForGood : public InTheMiddleOfAModel {
 protected:
  AClientOfAnAgentThatIsKilledForGood() : InTheMiddleOfAModel("never") {}
};

TEST_F(AClientOfAnAgentThatIsKilledForGood, StaysAwayWhateverItDoes) {
  EXPECT_THAT(
      NotBeginning("model status",
                   world_.Run(1, kConnect + kill_ +
                                     Lines{"level", "update=text", "models", "connect", "level",
                                           "disconnect", "level"})),
      ElementsAreArray(kConnected + killed_ +
                       Lines{"level: -107 0", "ask for update 2: -38", "ask for models 3: -38",
                             "connect: 0", "level: -107 0", "disconnect: 0", "level: -107 0"}));
}

}  // namespace
