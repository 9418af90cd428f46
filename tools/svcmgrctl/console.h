// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_CONSOLE_H_
#define TOOLS_SVCMGRCTL_CONSOLE_H_

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "failure.h"
#include "options.h"

namespace svcmgrctl {

/** Keys keep the order in which they are written down. */
using Json = nlohmann::ordered_json;

/** A failure as a JSON object: code, name, message, exit. */
Json ToJson(const Failure& failure);

/**
 * Where output goes: data to standard output, all else to standard error, each in the form that was
 * asked for.
 */
class Console {
 public:
  explicit Console(const Options& options);

  /** Whether data is shown in colour; decided for standard output. */
  bool color() const { return out_color_; }

  /** Takes the data of a command in both its forms and keeps the one that was asked for until
   *  Flush. `text` must be safe for a terminal. */
  void Data(const Json& json, std::string_view text);

  /** Takes a text that has one form only, such as help. */
  void Text(std::string_view text) { kept_ += text; }

  /** A remark for people, one line; programs find the same in the data. */
  void Note(std::string_view message) const;

  void Error(const Failure& failure) const;

  /**
   * Writes the data that was kept. Blocks for as long as the reader takes: call it when no signal
   * needs the main loop to be noticed.
   *
   * A reader that has gone away has what it wanted, so that is no failure; any other is thrown.
   */
  void Flush();

 private:
  const bool json_;
  const bool out_color_;
  const bool err_color_;
  std::string kept_;
};

/** Opens descriptors 0 to 2 where the caller closed them, so that no connection gets their numbers
 *  and is written to by mistake. Writing to them still fails. */
void ReserveStandardDescriptors();

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_CONSOLE_H_
