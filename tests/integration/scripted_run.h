// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_INTEGRATION_SCRIPTED_RUN_H_
#define TESTS_INTEGRATION_SCRIPTED_RUN_H_

#include <string>
#include <vector>

#include "temp_folder.h"

using Lines = std::vector<std::string>;

/** What several lists hold, one after the other. */
Lines operator+(Lines first, const Lines& second);

/** A world of the test's own scenario, in which scripted clients run; see scripted_client.cc. */
class ScriptedWorld {
 public:
  explicit ScriptedWorld(const std::string& scenario);

  /** The folder that the scenario is in. */
  const TempFolder& folder() const { return folder_; }

  /** What a client says that goes through the words so many times. */
  Lines Run(int rounds, const Lines& words) const;

  /** What several clients say that go through their words at once, each by itself. */
  std::vector<Lines> RunAtOnce(int rounds, const std::vector<Lines>& words) const;

 private:
  TempFolder folder_;
  std::string scenario_;
};

/** The lines that begin so, and the others; only among lines of one kind the order is certain. */
Lines Beginning(const std::string& begin, const Lines& lines);
Lines NotBeginning(const std::string& begin, const Lines& lines);

#endif  // TESTS_INTEGRATION_SCRIPTED_RUN_H_
