// SPDX-License-Identifier: Apache-2.0
#ifndef TOOLS_SVCMGRCTL_MARKERS_H_
#define TOOLS_SVCMGRCTL_MARKERS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace svcmgrctl {

/** What a section says about the client API level. */
struct Marker {
  std::uint16_t api_level;
  std::uint16_t version_major;
  std::uint16_t version_minor;
  std::uint16_t version_patch;
  /** The section's name, as it stands in the file. */
  std::string section;
};

/** A file with markers, or with a reason why they cannot be told. */
struct MarkedFile {
  /** From the folder. */
  std::string path;
  /** In the order of the sections; the first one counts for the file. */
  std::vector<Marker> markers;
  /** Empty if the file could be read. */
  std::string problem;
};

/** Looks at all files below a folder, in the order in which the library comes to them. Files without
 *  markers and without problems are left out. Not to be called on two threads at once. */
std::vector<MarkedFile> FindMarkers(const std::string& folder);

/** The file with the newest marker that counts, the first one of equals; null if there is none. */
const MarkedFile* Newest(const std::vector<MarkedFile>& files);

/** Whether the two are equal in all that is compared. */
bool SameAge(const Marker& a, const Marker& b);

}  // namespace svcmgrctl

#endif  // TOOLS_SVCMGRCTL_MARKERS_H_
