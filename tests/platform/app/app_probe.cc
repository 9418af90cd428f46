// SPDX-License-Identifier: Apache-2.0
// Says who it is; with an argument, after its executable has been removed.

#include <app_common.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc > 1 && unlink(argv[0]) != 0) return 1;
  char* id = nullptr;
  char* path = app_get_resource_path();
  if (app_get_id(&id) != 0 || !path) return 1;
  printf("%s %s", id, path);
  free(id);
  free(path);
  return 0;
}
