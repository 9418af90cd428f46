// SPDX-License-Identifier: Apache-2.0
#include "common/marks.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <system_error>

#include "unique_fd.h"

namespace sim {
namespace {

constexpr std::array<const char*, static_cast<std::size_t>(Mark::kCount)> kNames = {
    "at the process's beginning",
    "with the port made",
    "with the name owned",
    "listening",
    "open to steps",
    "with the journal read",
    "with the launch said",
    "ready",
    "while it admits a client",
    "with a client connected",
    "with a request arrived",
    "with a request read",
    "with a message traced, not sent",
    "inside a message",
    "with a message sent",
    "with an event traced, not published",
    "with an event published",
    "inside a record of the trace",
    "between two steps, the next one noted",
    "between two steps, the last one taken",
    "with the journal drafted",
    "with its replacement wanted",
    "with work on models begun",
    "with a part of a model done, not told",
    "inside a part of a model",
    "with a version complete under its draft's name",
    "with work on models done, not announced",
};

}  // namespace

MarkTable* obeyed_marks = nullptr;

const char* NameOf(Mark mark) { return kNames[static_cast<std::size_t>(mark)]; }

MarkTable* MapMarks(const std::string& file) {
  const base::UniqueFd fd(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!fd || ftruncate(fd.get(), sizeof(MarkTable)) != 0) {
    throw std::system_error(errno, std::generic_category(), file);
  }
  void* const memory =
      mmap(nullptr, sizeof(MarkTable), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
  if (memory == MAP_FAILED) throw std::system_error(errno, std::generic_category(), file);
  return static_cast<MarkTable*>(memory);
}

void ObeyMarks() {
  const char* const file = getenv(kMarksVariable);
  if (file != nullptr && *file != '\0') obeyed_marks = MapMarks(file);
}

bool TakeTurn(Mark mark) {
  int armed = static_cast<int>(mark) + 1;
  if (obeyed_marks->armed != armed || obeyed_marks->passes-- > 0) return false;
  // Once.
  return obeyed_marks->armed.compare_exchange_strong(armed, 0);
}

void Strike() {
  ++obeyed_marks->struck;
  raise(obeyed_marks->signal);
}

}  // namespace sim
