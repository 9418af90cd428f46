// SPDX-License-Identifier: Apache-2.0
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "markers.h"
#include "table.h"
#include "velmora_svcmgr.h"

namespace svcmgrctl {
namespace {

namespace fs = std::filesystem;

constexpr char kRootVariable[] = "VELMORA_APP_ROOT";

/** What the library says, and why. */
struct Level {
  int code = SVCMGR_ERROR_INVALID_OPERATION;
  int level = 0;
  std::vector<MarkedFile> files;
  /** Null if no file explains what the library says. */
  const MarkedFile* deciding = nullptr;
};

Failure NoFolder(const std::string& message) {
  return {std::nullopt, "NOT_FOUND", message, kExitNotFound, "give the folder of an application"};
}

/** Where an application looks whose folder nobody has named. */
fs::path OwnFolder() {
  std::error_code error;
  const fs::path folder = fs::read_symlink("/proc/self/exe", error).parent_path();
  fs::path root = folder.filename() == "bin" ? folder.parent_path() : folder;
  if (root.empty() || root == root.root_path())
    throw NoFolder("this program's own folder is not known");
  return root;
}

fs::path NamedFolder(const std::string& given) {
  if (!given.empty()) return given;
  const char* named = std::getenv(kRootVariable);
  return named != nullptr && *named != '\0' ? fs::path(named) : OwnFolder();
}

/** The folder by a path that is the same wherever it is read. What an application does not follow,
 *  a link at its end, stays. */
std::string FolderFrom(const std::string& given) {
  const fs::path wanted = NamedFolder(given);
  std::error_code error;
  fs::path folder = fs::canonical(wanted, error);
  if (error || !fs::is_directory(folder, error))
    throw NoFolder("there is no folder '" + wanted.string() + "'");
  const fs::path place = wanted.has_filename() ? wanted : wanted.parent_path();
  if (fs::is_symlink(place, error))
    folder = fs::canonical(fs::absolute(place).parent_path()) / place.filename();
  return folder.string();
}

// Reading many files takes its time: a signal must be able to end it.
std::shared_ptr<Level> FindLevel(Session& session, const std::string& folder) {
  auto found = std::make_shared<Level>();
  session.AwaitCall<void>([&](vs::Session::Done done) {
    return session.face().RunBlocking<void>(
        [found, folder] {
          found->code = velmora_svcmgr_get_client_api_level(&found->level);
          found->files = FindMarkers(folder);
          return vs::Outcome<void>();
        },
        std::move(done));
  });
  const MarkedFile* newest = Newest(found->files);
  if (newest != nullptr && found->code == SVCMGR_ERROR_NONE &&
      newest->markers.front().api_level == found->level)
    found->deciding = newest;
  return found;
}

std::string VersionOf(const Marker& marker) {
  return std::to_string(marker.version_major) + "." + std::to_string(marker.version_minor) + "." +
         std::to_string(marker.version_patch);
}

Json ToJson(const Level& found, const std::string& folder) {
  Json files = Json::array();
  for (const MarkedFile& file : found.files) {
    Json markers = Json::array();
    for (const Marker& marker : file.markers)
      markers.push_back({{"api_level", marker.api_level},
                         {"version", VersionOf(marker)},
                         {"section", marker.section}});
    files.push_back({{"file", file.path},
                     {"markers", markers},
                     {"problem", file.problem.empty() ? Json() : Json(file.problem)}});
  }
  return {{"client_api_level", found.code == SVCMGR_ERROR_NONE ? Json(found.level) : Json()},
          {"folder", folder},
          {"decided_by", found.deciding == nullptr ? Json() : Json(found.deciding->path)},
          {"files", files}};
}

const char* RemarkOn(const Level& found, const MarkedFile& file, const Marker& marker) {
  if (&marker != &file.markers.front()) return "not the first in its file";
  if (&file == found.deciding) return "decides";
  if (marker.api_level == 0) return "level 0 does not count";
  if (found.deciding == nullptr) return "";
  return SameAge(marker, found.deciding->markers.front()) ? "the same, but later" : "older";
}

std::string TableOf(const Level& found, const Console& console) {
  if (found.files.empty()) return {};
  Table table;
  table.AddHeading({"LEVEL", "VERSION", "SECTION", "FILE", "REMARK"});
  for (const MarkedFile& file : found.files) {
    for (const Marker& marker : file.markers)
      table.AddRow({{std::to_string(marker.api_level)},
                    {VersionOf(marker)},
                    {marker.section},
                    {file.path},
                    {RemarkOn(found, file, marker),
                     &file == found.deciding && &marker == &file.markers.front() ? Tone::kGood
                                                                                 : Tone::kPlain}});
    if (!file.problem.empty())
      table.AddRow({{""}, {""}, {""}, {file.path}, {file.problem, Tone::kBad}});
  }
  return table.Render(console.color(), console.table_width());
}

/** What the table shows, as records. */
Json RecordsOf(const Level& found) {
  Json records = Json::array();
  for (const MarkedFile& file : found.files) {
    for (const Marker& marker : file.markers)
      records.push_back({{"api_level", marker.api_level},
                         {"version", VersionOf(marker)},
                         {"section", marker.section},
                         {"file", file.path},
                         {"remark", RemarkOn(found, file, marker)}});
    if (!file.problem.empty()) records.push_back({{"file", file.path}, {"remark", file.problem}});
  }
  return records;
}

// The library has one code for two things.
Failure FailureFrom(const Level& found, const std::string& folder) {
  if (found.code != SVCMGR_ERROR_NOT_SUPPORTED ||
      velmora_svcmgr_disconnect() == SVCMGR_ERROR_NOT_SUPPORTED)
    return FailureOf(found.code);
  std::error_code error;
  const bool is_link = fs::is_symlink(folder, error);
  return FailureOf(
      found.code,
      is_link ? "'" + folder + "' is a symbolic link, which the library does not follow"
              : "no file below '" + folder + "' has a marker",
      kExitNotFound,
      is_link ? "name the folder that it leads to"
              : "link the marker into the application, as the manual of the library says");
}

void ShowLevel(Session& session, Console& console, const std::string& given) {
  const std::string folder = FolderFrom(given);
  setenv(kRootVariable, folder.c_str(), 1);
  const auto found = FindLevel(session, folder);
  const bool known = found->code == SVCMGR_ERROR_NONE;
  std::string text = known ? std::to_string(found->level) + "\n" : "";
  if (console.verbose()) {
    const std::string table = TableOf(*found, console);
    text += (known && !table.empty() ? "\n" : "") + table;
  }
  if (known || console.verbose() || console.json()) {
    const Json json = ToJson(*found, folder);
    console.Data(json, text, console.verbose() ? RecordsOf(*found) : Json::array({json}));
  }
  if (!known) throw FailureFrom(*found, folder);
  if (found->deciding == nullptr)
    console.Note("no file explains the level; the library reads damaged ones in a way of its own");
}

}  // namespace

void AddClientLevelCommand(CLI::App& app, Command* chosen) {
  auto folder = std::make_shared<std::string>();
  CLI::App* level = app.add_subcommand(
      "client-level", "Print the client API level of an application, and with -v its markers");
  level->add_option("DIR", *folder, "The application's folder; without it, this program's own")
      ->type_name("");
  level->callback([chosen, folder] {
    *chosen = [folder](Session& session, Console& console) {
      ShowLevel(session, console, *folder);
    };
  });
}

}  // namespace svcmgrctl
