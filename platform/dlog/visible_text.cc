// SPDX-License-Identifier: Apache-2.0
#include "visible_text.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "terminal_characters.h"

namespace dlog_desktop {
namespace {

void AppendEscaped(std::pmr::string* out, char c) {
  if (c == '\n') {
    *out += "\\n";
    return;
  }
  char escaped[8];
  snprintf(escaped, sizeof escaped, "\\x%02x",
           static_cast<unsigned>(static_cast<unsigned char>(c)));
  *out += escaped;
}

// Whether one of eight bytes may need a look: all do but printable ASCII.
bool MayNeedLook(const char* bytes) {
  constexpr uint64_t kOnes = 0x0101010101010101;
  constexpr uint64_t kHighBits = kOnes * 0x80;
  uint64_t word;
  memcpy(&word, bytes, sizeof word);
  const uint64_t below_space = word - kOnes * ' ';
  const uint64_t is_delete = (word ^ (kOnes * 0x7f)) - kOnes;
  return ((word | below_space | is_delete) & kHighBits) != 0;
}

// Decodes the character of several bytes that `text` starts with. Returns its length; 0 if it is
// not UTF-8.
size_t DecodeWide(std::string_view text, uint32_t* character) {
  static constexpr uint32_t kLeastOfLength[] = {0, 0, 0x80, 0x800, 0x10000};
  const auto first = static_cast<unsigned char>(text[0]);
  const size_t length = first < 0xc0   ? 0
                        : first < 0xe0 ? 2
                        : first < 0xf0 ? 3
                        : first < 0xf8 ? 4
                                       : 0;
  if (length == 0 || length > text.size()) return 0;
  uint32_t value = first & (0x7fu >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xc0) != 0x80) return 0;
    value = value << 6 | (next & 0x3fu);
  }
  const bool is_half = value >= 0xd800 && value <= 0xdfff;
  if (value < kLeastOfLength[length] || value > 0x10ffff || is_half) return 0;
  *character = value;
  return length;
}

// Length of the character that `text` starts with if it may be written as it stands, else 0.
size_t HarmlessLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  uint32_t character = first;
  const size_t length = first < 0x80 ? 1 : DecodeWide(text, &character);
  return character == '\t' || !base::IsUnsafeOnTerminal(character) ? length : 0;
}

// Length of what `text` starts with that may be written as it stands.
size_t PlainLength(std::string_view text) {
  size_t length = 0;
  while (length < text.size()) {
    if (length + 8 <= text.size() && !MayNeedLook(text.data() + length)) {
      length += 8;
      continue;
    }
    const bool is_printable = text[length] >= ' ' && text[length] < 0x7f;
    const size_t step = is_printable ? 1 : HarmlessLength(text.substr(length));
    if (step == 0) break;
    length += step;
  }
  return length;
}

}  // namespace

void AppendVisible(std::pmr::string* out, std::string_view text) {
  while (!text.empty()) {
    size_t length = PlainLength(text);
    out->append(text.substr(0, length));
    if (length == 0) {
      AppendEscaped(out, text[0]);
      length = 1;
    }
    text.remove_prefix(length);
  }
}

}  // namespace dlog_desktop
