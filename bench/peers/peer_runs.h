// SPDX-License-Identifier: Apache-2.0
#ifndef BENCH_PEERS_PEER_RUNS_H_
#define BENCH_PEERS_PEER_RUNS_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench_world.h"
#include "checksum.h"
#include "model_texts.h"
#include "query_runs.h"
#include "times.h"
#include "two_records.h"

// What the programs of the peers share: the server's process, and what the client makes of a list.

// A process that serves until this object goes, or the process that made it ends. It is made before
// the peer's library has been touched: many cannot be forked.
class PeerServer {
 public:
  // Calls `serve` in the new process, and returns once that has called its argument.
  explicit PeerServer(const std::function<void(const std::function<void()>& ready)>& serve);
  ~PeerServer();
  PeerServer(const PeerServer&) = delete;
  PeerServer& operator=(const PeerServer&) = delete;

 private:
  pid_t pid_;
};

// A folder for a server's socket, which goes with this object.
class SocketFolder {
 public:
  SocketFolder();
  ~SocketFolder();
  SocketFolder(const SocketFolder&) = delete;
  SocketFolder& operator=(const SocketFolder&) = delete;

  std::string socket() const { return folder_ + "/socket"; }

 private:
  std::string folder_;
};

struct PeerRuns {
  std::string way;
  QueryRuns queries;
};

// One of the `ways`, which bars separate, and then what query_runs.h says. Ends the process with a
// message if there is no such way.
PeerRuns ReadPeerRuns(int argc, char** argv, const std::string& ways);

// What a peer over a bus can do. Its connections end with the process.
struct BusPeer {
  void (*by_daemon)(const QueryRuns& runs);
  void (*directly)(const QueryRuns& runs);  // without a bus between the two
  void (*events)(std::size_t count);        // by the daemon
};

// All of such a peer's main function.
int RunBusPeer(int argc, char** argv, const BusPeer& peer);

// An application's own list, which outlives the message that it came with.
using ModelTextsList = std::vector<ModelTexts>;

inline std::uint64_t ChecksumOfModels(const ModelTextsList& models) {
  Checksum sum;
  for (const ModelTexts& model : models) {
    for (const auto* text : {&model.id, &model.version, &model.title, &model.description}) {
      sum.Add(*text);
    }
  }
  return sum.value();
}

// Runs the queries of one kind by a client that asks for each.
template <typename Client, typename ChecksumOfList>
void RunKind(const QueryRuns& runs, Client&& client, ChecksumOfList checksum_of_list) {
  const auto nothing = [](const auto&) {};
  if (runs.kind == "int32") {
    RunQueries(runs.queries, [&] { return client.AskInt32(); }, ChecksumOf<int>, nothing);
  } else if (runs.kind == "licence") {
    RunQueries(runs.queries, [&] { return client.AskLicence(); }, ChecksumOf<std::string>, nothing);
  } else {
    Require(runs.kind == "models", "ask for that");
    RunQueries(runs.queries, [&] { return client.AskModels(); }, checksum_of_list, nothing);
  }
}

// Runs queries that end with the records that the library would have to make: `make` adds those of
// an answer.
inline void RunQueriesForRecords(std::size_t queries,
                                 const std::function<void(TwoRecords*)>& make) {
  TwoRecords records;
  const auto ask = [&] {
    make(&records);
    return &records;
  };
  const auto checksum_of = [](const TwoRecords* made) {
    Checksum sum;
    made->ForEachText([&](const char* text) { sum.Add(text); });
    return sum.value();
  };
  RunQueries(queries, ask, checksum_of, [](TwoRecords* made) { made->ReleaseList(); });
}

// ---- Events -------------------------------------------------------------------------------------

constexpr char kEventName[] = "event.com.velmora.svcmgr.update_status";
constexpr std::size_t kEventBytes = 64;

// A process that sends an event each time it is told to, and the times from there to the callback.
class EventTimes {
 public:
  // `connect` is called in the sender's process, and returns what sends one event there. To be made
  // before the peer's library has been touched, as a server.
  explicit EventTimes(const std::function<std::function<void()>()>& connect);
  ~EventTimes();
  EventTimes(const EventTimes&) = delete;
  EventTimes& operator=(const EventTimes&) = delete;

  // Has so many events sent, each when the one before has arrived, for which it calls `turn`. Prints
  // a line with their number, and one with the nanoseconds of each.
  template <typename Turn>
  void Measure(std::size_t count, Turn turn) {
    for (std::size_t i = 0; i < count; ++i) {
      Ask();
      while (!has_arrived_) turn();
    }
    Print();
  }
  // To be called by the callback. Ends the process unless it is the event that was sent.
  void Arrived(const char* name, const void* data, std::size_t size);

 private:
  void Ask();
  void Print() const;

  struct Shared {
    Clock::time_point sent;
  };

  Shared* shared_;
  int ask_;
  pid_t pid_;
  bool has_arrived_ = false;
  std::vector<Clock::duration> times_;
};

// The bytes that travel with an event.
std::string EventData();

#endif  // BENCH_PEERS_PEER_RUNS_H_
