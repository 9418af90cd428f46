/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_CLIENT_LEVEL_SUPPORT_H_
#define SVCMGR_CLIENT_LEVEL_SUPPORT_H_

/* An application's folder, filled by a test. */

#include <fake_platform.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "elf_builder.h"
#include "kyr-section.h"

namespace client_level {

namespace fs = std::filesystem;

inline constexpr char kScannerFile[] = "kyr-section.cc";
inline constexpr char kWalk[] = "kyr_section_get_latest";
inline constexpr char kReader[] = "kyr_section_read_file";
inline constexpr char kNoMarker[] = "There is no file having .kyr section";

/** A private folder below the temporary one, removed with all that is in it. */
class TemporaryFolder {
 public:
  TemporaryFolder() {
    const char* const base = std::getenv("TMPDIR");
    std::string path = std::string(base == nullptr ? "/tmp" : base) + "/client-level-XXXXXX";
    if (mkdtemp(path.data()) == nullptr) ADD_FAILURE() << "cannot make " << path;
    path_ = path;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

/** What a search finds; all zero if it finds nothing. */
struct Found {
  int api_level = 0;
  int version_major = 0;
  int version_minor = 0;
  int version_patch = 0;
};
inline bool operator==(const Found& a, const Found& b) {
  return a.api_level == b.api_level && a.version_major == b.version_major &&
         a.version_minor == b.version_minor && a.version_patch == b.version_patch;
}
inline std::ostream& operator<<(std::ostream& out, const Found& found) {
  return out << "level " << found.api_level << ", version " << found.version_major << '.'
             << found.version_minor << '.' << found.version_patch;
}

/** The application's folder is a temporary one. */
class AnApplicationFolder : public fake::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    fake::Application application;
    application.resource_path = (Root() / "res/").string();
    fake::SetApplication(application);
  }

  const fs::path& Root() const { return folder_.path(); }

  /** Writes a file, and the folders that it needs. */
  fs::path Write(const fs::path& name, const elf::Bytes& bytes) const {
    fs::path path = Root() / name;
    fs::create_directories(path.parent_path());
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    EXPECT_TRUE(out.good()) << path;
    return path;
  }

  fs::path Write(const fs::path& name, const elf::Marker& marker) const {
    return Write(name, elf::FileWith(marker));
  }

  /** Searches the folder. */
  Found Search() const { return Search(Root()); }

  static Found Search(const fs::path& folder) {
    const svcmgr::OwnedKyrRecord record = kyr_section_get_latest(folder.c_str());
    if (record == nullptr) return {};
    return {record->api_level, record->version_major, record->version_minor, record->version_patch};
  }

  /** Searches a folder that holds these bytes as its only file. */
  Found SearchIn(const elf::Bytes& bytes) const {
    Write("file", bytes);
    return Search();
  }

 private:
  TemporaryFolder folder_;
};

}  // namespace client_level

#endif  // SVCMGR_CLIENT_LEVEL_SUPPORT_H_
