// SPDX-License-Identifier: Apache-2.0
#include "subscriptions.h"

#include <utility>

#include "failure.h"
#include "velmora_svcmgr.h"

namespace svcmgrctl {
namespace {

void OnUpdate(int status, void* heard) { (*static_cast<std::function<void(int)>*>(heard))(status); }

void OnModel(int error, int status, void* heard) {
  (*static_cast<std::function<void(int, int)>*>(heard))(error, status);
}

}  // namespace

UpdateSubscription::UpdateSubscription(std::function<void(int)> heard) : heard_(std::move(heard)) {
  const int code = velmora_svcmgr_set_update_status_cb(OnUpdate, &heard_);
  if (code != SVCMGR_ERROR_NONE) throw FailureOf(code);
}

UpdateSubscription::~UpdateSubscription() { velmora_svcmgr_unset_update_status_cb(); }

ModelSubscription::ModelSubscription(std::function<void(int, int)> heard)
    : heard_(std::move(heard)) {
  const int code = velmora_svcmgr_ai_register_status_cb(OnModel, &heard_);
  if (code != SVCMGR_ERROR_NONE) throw FailureOf(code);
}

ModelSubscription::~ModelSubscription() { velmora_svcmgr_ai_deregister_status_cb(); }

}  // namespace svcmgrctl
