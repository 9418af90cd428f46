// SPDX-License-Identifier: Apache-2.0
#include "record.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "sink.h"
#include "time_text.h"
#include "visible_text.h"

namespace dlog_desktop {
namespace {

constexpr size_t kLongestMessage = 64 * 1024;
constexpr size_t kLongestTag = 256;
constexpr char kCutMark[] = " [cut]";
constexpr char kColourReset[] = "\x1b[0m";
constexpr char kLetters[] = "??VDIWEFS";

// Length of the colour sequence (ESC [ digits and semicolons m) that `text` starts with, or 0.
size_t ColourLength(std::string_view text) {
  if (text.size() < 3 || text[0] != '\x1b' || text[1] != '[') return 0;
  const auto* const end = std::find_if_not(
      text.begin() + 2, text.end(), [](char c) { return (c >= '0' && c <= '9') || c == ';'; });
  return end != text.end() && *end == 'm' ? static_cast<size_t>(end - text.begin()) + 1 : 0;
}

void DropNewlinesAtEnd(std::string_view* text) {
  const size_t last = text->find_last_not_of('\n');
  text->remove_suffix(text->size() - (last == std::string_view::npos ? 0 : last + 1));
}

// Length of the sequence at the end of `text` that ends all colour, or 0.
size_t ResetLength(std::string_view text) {
  const size_t escape = text.rfind('\x1b');
  if (escape == std::string_view::npos) return 0;
  const std::string_view sequence = text.substr(escape);
  const bool is_reset = ColourLength(sequence) == sequence.size() &&
                        std::all_of(sequence.begin() + 2, sequence.end() - 1,
                                    [](char c) { return c == '0' || c == ';'; });
  return is_reset ? sequence.size() : 0;
}

// One record is one line, in the colour that its format begins with: a sequence that an argument
// brings along is not the record's colour.
void AppendLine(std::pmr::string* out, std::string_view text, std::string_view format, bool cut,
                bool keeps_colour) {
  const std::string_view colour = text.substr(0, ColourLength(format));
  text.remove_prefix(colour.size());
  DropNewlinesAtEnd(&text);
  DropNewlinesAtEnd(&format);
  if (!cut && ResetLength(format) > 0) {
    text.remove_suffix(ResetLength(text));
    DropNewlinesAtEnd(&text);
  }
  if (keeps_colour) *out += colour;
  AppendVisible(out, text);
  if (cut) *out += kCutMark;
  if (keeps_colour && !colour.empty()) *out += kColourReset;
}

}  // namespace

int Message::Format(const char* fmt, va_list args) {
  va_list again;
  va_copy(again, args);
  const int error = errno;
  const int length = vsnprintf(space_, sizeof space_, fmt, args);
  errno = error;
  int result = length < 0 ? -EINVAL : 0;
  size_ = length < 0 ? 0 : static_cast<size_t>(length);
  if (size_ >= sizeof space_) result = FormatLong(fmt, again);
  va_end(again);
  return result;
}

int Message::FormatLong(const char* fmt, va_list args) {
  cut_ = size_ > kLongestMessage;
  if (cut_) size_ = kLongestMessage;
  heap_.reset(static_cast<char*>(malloc(size_ + 1)));
  if (!heap_) return -ENOMEM;
  return vsnprintf(heap_.get(), size_ + 1, fmt, args) < 0 ? -EINVAL : 0;
}

std::pmr::string RecordLine(log_priority prio, const char* tag, const char* fmt,
                            const Message& message, std::pmr::memory_resource* memory) {
  std::pmr::string record(memory);
  record.reserve(message.text().size() + 160);
  record += TimeText().text();
  const int letter = prio < DLOG_VERBOSE ? DLOG_INFO : prio;
  record += ' ';
  record += kLetters[letter];
  record += ' ';
  AppendVisible(&record, std::string_view(tag, strnlen(tag, kLongestTag)));
  record += ' ';
  record += std::to_string(ProcessId());
  record += ": ";
  AppendLine(&record, message.text(), fmt, message.cut(), SinkKeepsColour());
  record += '\n';
  return record;
}

}  // namespace dlog_desktop
