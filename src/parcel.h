// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_PARCEL_H_
#define SVCMGR_PARCEL_H_

#include <rpc-port.h>

#include <cstring>
#include <memory>
#include <memory_resource>
#include <utility>

#include "SvcMgrAppProxyException.h"
#include "text.h"

namespace svcmgr {

struct ParcelDeleter {
  void operator()(void* parcel) const noexcept { rpc_port_parcel_destroy(parcel); }
};

// Owns a parcel; may be empty.
using Parcel = std::unique_ptr<void, ParcelDeleter>;

inline Parcel CreateParcel() {
  rpc_port_parcel_h parcel = nullptr;
  if (rpc_port_parcel_create(&parcel) != 0 || parcel == nullptr) {
    throw rpc_port::SvcMgrAppProxy::proxy::InvalidIOException();
  }
  return Parcel(parcel);
}

// Waits for a message on a port; empty if none can come any more.
inline Parcel ReceiveParcel(rpc_port_h port) {
  rpc_port_parcel_h parcel = nullptr;
  return rpc_port_parcel_create_from_port(&parcel, port) == 0 ? Parcel(parcel) : nullptr;
}

// Writes a parcel. A write that fails throws InvalidIOException, so that no incomplete message is
// sent.
class ParcelWriter {
 public:
  explicit ParcelWriter(const Parcel& parcel) : parcel_(parcel.get()) {}

  void Int32(int value) { Check(rpc_port_parcel_write_int32(parcel_, value)); }
  void Bool(bool value) { Check(rpc_port_parcel_write_bool(parcel_, value)); }
  void String(const char* text) { Check(rpc_port_parcel_write_string(parcel_, text)); }
  void Count(int count) { Check(rpc_port_parcel_write_array_count(parcel_, count)); }

 private:
  static void Check(int result) {
    if (result != 0) throw rpc_port::SvcMgrAppProxy::proxy::InvalidIOException();
  }

  rpc_port_parcel_h parcel_;
};

// Reads a parcel. The first read that fails ends the reading: it and all later ones yield nothing,
// and ok() is false from then on.
class ParcelReader {
 public:
  explicit ParcelReader(rpc_port_parcel_h parcel) : parcel_(parcel) {}

  bool ok() const { return ok_; }

  int Int32() { return Read<int>(rpc_port_parcel_read_int32); }
  bool Bool() { return Read<bool>(rpc_port_parcel_read_bool); }
  int Count() { return Read<int>(rpc_port_parcel_read_array_count); }

  // A null text counts as empty; null only after a failure.
  Text String() {
    Text text(Read<char*>(rpc_port_parcel_read_string));
    return text == nullptr && ok_ ? CopyText("") : std::move(text);
  }
  // The same in memory that goes with the message; empty after a failure. Throws std::bad_alloc.
  const char* StringIn(std::pmr::memory_resource& memory) {
    const Text text(Read<char*>(rpc_port_parcel_read_string));
    if (text == nullptr) return "";
    const std::size_t size = std::strlen(text.get()) + 1;
    return static_cast<char*>(std::memcpy(memory.allocate(size, 1), text.get(), size));
  }

 private:
  template <typename T>
  T Read(int (*read)(rpc_port_parcel_h, T*)) {
    T value{};
    ok_ = ok_ && read(parcel_, &value) == 0;
    return ok_ ? value : T{};
  }

  rpc_port_parcel_h parcel_;
  bool ok_ = true;
};

}  // namespace svcmgr

#endif  // SVCMGR_PARCEL_H_
