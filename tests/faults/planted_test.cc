// SPDX-License-Identifier: Apache-2.0
// What the sweep is shown on purpose. Without a fault all of it is sound.

#include <velmora_svcmgr.h>

#include <ostream>
#include <string>

#include "fake_platform.h"
#include "planted/defects.h"

namespace {

using planted::Defect;

struct Plant {
  const char* name;
  Defect defect;
};

void PrintTo(const Plant& plant, std::ostream* out) { *out << plant.name; }

class APlantedDefect : public fake::PlatformTest, public testing::WithParamInterface<Plant> {};

INSTANTIATE_TEST_SUITE_P(
    Of, APlantedDefect,
    testing::Values(Plant{"None", Defect::kNone}, Plant{"LosesBlock", Defect::kLosesBlock},
                    Plant{"LosesPlatformText", Defect::kLosesPlatformText},
                    Plant{"LosesNew", Defect::kLosesNew},
                    Plant{"LosesParcel", Defect::kLosesParcel},
                    Plant{"LosesPackageInfo", Defect::kLosesPackageInfo},
                    Plant{"LosesDescriptor", Defect::kLosesDescriptor},
                    Plant{"ReleasesTwice", Defect::kReleasesTwice},
                    Plant{"ReleasesGarbage", Defect::kReleasesGarbage},
                    Plant{"FollowsNull", Defect::kFollowsNull},
                    Plant{"FollowsGarbageHandle", Defect::kFollowsGarbageHandle},
                    Plant{"Throws", Defect::kThrows},
                    Plant{"ReturnsUnknownCode", Defect::kReturnsUnknownCode},
                    Plant{"EndsTheConnection", Defect::kEndsTheConnection},
                    Plant{"WritesWithoutMemory", Defect::kWritesWithoutMemory}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_P(APlantedDefect, IsPassedBy) {
  planted::defect = GetParam().defect;
  bool updating = true;
  EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), SVCMGR_ERROR_NONE);
}

/** What fails behind the first of a test's verdicts is seen as well. */
TEST(ALatePlantedDefect, LosesBlock) {
  fake::Reset();
  for (const Defect defect : {Defect::kNone, Defect::kLosesBlock}) {
    planted::defect = defect;
    bool updating = true;
    EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), SVCMGR_ERROR_NONE);
    fake::Verify();
  }
}

/** On its own, since each run of it takes as long as the sweep is patient. */
TEST(AnotherPlantedDefect, Hangs) {
  fake::Reset();
  planted::defect = Defect::kHangs;
  bool updating = true;
  EXPECT_EQ(velmora_svcmgr_is_being_updated(&updating), SVCMGR_ERROR_NONE);
  fake::Verify();
}

}  // namespace
