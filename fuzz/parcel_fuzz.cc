// SPDX-License-Identifier: Apache-2.0
// Reading a parcel of any content in any order, compared with a second implementation of the
// layout.
//
// Input: the reads as a block, one a byte, then the parcel's content.

#include <rpc-port-desktop.h>

#include <cstring>
#include <vector>

#include "input.h"

namespace {

constexpr int kIoError = -5;

// The layout as the platform's documentation has it; a read that fails takes nothing.
class Expected {
 public:
  explicit Expected(std::string_view content) : rest_(content) {}

  bool Int32(std::int32_t* value) {
    if (rest_.size() < 4) return false;
    *value = 0;
    for (std::size_t i = 4; i-- > 0;) {
      *value = static_cast<std::int32_t>(static_cast<std::uint32_t>(*value) << 8 |
                                         static_cast<std::uint8_t>(rest_[i]));
    }
    rest_.remove_prefix(4);
    return true;
  }
  bool Bool(bool* value) {
    if (rest_.empty()) return false;
    *value = rest_[0] != 0;
    rest_.remove_prefix(1);
    return true;
  }
  bool Text(std::string* value) {
    const std::string_view before = rest_;
    std::int32_t length = 0;
    if (Int32(&length) && length > 0 && static_cast<std::size_t>(length) <= rest_.size()) {
      const std::string_view text = rest_.substr(0, static_cast<std::size_t>(length));
      rest_.remove_prefix(text.size());
      *value = text.substr(0, text.size() - 1);
      if (text.find('\0') == text.size() - 1) return true;
    }
    rest_ = before;
    return false;
  }

 private:
  std::string_view rest_;
};

void CheckInt32(int (*read)(rpc_port_parcel_h, int*), rpc_port_parcel_h parcel,
                Expected* expected) {
  int value = 0x5a5a5a5a;
  std::int32_t wanted = value;
  REQUIRE(read(parcel, &value) == (expected->Int32(&wanted) ? 0 : kIoError));
  REQUIRE(value == wanted);
}

void CheckBool(rpc_port_parcel_h parcel, Expected* expected) {
  bool value = true;
  bool wanted = value;
  REQUIRE(rpc_port_parcel_read_bool(parcel, &value) == (expected->Bool(&wanted) ? 0 : kIoError));
  REQUIRE(value == wanted);
}

void CheckText(rpc_port_parcel_h parcel, Expected* expected) {
  char untouched;
  char* text = &untouched;
  std::string wanted;
  if (!expected->Text(&wanted)) {
    REQUIRE(rpc_port_parcel_read_string(parcel, &text) == kIoError && text == &untouched);
    return;
  }
  REQUIRE(rpc_port_parcel_read_string(parcel, &text) == 0 && text == wanted);
  std::free(text);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string_view reads = input.Block();
  const std::string_view content = input.Rest();
  rpc_port_parcel_h parcel = nullptr;
  REQUIRE(rpc_port_parcel_create(&parcel) == 0);
  REQUIRE(rpc_port_desktop_parcel_set_bytes(parcel, content.data(), content.size()) == 0);
  Expected expected(content);
  for (const char read : reads) {
    switch (static_cast<std::uint8_t>(read) % 4) {
      case 0:
        CheckInt32(rpc_port_parcel_read_int32, parcel, &expected);
        break;
      case 1:
        CheckInt32(rpc_port_parcel_read_array_count, parcel, &expected);
        break;
      case 2:
        CheckBool(parcel, &expected);
        break;
      default:
        CheckText(parcel, &expected);
    }
  }
  REQUIRE(rpc_port_parcel_destroy(parcel) == 0);
  return 0;
}
