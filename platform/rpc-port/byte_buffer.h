// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_BYTE_BUFFER_H_
#define RPC_PORT_BYTE_BUFFER_H_

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

#include "owned.h"

namespace rpc_port_desktop {

// A block of raw bytes. Unlike a vector it never zeroes what is about to be overwritten, and
// growing a large block remaps its pages instead of copying them.
class ByteBuffer {
 public:
  ByteBuffer() = default;
  ByteBuffer(ByteBuffer&& other) noexcept
      : bytes_(std::move(other.bytes_)), capacity_(std::exchange(other.capacity_, 0)) {}
  ByteBuffer& operator=(ByteBuffer&& other) noexcept {
    bytes_ = std::move(other.bytes_);
    capacity_ = std::exchange(other.capacity_, 0);
    return *this;
  }

  uint8_t* data() const { return bytes_.get(); }
  size_t capacity() const { return capacity_; }

  // Keeps the content as far as it fits. On failure nothing has changed.
  [[nodiscard]] bool Resize(size_t capacity) {
    void* bytes = std::realloc(bytes_.get(), capacity);
    if (bytes == nullptr) return false;
    (void)bytes_.release();
    bytes_.reset(static_cast<uint8_t*>(bytes));
    capacity_ = capacity;
    return true;
  }

  void Reset() {
    bytes_.reset();
    capacity_ = 0;
  }

 private:
  base::Malloced<uint8_t> bytes_;
  size_t capacity_ = 0;
};

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_BYTE_BUFFER_H_
