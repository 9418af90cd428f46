// SPDX-License-Identifier: Apache-2.0
#include "service/call_counter.h"

#include <dlog.h>

#include <cstdio>
#include <fstream>
#include <utility>

#include "service/log_tag.h"

namespace sim {

CallCounter::CallCounter(const Scenario& scenario, std::string file)
    : scenario_(scenario), file_(std::move(file)) {
  std::ifstream stream(file_);
  for (std::size_t& calls : calls_) {
    if (!(stream >> calls)) calls = 0;
  }
}

std::size_t CallCounter::Next(Method method) {
  const std::size_t call = calls_[IndexOf(method)]++;
  // From the last one on all are alike.
  if (!file_.empty() && call + 1 < scenario_.Script(method).distinct_calls()) Write();
  return call;
}

void CallCounter::Write() const {
  const std::string draft = file_ + ".new";
  std::ofstream stream(draft);
  for (const std::size_t calls : calls_) stream << calls << '\n';
  stream.close();
  if (!stream || std::rename(draft.c_str(), file_.c_str()) != 0) {
    dlog_print(DLOG_ERROR, kLogTag, "the next process will count from the beginning");
  }
}

}  // namespace sim
