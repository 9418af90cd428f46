// SPDX-License-Identifier: Apache-2.0
// The soak: real clients beside a real agent that is killed and stopped, and whose bus goes and
// comes.
//
// Started by hand, it makes one world after the other, in each a worker that runs the clients there
// and troubles them, and judges what the clients wrote by what the world's trace says.
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/marks.h"
#include "judge.h"
#include "worker.h"

namespace soak {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr int kFoundSomething = 1;
constexpr int kWrongUsage = 2;

struct Options {
  double minutes = 3;
  std::uint32_t seed = 0;
  int kills = 250;
  int stops = 100;
  int buses = 8;
  bool once = false;
  std::string keep;
  Plant plant = Plant::kNone;
  std::string worker;  // the trouble of this one; empty: the driver
  std::string folder;
  int count = 0;
};

const std::map<std::string, Trouble>& Troubles() {
  static const std::map<std::string, Trouble> troubles = {
      {"kills", Trouble::kKills}, {"stops", Trouble::kStops}, {"buses", Trouble::kBuses}};
  return troubles;
}

const std::map<std::string, Plant>& Plants() {
  static const std::map<std::string, Plant> plants = {
      {"missed", Plant::kMissed},         {"extra", Plant::kExtra},   {"order", Plant::kOrder},
      {"descriptor", Plant::kDescriptor}, {"source", Plant::kSource}, {"memory", Plant::kMemory}};
  return plants;
}

struct Totals {
  int worlds = 0;
  std::map<std::string, std::map<std::string, long>> troubles;  // by kind, then by what was done
  long agents = 0;
  long processes = 0;
  long stranded = 0;
  std::map<std::string, long> told;  // by word
  long judged = 0;                   // clients whose usage could be judged
};

class Driver {
 public:
  Driver(const Options& options, std::string program)
      : options_(options), program_(std::move(program)) {
    std::string folder = (fs::temp_directory_path() / "soak-XXXXXX").string();
    if (!options.keep.empty()) {
      folder = options.keep;
      fs::create_directories(folder);
    } else if (mkdtemp(folder.data()) == nullptr) {
      throw std::runtime_error("no folder for logs");
    }
    folder_ = folder;
  }
  ~Driver() {
    if (options_.keep.empty() && findings_ == 0) fs::remove_all(folder_);
  }
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  int Drive() {
    std::printf("seed %u\n", options_.seed);
    std::fflush(stdout);
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(options_.minutes * 60);
    do {
      RunWorld("kills", options_.kills);
      RunWorld("stops", options_.stops);
      RunWorld("buses", options_.buses);
    } while (!options_.once && findings_ == 0 && std::chrono::steady_clock::now() < end);
    Report();
    return findings_ == 0 ? EXIT_SUCCESS : kFoundSomething;
  }

 private:
  void RunWorld(const std::string& trouble, int count) {
    if (count == 0 || findings_ > 0) return;
    const fs::path folder = folder_ / (std::to_string(totals_.worlds++) + "-" + trouble);
    fs::create_directories(folder);
    const std::uint32_t seed = options_.seed + static_cast<std::uint32_t>(totals_.worlds);
    std::string plant;
    for (const auto& [name, value] : Plants()) {
      if (value == options_.plant) plant = " --plant " + name;
    }
    setenv(sim::kMarksVariable, (folder / "marks").c_str(), 1);
    const std::string command = "'" SVCMGR_SIM "' run '" SCENARIO "' --trace '" +
                                (folder / "trace").string() + "' -- '" + program_ + "' --worker " +
                                trouble + " --folder '" + folder.string() + "' --count " +
                                std::to_string(count) + " --seed " + std::to_string(seed) + plant;
    const int status = std::system(command.c_str());
    if (status != 0) Find(trouble, "the world ends with the status " + std::to_string(status));
    JudgeWorld(trouble, folder);
    if (options_.keep.empty() && findings_ == 0) fs::remove_all(folder);
  }

  void JudgeWorld(const std::string& trouble, const fs::path& folder) {
    std::ifstream trace(folder / "trace");
    History history = ReadTrace(trace);
    std::ifstream worker_file(folder / "worker.json");
    const Json worker = Json::parse(worker_file, nullptr, false);
    if (worker.is_discarded()) return Find(trouble, "the worker says nothing");
    for (const auto& outage : worker["outages"]) history.outages.push_back({outage[0], outage[1]});
    for (const auto& fault : worker["faults"]) Find(trouble, fault);
    for (const std::string& fault : history.faults) Find(trouble, fault);
    for (const auto& [what, count] : worker["counts"].items()) {
      totals_.troubles[trouble][what] += count.get<long>();
    }
    totals_.agents += static_cast<long>(history.processes.size());
    totals_.stranded += worker["stranded"].get<long>();
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      if (entry.path().extension() == ".log") JudgeClient(trouble, history, entry.path());
    }
  }

  void JudgeClient(const std::string& trouble, const History& history, const fs::path& file) {
    std::ifstream stream(file);
    const ClientLog client = ReadLog(file.stem().string(), stream);
    ++totals_.processes;
    for (const Record& record : client.records) {
      ++totals_.told[record.what.substr(0, record.what.find(' '))];
    }
    for (const auto judge : {JudgeWhatWasTold, JudgeRequests}) {
      for (const std::string& finding : judge(history, client)) Find(trouble, finding);
    }
    for (const std::string& finding : JudgeUsage(client)) Find(trouble, finding);
    const std::vector<Usage> usages = UsagesOf(client);
    if (usages.size() >= kFewestUsages) ++totals_.judged;
  }

  void Find(const std::string& trouble, const std::string& text) {
    constexpr int kMost = 50;
    if (++findings_ <= kMost) std::printf("%s: %s\n", trouble.c_str(), text.c_str());
  }

  void Report() const {
    for (const auto& [trouble, counts] : totals_.troubles) {
      long sum = 0;
      for (const auto& [what, count] : counts) sum += count;
      std::printf("\n%-60s %8ld\n", trouble.c_str(), sum);
      for (const auto& [what, count] : counts) std::printf("  %-58s %8ld\n", what.c_str(), count);
    }
    const auto told = [&](const char* word) {
      const auto found = totals_.told.find(word);
      return found == totals_.told.end() ? 0 : found->second;
    };
    std::printf("\n");
    const auto row = [](const char* what, long count) { std::printf("%-60s %8ld\n", what, count); };
    row("worlds", totals_.worlds);
    row("processes of agents", totals_.agents);
    row("processes of clients", totals_.processes);
    row("  of those, ended because only a new process helped", totals_.stranded);
    row("requests", told("ask") + told("level") + told("request-update"));
    row("answers", told("answer"));
    row("messages of progress", told("progress"));
    row("notices of the connection", told("connection"));
    row("notices of updates", told("update-status"));
    row("notices of models", told("model-status"));
    row("looks at what a client uses", told("usage"));
    row("clients whose first and last quarter were compared", totals_.judged);
    row("findings", findings_);
    if (findings_ > 0) std::printf("what was written is in %s\n", folder_.c_str());
  }

  const Options& options_;
  const std::string program_;
  fs::path folder_;
  Totals totals_;
  int findings_ = 0;
};

int Work(const Options& options) {
  WorkerOptions worker;
  worker.trouble = Troubles().at(options.worker);
  worker.count = options.count;
  worker.seed = options.seed;
  worker.folder = options.folder;
  worker.plant = options.plant;
  return RunWorker(worker);
}

int Run(int argc, char** argv) {
  Options options;
  options.seed = static_cast<std::uint32_t>(std::time(nullptr));
  CLI::App app(
      "Kills and stops an agent, its bus and its clients, and judges what the clients are told.");
  app.name("soak");
  app.add_option("MINUTES", options.minutes, "How long; a world that has begun goes on to its end")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
  app.add_option("--seed", options.seed,
                 "The same moments and places again; another one each time");
  app.add_option("--kills", options.kills, "How many in one world; 0: none")->capture_default_str();
  app.add_option("--stops", options.stops, "The same")->capture_default_str();
  app.add_option("--buses", options.buses, "How many buses die in one world")
      ->capture_default_str();
  app.add_flag("--once", options.once, "One world of each kind, whatever the time");
  app.add_option("--keep", options.keep, "A folder in which all that was written is kept");
  // Not for people: for the driver, and for the tests of this program.
  app.add_option("--worker", options.worker)->group("");
  app.add_option("--folder", options.folder)->group("");
  app.add_option("--count", options.count)->group("");
  app.add_option("--plant", options.plant)->transform(CLI::CheckedTransformer(Plants()))->group("");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : kWrongUsage;
  }
  if (!options.worker.empty()) return Work(options);
  return Driver(options, fs::read_symlink("/proc/self/exe").string()).Drive();
}

}  // namespace
}  // namespace soak

int main(int argc, char** argv) {
  try {
    return soak::Run(argc, argv);
  } catch (const std::exception& error) {
    std::cerr << "soak: " << error.what() << "\n";
    return soak::kWrongUsage;
  }
}
