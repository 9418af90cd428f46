// SPDX-License-Identifier: Apache-2.0
// Publishes "NAME KEY VALUE" for each line of its input, and says for each whether it succeeded.

#include <app_event.h>
#include <bundle.h>
#include <stdio.h>

int main() {
  char name[256];
  char key[256];
  char value[256];
  while (scanf("%255s %255s %255s", name, key, value) == 3) {
    bundle* data = bundle_create();
    bundle_add_str(data, key, value);
    printf("%d\n", event_publish_app_event(name, data));
    fflush(stdout);
    bundle_free(data);
  }
  return 0;
}
