// SPDX-License-Identifier: Apache-2.0
#include "parcel.h"

#include <algorithm>

namespace rpc_port_desktop {

bool Parcel::Grow(size_t needed) {
  const bool was_inline = bytes_ == inline_;
  if (!heap_.Resize(std::max(needed, capacity_ * 2))) return false;
  if (was_inline) std::memcpy(heap_.data(), inline_, size_);
  bytes_ = heap_.data();
  capacity_ = heap_.capacity();
  return true;
}

uint8_t* Parcel::Append(size_t size) {
  if (size > kMaxContentSize - content_size()) return nullptr;
  if (size > capacity_ - size_ && !Grow(size_ + size)) return nullptr;
  uint8_t* place = bytes_ + size_;
  size_ += size;
  return place;
}

bool Parcel::WriteInt32(int32_t value) {
  uint8_t* place = Append(sizeof value);
  if (place == nullptr) return false;
  StoreLe32(place, static_cast<uint32_t>(value));
  return true;
}

bool Parcel::WriteBool(bool value) {
  uint8_t* place = Append(1);
  if (place == nullptr) return false;
  *place = value ? 1 : 0;
  return true;
}

bool Parcel::WriteString(std::string_view text) {
  // So that the sum below cannot wrap, and the length fits its field.
  if (text.size() >= kMaxContentSize) return false;
  const size_t length = text.size() + 1;
  uint8_t* place = Append(sizeof(uint32_t) + length);
  if (place == nullptr) return false;
  StoreLe32(place, static_cast<uint32_t>(length));
  place += sizeof(uint32_t);
  text.copy(reinterpret_cast<char*>(place), text.size());
  place[text.size()] = 0;
  return true;
}

bool Parcel::ReadInt32(int32_t* value) {
  if (left() < sizeof *value) return false;
  *value = static_cast<int32_t>(LoadLe32(bytes_ + cursor_));
  cursor_ += sizeof *value;
  return true;
}

bool Parcel::ReadBool(bool* value) {
  if (left() < 1) return false;
  *value = bytes_[cursor_++] != 0;
  return true;
}

bool Parcel::ReadString(std::string_view* text) {
  if (left() < sizeof(uint32_t)) return false;
  // Unsigned, so that a negative length is merely one of those that exceed what is left.
  const size_t length = LoadLe32(bytes_ + cursor_);
  if (length == 0 || length > left() - sizeof(uint32_t)) return false;
  const uint8_t* begin = bytes_ + cursor_ + sizeof(uint32_t);
  if (std::memchr(begin, 0, length) != begin + length - 1) return false;
  *text = {reinterpret_cast<const char*>(begin), length - 1};
  cursor_ += sizeof(uint32_t) + length;
  return true;
}

const uint8_t* Parcel::Seal() {
  StoreLe32(bytes_, static_cast<uint32_t>(content_size()));
  return bytes_;
}

bool Parcel::Assign(const void* content, size_t size) {
  if (size > kMaxContentSize) return false;
  const size_t needed = kPrefixSize + size;
  if (needed > capacity_ && !Grow(needed)) return false;
  // The source may lie in this very parcel.
  if (size != 0) std::memmove(bytes_ + kPrefixSize, content, size);
  size_ = needed;
  cursor_ = kPrefixSize;
  return true;
}

void Parcel::Adopt(ByteBuffer buffer, size_t message_size) {
  heap_ = std::move(buffer);
  bytes_ = heap_.data();
  capacity_ = heap_.capacity();
  size_ = message_size;
  cursor_ = kPrefixSize;
}

}  // namespace rpc_port_desktop
