// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_VORLAEVENTHANDLER_H_
#define SVCMGR_VORLAEVENTHANDLER_H_

#include <app_common.h>
#include <app_event.h>

#include <string>
#include <utility>

#include "SvcmgrException.h"
#include "client_log.h"
#include "thread_exit.h"

// The event part of a subscriber: one event's name, and the subscription to it.
class VorlaEventHandler {
 public:
  explicit VorlaEventHandler(std::string name) : event_name(std::move(name)) {}

  // Subscribes, unless subscribed already. Throws RegisterEventException.
  void RegisterEvent() {
    if (event_handle != nullptr) return;
    event_handler_h handle = nullptr;
    const int result =
        event_add_event_handler(event_name.c_str(), event_callback, nullptr, &handle);
    if (result != 0) {
      CLIENT_ERROR_F("err: [%d (%s)] - [%s]", result, get_error_message(result),
                     event_name.c_str());
      throw RegisterEventException();
    }
    // Whoever subscribed inside the subscription came first.
    if (event_handle != nullptr) {
      event_remove_event_handler(handle);
    } else {
      event_handle = handle;
    }
  }

  // Ends the subscription, if there is one. It counts as ended also if the platform refuses. Throws
  // DeregisterEventException.
  void DeregisterEvent() {
    const event_handler_h handle = std::exchange(event_handle, nullptr);
    if (handle == nullptr) return;
    const int result = event_remove_event_handler(handle);
    if (result != 0) {
      CLIENT_ERROR_F("err: [%d]", result);
      throw DeregisterEventException();
    }
  }

  // The two below work for a function of a subscriber, in whose name a failure is logged. False if
  // it fails.

  // The application may take its wish back inside the subscription, which then ends again.
  template <typename IsWanted>
  bool Subscribe(const svcmgr::CallSite& site, IsWanted is_wanted) {
    try {
      RegisterEvent();
    }
    LET_THREAD_EXIT_PASS
    catch (...) {
      CLIENT_ERROR_AT(site, "Failed to register event");
      return false;
    }
    return is_wanted() || Unsubscribe(site);
  }

  bool Unsubscribe(const svcmgr::CallSite& site) {
    try {
      DeregisterEvent();
      return true;
    }
    LET_THREAD_EXIT_PASS
    catch (...) {
      CLIENT_ERROR_AT(site, "Failed to deregister event");
      return false;
    }
  }

  // A null name is no event's.
  bool IsNamed(const char* name) const { return name != nullptr && event_name == name; }

  std::string event_name;
  event_handler_h event_handle = nullptr;
  event_cb event_callback = nullptr;
};

#endif  // SVCMGR_VORLAEVENTHANDLER_H_
