// SPDX-License-Identifier: Apache-2.0
#include "service_model_info.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "frame.h"
#include "kept_blocks.h"

namespace svcmgr {

namespace {

constexpr std::size_t kMaxTextBytes = 2048;

// The field's former text stays allocated on purpose: a record is filled once, right after it was
// made.
void SetText(char*& field, const char* text) {
  char* const copy = CopyModelText(text);
  KeepBlock(field);
  field = copy;
}

}  // namespace

char* CopyModelText(const char* text) {
  char* copy = strndup(text, kMaxTextBytes);
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

OwnedModelInfo CopyModelInfo(const velmora_svcmgr_ai_model_info_s* info) {
  if (info == nullptr) throw std::logic_error("null model");
  OwnedModelInfo copy(static_cast<velmora_svcmgr_ai_model_info_s*>(std::calloc(1, sizeof *info)));
  if (copy == nullptr) throw std::bad_alloc();
  for (const auto field :
       {&velmora_svcmgr_ai_model_info_s::id, &velmora_svcmgr_ai_model_info_s::version,
        &velmora_svcmgr_ai_model_info_s::title, &velmora_svcmgr_ai_model_info_s::description}) {
    if (info->*field != nullptr) copy.get()->*field = CopyModelText(info->*field);
  }
  return copy;
}

void FreeModelInfo(velmora_svcmgr_ai_model_info_s* info) noexcept {
  std::free(info->id);
  std::free(info->version);
  std::free(info->description);
  std::free(info->title);
  std::free(info);
}

}  // namespace svcmgr

int velmora_svcmgr_ai_model_info_create(velmora_svcmgr_ai_model_info_h* info) try {
  CLIENT_INFO("velmora_svcmgr_ai_model_info_create");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter!!");
  auto* record = static_cast<velmora_svcmgr_ai_model_info_s*>(std::calloc(1, sizeof **info));
  RETURN_ERROR_IF(record == nullptr, "Failed to create velmora_svcmgr_ai_model_info_h.",
                  SVCMGR_ERROR_OUT_OF_MEMORY);
  *info = record;
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_info_destroy(velmora_svcmgr_ai_model_info_h info) try {
  CLIENT_INFO("velmora_svcmgr_ai_model_info_destroy");
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter!!");
  svcmgr::FreeModelInfo(info);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_info_get_id(velmora_svcmgr_ai_model_info_h info, char** text) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter");
  RETURN_IF_NULL(text, "Invalid parameter");
  RETURN_ERROR_IF(info->id == nullptr, "handle has wrong data", SVCMGR_ERROR_INVALID_OPERATION);
  *text = svcmgr::CopyModelText(info->id);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_info_get_version(velmora_svcmgr_ai_model_info_h info, char** text) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter");
  RETURN_IF_NULL(text, "Invalid parameter");
  RETURN_ERROR_IF(info->version == nullptr, "Handle has wrong data",
                  SVCMGR_ERROR_INVALID_OPERATION);
  *text = svcmgr::CopyModelText(info->version);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_info_get_title(velmora_svcmgr_ai_model_info_h info, char** text) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter");
  RETURN_IF_NULL(text, "Invalid parameter");
  RETURN_ERROR_IF(info->title == nullptr, "Handle has wrong data", SVCMGR_ERROR_INVALID_OPERATION);
  *text = svcmgr::CopyModelText(info->title);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_info_get_description(velmora_svcmgr_ai_model_info_h info,
                                                 char** text) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter");
  RETURN_IF_NULL(text, "Invalid parameter");
  RETURN_ERROR_IF(info->description == nullptr, "Handle has wrong data",
                  SVCMGR_ERROR_INVALID_OPERATION);
  *text = svcmgr::CopyModelText(info->description);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_info_set_id(velmora_svcmgr_ai_model_info_h info, const char* text) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter");
  RETURN_IF_NULL(text, "Invalid parameter");
  svcmgr::SetText(info->id, text);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_info_set_version(velmora_svcmgr_ai_model_info_h info,
                                             const char* text) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter");
  RETURN_IF_NULL(text, "Invalid parameter");
  svcmgr::SetText(info->version, text);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_info_set_title(velmora_svcmgr_ai_model_info_h info,
                                           const char* text) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter");
  RETURN_IF_NULL(text, "Invalid parameter");
  svcmgr::SetText(info->title, text);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

int velmora_svcmgr_ai_model_info_set_description(velmora_svcmgr_ai_model_info_h info,
                                                 const char* text) try {
  RETURN_IF_AGENT_MISSING();
  RETURN_IF_NULL(info, "Invalid parameter");
  RETURN_IF_NULL(text, "Invalid parameter");
  svcmgr::SetText(info->description, text);
  return SVCMGR_ERROR_NONE;
}
RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);
