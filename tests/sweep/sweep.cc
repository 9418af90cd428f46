// SPDX-License-Identifier: Apache-2.0
// The whole sweep: a client that does everything, once for each of its allocations, which then
// fails.
//
// Started by hand, it makes worlds, each with an agent and a worker that runs clients there one
// after the other, and prints what the workers found.
#include <stdio.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "places.h"
#include "runs.h"

namespace sweep {
namespace {

using Json = nlohmann::json;

constexpr int kFoundSomething = 1;
constexpr int kWrongUsage = 2;
constexpr int kBrokenWorld = 3;

struct Options {
  std::vector<std::string> from = {"start", "connection"};
  std::vector<long> bursts = {1, 5};
  long first = 1;
  long last = 0;  // 0: to the end
  long stride = 1;
  int workers = 2;
  bool verbose = false;
  Plant plant = Plant::kNone;
  int worker = -1;  // of the driver's workers; -1: the driver
};

From FromOf(const std::string& name) { return name == "start" ? From::kStart : From::kConnection; }

const char* NameOf(Verdict verdict) {
  switch (verdict) {
    case Verdict::kPassed:
      return "passed";
    case Verdict::kGlibAbort:
      return "glib";
    case Verdict::kAssertion:
      return "assertion";
    case Verdict::kFailed:
      break;
  }
  return "failed";
}

// ---- A worker, inside a world ----

class Worker {
 public:
  explicit Worker(const Options& options) : options_(options), runs_(options.plant) {}

  int Work() {
    for (const std::string& from : options_.from) {
      for (const long burst : options_.bursts) {
        if (!Sweep(from, burst)) return kBrokenWorld;
      }
    }
    return EXIT_SUCCESS;
  }

 private:
  /** False if the world is no longer usable. */
  bool Sweep(const std::string& from, long burst) {
    if (!IsSound(from, "a client in which nothing fails")) return false;
    const long step = options_.stride * options_.workers;
    for (long i = options_.first + options_.stride * options_.worker;
         options_.last == 0 || i <= options_.last; i += step) {
      const Outcome outcome = runs_.Run({FromOf(from), i, burst});
      const Verdict verdict = outcome.judgement.verdict;
      Json line = {{"from", from},
                   {"burst", burst},
                   {"allocation", i},
                   {"injected", outcome.injected},
                   {"verdict", NameOf(verdict)},
                   {"site", Fingerprint(outcome.allocation)},
                   {"lost", outcome.lost},
                   {"stranded", outcome.stranded}};
      if (verdict == Verdict::kFailed || options_.verbose) Explain(outcome, &line);
      Print(line);
      if (verdict == Verdict::kFailed && !IsSound(from, "the client after that")) return false;
      if (!outcome.injected) break;
    }
    return true;
  }

  static void Explain(const Outcome& outcome, Json* line) {
    (*line)["place"] = PlaceOf(outcome.allocation);
    (*line)["doing"] = outcome.doing;
    (*line)["why"] = outcome.judgement.why;
    (*line)["stack"] = Describe(outcome.allocation);
    if (outcome.allocation.depth > 0 && line->at("burst") > 1) {
      (*line)["last_stack"] = Describe(outcome.last_allocation);
    }
    (*line)["other_stack"] = outcome.judgement.stack;
    (*line)["errors"] = outcome.errors;
  }

  bool IsSound(const std::string& from, const char* who) {
    const Outcome outcome = runs_.Measure(FromOf(from));
    if (outcome.judgement.verdict == Verdict::kPassed) return true;
    Json line = {{"from", from}, {"burst", 0}, {"allocation", 0}, {"verdict", "broken"}};
    Explain(outcome, &line);
    line["why"] = std::string(who) + ": " + outcome.judgement.why;
    Print(line);
    return false;
  }

  static void Print(const Json& line) {
    std::puts(line.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    std::fflush(stdout);
  }

  const Options& options_;
  Runs runs_;
};

// ---- The driver ----

/** The failures that allocations at one place have led to. */
struct Group {
  std::map<std::string, int> runs;  // by what was wrong
  Json example;
};

struct Row {
  std::set<std::string> sites;
  int runs = 0;
  int losses = 0;
  int stranded = 0;
  int glib = 0;
  int assertions = 0;
  int failures = 0;
};

class Driver {
 public:
  explicit Driver(const Options& options) : options_(options) {}

  int Drive(const std::string& program, const std::string& arguments) {
    std::vector<std::thread> workers;
    for (int i = 0; i < options_.workers; ++i) {
      const std::string command = "'" SVCMGR_SIM "' run '" SCENARIO "' --app-root '" APP_ROOT
                                  "' -- '" +
                                  program + "' " + arguments + " --worker " + std::to_string(i);
      workers.emplace_back([this, command] { Listen(command); });
    }
    for (std::thread& worker : workers) worker.join();
    Report();
    if (broken_) return kBrokenWorld;
    return failures_.empty() ? EXIT_SUCCESS : kFoundSomething;
  }

 private:
  void Listen(const std::string& command) {
    FILE* const pipe = popen(command.c_str(), "r");
    char* line = nullptr;
    std::size_t size = 0;
    while (pipe != nullptr && getline(&line, &size, pipe) > 0) Take(line);
    free(line);
    if (pipe != nullptr && pclose(pipe) == 0) return;
    const std::lock_guard lock(mutex_);
    broken_ = true;
  }

  void Take(const char* text) {
    const Json line = Json::parse(text, nullptr, false);
    const std::lock_guard lock(mutex_);
    if (line.is_discarded()) {
      std::cerr << text;
      return;
    }
    if (options_.verbose) PrintRun(line);
    const std::string verdict = line["verdict"];
    if (verdict == "broken") return PrintRun(line);
    Row& row = rows_[{line["from"], line["burst"]}];
    if (verdict == "failed") {
      Group& group = failures_[line["place"]];
      if (group.runs.empty()) group.example = line;
      ++group.runs[line["why"]];
      ++row.failures;
    }
    if (!line["injected"]) return;
    row.sites.insert(line["site"]);
    ++row.runs;
    row.glib += verdict == "glib";
    row.assertions += verdict == "assertion";
    row.losses += line["lost"] == true;
    row.stranded += line["stranded"] == true;
  }

  static void PrintStack(const Json& stack) {
    for (const auto& function : stack) {
      std::printf("      %s\n", function.get<std::string>().c_str());
    }
  }

  static void PrintRun(const Json& line) {
    std::printf("from %s, burst %ld, allocation %ld: %s %s\n",
                line["from"].get<std::string>().c_str(), line["burst"].get<long>(),
                line["allocation"].get<long>(), line["verdict"].get<std::string>().c_str(),
                line["why"].get<std::string>().c_str());
    std::printf("    the allocation, while %s:\n", line["doing"].get<std::string>().c_str());
    PrintStack(line["stack"]);
    if (line.contains("last_stack")) {
      std::printf("    the last that failed:\n");
      PrintStack(line["last_stack"]);
    }
    if (!line["other_stack"].empty()) {
      std::printf("    the end, or what is left:\n");
      PrintStack(line["other_stack"]);
    }
    const std::string errors = line["errors"];
    if (!errors.empty()) std::printf("    it wrote:\n%s\n", errors.c_str());
  }

  void Report() const {
    for (const auto& [place, group] : failures_) {
      std::printf("\n%s\n", place.c_str());
      for (const auto& [why, runs] : group.runs)
        std::printf("  %4d times: %s\n", runs, why.c_str());
      std::printf("  for example ");
      PrintRun(group.example);
    }
    std::printf("\n%-12s %6s %6s %6s %12s %8s %6s %11s %8s\n", "from", "burst", "sites", "runs",
                "losses told", "stranded", "GLib", "assertions", "failures");
    for (const auto& [key, row] : rows_) {
      std::printf("%-12s %6ld %6zu %6d %12d %8d %6d %11d %8d\n", key.first.c_str(), key.second,
                  row.sites.size(), row.runs, row.losses, row.stranded, row.glib, row.assertions,
                  row.failures);
    }
  }

  const Options& options_;
  std::mutex mutex_;
  std::map<std::pair<std::string, long>, Row> rows_;
  std::map<std::string, Group> failures_;  // by place
  bool broken_ = false;
};

int Run(int argc, char** argv) {
  Options options;
  CLI::App app("Lets each allocation of a client fail, one run for each, and judges what happens.");
  app.name("sweep");
  app.add_option("--from", options.from,
                 "Count from the start of the process or from the connection")
      ->check(CLI::IsMember({"start", "connection"}));
  app.add_option("--burst", options.bursts, "How many allocations fail, from the one on")
      ->check(CLI::PositiveNumber);
  app.add_option("--first", options.first, "The first allocation")->check(CLI::PositiveNumber);
  app.add_option("--last", options.last, "The last allocation; all by default")
      ->check(CLI::PositiveNumber);
  app.add_option("--stride", options.stride, "Take each N-th allocation only")
      ->check(CLI::PositiveNumber);
  app.add_option("--workers", options.workers, "How many worlds at a time")
      ->check(CLI::PositiveNumber);
  app.add_flag("--verbose", options.verbose, "Print each run");
  // Not for people: for the driver, and for the tests of this program.
  app.add_option("--worker", options.worker)->group("");
  const std::map<std::string, Plant> plants = {{"block", Plant::kBlock},
                                               {"descriptor", Plant::kDescriptor},
                                               {"crash", Plant::kCrash},
                                               {"request", Plant::kRequest}};
  app.add_option("--plant", options.plant)->transform(CLI::CheckedTransformer(plants))->group("");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_SUCCESS : kWrongUsage;
  }
  if (options.worker >= 0) return Worker(options).Work();
  std::string arguments;
  for (int i = 1; i < argc; ++i) arguments += " " + std::string(argv[i]);
  return Driver(options).Drive(argv[0], arguments);
}

}  // namespace
}  // namespace sweep

int main(int argc, char** argv) { return sweep::Run(argc, argv); }
