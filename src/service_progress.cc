// SPDX-License-Identifier: Apache-2.0
#include "service_progress.h"

#include <cstdlib>

#include "frame.h"

int velmora_svcmgr_ai_progress_create(velmora_svcmgr_ai_progress_h* progress) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  auto* record = static_cast<velmora_svcmgr_ai_progress_s*>(std::calloc(1, sizeof **progress));
  RETURN_ERROR_IF(record == nullptr, "Failed to create update status handle.",
                  SVCMGR_ERROR_OUT_OF_MEMORY);
  *progress = record;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_progress_destroy(velmora_svcmgr_ai_progress_h progress) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  std::free(progress);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_progress_get_percentage(velmora_svcmgr_ai_progress_h progress,
                                              int* percentage) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  RETURN_IF_NULL(percentage, "Invalid parameter!!");
  *percentage = progress->percentage;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_progress_get_count(velmora_svcmgr_ai_progress_h progress, int* count) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  RETURN_IF_NULL(count, "Invalid parameter!!");
  *count = progress->count;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_progress_get_index(velmora_svcmgr_ai_progress_h progress, int* index) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  RETURN_IF_NULL(index, "Invalid parameter!!");
  *index = progress->index;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_progress_get_state(velmora_svcmgr_ai_progress_h progress, int* state) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  RETURN_IF_NULL(state, "Invalid parameter!!");
  *state = progress->state;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_progress_set_percentage(velmora_svcmgr_ai_progress_h progress,
                                              int percentage) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  progress->percentage = percentage;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_progress_set_count(velmora_svcmgr_ai_progress_h progress, int count) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  progress->count = count;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_progress_set_index(velmora_svcmgr_ai_progress_h progress, int index) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  progress->index = index;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_progress_set_state(velmora_svcmgr_ai_progress_h progress, int state) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(progress, "Invalid parameter!!");
  progress->state = state;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);
