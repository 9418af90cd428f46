/* SPDX-License-Identifier: Apache-2.0 */
#ifndef TESTS_SUPPORT_READELF_H_
#define TESTS_SUPPORT_READELF_H_

/* What the binutils say about ELF files. */

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/command.h"

namespace binutils {

/** Runs a shell command, which must succeed; returns what it prints. */
inline std::string OutputOf(const std::string& command) {
  Ran ran = RunCommand(command);
  EXPECT_EQ(ran.status, 0) << command;
  return std::move(ran.output);
}

inline std::string Quote(const std::string& word) { return '\'' + word + '\''; }

/** A row of readelf's table of sections. */
struct Section {
  std::string name;  // words of a name that has blanks are joined by one
  std::string type;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  std::string flags;
};

inline bool IsHex(const std::string& word, std::size_t least) {
  return word.size() >= least && word.find_first_not_of("0123456789abcdef") == std::string::npos;
}

/** Reads "  [ 5] NAME TYPE ADDRESS OFFSET SIZE ES [FLAGS] LINK INFO ALIGN"; false if it is none. */
inline bool ReadRow(const std::string& line, Section* section) {
  const std::size_t close = line.find(']');
  if (line.compare(0, 3, "  [") != 0 || close == std::string::npos || line[close - 1] == 'r') {
    return false;
  }
  std::istringstream in(line.substr(close + 1));
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  // From the end: the flags are missing if the address is seven words before it.
  const std::size_t n = words.size();
  if (n < 8) return false;
  const bool no_flags = IsHex(words[n - 7], 8) && IsHex(words[n - 6], 6) && IsHex(words[n - 4], 2);
  const std::size_t address = no_flags ? n - 7 : n - 8;
  if (!IsHex(words[address], 8) || address == 0) return false;
  section->type = words[address - 1];
  section->offset = std::stoull(words[address + 1], nullptr, 16);
  section->size = std::stoull(words[address + 2], nullptr, 16);
  section->flags = no_flags ? "" : words[n - 4];
  section->name.clear();
  for (std::size_t i = 0; i + 1 < address; ++i) section->name += (i == 0 ? "" : " ") + words[i];
  return true;
}

/** The sections of each file that is listed, NUL-terminated, in a file. */
inline std::map<std::string, std::vector<Section>> SectionsOfListed(const std::string& list) {
  // readelf's own warnings about odd files, and its status for them, do not matter.
  std::istringstream in(OutputOf("LC_ALL=C xargs -0 " SVCMGR_READELF " -SW /dev/null <" +
                                 Quote(list) + " 2>/dev/null || true"));
  std::map<std::string, std::vector<Section>> sections;
  std::vector<Section>* current = nullptr;
  Section section;
  for (std::string line; std::getline(in, line);) {
    if (line.compare(0, 6, "File: ") == 0) {
      current = &sections[line.substr(6)];
    } else if (current != nullptr && ReadRow(line, &section)) {
      current->push_back(section);
    }
  }
  return sections;
}

/** The sections of a file that have a name. */
inline std::vector<Section> SectionsNamed(const std::string& name, const std::string& file) {
  std::istringstream in(OutputOf("LC_ALL=C " SVCMGR_READELF " -SW " + Quote(file)));
  std::vector<Section> sections;
  Section section;
  for (std::string line; std::getline(in, line);) {
    if (ReadRow(line, &section) && section.name == name) sections.push_back(section);
  }
  return sections;
}

inline std::string BytesAt(const std::string& file, std::uint64_t offset, std::size_t size) {
  std::ifstream in(file, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  std::string bytes(size, '\0');
  in.read(bytes.data(), static_cast<std::streamsize>(size));
  bytes.resize(static_cast<std::size_t>(in.gcount()));
  return bytes;
}

}  // namespace binutils

#endif  // TESTS_SUPPORT_READELF_H_
