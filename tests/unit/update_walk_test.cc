// SPDX-License-Identifier: Apache-2.0
// The connection and the update of the agents, walked through in every order, against a model.
//
// A walk is an order of the steps in kSteps. The library takes it on the fake platform, and the
// model says what must be seen: return codes, application callbacks, platform calls and log
// records, in one order, and what velmora_svcmgr_is_being_updated says after each step. Model, library
// and steps are those of update_walk.h; fuzz/walk_fuzz.cc takes longer walks, of more steps.
//
// What is walked: a step that cannot happen (a port event without a proxy, an event without a
// subscription) is left out, after checking that the platform has indeed nobody to tell: without
// it the walk is a shorter one, which is walked too. Then
//   - every order up to kForked steps, each in a process of its own;
//   - every order up to kExhaustive steps, and every order up to kConnected steps after
//     "connect connected", in one process, which starts each walk from an idle context: all that
//     differs from a new process then is that the singletons exist;
//   - the orders up to kPruned steps, but a walk goes on only if no other walk of its length or
//     shorter has led to the same state of the model by the same two last steps.
//
// SVCMGR_WALK_LENGTH=7 walks every order up to that length, in a process for each processor: some
// minutes. A walk that fails prints itself; SVCMGR_WALK="connect connected ..." walks it alone.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "update_walk.h"

namespace {

// Sanitizers and emulators take ten times as long for a walk, and what they find needs no longer ones.
#ifdef SLOW
constexpr std::size_t kFewerSteps = 1;
#else
constexpr std::size_t kFewerSteps = 0;
#endif
constexpr std::size_t kForked = 4 - kFewerSteps;
constexpr std::size_t kExhaustive = 5 - kFewerSteps;
constexpr std::size_t kConnected = 4 - kFewerSteps;
constexpr std::size_t kPruned = 7;

using update_walk::Differences;
using update_walk::kSteps;
using update_walk::Model;
using update_walk::Script;
using update_walk::Step;
using update_walk::Walk;

/** Stops at a word that is no step. */
Walk ParseScript(const std::string& script) {
  Walk walk;
  std::istringstream words(script);
  for (std::string word; words >> word;) {
    const auto* const step = std::find_if(std::begin(kSteps), std::end(kSteps),
                                          [&](const Step& known) { return word == known.name; });
    if (step == std::end(kSteps)) {
      ADD_FAILURE() << "no step is called " << word;
      break;
    }
    walk.push_back(step);
  }
  return walk;
}

std::string DifferencesInAProcessOfItsOwn(const Walk& walk) {
  const pid_t child = fork();
  if (child == 0) {
    const std::string report = Differences(walk);
    static_cast<void>(std::fputs(report.c_str(), stderr));
    _exit(report.empty() ? 0 : 1);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return "no process";
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "" : "SVCMGR_WALK=\"" + Script(walk) + '"';
}

/** One of the equal parts into which the work is divided. */
struct Share {
  std::size_t number = 0;
  std::size_t of = 1;
};

/** Walks shortest first, so that the first failure is a short one. */
class Generator {
 public:
  using Check = std::string (*)(const Walk&);

  explicit Generator(Check check, Share share = {}) : check_(check), share_(share) {}

  /** Checks each order of up to `length` steps after `start`, as far as it is in the share; false
   *  if one fails. Orders that are not short are checked as beginnings of the longest. */
  bool WalkAll(const Walk& start, std::size_t length) {
    Model model;
    for (const Step* step : start) (model.*step->expected)();
    for (std::size_t i = 1; i <= length; ++i) {
      if (i > kExhaustive && i < length) continue;
      if (!Extend(start, model, i)) return false;
    }
    return true;
  }

  /** Checks one order for each state and two last steps up to `length` steps. */
  bool WalkPruned(std::size_t length) {
    std::vector<std::pair<Walk, Model>> ends = {{{}, Model()}};
    for (std::size_t i = 0; i < length; ++i) {
      std::vector<std::pair<Walk, Model>> next;
      for (const auto& [walk, model] : ends) {
        for (const Step& step : kSteps) {
          if (!(model.*step.possible)()) continue;
          auto longer = std::make_pair(walk, model);
          longer.first.push_back(&step);
          (longer.second.*step.expected)();
          const Step* const before = walk.empty() ? nullptr : walk.back();
          if (!Passes(longer.first)) return false;
          if (known_.insert({longer.second.state(), before, &step}).second) {
            next.push_back(std::move(longer));
          }
        }
      }
      ends = std::move(next);
    }
    return true;
  }

  std::size_t walks() const { return walks_; }

 private:
  // The depth at which walks are divided into shares: there are enough for equal ones.
  static constexpr std::size_t kShared = 3;

  bool Extend(const Walk& walk, const Model& model, std::size_t more) {
    if (walk.size() == kShared && branches_++ % share_.of != share_.number) return true;
    if (more == 0) return Passes(walk);
    for (const Step& step : kSteps) {
      if (!(model.*step.possible)()) continue;
      Walk longer = walk;
      longer.push_back(&step);
      Model next = model;
      (next.*step.expected)();
      if (!Extend(longer, next, more - 1)) return false;
    }
    return true;
  }

  bool Passes(const Walk& walk) {
    ++walks_;
    const std::string differences = check_(walk);
    if (differences.empty()) return true;
    ADD_FAILURE() << differences;
    return false;
  }

  Check check_;
  Share share_;
  std::size_t branches_ = 0;
  std::size_t walks_ = 0;
  std::set<std::tuple<Model::State, const Step*, const Step*>> known_;
};

class AWalk : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    if (const char* script = std::getenv("SVCMGR_WALK")) {
      Expect(script);
      GTEST_SKIP() << "walked one walk alone";
    }
  }

  static void Expect(const std::string& script) {
    const std::string differences = Differences(ParseScript(script));
    if (!differences.empty()) ADD_FAILURE() << differences;
  }

  static void ExpectAll(const char* start, std::size_t length, Generator::Check check) {
    Generator generator(check);
    generator.WalkAll(ParseScript(start), length);
    Report(generator);
  }

  /** The same in a process for each processor, each with its share; all take the shortest. */
  static void ExpectAllInShares(std::size_t length) {
    const std::size_t shares =
        static_cast<std::size_t>(std::max(1L, sysconf(_SC_NPROCESSORS_ONLN)));
    std::vector<pid_t> children;
    for (std::size_t i = 0; i < shares; ++i) {
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        Generator generator(Differences, {i, shares});
        generator.WalkAll({}, length);
        std::printf("share %zu of %zu: %zu walks\n", i + 1, shares, generator.walks());
        static_cast<void>(std::fflush(stdout));
        _exit(HasFailure() || generator.walks() == 0 ? 1 : 0);
      }
      children.push_back(child);
    }
    for (const pid_t child : children) {
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
  }

  static void Report(const Generator& generator) {
    EXPECT_GT(generator.walks(), 300U);
    RecordProperty("walks", std::to_string(generator.walks()));
  }
};

TEST_F(AWalk, InANewProcessIsAsTheModelSays) {
  ExpectAll("", kForked, DifferencesInAProcessOfItsOwn);
}

TEST_F(AWalk, OfEveryOrderIsAsTheModelSays) {
  if (const char* const length = std::getenv("SVCMGR_WALK_LENGTH")) {
    ExpectAllInShares(std::strtoul(length, nullptr, 10));
  } else {
    ExpectAll("", kExhaustive, Differences);
  }
}

TEST_F(AWalk, OfEveryOrderOnAConnectionIsAsTheModelSays) {
  ExpectAll("connect connected", kConnected, Differences);
}

TEST_F(AWalk, ToEveryStateByEveryTwoLastStepsIsAsTheModelSays) {
  Generator generator(Differences);
  generator.WalkPruned(kPruned);
  Report(generator);
}

// The five steps in which an agent replaces itself, spelled out.
TEST_F(AWalk, ThroughTheAgentsOwnUpdateIsAsTheModelSays) {
  Expect("connect connected request Update disconnected Launch connected Start Complete");
}

}  // namespace
