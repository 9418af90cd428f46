// SPDX-License-Identifier: Apache-2.0
// What an agent answers to the calls that wait for an answer.
//
// Input: a byte that chooses the call, then what the main port yields, as blocks.

#include <velmora_svcmgr.h>

#include "agent_stand_in.h"
#include "input.h"

namespace {

void OnConnection(int, int, void*) {}

void AskForLevel() {
  constexpr int kUntouched = 0x5a5a5a5a;
  int level = kUntouched;
  const int result = velmora_svcmgr_get_agent_api_level(&level);
  if (result == 0) {
    REQUIRE(level != -1 && level != SVCMGR_ERROR_KYR_DISABLED);
  } else {
    REQUIRE(level == kUntouched);
  }
}

// A success leaves the pointer alone where there is no text.
void AskForLicence() {
  char* text = nullptr;
  const int result = velmora_svcmgr_get_license_fulltext(&text);
  REQUIRE(text == nullptr || (result == 0 && *text != '\0'));
  std::free(text);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr void (*kCalls[])() = {AskForLevel, AskForLicence};
  Input input(data, size);
  REQUIRE(velmora_svcmgr_connect(OnConnection, nullptr) == 0);
  const auto call = kCalls[input.Byte() % std::size(kCalls)];
  while (!input.empty()) agent_stand_in::messages.emplace_back(input.Block());
  call();
  // What the call has left unread does not disturb the next one.
  call();
  agent_stand_in::EndInput();
  return 0;
}
