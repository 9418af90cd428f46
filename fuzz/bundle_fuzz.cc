// SPDX-License-Identifier: Apache-2.0
// The payload of an application event, as bytes that anybody on the bus may have sent.
//
// Input: the encoded bundle.

#include <bundle_desktop.h>

#include <cstring>

#include "input.h"

namespace {

// Keys that the library looks under, and those of the corpus.
constexpr const char* kKeys[] = {"Update", "Launch", "START", "COMPLETED", "FAILED",
                                 "Start",  "key",    "a",     "b",         ""};

void ReadAll(bundle* b) {
  for (const char* key : kKeys) {
    char* text = nullptr;
    if (bundle_get_str(b, key, &text) == 0) REQUIRE(text[std::strlen(text)] == '\0');
    void* bytes = nullptr;
    std::size_t size = 0;
    if (bundle_get_byte(b, key, &bytes, &size) == 0) {
      // Reads each of them.
      REQUIRE(std::string(static_cast<const char*>(bytes), size).size() == size);
    }
    int count = 0;
    const char** texts = bundle_get_str_array(b, key, &count);
    for (int i = 0; texts != nullptr && i < count; ++i) REQUIRE(std::strlen(texts[i]) < 1u << 30);
  }
}

std::string Encoded(bundle* b) {
  unsigned char* bytes = nullptr;
  std::size_t size = 0;
  REQUIRE(bundle_desktop_encode(b, &bytes, &size) == 0 && bytes != nullptr);
  std::string encoded(reinterpret_cast<const char*>(bytes), size);
  std::free(bytes);
  return encoded;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  bundle* first = bundle_desktop_decode(data, size);
  if (first == nullptr) return 0;
  ReadAll(first);
  const std::string encoded = Encoded(first);
  bundle* second =
      bundle_desktop_decode(reinterpret_cast<const unsigned char*>(encoded.data()), encoded.size());
  REQUIRE(second != nullptr);
  REQUIRE(Encoded(second) == encoded);
  bundle_free(first);
  bundle_free(second);
  return 0;
}
