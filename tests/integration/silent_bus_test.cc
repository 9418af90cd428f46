// SPDX-License-Identifier: Apache-2.0
// The command line's time limits where the session bus is there and does not answer.

#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <string>

#include "sim_process.h"
#include "support/fake_bus.h"

namespace {

using testing::HasSubstr;

/** Longer than any of the limits here, with all that a slow machine adds; a bus without one takes 90 s. */
constexpr std::chrono::seconds kSoon(60);

class ASilentBus : public testing::TestWithParam<bool> {
 protected:
  ~ASilentBus() override { EXPECT_LT(std::chrono::steady_clock::now() - begin_, kSoon); }

  /** Of svcmgrctl in a world whose bus is stopped, or one that was never greeted. */
  std::vector<std::string> Arguments(const std::string& scenario,
                                     const std::string& arguments) const {
    const std::string silence =
        GetParam() ? "kill -STOP $(cat \"$VELMORA_RUNTIME_DIR/../bus.pid\") && "
                   : "export DBUS_SESSION_BUS_ADDRESS=" + never_greets_.address() + " && ";
    return {"run", scenario, "--", "/bin/sh", "-c", silence + "exec " SVCMGRCTL " " + arguments};
  }

 private:
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  FakeBus never_greets_;
};

TEST_P(ASilentBus, DelaysNoQuestionToTheAgent) {
  const Finished run = RunSim(Arguments("demo", "--timeout 2 api-level"));
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, "11\n");
}

TEST_P(ASilentBus, LeavesAnUpdateItsTimeLimit) {
  const Finished run = RunSim(Arguments("update-results", "--timeout 2 update"));
  EXPECT_EQ(run.status, 7) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("was asked to update all agents"));
}

TEST_P(ASilentBus, LeavesAWatchItsConnectionAndItsEnd) {
  SimProcess watch(Arguments("demo", "--timeout 2 watch"));
  EXPECT_THAT(watch.Line(), HasSubstr("SVCMGR_CONNECTION_STATE_CONNECTED"));
  watch.Signal(SIGTERM);
  EXPECT_EQ(watch.Await(), 143);
}

TEST_P(ASilentBus, LeavesTheAgentsOwnUpdateItsTimeLimit) {
  const Finished run = RunSim(Arguments("update-self", "--timeout 2 update"));
  EXPECT_THAT(run.status, testing::AnyOf(6, 7)) << run.errors;
}

INSTANTIATE_TEST_SUITE_P(Silences, ASilentBus, testing::Bool(), [](const auto& silence) {
  return silence.param ? "Stopped" : "NeverGreets";
});

}  // namespace
