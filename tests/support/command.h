/* SPDX-License-Identifier: Apache-2.0 */
#ifndef TESTS_SUPPORT_COMMAND_H_
#define TESTS_SUPPORT_COMMAND_H_

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

/** How a shell command has ended, and what it has printed to its standard output. */
struct Ran {
  int status = -1;  // -1 if it did not end by itself
  std::string output;
};

inline Ran RunCommand(const std::string& command) {
  Ran ran;
  std::FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return ran;
  std::array<char, 65536> buffer{};
  for (std::size_t n = 0; (n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    ran.output.append(buffer.data(), n);
  }
  const int status = pclose(pipe);
  if (WIFEXITED(status)) ran.status = WEXITSTATUS(status);
  return ran;
}

#endif  // TESTS_SUPPORT_COMMAND_H_
