/* SPDX-License-Identifier: Apache-2.0 */
#ifndef APP_EVENT_H
#define APP_EVENT_H

/* Application events: named broadcasts between applications. */

#include <bundle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A subscription. */
typedef struct event_handler *event_handler_h;

/**
 * Called on the default GLib main context for each event of a subscribed name.
 *
 * `event_name` and `event_data` are borrowed for the duration of the call.
 */
typedef void (*event_cb)(const char *event_name, bundle *event_data, void *user_data);

/**
 * Subscribes to the events of one name. `event_handler` receives the subscription on success only.
 */
int event_add_event_handler(const char *event_name, event_cb callback, void *user_data,
                            event_handler_h *event_handler);

/** Ends a subscription; legal inside the handler itself, which is then not called again. */
int event_remove_event_handler(event_handler_h event_handler);

/** Sends an event to all subscribers; the data is copied. */
int event_publish_app_event(const char *event_name, bundle *event_data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* APP_EVENT_H */
