/* SPDX-License-Identifier: Apache-2.0 */
#ifndef APP_EVENT_DESKTOP_H
#define APP_EVENT_DESKTOP_H

/*
 * What only the desktop has: a package's name on the session bus, which tells subscribers whose
 * events are the package's; and certainty about subscriptions. Return values as in app_event.h.
 */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Makes the calling process the one whose events are those of the package, until it ends, as its
 * first publication would. Never queues for the name: if another process owns it, the result is
 * -13, and the name will not come later by itself. -110 if the bus has not answered within two
 * seconds; it may still do so.
 */
int event_desktop_own_package(const char* package);

/**
 * Waits until the bus has taken all subscriptions that the process has made, so that no event can
 * be missed: for programs that start what they listen to. -110 if it has not within a minute, or if
 * there is no bus any more.
 */
int event_desktop_await_subscriptions(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* APP_EVENT_DESKTOP_H */
