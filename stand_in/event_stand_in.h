// SPDX-License-Identifier: Apache-2.0
#ifndef STAND_IN_EVENT_STAND_IN_H_
#define STAND_IN_EVENT_STAND_IN_H_

#include <bundle.h>

#include <string_view>

// Replaces the platform's application events: what is subscribed hears what the program says. Link
// it where no bus is to be asked.
namespace event_stand_in {

// Whether the platform refuses to end a subscription: it then goes on as if nobody had asked.
extern bool refuses_removal;

// Whether anybody is subscribed to the event.
bool IsSubscribed(std::string_view event);

// Runs the handler that is subscribed to `event`, with any name and any data, null included; nothing
// happens if there is none.
void Deliver(std::string_view event, const char* name, bundle* data);

}  // namespace event_stand_in

#endif  // STAND_IN_EVENT_STAND_IN_H_
