/* SPDX-License-Identifier: Apache-2.0 */
/*
 * status-events [COUNT]: prints what happens to the device's agents and models, whoever asked for
 * it, until so many events have come. It needs no connection.
 */
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <velmora_svcmgr.h>

static const char* name_of_update(int status) {
  switch (status) {
    case SVCMGR_UPDATE_STATUS_STARTED:
      return "has begun";
    case SVCMGR_UPDATE_STATUS_COMPLETED:
      return "has ended well";
    default:
      return "has failed";
  }
}

static const char* name_of_work(int status) {
  switch (status) {
    case SVCMGR_AI_STATUS_STARTED:
      return "has begun";
    case SVCMGR_AI_STATUS_COMPLETED:
      return "has ended well";
    default:
      return "has failed";
  }
}

static void on_update(int status, void* left) {
  printf("an update of the agents %s (%d)\n", name_of_update(status), status);
  --*(long*)left;
}

static void on_work(int error, int status, void* left) {
  (void)error; /* always SVCMGR_ERROR_NONE */
  printf("work on models %s (%d)\n", name_of_work(status), status);
  --*(long*)left;
}

int main(int argc, char** argv) {
  long left = argc > 1 ? strtol(argv[1], NULL, 10) : 10;
  int error = velmora_svcmgr_set_update_status_cb(on_update, &left);
  if (error == SVCMGR_ERROR_NONE) error = velmora_svcmgr_ai_register_status_cb(on_work, &left);
  if (error != SVCMGR_ERROR_NONE) {
    fprintf(stderr, "status-events: error %d\n", error);
    return EXIT_FAILURE;
  }
  puts("listening");
  fflush(stdout);
  while (left > 0) {
    g_main_context_iteration(NULL, TRUE);
    fflush(stdout);
  }
  /* `left` goes with this function: nothing may be called any more. */
  velmora_svcmgr_unset_update_status_cb();
  velmora_svcmgr_ai_deregister_status_cb();
  return EXIT_SUCCESS;
}
