/* SPDX-License-Identifier: Apache-2.0 */
/*
 * progress-bar [--again] ID[@VERSION]...: has models updated, and shows how far the work has come
 * until its end is known. With --again it asks again for what the agent's restart has swallowed.
 */
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <velmora_svcmgr.h>

/* States of the work, as the agent counts them; it may report others, which end nothing. */
enum { STATE_DONE = 2, STATE_FAILED = 3 };

/* No code of the library is positive. */
enum { WAITING = 1, FAILED = 2, TIME_IS_UP = 3 };

/* What is heard by events is believed when nothing has followed for so long. */
static const gint64 settle_time = 2 * G_USEC_PER_SEC;
static const gint64 silence_limit = 30 * G_USEC_PER_SEC;
/* Silence of an agent that has announced its replacement. */
static const gint64 restart_patience = 5 * G_USEC_PER_SEC;

struct work {
  velmora_svcmgr_ai_model_list_h models;
  int model_count;
  int result;
  bool again; /* is to be asked for again after a loss */
  gint64 last_heard;
  bool asked;
  /* What the messages say. */
  bool reported;
  int model; /* that is worked on, from 1 */
  int percentage;
  /* What the events say. */
  int begun, ended;
  int result_of_events; /* WAITING as long as they tell of no end */
  int shown;            /* hundredths of the whole */
};

/* Never goes backwards, and is full only when the work is done. */
static int percent_of_whole(const struct work* work) {
  if (work->result == SVCMGR_ERROR_NONE) return 100;
  if (work->model == 0) return 0;
  const int percent = (100 * (work->model - 1) + work->percentage) / work->model_count;
  return percent < 99 ? percent : 99;
}

static void show(struct work* work) {
  const int percent = percent_of_whole(work);
  if (percent == work->shown) return;
  if (isatty(STDOUT_FILENO)) {
    char bar[51] = {0};
    for (int i = 0; i < 50; i++) bar[i] = i < percent / 2 ? '#' : '.';
    printf("\r%s %3d %%", bar, percent);
    if (percent == 100) putchar('\n');
  } else if (percent / 10 != work->shown / 10) {
    printf("%d %%\n", percent);
  }
  fflush(stdout);
  work->shown = percent;
}

static void advance(struct work* work, int model, int percentage) {
  if (model < work->model || model < 1 || model > work->model_count) return;
  if (model > work->model) work->percentage = 0;
  work->model = model;
  if (percentage > 100) percentage = 100;
  if (percentage > work->percentage) work->percentage = percentage;
}

static void on_progress(int error, velmora_svcmgr_ai_progress_h progress, void* data) {
  struct work* work = data;
  int state = 0, model = 0, percentage = 0;
  if (progress != NULL) {
    velmora_svcmgr_ai_progress_get_state(progress, &state);
    velmora_svcmgr_ai_progress_get_index(progress, &model);
    velmora_svcmgr_ai_progress_get_percentage(progress, &percentage);
    velmora_svcmgr_ai_progress_destroy(progress);
  }
  if (work->result != WAITING) return;
  work->last_heard = g_get_monotonic_time();
  work->reported = true;
  /* Work that goes on has not ended: the events were about other work. */
  work->result_of_events = WAITING;
  advance(work, model, percentage);
  if (error != SVCMGR_ERROR_NONE)
    work->result = error;
  else if (state == STATE_FAILED)
    work->result = FAILED;
  else if (state == STATE_DONE)
    work->result = SVCMGR_ERROR_NONE;
  show(work);
}

static void on_event(int error, int status, void* data) {
  struct work* work = data;
  (void)error;
  if (!work->asked) return;
  work->last_heard = g_get_monotonic_time();
  if (status == SVCMGR_AI_STATUS_STARTED) {
    work->begun++;
  } else {
    work->ended++;
    /* Others may have work done at the same time. */
    if (work->begun == 0 || work->ended < work->begun) return;
    if (status == SVCMGR_AI_STATUS_FAILED)
      work->result_of_events = FAILED;
    else if (!work->reported || work->model == work->model_count)
      work->result_of_events = SVCMGR_ERROR_NONE;
  }
}

static void ask(struct work* work) {
  work->asked = true;
  work->begun = work->ended = 0;
  work->result_of_events = WAITING;
  const int error = velmora_svcmgr_ai_request_to_update(work->models, on_progress, work);
  /* A request may fail because the connection is just being lost. */
  if (error == SVCMGR_ERROR_INVALID_OPERATION && work->again)
    work->asked = false;
  else if (error != SVCMGR_ERROR_NONE)
    work->result = error;
  else
    work->last_heard = g_get_monotonic_time();
}

static void on_connection(int error, int state, void* data) {
  struct work* work = data;
  if (work->result != WAITING) return;
  if (state == SVCMGR_CONNECTION_STATE_CONNECTED) {
    if (!work->asked) ask(work);
  } else if (work->again && state == SVCMGR_CONNECTION_STATE_DISCONNECTED) {
    work->asked = false; /* asked again when the connection stands */
  } else {
    /* What becomes of work that has begun is not known any more. */
    work->result = error != SVCMGR_ERROR_NONE ? error : SVCMGR_ERROR_NOT_CONNECTED;
  }
}

/* Nobody tells that the agent has replaced itself. A gap shows by looking; one that was too short
 * for that, by silence after the announcement. */
static void look(struct work* work, gint64 silence) {
  bool updating = false;
  const bool stands = velmora_svcmgr_is_being_updated(&updating) == SVCMGR_ERROR_NONE;
  if (!stands || (updating && silence >= restart_patience)) work->asked = false;
  if (stands && !work->asked) ask(work);
}

static gboolean on_tick(void* data) {
  struct work* work = data;
  const gint64 silence = g_get_monotonic_time() - work->last_heard;
  if (work->result != WAITING) return G_SOURCE_CONTINUE;
  if (work->result_of_events != WAITING && silence >= settle_time)
    work->result = work->result_of_events;
  else if (silence >= silence_limit)
    work->result = TIME_IS_UP;
  else if (work->again)
    look(work, silence);
  show(work);
  return G_SOURCE_CONTINUE;
}

/* Adds a model to the list; all four texts of a model must be set, if only to "". */
static int add_model(velmora_svcmgr_ai_model_list_h list, const char* argument) {
  velmora_svcmgr_ai_model_info_h model = NULL;
  const char* at = strrchr(argument, '@');
  char* id = at != NULL ? g_strndup(argument, (gsize)(at - argument)) : g_strdup(argument);
  int error = velmora_svcmgr_ai_model_info_create(&model);
  if (error == SVCMGR_ERROR_NONE) {
    error = velmora_svcmgr_ai_model_info_set_id(model, id);
    /* Without a version: the newest. */
    if (!error) error = velmora_svcmgr_ai_model_info_set_version(model, at ? at + 1 : "");
    if (!error) error = velmora_svcmgr_ai_model_info_set_title(model, "");
    if (!error) error = velmora_svcmgr_ai_model_info_set_description(model, "");
    if (!error) error = velmora_svcmgr_ai_model_list_add(list, model);
    velmora_svcmgr_ai_model_info_destroy(model); /* the list has a copy */
  }
  g_free(id);
  return error;
}

static int make_list(struct work* work, int count, char** arguments) {
  int error = velmora_svcmgr_ai_model_list_create(&work->models);
  for (int i = 0; i < count && error == SVCMGR_ERROR_NONE; i++)
    error = add_model(work->models, arguments[i]);
  work->model_count = count;
  return error;
}

static void follow(struct work* work) {
  work->last_heard = g_get_monotonic_time();
  const guint tick = g_timeout_add(100, on_tick, work);
  /* Before the request: what is said while it is sent counts. */
  int error = velmora_svcmgr_ai_register_status_cb(on_event, work);
  if (error == SVCMGR_ERROR_NONE) error = velmora_svcmgr_connect(on_connection, work);
  if (error != SVCMGR_ERROR_NONE) work->result = error;
  while (work->result == WAITING) g_main_context_iteration(NULL, TRUE);
  g_source_remove(tick);
  velmora_svcmgr_ai_deregister_status_cb();
  velmora_svcmgr_disconnect();
  show(work);
}

int main(int argc, char** argv) {
  struct work work = {.result = WAITING, .result_of_events = WAITING};
  work.again = argc > 1 && strcmp(argv[1], "--again") == 0;
  const int first = work.again ? 2 : 1;
  if (argc <= first) {
    fprintf(stderr, "usage: progress-bar [--again] ID[@VERSION]...\n");
    return 2;
  }
  const int error = make_list(&work, argc - first, argv + first);
  if (error == SVCMGR_ERROR_NONE)
    follow(&work);
  else
    work.result = error;
  if (work.models != NULL) velmora_svcmgr_ai_model_list_destroy(work.models);
  if (work.result == TIME_IS_UP)
    fprintf(stderr, "progress-bar: the agent is silent; how the work ends is not known\n");
  else if (work.result == FAILED)
    fprintf(stderr, "progress-bar: the work has failed\n");
  else if (work.result != SVCMGR_ERROR_NONE)
    fprintf(stderr, "progress-bar: error %d\n", work.result);
  return work.result == SVCMGR_ERROR_NONE && fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
