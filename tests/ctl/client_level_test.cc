// SPDX-License-Identifier: Apache-2.0
//
// The client API level of a folder, and which file makes it.
#include <gmock/gmock.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "../agent/temp_folder.h"
#include "../unit/elf_builder.h"
#include "process.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

std::string FileWith(unsigned level, unsigned patch = 182) {
  elf::Marker marker;
  marker.api_level = level;
  marker.version_patch = patch;
  elf::Bytes file = elf::FileWith(marker);
  file[6] = 1;  // the version of the format
  return file;
}

class ClientLevel : public testing::Test {
 protected:
  /** The library's answer, which is given for this folder alone. */
  std::string Script(const std::string& answer) const {
    const std::string root = std::filesystem::canonical(folder_.path()).string();
    return R"({"client": {"root": ")" + root + "\", " + answer + "}}";
  }
  const TempFolder folder_;
};

TEST_F(ClientLevel, IsTheNumberAlone) {
  folder_.Write("a", FileWith(9));
  const Ending ending = RunScripted(Script(R"("value": 9)"), {"client-level", folder_.path()});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output, "9\n");
  EXPECT_EQ(ending.errors, "");
}

TEST_F(ClientLevel, OfAFolderThatIsNotThereSaysWhatToGive) {
  EXPECT_EQ(
      RunScripted("{}", {"client-level", "/not/there"}).errors,
      "svcmgrctl: error: there is no folder '/not/there'; give the folder of an application\n");
}

TEST_F(ClientLevel, IsExplainedByTheFieldsThatAreWanted) {
  folder_.Write("new", FileWith(9, 183));
  folder_.Write("bad", FileWith(11).substr(0, 70));
  const Ending ending = RunScripted(
      Script(R"("value": 9)"),
      {"client-level", "-v", "--format", "{file} {api_level} {remark}", folder_.path()});
  EXPECT_EQ(ending.status, 0);
  EXPECT_THAT(ending.output, HasSubstr("new 9 decides\n"));
  EXPECT_THAT(ending.output, HasSubstr("bad  damaged: "));
}

TEST_F(ClientLevel, IsExplainedFileByFileOnRequest) {
  folder_.Write("new", FileWith(9, 183));
  folder_.Write("old", FileWith(9));
  folder_.Write("none", FileWith(0));
  folder_.Write("bad", FileWith(11).substr(0, 70));
  const Ending ending =
      RunScripted(Script(R"("value": 9)"), {"client-level", "--verbose", folder_.path()});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output.substr(0, 3), "9\n\n");
  EXPECT_THAT(ending.output, HasSubstr("\nLEVEL  VERSION  SECTION  FILE  REMARK\n"));
  EXPECT_THAT(ending.output, HasSubstr("\n9      2.3.183  -        new   decides\n"));
  EXPECT_THAT(ending.output, HasSubstr("\n9      2.3.182  -        old   older\n"));
  EXPECT_THAT(ending.output,
              HasSubstr("\n0      2.3.182  -        none  level 0 does not count\n"));
  EXPECT_THAT(ending.output, HasSubstr("\n-      -        -        bad   damaged: "));
}

TEST_F(ClientLevel, OfEqualFilesIsThatOfOne) {
  folder_.Write("a", FileWith(9));
  folder_.Write("b", FileWith(9));
  const std::string output =
      RunScripted(Script(R"("value": 9)"), {"client-level", "-v", folder_.path()}).output;
  EXPECT_LT(output.find("decides\n"), output.find("the same, but later\n"));
  EXPECT_NE(output.find("the same, but later\n"), std::string::npos);
}

TEST_F(ClientLevel, IsAJsonObjectOnRequest) {
  folder_.Write("a", FileWith(9));
  const Ending ending =
      RunScripted(Script(R"("value": 9)"), {"client-level", "--json", folder_.path()});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(json::parse(ending.output),
            json({{"client_api_level", 9},
                  {"folder", std::filesystem::canonical(folder_.path()).string()},
                  {"decided_by", "a"},
                  {"files",
                   {{{"file", "a"},
                     {"markers", {{{"api_level", 9}, {"version", "2.3.182"}, {"section", ""}}}},
                     {"problem", nullptr}}}}}));
}

TEST_F(ClientLevel, ThatNoFileExplainsIsTheLibrarysAllTheSame) {
  folder_.Write("a", FileWith(9));
  const Ending ending =
      RunScripted(Script(R"("value": 10)"), {"client-level", "-v", folder_.path()});
  EXPECT_EQ(ending.status, 0);
  EXPECT_EQ(ending.output.substr(0, 3), "10\n");
  EXPECT_THAT(ending.output, Not(HasSubstr("decides")));
  EXPECT_THAT(ending.errors, HasSubstr("no file explains the level"));
}

TEST_F(ClientLevel, OfAFolderWithoutMarkersIsNotFound) {
  const Ending ending =
      RunScripted(Script(R"("result": -1073741822)"), {"client-level", folder_.path()});
  EXPECT_EQ(ending.status, 4);
  EXPECT_EQ(ending.output, "");
  EXPECT_THAT(ending.errors, HasSubstr("has a marker; link the marker"));
}

TEST_F(ClientLevel, IsFailedWithThoseFilesThatSayWhy) {
  folder_.Write("none", FileWith(0));
  const Ending ending =
      RunScripted(Script(R"("result": -1073741822)"), {"client-level", "-v", folder_.path()});
  EXPECT_EQ(ending.status, 4);
  EXPECT_THAT(ending.output, HasSubstr("level 0 does not count"));
}

TEST_F(ClientLevel, IsFailedInJsonWithThoseFilesThatSayWhy) {
  folder_.Write("none", FileWith(0));
  const Ending ending =
      RunScripted(Script(R"("result": -1073741822)"), {"client-level", "--json", folder_.path()});
  EXPECT_EQ(ending.status, 4);
  const json level = json::parse(ending.output);
  EXPECT_EQ(level["client_api_level"], nullptr);
  EXPECT_EQ(level["files"][0]["file"], "none");
  EXPECT_EQ(json::parse(ending.errors)["error"]["exit"], 4);
}

TEST_F(ClientLevel, OfAFolderThatIsASymbolicLinkIsWhatTheApplicationWouldGet) {
  folder_.Write("a", FileWith(9));
  const TempFolder other;
  const std::string link = std::filesystem::canonical(other.path()).string() + "/link";
  std::filesystem::create_directory_symlink(folder_.path(), link);
  const std::string script = R"({"client": {"root": ")" + link + R"(", "result": -1073741822}})";
  for (const std::string& name : {link, link + "/", link + "//"}) {
    const Ending ending = RunScripted(script, {"client-level", "-v", name});
    EXPECT_EQ(ending.status, 4) << name;
    EXPECT_EQ(ending.output, "") << name;
    EXPECT_THAT(ending.errors, HasSubstr("'" + link + "' is a symbolic link"));
    EXPECT_THAT(ending.errors, HasSubstr("(SVCMGR_ERROR_NOT_SUPPORTED)"));
  }
  const json level = json::parse(RunScripted(script, {"client-level", "--json", link}).output);
  EXPECT_EQ(level["folder"], link);
  EXPECT_EQ(level["client_api_level"], nullptr);
  EXPECT_EQ(level["files"], json::array());
}

TEST_F(ClientLevel, OfAFolderBelowASymbolicLinkIsThatOfTheFolder) {
  folder_.Write("a", FileWith(9));
  const TempFolder other;
  std::filesystem::create_directory_symlink(std::filesystem::path(folder_.path()).parent_path(),
                                            other.path() + "/link");
  const std::string below =
      other.path() + "/link/" + std::filesystem::path(folder_.path()).filename().string();
  const std::string script = Script(R"("value": 9)");
  for (const std::string& name :
       {below, below + "/.", below + "/../" + below.substr(below.rfind('/') + 1)}) {
    const Ending ending = RunScripted(script, {"client-level", name});
    EXPECT_EQ(ending.output, "9\n") << name << ending.errors;
  }
}

TEST_F(ClientLevel, WithoutAnAgentIsNotToBeHad) {
  const std::string script =
      R"({"client": {"result": -1073741822}, "disconnect": {"result": -1073741822}})";
  EXPECT_EQ(RunScripted(script, {"client-level", folder_.path()}).status, 5);
}

TEST_F(ClientLevel, OfAFolderThatIsNotThereIsNotFound) {
  const std::string file = folder_.Write("a", "");
  for (const std::string& none : {folder_.path() + "/no\x1b", file}) {
    const Ending ending = RunScripted("{}", {"client-level", none});
    EXPECT_EQ(ending.status, 4);
    EXPECT_THAT(ending.errors, HasSubstr("there is no folder '"));
    EXPECT_THAT(ending.errors, Not(HasSubstr("\x1b")));
  }
}

TEST_F(ClientLevel, IsThatOfTheApplicationsFolderWhereNoneIsNamed) {
  folder_.Write("a", FileWith(9));
  Start start;
  start.arguments = {"client-level"};
  start.environment = {{"VELMORA_APP_ROOT", folder_.path()}};
  EXPECT_EQ(RunWith(start, Script(R"("value": 9)")).output, "9\n");
}

TEST_F(ClientLevel, IsNotLookedForInAllFilesWhereNoFolderIsKnown) {
  for (const char* nowhere : {"", "/svcmgrctl", "/bin/svcmgrctl"}) {
    Start start;
    start.arguments = {"client-level"};
    start.environment = {{"VELMORA_APP_ROOT", ""}};
    const Ending ending = RunWith(start, std::string(R"({"executable": ")") + nowhere + "\"}");
    EXPECT_EQ(ending.status, 4) << nowhere;
    EXPECT_EQ(ending.output, "") << nowhere;
    EXPECT_THAT(ending.errors, HasSubstr("this program's own folder is not known")) << nowhere;
  }
}

TEST_F(ClientLevel, ShowsHostileNamesByTheirNumbers) {
  folder_.Write("\x1b[2J\x9b", FileWith(9));
  const std::string script = Script(R"("value": 9)");
  EXPECT_THAT(RunScripted(script, {"client-level", "-v", folder_.path()}).output,
              HasSubstr("  \\x1B[2J\\x9B  decides\n"));
  const Ending ending = RunScripted(script, {"client-level", "--json", folder_.path()});
  EXPECT_TRUE(json::accept(ending.output));
  EXPECT_THAT(ending.output, Not(HasSubstr("\x1b")));
}

}  // namespace
