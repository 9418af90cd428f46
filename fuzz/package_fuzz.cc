// SPDX-License-Identifier: Apache-2.0
// The key file of an installed package, which anybody may have written.
//
// Input: the file.

#include "input.h"
#include "snapshot_reader.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = Input(data, size).Rest();
  package_info_s package;
  std::string complaint;
  if (!packages::ParsePackage("com.example.package", text, &package, &complaint)) {
    REQUIRE(!complaint.empty());
    return 0;
  }
  REQUIRE(package.id == "com.example.package");
  packages::Snapshot::Content content;
  content.packages.push_back(std::move(package));
  const packages::SnapshotRef snapshot(
      new packages::Snapshot(std::move(content), packages::Freshness(nullptr)));
  const package_info_s* found = snapshot->FindPackage("com.example.package");
  REQUIRE(found != nullptr);
  for (const app_info_s& application : found->applications) {
    REQUIRE(snapshot->FindApplication(application.id.c_str()) != nullptr);
  }
  return 0;
}
