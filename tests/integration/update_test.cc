// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <string>

#include "sim_process.h"

namespace {

using testing::HasSubstr;

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
