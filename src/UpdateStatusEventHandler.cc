// SPDX-License-Identifier: Apache-2.0
#include "UpdateStatusEventHandler.h"

#include <iterator>

#include "agent_update_state.h"
#include "app_identity.h"
#include "event_data.h"
#include "frame.h"

namespace {

constexpr int kStatusOfResult[] = {
    /*  0 */ SVCMGR_UPDATE_STATUS_COMPLETED,
    /*  1 */ SVCMGR_UPDATE_STATUS_RESULT_1,
    /*  2 */ SVCMGR_UPDATE_STATUS_FAILED,
    /*  3 */ SVCMGR_UPDATE_STATUS_RESULT_3,
    /*  4 */ SVCMGR_UPDATE_STATUS_FAILED,
    /*  5 */ SVCMGR_UPDATE_STATUS_FAILED,
    /*  6 */ SVCMGR_UPDATE_STATUS_FAILED,
    /*  7 */ SVCMGR_UPDATE_STATUS_RESULT_7,
    /*  8 */ SVCMGR_UPDATE_STATUS_FAILED,
    /*  9 */ SVCMGR_UPDATE_STATUS_FAILED,
    /* 10 */ SVCMGR_UPDATE_STATUS_RESULT_10,
    /* 11 */ SVCMGR_UPDATE_STATUS_FAILED,
    /* 12 */ SVCMGR_UPDATE_STATUS_FAILED,
    /* 13 */ SVCMGR_UPDATE_STATUS_RESULT_13,
};

int StatusOfResult(int result) {
  // Unsigned, so that a negative result is out of the table too.
  const auto index = static_cast<unsigned>(result);
  return index < std::size(kStatusOfResult) ? kStatusOfResult[index] : SVCMGR_UPDATE_STATUS_FAILED;
}

// A failure with the code of success is a failure.
int StatusOfFailure(int code) {
  return code == 0 ? SVCMGR_UPDATE_STATUS_FAILED : StatusOfResult(code);
}

}  // namespace

UpdateStatusEventHandler::UpdateStatusEventHandler()
    : event_("event." AGENT_PACKAGE_ID ".update_status") {
  event_.event_callback = UpdateEventCallback;
}

bool UpdateStatusEventHandler::SetEventCallback(velmora_svcmgr_update_status_cb callback,
                                                void* user_data) {
  callback_ = callback;
  user_data_ = user_data;
  return event_.Subscribe(SVCMGR_HERE, [this] { return callback_ != nullptr; });
}

bool UpdateStatusEventHandler::UnsetEventCallback() {
  callback_ = nullptr;
  user_data_ = nullptr;
  return event_.Unsubscribe(SVCMGR_HERE);
}

// The first of the keys that is present counts.
void UpdateStatusEventHandler::UpdateEventCallback(const char* event_name, bundle* data,
                                                   void*) try {
  const UpdateStatusEventHandler& self = GetInstance();
  if (!self.event_.IsNamed(event_name)) return;
  if (svcmgr::HoldsTexts(data, "Start")) {
    svcmgr::agent_update_state.Start();
    self.Notify(SVCMGR_UPDATE_STATUS_STARTED);
    return;
  }
  // Not copied: the end of an update must not be lost for want of memory.
  const svcmgr::Text app_id = svcmgr::TakeAppText(app_get_id);
  if (app_id == nullptr || *app_id == '\0') {
    CLIENT_ERROR("Failed to get app ID.");
  } else if (const auto result = svcmgr::ReadNumber(data, app_id.get())) {
    self.NotifyFinal(StatusOfResult(*result));
    return;
  }
  if (svcmgr::HoldsText(data, "Complete")) {
    self.NotifyFinal(SVCMGR_UPDATE_STATUS_COMPLETED);
  } else if (const auto code = svcmgr::ReadNumber(data, "Fail")) {
    self.NotifyFinal(StatusOfFailure(*code));
  }
}
RETURN_ON_EXCEPTION();

void UpdateStatusEventHandler::Notify(int status) const {
  // Copies: the callback may set another one.
  const auto callback = callback_;
  void* const user_data = user_data_;
  if (callback != nullptr) callback(status, user_data);
}

// Reports the end of an update that is under way; of a repeated end nobody hears.
void UpdateStatusEventHandler::NotifyFinal(int status) const {
  // Behind the callback, and also if that throws.
  struct EndUpdate {
    ~EndUpdate() { svcmgr::agent_update_state.End(); }
  } const end_update;
  if (!svcmgr::agent_update_state.IsIdle()) Notify(status);
}
