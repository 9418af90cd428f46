// SPDX-License-Identifier: Apache-2.0
#include <rpc-port-desktop.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "codes.h"
#include "handles.h"
#include "parcel.h"
#include "stream.h"

// A parcel's handle is its address: parcels are made, read and released for every message, by one
// owner, so that looking them up would cost more than it protects.

using rpc_port_desktop::Guarded;
using rpc_port_desktop::Handles;
using rpc_port_desktop::kInvalidParameter;
using rpc_port_desktop::kIoError;
using rpc_port_desktop::kOk;
using rpc_port_desktop::kOutOfMemory;
using rpc_port_desktop::Parcel;
using rpc_port_desktop::Stream;

namespace {

Parcel* Of(rpc_port_parcel_h h) { return static_cast<Parcel*>(h); }

int Written(bool success) { return success ? kOk : kOutOfMemory; }

int Read(bool success) { return success ? kOk : kIoError; }

}  // namespace

int rpc_port_parcel_create(rpc_port_parcel_h* h) {
  if (h == nullptr) return kInvalidParameter;
  auto* parcel = new (std::nothrow) Parcel;
  if (parcel == nullptr) return kOutOfMemory;
  *h = parcel;
  return kOk;
}

int rpc_port_parcel_create_from_port(rpc_port_parcel_h* h, rpc_port_h port) {
  if (h == nullptr) return kInvalidParameter;
  return Guarded([&]() -> int {
    const auto stream = Handles<Stream>::Get().Find(port);
    if (!stream) return kInvalidParameter;
    // Not make_unique, which would zero it.
    std::unique_ptr<Parcel> parcel(new (std::nothrow) Parcel);
    const int result = stream->Receive(parcel.get());
    if (result == kOk) *h = parcel.release();
    return result;
  });
}

int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port) {
  if (h == nullptr) return kInvalidParameter;
  return Guarded([&]() -> int {
    const auto stream = Handles<Stream>::Get().Find(port);
    if (!stream) return kInvalidParameter;
    const uint8_t* message = Of(h)->Seal();
    return stream->Send(message, Of(h)->message_size());
  });
}

int rpc_port_parcel_destroy(rpc_port_parcel_h h) {
  if (h == nullptr) return kInvalidParameter;
  delete Of(h);
  return kOk;
}

int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i) {
  if (h == nullptr) return kInvalidParameter;
  return Written(Of(h)->WriteInt32(i));
}

int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b) {
  if (h == nullptr) return kInvalidParameter;
  return Written(Of(h)->WriteBool(b));
}

int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char* str) {
  if (h == nullptr || str == nullptr) return kInvalidParameter;
  return Written(Of(h)->WriteString(str));
}

int rpc_port_parcel_write_array_count(rpc_port_parcel_h h, int count) {
  return rpc_port_parcel_write_int32(h, count);
}

int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int* i) {
  if (h == nullptr || i == nullptr) return kInvalidParameter;
  return Read(Of(h)->ReadInt32(i));
}

int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool* b) {
  if (h == nullptr || b == nullptr) return kInvalidParameter;
  return Read(Of(h)->ReadBool(b));
}

int rpc_port_parcel_read_string(rpc_port_parcel_h h, char** str) {
  if (h == nullptr || str == nullptr) return kInvalidParameter;
  std::string_view text;
  if (!Of(h)->ReadString(&text)) return kIoError;
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) return kOutOfMemory;
  // ReadString has checked that a NUL follows the text.
  std::memcpy(copy, text.data(), text.size() + 1);
  *str = copy;
  return kOk;
}

int rpc_port_parcel_read_array_count(rpc_port_parcel_h h, int* count) {
  return rpc_port_parcel_read_int32(h, count);
}

int rpc_port_desktop_send_bytes(rpc_port_h port, const void* bytes, size_t size) {
  if (bytes == nullptr && size != 0) return kInvalidParameter;
  return Guarded([&]() -> int {
    const auto stream = Handles<Stream>::Get().Find(port);
    if (!stream) return kInvalidParameter;
    return size == 0 ? kOk : stream->Send(bytes, size);
  });
}

int rpc_port_desktop_parcel_get_bytes(rpc_port_parcel_h h, const void** bytes, size_t* size) {
  if (h == nullptr || bytes == nullptr || size == nullptr) return kInvalidParameter;
  *bytes = Of(h)->content();
  *size = Of(h)->content_size();
  return kOk;
}

int rpc_port_desktop_parcel_set_bytes(rpc_port_parcel_h h, const void* bytes, size_t size) {
  if (h == nullptr || (bytes == nullptr && size != 0)) return kInvalidParameter;
  return Written(Of(h)->Assign(bytes, size));
}
