// SPDX-License-Identifier: Apache-2.0
#include "snapshot_reader.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <glib.h>
#include <limits.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "owned.h"
#include "unique_fd.h"

namespace packages {

namespace {

constexpr char kPackageGroup[] = "Package";
constexpr std::string_view kApplicationPrefix = "Application ";
constexpr off_t kLargestKeyFile = 1 << 20;

using KeyFilePtr = base::Owned<GKeyFile, g_key_file_free>;
using StrvPtr = base::Owned<gchar*, g_strfreev>;
using TextPtr = base::Owned<gchar, g_free>;

// The error of one GLib call after another.
class Error {
 public:
  Error() = default;
  Error(const Error&) = delete;
  Error& operator=(const Error&) = delete;
  ~Error() { g_clear_error(&error_); }

  GError** Receive() {
    g_clear_error(&error_);
    return &error_;
  }
  // A value with an invalid escape comes together with an error.
  bool IsSet() const { return error_ != nullptr; }
  const char* text() const { return error_ ? error_->message : "unknown reason"; }
  bool Is(GKeyFileError code) const { return g_error_matches(error_, G_KEY_FILE_ERROR, code); }

 private:
  GError* error_ = nullptr;
};

bool ReadVersion(GKeyFile* file, package_info_s* package, Error* error) {
  const TextPtr version(g_key_file_get_string(file, kPackageGroup, "Version", error->Receive()));
  if (error->IsSet()) return false;
  package->version = version.get();
  return true;
}

bool ReadClients(GKeyFile* file, package_info_s* package, Error* error) {
  const StrvPtr clients(
      g_key_file_get_string_list(file, kPackageGroup, "Clients", nullptr, error->Receive()));
  if (error->IsSet()) return error->Is(G_KEY_FILE_ERROR_KEY_NOT_FOUND);
  package->admits_all = false;
  for (gchar** client = clients.get(); *client; ++client) {
    package->admitted_clients.emplace_back(*client);
  }
  return true;
}

bool ReadApplication(GKeyFile* file, const char* group, package_info_s* package, Error* error) {
  app_info_s application;
  application.id = group + kApplicationPrefix.size();
  const StrvPtr keys(g_key_file_get_keys(file, group, nullptr, error->Receive()));
  if (!keys) return false;
  for (gchar** key = keys.get(); *key; ++key) {
    const TextPtr value(g_key_file_get_string(file, group, *key, error->Receive()));
    if (error->IsSet()) return false;
    application.metadata.emplace_back(*key, value.get());
  }
  package->applications.push_back(std::move(application));
  return true;
}

bool ReadApplications(GKeyFile* file, package_info_s* package, Error* error) {
  const StrvPtr groups(g_key_file_get_groups(file, nullptr));
  for (gchar** group = groups.get(); *group; ++group) {
    const std::string_view name = *group;
    if (name.substr(0, kApplicationPrefix.size()) != kApplicationPrefix) continue;
    if (name.size() == kApplicationPrefix.size()) continue;
    if (!ReadApplication(file, *group, package, error)) return false;
  }
  if (package->applications.empty()) package->applications.push_back({nullptr, package->id, {}});
  return true;
}

// What became of one entry of the folder.
enum class Outcome { kRead, kGone, kBroken, kFailed };

Outcome OutcomeOfErrno() {
  switch (errno) {
    case ENOENT:
      return Outcome::kGone;
    // A failure that may soon pass must not count as "not installed".
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return Outcome::kFailed;
    default:
      return Outcome::kBroken;
  }
}

Outcome ReadText(int folder, const char* name, std::string* text, bool* has_other_links,
                 std::string* complaint) {
  const base::UniqueFd fd(openat(folder, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat about;
  if (!fd || fstat(fd.get(), &about) != 0) {
    *complaint = g_strerror(errno);
    return OutcomeOfErrno();
  }
  *has_other_links = about.st_nlink > 1;
  if (!S_ISREG(about.st_mode) || about.st_size > kLargestKeyFile) {
    *complaint = "not a regular file of at most 1 MiB";
    return Outcome::kBroken;
  }
  char chunk[4096];
  for (;;) {
    const ssize_t size = read(fd.get(), chunk, sizeof chunk);
    if (size == 0) return Outcome::kRead;
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) {
      *complaint = g_strerror(errno);
      return OutcomeOfErrno();
    }
    text->append(chunk, static_cast<size_t>(size));
    // A file that grows while it is read must not be read for ever.
    if (text->size() > static_cast<size_t>(kLargestKeyFile)) {
      *complaint = "still growing";
      return Outcome::kBroken;
    }
  }
}

Outcome ReadPackage(int folder, const char* name, package_info_s* package, bool* has_other_links,
                    std::string* complaint) {
  std::string_view id = name;
  id.remove_suffix(kKeyFileSuffix.size());
  if (!IsPackageId(id)) return Outcome::kGone;
  std::string text;
  const Outcome outcome = ReadText(folder, name, &text, has_other_links, complaint);
  if (outcome != Outcome::kRead) return outcome;
  return ParsePackage(id, text, package, complaint) ? Outcome::kRead : Outcome::kBroken;
}

}  // namespace

bool IsKeyFileName(std::string_view name) {
  return name.size() > kKeyFileSuffix.size() &&
         name.substr(name.size() - kKeyFileSuffix.size()) == kKeyFileSuffix;
}

bool IsPackageId(std::string_view id) {
  if (id.empty() || id[0] == '.' || id.size() + kKeyFileSuffix.size() > NAME_MAX) return false;
  for (const char c : id) {
    if (c == '/' || g_ascii_iscntrl(c)) return false;
  }
  return g_utf8_validate(id.data(), static_cast<gssize>(id.size()), nullptr);
}

bool ParsePackage(std::string_view id, std::string_view text, package_info_s* package,
                  std::string* complaint) {
  if (text.find('\0') != std::string_view::npos) {
    *complaint = "holds a NUL";
    return false;
  }
  package->id = id;
  Error error;
  const KeyFilePtr file(g_key_file_new());
  // An empty text is not looked at, but must not be null either.
  const char* data = text.empty() ? "" : text.data();
  if (g_key_file_load_from_data(file.get(), data, text.size(), G_KEY_FILE_NONE, error.Receive()) &&
      ReadVersion(file.get(), package, &error) && ReadClients(file.get(), package, &error) &&
      ReadApplications(file.get(), package, &error)) {
    return true;
  }
  *complaint = error.text();
  return false;
}

int ReadFolder(const std::string& folder, Snapshot::Content* content) {
  const base::Owned<DIR, closedir> entries(opendir(folder.c_str()));
  if (!entries) {
    return errno == ENOENT || errno == ENOTDIR ? 0 : -errno;
  }
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(entries.get());
    if (!entry && errno != 0) return -errno;
    if (!entry) return 0;
    if (!IsKeyFileName(entry->d_name)) continue;
    package_info_s package;
    std::string complaint;
    bool has_other_links = false;
    const Outcome outcome =
        ReadPackage(dirfd(entries.get()), entry->d_name, &package, &has_other_links, &complaint);
    content->may_change_unheard |= has_other_links;
    switch (outcome) {
      case Outcome::kRead:
        content->packages.push_back(std::move(package));
        break;
      case Outcome::kGone:
        break;
      case Outcome::kBroken:
        content->complaints.insert(
            std::string(folder).append("/").append(entry->d_name).append(": ").append(complaint));
        break;
      case Outcome::kFailed:
        return -EIO;
    }
  }
}

}  // namespace packages
