// SPDX-License-Identifier: Apache-2.0
#ifndef AGENT_COMMON_REPORT_H_
#define AGENT_COMMON_REPORT_H_

#include <string>
#include <string_view>

namespace sim {

/** A text from outside as part of a line: nothing in it steers a terminal or ends the line. */
std::string Quotable(std::string_view text);

/**
 * Prints a message on standard error, after the program's name. Of the characters that could steer a
 * terminal, only newlines and tabs are kept.
 */
void Report(std::string_view message);

/** The same for lines that begin with the name of a file. */
void ReportLines(std::string_view lines);

}  // namespace sim

#endif  // AGENT_COMMON_REPORT_H_
