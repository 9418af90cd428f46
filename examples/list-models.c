/* SPDX-License-Identifier: Apache-2.0 */
#include <glib.h>
#include <stdio.h>
#include <stdlib.h>
#include <velmora_svcmgr.h>

/* The user data of every callback is the program's result; WAITING is no code of the library. */
enum { WAITING = 1 };

static void on_models(int error, velmora_svcmgr_ai_model_list_h list, void* result) {
  int size = 0;
  if (list != NULL) velmora_svcmgr_ai_model_list_get_size(list, &size);
  for (int i = 0; i < size; i++) {
    velmora_svcmgr_ai_model_info_h model;
    char* id = NULL;
    if (velmora_svcmgr_ai_model_list_get(list, i, &model) != SVCMGR_ERROR_NONE) break;
    if (velmora_svcmgr_ai_model_info_get_id(model, &id) == SVCMGR_ERROR_NONE) puts(id);
    free(id);
    velmora_svcmgr_ai_model_info_destroy(model);
  }
  if (list != NULL) velmora_svcmgr_ai_model_list_destroy(list);
  *(int*)result = error;
}

static void on_connection(int error, int state, void* result) {
  if (state == SVCMGR_CONNECTION_STATE_CONNECTED)
    error = velmora_svcmgr_ai_request_usable_model_list(on_models, result);
  else if (error == SVCMGR_ERROR_NONE)
    error = SVCMGR_ERROR_NOT_CONNECTED;
  if (error != SVCMGR_ERROR_NONE) *(int*)result = error;
}

static gboolean on_time_is_up(void* result) {
  *(int*)result = SVCMGR_ERROR_CONNECTION_FAILED;
  return G_SOURCE_REMOVE;
}

int main(void) {
  int result = WAITING;
  int error = velmora_svcmgr_connect(on_connection, &result);
  if (error != SVCMGR_ERROR_NONE) result = error;
  g_timeout_add_seconds(10, on_time_is_up, &result);
  while (result == WAITING) g_main_context_iteration(NULL, TRUE);
  velmora_svcmgr_disconnect();
  if (result != SVCMGR_ERROR_NONE) fprintf(stderr, "list-models: error %d\n", result);
  return result == SVCMGR_ERROR_NONE && fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
