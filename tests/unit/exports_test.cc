// SPDX-License-Identifier: Apache-2.0
// The shared library as the loader sees it, compared with its header and its list of exports.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/command.h"

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using ::testing::Not;
using ::testing::SizeIs;

using Names = std::set<std::string>;

std::string ReadFile(const char* path) {
  std::ifstream in(path);
  EXPECT_TRUE(in.is_open()) << path;
  return {std::istreambuf_iterator<char>(in), {}};
}

/** What a tool prints about the library. */
std::string OutputOf(const std::string& tool_and_options) {
  const std::string command = tool_and_options + " '" SVCMGR_LIBRARY "'";
  Ran ran = RunCommand(command);
  EXPECT_EQ(ran.status, 0) << command;
  return std::move(ran.output);
}

/** The first group of every match. */
std::vector<std::string> AllMatches(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  std::vector<std::string> matches;
  for (std::sregex_iterator it(text.begin(), text.end(), regex), end; it != end; ++it) {
    matches.push_back((*it)[1]);
  }
  return matches;
}

Names AsSet(const std::vector<std::string>& names) { return {names.begin(), names.end()}; }

std::string WithoutComments(const std::string& text) {
  std::string code;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t comment = text.find("/*", at);
    code += text.substr(at, comment - at) + ' ';
    const std::size_t end = comment == std::string::npos ? comment : text.find("*/", comment);
    at = end == std::string::npos ? text.size() : end + 2;
  }
  return code;
}

/** The functions that the public header declares. */
Names DeclaredFunctions() {
  return AsSet(
      AllMatches(WithoutComments(ReadFile(SVCMGR_HEADER)), "(velmora_svcmgr_\\w+)\\s*\\("));
}

/** The text between two words of the list of exports. */
std::string ExportsBetween(const std::string& begin, const std::string& end) {
  const std::string list = ReadFile(SVCMGR_EXPORTS);
  const std::size_t from = list.find(begin);
  const std::size_t to = list.find(end, from);
  EXPECT_NE(from, std::string::npos) << begin;
  EXPECT_NE(to, std::string::npos) << end;
  return list.substr(from + begin.size(), to - from - begin.size());
}

/** The dynamic symbols: their types by their names. */
std::map<std::string, std::string> DynamicSymbols() {
  std::map<std::string, std::string> symbols;
  const std::regex line("(?:^|\\n)[0-9a-f ]+ ([A-Za-z]) ([^\\n]+)");
  const std::string output = OutputOf(SVCMGR_NM " -D");
  for (std::sregex_iterator it(output.begin(), output.end(), line), end; it != end; ++it) {
    symbols[(*it)[2]] = (*it)[1];
  }
  return symbols;
}

std::vector<std::string> Dynamic(const std::string& pattern) {
  static const std::string section = OutputOf(SVCMGR_READELF " -d -W");
  return AllMatches(section, pattern);
}

TEST(TheListOfExports, NamesWhatTheHeaderDeclares) {
  const Names declared = DeclaredFunctions();
  EXPECT_THAT(declared, Contains("velmora_svcmgr_connect"));
  EXPECT_EQ(AsSet(AllMatches(ExportsBetween("global:", "local:"), "([^\\s;]+)\\s*;")), declared);
}

TEST(TheListOfExports, NamesEachFunctionOnce) {
  EXPECT_THAT(AllMatches(ExportsBetween("global:", "local:"), "([^\\s;]+)\\s*;"),
              SizeIs(DeclaredFunctions().size()));
}

TEST(TheListOfExports, HidesAllElse) {
  EXPECT_THAT(AllMatches(ExportsBetween("local:", "}"), "([^\\s;]+)\\s*;"),
              ::testing::ElementsAre("*"));
}

TEST(TheSharedLibrary, ExportsWhatTheHeaderDeclaresAndNothingElse) {
  Names exported;
  for (const auto& [name, type] : DynamicSymbols()) {
    // Needed, not defined; the version itself.
    if (type == "U" || type == "w" || type == "v" || type == "A") continue;
    EXPECT_EQ(type, "T") << name;
    exported.insert(name.substr(0, name.find('@')));
  }
  EXPECT_EQ(exported, DeclaredFunctions());
}

TEST(TheSharedLibrary, ExportsEachFunctionWithItsVersion) {
  for (const auto& [name, type] : DynamicSymbols()) {
    if (type == "T") {
      EXPECT_THAT(name, ::testing::EndsWith("@@VELMORA_SVCMGR_2.3"));
    }
  }
}

TEST(TheSharedLibrary, LeavesThePlatformsFunctionsToThePlatform) {
  const auto symbols = DynamicSymbols();
  for (const char* name : {"app_get_id",
                           "app_get_version",
                           "app_info_create",
                           "app_info_foreach_metadata",
                           "dlog_print",
                           "package_info_create",
                           "package_info_destroy",
                           "package_info_get_package",
                           "package_info_get_version",
                           "package_manager_foreach_package_info",
                           "rpc_port_parcel_create",
                           "rpc_port_parcel_create_from_port",
                           "rpc_port_parcel_destroy",
                           "rpc_port_parcel_read_array_count",
                           "rpc_port_parcel_read_bool",
                           "rpc_port_parcel_read_int32",
                           "rpc_port_parcel_read_string",
                           "rpc_port_parcel_send",
                           "rpc_port_parcel_write_bool",
                           "rpc_port_parcel_write_int32",
                           "rpc_port_parcel_write_string",
                           "rpc_port_proxy_add_connected_event_cb",
                           "rpc_port_proxy_add_disconnected_event_cb",
                           "rpc_port_proxy_add_received_event_cb",
                           "rpc_port_proxy_add_rejected_event_cb",
                           "rpc_port_proxy_connect",
                           "rpc_port_proxy_create",
                           "rpc_port_proxy_destroy",
                           "rpc_port_proxy_get_port"}) {
    EXPECT_THAT(symbols, Contains(::testing::Pair(name, "U")));
  }
}

TEST(TheSharedLibrary, AsksForNothingOfTheDesktop) {
  for (const auto& [name, type] : DynamicSymbols()) {
    EXPECT_FALSE(std::regex_search(name, std::regex("^(g_|sd_|glib_|pthread_create|timer_)")))
        << name;
  }
}

TEST(TheSharedLibrary, HasItsSoname) {
  EXPECT_THAT(Dynamic("\\(SONAME\\)[^\\n]*\\[([^\\]]+)\\]"),
              ::testing::ElementsAre("libvelmora-svcmgr.so.2"));
}

TEST(TheSharedLibrary, LiesInAFileOfItsVersion) {
  const std::filesystem::path file(SVCMGR_LIBRARY);
  EXPECT_EQ(file.filename(), "libvelmora-svcmgr.so.2.3.182");
  EXPECT_FALSE(std::filesystem::is_symlink(file));
  for (const char* name : {"libvelmora-svcmgr.so.2", "libvelmora-svcmgr.so"}) {
    EXPECT_EQ(std::filesystem::canonical(file.parent_path() / name),
              std::filesystem::canonical(file));
  }
}

TEST(TheSharedLibrary, NeedsThePlatformAndTheRuntimeAndNothingElse) {
  const Names allowed = {
      "librpc-port",
      "libbundle",
      "libdlog",
      "libcapi-appfw-event",
      "libcapi-appfw-app-common",
      "libcapi-appfw-app-manager",
      "libcapi-appfw-package-manager",
#if defined(_LIBCPP_VERSION)
      "libc++",
      "libc++abi",
      "libunwind",
#else
      "libstdc++",
#endif
      "libgcc_s",
      "libc",
      "libm",
      "ld-linux-x86-64",
      "ld-linux-aarch64",
      "ld-linux-armhf",
      "ld-linux",
#if SVCMGR_SANITIZED
      "libasan",
      "libubsan",
      "libtsan",
      "libclang_rt.asan-x86_64",
      "libclang_rt.asan-aarch64",
      "libclang_rt.asan-armhf",
      "libclang_rt.asan-i386",
#endif
  };
  const auto needed = Dynamic("\\(NEEDED\\)[^\\n]*\\[([^\\]]+)\\]");
  EXPECT_THAT(needed, Not(IsEmpty()));
  for (const std::string& name : needed) {
    EXPECT_THAT(allowed, Contains(name.substr(0, name.find(".so")))) << name;
  }
}

TEST(TheSharedLibrary, NeedsEachPlatformLibraryThatItCalls) {
  Names needed;
  for (const auto& name : Dynamic("\\(NEEDED\\)[^\\n]*\\[([^\\]]+)\\]")) {
    needed.insert(name.substr(0, name.find(".so")));
  }
  for (const char* library : {"librpc-port", "libdlog", "libcapi-appfw-app-common",
                              "libcapi-appfw-app-manager", "libcapi-appfw-package-manager"}) {
    EXPECT_THAT(needed, Contains(library));
  }
}

TEST(TheSharedLibrary, StaysLoadedUntilTheProcessEnds) {
  EXPECT_THAT(Dynamic("\\(FLAGS_1\\)([^\\n]*)"), Contains(HasSubstr("NODELETE")));
}

TEST(TheSharedLibrary, LetsAProgramsOwnDefinitionsGoFirst) {
  EXPECT_THAT(Dynamic("\\((SYMBOLIC)\\)"), IsEmpty());
  for (const std::string& flags : Dynamic("\\(FLAGS\\)([^\\n]*)")) {
    EXPECT_THAT(flags, Not(HasSubstr("SYMBOLIC")));
  }
}

TEST(TheSharedLibrary, NeedsNoWritableText) {
  EXPECT_THAT(Dynamic("\\((TEXTREL)\\)"), IsEmpty());
  for (const std::string& flags : Dynamic("\\(FLAGS\\)([^\\n]*)")) {
    EXPECT_THAT(flags, Not(HasSubstr("TEXTREL")));
  }
}

TEST(TheSharedLibrary, NeedsNoExecutableStack) {
  const auto flags = AllMatches(OutputOf(SVCMGR_READELF " -l -W"), "GNU_STACK([^\\n]*)");
  ASSERT_THAT(flags, SizeIs(1));
  EXPECT_THAT(flags[0], HasSubstr("RW "));
}

}  // namespace
