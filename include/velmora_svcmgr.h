/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VELMORA_SVCMGR_H
#define VELMORA_SVCMGR_H

/**
 * @file
 * Client interface of the device's service-manager agent, which keeps service agents and on-device
 * AI models up to date.
 *
 * An application connects once, then asks. Results that the agent needs time for arrive in
 * callbacks.
 *
 *     velmora_svcmgr_connect(on_connection, NULL);
 *     g_main_loop_run(loop);
 *
 *     void on_connection(int result, int state, void *user_data) {
 *       if (state == SVCMGR_CONNECTION_STATE_CONNECTED)
 *         velmora_svcmgr_ai_request_usable_model_list(on_models, NULL);
 *     }
 *
 * Conventions
 *
 *  1. Error codes. Every function returns SVCMGR_ERROR_NONE or a negative code of
 *     velmora_svcmgr_error_e, and never throws. The codes that a function returns are listed with
 *     it, but for two that are the same everywhere: SVCMGR_ERROR_NOT_SUPPORTED when the agent's
 *     package is not installed, which is found before any argument is looked at; and
 *     SVCMGR_ERROR_INVALID_OPERATION, unless the function names another, when something unforeseen
 *     happens inside, such as memory running out.
 *  2. Outputs are written on success only. After a failure they hold what they held before.
 *  3. Texts are NUL-terminated. A text that a function hands out is a copy that belongs to the
 *     caller, who releases it with free(). A text that is handed in is copied.
 *  4. Handles come from a `_create` function, from a function that says so, or with a callback;
 *     they belong to the application, which releases each with the `_destroy` function of its
 *     kind. A handle is not thread-safe. A handle that was destroyed must not be passed in again.
 *  5. Callbacks run on the thread that runs the application's main loop (the default GLib main
 *     context). They may call any function of this interface, velmora_svcmgr_disconnect and
 *     velmora_svcmgr_connect included. After velmora_svcmgr_disconnect has ended a connection, no
 *     callback of that connection runs. A platform may run callbacks inside a request, which then
 *     keeps the requests of other threads waiting: a callback must not wait for those. C++: an
 *     exception that leaves a callback is caught and logged.
 *  6. User data is passed back as it is. The library never reads, copies or releases it.
 *  7. Threads. Call velmora_svcmgr_connect and velmora_svcmgr_disconnect on the main-loop thread,
 *     and disconnect only when no other thread is inside a call: such a call fails, and how well
 *     is up to the platform. The library itself does so when it reconnects after an update of the
 *     agent: make requests on the main-loop thread, or let none be under way while the agent
 *     replaces itself. Set, unset, register and deregister callbacks on the main-loop thread. The
 *     other functions may be called on any thread. The library starts no thread and sets no timer.
 *  8. Blocking. A function that says "blocks" waits for the agent's answer, however long that
 *     takes. While one thread waits so, requests of other threads wait too; on the main-loop
 *     thread prefer the requests that are answered by callbacks. A thread that is cancelled while
 *     it waits leaves its answer behind for the next one to take: disconnect then. Of the others,
 *     velmora_svcmgr_get_client_api_level reads files, a request may wait for the agent to take
 *     what was sent before, and the rest return at once. A list of models is made on the main-loop
 *     thread, right before its callback: that takes time for each model, about half a millisecond
 *     for a thousand on a desktop's processor.
 *  9. Forks. In a child made by fork() the library is as if nothing had been called: not connected,
 *     nothing subscribed, no update under way. Requests return SVCMGR_ERROR_NOT_CONNECTED, and
 *     connecting and subscribing anew gives the child a connection and subscriptions of its own.
 *     No callback comes in it for what its parent has asked for, and nothing that it does, its end
 *     included, touches the parent's connection. Handles are memory and stay valid in both. As
 *     everywhere, a child that was forked while another thread was inside a call had better do
 *     nothing but run another program. GLib shares the wake-ups of the default main context
 *     between both: while the child runs it, what other threads hand to the parent's may begin late.
 *
 * Traps
 *
 * What an application would not expect. None of it will change, because applications rely on it.
 * The functions refer to these numbers.
 *
 * Connecting:
 *
 *  1. After a loss or a refusal, velmora_svcmgr_connect returns success and starts nothing, and
 *     velmora_svcmgr_disconnect does not help, because there is no connection to end. The way out
 *     is the agent's own: when it announces that it was launched, the library connects again. It
 *     listens for that announcement only once a connection has stood: after a refusal of the first
 *     attempt, or a loss before the agent had accepted, there is no way out but a new process.
 *  2. velmora_svcmgr_disconnect does nothing, successfully, unless the connection stands: also
 *     while connecting, when the connection callback may still come, and while the agent replaces
 *     itself, when the library connects again afterwards.
 *  3. Unless the agent is not installed, the callback is null or the connection stands,
 *     velmora_svcmgr_connect replaces the connection callback and its user data: also when it
 *     starts nothing, as in trap 1 or while an attempt is under way, and when it fails.
 *  4. A failure of the platform to connect that is neither SVCMGR_ERROR_CONNECTION_FAILED nor
 *     SVCMGR_ERROR_PERMISSION_DENIED is not reported: velmora_svcmgr_connect returns success, the
 *     callback never comes, and connecting again starts nothing. Guard the wait with a time limit
 *     of your own. The same may befall the library's own reconnection; there is no way out of
 *     either but a new process. After a reconnection that failed otherwise, connect again.
 *  5. Should the platform report a connection and fail all the same, the callback has said
 *     connected while velmora_svcmgr_connect returns a failure. Queries then fail as if the agent
 *     could not be asked, and velmora_svcmgr_disconnect leads out.
 *  6. The library hears the agent's announcements through a subscription, which it makes when a
 *     connection stands. That the platform refuses it is only logged. There is no automatic
 *     reconnection then: an update of the agent shows as a loss, and a loss has no way out. The
 *     next connection that stands tries again: disconnect and connect, while there is no loss yet.
 *
 * While the agent replaces itself by a new version, which it announces, the library reconnects by
 * itself:
 *
 *  7. Neither the loss nor the return of the connection is reported, nor a reconnection that cannot
 *     be started. One that the agent refuses is reported. Between loss and return, all that needs a
 *     connection is answered with SVCMGR_ERROR_NOT_CONNECTED, except for the model requests, for
 *     which see trap 12.
 *  8. The loss is reported all the same if, between the announcement and the loss, this process
 *     asks for an update, or hears that one has begun or ended. Only a process that has set an
 *     update status callback hears that.
 *  9. An announcement outlives the connection: it survives disconnecting and connecting again, and
 *     the next loss, whatever its cause, is not reported.
 * 10. Once the library has reconnected so, no connection is reported to stand, one that the
 *     application made itself included, and velmora_svcmgr_is_being_updated says true. Both last
 *     until the end of the update is heard (see trap 8). The first also ends when another update is
 *     requested, announced, or heard to begin; the second also when one is requested.
 * 11. A request for an update makes velmora_svcmgr_is_being_updated deny any update that is under
 *     way, until the next announcement or start is heard.
 *
 * Requests:
 *
 * 12. The model requests do not look at whether the connection stands. After a loss, and until the
 *     library has reconnected, such a request may be taken, and is then never answered; or it fails
 *     with SVCMGR_ERROR_INVALID_OPERATION, as it does while connecting. SVCMGR_ERROR_NOT_CONNECTED
 *     says that no connection was started, that it was ended, or that the attempt failed.
 * 13. A request that was answered may be answered again until the connection ends. One that was not
 *     answered by then never is.
 * 14. The agent's results 2 and 10 reach callbacks of model requests as SVCMGR_ERROR_NONE.
 * 15. velmora_svcmgr_get_license_fulltext returns SVCMGR_ERROR_NONE also when the agent cannot be
 *     asked or has no text, and leaves *text as it was. Set *text to null before the call, and test
 *     it afterwards. It is null, too, when memory is exhausted.
 * 16. velmora_svcmgr_request_update has SVCMGR_ERROR_NOT_CONNECTED for every failure of the request
 *     itself, unless the agent refuses or the KYR feature is disabled; also for one that the agent
 *     reports.
 * 17. velmora_svcmgr_request_update_with_list does not look at what the agent answers. Success says
 *     that it was asked; whether it will do so, only the update status callback tells.
 * 18. An update that is requested inside the update status callback of an end is forgotten: its end
 *     is not reported, unless its start is.
 * 19. The search for the application of a category ends, with nothing found, at the first package
 *     whose ID or version cannot be read, and at the first of the vendor's packages whose ID is not
 *     that of an application. A match that comes later is not found.
 * 20. velmora_svcmgr_get_client_api_level ends the process by abort() if the platform gives no
 *     path of the application's resources, and where memory runs out while the path is made.
 *
 * Subscriptions:
 *
 * 21. velmora_svcmgr_set_update_status_cb and velmora_svcmgr_ai_register_status_cb succeed also
 *     when the platform refuses the subscription, which is only logged. The callback is kept;
 *     calling the function again tries again.
 * 22. When the platform refuses to end a subscription, it counts as ended all the same.
 *     velmora_svcmgr_unset_update_status_cb then succeeds,
 *     velmora_svcmgr_ai_deregister_status_cb fails.
 *
 * Handles and memory:
 *
 * 23. A negative index is not detected. Passing one is an error of the caller with undefined
 *     outcome.
 * 24. velmora_svcmgr_ai_model_list_destroy may stop midway, with the code of the model that could
 *     not be released. The list, its size and its indices stay as they were. Reading a model that
 *     was released, and a request with the list, return SVCMGR_ERROR_INVALID_OPERATION. The call
 *     may be repeated.
 * 25. Until the process ends, these stay allocated: the array of a destroyed list that ever held
 *     anything, a pointer for each element, their number rounded up to a power of two; the former
 *     text of a model when one is set again; a copy of the models of each answer; and a platform
 *     record of each application that a request by category looks at. Set each text once, and ask
 *     when something may have changed, not all the time. All of it stays reachable from the library:
 *     what a leak checker reports is the application's.
 */

#ifndef __cplusplus
#include <stdbool.h>
#endif

#define VELMORA_SVCMGR_VERSION_MAJOR 2
#define VELMORA_SVCMGR_VERSION_MINOR 3
#define VELMORA_SVCMGR_VERSION_PATCH 182

/** The client API level of this header. */
#define VELMORA_SVCMGR_API_LEVEL 11

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif
#ifdef __cplusplus
extern "C" {
#endif

/** What a function returns, and what a callback receives as its error. */
typedef enum {
  /** Success. */
  SVCMGR_ERROR_NONE = 0,
  /** Connecting failed: the agent is not running, or it offers no such port. */
  SVCMGR_ERROR_CONNECTION_FAILED = -1,
  /** Input or output failed in a lower layer. No function returns it so far. */
  SVCMGR_ERROR_IO_ERROR = -5,
  /** A handle could not be allocated. */
  SVCMGR_ERROR_OUT_OF_MEMORY = -12,
  /** The application may not connect to the agent, or the agent refuses what was asked. */
  SVCMGR_ERROR_PERMISSION_DENIED = -13,
  /** A required argument is null or out of its range. */
  SVCMGR_ERROR_INVALID_PARAMETER = -22,
  /** The agent reports lack of storage. */
  SVCMGR_ERROR_NO_SPACE = -28,
  /** The operation could not be carried out. */
  SVCMGR_ERROR_INVALID_OPERATION = -38,
  /** The application is connected already. */
  SVCMGR_ERROR_ALREADY_CONNECTED = -106,
  /** The application is not connected. */
  SVCMGR_ERROR_NOT_CONNECTED = -107,
  /** The agent's package is not installed on the device. */
  SVCMGR_ERROR_NOT_SUPPORTED = -1073741822, /* 0xC0000002 */
  /** The agent's API level could not be obtained. */
  SVCMGR_ERROR_INVALID_API_LEVEL = -1073741825, /* 0xBFFFFFFF */
  /** The agent reports that the KYR feature is disabled. */
  SVCMGR_ERROR_KYR_DISABLED = -1073741826, /* 0xBFFFFFFE */
  /** The installed agent is older than the function needs. */
  SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION = -1073741827, /* 0xBFFFFFFD */
  /** The agent's result 6; its meaning is the agent's. */
  SVCMGR_ERROR_AGENT_CODE_6 = -1073741829, /* 0xBFFFFFFB */
  /** An index is not below the size of the list. */
  SVCMGR_ERROR_OUT_OF_INDEX = -1073741830, /* 0xBFFFFFFA */
  /** The agent's result 3; its meaning is the agent's. */
  SVCMGR_ERROR_AGENT_CODE_3 = -1073741831 /* 0xBFFFFFF9 */
} velmora_svcmgr_error_e;

/* ---- Connection --------------------------------------------------------------------------- */

/** What has become of the connection. */
typedef enum {
  /** The connection stands. */
  SVCMGR_CONNECTION_STATE_CONNECTED = 0,
  /** The agent is gone. */
  SVCMGR_CONNECTION_STATE_DISCONNECTED = 1,
  /** The agent refused the application. */
  SVCMGR_CONNECTION_STATE_REJECTED = 2
} velmora_svcmgr_connection_state_e;

/**
 * Reports a change of the connection; comes each time that the connection stands, is lost or is
 * refused, except while the agent replaces itself and for some time afterwards (traps 6 to 10).
 *
 * @param result     SVCMGR_ERROR_NONE; SVCMGR_ERROR_PERMISSION_DENIED if the agent refused.
 * @param state      One of velmora_svcmgr_connection_state_e.
 * @param user_data  As given to velmora_svcmgr_connect.
 */
typedef void (*velmora_svcmgr_connection_cb)(int result, int state, void* user_data);

/**
 * Starts connecting to the agent. Success means that the attempt was started; the callback reports
 * how it ended, unless the agent is being updated (trap 10). The callback may run before this
 * function returns.
 *
 * A call while an attempt is under way starts no second one; nor does one after a loss or a refusal
 * (trap 1). Not every failure is reported (trap 4), and the callback may say connected although
 * this function fails (trap 5).
 *
 * @param callback   Reports changes of the connection. It and user_data must stay valid until they
 *                   are replaced (trap 3), or for as long as connections are attempted, which may
 *                   be for the life of the process.
 * @param user_data  Passed to the callback; may be null.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  callback is null
 * @return SVCMGR_ERROR_ALREADY_CONNECTED  the connection stands
 * @return SVCMGR_ERROR_CONNECTION_FAILED  there is no such agent, it is not running, or the platform
 *                                         is short of memory or descriptors; connect again then
 * @return SVCMGR_ERROR_PERMISSION_DENIED  the application may not connect
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_connect(velmora_svcmgr_connection_cb callback, void* user_data);

/**
 * Ends the connection. Requests that were not answered yet are dropped: their callbacks never come.
 * The connection callback is not called. Does nothing, successfully, while the connection does not
 * stand (traps 1 and 2).
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION; the connection stands on then
 */
int velmora_svcmgr_disconnect(void);

/* ---- The agent ---------------------------------------------------------------------------- */

/**
 * Asks the agent for its licence text. Blocks.
 *
 * @param[out] text  The licence text; released by the caller with free().
 *
 * @return SVCMGR_ERROR_NONE               also without a text (trap 15)
 * @return SVCMGR_ERROR_INVALID_PARAMETER  text is null
 * @return SVCMGR_ERROR_NOT_CONNECTED      not connected
 * @return SVCMGR_ERROR_KYR_DISABLED       the KYR feature is disabled
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_get_license_fulltext(char** text);

/**
 * Asks the agent for the API level that it implements. Blocks.
 *
 * @param[out] level  The level as the agent reports it; 0 and negative levels are passed on.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  level is null
 * @return SVCMGR_ERROR_NOT_CONNECTED      not connected
 * @return SVCMGR_ERROR_INVALID_API_LEVEL  the agent could not be asked, or answered -1
 * @return SVCMGR_ERROR_KYR_DISABLED       the KYR feature is disabled
 * @return SVCMGR_ERROR_NOT_SUPPORTED
 */
int velmora_svcmgr_get_agent_api_level(int* level);

/**
 * Tells which client API level the calling application was built against. The level is read from
 * marker sections in the files of the application's own folder: the newest one counts, that is the
 * one with the highest level, and a level of 0 never does. Reads all ELF files below that folder,
 * which may take a while, and asks nobody. Symbolic links are not followed: a folder that is one
 * itself has no level. What cannot be read is passed over without an error.
 *
 * Call it on one thread at a time. It may end the process by abort() (trap 20).
 *
 * @param[out] level  The level, 1 or more.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  level is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED      no file has a marker, the folder cannot be read, or
 *                                         memory is exhausted; also when the agent's package is
 *                                         not installed
 * @return SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_get_client_api_level(int* level);

/* ---- Updates of the agents ---------------------------------------------------------------- */

/** Names of agents, in the order in which they were added. */
typedef struct velmora_svcmgr_agent_list_s* velmora_svcmgr_agent_list_h;

/**
 * Makes an empty list.
 *
 * @param[out] list  The list; released with velmora_svcmgr_agent_list_destroy.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list is null
 * @return SVCMGR_ERROR_OUT_OF_MEMORY      memory is exhausted
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_agent_list_create(velmora_svcmgr_agent_list_h* list);

/**
 * Releases a list and its names, but for the array of a list that ever held one (trap 25).
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION; the list is kept then
 */
int velmora_svcmgr_agent_list_destroy(velmora_svcmgr_agent_list_h list);

/**
 * Adds a copy of a name at the end of a list.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list or agent is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_agent_list_add(velmora_svcmgr_agent_list_h list, const char* agent);

/**
 * Copies a name out of a list.
 *
 * @param      list   The list.
 * @param      index  From 0 to the size less 1 (trap 23).
 * @param[out] agent  A copy of the name; released by the caller with free().
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list or agent is null
 * @return SVCMGR_ERROR_OUT_OF_INDEX       index is not below the size
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_agent_list_get(velmora_svcmgr_agent_list_h list, int index, char** agent);

/**
 * The number of names in a list.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list or size is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_agent_list_get_size(velmora_svcmgr_agent_list_h list, int* size);

/**
 * Asks the agent to update all agents, itself included. Blocks until the agent has taken the
 * request; velmora_svcmgr_set_update_status_cb tells how the update goes. A request changes what is
 * reported of an update that is under way (traps 8 and 11).
 *
 * @return SVCMGR_ERROR_NONE               the agent took the request
 * @return SVCMGR_ERROR_NOT_CONNECTED      not connected, or the request failed (trap 16)
 * @return SVCMGR_ERROR_PERMISSION_DENIED  the agent refuses
 * @return SVCMGR_ERROR_KYR_DISABLED       the KYR feature is disabled
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_request_update(void);

/**
 * Asks the agent to update the named agents. Blocks until the agent has answered, whatever that is
 * (trap 17). As with velmora_svcmgr_request_update, a request changes what is reported of an update
 * that is under way (traps 8 and 11).
 *
 * @param list  The names; may be empty. It is copied.
 *
 * @return SVCMGR_ERROR_NONE                       the agent was asked
 * @return SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION  the agent is older than 2.3
 * @return SVCMGR_ERROR_INVALID_PARAMETER          list is null
 * @return SVCMGR_ERROR_NOT_CONNECTED              not connected, or the request failed
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_request_update_with_list(velmora_svcmgr_agent_list_h list);

/**
 * Tells whether an update of the agents is under way, as far as this process has heard: from the
 * agent's announcement that it replaces itself, or from the update's start, until the update's end.
 * Start and end are heard only by a process that has set an update status callback (trap 10). An
 * update that was requested and has not begun yet does not count, and hides others (trap 11).
 *
 * @param[out] updating  Whether it is.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  updating is null
 * @return SVCMGR_ERROR_NOT_CONNECTED      not connected
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_is_being_updated(bool* updating);

/** How an update of the agents goes. The meaning of the agent's results is the agent's. */
typedef enum {
  /** The update has begun. */
  SVCMGR_UPDATE_STATUS_STARTED = 0,
  /** The update has ended well, for the calling application or for all. */
  SVCMGR_UPDATE_STATUS_COMPLETED = 1,
  /** The update has failed with the agent's result 1. */
  SVCMGR_UPDATE_STATUS_RESULT_1 = 2,
  /** The update has failed with the agent's result 3. */
  SVCMGR_UPDATE_STATUS_RESULT_3 = 3,
  /** The update has failed with the agent's result 7. */
  SVCMGR_UPDATE_STATUS_RESULT_7 = 4,
  /** The update has failed with the agent's result 10. */
  SVCMGR_UPDATE_STATUS_RESULT_10 = 5,
  /** The update has failed with another result. */
  SVCMGR_UPDATE_STATUS_FAILED = 6,
  /** The update has failed with the agent's result 13. */
  SVCMGR_UPDATE_STATUS_RESULT_13 = 7
} velmora_svcmgr_update_status_e;

/**
 * Reports how an update of the agents goes: its start always, its end if there was a start, a
 * request or an announcement since the end before (trap 18).
 *
 * @param status     One of velmora_svcmgr_update_status_e.
 * @param user_data  As given to velmora_svcmgr_set_update_status_cb.
 */
typedef void (*velmora_svcmgr_update_status_cb)(int status, void* user_data);

/**
 * Sets who hears of updates of the agents, whoever asked for them. Needs no connection. A second
 * call replaces the callback and its user data. Succeeds also when the platform refuses the
 * subscription (trap 21).
 *
 * @param callback   Reports how updates go. It and user_data must stay valid until they are
 *                   replaced or unset.
 * @param user_data  Passed to the callback; may be null.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  callback is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_set_update_status_cb(velmora_svcmgr_update_status_cb callback, void* user_data);

/**
 * Ends what velmora_svcmgr_set_update_status_cb began; the callback is not called any more. Does
 * nothing, successfully, if nothing was set. Succeeds also when the platform refuses to end the
 * subscription (trap 22).
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION; the callback stays set then
 */
int velmora_svcmgr_unset_update_status_cb(void);

/* ---- AI models: one model ----------------------------------------------------------------- */

/**
 * One AI model: four texts, each absent until it is set.
 *
 *     id           identifies the model
 *     version      its version
 *     title        for display
 *     description  for display
 */
typedef struct velmora_svcmgr_ai_model_info_s* velmora_svcmgr_ai_model_info_h;

/**
 * Makes a model with no texts.
 *
 * @param[out] info  The model; released with velmora_svcmgr_ai_model_info_destroy.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  info is null
 * @return SVCMGR_ERROR_OUT_OF_MEMORY      memory is exhausted
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_model_info_create(velmora_svcmgr_ai_model_info_h* info);

/**
 * Releases a model and its texts.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  info is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION; the model is kept then
 */
int velmora_svcmgr_ai_model_info_destroy(velmora_svcmgr_ai_model_info_h info);

/**
 * Reads one text of a model.
 *
 * @param      info  The model.
 * @param[out] text  A copy of the text, at most 2048 bytes; released by the caller with free().
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  info or text is null
 * @return SVCMGR_ERROR_INVALID_OPERATION  the text was not set
 * @return SVCMGR_ERROR_NOT_SUPPORTED
 */
int velmora_svcmgr_ai_model_info_get_id(velmora_svcmgr_ai_model_info_h info, char** text);
/** As velmora_svcmgr_ai_model_info_get_id, for the version. */
int velmora_svcmgr_ai_model_info_get_version(velmora_svcmgr_ai_model_info_h info, char** text);
/** As velmora_svcmgr_ai_model_info_get_id, for the title. */
int velmora_svcmgr_ai_model_info_get_title(velmora_svcmgr_ai_model_info_h info, char** text);
/** As velmora_svcmgr_ai_model_info_get_id, for the description. */
int velmora_svcmgr_ai_model_info_get_description(velmora_svcmgr_ai_model_info_h info, char** text);

/**
 * Sets one text of a model to a copy of the first 2048 bytes of `text`; a multi-byte character may
 * be cut in two there.
 *
 * Set each text once: the former copy stays allocated (trap 25).
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  info or text is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_model_info_set_id(velmora_svcmgr_ai_model_info_h info, const char* text);
/** As velmora_svcmgr_ai_model_info_set_id, for the version. */
int velmora_svcmgr_ai_model_info_set_version(velmora_svcmgr_ai_model_info_h info, const char* text);
/** As velmora_svcmgr_ai_model_info_set_id, for the title. */
int velmora_svcmgr_ai_model_info_set_title(velmora_svcmgr_ai_model_info_h info, const char* text);
/** As velmora_svcmgr_ai_model_info_set_id, for the description. */
int velmora_svcmgr_ai_model_info_set_description(velmora_svcmgr_ai_model_info_h info,
                                                 const char* text);

/* ---- AI models: lists --------------------------------------------------------------------- */

/** A list of models, in the order in which they were added. It owns its models. */
typedef struct velmora_svcmgr_ai_model_list_s* velmora_svcmgr_ai_model_list_h;

/**
 * Makes an empty list.
 *
 * @param[out] list  The list; released with velmora_svcmgr_ai_model_list_destroy.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list is null
 * @return SVCMGR_ERROR_OUT_OF_MEMORY      memory is exhausted
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_model_list_create(velmora_svcmgr_ai_model_list_h* list);

/**
 * Releases a list and its models, but for the array of a list that ever held one (trap 25). If
 * releasing a model fails, its code is returned at once, and the list is still there (trap 24).
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_model_list_destroy(velmora_svcmgr_ai_model_list_h list);

/**
 * Adds a copy of a model at the end of a list. Texts that are not set stay so. The caller keeps
 * `info`.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list or info is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_model_list_add(velmora_svcmgr_ai_model_list_h list,
                                     velmora_svcmgr_ai_model_info_h info);

/**
 * Copies a model out of a list.
 *
 * @param      list   The list.
 * @param      index  From 0 to the size less 1 (trap 23).
 * @param[out] info   A copy of the model; released by the caller with
 *                    velmora_svcmgr_ai_model_info_destroy.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list or info is null
 * @return SVCMGR_ERROR_OUT_OF_INDEX       index is not below the size
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_model_list_get(velmora_svcmgr_ai_model_list_h list, int index,
                                     velmora_svcmgr_ai_model_info_h* info);

/**
 * The number of models in a list.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  list or size is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_model_list_get_size(velmora_svcmgr_ai_model_list_h list, int* size);

/* ---- AI models: queries ------------------------------------------------------------------- */

/**
 * Receives the agent's answer to one of the queries below.
 *
 * A request is normally answered once, but may be answered again (trap 13): the callback and its
 * user data must stay valid until the connection ends. If the connection ends first, the callback
 * never comes. Each answer costs memory that is never released (trap 25).
 *
 * @param error      SVCMGR_ERROR_NONE, for the agent's results 2 and 10, too (trap 14); or what the
 *                   agent reports: SVCMGR_ERROR_INVALID_OPERATION, SVCMGR_ERROR_NO_SPACE,
 *                   SVCMGR_ERROR_KYR_DISABLED, SVCMGR_ERROR_PERMISSION_DENIED,
 *                   SVCMGR_ERROR_AGENT_CODE_3 or SVCMGR_ERROR_AGENT_CODE_6. An answer that cannot
 *                   be read is SVCMGR_ERROR_INVALID_OPERATION with an empty list.
 * @param list       The models. It belongs to the application, which releases it with
 *                   velmora_svcmgr_ai_model_list_destroy, whatever the error is. Null if it could
 *                   not be created.
 * @param user_data  As given with the request.
 */
typedef void (*velmora_svcmgr_ai_model_list_cb)(int error, velmora_svcmgr_ai_model_list_h list,
                                                void* user_data);

/**
 * Asks for the models that the calling application may use. Descriptions are left to the agent:
 * most send none here.
 *
 * After a loss of the connection a request may still be taken, and is then never answered
 * (trap 12).
 *
 * @param callback   Receives the answer.
 * @param user_data  Passed to the callback; may be null.
 *
 * @return SVCMGR_ERROR_NONE                       the request was sent
 * @return SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION  the agent is older than 1.7
 * @return SVCMGR_ERROR_INVALID_PARAMETER          callback is null
 * @return SVCMGR_ERROR_NOT_CONNECTED              no connection was started, or it was ended
 * @return SVCMGR_ERROR_INVALID_OPERATION          the request could not be sent, for example
 *                                                 because the connection does not stand yet; or
 *                                                 the application's own ID or version is unknown
 * @return SVCMGR_ERROR_NOT_SUPPORTED
 */
int velmora_svcmgr_ai_request_usable_model_list(velmora_svcmgr_ai_model_list_cb callback,
                                                void* user_data);

/** As velmora_svcmgr_ai_request_usable_model_list, with the models' descriptions. */
int velmora_svcmgr_ai_request_usable_model_list_with_description(
    velmora_svcmgr_ai_model_list_cb callback, void* user_data);

/**
 * Asks for the models that another application may use: the first of the vendor's installed
 * applications, in the platform's order, whose metadata "ai-agent-category" equals `category`. The
 * search may end early (trap 19), and costs memory that is never released (trap 25).
 *
 * @param callback   Receives the answer.
 * @param category   The category, compared exactly.
 * @param user_data  Passed to the callback; may be null.
 *
 * @return SVCMGR_ERROR_NONE                       the request was sent
 * @return SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION  the agent is older than 2.3
 * @return SVCMGR_ERROR_INVALID_PARAMETER          callback or category is null, or no application
 *                                                 declares the category
 * @return SVCMGR_ERROR_NOT_CONNECTED              no connection was started, or it was ended
 * @return SVCMGR_ERROR_INVALID_OPERATION          the request could not be sent
 * @return SVCMGR_ERROR_NOT_SUPPORTED
 */
int velmora_svcmgr_ai_request_usable_model_list_with_category(
    velmora_svcmgr_ai_model_list_cb callback, const char* category, void* user_data);

/**
 * Asks for the available versions of a model. The answer holds one entry for each version.
 *
 * @param info       The model. All four texts must be set, if only to "". It is copied.
 * @param callback   Receives the answer.
 * @param user_data  Passed to the callback; may be null.
 *
 * @return SVCMGR_ERROR_NONE                       the request was sent
 * @return SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION  the agent is older than 1.7
 * @return SVCMGR_ERROR_INVALID_PARAMETER          info or callback is null
 * @return SVCMGR_ERROR_NOT_CONNECTED              no connection was started, or it was ended
 * @return SVCMGR_ERROR_INVALID_OPERATION          a text of the model is not set, or the request
 *                                                 could not be sent
 * @return SVCMGR_ERROR_NOT_SUPPORTED
 */
int velmora_svcmgr_ai_request_model_version_list(velmora_svcmgr_ai_model_info_h info,
                                                 velmora_svcmgr_ai_model_list_cb callback,
                                                 void* user_data);

/* ---- AI models: updates and uninstallation --------------------------------------------------- */

/**
 * How far an update or uninstallation has come: four numbers, each 0 at first and passed on from
 * the agent as it sends it.
 *
 *     index       position of the model that is being worked on
 *     count       number of models in the request
 *     percentage  progress of the work
 *     state       state of the work, as the agent defines it
 */
typedef struct velmora_svcmgr_ai_progress_s* velmora_svcmgr_ai_progress_h;

/**
 * Makes a progress record with all numbers 0.
 *
 * @param[out] progress  The record; released with velmora_svcmgr_ai_progress_destroy.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  progress is null
 * @return SVCMGR_ERROR_OUT_OF_MEMORY      memory is exhausted
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_progress_create(velmora_svcmgr_ai_progress_h* progress);

/**
 * Releases a progress record.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  progress is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION; the record is kept then
 */
int velmora_svcmgr_ai_progress_destroy(velmora_svcmgr_ai_progress_h progress);

/**
 * Reads one number of a progress record.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  an argument is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_progress_get_percentage(velmora_svcmgr_ai_progress_h progress,
                                              int* percentage);
/** As velmora_svcmgr_ai_progress_get_percentage, for the count. */
int velmora_svcmgr_ai_progress_get_count(velmora_svcmgr_ai_progress_h progress, int* count);
/** As velmora_svcmgr_ai_progress_get_percentage, for the index. */
int velmora_svcmgr_ai_progress_get_index(velmora_svcmgr_ai_progress_h progress, int* index);
/** As velmora_svcmgr_ai_progress_get_percentage, for the state. */
int velmora_svcmgr_ai_progress_get_state(velmora_svcmgr_ai_progress_h progress, int* state);

/**
 * Sets one number of a progress record; every value is taken.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  progress is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_progress_set_percentage(velmora_svcmgr_ai_progress_h progress,
                                              int percentage);
/** As velmora_svcmgr_ai_progress_set_percentage, for the count. */
int velmora_svcmgr_ai_progress_set_count(velmora_svcmgr_ai_progress_h progress, int count);
/** As velmora_svcmgr_ai_progress_set_percentage, for the index. */
int velmora_svcmgr_ai_progress_set_index(velmora_svcmgr_ai_progress_h progress, int index);
/** As velmora_svcmgr_ai_progress_set_percentage, for the state. */
int velmora_svcmgr_ai_progress_set_state(velmora_svcmgr_ai_progress_h progress, int state);

/**
 * Reports how an update or uninstallation of models goes; comes for each progress message of the
 * agent, normally several times, until the connection ends. The callback and its user data must
 * stay valid until then.
 *
 * @param error      As for velmora_svcmgr_ai_model_list_cb. A message that cannot be read is
 *                   SVCMGR_ERROR_INVALID_OPERATION with all numbers 0.
 * @param progress   A new record for each call. It belongs to the application, which releases it
 *                   with velmora_svcmgr_ai_progress_destroy. Null if it could not be created.
 * @param user_data  As given with the request.
 */
typedef void (*velmora_svcmgr_ai_progress_cb)(int error, velmora_svcmgr_ai_progress_h progress,
                                              void* user_data);

/**
 * Asks the agent to install or update models.
 *
 * After a loss of the connection a request may still be taken, and is then never answered
 * (trap 12).
 *
 * @param list       The models; may be empty. All four texts of each must be set, if only to "".
 *                   It is copied.
 * @param callback   Reports how the work goes.
 * @param user_data  Passed to the callback; may be null.
 *
 * @return SVCMGR_ERROR_NONE                       the request was sent
 * @return SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION  the agent is older than 1.7
 * @return SVCMGR_ERROR_INVALID_PARAMETER          list or callback is null
 * @return SVCMGR_ERROR_NOT_CONNECTED              no connection was started, or it was ended
 * @return SVCMGR_ERROR_INVALID_OPERATION          a text of a model is not set; or the request
 *                                                 could not be sent, for example because the
 *                                                 connection does not stand yet
 * @return SVCMGR_ERROR_NOT_SUPPORTED
 */
int velmora_svcmgr_ai_request_to_update(velmora_svcmgr_ai_model_list_h list,
                                        velmora_svcmgr_ai_progress_cb callback, void* user_data);

/** As velmora_svcmgr_ai_request_to_update, to uninstall the models. */
int velmora_svcmgr_ai_request_to_uninstall(velmora_svcmgr_ai_model_list_h list,
                                           velmora_svcmgr_ai_progress_cb callback, void* user_data);

/* ---- AI models: status events ------------------------------------------------------------- */

/** What happens to the device's AI models. */
typedef enum {
  /** The agent has begun to work on models. */
  SVCMGR_AI_STATUS_STARTED = 17,
  /** The work has ended well. */
  SVCMGR_AI_STATUS_COMPLETED = 20,
  /** The work has failed. */
  SVCMGR_AI_STATUS_FAILED = 24
} velmora_svcmgr_ai_status_e;

/**
 * Reports what happens to the device's AI models, whoever asked for it.
 *
 * @param error      Always SVCMGR_ERROR_NONE.
 * @param status     One of velmora_svcmgr_ai_status_e.
 * @param user_data  As given to velmora_svcmgr_ai_register_status_cb.
 */
typedef void (*velmora_svcmgr_ai_status_cb)(int error, int status, void* user_data);

/**
 * Sets who hears of the device's AI models. Needs no connection. A second call replaces the
 * callback and its user data. Succeeds also when the platform refuses the subscription (trap 21).
 *
 * @param callback   Reports what happens. It and user_data must stay valid until they are replaced
 *                   or deregistered.
 * @param user_data  Passed to the callback; may be null.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_PARAMETER  callback is null
 * @return SVCMGR_ERROR_NOT_SUPPORTED, SVCMGR_ERROR_INVALID_OPERATION
 */
int velmora_svcmgr_ai_register_status_cb(velmora_svcmgr_ai_status_cb callback, void* user_data);

/**
 * Ends what velmora_svcmgr_ai_register_status_cb began; the callback is not called any more. Does
 * nothing, successfully, if nothing was registered.
 *
 * @return SVCMGR_ERROR_NONE
 * @return SVCMGR_ERROR_INVALID_OPERATION  the platform refuses to end the subscription (trap 22)
 * @return SVCMGR_ERROR_NOT_SUPPORTED      the callback stays registered
 */
int velmora_svcmgr_ai_deregister_status_cb(void);

#ifdef __cplusplus
}
#endif
#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#endif /* VELMORA_SVCMGR_H */
