// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_EVENT_DATA_H_
#define SVCMGR_EVENT_DATA_H_

// What the agent's events carry.

#include <bundle.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

namespace svcmgr {

// An event without data holds nothing.

// The presence of the key is the message; its text says nothing.
inline bool HoldsText(bundle* data, const char* key) {
  char* text = nullptr;
  return data != nullptr && bundle_get_str(data, key, &text) == 0;
}

inline bool HoldsTexts(bundle* data, const char* key) {
  int count = 0;
  return data != nullptr && bundle_get_str_array(data, key, &count) != nullptr;
}

// The number under a key; none if it is absent or shorter than four bytes. It need not be aligned.
inline std::optional<std::int32_t> ReadNumber(bundle* data, const char* key) {
  void* bytes = nullptr;
  std::size_t size = 0;
  std::int32_t number = 0;
  if (data == nullptr || bundle_get_byte(data, key, &bytes, &size) != 0) return std::nullopt;
  if (bytes == nullptr || size < sizeof number) return std::nullopt;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

}  // namespace svcmgr

#endif  // SVCMGR_EVENT_DATA_H_
