// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SWEEP_CLIENT_H_
#define TESTS_SWEEP_CLIENT_H_

#include "run_record.h"

namespace sweep {

/** A fault of the client itself once an allocation has failed, which the sweep must find. */
enum class Plant { kNone, kBlock, kDescriptor, kCrash, kRequest };

/**
 * A client's whole life in a process that has not called the library yet: it connects, asks
 * everything, follows updates and disconnects, while allocations fail; then, while none fails, does
 * all that again, on the existing connection and on a new one. Tells in the record how that went,
 * and returns the process's exit status. `kept_caller` is handed to KeepStacksOf.
 */
int RunClient(const Injection& injection, Plant plant, void* kept_caller, RunRecord* record);

}  // namespace sweep

#endif  // TESTS_SWEEP_CLIENT_H_
