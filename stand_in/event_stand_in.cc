// SPDX-License-Identifier: Apache-2.0
#include "event_stand_in.h"

#include <app_event.h>

#include <algorithm>
#include <list>
#include <string>

#include "require.h"

struct event_handler {
  std::string event;
  event_cb callback;
  void* data;
};

namespace event_stand_in {

bool refuses_removal = false;

namespace {

std::list<event_handler> handlers;

auto Find(std::string_view event) {
  return std::find_if(handlers.begin(), handlers.end(),
                      [&](const event_handler& each) { return each.event == event; });
}

}  // namespace

bool IsSubscribed(std::string_view event) { return Find(event) != handlers.end(); }

void Deliver(std::string_view event, const char* name, bundle* data) {
  const auto found = Find(event);
  if (found == handlers.end()) return;
  // A copy: the handler may end its subscription.
  const event_handler handler = *found;
  handler.callback(name, data, handler.data);
}

}  // namespace event_stand_in

int event_add_event_handler(const char* event_name, event_cb callback, void* user_data,
                            event_handler_h* event_handler) {
  // One that would not go is replaced.
  event_stand_in::handlers.remove_if([&](const auto& each) { return each.event == event_name; });
  event_stand_in::handlers.push_back({event_name, callback, user_data});
  *event_handler = &event_stand_in::handlers.back();
  return 0;
}

int event_remove_event_handler(event_handler_h event_handler) {
  auto& handlers = event_stand_in::handlers;
  const auto found = std::find_if(handlers.begin(), handlers.end(),
                                  [&](const auto& each) { return &each == event_handler; });
  REQUIRE(found != handlers.end());
  if (event_stand_in::refuses_removal) return -1;
  handlers.erase(found);
  return 0;
}
