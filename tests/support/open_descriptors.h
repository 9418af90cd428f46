// SPDX-License-Identifier: Apache-2.0
#ifndef TESTS_SUPPORT_OPEN_DESCRIPTORS_H_
#define TESTS_SUPPORT_OPEN_DESCRIPTORS_H_

#include <dirent.h>

/** How many descriptors this process has open. */
inline int OpenDescriptors() {
  int count = 0;
  DIR* folder = opendir("/proc/self/fd");
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count - 3;  // ".", ".." and the folder's own
}

#endif  // TESTS_SUPPORT_OPEN_DESCRIPTORS_H_
