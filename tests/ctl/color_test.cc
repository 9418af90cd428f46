// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "process.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr char kEscape[] = "\x1b[";

Ending RunOnTerminal(std::vector<std::string> arguments, decltype(Start::environment) environment) {
  Start start;
  start.arguments = std::move(arguments);
  start.environment = std::move(environment);
  start.terminal = true;
  return RunWith(start, "{}");
}

TEST(Color, IsNotUsedInAPipe) {
  EXPECT_THAT(RunScripted("{}", {"status"}).output, Not(HasSubstr(kEscape)));
  EXPECT_THAT(RunScripted("{}", {"status", "--color", "auto"}).output, Not(HasSubstr(kEscape)));
}

TEST(Color, IsUsedInAPipeIfItIsAlwaysWanted) {
  EXPECT_EQ(RunScripted(R"({"models": {"models": [{"id": "a"}]}})",
                        {"models", "list", "--color", "always"})
                .output,
            "\x1b[1mID\x1b[0m  \x1b[1mVERSION\x1b[0m  \x1b[1mTITLE\x1b[0m\na   -        -\n");
  EXPECT_EQ(RunScripted("{}", {"frobnicate", "--color=always"}).errors,
            "svcmgrctl: \x1b[31merror:\x1b[0m there is no command 'frobnicate'; see 'svcmgrctl "
            "--help'\n");
}

TEST(Color, IsNeverPartOfJson) {
  EXPECT_THAT(RunScripted("{}", {"status", "--json", "--color", "always"}).output,
              Not(HasSubstr(kEscape)));
}

TEST(Color, ThatIsAskedForCountsMoreThanNoColor) {
  Start start;
  start.arguments = {"status", "--color", "always"};
  start.environment = {{"NO_COLOR", "1"}};
  EXPECT_THAT(RunWith(start, "{}").output, HasSubstr(kEscape));
}

TEST(Color, IsUsedOnATerminalUnlessItIsNotWanted) {
  if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  EXPECT_THAT(RunOnTerminal({"status"}, {}).output, HasSubstr(kEscape));
  EXPECT_THAT(RunOnTerminal({"status"}, {{"NO_COLOR", ""}}).output, HasSubstr(kEscape));
  EXPECT_THAT(RunOnTerminal({"status"}, {{"NO_COLOR", "1"}}).output, Not(HasSubstr(kEscape)));
  EXPECT_THAT(RunOnTerminal({"status"}, {{"TERM", "dumb"}}).output, Not(HasSubstr(kEscape)));
  EXPECT_THAT(RunOnTerminal({"status", "--color=never"}, {}).output, Not(HasSubstr(kEscape)));
}

TEST(Color, IsNotUsedOnATerminalThatDoesNotSayWhatItIs) {
  if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  for (const auto& term : {std::optional<std::string>(), std::optional<std::string>("")}) {
    EXPECT_THAT(RunOnTerminal({"status"}, {{"TERM", term}}).output, Not(HasSubstr(kEscape)));
    EXPECT_THAT(RunOnTerminal({"frobnicate"}, {{"TERM", term}}).output, Not(HasSubstr(kEscape)));
    EXPECT_THAT(RunOnTerminal({"status", "--color=always"}, {{"TERM", term}}).output,
                HasSubstr(kEscape));
  }
}

TEST(Color, OfMessagesFollowsStandardError) {
  if (!HasTerminals()) GTEST_SKIP() << "there are no pseudo terminals here";
  EXPECT_THAT(RunOnTerminal({"frobnicate"}, {}).output, HasSubstr("\x1b[31merror:\x1b[0m"));
  EXPECT_THAT(RunOnTerminal({"frobnicate"}, {{"NO_COLOR", "1"}}).output,
              HasSubstr("svcmgrctl: error: there"));
}

}  // namespace
