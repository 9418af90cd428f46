// SPDX-License-Identifier: Apache-2.0
// What the platform takes from its user's environment, in a program that runs as another user.

#include <gmock/gmock.h>
#include <grp.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

namespace fs = std::filesystem;

// Any user but root; it needs no name.
constexpr uid_t kUser = 54321;

std::string ContentOf(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// What the program says of itself, without its log.
std::string AnswersIn(const std::string& output) {
  const size_t begin = output.find("secure=");
  const size_t end = output.find("package=");
  return begin < end && end != std::string::npos ? output.substr(begin, end - begin) : "none";
}

class AProgram : public testing::Test {
 protected:
  AProgram() {
    std::string pattern = testing::TempDir() + "/setuid-XXXXXX";
    top_ = fs::canonical(mkdtemp(pattern.data()));
    fs::permissions(top_, fs::perms(0755));
  }
  ~AProgram() override { fs::remove_all(top_); }

  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can make a program that runs as another user";
  }

  // What the environment names belongs to the user that the program runs as, who alone may use it.
  void Prepare(uid_t owner, int mode) {
    const fs::path program = top_ / "probe";
    fs::copy_file(ENVIRONMENT_PROBE, program);
    fs::create_directories(top_ / "packages");
    fs::create_directories(top_ / "data" / "velmora" / "packages");
    for (const fs::path& folder : {top_ / "packages", top_ / "data" / "velmora" / "packages"}) {
      std::ofstream(folder / "probe.package") << "[Package]\nVersion=7.7.7\n";
    }
    fs::create_directory(top_ / "runtime");
    fs::permissions(top_ / "runtime", fs::perms(0700));
    std::ofstream(top_ / "log").flush();
    fs::permissions(top_ / "log", fs::perms(0600));
    for (const fs::path& path : {program, top_ / "runtime", top_ / "log"}) {
      ASSERT_EQ(chown(path.c_str(), owner, 0), 0);
    }
    fs::permissions(program, fs::perms(mode));
  }

  // Output and errors of the program, run by kUser in this environment.
  std::string Run(std::vector<std::string> environment) {
    // A leak check would trace the program, which is not allowed for a set-user-ID one.
    environment.push_back("ASAN_OPTIONS=detect_leaks=0");
    std::vector<char*> variables;
    for (std::string& variable : environment) variables.push_back(variable.data());
    variables.push_back(nullptr);
    const fs::path program = top_ / "probe";
    const fs::path output = top_ / "output";
    const pid_t child = fork();
    if (child == 0) {
      const bool ready = freopen(output.c_str(), "w", stdout) && dup2(1, 2) == 2 &&
                         setgroups(0, nullptr) == 0 && setgid(kUser) == 0 && setuid(kUser) == 0;
      char* arguments[] = {const_cast<char*>(program.c_str()), nullptr};
      if (ready) execve(program.c_str(), arguments, variables.data());
      _exit(126);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    runs_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return ContentOf(output);
  }

  std::vector<std::string> Environment() const {
    return {"VELMORA_APP_ID=org.example.forged",
            "VELMORA_APP_VERSION=6.6.6",
            "VELMORA_APP_ROOT=/forged",
            "VELMORA_LOG_LEVEL=verbose",
            "VELMORA_LOG_FILE=" + (top_ / "log").string(),
            "VELMORA_RUNTIME_DIR=" + (top_ / "runtime").string(),
            "VELMORA_PACKAGE_DIR=" + (top_ / "packages").string()};
  }
  std::vector<std::string> FoldersOfTheUser() const {
    fs::create_directories(top_ / "runtime" / "velmora");
    fs::permissions(top_ / "runtime" / "velmora", fs::perms(0700));
    EXPECT_EQ(chown((top_ / "runtime" / "velmora").c_str(), owner_, 0), 0);
    return {"XDG_DATA_HOME=" + (top_ / "data").string(),
            "XDG_RUNTIME_DIR=" + (top_ / "runtime").string()};
  }
  std::vector<std::string> Home() const {
    fs::create_directories(top_ / "home" / ".local");
    fs::create_directory_symlink(top_ / "data", top_ / "home" / ".local" / "share");
    return {"HOME=" + (top_ / "home").string()};
  }

  fs::path top_;
  uid_t owner_ = 0;
  bool runs_ = false;
};

class AnOrdinaryProgram : public AProgram {
 protected:
  void SetUp() override {
    AProgram::SetUp();
    if (IsSkipped()) return;
    owner_ = kUser;
    Prepare(kUser, 0755);
    const std::string output = Run({});
    if (!runs_) GTEST_SKIP() << "another user cannot run what is built here: " << output;
  }
};

class ASetUserIdProgram : public AProgram {
 protected:
  void SetUp() override {
    AProgram::SetUp();
    if (IsSkipped()) return;
    Prepare(0, 04755);
    const std::string output = Run({});
    if (!runs_) GTEST_SKIP() << "another user cannot run what is built here: " << output;
    if (output.find("secure=yes") == std::string::npos) {
      GTEST_SKIP() << "programs do not change their user here (nosuid, no_new_privs): " << output;
    }
  }
};

TEST_F(AnOrdinaryProgram, TakesTheEnvironmentAtItsWord) {
  EXPECT_THAT(Run(Environment()),
              AllOf(HasSubstr("secure=no"), HasSubstr("id=org.example.forged"),
                    HasSubstr("version=6.6.6"), HasSubstr("resources=/forged/res/"),
                    HasSubstr("runtime=" + (top_ / "runtime").string() + "\n"),
                    HasSubstr("package=7.7.7"), Not(HasSubstr("record"))));
  EXPECT_THAT(ContentOf(top_ / "log"),
              AllOf(HasSubstr("verbose record"), HasSubstr("error record")));
  EXPECT_THAT(Run(FoldersOfTheUser()),
              AllOf(HasSubstr("runtime=" + (top_ / "runtime" / "velmora").string() + "\n"),
                    HasSubstr("package=7.7.7")));
  EXPECT_THAT(Run(Home()), HasSubstr("package=7.7.7"));
}

TEST_F(ASetUserIdProgram, TakesNothingFromTheEnvironment) {
  const std::string without = Run({});
  for (const auto& environment : {Environment(), FoldersOfTheUser(), Home()}) {
    const std::string output = Run(environment);
    EXPECT_TRUE(runs_) << output;
    EXPECT_THAT(output, AllOf(HasSubstr("secure=yes"), HasSubstr("error record"),
                              Not(HasSubstr("verbose record"))));
    EXPECT_EQ(AnswersIn(output), AnswersIn(without));
    EXPECT_THAT(output, Not(HasSubstr("package=7.7.7")));
  }
  EXPECT_EQ(ContentOf(top_ / "log"), "");
}

}  // namespace
