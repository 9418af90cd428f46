// SPDX-License-Identifier: Apache-2.0
#include "scripted_run.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "sim_process.h"

namespace {

Lines ReadLines(std::istream& stream) {
  Lines lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

}  // namespace

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

ScriptedWorld::ScriptedWorld(const std::string& scenario)
    : scenario_(folder_.Write("scenario.json", scenario)) {}

Lines ScriptedWorld::Run(int rounds, const Lines& words) const {
  return RunAtOnce(rounds, {words}).front();
}

std::vector<Lines> ScriptedWorld::RunAtOnce(int rounds, const std::vector<Lines>& words) const {
  // Each client's words are a file of arguments, each ended by a zero byte.
  std::string script;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string file = folder_.path() + "/words" + std::to_string(i);
    std::ofstream stream(file, std::ios::binary);
    for (const std::string& word : words[i]) stream << word << '\0';
    script +=
        "xargs -0 -a " + file + " \"$0\" " + std::to_string(rounds) + " > " + file + ".said & ";
  }
  const Finished run =
      RunSim({"run", scenario_, "--", "sh", "-c", script + "wait", SCRIPTED_CLIENT},
             [] { setenv("SVCMGR_SIM", SVCMGR_SIM, 1); });
  EXPECT_EQ(run.status, 0) << run.errors;
  std::vector<Lines> said;
  for (std::size_t i = 0; i < words.size(); ++i) {
    std::ifstream stream(folder_.path() + "/words" + std::to_string(i) + ".said");
    said.push_back(ReadLines(stream));
  }
  return said;
}

Lines Beginning(const std::string& begin, const Lines& lines) {
  Lines found;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
               [&](const std::string& line) { return line.rfind(begin, 0) == 0; });
  return found;
}

Lines NotBeginning(const std::string& begin, const Lines& lines) {
  Lines found;
  std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
               [&](const std::string& line) { return line.rfind(begin, 0) != 0; });
  return found;
}
