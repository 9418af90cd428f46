// SPDX-License-Identifier: Apache-2.0
#include "scenario/scenario_files.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>

#include "common/report.h"
#include "scenario/problems.h"
#include "terminal_text.h"
#include "unique_fd.h"

namespace sim {
namespace {

std::string Similar(const std::string& name) {
  std::vector<std::string> names;
  for (const ShippedScenario& shipped : ShippedScenarios()) names.emplace_back(shipped.name);
  std::string text;
  for (const std::string& similar : terminal_text::SimilarTo(name, names)) {
    text += (text.empty() ? "did you mean \"" : ", \"") + similar + "\"";
  }
  return text.empty() ? text : text + "? ";
}

bool NamesFile(const std::string& name) {
  return name.ends_with(".json") || name.find('/') != std::string::npos;
}

}  // namespace

std::optional<std::string> ReadFile(const std::string& path, std::string* content) {
  // Neither a pipe nor a terminal may block the program.
  const base::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat about;
  if (!fd || fstat(fd.get(), &about) != 0) return strerror(errno);
  if (!S_ISREG(about.st_mode)) {
    return S_ISDIR(about.st_mode) ? "it is a folder" : "it is no regular file";
  }
  content->clear();
  char chunk[64 * 1024];
  for (;;) {
    const ssize_t size = read(fd.get(), chunk, sizeof chunk);
    if (size == 0) return std::nullopt;
    if (size > 0) {
      content->append(chunk, static_cast<std::size_t>(size));
    } else if (errno != EINTR) {
      return strerror(errno);
    }
  }
}

ScenarioSource FindScenario(const std::string& name) {
  if (!NamesFile(name)) {
    for (const ShippedScenario& shipped : ShippedScenarios()) {
      if (name == shipped.name) return {name, shipped.document, ""};
    }
    throw ScenarioError(Quotable(name) + ": no scenario of this name ships; " + Similar(name) +
                        "\"svcmgr-sim list\" names those that ship; a file's name has a slash or "
                        "ends in .json");
  }
  ScenarioSource source;
  source.name = name;
  if (const auto reason = ReadFile(name, &source.document)) {
    throw ScenarioError(Quotable(name) + ": cannot read the file: " + *reason);
  }
  source.folder = std::filesystem::absolute(name).parent_path().string();
  return source;
}

}  // namespace sim
