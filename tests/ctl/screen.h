// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_CTL_SCREEN_H_
#define TESTS_CTL_SCREEN_H_

#include <cstddef>
#include <string>
#include <vector>

/**
 * What a person sees of a program's output on a terminal: a screen without a lower end, that knows
 * what drawing needs and nothing else. Colours are left out.
 */
class Screen {
 public:
  /** Shows the output bit by bit, and keeps each picture that stood between two of them. */
  explicit Screen(const std::string& output);

  /** What is left in the end. */
  const std::vector<std::string>& lines() const { return lines_; }
  std::string Text() const;

  /** What has been shown: one after the other, without repetitions. A line is complete in each. */
  const std::vector<std::string>& pictures() const { return pictures_; }

  /** Sequences that no terminal of ours knows. */
  const std::string& unknown() const { return unknown_; }

 private:
  void Put(char c);
  std::size_t TakeSequence(const std::string& output, std::size_t at);

  std::vector<std::string> lines_;
  std::size_t row_ = 0;
  std::size_t column_ = 0;
  std::vector<std::string> pictures_;
  std::string unknown_;
};

#endif  // TESTS_CTL_SCREEN_H_
