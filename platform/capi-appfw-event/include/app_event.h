/* SPDX-License-Identifier: Apache-2.0 */
#ifndef APP_EVENT_H
#define APP_EVENT_H

/*
 * Application events: named broadcasts between applications.
 *
 * An event's name is "event.", the ID of the package that publishes it, "." and a suffix of letters,
 * digits, '_' and '-'. On the desktop events travel over the session bus, on which the publisher owns
 * its package's ID as a name; the ID must therefore be a valid bus name. An event that anybody else
 * sends under the package's name is dropped.
 *
 * All functions return 0 on success, -22 for an invalid argument, -5 if there is no session bus or it
 * refuses, and -12 when memory is exhausted. They may be called from any thread; no lock is held while
 * a callback runs.
 */

#include <bundle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** A subscription. */
typedef struct event_handler* event_handler_h;

/**
 * Called on the default GLib main context for each event of a subscribed name.
 *
 * `event_name` and `event_data` are borrowed for the duration of the call. The callback must not let an
 * exception out.
 */
typedef void (*event_cb)(const char* event_name, bundle* event_data, void* user_data);

/**
 * Subscribes to the events of one name, from those on that are sent after the call. `event_handler`
 * receives the subscription on success only.
 *
 * If the bus goes away later, the subscription stays and is quiet. The next subscription or publication
 * looks for a bus again, and subscriptions made before then take part in it.
 */
int event_add_event_handler(const char* event_name, event_cb callback, void* user_data,
                            event_handler_h* event_handler);

/**
 * Ends a subscription; legal inside the handler itself, which is then not called again. Another thread
 * may still be inside the callback when the call returns. A subscription that is not there is invalid.
 */
int event_remove_event_handler(event_handler_h event_handler);

/**
 * Sends an event to all subscribers; the data is copied, and has been handed to the bus when the call
 * returns. Its texts must be UTF-8, and it may take up to 1 MiB as bytes. The caller's process owns the
 * package's name on the bus from then on; -13 if another process does.
 */
int event_publish_app_event(const char* event_name, bundle* event_data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* APP_EVENT_H */
