// SPDX-License-Identifier: Apache-2.0
#include <dlfcn.h>
#include <dlog.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "sweep/failing_allocations.h"

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

class Log : public testing::Test {
 protected:
  Log() {
    std::string pattern = testing::TempDir() + "/dlog-XXXXXX";
    top_ = mkdtemp(pattern.data());
    path_ = top_ / "log";
    unsetenv("VELMORA_LOG_LEVEL");
    unsetenv("NO_COLOR");
    setenv("TERM", "xterm", 1);
  }
  ~Log() override { std::filesystem::remove_all(top_); }

  void ToFile(const char* level) const {
    setenv("VELMORA_LOG_FILE", path_.c_str(), 1);
    setenv("VELMORA_LOG_LEVEL", level, 1);
  }

  std::vector<std::string> Lines() const {
    std::ifstream file(path_);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

  // The messages alone, without "TIME PRIORITY TAG PID: ".
  std::vector<std::string> Messages() const {
    std::vector<std::string> messages;
    for (const std::string& line : Lines()) messages.push_back(line.substr(line.find(": ") + 2));
    return messages;
  }

  std::filesystem::path top_;
  std::filesystem::path path_;
};

// Without the compiler's check of the format.
int (*const unchecked_print)(log_priority, const char*, const char*, ...) = dlog_print;

class ALogFile : public Log {};
class AStandardErrorLog : public Log {};
class ARecord : public Log {};

// Status of a child that does `work` and ends, by exit or, `at_once`, by _exit.
int InChild(const std::function<void()>& work, bool at_once) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    if (at_once) _exit(0);
    exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

TEST_F(ARecord, IsOneLineWithTimePriorityTagAndProcess) {
  ToFile("verbose");
  EXPECT_GE(dlog_print(DLOG_ERROR, "TAG", "%s %d", "text", 7), 0);
  ASSERT_THAT(Lines(), SizeIs(1));
  const std::regex shape(
      "20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z "
      "E TAG " +
      std::to_string(getpid()) + ": text 7");
  EXPECT_TRUE(std::regex_match(Lines()[0], shape)) << Lines()[0];
}

TEST_F(ARecord, HasTheTimeOfTheSystem) {
  ToFile("error");
  char before[32];
  char after[32];
  time_t now = time(nullptr);
  strftime(before, sizeof before, "%FT%T", gmtime(&now));
  dlog_print(DLOG_ERROR, "TAG", "text");
  now = time(nullptr);
  strftime(after, sizeof after, "%FT%T", gmtime(&now));
  const std::string written = Lines().at(0).substr(0, 19);
  // time() may be a tick behind the clock that the log reads.
  EXPECT_GE(written, before);
  EXPECT_LE(written.substr(0, 16), std::string(after).substr(0, 16));
}

TEST_F(ARecord, IsFilteredBelowTheLevel) {
  const struct {
    const char* level;
    const char* letters;
  } rows[] = {{"verbose", "VDIIWEF"}, {"debug", "DIIWEF"}, {"info", "IIWEF"},
              {"warn", "WEF"},        {"error", "EF"},     {"fatal", "F"},
              {"silent", ""},         {"nonsense", "WEF"}, {"", "WEF"}};
  for (const auto& row : rows) {
    std::filesystem::remove(path_);
    const auto log_all = [&] {
      ToFile(row.level);
      for (const log_priority prio :
           {DLOG_VERBOSE, DLOG_DEBUG, DLOG_DEFAULT, DLOG_INFO, DLOG_WARN, DLOG_ERROR, DLOG_FATAL}) {
        if (dlog_print(prio, "T", "x") < 0) _exit(1);
      }
    };
    EXPECT_EQ(InChild(log_all, false), 0);
    std::string letters;
    for (const std::string& line : Lines()) letters += line[25];
    EXPECT_EQ(letters, row.letters) << row.level;
  }
}

TEST_F(ARecord, IsRefusedWithNullArgumentsOrAPriorityThatNoRecordHas) {
  ToFile("verbose");
  EXPECT_EQ(dlog_print(DLOG_ERROR, nullptr, "text"), -22);
  EXPECT_EQ(dlog_print(DLOG_VERBOSE, nullptr, "text"), -22);
  EXPECT_EQ(unchecked_print(DLOG_ERROR, "TAG", nullptr), -22);
  EXPECT_EQ(dlog_print(DLOG_UNKNOWN, "TAG", "text"), -22);
  EXPECT_EQ(dlog_print(DLOG_SILENT, "TAG", "text"), -22);
  EXPECT_EQ(dlog_print(static_cast<log_priority>(15), "TAG", "text"), -22);
  EXPECT_THAT(Lines(), IsEmpty());
}

TEST_F(ARecord, TakesEveryConversionAndLeavesErrnoAlone) {
  ToFile("verbose");
  errno = ENOENT;
  unchecked_print(DLOG_ERROR, "TAG", "%m|%5d|%-3s|%c|%x|%.2f|%zu|%lld|%%|%*d", 42, "a", 'z', 255u,
                  1.5, size_t{7}, -5LL, 3, 9);
  EXPECT_EQ(errno, ENOENT);
  errno = 0;
  EXPECT_THAT(Messages(), ElementsAre("No such file or directory|   42|a  |z|ff|1.50|7|-5|%|  9"));
}

TEST_F(ARecord, HasNoBlankLineForANewlineAtItsEnd) {
  ToFile("verbose");
  dlog_print(DLOG_ERROR, "TAG", "plain\n");
  dlog_print(DLOG_ERROR, "TAG", "two\n\n");
  dlog_print(DLOG_ERROR, "TAG", "\033[31mcoloured\n\033[0m");
  dlog_print(DLOG_ERROR, "TAG", "\n");
  EXPECT_THAT(Messages(), ElementsAre("plain", "two", "coloured", ""));
}

TEST_F(ARecord, StaysOneLineWhateverItsTextHolds) {
  ToFile("verbose");
  dlog_print(DLOG_ERROR, "TAG\nTAG", "%s", "one\ntwo\r\n\x1b]0;title\x07\x7f\tend");
  EXPECT_THAT(Messages(), ElementsAre("one\\ntwo\\x0d\\n\\x1b]0;title\\x07\\x7f\tend"));
  EXPECT_THAT(Lines()[0], HasSubstr(" TAG\\nTAG "));
}

TEST_F(ARecord, MakesEveryControlCharacterVisibleWhereverItStands) {
  ToFile("verbose");
  std::vector<std::string> expected;
  for (size_t place = 0; place < 20; ++place) {
    for (int c = 1; c < 256; ++c) {
      if (c == '\n') continue;
      std::string text = "0123456789abcdefghij\xc3\xa4";
      text[place] = static_cast<char>(c);
      dlog_print(DLOG_INFO, "TAG", "%s", text.c_str());
      char escaped[8];
      snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(c));
      // A single byte above ASCII is no character.
      if ((c < ' ' && c != '\t') || c >= 0x7f) text.replace(place, 1, escaped);
      expected.push_back(text);
    }
  }
  dlog_print(DLOG_ERROR, "TAG", "end");
  expected.push_back("end");
  EXPECT_EQ(Messages(), expected);
}

TEST_F(ARecord, ShowsTheCharactersThatSteerATerminalReorderItsLineOrHideInIt) {
  ToFile("verbose");
  const struct {
    const char* text;
    const char* written;
  } rows[] = {
      {"\xc2\x9b"
       "2J",
       "\\xc2\\x9b"
       "2J"},  // U+009B begins a sequence as ESC [ does
      {"\xc2\x80", "\\xc2\\x80"},
      {"\xc2\x9f", "\\xc2\\x9f"},
      {"\xd8\x9c", "\\xd8\\x9c"},           // U+061C
      {"\xe2\x80\x8e", "\\xe2\\x80\\x8e"},  // U+200E
      {"\xe2\x80\x8f", "\\xe2\\x80\\x8f"},  // U+200F
      {"\xe2\x80\xa8", "\\xe2\\x80\\xa8"},  // U+2028
      {"\xe2\x80\xaa", "\\xe2\\x80\\xaa"},  // U+202A
      {"\xe2\x80\xae", "\\xe2\\x80\\xae"},  // U+202E
      {"\xe2\x81\xa6", "\\xe2\\x81\\xa6"},  // U+2066
      {"\xe2\x81\xa9", "\\xe2\\x81\\xa9"},  // U+2069
      {"\xef\xbb\xbf", "\\xef\\xbb\\xbf"},  // U+FEFF
      {"\xef\xbf\xb9", "\\xef\\xbf\\xb9"},  // U+FFF9
      {"\xc2\xad", "\\xc2\\xad"},           // U+00AD: this and the next ones are not visible
      {"\xcd\x8f", "\\xcd\\x8f"},           // U+034F
      {"\xe1\x85\x9f", "\\xe1\\x85\\x9f"},  // U+115F
      {"\xe1\xa0\x8e", "\\xe1\\xa0\\x8e"},  // U+180E
      {"\xe2\x80\x8b", "\\xe2\\x80\\x8b"},  // U+200B
      {"\xe2\x80\x8d", "\\xe2\\x80\\x8d"},  // U+200D
      {"\xe2\x81\xa0", "\\xe2\\x81\\xa0"},  // U+2060
      {"\xe2\x81\xaf", "\\xe2\\x81\\xaf"},  // U+206F
      {"\xe3\x85\xa4", "\\xe3\\x85\\xa4"},  // U+3164
      {"\xef\xb8\x8f", "\\xef\\xb8\\x8f"},  // U+FE0F
      {"\xef\xbe\xa0", "\\xef\\xbe\\xa0"},  // U+FFA0
      {"\xf3\xa0\x81\x81", "\\xf3\\xa0\\x81\\x81"},  // U+E0041
      {"\xc0\xaf", "\\xc0\\xaf"},                    // longer than it may be
      {"\xe0\x80\xaf", "\\xe0\\x80\\xaf"},
      {"\xf0\x80\x80\xaf", "\\xf0\\x80\\x80\\xaf"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // lone surrogate
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond the last character
      {"\xe2\x82", "\\xe2\\x82"},                    // ends early
  };
  for (const auto& row : rows) {
    std::filesystem::remove(path_);
    EXPECT_EQ(InChild([&] { dlog_print(DLOG_ERROR, row.text, "a%sz", row.text); }, false), 0);
    EXPECT_THAT(Messages(), ElementsAre(std::string("a") + row.written + "z"));
    EXPECT_THAT(Lines().at(0), HasSubstr(std::string(" ") + row.written + " "));
  }
}

TEST_F(ARecord, KeepsTheCharactersOfAnyLanguage) {
  ToFile("verbose");
  const std::string text =
      "\xc2\xa0\xc3\xa4\xd7\xa9\xd8\xb9\xe0\xa4\x95\xe2\x80\x94\xe2\x82\xac\xe4\xb8\xad"
      "\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbd\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf";
  dlog_print(DLOG_ERROR, "TAG", "%s", text.c_str());
  EXPECT_THAT(Messages(), ElementsAre(text));
}

TEST_F(ARecord, LosesItsColourInAFile) {
  ToFile("verbose");
  dlog_print(DLOG_ERROR, "TAG", "\033[1;31mred\033[0m");
  dlog_print(DLOG_ERROR, "TAG", "\033[1;31mred\n\033[0;m\n");
  EXPECT_THAT(Messages(), ElementsAre("red", "red"));
}

TEST_F(ARecord, ShowsColourThatIsNotItsFormats) {
  ToFile("verbose");
  const char* argument = "\033[8mhidden\033[0m";
  dlog_print(DLOG_ERROR, "TAG", "%s", argument);
  dlog_print(DLOG_ERROR, "TAG", "\033[31mred %s red\033[0m", argument);
  dlog_print(DLOG_ERROR, "TAG", "red \033[0m plain \033[");
  EXPECT_THAT(Messages(), ElementsAre("\\x1b[8mhidden\\x1b[0m", "red \\x1b[8mhidden\\x1b[0m red",
                                      "red \\x1b[0m plain \\x1b["));
}

TEST_F(ARecord, IsWholeUpTo64KiBAndCutBeyondWithAMark) {
  ToFile("verbose");
  const std::string text(200 * 1024, 'x');
  for (const int size : {1022, 1023, 1024, 1025, 65535, 65536}) {
    dlog_print(DLOG_ERROR, "TAG", "%.*s", size, text.c_str());
  }
  dlog_print(DLOG_ERROR, "TAG", "%.*s", 65537, text.c_str());
  dlog_print(DLOG_ERROR, "TAG", "%s", text.c_str());
  const std::vector<std::string> messages = Messages();
  ASSERT_THAT(messages, SizeIs(8));
  const size_t sizes[] = {1022, 1023, 1024, 1025, 65535, 65536};
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(messages[i], text.substr(0, sizes[i]));
  for (size_t i = 6; i < 8; ++i) EXPECT_EQ(messages[i], text.substr(0, 65536) + " [cut]");
}

#ifndef SANITIZED
TEST_F(ARecord, FailsWhereThereIsNoMemoryForItsLength) {
  ToFile("info");
  const std::string text(60000, 'x');
  sweep::Failures failures;
  sweep::Arm(1, 1, &failures);
  const int result = dlog_print(DLOG_ERROR, "TAG", "%s", text.c_str());
  sweep::Disarm();
  EXPECT_EQ(result, -12);
  EXPECT_EQ(dlog_print(DLOG_ERROR, "TAG", "%s", text.c_str()), 0);
  EXPECT_THAT(Messages(), ElementsAre(text));
}
#endif

TEST_F(ALogFile, GathersRecordsUntilAnError) {
  ToFile("info");
  dlog_print(DLOG_INFO, "TAG", "one");
  EXPECT_THAT(Messages(), IsEmpty());
  dlog_print(DLOG_INFO, "TAG", "two");
  dlog_print(DLOG_ERROR, "TAG", "three");
  EXPECT_THAT(Messages(), ElementsAre("one", "two", "three"));
}

TEST_F(ALogFile, IsWrittenWhenMuchHasGathered) {
  ToFile("info");
  const std::string text(1000, 'x');
  for (int i = 0; i < 100; ++i) dlog_print(DLOG_INFO, "TAG", "%s", text.c_str());
  EXPECT_GE(Messages().size(), 50u);
  dlog_print(DLOG_ERROR, "TAG", "last");
  EXPECT_THAT(Messages(), SizeIs(101));
}

TEST_F(ALogFile, IsWrittenByALaterRecordOnceTheFirstIsOld) {
  ToFile("info");
  dlog_print(DLOG_INFO, "TAG", "first");
  for (int records = 0; Messages().empty(); ++records) {
    ASSERT_LT(records, 10000);
    usleep(1000);
    dlog_print(DLOG_INFO, "TAG", "later");
  }
  EXPECT_EQ(Messages().front(), "first");
}

TEST_F(ALogFile, IsWrittenWhenTheProcessExits) {
  ToFile("info");
  EXPECT_EQ(InChild([] { dlog_print(DLOG_INFO, "TAG", "last words"); }, false), 0);
  EXPECT_THAT(Messages(), ElementsAre("last words"));
}

TEST_F(ALogFile, HoldsWhatALibraryLogsThatEndsAfterTheLog) {
  ToFile("info");
  const auto work = [] {
    dlog_print(DLOG_INFO, "TAG", "last words");
    if (!dlopen(LAST_WORDS, RTLD_NOW)) _exit(1);
  };
  EXPECT_EQ(InChild(work, false), 0);
  EXPECT_THAT(Messages(), ElementsAre("last words", "very last words"));
}

TEST_F(ALogFile, HoldsNoRecordTwiceAfterAFork) {
  ToFile("info");
  dlog_print(DLOG_INFO, "TAG", "parent");
  for (const bool at_once : {true, false}) {
    EXPECT_EQ(InChild([] { dlog_print(DLOG_ERROR, "TAG", "child"); }, at_once), 0);
  }
  EXPECT_THAT(Messages(), ElementsAre("child", "child"));
  dlog_print(DLOG_ERROR, "TAG", "end");
  EXPECT_THAT(Messages(), ElementsAre("child", "child", "parent", "end"));
}

TEST_F(ALogFile, NamesTheProcessThatWroteARecord) {
  ToFile("info");
  dlog_print(DLOG_ERROR, "TAG", "parent");
  ASSERT_EQ(InChild([] { dlog_print(DLOG_ERROR, "TAG", "child"); }, false), 0);
  const std::string own = " " + std::to_string(getpid()) + ": ";
  EXPECT_THAT(Lines().at(0), HasSubstr(own));
  EXPECT_THAT(Lines().at(1), Not(HasSubstr(own)));
}

TEST_F(ALogFile, IsAppendedToAndNotInherited) {
  ToFile("info");
  std::ofstream(path_) << "T W X 1: before\n";
  dlog_print(DLOG_ERROR, "TAG", "after");
  EXPECT_THAT(Messages(), ElementsAre("before", "after"));
  bool found = false;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) != path_) continue;
    found = true;
    EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
  }
  EXPECT_TRUE(found);
}

TEST_F(ALogFile, KeepsTheRecordsOfManyThreadsWholeAndInTheirOrder) {
  ToFile("info");
  constexpr int kThreads = 4;
  constexpr int kRecords = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kRecords; ++i) {
        dlog_print(i % 100 ? DLOG_INFO : DLOG_ERROR, "TAG", "thread %d record %d end", t, i);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  dlog_print(DLOG_ERROR, "TAG", "last");
  int next[kThreads] = {};
  for (const std::string& message : Messages()) {
    int t = 0;
    int i = 0;
    if (message == "last") continue;
    ASSERT_EQ(sscanf(message.c_str(), "thread %d record %d end", &t, &i), 2) << message;
    EXPECT_THAT(message, EndsWith(" end"));
    ASSERT_EQ(i, next[t]++);
  }
  for (const int count : next) EXPECT_EQ(count, kRecords);
}

// The locks of AddressSanitizer's allocator may stay locked in a forked child.
#ifndef ADDRESS_SANITIZED
TEST_F(ALogFile, MayBeWrittenWhileOtherThreadsFork) {
  ToFile("info");
  std::thread logger([] {
    for (int i = 0; i < 20000; ++i) dlog_print(DLOG_INFO, "TAG", "record");
  });
  const auto log_and_die = [] {
    dlog_print(DLOG_ERROR, "TAG", "child");
    // Killed, so that no check at exit misses the other thread.
    kill(getpid(), SIGKILL);
  };
  for (int i = 0; i < 20; ++i) EXPECT_EQ(InChild(log_and_die, true), SIGKILL);
  logger.join();
  dlog_print(DLOG_ERROR, "TAG", "last");
  EXPECT_THAT(Messages(), SizeIs(20000 + 20 + 1));
}
#endif

TEST_F(ALogFile, ThatCannotBeOpenedIsStandardError) {
  setenv("VELMORA_LOG_FILE", (top_ / "missing" / "log").c_str(), 1);
  testing::internal::CaptureStderr();
  EXPECT_GE(dlog_print(DLOG_ERROR, "TAG", "text"), 0);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith(": text\n"));
}

TEST_F(ALogFile, ThatIsAPipeIsStandardErrorWhetherSomebodyReadsItOrNot) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  const auto log_on_output = [this] {
    setenv("VELMORA_LOG_FILE", path_.c_str(), 1);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    if (dlog_print(DLOG_ERROR, "TAG", "text") < 0) _exit(1);
  };
  testing::internal::CaptureStdout();
  EXPECT_EQ(InChild(log_on_output, true), 0);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), EndsWith(": text\n"));

  const int reader = open(path_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(InChild(log_on_output, true), 0);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), EndsWith(": text\n"));
  char byte;
  EXPECT_EQ(read(reader, &byte, 1), 0);
  close(reader);
}

TEST_F(ALogFile, IsNotTouchedWhereNothingIsLogged) {
  ToFile("silent");
  EXPECT_EQ(dlog_print(DLOG_FATAL, "TAG", "text"), 0);
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(ALogFile, MayBeACharacterDevice) {
  setenv("VELMORA_LOG_FILE", "/dev/null", 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(dlog_print(DLOG_ERROR, "TAG", "text"), 0);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), IsEmpty());
}

TEST_F(ALogFile, ThatTakesNoMoreFailsTheRecord) {
  setenv("VELMORA_LOG_FILE", "/dev/full", 1);
  EXPECT_EQ(dlog_print(DLOG_ERROR, "TAG", "text"), -5);
  EXPECT_EQ(dlog_print(DLOG_WARN, "TAG", "gathered"), 0);
}

TEST_F(AStandardErrorLog, GetsEachRecordInOneWrite) {
  unsetenv("VELMORA_LOG_FILE");
  // A packet socket shows what came in one write.
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0);
  const std::string text(5000, 'x');
  const auto log_two = [&] {
    dup2(ends[1], STDERR_FILENO);
    dlog_print(DLOG_WARN, "TAG", "first");
    dlog_print(DLOG_WARN, "TAG", "%s", text.c_str());
  };
  EXPECT_EQ(InChild(log_two, true), 0);
  char packet[8192];
  ssize_t size = read(ends[0], packet, sizeof packet);
  ASSERT_GT(size, 0);
  EXPECT_THAT(std::string(packet, static_cast<size_t>(size)), EndsWith(": first\n"));
  size = read(ends[0], packet, sizeof packet);
  ASSERT_GT(size, 5000);
  EXPECT_THAT(std::string(packet, static_cast<size_t>(size)), EndsWith(text + "\n"));
  close(ends[0]);
  close(ends[1]);
}

// What a child whose standard error is a terminal writes there.
std::string OnATerminal(const std::function<void()>& log) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_GE(master, 0);
  EXPECT_EQ(grantpt(master), 0);
  EXPECT_EQ(unlockpt(master), 0);
  char name[64];
  EXPECT_EQ(ptsname_r(master, name, sizeof name), 0);
  const int terminal = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_GE(terminal, 0);
  const auto log_there = [terminal, &log] {
    dup2(terminal, STDERR_FILENO);
    log();
  };
  EXPECT_EQ(InChild(log_there, true), 0);
  char text[1024];
  const ssize_t size = read(master, text, sizeof text);
  close(terminal);
  close(master);
  return std::string(text, size > 0 ? static_cast<size_t>(size) : 0);
}

void LogRed() { dlog_print(DLOG_ERROR, "TAG", "\033[31mred\n\033[0m"); }

TEST_F(AStandardErrorLog, KeepsColourOnATerminalUnlessToldNotTo) {
  if (access("/dev/ptmx", R_OK | W_OK) != 0) GTEST_SKIP() << "no pseudo terminals here";
  unsetenv("VELMORA_LOG_FILE");
  EXPECT_THAT(OnATerminal(LogRed), HasSubstr(": \033[31mred\033[0m\r\n"));
  setenv("NO_COLOR", "", 1);
  EXPECT_THAT(OnATerminal(LogRed), HasSubstr(": \033[31mred\033[0m\r\n"));
  setenv("NO_COLOR", "1", 1);
  EXPECT_THAT(OnATerminal(LogRed), HasSubstr(": red\r\n"));
}

TEST_F(AStandardErrorLog, HasNoColourOnATerminalThatIsDumbOrDoesNotSayWhatItIs) {
  if (access("/dev/ptmx", R_OK | W_OK) != 0) GTEST_SKIP() << "no pseudo terminals here";
  unsetenv("VELMORA_LOG_FILE");
  for (const char* term : {"dumb", ""}) {
    setenv("TERM", term, 1);
    EXPECT_THAT(OnATerminal(LogRed), HasSubstr(": red\r\n")) << term;
  }
  unsetenv("TERM");
  EXPECT_THAT(OnATerminal(LogRed), HasSubstr(": red\r\n"));
}

TEST_F(AStandardErrorLog, GivesATerminalNoSequenceOfAnArgumentAndItsOwnColourBack) {
  if (access("/dev/ptmx", R_OK | W_OK) != 0) GTEST_SKIP() << "no pseudo terminals here";
  unsetenv("VELMORA_LOG_FILE");
  EXPECT_THAT(
      OnATerminal([] { dlog_print(DLOG_ERROR, "TAG", "\033[31m%s\033[0m", "a\033[8mb\033[0m"); }),
      HasSubstr(": \033[31ma\\x1b[8mb\\x1b[0m\033[0m\r\n"));
  EXPECT_THAT(OnATerminal([] { dlog_print(DLOG_ERROR, "TAG", "%s", "\033[31mred\033[0m"); }),
              HasSubstr(": \\x1b[31mred\\x1b[0m\r\n"));
  EXPECT_THAT(OnATerminal([] { dlog_print(DLOG_ERROR, "TAG", "\033[31mred"); }),
              HasSubstr(": \033[31mred\033[0m\r\n"));
}

TEST_F(ALogFile, TellsHowManyRecordsItDidNotTake) {
  ToFile("verbose");
  const auto log_too_much = [] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit small = {300, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &small);
    // Gathered, and written together with the first record that matters.
    for (int i = 0; i < 9; ++i)
      dlog_print(DLOG_INFO, "TAG", "%s", "some forty characters, to make a long line");
    if (dlog_print(DLOG_ERROR, "TAG", "too much") != -5) _exit(1);
    const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &none);
    if (dlog_print(DLOG_ERROR, "TAG", "last") != 0) _exit(2);
  };
  EXPECT_EQ(InChild(log_too_much, true), 0);
  const std::vector<std::string> lines = Lines();
  size_t whole = 0;
  while (whole < lines.size() && lines[whole].find("a long line") != std::string::npos) ++whole;
  // One line was cut.
  ASSERT_EQ(lines.size(), whole + 3);
  EXPECT_THAT(lines[whole + 1], EndsWith(": Lost " + std::to_string(10 - whole) +
                                         " records that could not be written"));
  EXPECT_THAT(lines[whole + 2], testing::MatchesRegex("[0-9-]+T[0-9:.]+Z E TAG [0-9]+: last"));
}

// Standard error of a child, which nobody reads but the child itself.
class AStandardErrorThatNobodyReads : public Log {
 protected:
  AStandardErrorThatNobodyReads() { unsetenv("VELMORA_LOG_FILE"); }

  enum class Kind { kPipe, kSocket, kTerminal };
  static bool Open(Kind kind, int* reader, int* writer) {
    int ends[2];
    if (kind == Kind::kTerminal) {
      ends[0] = posix_openpt(O_RDWR | O_NOCTTY);
      char name[64];
      if (ends[0] < 0 || grantpt(ends[0]) != 0 || unlockpt(ends[0]) != 0 ||
          ptsname_r(ends[0], name, sizeof name) != 0) {
        return false;
      }
      ends[1] = open(name, O_RDWR | O_NOCTTY);
    } else if (kind == Kind::kSocket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0
                                     : pipe(ends) != 0) {
      return false;
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    *reader = ends[0];
    *writer = ends[1];
    return true;
  }
  static std::string ReadAll(int reader) {
    std::string text;
    char chunk[4096];
    for (ssize_t size; (size = read(reader, chunk, sizeof chunk)) > 0;) {
      text.append(chunk, static_cast<size_t>(size));
    }
    return text;
  }
  // Logs until a record is lost; returns how many were written.
  static int FillWithRecords() {
    int written = 0;
    while (dlog_print(DLOG_ERROR, "TAG", "record %d", written) >= 0) ++written;
    return written;
  }
  static void ExpectLossToBeCounted(Kind kind, const std::function<void()>& prepare) {
    const auto log = [kind, &prepare] {
      alarm(100);
      int reader, writer;
      if (!Open(kind, &reader, &writer)) _exit(2);
      dup2(writer, STDERR_FILENO);
      prepare();
      const int written = FillWithRecords();
      constexpr int kMore = 2000;
      for (int i = 0; i < kMore; ++i) {
        if (dlog_print(DLOG_ERROR, "TAG", "lost %d", i) != -5) _exit(3);
      }
      const std::string before = ReadAll(reader);
      if (dlog_print(DLOG_ERROR, "TAG", "last") < 0) _exit(4);
      const std::string after = ReadAll(reader);
      const std::string notice = ": Lost " + std::to_string(kMore + 1) + " records";
      const bool whole =
          before.find("record " + std::to_string(written - 1)) != std::string::npos &&
          before.find("lost") == std::string::npos;
      const size_t said = after.find(notice);
      if (!whole || said == std::string::npos || after.find(": last") < said) _exit(5);
      const size_t line = after.rfind('\n', said) + 1;  // 0 where it is the first
      if (after[line] < '0' || after[line] > '9') _exit(8);
      if (dlog_print(DLOG_ERROR, "TAG", "later") < 0) _exit(6);
      _exit(ReadAll(reader).find("Lost") == std::string::npos ? 0 : 7);
    };
    EXPECT_EQ(InChild(log, true), 0);
  }
};

TEST_F(AStandardErrorThatNobodyReads, LosesAndCountsWhatAPipeDoesNotTake) {
  ExpectLossToBeCounted(Kind::kPipe, [] {});
}

TEST_F(AStandardErrorThatNobodyReads, LosesAndCountsWhatASocketDoesNotTake) {
  ExpectLossToBeCounted(Kind::kSocket, [] {});
}

TEST_F(AStandardErrorThatNobodyReads, LosesAndCountsWhatATerminalDoesNotTake) {
  if (access("/dev/ptmx", R_OK | W_OK) != 0) GTEST_SKIP() << "no pseudo terminals here";
  ExpectLossToBeCounted(Kind::kTerminal, [] {});
}

TEST_F(AStandardErrorThatNobodyReads, IsLeftAsBlockingAsItWas) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const auto log = [&ends] {
    dup2(ends[1], STDERR_FILENO);
    _exit(dlog_print(DLOG_ERROR, "TAG", "text") < 0);
  };
  EXPECT_EQ(InChild(log, true), 0);
  EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(AStandardErrorThatNobodyReads, GetsTheNextRecordOnALineOfItsOwnAfterOneThatWasCut) {
  const auto log = [] {
    alarm(100);
    int reader, writer;
    if (!Open(Kind::kPipe, &reader, &writer)) _exit(2);
    dup2(writer, STDERR_FILENO);
    // More than a pipe holds, and less than a message may be.
    fcntl(writer, F_SETPIPE_SZ, 4096);
    const std::string text(30000, 'x');
    if (dlog_print(DLOG_ERROR, "TAG", "%s", text.c_str()) != -5) _exit(3);
    const std::string cut = ReadAll(reader);
    if (cut.empty() || cut.back() != 'x') _exit(4);
    if (dlog_print(DLOG_ERROR, "TAG", "last") < 0) _exit(5);
    const std::string after = ReadAll(reader);
    const bool right = after[0] == '\n' && after.find(": Lost 1 record ") != std::string::npos;
    _exit(right ? 0 : 6);
  };
  EXPECT_EQ(InChild(log, true), 0);
}

TEST_F(AStandardErrorLog, FailsTheRecordWhenItIsClosed) {
  unsetenv("VELMORA_LOG_FILE");
  const auto log_closed = [] {
    close(STDERR_FILENO);
    _exit(dlog_print(DLOG_ERROR, "TAG", "text") == -5 ? 0 : 1);
  };
  EXPECT_EQ(InChild(log_closed, true), 0);
}

// Sanitizers make their own system calls.
#ifndef SANITIZED

// Decides what becomes of one system call of the calling process, and of all others, from here on.
void Filter(unsigned system_call, unsigned if_so, unsigned if_not) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, system_call, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, if_so),
      BPF_STMT(BPF_RET | BPF_K, if_not),
  };
  sock_fprog program = {sizeof filter / sizeof *filter, filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    _exit(8);
  }
}

// The process is killed at any system call but its exit.
void ForbidSystemCalls() { Filter(SYS_exit_group, SECCOMP_RET_ALLOW, SECCOMP_RET_KILL_PROCESS); }

// As if another user had made the pipe.
void ForbidOpening() { Filter(SYS_openat, SECCOMP_RET_ERRNO | EACCES, SECCOMP_RET_ALLOW); }

TEST_F(ALogFile, MakesNoSystemCallForARecordThatIsFilteredOrGathered) {
  ToFile("info");
  const auto log_quietly = [] {
    dlog_print(DLOG_ERROR, "TAG", "opened");
    ForbidSystemCalls();
    for (int i = 0; i < 100000; ++i) dlog_print(DLOG_DEBUG, "TAG", "filtered %d", i);
    for (int i = 0; i < 100; ++i) dlog_print(DLOG_INFO, "TAG", "gathered %d", i);
    _exit(0);
  };
  // A child that a busy machine delays for 200 ms writes what is old; not every child is.
  int status = -1;
  for (int attempt = 0; attempt < 10 && status != 0; ++attempt) {
    status = InChild(log_quietly, true);
  }
  EXPECT_EQ(status, 0);
}

TEST_F(AStandardErrorThatNobodyReads, LosesAndCountsWhatAPipeDoesNotTakeThatCannotBeOpenedAnew) {
  ExpectLossToBeCounted(Kind::kPipe, ForbidOpening);
}

#endif  // SANITIZED

}  // namespace
