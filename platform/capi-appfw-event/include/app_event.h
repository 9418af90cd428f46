/* SPDX-License-Identifier: Apache-2.0 */
#ifndef APP_EVENT_H
#define APP_EVENT_H

/*
 * Application events: named broadcasts between applications.
 *
 * An event's name is "event.", the ID of the package that publishes it, "." and a suffix of
 * letters, digits, '_' and '-'. On the desktop events travel over the session bus, on which the
 * publisher owns its package's ID as a name; the ID must therefore be a valid bus name. An event
 * under the package's name is dropped if its sender does not own the name at that time, or is
 * another user's process. While no process of the package runs, any other of the same user can take
 * the name and send what it likes: an event is news, not proof.
 *
 * All functions return 0 on success, -22 for an invalid argument, -5 if there is no session bus or
 * it refuses, and -12 when memory is exhausted. They may be called from any thread; no lock is held
 * while a callback runs. None waits longer than it says for a bus that does not answer, and once
 * one has waited in vain, none waits at all until the bus shows that it is alive. The main loop is
 * never kept waiting.
 *
 * Where memory is short for a while, no event of an active subscription is lost: what cannot be
 * read or delivered is kept, and the main loop tries again ten times a second. Only a shortage
 * inside GLib ends the process, as everywhere.
 *
 * A child made by fork() has none of its parent's subscriptions: they are invalid in it, and
 * nothing is delivered to them. It subscribes and publishes over its own connection.
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
 * `event_name` and `event_data` are borrowed for the duration of the call. The callback must not
 * let an exception out.
 */
typedef void (*event_cb)(const char* event_name, bundle* event_data, void* user_data);

/**
 * Subscribes to the events of one name that are sent after the call. `event_handler` receives the
 * subscription on success only.
 *
 * A bus that does not answer within 100 ms is no failure: the subscription takes effect when the
 * bus answers, and what is sent before that is not heard. If that lasts, there is a record in the
 * log.
 *
 * If the bus goes away later, or refuses later, that is logged too; the subscription stays and is
 * quiet. A bus is looked for again at growing intervals, from a quarter of a second to a minute,
 * and by the next subscription or publication; that renews all subscriptions.
 */
int event_add_event_handler(const char* event_name, event_cb callback, void* user_data,
                            event_handler_h* event_handler);

/**
 * Ends a subscription; legal inside the handler itself, which is then not called again. Another
 * thread may still be inside the callback when the call returns. A subscription that does not exist
 * is invalid; nothing else makes it fail, not even a shortage of memory.
 */
int event_remove_event_handler(event_handler_h event_handler);

/**
 * Sends an event to all subscribers; the data is copied, and has been handed to the bus when the
 * call returns. Its texts must be UTF-8, and it may take up to 1 MiB as bytes. The caller's process
 * owns the package's name on the bus from then on, without ever queueing for it; -13 if another
 * process does.
 *
 * What a bus does not take within two seconds is kept, up to 64 MiB, and sent by the main loop; -5
 * beyond that. If the bus says only then that another process owns the name, that is logged.
 */
int event_publish_app_event(const char* event_name, bundle* event_data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* APP_EVENT_H */
