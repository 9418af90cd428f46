/* SPDX-License-Identifier: Apache-2.0 */
/*
 * worker-thread: reads the agent's licence on a thread of its own, because that call blocks, while
 * the main loop goes on; the answer comes to the main loop.
 */
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <velmora_svcmgr.h>

/* No code of the library is positive. */
enum { WAITING = 1, TIME_IS_UP = 2, NO_TEXT = 3 };

static int result = WAITING;
static bool call_is_under_way;

struct answer {
  int error;
  char* text;
};

static gboolean on_answer(void* data) {
  struct answer* answer = data;
  call_is_under_way = false;
  if (result == WAITING) {
    if (answer->error != SVCMGR_ERROR_NONE)
      result = answer->error;
    else
      result = answer->text != NULL ? SVCMGR_ERROR_NONE : NO_TEXT;
    if (result == SVCMGR_ERROR_NONE) puts(answer->text);
  }
  free(answer->text);
  g_free(answer);
  return G_SOURCE_REMOVE;
}

/* The worker: nothing of it touches what belongs to the main loop. */
static void* read_licence(void* data) {
  struct answer* answer = data;
  answer->error = velmora_svcmgr_get_license_fulltext(&answer->text);
  g_idle_add(on_answer, answer);
  return NULL;
}

static void on_connection(int error, int state, void* data) {
  (void)data;
  if (state != SVCMGR_CONNECTION_STATE_CONNECTED) {
    result = error != SVCMGR_ERROR_NONE ? error : SVCMGR_ERROR_NOT_CONNECTED;
  } else if (!call_is_under_way) {
    call_is_under_way = true;
    /* The text is null beforehand: it stays so where the agent has none. */
    g_thread_unref(g_thread_new("licence", read_licence, g_new0(struct answer, 1)));
  }
}

static gboolean on_time_is_up(void* data) {
  (void)data;
  result = TIME_IS_UP;
  return G_SOURCE_REMOVE;
}

int main(void) {
  const int error = velmora_svcmgr_connect(on_connection, NULL);
  if (error != SVCMGR_ERROR_NONE) result = error;
  g_timeout_add_seconds(3, on_time_is_up, NULL);
  while (result == WAITING) g_main_context_iteration(NULL, TRUE);
  /* A call that still waits cannot be ended, and nobody may disconnect while it does: the end of
   * the process ends both. */
  if (!call_is_under_way) velmora_svcmgr_disconnect();
  if (result == TIME_IS_UP)
    fprintf(stderr, "worker-thread: the agent did not answer in time\n");
  else if (result == NO_TEXT)
    fprintf(stderr,
            "worker-thread: no licence text: there is none, or the agent did not send it\n");
  else if (result != SVCMGR_ERROR_NONE)
    fprintf(stderr, "worker-thread: error %d\n", result);
  return result == SVCMGR_ERROR_NONE && fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
