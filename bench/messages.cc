// SPDX-License-Identifier: Apache-2.0
#include "messages.h"

#include <rpc-port-desktop.h>

#include <cstdint>

#include "bench_world.h"
#include "model_texts.h"
#include "models.h"

namespace {

constexpr int kReply = 0;
constexpr int kAnswer = 1;

template <typename Write>
std::string Message(Write write) {
  rpc_port_parcel_h parcel = nullptr;
  Require(rpc_port_parcel_create(&parcel) == 0, "make a parcel");
  write(parcel);
  const void* bytes = nullptr;
  std::size_t size = 0;
  rpc_port_desktop_parcel_get_bytes(parcel, &bytes, &size);
  const auto prefix = static_cast<std::uint32_t>(size);
  std::string message(reinterpret_cast<const char*>(&prefix), sizeof prefix);
  message.append(static_cast<const char*>(bytes), size);
  rpc_port_parcel_destroy(parcel);
  return message;
}

void WriteAnswerHead(rpc_port_parcel_h answer, int delegate) {
  rpc_port_parcel_write_int32(answer, kAnswer);
  rpc_port_parcel_write_int32(answer, delegate);
  rpc_port_parcel_write_int32(answer, 0);
  rpc_port_parcel_write_bool(answer, false);
  rpc_port_parcel_write_int32(answer, 0);  // result
}

}  // namespace

std::string LevelMessage() {
  return Message([](rpc_port_parcel_h reply) {
    rpc_port_parcel_write_int32(reply, kReply);
    rpc_port_parcel_write_int32(reply, kLevel);
  });
}

std::string ConsentMessage() {
  return Message([](rpc_port_parcel_h reply) {
    rpc_port_parcel_write_int32(reply, kReply);
    rpc_port_parcel_write_int32(reply, 0);
  });
}

std::string LicenceMessage() {
  return Message([](rpc_port_parcel_h reply) {
    rpc_port_parcel_write_int32(reply, kReply);
    rpc_port_parcel_write_string(reply, TextOfLicence().c_str());
  });
}

std::string ListMessage(int delegate, int models) {
  return Message([=](rpc_port_parcel_h answer) {
    WriteAnswerHead(answer, delegate);
    WriteModels(answer, models);
  });
}

std::string ProgressMessage(int delegate) {
  return Message([=](rpc_port_parcel_h answer) {
    WriteAnswerHead(answer, delegate);
    for (const int number : {2, 1, 1, 100}) rpc_port_parcel_write_int32(answer, number);
  });
}
