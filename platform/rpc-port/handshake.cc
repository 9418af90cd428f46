// SPDX-License-Identifier: Apache-2.0
#include "handshake.h"

#include <sys/random.h>

namespace rpc_port_desktop {
namespace {

constexpr int32_t kHelloMagic = 0x4F4C4548;    // "HELO"
constexpr int32_t kVerdictMagic = 0x54434456;  // "VDCT"

constexpr char kDigits[] = "0123456789abcdef";

bool ReadText(Parcel* parcel, std::string* text) {
  std::string_view view;
  if (!parcel->ReadString(&view)) return false;
  text->assign(view);
  return true;
}

bool IsToken(const std::string& text) {
  return text.size() == kTokenLength && text.find_first_not_of(kDigits) == std::string::npos;
}

}  // namespace

bool IsId(std::string_view text) { return !text.empty() && text.size() <= kMaxIdLength; }

bool Hello::Write(Parcel* parcel) const {
  return parcel->WriteInt32(kHelloMagic) && parcel->WriteInt32(version) &&
         parcel->WriteInt32(kind) && parcel->WriteString(token) && parcel->WriteString(sender) &&
         parcel->WriteString(server) && parcel->WriteString(port_name);
}

bool Hello::Read(Parcel* parcel) {
  int32_t magic = 0;
  if (!parcel->ReadInt32(&magic) || magic != kHelloMagic || !parcel->ReadInt32(&version)) {
    return false;
  }
  if (version != kProtocolVersion) return true;
  return parcel->ReadInt32(&kind) && ReadText(parcel, &token) && ReadText(parcel, &sender) &&
         ReadText(parcel, &server) && ReadText(parcel, &port_name) &&
         (kind == kMainStream || kind == kCallbackStream) && IsToken(token) && IsId(sender);
}

bool WriteVerdict(Parcel* parcel, Verdict verdict) {
  return parcel->WriteInt32(kVerdictMagic) && parcel->WriteInt32(static_cast<int32_t>(verdict));
}

bool ReadVerdict(Parcel* parcel, Verdict* verdict) {
  int32_t magic = 0;
  int32_t value = 0;
  if (!parcel->ReadInt32(&magic) || magic != kVerdictMagic || !parcel->ReadInt32(&value)) {
    return false;
  }
  *verdict = static_cast<Verdict>(value);
  return *verdict == Verdict::kAccepted || *verdict == Verdict::kRejected;
}

std::string DrawToken() {
  uint8_t bytes[kTokenLength / 2];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) return {};
  std::string token;
  for (const uint8_t byte : bytes) {
    token += kDigits[byte >> 4];
    token += kDigits[byte & 15];
  }
  return token;
}

}  // namespace rpc_port_desktop
