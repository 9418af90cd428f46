// SPDX-License-Identifier: Apache-2.0
// Writes a package folder from another process: "install DIR ID TEXT" or "remove DIR ID".

#include <package_desktop.h>

#include <string_view>

int main(int argc, char** argv) {
  const std::string_view word = argc > 1 ? argv[1] : "";
  if (word == "install" && argc == 5)
    return package_desktop_install(argv[2], argv[3], argv[4]) != 0;
  if (word == "remove" && argc == 4) return package_desktop_remove(argv[2], argv[3]) != 0;
  return 2;
}
