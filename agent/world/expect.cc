// SPDX-License-Identifier: Apache-2.0
#include "world/expect.h"

#include <stdlib.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "common/report.h"
#include "trace/condition.h"

namespace sim {
namespace {

constexpr std::chrono::milliseconds kPause(5);  // between looks at the trace

/** Reads records as they are written. */
class TraceReader {
 public:
  explicit TraceReader(const std::string& path) : stream_(path, std::ios::binary) {
    if (!stream_ && errno == ENOENT) {
      throw std::runtime_error("this world keeps no trace: it runs with --no-trace");
    }
    if (!stream_) throw std::runtime_error("the world's trace cannot be read: " + Quotable(path));
  }

  /** Hands over all that is there by now. */
  void ReadTo(Expectation& expectation) {
    for (std::string part; std::getline(stream_, part) || !part.empty(); part.clear()) {
      line_ += part;
      if (stream_.eof()) break;  // its end is still to come
      const auto record = nlohmann::ordered_json::parse(line_, nullptr, false);
      line_.clear();
      if (!record.is_object()) continue;
      full_ = full_ || record.value("what", "") == "full";
      expectation.Take(record);
    }
    stream_.clear();
  }

  bool full() const { return full_; }

 private:
  std::ifstream stream_;
  std::string line_;
  bool full_ = false;
};

int Fail(const Expectation& expectation, const std::string& why) {
  std::string message = why + ": " + Quotable(expectation.current().text);
  if (expectation.current().clients) {
    message += "; there are " + std::to_string(expectation.clients());
  }
  message += expectation.seen().empty() ? "\nNothing was seen." : "\nSeen instead:";
  for (const std::string& line : expectation.seen()) message += "\n  | " + line;
  Report(message);
  return 1;
}

std::string Seconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", seconds);
  return text;
}

}  // namespace

int Expect(const std::vector<std::string>& conditions, double seconds) {
  std::vector<Condition> wanted;
  wanted.reserve(conditions.size());
  for (const std::string& text : conditions) wanted.push_back(ReadCondition(text));
  const char* path = getenv(kTraceVariable);
  if (path == nullptr) {
    throw std::runtime_error("this is no world: \"expect\" works below \"svcmgr-sim run\" only");
  }
  TraceReader reader(path);
  Expectation expectation(std::move(wanted));
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    const bool late = std::chrono::steady_clock::now() >= end;
    reader.ReadTo(expectation);
    switch (expectation.Look()) {
      case Expectation::State::kMet:
        return 0;
      case Expectation::State::kFailed:
        return Fail(expectation, "this was not to be");
      case Expectation::State::kWaiting:
        break;
    }
    if (reader.full()) return Fail(expectation, "the world's trace is full, and does not show");
    if (late) return Fail(expectation, "not seen within " + Seconds(seconds) + " s");
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace sim
