/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_FAULTS_PLANTED_DEFECTS_H_
#define SVCMGR_TESTS_FAULTS_PLANTED_DEFECTS_H_

/* Defects for the sweep to find: two exported functions stand in the place of the library's. */

namespace planted {

enum class Defect {
  kNone,
  kLosesBlock,         // on the way out after a failure
  kLosesPlatformText,  // that it was given before another call failed
  kLosesNew,
  kLosesParcel,
  kLosesPackageInfo,
  kLosesDescriptor,
  kReleasesTwice,
  kReleasesGarbage,
  kFollowsNull,
  kFollowsGarbageHandle,
  kThrows,
  kReturnsUnknownCode,
  kHangs,
  kEndsTheConnection,  // for good
  kWritesWithoutMemory,
};

/** What velmora_svcmgr_is_being_updated does from here on, and velmora_svcmgr_disconnect after it. */
extern Defect defect;

}  // namespace planted

#endif  // SVCMGR_TESTS_FAULTS_PLANTED_DEFECTS_H_
