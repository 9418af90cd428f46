/* SPDX-License-Identifier: Apache-2.0 */
/* The public header, included first and alone: as C99, and by header_test_cxx98.cc as C++98. */

#include <velmora_svcmgr.h>

#ifndef PROBE
#define PROBE(name) header_c99_##name
#endif

#ifdef __cplusplus
extern "C" {
#endif
int PROBE(error_count)(void);
const char* PROBE(error_name)(int row);
int PROBE(error_value)(int row);
int PROBE(null_calls)(int* refused);
#ifdef __cplusplus
}
#endif

struct named_error {
  const char* name;
  velmora_svcmgr_error_e value;
};

#define ROW(name) {#name, name}

static const struct named_error errors[] = {
    ROW(SVCMGR_ERROR_NONE),
    ROW(SVCMGR_ERROR_CONNECTION_FAILED),
    ROW(SVCMGR_ERROR_IO_ERROR),
    ROW(SVCMGR_ERROR_OUT_OF_MEMORY),
    ROW(SVCMGR_ERROR_PERMISSION_DENIED),
    ROW(SVCMGR_ERROR_INVALID_PARAMETER),
    ROW(SVCMGR_ERROR_NO_SPACE),
    ROW(SVCMGR_ERROR_INVALID_OPERATION),
    ROW(SVCMGR_ERROR_ALREADY_CONNECTED),
    ROW(SVCMGR_ERROR_NOT_CONNECTED),
    ROW(SVCMGR_ERROR_NOT_SUPPORTED),
    ROW(SVCMGR_ERROR_INVALID_API_LEVEL),
    ROW(SVCMGR_ERROR_KYR_DISABLED),
    ROW(SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION),
    ROW(SVCMGR_ERROR_OUT_OF_INDEX),
    ROW(SVCMGR_ERROR_AGENT_CODE_3),
    ROW(SVCMGR_ERROR_AGENT_CODE_6),
};

int PROBE(error_count)(void) { return (int)(sizeof errors / sizeof errors[0]); }
const char* PROBE(error_name)(int row) { return errors[row].name; }
int PROBE(error_value)(int row) { return errors[row].value; }

/* Calls every function that takes arguments, with null for each pointer. */
int PROBE(null_calls)(int* refused) {
  velmora_svcmgr_connection_cb on_connection = 0;
  velmora_svcmgr_ai_model_list_cb on_models = 0;
  velmora_svcmgr_ai_model_info_h info = 0;
  velmora_svcmgr_ai_model_list_h list = 0;
  char** text = 0;
  const char* input = 0;
  int results[22];
  int calls = 0;
  int i;
  results[calls++] = velmora_svcmgr_connect(on_connection, 0);
  results[calls++] = velmora_svcmgr_get_license_fulltext(text);
  results[calls++] = velmora_svcmgr_get_agent_api_level(0);
  results[calls++] = velmora_svcmgr_ai_model_info_create(0);
  results[calls++] = velmora_svcmgr_ai_model_info_destroy(info);
  results[calls++] = velmora_svcmgr_ai_model_info_get_id(info, text);
  results[calls++] = velmora_svcmgr_ai_model_info_get_version(info, text);
  results[calls++] = velmora_svcmgr_ai_model_info_get_title(info, text);
  results[calls++] = velmora_svcmgr_ai_model_info_get_description(info, text);
  results[calls++] = velmora_svcmgr_ai_model_info_set_id(info, input);
  results[calls++] = velmora_svcmgr_ai_model_info_set_version(info, input);
  results[calls++] = velmora_svcmgr_ai_model_info_set_title(info, input);
  results[calls++] = velmora_svcmgr_ai_model_info_set_description(info, input);
  results[calls++] = velmora_svcmgr_ai_model_list_create(0);
  results[calls++] = velmora_svcmgr_ai_model_list_destroy(list);
  results[calls++] = velmora_svcmgr_ai_model_list_add(list, info);
  results[calls++] = velmora_svcmgr_ai_model_list_get(list, 0, 0);
  results[calls++] = velmora_svcmgr_ai_model_list_get_size(list, 0);
  results[calls++] = velmora_svcmgr_ai_request_usable_model_list(on_models, 0);
  results[calls++] = velmora_svcmgr_ai_request_usable_model_list_with_description(on_models, 0);
  results[calls++] = velmora_svcmgr_ai_request_usable_model_list_with_category(on_models, input, 0);
  results[calls++] = velmora_svcmgr_ai_request_model_version_list(info, on_models, 0);
  *refused = 0;
  for (i = 0; i < calls; ++i) {
    if (results[i] == SVCMGR_ERROR_INVALID_PARAMETER) ++*refused;
  }
  return calls;
}
