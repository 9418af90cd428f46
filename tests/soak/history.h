// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SOAK_HISTORY_H_
#define TESTS_SOAK_HISTORY_H_

#include <cstddef>
#include <istream>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace soak {

/** Seconds of CLOCK_MONOTONIC. */
using Time = double;

/** A process of the agent. It was gone at some time between its last record and `ended`. */
struct AgentProcess {
  Time begun = 0;
  std::optional<Time> first_record;  // after the one of its beginning
  Time last_record = 0;
  std::optional<Time> ended;
};

/** An event that an agent has published. */
struct Event {
  enum class Kind { kLaunch, kAnnouncement, kStart, kEnd, kModels };
  Time time = 0;
  int process = 0;
  /** Whether its process has lived on after it. If not, it may have died before the bus had it. */
  bool is_certain = false;
  Kind kind = Kind::kLaunch;
  int status = 0;  // that clients are told; of kStart, kEnd and kModels
};

/** A message to a client's delegate. */
struct Message {
  Time time = 0;
  bool is_certain = false;
  /** What the client writes of it. */
  std::string told;
};

/** A connection that an agent has accepted. */
struct Connection {
  Time time = 0;  // shortly after the client could know of it
  int process = 0;
  std::vector<Message> messages;
};

/** A request that an agent has read, by the number that its client gave it. */
struct Request {
  Time time = 0;
  long number = 0;
  /** What the client has asked for, as the client writes it. */
  std::string what;
};

/** Time in which events may be lost: the session bus was away. */
struct Outage {
  Time begin = 0;
  Time end = 0;
};

/** All that the agents of a world have told a world's trace. */
struct History {
  std::vector<AgentProcess> processes;
  std::vector<Event> events;
  std::map<std::string, std::vector<Connection>> connections;  // by application
  std::map<std::string, std::vector<Request>> requests;        // by application
  std::vector<Outage> outages;
  /** What no trace should hold. */
  std::vector<std::string> faults;
};

/** Reads a trace, a JSON object in each line. */
History ReadTrace(std::istream& trace);

/** Something that a client has done or was told: `what` is a word and numbers or texts. */
struct Record {
  Time time = 0;
  std::string what;
};

struct ClientLog {
  std::string app;
  std::vector<Record> records;
};

ClientLog ReadLog(const std::string& app, std::istream& log);

}  // namespace soak

#endif  // TESTS_SOAK_HISTORY_H_
