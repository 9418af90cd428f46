// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_AGENT_TEMP_FOLDER_H_
#define TESTS_AGENT_TEMP_FOLDER_H_

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

/** A folder of the test's own, removed with all that is in it. */
class TempFolder {
 public:
  TempFolder() {
    const char* tmpdir = getenv("TMPDIR");
    path_ = std::string(tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp") + "/sim-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
      throw std::runtime_error("cannot make a folder below " + path_);
    }
  }
  ~TempFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }

  /** Writes a file and returns its path. */
  std::string Write(const std::string& name, const std::string& content) const {
    std::string file = path_ + "/" + name;
    std::ofstream(file, std::ios::binary) << content;
    return file;
  }

 private:
  std::string path_;
};

#endif  // TESTS_AGENT_TEMP_FOLDER_H_
