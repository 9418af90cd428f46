// SPDX-License-Identifier: Apache-2.0
// The public header in three languages: included first and alone, here as C++17.

#include <velmora_svcmgr.h>

#include <string>
#include <type_traits>

#include "fake_platform.h"
#include "model_support.h"

extern "C" {
int header_c99_error_count(void);
const char* header_c99_error_name(int row);
int header_c99_error_value(int row);
int header_c99_null_calls(int* refused);
int header_cxx98_error_count(void);
const char* header_cxx98_error_name(int row);
int header_cxx98_error_value(int row);
int header_cxx98_null_calls(int* refused);
}

namespace {

struct Error {
  std::string name;
  int value;
  unsigned bits;
};

void PrintTo(const Error& error, std::ostream* out) { *out << error.name; }

const Error kErrors[] = {
    {"SVCMGR_ERROR_NONE", 0, 0x00000000},
    {"SVCMGR_ERROR_CONNECTION_FAILED", -1, 0xFFFFFFFF},
    {"SVCMGR_ERROR_IO_ERROR", -5, 0xFFFFFFFB},
    {"SVCMGR_ERROR_OUT_OF_MEMORY", -12, 0xFFFFFFF4},
    {"SVCMGR_ERROR_PERMISSION_DENIED", -13, 0xFFFFFFF3},
    {"SVCMGR_ERROR_INVALID_PARAMETER", -22, 0xFFFFFFEA},
    {"SVCMGR_ERROR_NO_SPACE", -28, 0xFFFFFFE4},
    {"SVCMGR_ERROR_INVALID_OPERATION", -38, 0xFFFFFFDA},
    {"SVCMGR_ERROR_ALREADY_CONNECTED", -106, 0xFFFFFF96},
    {"SVCMGR_ERROR_NOT_CONNECTED", -107, 0xFFFFFF95},
    {"SVCMGR_ERROR_NOT_SUPPORTED", -1073741822, 0xC0000002},
    {"SVCMGR_ERROR_INVALID_API_LEVEL", -1073741825, 0xBFFFFFFF},
    {"SVCMGR_ERROR_KYR_DISABLED", -1073741826, 0xBFFFFFFE},
    {"SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION", -1073741827, 0xBFFFFFFD},
    {"SVCMGR_ERROR_OUT_OF_INDEX", -1073741830, 0xBFFFFFFA},
    {"SVCMGR_ERROR_AGENT_CODE_3", -1073741831, 0xBFFFFFF9},
    {"SVCMGR_ERROR_AGENT_CODE_6", -1073741829, 0xBFFFFFFB},
};

int ValueOf(const std::string& name, int count, const char* (*name_of)(int), int (*value_of)(int)) {
  for (int row = 0; row < count; ++row) {
    if (name_of(row) == name) return value_of(row);
  }
  ADD_FAILURE() << "there is no " << name;
  return 0;
}

struct AnErrorValue : ::testing::TestWithParam<Error> {};

INSTANTIATE_TEST_SUITE_P(Of, AnErrorValue, ::testing::ValuesIn(kErrors), models::NameOfRow());

TEST_P(AnErrorValue, IsTheSameInEveryLanguage) {
  EXPECT_EQ(static_cast<unsigned>(GetParam().value), GetParam().bits);
  EXPECT_EQ(ValueOf(GetParam().name, header_c99_error_count(), header_c99_error_name,
                    header_c99_error_value),
            GetParam().value);
  EXPECT_EQ(ValueOf(GetParam().name, header_cxx98_error_count(), header_cxx98_error_name,
                    header_cxx98_error_value),
            GetParam().value);
}

TEST(ThePublicHeader, HasNoErrorBesidesThese) {
  EXPECT_EQ(header_c99_error_count(), static_cast<int>(std::size(kErrors)));
  EXPECT_EQ(header_cxx98_error_count(), static_cast<int>(std::size(kErrors)));
}

// In C++17 the values are constants, and fit what the functions return.
static_assert(std::is_same_v<std::underlying_type_t<velmora_svcmgr_error_e>, int>);
static_assert(SVCMGR_ERROR_NONE == 0 && SVCMGR_ERROR_NOT_SUPPORTED == -1073741822);

TEST(ThePublicHeader, NumbersTheStatesOfAConnection) {
  EXPECT_EQ(SVCMGR_CONNECTION_STATE_CONNECTED, 0);
  EXPECT_EQ(SVCMGR_CONNECTION_STATE_DISCONNECTED, 1);
  EXPECT_EQ(SVCMGR_CONNECTION_STATE_REJECTED, 2);
}

TEST(ThePublicHeader, NamesItsVersionAndLevel) {
  EXPECT_EQ(VELMORA_SVCMGR_VERSION_MAJOR, 2);
  EXPECT_EQ(VELMORA_SVCMGR_VERSION_MINOR, 3);
  EXPECT_EQ(VELMORA_SVCMGR_VERSION_PATCH, 182);
  EXPECT_EQ(VELMORA_SVCMGR_API_LEVEL, 11);
}

TEST(ThePublicHeader, HasOpaqueHandlesThatCannotBeMistaken) {
  using Info = velmora_svcmgr_ai_model_info_h;
  using List = velmora_svcmgr_ai_model_list_h;
  EXPECT_TRUE(std::is_pointer_v<Info> && std::is_pointer_v<List>);
  EXPECT_FALSE((std::is_convertible_v<Info, List> || std::is_convertible_v<List, Info>));
}

struct ThePublicFunctions : fake::PlatformTest {};

TEST_F(ThePublicFunctions, CanBeCalledFromC) {
  int refused = 0;
  EXPECT_EQ(header_c99_null_calls(&refused), 22);
  EXPECT_EQ(refused, 22);
}

TEST_F(ThePublicFunctions, CanBeCalledFromOldCxx) {
  int refused = 0;
  EXPECT_EQ(header_cxx98_null_calls(&refused), 22);
  EXPECT_EQ(refused, 22);
}

}  // namespace
