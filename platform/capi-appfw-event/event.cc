// SPDX-License-Identifier: Apache-2.0
#include <app_event.h>
#include <app_event_desktop.h>
#include <bundle_desktop.h>
#include <errno.h>
#include <stdlib.h>

#include <exception>

#include "event_hub.h"
#include "owned.h"

using events::EventHub;
using events::EventName;

int event_add_event_handler(const char* event_name, event_cb callback, void* user_data,
                            event_handler_h* event_handler) try {
  EventName name;
  if (!callback || !event_handler || !EventName::Parse(event_name, &name)) return -EINVAL;
  return EventHub::Get().Add(name, callback, user_data, event_handler);
} catch (const std::exception&) {
  return -ENOMEM;
}

int event_remove_event_handler(event_handler_h event_handler) try {
  if (!event_handler) return -EINVAL;
  return EventHub::Get().Remove(event_handler);
} catch (const std::exception&) {
  return -ENOMEM;
}

int event_publish_app_event(const char* event_name, bundle* event_data) try {
  EventName name;
  if (!event_data || !EventName::Parse(event_name, &name)) return -EINVAL;
  unsigned char* bytes = nullptr;
  size_t size = 0;
  const int error = bundle_desktop_encode(event_data, &bytes, &size);
  const base::Malloced<unsigned char> owned(bytes);
  return error ? error : EventHub::Get().Publish(name, bytes, size);
} catch (const std::exception&) {
  return -ENOMEM;
}

int event_desktop_await_subscriptions(void) try {
  return EventHub::Get().AwaitSubscriptions();
} catch (const std::exception&) {
  return -ENOMEM;
}

int event_desktop_own_package(const char* package) try {
  EventName name;
  if (!package || !EventName::Parse(("event." + std::string(package) + ".name").c_str(), &name)) {
    return -EINVAL;
  }
  return EventHub::Get().Claim(name.package);
} catch (const std::exception&) {
  return -ENOMEM;
}
