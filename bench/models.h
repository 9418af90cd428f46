// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_MODELS_H_
#define BENCH_MODELS_H_

#include <rpc-port-desktop.h>

#include <array>
#include <string>
#include <vector>

// The lists that the benches transfer and convert, and the least work that a list takes.

// Appends `count` models as they travel: their array's count before them, their number after them.
void WriteModels(rpc_port_parcel_h parcel, int count);

// What any implementation does with a list: each text is read as the platform hands it out, and
// copied into the two records of its model.
class PlainModels {
 public:
  explicit PlainModels(rpc_port_parcel_h parcel);
  ~PlainModels();
  PlainModels(const PlainModels&) = delete;
  PlainModels& operator=(const PlainModels&) = delete;

 private:
  using Record = std::array<char*, 4>;

  std::vector<Record*> records_;
};

#endif  // BENCH_MODELS_H_
