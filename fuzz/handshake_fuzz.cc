// SPDX-License-Identifier: Apache-2.0
// The first message of each side of a connection. What is accepted says the same when it is written
// again.
//
// Input: the message's content.

#include "handshake.h"

#include "input.h"

using rpc_port_desktop::Hello;
using rpc_port_desktop::Parcel;
using rpc_port_desktop::Verdict;

namespace {

std::string Content(const Parcel& parcel) {
  return {reinterpret_cast<const char*>(parcel.content()), parcel.content_size()};
}

void CheckHello(std::string_view content) {
  Parcel parcel;
  REQUIRE(parcel.Assign(content.data(), content.size()));
  Hello hello;
  if (!hello.Read(&parcel) || hello.version != rpc_port_desktop::kProtocolVersion) return;
  REQUIRE(hello.token.size() == rpc_port_desktop::kTokenLength);
  REQUIRE(rpc_port_desktop::IsId(hello.sender));
  Parcel again;
  REQUIRE(hello.Write(&again));
  REQUIRE(content.substr(0, again.content_size()) == Content(again));
}

void CheckVerdict(std::string_view content) {
  Parcel parcel;
  REQUIRE(parcel.Assign(content.data(), content.size()));
  Verdict verdict;
  if (!ReadVerdict(&parcel, &verdict)) return;
  Parcel again;
  REQUIRE(WriteVerdict(&again, verdict));
  REQUIRE(content.substr(0, again.content_size()) == Content(again));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view content = Input(data, size).Rest();
  CheckHello(content);
  CheckVerdict(content);
  return 0;
}
