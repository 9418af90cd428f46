// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_CONSOLE_H_
#define TOOLS_SVCMGRCTL_CONSOLE_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "options.h"
#include "space.h"

namespace svcmgrctl {

/** A failure as a JSON object: code, name, message, exit, remedy. */
Json ToJson(const Failure& failure);

/**
 * Where output goes: data to standard output, all else to standard error, each in the form that was
 * asked for.
 */
class Console {
 public:
  /** Longer lines of text are hard to read. */
  static constexpr std::size_t kWidestText = 100;

  explicit Console(const Options& options);
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /** Whether data is shown in colour; decided for standard output. */
  bool color() const { return out_color_; }

  /** The cells into which the lines of a table have to fit; 0 for no limit. */
  std::size_t table_width() const;

  /** The cells into which the lines of a text fit that is broken where people read it on a terminal;
   *  0 for no limit. */
  std::size_t text_width() const;

  bool json() const { return json_; }
  /** Whether a person wants to see nothing but data and errors. */
  bool quiet() const { return quiet_; }
  bool verbose() const { return verbose_; }
  /** Seconds that the whole command may take; 0 for no limit. */
  double timeout() const { return timeout_; }

  /** Whether people see the output where lines can be drawn again. */
  bool live() const { return live_; }

  /** Whether somebody has chosen to see this field. */
  bool Shows(const std::string& field) const { return selection_ && selection_->Uses(field); }

  /** Takes the data of a command in all its forms and keeps the one that was asked for until Flush.
   *  `text` must be safe for a terminal. `records` is what fields are chosen of. */
  void Data(const Json& json, std::string_view text, const Json& records);

  /** The same for data that is one record. */
  void Data(const Json& json, std::string_view text) { Data(json, text, Json::array({json})); }

  /**
   * Takes one line of data about something that goes on, in both its forms, and writes it at once,
   * as far as the reader takes it: it never blocks. What is left is written with later lines, or by
   * Flush. `text` must be safe for a terminal; without one there is no line for people. What Draw
   * has shown is gone then.
   */
  void Line(const Json& json, std::string_view text);

  /** Shows these lines at the end of what is on the terminal, in place of those that were shown so
   *  before. They must be safe for a terminal, and are cut to its width; where that leaves nothing of
   *  them, nothing is shown. Only where live(). */
  void Draw(std::vector<std::string> lines);

  /** Leaves what is drawn where it is: what follows comes below it. */
  void KeepDrawn() { drawn_.clear(); }

  /** The size of the terminal, as it is now. */
  Space TerminalSpace() const;

  /** False once nobody reads what is written. */
  bool HasReader() const { return has_reader_; }

  /** Whether lines are left that the reader did not take. */
  bool HasLeftovers() const { return !kept_.empty(); }

  /** Writes as much of what is left as the reader takes. */
  void WriteLeftovers();

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
  const bool verbose_;
  const bool quiet_;
  const bool cuts_tables_;
  const double timeout_;
  const std::optional<Selection> selection_;
  const bool live_;
  const bool out_color_;
  const bool err_color_;
  bool has_reader_ = true;
  std::string kept_;
  std::vector<std::string> drawn_;
};

/** Opens descriptors 0 to 2 where the caller closed them, so that no connection gets their numbers
 *  and is written to by mistake. Writing to them still fails. */
void ReserveStandardDescriptors();

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_CONSOLE_H_
