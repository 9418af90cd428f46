// SPDX-License-Identifier: Apache-2.0
#include "screen.h"

#include <cstdlib>

Screen::Screen(const std::string& output) {
  for (std::size_t at = 0; at < output.size();) {
    if (output[at] == '\x1b') {
      const std::string before = Text();
      if (column_ == 0 && !before.empty() && (pictures_.empty() || pictures_.back() != before))
        pictures_.push_back(before);
      at = TakeSequence(output, at);
    } else {
      Put(output[at++]);
    }
  }
  pictures_.push_back(Text());
}

std::string Screen::Text() const {
  std::string text;
  for (const std::string& line : lines_) text += line + "\n";
  return text;
}

void Screen::Put(char c) {
  if (c == '\r') {
    column_ = 0;
  } else if (c == '\n') {
    ++row_;
    if (lines_.size() < row_) lines_.resize(row_);
  } else {
    if (lines_.size() <= row_) lines_.resize(row_ + 1);
    std::string& line = lines_[row_];
    if (line.size() <= column_) line.resize(column_ + 1, ' ');
    line[column_++] = c;
  }
}

std::size_t Screen::TakeSequence(const std::string& output, std::size_t at) {
  const std::size_t end = output.find_first_not_of("0123456789;", at + 2);
  if (at + 1 >= output.size() || output[at + 1] != '[' || end == std::string::npos) {
    unknown_ += output.substr(at, 4) + " ";
    return at + 1;
  }
  const auto number = static_cast<std::size_t>(std::strtoul(output.c_str() + at + 2, nullptr, 10));
  switch (output[end]) {
    case 'A':
      // Further up than there is anything would destroy what stood there before.
      if (number > row_) unknown_ += "[too far up] ";
      row_ -= number < row_ ? number : row_;
      break;
    case 'J':
      if (lines_.size() > row_) {
        lines_.resize(row_ + (column_ > 0 ? 1 : 0));
        if (column_ > 0) lines_[row_].resize(column_);
      }
      break;
    case 'm':
      break;
    default:
      unknown_ += output.substr(at, end + 1 - at) + " ";
  }
  return end + 1;
}
