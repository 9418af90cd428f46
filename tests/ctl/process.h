// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_CTL_PROCESS_H_
#define TESTS_CTL_PROCESS_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

/** How a program is started, and what happens to it. */
struct Start {
  /** The program, linked with the scripted library. */
  std::string program = SVCMGRCTL_SCRIPTED;
  std::vector<std::string> arguments;
  /** Variables set for the program, or removed from it. Of the others, those that could change its
   *  output are removed, and a terminal has a TERM. */
  std::map<std::string, std::optional<std::string>> environment;
  /** A descriptor to use as standard output instead of the pipe that is read; -1 for none. */
  int standard_output = -1;
  /** Standard output has nobody to read it. */
  bool output_without_reader = false;
  /** The program starts without standard descriptors 0 to 2; its output is lost. */
  bool no_descriptors = false;
  /** Files cannot grow, as on a full disk. */
  bool no_file_space = false;
  /** Standard output and standard error are one terminal; what it shows is the output. */
  bool terminal = false;
  /** A signal to send as soon as the program waits for what never comes; 0 for none. */
  int signal_when_waiting = 0;
  /** Sends SIGINT as soon as the output has this in it; empty for never. */
  std::string interrupt_when_shown;
  /** The size of the terminal; 0 where it does not tell. */
  unsigned short columns = 0;
  unsigned short rows = 0;
};

struct Ending {
  /** The exit status; the negative number of the signal that ended the program. */
  int status = 0;
  std::string output;
  std::string errors;
};

/** Whether this machine lets tests have terminals. */
bool HasTerminals();

/** Runs a program against the scripted library, to its end. */
Ending RunWith(const Start& start, const std::string& script);
/** Runs svcmgrctl so. */
Ending RunScripted(const std::string& script, std::vector<std::string> arguments);

#endif  // TESTS_CTL_PROCESS_H_
