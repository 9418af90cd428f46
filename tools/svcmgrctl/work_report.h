// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_WORK_REPORT_H_
#define TOOLS_SVCMGRCTL_WORK_REPORT_H_

#include <string>
#include <vector>

#include "console.h"

namespace svcmgrctl {

/** Seconds between two pictures of work that goes on. */
inline constexpr double kPictureSeconds = 0.1;

/** What a person may do who does not wait for the end of work. */
inline constexpr char kHowItGoesOn[] = "'svcmgrctl watch' tells how it goes on";

/** What is told of one piece of the agent's work, from the request to its end. */
class WorkReport {
 public:
  explicit WorkReport(Console& console) : console_(console) {}

  /** The request is made now: times are counted from here. */
  void Begin();

  /** Seconds since the request. */
  double Elapsed() const;

  /** Writes one event with its times and what else there is to tell. Without a text there is no line
   *  for people. */
  void Print(const char* event, const Json& more, const std::string& text);

 private:
  Console& console_;
  double begin_ = 0;
};

/** The names in one line. */
std::string Listed(const std::vector<std::string>& names);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_WORK_REPORT_H_
