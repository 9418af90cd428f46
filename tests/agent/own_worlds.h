// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_AGENT_OWN_WORLDS_H_
#define TESTS_AGENT_OWN_WORLDS_H_

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>

#include "temp_folder.h"

/** A folder for worlds that must be empty at the end; scripts find $SIM and $CTL. */
class OwnWorlds : public testing::Test {
 protected:
  void SetUp() override {
    setenv("TMPDIR", worlds_.path().c_str(), 1);
    setenv("SIM", SVCMGR_SIM, 1);
    setenv("CTL", SVCMGRCTL, 1);
  }
  void TearDown() override {
    EXPECT_TRUE(std::filesystem::is_empty(worlds_.path())) << "a world was left behind";
  }

  const TempFolder worlds_;
};

#endif  // TESTS_AGENT_OWN_WORLDS_H_
