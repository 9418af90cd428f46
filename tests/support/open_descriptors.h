// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_OPEN_DESCRIPTORS_H_
#define TESTS_SUPPORT_OPEN_DESCRIPTORS_H_

#include <dirent.h>

#include <cstdlib>

/** How many descriptors this process has open. Ends the process if that cannot be told. */
inline int OpenDescriptors() {
  int count = 0;
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) std::abort();
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count - 3;  // ".", ".." and the folder's own
}

#endif  // TESTS_SUPPORT_OPEN_DESCRIPTORS_H_
