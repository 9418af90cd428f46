// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SWEEP_CLIENT_H_
#define TESTS_SWEEP_CLIENT_H_

#include "run_record.h"

namespace sweep {

/** Something that is wrong with the client itself once an allocation has failed: what the sweep must see. */
enum class Plant { kNone, kBlock, kDescriptor, kCrash, kRequest };

/**
 * A client's whole life in a process that has called nothing of the library yet: it connects, asks
 * everything, follows updates and disconnects, while allocations fail; then, while none fails, does
 * all that again, on the connection that stands and on a new one. Tells in the record how that went,
 * and returns what the process has to exit with. `kept_caller` is handed to KeepStacksOf.
 */
int RunClient(const Injection& injection, Plant plant, void* kept_caller, RunRecord* record);

}  // namespace sweep

#endif  // TESTS_SWEEP_CLIENT_H_
