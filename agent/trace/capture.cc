// SPDX-License-Identifier: Apache-2.0
#include "trace/capture.h"

#include <time.h>

#include <algorithm>
#include <initializer_list>

namespace sim {
namespace {

constexpr char kDissector[] = "velmora_svcmgr";
constexpr std::uint16_t kUpperPdu = 252;       // the link type
constexpr std::size_t kMostOfPacket = 262000;  // readers refuse packets of more than 256 KiB

// Blocks of the file, and their options.
constexpr std::uint32_t kSection = 0x0a0d0d0a;
constexpr std::uint32_t kInterface = 1;
constexpr std::uint32_t kPacket = 6;
constexpr std::uint16_t kEndOfOptions = 0;
constexpr std::uint16_t kApplication = 4;    // of a section: what has written it
constexpr std::uint16_t kInterfaceName = 2;  // of an interface
constexpr std::uint16_t kFlags = 2;          // of a packet: 1 inbound, 2 outbound

// Tags of the link type; their numbers are big-endian.
constexpr std::uint8_t kEndOfTags = 0;
constexpr std::uint8_t kDissectorTag = 12;

class Bytes {
 public:
  Bytes& Little(std::uint32_t value, int size = 4) {
    for (; size > 0; --size, value >>= 8) text_ += static_cast<char>(value & 0xff);
    return *this;
  }
  Bytes& Append(std::string_view bytes) {
    text_ += bytes;
    return *this;
  }
  Bytes& Pad() {
    text_.resize((text_.size() + 3) / 4 * 4, '\0');
    return *this;
  }
  Bytes& Option(std::uint16_t code, std::string_view value) {
    return Little(code, 2).Little(static_cast<std::uint32_t>(value.size()), 2).Append(value).Pad();
  }

  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

/** A block of the file: its length stands in front and behind. */
std::string Block(std::uint32_t type, const Bytes& body) {
  constexpr std::size_t kFrame = 12;
  const auto length = static_cast<std::uint32_t>(body.text().size() + kFrame);
  return Bytes().Little(type).Little(length).Append(body.text()).Little(length).text();
}

/** What the link type and this capture put in front of what was on the socket. */
std::string FrontOf(const Packet& packet) {
  const std::string_view name = kDissector;
  Bytes front;
  for (const char byte : {'\0', static_cast<char>(kDissectorTag), '\0',
                          static_cast<char>((name.size() + 3) / 4 * 4)}) {
    front.Append({&byte, 1});
  }
  front.Append(name).Pad();
  front.Little(kEndOfTags);
  front.Little(1, 1);
  front.Little(packet.to_client ? 1 : 0, 1);
  front.Little(packet.stream == RPC_PORT_PORT_MAIN ? 0 : 1, 1);
  front.Little(static_cast<std::uint32_t>(packet.kind), 1);
  front.Little(static_cast<std::uint32_t>(packet.client));
  return front.text();
}

}  // namespace

std::string CaptureHeader() {
  constexpr std::uint32_t kByteOrder = 0x1a2b3c4d;
  Bytes section;
  section.Little(kByteOrder).Little(1, 2).Little(0, 2);
  section.Little(0xffffffff).Little(0xffffffff);  // its length is not known
  section.Option(kApplication, "svcmgr-sim").Option(kEndOfOptions, "");
  Bytes interface;
  interface.Little(kUpperPdu, 2).Little(0, 2).Little(0);
  interface.Option(kInterfaceName, "SvcMgrAppPort").Option(kEndOfOptions, "");
  return Block(kSection, section) + Block(kInterface, interface);
}

std::string CaptureBlock(const Packet& packet, std::string_view content) {
  std::string bytes = FrontOf(packet);
  if (packet.kind == Packet::Kind::kMessage) {
    bytes += Bytes().Little(static_cast<std::uint32_t>(content.size())).text();
  }
  const std::size_t length = bytes.size() + content.size();
  bytes += content.substr(0, kMostOfPacket - bytes.size());

  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::uint64_t time = static_cast<std::uint64_t>(now.tv_sec) * 1000000u +
                             static_cast<std::uint64_t>(now.tv_nsec) / 1000u;
  Bytes block;
  block.Little(0).Little(static_cast<std::uint32_t>(time >> 32));
  block.Little(static_cast<std::uint32_t>(time & 0xffffffff));
  block.Little(static_cast<std::uint32_t>(bytes.size()));
  block.Little(static_cast<std::uint32_t>(length));
  block.Append(bytes).Pad();
  block.Option(kFlags, Bytes().Little(packet.to_client ? 2 : 1).text()).Option(kEndOfOptions, "");
  return Block(kPacket, block);
}

}  // namespace sim
