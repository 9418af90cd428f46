/* SPDX-License-Identifier: Apache-2.0 */
/*
 * survive-restart: asks for the models again and again, until SIGTERM or SIGINT, whatever becomes
 * of the agent in between. Where only a new process helps, it ends with 75.
 */
#include <glib-unix.h>
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <velmora_svcmgr.h>

/* What supervisors take for "try again" (EX_TEMPFAIL of sysexits.h). */
enum { START_ME_ANEW = 75 };

static const gint64 pause_between = G_USEC_PER_SEC / 2;
static const gint64 time_limit = 2 * G_USEC_PER_SEC;
static const gint64 longest_absence = 60 * G_USEC_PER_SEC;

static bool running = true;
static int status = EXIT_SUCCESS;
static bool was_connected;
static gint64 last_stood; /* when the connection stood for the last time */
static int asked;         /* the number of the latest query */
static bool waiting;      /* for its answer */
static gint64 since;      /* when it was asked, or answered */

static void end(int new_status) {
  status = new_status;
  running = false;
}

/* The list belongs to the application, whatever comes with it. */
static int take_size(velmora_svcmgr_ai_model_list_h list) {
  int size = 0;
  if (list == NULL) return 0;
  velmora_svcmgr_ai_model_list_get_size(list, &size);
  velmora_svcmgr_ai_model_list_destroy(list);
  return size;
}

static void on_models(int error, velmora_svcmgr_ai_model_list_h list, void* number) {
  const int size = take_size(list);
  /* An answer may come twice, or after it was given up. */
  if (!waiting || GPOINTER_TO_INT(number) != asked) return;
  waiting = false;
  since = g_get_monotonic_time();
  if (error == SVCMGR_ERROR_NONE)
    printf("%d models\n", size);
  else
    printf("error %d instead of models\n", error);
  fflush(stdout);
}

static void ask(void) {
  since = g_get_monotonic_time();
  asked++;
  /* A number needs no memory that would have to stay valid until the connection ends. */
  waiting = velmora_svcmgr_ai_request_usable_model_list(on_models, GINT_TO_POINTER(asked)) ==
            SVCMGR_ERROR_NONE;
}

static void on_connection(int error, int state, void* data) {
  (void)error;
  (void)data;
  if (state == SVCMGR_CONNECTION_STATE_CONNECTED) {
    puts("connected");
    was_connected = true;
    ask(); /* what was asked before is never answered */
  } else if (state == SVCMGR_CONNECTION_STATE_REJECTED) {
    puts("refused");
    end(START_ME_ANEW);
  } else {
    puts("lost");
    /* Before the first connection stands nobody listens for the agent's return. */
    if (!was_connected) end(START_ME_ANEW);
  }
  fflush(stdout);
}

/* While the agent replaces itself, nothing reports that the connection is gone, or back. */
static bool stands(void) {
  bool updating;
  return velmora_svcmgr_is_being_updated(&updating) == SVCMGR_ERROR_NONE;
}

static gboolean on_tick(void* data) {
  (void)data;
  const gint64 now = g_get_monotonic_time();
  if (!stands()) {
    /* Starts an attempt if none is under way and there is none to wait for; else does nothing. */
    const int error = velmora_svcmgr_connect(on_connection, NULL);
    if (error == SVCMGR_ERROR_NOT_SUPPORTED || error == SVCMGR_ERROR_PERMISSION_DENIED) {
      fprintf(stderr, "survive-restart: error %d\n", error);
      end(EXIT_FAILURE);
    }
    if (now - last_stood > longest_absence) end(START_ME_ANEW);
    return G_SOURCE_CONTINUE;
  }
  last_stood = now;
  /* A query that the agent's restart has swallowed is asked again. */
  if (now - since > (waiting ? time_limit : pause_between)) ask();
  return G_SOURCE_CONTINUE;
}

static gboolean on_signal(void* data) {
  (void)data;
  end(EXIT_SUCCESS);
  return G_SOURCE_CONTINUE;
}

int main(void) {
  g_unix_signal_add(SIGTERM, on_signal, NULL);
  g_unix_signal_add(SIGINT, on_signal, NULL);
  last_stood = g_get_monotonic_time();
  g_timeout_add(200, on_tick, NULL);
  while (running) g_main_context_iteration(NULL, TRUE);
  velmora_svcmgr_disconnect();
  return status;
}
