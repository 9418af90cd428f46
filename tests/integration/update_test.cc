// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <string>

#include "sim_process.h"

namespace {

using testing::HasSubstr;

std::string Seen(int updates) {
  return "updates " + std::to_string(updates) +
         ", losses 0, other statuses 0, descriptors +0, memory as before\n";
}

TEST(AClient, SeesNoLossInTwoHundredUpdatesOfTheAgent) {
  const Finished run = RunSim({"run", "update-self", "--", UPDATE_CLIENT, "200"});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, Seen(200));
}

TEST(AClient, SeesNoLossInAnUpdateThatItLooksAtOnlyWhenItIsOver) {
  const std::string update = std::string(SVCMGR_SIM) + " send update";
  const Finished run = RunSim({"run", "update-self", "--", UPDATE_CLIENT, "2", update});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_EQ(run.output, Seen(2));
}

// Each client arrives before an update that somebody else asks for, when all have arrived.
TEST(EightClients, SeeNoLossInTwentyUpdatesOfOneAgent) {
  const std::string clients =
      "ARRIVALS=\"$(dirname \"$SVCMGR_SIM_CONTROL\")\"/arrivals; export ARRIVALS; : > $ARRIVALS; "
      "for i in 1 2 3 4 5 6 7 8; do \"$0\" 20 'echo >> \"$ARRIVALS\"' & done; "
      "for i in $(seq 20); do "
      "until test $(wc -l < $ARRIVALS) -eq $((8 * i)); do sleep 0.01; done; "
      "\"$1\" send update; done; wait";
  const Finished run =
      RunSim({"run", "update-self", "--", "sh", "-c", clients, UPDATE_CLIENT, SVCMGR_SIM});
  EXPECT_EQ(run.status, 0) << run.errors;
  std::string expected;
  for (int i = 0; i < 8; ++i) expected += Seen(20);
  EXPECT_EQ(run.output, expected);
}

TEST(AClientWhoseBusIsKilled, KeepsItsConnection) {
  const Finished run =
      RunSim({"run", "demo", "--", "sh", "-c",
              "kill -KILL \"$(cat \"$(dirname \"$SVCMGR_SIM_CONTROL\")\"/bus.pid)\"; "
              "exec \"$0\" 2",
              CYCLE_CLIENT});
  EXPECT_EQ(run.status, 0) << run.errors;
  EXPECT_THAT(run.output, HasSubstr("failures 0, refusals 0, descriptors +0"));
}

}  // namespace
