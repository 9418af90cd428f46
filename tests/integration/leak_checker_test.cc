// SPDX-License-Identifier: Apache-2.0
// What checkers of leaks tell the application that uses the library: its own leaks, and no others.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "sim_process.h"

namespace {

// The exit statuses that the checkers are told to use for a leak.
constexpr int kLeak = 99;

/** The library without names, as devices have it, in a folder of its own. */
class StrippedLibrary {
 public:
  StrippedLibrary() {
    std::string pattern = testing::TempDir() + "/stripped-XXXXXX";
    folder_ = mkdtemp(pattern.data());
    const std::string command = "strip -s -o " + folder_ + "/" LIBRARY_NAME " " LIBRARY;
    EXPECT_EQ(std::system(command.c_str()), 0);
  }
  ~StrippedLibrary() { std::filesystem::remove_all(folder_); }
  StrippedLibrary(const StrippedLibrary&) = delete;
  StrippedLibrary& operator=(const StrippedLibrary&) = delete;

  void Use() const { setenv("LD_LIBRARY_PATH", folder_.c_str(), 1); }

 private:
  std::string folder_;
};

/** A careless client and the checker that watches it. */
class ALeakChecker : public testing::Test {
 protected:
  static Finished Run(std::vector<std::string> command, const std::string& forgotten) {
    command.insert(command.begin(), {"run", "demo", "--"});
    command.push_back(forgotten);
    // Names in a report take seconds, and are of use where none is expected.
    const std::string options =
        std::string("detect_leaks=1:exitcode=99:symbolize=") + (forgotten == "nothing" ? "1" : "0");
    return RunSim(command, [&options] {
      setenv("LSAN_OPTIONS", options.c_str(), 1);
      setenv("ASAN_OPTIONS", options.c_str(), 1);
    });
  }
  static void ExpectItsOwnLeaksAlone(const std::vector<std::string>& command) {
    const Finished careful = Run(command, "nothing");
    EXPECT_EQ(careful.status, 0) << careful.errors;
    for (const char* forgotten : {"list", "model", "text", "agents"}) {
      const Finished careless = Run(command, forgotten);
      EXPECT_EQ(careless.status, kLeak) << forgotten << "\n" << careless.errors;
    }
  }
};

TEST_F(ALeakChecker, OfThisProcessSeesWhatAnApplicationForgetsAndNothingElse) {
  const std::string client = CHECKED_CLIENT;
  if (client.empty()) GTEST_SKIP() << "this compiler has no LeakSanitizer here";
  const Finished probe = Run({client}, "nothing");
  if (probe.errors.find("LeakSanitizer has encountered a fatal error") != std::string::npos)
    GTEST_SKIP() << probe.errors;
  ExpectItsOwnLeaksAlone({client});
  const StrippedLibrary stripped;
  stripped.Use();
  ExpectItsOwnLeaksAlone({client});
}

TEST_F(ALeakChecker, FromOutsideSeesWhatAnApplicationForgetsAndNothingElse) {
  const std::string client = PLAIN_CLIENT;
  if (client.empty()) GTEST_SKIP() << "sanitized programs do not run under valgrind";
  if (getenv("SVCMGR_TEST_EXTRA") == nullptr) GTEST_SKIP() << "./dev test --extra runs this";
  const std::vector<std::string> command = {"valgrind",
                                            "--quiet",
                                            "--leak-check=full",
                                            "--errors-for-leak-kinds=definite,indirect,possible",
                                            "--error-exitcode=99",
                                            client};
  ExpectItsOwnLeaksAlone(command);
  const StrippedLibrary stripped;
  stripped.Use();
  ExpectItsOwnLeaksAlone(command);
}

}  // namespace
