// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_WIRE_H_
#define RPC_PORT_WIRE_H_

#include <endian.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

/*
 * What travels on a stream: messages, one after the other. A message is its content's length as a
 * little-endian int32, then the content. In memory a parcel keeps the same layout, so that it is
 * sent in one piece.
 */

namespace rpc_port_desktop {

constexpr size_t kPrefixSize = sizeof(uint32_t);
constexpr size_t kMaxContentSize = size_t{16} << 20;

inline uint32_t LoadLe32(const uint8_t* bytes) {
  uint32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return le32toh(value);
}

inline void StoreLe32(uint8_t* bytes, uint32_t value) {
  value = htole32(value);
  std::memcpy(bytes, &value, sizeof value);
}

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_WIRE_H_
