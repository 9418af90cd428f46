// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_PROTOCOL_PARCEL_H_
#define AGENT_PROTOCOL_PARCEL_H_

#include <rpc-port-desktop.h>
#include <rpc-port.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "common/platform_error.h"
#include "owned.h"

namespace sim {

/** Owns a parcel. Writing and reading throw PlatformError. */
class Parcel {
 public:
  Parcel() { Check(rpc_port_parcel_create(&handle_), "cannot make a parcel"); }
  Parcel(Parcel&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
  Parcel& operator=(Parcel&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  ~Parcel() {
    if (handle_ != nullptr) rpc_port_parcel_destroy(handle_);
  }

  /** Blocks for the next message of a port. */
  static Parcel From(rpc_port_h port) {
    rpc_port_parcel_h handle = nullptr;
    Check(rpc_port_parcel_create_from_port(&handle, port), "cannot read a message");
    return Parcel(handle);
  }

  rpc_port_parcel_h get() const { return handle_; }

  Parcel& Int(std::int32_t value) {
    Check(rpc_port_parcel_write_int32(handle_, value), "cannot write a number");
    return *this;
  }
  Parcel& Flag(bool value) {
    Check(rpc_port_parcel_write_bool(handle_, value), "cannot write a flag");
    return *this;
  }
  Parcel& Text(const char* value) {
    Check(rpc_port_parcel_write_string(handle_, value), "cannot write a text");
    return *this;
  }
  Parcel& Count(std::int32_t value) {
    Check(rpc_port_parcel_write_array_count(handle_, value), "cannot write a count");
    return *this;
  }

  std::int32_t Int() {
    int value = 0;
    Check(rpc_port_parcel_read_int32(handle_, &value), "cannot read a number");
    return value;
  }
  bool Flag() {
    bool value = false;
    Check(rpc_port_parcel_read_bool(handle_, &value), "cannot read a flag");
    return value;
  }
  std::string Text() {
    char* value = nullptr;
    Check(rpc_port_parcel_read_string(handle_, &value), "cannot read a text");
    const base::Malloced<char> owner(value);
    return value == nullptr ? std::string() : std::string(value);
  }
  std::int32_t Count() {
    int value = 0;
    Check(rpc_port_parcel_read_array_count(handle_, &value), "cannot read a count");
    return value;
  }

  /** The content; valid until the parcel changes. */
  std::string_view Bytes() const {
    const void* bytes = nullptr;
    std::size_t size = 0;
    Check(rpc_port_desktop_parcel_get_bytes(handle_, &bytes, &size), "cannot look into a parcel");
    return {static_cast<const char*>(bytes), size};
  }
  void SetBytes(std::string_view bytes) {
    Check(rpc_port_desktop_parcel_set_bytes(handle_, bytes.data(), bytes.size()),
          "cannot fill a parcel");
  }

  /** Sends the parcel; false if the peer is gone. */
  bool Send(rpc_port_h port) const { return rpc_port_parcel_send(handle_, port) == 0; }

 private:
  explicit Parcel(rpc_port_parcel_h handle) : handle_(handle) {}

  rpc_port_parcel_h handle_ = nullptr;
};

}  // namespace sim

#endif  // AGENT_PROTOCOL_PARCEL_H_
