// SPDX-License-Identifier: Apache-2.0
#ifndef FUZZ_INPUT_H_
#define FUZZ_INPUT_H_

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "require.h"

// What each target defines: handles one input and returns 0. The same input always does the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// An input that is read from its front. A byte past its end reads as zero.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return rest_.empty(); }

  std::uint8_t Byte() {
    if (rest_.empty()) return 0;
    const auto byte = static_cast<std::uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return byte;
  }

  std::string_view Bytes(std::size_t size) {
    const std::string_view bytes = rest_.substr(0, size);
    rest_.remove_prefix(bytes.size());
    return bytes;
  }

  std::string_view Rest() { return Bytes(rest_.size()); }

  // A block after its length, two bytes, little-endian.
  std::string_view Block() {
    const std::size_t low = Byte();
    const std::size_t high = Byte();
    return Bytes(low | high << 8);
  }

 private:
  std::string_view rest_;
};

#endif  // FUZZ_INPUT_H_
