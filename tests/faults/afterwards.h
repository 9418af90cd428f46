/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_FAULTS_AFTERWARDS_H_
#define SVCMGR_TESTS_FAULTS_AFTERWARDS_H_

namespace faults {

enum class Use {
  kDone,
  kStranded,  // an attempt is under way of whose end the platform has refused to tell
};

/** Connects, asks once and disconnects in a sound world; what fails is a finding. */
Use UseTheConnectionAfterwards();

}  // namespace faults

#endif  // SVCMGR_TESTS_FAULTS_AFTERWARDS_H_
