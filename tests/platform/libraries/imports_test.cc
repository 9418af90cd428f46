// SPDX-License-Identifier: Apache-2.0
// What the platform's libraries must not ask other libraries for.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/readelf.h"

namespace {

std::vector<std::string> Libraries() {
  std::istringstream in(PLATFORM_LIBRARIES);
  std::vector<std::string> files;
  for (std::string file; std::getline(in, file, ':');) files.push_back(file);
  return files;
}

// Names without their versions.
std::set<std::string> ImportsOf(const std::string& file) {
  std::istringstream in(
      binutils::OutputOf("LC_ALL=C " SVCMGR_READELF " --dyn-syms -W " + binutils::Quote(file)));
  std::set<std::string> imports;
  for (std::string line; std::getline(in, line);) {
    const size_t undefined = line.find(" UND ");
    if (undefined == std::string::npos) continue;
    const std::string name = line.substr(undefined + 5);
    imports.insert(name.substr(0, name.find_first_of("@ ")));
  }
  return imports;
}

// The name of the library's file, as far as a test's name may hold it.
std::string NameOf(const testing::TestParamInfo<std::string>& library) {
  std::string name = library.param.substr(library.param.rfind("/lib") + 4);
  name.resize(name.find('.'));
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

class APlatformLibrary : public testing::TestWithParam<std::string> {
 protected:
  void ExpectNone(const std::vector<std::string>& names) const {
    const std::set<std::string> imports = ImportsOf(GetParam());
    // Every shared library has this one: the list is not just empty.
    ASSERT_EQ(imports.count("__cxa_finalize"), 1u);
    for (const std::string& name : names) EXPECT_EQ(imports.count(name), 0u) << name;
  }
};
INSTANTIATE_TEST_SUITE_P(Of, APlatformLibrary, testing::ValuesIn(Libraries()), NameOf);

// But by secure_getenv: in a program that runs with more rights than its user has, that user
// controls the environment. GLib's folders come from the environment, too.
TEST_P(APlatformLibrary, ReadsTheEnvironmentByNothingThatTrustsItInASetUserIdProgram) {
  ExpectNone({"getenv", "environ", "_environ", "__environ", "g_getenv", "g_environ_getenv",
              "g_get_environ", "g_get_home_dir", "g_get_tmp_dir", "g_get_user_cache_dir",
              "g_get_user_config_dir", "g_get_user_data_dir", "g_get_user_runtime_dir",
              "g_get_user_state_dir"});
}

// Registering a destructor takes memory, and so do thread-local objects of a library that is loaded
// late; without it the C library aborts the process.
TEST_P(APlatformLibrary, HasNoThreadLocalObjectThatTakesMemoryInANewThread) {
  ExpectNone(
      {"__cxa_thread_atexit", "__cxa_thread_atexit_impl", "__tls_get_addr", "___tls_get_addr"});
}

}  // namespace
