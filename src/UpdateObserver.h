// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_UPDATEOBSERVER_H_
#define SVCMGR_UPDATEOBSERVER_H_

#include <app_event.h>

// Reacts to the agent's announcements of its own update: the loss of the connection that follows
// "Update" is kept from the application, and "Launch" connects again.
void AgentEventCallback(const char* event_name, bundle* data, void* user_data);

// Marks that the agent is about to replace itself.
void PrepareSvcmgrUpdate();

#endif  // SVCMGR_UPDATEOBSERVER_H_
