/* SPDX-License-Identifier: Apache-2.0 */
/*
 * follow-update [SECONDS]: has the agents updated, and follows the update to its end, also while
 * the agent replaces itself. Gives up after so many seconds without a word, 30 if not given.
 */
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <velmora_svcmgr.h>

/* Codes of the library are 0 or negative, statuses of an update 0 or more. */
enum { WAITING = 1, FAILED = 2 };

struct update {
  bool connected;
  int result;
  guint silence_limit; /* seconds */
  guint silence;       /* the timer; 0 if there is none */
};

static gboolean on_silence(void* data) {
  struct update* update = data;
  fprintf(stderr, "follow-update: nothing was heard for %u s\n", update->silence_limit);
  update->silence = 0;
  update->result = FAILED;
  return G_SOURCE_REMOVE;
}

static void restart_silence(struct update* update) {
  if (update->silence != 0) g_source_remove(update->silence);
  update->silence = g_timeout_add_seconds(update->silence_limit, on_silence, update);
}

static void on_status(int status, void* data) {
  struct update* update = data;
  restart_silence(update);
  switch (status) {
    case SVCMGR_UPDATE_STATUS_STARTED:
      puts("the update has begun");
      break;
    case SVCMGR_UPDATE_STATUS_COMPLETED:
      puts("the update has ended well");
      update->result = SVCMGR_ERROR_NONE;
      break;
    default:
      fprintf(stderr, "follow-update: the update has failed with the status %d\n", status);
      update->result = FAILED;
  }
}

static void on_connection(int error, int state, void* data) {
  struct update* update = data;
  if (state == SVCMGR_CONNECTION_STATE_CONNECTED) {
    update->connected = true;
  } else if (state == SVCMGR_CONNECTION_STATE_REJECTED) {
    fprintf(stderr, "follow-update: the agent refused the connection\n");
    update->result = error;
  } else {
    /* The events tell how the update ends, connection or not. */
    puts("the connection was lost");
  }
}

/* Waits until the connection stands, or the result is known. */
static void await_connection(struct update* update) {
  const int error = velmora_svcmgr_connect(on_connection, update);
  if (error != SVCMGR_ERROR_NONE) update->result = error;
  while (!update->connected && update->result == WAITING) g_main_context_iteration(NULL, TRUE);
}

static void follow(struct update* update) {
  const int error = velmora_svcmgr_request_update();
  if (error != SVCMGR_ERROR_NONE) update->result = error;
  while (update->result == WAITING) g_main_context_iteration(NULL, TRUE);
}

int main(int argc, char** argv) {
  struct update update = {false, WAITING, 30, 0};
  if (argc > 1) update.silence_limit = (guint)strtoul(argv[1], NULL, 10);
  restart_silence(&update);
  /* Before the request: only who hears of the start and the end is told of the connection again. */
  int error = velmora_svcmgr_set_update_status_cb(on_status, &update);
  if (error != SVCMGR_ERROR_NONE) update.result = error;
  if (update.result == WAITING) await_connection(&update);
  if (update.result == WAITING) follow(&update);
  if (update.silence != 0) g_source_remove(update.silence);
  velmora_svcmgr_unset_update_status_cb();
  velmora_svcmgr_disconnect();
  if (update.result < 0) fprintf(stderr, "follow-update: error %d\n", update.result);
  return update.result == SVCMGR_ERROR_NONE && fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
