// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_PARCEL_H_
#define RPC_PORT_PARCEL_H_

#include <string_view>

#include "byte_buffer.h"
#include "wire.h"

namespace rpc_port_desktop {

// A message in its wire layout, and a place to read from. Small ones live in the object itself, so
// that making one is a single allocation.
//
//   int32, array count   4 bytes, little-endian
//   bool                 1 byte; any value but 0 reads as true
//   string               int32 length with the terminating NUL, then that many bytes
class Parcel {
 public:
  Parcel() = default;
  Parcel(const Parcel&) = delete;
  Parcel& operator=(const Parcel&) = delete;

  // Writers append; false says that the parcel is full or memory is short, and nothing has changed.
  [[nodiscard]] bool WriteInt32(int32_t value);
  [[nodiscard]] bool WriteBool(bool value);
  [[nodiscard]] bool WriteString(std::string_view text);

  // Readers move on only when they succeed; the output is untouched otherwise.
  [[nodiscard]] bool ReadInt32(int32_t* value);
  [[nodiscard]] bool ReadBool(bool* value);
  // The view ends before the NUL and is valid until the parcel is written to.
  [[nodiscard]] bool ReadString(std::string_view* text);

  const uint8_t* content() const { return bytes_ + kPrefixSize; }
  size_t content_size() const { return size_ - kPrefixSize; }

  // Fills in the prefix and returns the whole message, which has `message_size` bytes.
  const uint8_t* Seal();
  size_t message_size() const { return size_; }

  // Replaces the content; reading starts at its front.
  [[nodiscard]] bool Assign(const void* content, size_t size);
  // The same with a whole message, prefix included, without copying it.
  void Adopt(ByteBuffer buffer, size_t message_size);

 private:
  static constexpr size_t kInlineCapacity = 232;

  uint8_t* Append(size_t size);
  bool Grow(size_t needed);
  size_t left() const { return size_ - cursor_; }

  uint8_t* bytes_ = inline_;
  size_t size_ = kPrefixSize;
  size_t cursor_ = kPrefixSize;
  size_t capacity_ = kInlineCapacity;
  ByteBuffer heap_;
  uint8_t inline_[kInlineCapacity];
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_PARCEL_H_
