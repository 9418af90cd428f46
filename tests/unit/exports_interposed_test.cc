// SPDX-License-Identifier: Apache-2.0
// A program that links the shared library and defines functions of the platform itself: they are
// called instead of the platform's.

#include <dlog.h>
#include <gtest/gtest.h>
#include <package_info.h>
#include <velmora_svcmgr.h>

#include <string>

namespace {

int look_ups = 0;
int records = 0;
std::string looked_up;

}  // namespace

int package_info_create(const char* package, package_info_h*) {
  ++look_ups;
  looked_up = package;
  return static_cast<int>(0xFEEB0071U);
}

int dlog_print(log_priority, const char*, const char*, ...) {
  ++records;
  return 0;
}

namespace {

TEST(AProgramThatDefinesPlatformFunctions, IsAskedFirst) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(look_ups, 1);
  EXPECT_EQ(looked_up, AGENT_PACKAGE_ID);
  EXPECT_EQ(records, 1);
}

TEST(AProgramThatDefinesPlatformFunctions, IsAskedByEveryFunctionThatItCalls) {
  velmora_svcmgr_ai_model_list_h list = nullptr;
  EXPECT_EQ(velmora_svcmgr_ai_model_list_create(&list), SVCMGR_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(velmora_svcmgr_connect(nullptr, nullptr), SVCMGR_ERROR_NOT_SUPPORTED);
  EXPECT_EQ(look_ups, 2);
  EXPECT_EQ(list, nullptr);
}

}  // namespace
