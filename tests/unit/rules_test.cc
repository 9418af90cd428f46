// SPDX-License-Identifier: Apache-2.0
// The rules of the interface: each row of their table checked against its function, and the table
// against the public header.

#include <ModelUpdateEventHandler.h>
#include <SvcMgrAppProxyHandler.h>
#include <UpdateStatusEventHandler.h>
#include <agent_update_state.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "connection_support.h"
#include "exhaustion.h"
#include "kept.h"
#include "model_support.h"
#include "rules.h"

namespace {

using fake::IsError;
using fake::IsInfo;
using models::Steps;
using rules::Function;
using rules::Stage;
using rules::Wants;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using Records = std::vector<testing::Matcher<const fake::LogRecord&>>;

/** A state of the connection. */
struct State {
  const char* name;
  void (*enter)();
};

void Lose() {
  connection::Stand();
  fake::Proxy().FireDisconnected();
}

void BeRejected() {
  connection::Stand();
  fake::Proxy().FireRejected();
}

void End() {
  connection::Stand();
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
}

constexpr State kNeverConnected = {"never connected", [] {}};
constexpr State kConnecting = {"connecting", connection::Start};
constexpr State kLost = {"lost", Lose};
constexpr State kRejected = {"rejected", BeRejected};
constexpr State kEnded = {"ended", End};
constexpr State kWithoutProxy = {"without a proxy", connection::StandWithoutProxy};

class AFunction : public fake::PlatformTest, public testing::WithParamInterface<Function> {
 protected:
  void TearDown() override { Restart(); }

  /** Accounts for what was done, and makes everything as in a new process. */
  static void Restart() {
    SvcMgrAppProxyHandler::GetInstance().Disconnect();
    UpdateStatusEventHandler::GetInstance().UnsetEventCallback();
    ModelUpdateEventHandler::GetInstance().UnsetEventCallback();
    svcmgr::agent_update_state.End();
    // Of the category's look-up, and of a removal that was refused.
    fake::AllowHeld(fake::Kind::kAppInfo, 2);
    fake::ExpectKept(fake::Kept::kAppInfo, fake::kEachThatLives);
    fake::AllowHeld(fake::Kind::kEventHandler, 1);
    fake::Verify();
  }

  static const Function& It() { return GetParam(); }
  static unsigned AllSets() { return 1U << It().needed; }  // of needed arguments

  /** Enters a state in which a call with all that it needs succeeds. */
  static void Prepare() {
    if (It().wants != Wants::kNothing) connection::Stand();
    fake::ForgetMessages();
    if (!It().reply.empty()) fake::QueueReply(It().reply);
    fake::ClearRecord();
  }

  /** The entry record, if there is one, then these. */
  static void ExpectRecords(Records records = {}) {
    if (!It().entry.empty()) {
      records.insert(records.begin(), IsInfo(It().unit, It().name, It().entry));
    }
    EXPECT_THAT(fake::Logs(), ElementsAreArray(records));
  }

  static void ExpectError(const std::string& message) {
    ExpectRecords({IsError(It().unit, It().name, message)});
  }

  static std::vector<std::string> Entry() {
    if (It().entry.empty()) return {};
    return {"I " + It().name + ": " + It().entry};
  }

  /** The look-ups of the checks that come first. */
  static std::vector<std::string> LookUps() {
    std::vector<std::string> calls = {"package_info_create", "package_info_destroy"};
    if (It().level > 0) {
      calls.insert(calls.end(),
                   {"package_info_create", "package_info_get_version", "package_info_destroy"});
    }
    return calls;
  }
};

INSTANTIATE_TEST_SUITE_P(Each, AFunction, testing::ValuesIn(rules::Functions()),
                         rules::NameOfFunction());

/* It does its work. */

TEST_P(AFunction, SucceedsAfterTheLookUpsAndWritesItsEntryRecordAlone) {
  Stage stage;
  Prepare();
  EXPECT_EQ(It().Call(stage), SVCMGR_ERROR_NONE);
  const auto expected = LookUps();
  auto calls = fake::CallNames();
  EXPECT_EQ(fake::Calls().front().Text(), "package_info_create(\"" AGENT_PACKAGE_ID "\")");
  ASSERT_GE(calls.size(), expected.size());
  const bool of_a_handle = It().unit != "velmora_svcmgr.cc" && It().unit != "service_request.cc" &&
                           It().unit != "service_status_cb.cc";
  if (!of_a_handle) calls.resize(expected.size());
  EXPECT_EQ(calls, expected);
  if (It().name == "velmora_svcmgr_connect") return;  // writes more
  ExpectRecords();
}

TEST_P(AFunction, ReturnsEachCodeOfItsOwn) {
  for (const auto& [code, bring_about] : It().occasions) {
    Restart();
    SCOPED_TRACE(code);
    Stage stage;
    Prepare();
    bring_about(stage);
    EXPECT_EQ(It().Call(stage), code);
  }
}

/* The agent is there. */

struct LookUp {
  fake::Step step;
  bool missing;
  std::size_t released;  // package infos
};

const LookUp kLookUps[] = {
    {fake::Fail(fake::kNoSuchPackage), true, 0},
    {fake::FailWithNull(fake::kNoSuchPackage), true, 0},
    {fake::FailWithGarbage(fake::kNoSuchPackage), true, 1},
    {fake::FailAfterWork(fake::kNoSuchPackage), true, 1},
    {fake::SucceedWithNull(), false, 0},
    {fake::Fail(-22), false, 0},
    {fake::Fail(-12), false, 0},
    {fake::FailAfterWork(-5), false, 1},
    {fake::FailWithGarbage(-13), false, 1},
    {fake::Fail(fake::kNoSuchPackage - 1), false, 0},
    {fake::FailWithNull(fake::kNoSuchPackage + 1), false, 0},
    {fake::Fail(0x7EEB0071), false, 0},
    {fake::Fail(0x71), false, 0},
};

TEST_P(AFunction, IsNotSupportedBeforeAllElseIfThePackageOfTheAgentIsMissingAndOnlyThen) {
  for (const LookUp& look_up : kLookUps) {
    SCOPED_TRACE(&look_up - kLookUps);
    for (unsigned nulls = 0; nulls < AllSets(); ++nulls) {
      if (!look_up.missing && nulls != 0) continue;
      Restart();
      Stage stage;
      Prepare();
      const std::string before = stage.Contents();
      const std::size_t blocks = fake::LiveBlocks().size();
      fake::Next("package_info_create", look_up.step);
      const int result = It().Call(stage, nulls);
      const std::size_t released = look_up.released + fake::CountCalls("package_info_create") - 1;
      EXPECT_EQ(fake::CountCalls("package_info_destroy"), released);
      if (!look_up.missing) {
        EXPECT_EQ(result, SVCMGR_ERROR_NONE);
        continue;
      }
      EXPECT_EQ(result, SVCMGR_ERROR_NOT_SUPPORTED);
      ExpectError("Not supported");
      EXPECT_EQ(Steps().size(), fake::Logs().size() + 1 + look_up.released);
      EXPECT_EQ(stage.Contents(), before);
      EXPECT_EQ(fake::LiveBlocks().size(), blocks);
    }
  }
}

TEST_P(AFunction, IgnoresTheResultOfReleasingThePackageInfo) {
  Stage stage;
  Prepare();
  fake::Next("package_info_destroy", fake::FailAfterWork(fake::kNoSuchPackage));
  EXPECT_EQ(It().Call(stage), SVCMGR_ERROR_NONE);
}

/* It is new enough. */

TEST_P(AFunction, NeedsItsLevelOfTheAgentBeforeItsArgumentsAndSaysNothingBelow) {
  for (const auto& [version, level] : {std::pair("1.6.9", -1), std::pair("2.2.99", 8)}) {
    for (unsigned nulls = 0; nulls < AllSets(); ++nulls) {
      Restart();
      Stage stage;
      Prepare();
      fake::InstallAgent(version);
      const std::string before = stage.Contents();
      const int result = It().Call(stage, nulls);
      if (It().level == 0) {
        EXPECT_EQ(fake::CountCalls("package_info_get_version"), 0U);
      }
      if (level >= It().level || It().level == 0) {
        EXPECT_EQ(result, nulls == 0 ? SVCMGR_ERROR_NONE : SVCMGR_ERROR_INVALID_PARAMETER);
        continue;
      }
      EXPECT_EQ(result, SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION);
      std::vector<std::string> steps = Entry();
      for (const std::string& call : LookUps()) steps.push_back(call);
      EXPECT_EQ(Steps(), steps);
      EXPECT_EQ(stage.Contents(), before);
    }
  }
}

/* Its arguments are right. */

TEST_P(AFunction, RefusesEachNullArgumentBeforeItLooksAtTheConnection) {
  for (const State& state : {kNeverConnected, State{"prepared", Prepare}}) {
    SCOPED_TRACE(state.name);
    for (unsigned nulls = 1; nulls < AllSets(); ++nulls) {
      Restart();
      Stage stage;
      state.enter();
      const std::string before = stage.Contents();
      const std::size_t blocks = fake::LiveBlocks().size();
      EXPECT_EQ(It().Call(stage, nulls), SVCMGR_ERROR_INVALID_PARAMETER);
      std::vector<std::string> steps = Entry();
      for (const std::string& call : LookUps()) steps.push_back(call);
      steps.push_back("E " + It().name + ": " + It().null_message);
      EXPECT_EQ(Steps(), steps);
      ExpectError(It().null_message);
      EXPECT_EQ(stage.Contents(), before);
      EXPECT_EQ(fake::LiveBlocks().size(), blocks);
    }
  }
}

TEST_P(AFunction, LooksAtItsArgumentsInOrder) {
  if (It().needed < 2) return;
  std::vector<int> lines;
  for (const unsigned nulls : {1U, 2U, 3U}) {
    Stage stage;
    It().Call(stage, nulls);
    lines.push_back(fake::Logs().back().line);
  }
  EXPECT_LT(lines[0], lines[1]);
  EXPECT_EQ(lines[0], lines[2]);
}

/* There is a connection. */

TEST_P(AFunction, NeedsTheConnectionThatItWants) {
  for (const State& state :
       {kNeverConnected, kConnecting, kLost, kRejected, kEnded, kWithoutProxy}) {
    if (It().wants == Wants::kProxy && state.enter != kNeverConnected.enter && state.enter != End &&
        state.enter != connection::StandWithoutProxy) {
      continue;  // then it is up to the platform
    }
    SCOPED_TRACE(state.name);
    Restart();
    Stage stage;
    state.enter();
    fake::ClearRecord();
    const std::string before = stage.Contents();
    const int result = It().Call(stage);
    switch (It().wants) {
      case Wants::kNothing:
        if (It().name == "velmora_svcmgr_connect") continue;
        EXPECT_EQ(result, SVCMGR_ERROR_NONE);
        break;
      case Wants::kConnection:
        if (state.enter == connection::StandWithoutProxy) continue;
        EXPECT_EQ(result, SVCMGR_ERROR_NOT_CONNECTED);
        ExpectRecords({IsInfo(It().unit, It().name, "not initialized")});
        EXPECT_EQ(fake::CallNames(), LookUps());
        break;
      case Wants::kProxy:
        EXPECT_EQ(result, SVCMGR_ERROR_NOT_CONNECTED);
        EXPECT_EQ(fake::CallNames(), LookUps());
        break;
    }
    if (It().wants != Wants::kNothing) {
      EXPECT_EQ(stage.Contents(), before);
    }
  }
}

/* Nothing leaves it. */

TEST_P(AFunction, LetsNoExceptionOut) {
  for (const fake::Step& step : {fake::Throw(std::bad_alloc()),
                                 fake::Throw(std::runtime_error("platform")), fake::Throw(7)}) {
    for (int look_up = 1; look_up <= (It().level > 0 ? 2 : 1); ++look_up) {
      Restart();
      Stage stage;
      Prepare();
      const std::string before = stage.Contents();
      fake::AtCall("package_info_create", look_up, step);
      EXPECT_EQ(It().Call(stage), It().failure);
      ExpectError("Unknown Exception");
      EXPECT_EQ(stage.Contents(), before);
    }
  }
}

TEST_P(AFunction, ReturnsItsCodeWhereverMemoryRunsOut) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new is the sanitizer's";
  std::set<int> codes = It().exhausted.value_or(std::set<int>{It().failure});
  if (codes.empty()) GTEST_SKIP() << "may end the process";
  if (!It().create_message.empty()) codes = {SVCMGR_ERROR_OUT_OF_MEMORY};
  std::unique_ptr<Stage> stage;
  std::string before;
  int result = 0;
  const int failures = exhaustion::ForEachFailingAllocation(
      [&] {
        stage.reset();
        Restart();
        stage = std::make_unique<Stage>();
        Prepare();
        before = stage->Contents();
      },
      [&] { result = It().Call(*stage); },
      [&](bool happened) {
        EXPECT_EQ(fake::LiveObjects(fake::Kind::kParcel), 0);
        EXPECT_EQ(fake::LiveObjects(fake::Kind::kPackageInfo), 0);
        if (!happened) {
          EXPECT_EQ(result, SVCMGR_ERROR_NONE);
          return;
        }
        EXPECT_EQ(codes.count(result), 1U) << result;
        if (result == SVCMGR_ERROR_NONE) return;
        EXPECT_EQ(stage->Contents(), before);
        EXPECT_THAT(fake::SentParcels(), IsEmpty());
        if (result == SVCMGR_ERROR_OUT_OF_MEMORY) ExpectError(It().create_message);
      });
  if (!It().create_message.empty()) {
    EXPECT_EQ(failures, 1);
  }
}

/* The public header. */

std::string Header() {
  std::ifstream in(SVCMGR_HEADER);
  EXPECT_TRUE(in.is_open());
  return {std::istreambuf_iterator<char>(in), {}};
}

using Matches = std::sregex_iterator;

/** The codes by their names, as the header defines them. */
std::map<std::string, int> CodesByName(const std::string& header) {
  const std::regex definition("(SVCMGR_ERROR_\\w+) = (-?\\d+)");
  std::map<std::string, int> codes;
  for (Matches it(header.begin(), header.end(), definition), end; it != end; ++it) {
    codes[(*it)[1]] = std::stoi((*it)[2]);
  }
  return codes;
}

/** The comment before each function; that of another one where it refers to it. */
std::map<std::string, std::string> CommentsByFunction(const std::string& header) {
  const std::regex declaration("\\nint (velmora_svcmgr_\\w+)\\(");
  const std::regex reference("^\\s*As (velmora_svcmgr_\\w+),");
  std::map<std::string, std::string> comments;
  for (Matches it(header.begin(), header.end(), declaration), end; it != end; ++it) {
    // The regular expressions of the C++ library recurse over each character of a long match.
    const auto declared = static_cast<std::size_t>(it->position());
    const std::size_t end_of_comment = header.rfind("*/", declared);
    const std::size_t begin = header.rfind("/**", end_of_comment) + 3;
    EXPECT_EQ(end_of_comment + 2, declared) << (*it)[1] << " has no comment";
    std::string comment = header.substr(begin, end_of_comment - begin);
    std::smatch other;
    if (std::regex_search(comment, other, reference)) comment = comments[other[1]];
    comments[(*it)[1]] = comment;
  }
  return comments;
}

/** The codes that a comment lists. */
std::set<std::string> ListedIn(const std::string& comment) {
  const std::regex list("@return ((?:SVCMGR_ERROR_\\w+(?:, )?)+)");
  const std::regex name("SVCMGR_ERROR_\\w+");
  std::set<std::string> names;
  for (Matches it(comment.begin(), comment.end(), list), end; it != end; ++it) {
    const std::string line = (*it)[1];
    for (Matches code(line.begin(), line.end(), name); code != end; ++code) {
      EXPECT_TRUE(names.insert(code->str()).second) << code->str() << " is listed twice";
    }
  }
  return names;
}

TEST(TheTable, HasARowForEachFunctionOfTheHeader) {
  std::set<std::string> declared;
  for (const auto& [function, comment] : CommentsByFunction(Header())) declared.insert(function);
  std::set<std::string> rows;
  for (const Function& function : rules::Functions()) rows.insert(function.name);
  EXPECT_EQ(rows, declared);
  EXPECT_EQ(rows.size(), rules::Functions().size());
  EXPECT_EQ(rows.size(), 48U);
}

/** The names of the tests of a function. */
std::set<std::string> TestsThatThereAre() {
  std::set<std::string> names;
  const testing::UnitTest& all = *testing::UnitTest::GetInstance();
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const testing::TestSuite& suite = *all.GetTestSuite(i);
    if (std::string(suite.name()) != "Each/AFunction") continue;
    for (int j = 0; j < suite.total_test_count(); ++j) names.insert(suite.GetTestInfo(j)->name());
  }
  return names;
}

// What it prints is read where the tests of each code and record are listed.
TEST(TheTable, NamesTestsOfEachCodeAndRecord) {
  const std::set<std::string> names = TestsThatThereAre();
  for (const Function& function : rules::Functions()) {
    for (const auto& [code, tests] : function.TestsOfCodes()) {
      EXPECT_THAT(tests, Not(IsEmpty())) << function.name << ' ' << code;
      for (const std::string& test : tests) {
        EXPECT_EQ(names.count(test + "/" + function.name), 1U) << test;
        std::printf("code\t%d\t%s\t%s\n", code, function.name.c_str(), test.c_str());
      }
    }
    for (const auto& [text, test] : function.TestsOfRecords()) {
      EXPECT_EQ(names.count(test + "/" + function.name), 1U) << test;
      std::printf("record\t%s\t%s\t%s\n", text.c_str(), function.unit.c_str(), test.c_str());
    }
  }
}

TEST(TheHeader, ListsEachCodeThatAFunctionReturnsAndNoOther) {
  const std::string header = Header();
  const auto comments = CommentsByFunction(header);
  const auto values = CodesByName(header);
  ASSERT_EQ(values.size(), 17U);
  for (const Function& function : rules::Functions()) {
    std::set<std::string> returned;
    for (const auto& [name, value] : values) {
      if (function.Codes().count(value) > 0) returned.insert(name);
    }
    EXPECT_EQ(returned.size(), function.Codes().size()) << function.name;
    EXPECT_EQ(ListedIn(comments.at(function.name)), returned) << function.name;
  }
}

}  // namespace
