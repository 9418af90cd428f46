/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_TESTS_FAULTS_API_CALLS_H_
#define SVCMGR_TESTS_FAULTS_API_CALLS_H_

/* Each exported function with a judge before it, whoever calls it. */

namespace faults {

/** Reads the table of rules; from here on each code is held against it. */
void JudgeCodes();

}  // namespace faults

#endif  // SVCMGR_TESTS_FAULTS_API_CALLS_H_
