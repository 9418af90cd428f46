// SPDX-License-Identifier: Apache-2.0
#include <dlog.h>

#include <cstdarg>
#include <cstdio>
#include <string>

#include "internal.h"

using fake::LogRecord;
using fake::internal::Guard;
using fake::internal::state;

namespace {

constexpr char kInfoHead[] = "\033[0;32m %s: %s(%d) > ";
constexpr char kErrorHead[] = "\033[0;31m %s: %s(%d) > ";
constexpr char kPlainHead[] = "%s: %s(%d) > ";
constexpr char kTail[] = "\033[0;m";

bool BeginsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

__attribute__((format(printf, 1, 0))) std::string Render(const char* format, va_list arguments) {
  va_list copy;
  va_copy(copy, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(size < 0 ? 0 : static_cast<std::size_t>(size) + 1, '\0');
  if (size >= 0) {
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
  }
  return text;
}

/** Which head the layer and the priority call for; null if there is no such layer or priority. */
const char* ExpectedHead(const LogRecord& record) {
  if (record.priority != DLOG_INFO && record.priority != DLOG_ERROR) return nullptr;
  if (record.tag == "RPC_PORT_PROXY") return kPlainHead;
  if (record.tag != "SERVICE_MANAGER_CLIENT") return nullptr;
  return record.priority == DLOG_INFO ? kInfoHead : kErrorHead;
}

void Split(LogRecord* record, va_list arguments) {
  const char* const head = ExpectedHead(*record);
  const std::string tail = head == kPlainHead ? "" : kTail;
  if (head == nullptr || !BeginsWith(record->format, head) || !EndsWith(record->format, tail)) {
    record->message = record->text;
    fake::Fault("malformed log record: priority " + std::to_string(record->priority) + ", tag " +
                record->tag + ", format \"" + record->format + '"');
    return;
  }
  record->file = va_arg(arguments, const char*);
  record->function = va_arg(arguments, const char*);
  record->line = va_arg(arguments, int);
  if (record->file.find('/') != std::string::npos || record->line <= 0) {
    fake::Fault("log record from a strange place: " + record->text);
  }
  const std::string place =
      record->file + ": " + record->function + '(' + std::to_string(record->line) + ") > ";
  const std::size_t start = record->text.find(place) + place.size();
  record->message = record->text.substr(start, record->text.size() - start - tail.size());
}

}  // namespace

int dlog_print(log_priority prio, const char* tag, const char* fmt, ...) {
  const fake::internal::Inside inside;
  const fake::Step step = fake::internal::BeginUnrecorded("dlog_print");
  LogRecord record;
  std::function<void(const LogRecord&)> hook;
  {
    const Guard guard;
    record.priority = prio;
    record.tag = tag != nullptr ? tag : "";
    record.format = fmt;
    va_list arguments;
    va_start(arguments, fmt);
    record.text = Render(fmt, arguments);
    va_end(arguments);
    va_start(arguments, fmt);
    Split(&record, arguments);
    va_end(arguments);
    if (state().recording) {
      state().logs.push_back(record);
      state().trace.push_back((prio == DLOG_ERROR ? "E " : "I ") + record.function + ": " +
                              record.message);
    }
    hook = state().on_log;
  }
  if (hook) {
    const fake::internal::Outside outside;
    hook(record);
  }
  return fake::internal::Perform("dlog_print", step, [] { return 0; });
}
