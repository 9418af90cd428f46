// SPDX-License-Identifier: Apache-2.0
#include "models.h"

#include <string>

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
