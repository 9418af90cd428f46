// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_MODELS_H_
#define BENCH_MODELS_H_

#include <rpc-port-desktop.h>

// Appends `count` models as they travel: their array's count before them, their number after them.
void WriteModels(rpc_port_parcel_h parcel, int count);

#endif  // BENCH_MODELS_H_
