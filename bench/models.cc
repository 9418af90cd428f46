// SPDX-License-Identifier: Apache-2.0
#include "models.h"

#include <cstdlib>
#include <cstring>

#include "bench_world.h"

void WriteModels(rpc_port_parcel_h parcel, int count) {
  rpc_port_parcel_write_array_count(parcel, count);
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    rpc_port_parcel_write_string(parcel, ("com.example.model." + number).c_str());
    rpc_port_parcel_write_string(parcel, "1.0.0");
    rpc_port_parcel_write_string(parcel, ("The model of number " + number).c_str());
    rpc_port_parcel_write_string(parcel, std::string(80, 'd').c_str());
  }
  rpc_port_parcel_write_int32(parcel, count);
}

PlainModels::PlainModels(rpc_port_parcel_h parcel) {
  int count = 0;
  Require(rpc_port_parcel_read_array_count(parcel, &count) == 0, "read a list");
  for (int i = 0; i < count; ++i) {
    Record* const first = new Record;
    Record* const second = new Record;
    for (std::size_t field = 0; field < first->size(); ++field) {
      char* text = nullptr;
      Require(rpc_port_parcel_read_string(parcel, &text) == 0, "read a text");
      (*first)[field] = strdup(text);
      (*second)[field] = strdup(text);
      std::free(text);
    }
    records_.push_back(first);
    records_.push_back(second);
  }
}

PlainModels::~PlainModels() {
  for (Record* record : records_) {
    for (char* text : *record) std::free(text);
    delete record;
  }
}
