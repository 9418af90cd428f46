/* SPDX-License-Identifier: Apache-2.0 */
#ifndef RPC_PORT_H
#define RPC_PORT_H

/*
 * RPC ports: parcels over a connection of two streams.
 *
 * On the main port the client sends requests and, blocking, reads replies. On the callback port the
 * server pushes messages. All event callbacks run on the default GLib main context.
 *
 * 1. Every function returns 0 on success and a negative error code otherwise: -22 invalid
 * parameter, -12 out of memory, -5 I/O error, -13 permission denied. Outputs are written on success
 * only.
 * 2. Handles of proxies, stubs and ports are never used twice. One that has outlived what it stood
 * for is an invalid parameter, on whichever thread and however late it is passed.
 * 3. A parcel belongs to one thread at a time. The functions of parcels and ports may be called
 * from any thread, those of a proxy too; those of a stub are called on the thread that runs the
 * main context.
 * 4. An event calls its callbacks in the order in which they were added. A received event is over
 * as soon as one of them has taken the message.
 * 5. In a main loop that runs inside a callback, further events of the same connection are
 * delivered; inside a received callback only once it has taken its message.
 * 6. A temporary shortage of memory or descriptors ends no connection. What arrives meanwhile is
 * tried again ten times a second.
 * 7. A child made by fork() has none of its parent's proxies, stubs and ports: their descriptors
 * are closed in it, their handles are invalid and their callbacks never come, even when it runs the
 * main loop. It can make its own. Whatever it does, and however it ends, the parent's keep working.
 */

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef void* rpc_port_h;
typedef void* rpc_port_proxy_h;
typedef void* rpc_port_stub_h;
typedef void* rpc_port_parcel_h;

/** The two streams of a connection. */
typedef enum { RPC_PORT_PORT_MAIN, RPC_PORT_PORT_CALLBACK } rpc_port_port_type_e;

/*
 * Parcels: an ordered byte record, written at the end, read from the front, with no type tags.
 *
 *     int32, array count    4 bytes, little-endian
 *     bool                  1 byte; any value but 0 is true
 *     string                int32 length, the terminating NUL included, then the bytes with the NUL
 *
 * A parcel holds at most 16 MiB. A write that would exceed it fails with -12 and writes nothing. A
 * read that the content does not satisfy fails with -5 and reads nothing: fewer bytes are left than
 * it needs, or a string's length is not positive, or its only NUL is not its last byte.
 */

/** Makes an empty parcel, released with rpc_port_parcel_destroy. */
int rpc_port_parcel_create(rpc_port_parcel_h* h);

/**
 * Blocks for one whole message and makes a parcel of it, which the caller releases with
 * rpc_port_parcel_destroy. Messages that arrived before the peer went away can still be read.
 *
 * Returns -5 if the peer is gone, has sent a message of impossible size, or if the port's proxy or
 * connection is destroyed meanwhile; -22 if it was destroyed before; -12 if there is no memory for
 * the message. One that a received event has offered is then kept, and the event comes again. Any
 * other is skipped as soon as all of it has arrived, so that the next call gets the next message.
 */
int rpc_port_parcel_create_from_port(rpc_port_parcel_h* h, rpc_port_h port);

/**
 * Sends the parcel as one whole message; it may be sent again. A client waits for a server that is
 * slow to take it. A server never waits: what the client does not take at once is sent later, and a
 * client that lets 64 MiB pile up is disconnected.
 *
 * Returns -5 if the peer is gone or the port's proxy or connection is destroyed meanwhile; -22 if
 * it was destroyed before. The process gets no SIGPIPE. Success does not mean that the peer has
 * read it.
 */
int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port);

/** Releases a parcel. */
int rpc_port_parcel_destroy(rpc_port_parcel_h h);

/* Writers append to the parcel. */
int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i);
int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b);
int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char* str);
/** The number of elements that follow. Neither written nor read counts are checked. */
int rpc_port_parcel_write_array_count(rpc_port_parcel_h h, int count);
/* Readers continue after what was read last. */
int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int* i);
int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool* b);
/** The text is a copy that the caller releases with free. */
int rpc_port_parcel_read_string(rpc_port_parcel_h h, char** str);
int rpc_port_parcel_read_array_count(rpc_port_parcel_h h, int* count);

/* Client side. */

/** Both streams are open and the server has accepted; `port` is the main port. */
typedef void (*rpc_port_proxy_connected_event_cb)(const char* endpoint, const char* port_name,
                                                  rpc_port_h port, void* data);
/**
 * The server is gone, perhaps before it accepted; comes once, after all messages that it had sent
 * on the callback port. Replies that had arrived on the main port can still be read.
 */
typedef void (*rpc_port_proxy_disconnected_event_cb)(const char* endpoint, const char* port_name,
                                                     void* data);
/** The server refused the client; no other event comes. */
typedef void (*rpc_port_proxy_rejected_event_cb)(const char* endpoint, const char* port_name,
                                                 void* data);
/**
 * A whole message waits on the callback port, to be taken with rpc_port_parcel_create_from_port.
 * One that is left behind is dropped, unless there was no memory for it.
 */
typedef void (*rpc_port_proxy_received_event_cb)(const char* endpoint, const char* port_name,
                                                 void* data);

/** Makes a proxy, released with rpc_port_proxy_destroy. It serves for one connection. */
int rpc_port_proxy_create(rpc_port_proxy_h* h);

/**
 * Ends the connection and releases the proxy. Legal inside any of the proxy's own callbacks. The
 * proxy's ports end with it: a thread that is blocked on one of them wakes up. No callback of the
 * proxy runs once this has returned; called on another thread than the main context's, it therefore
 * waits for one that is running.
 */
int rpc_port_proxy_destroy(rpc_port_proxy_h h);

/**
 * Starts connecting to the port `port` of the application `appid`. The outcome comes as an event,
 * never inside this call. After a failure the call may be repeated; after a success the proxy is
 * used up.
 *
 * Returns -22 if no such application is installed, a name is empty or longer than 255 bytes, or the
 * proxy has connected before; -13 if the application does not admit this one, or the place where
 * its sockets should be is not this user's own; -5 if it is not running or has stopped accepting,
 * and after any other failure: no other code is returned.
 */
int rpc_port_proxy_connect(rpc_port_proxy_h h, const char* appid, const char* port);

/*
 * Adding a callback to an event: -22 if it is null. It is called with `data` as its last argument.
 * Adding the first one of each event never fails for want of memory.
 */
int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_connected_event_cb cb,
                                          void* data);
int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h h,
                                             rpc_port_proxy_disconnected_event_cb cb, void* data);
int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_rejected_event_cb cb,
                                         void* data);
int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h h, rpc_port_proxy_received_event_cb cb,
                                         void* data);

/** Borrows one of the proxy's ports. Returns -5 before it is connected. */
int rpc_port_proxy_get_port(rpc_port_proxy_h h, rpc_port_port_type_e type, rpc_port_h* port);

/* Server side. `sender` is the client's application ID, `instance` names one connection. */

typedef void (*rpc_port_stub_connected_event_cb)(const char* sender, const char* instance,
                                                 void* data);
typedef void (*rpc_port_stub_disconnected_event_cb)(const char* sender, const char* instance,
                                                    void* data);
/**
 * A whole request waits on the main port, to be taken with rpc_port_parcel_create_from_port. One
 * that is left behind is dropped. A non-zero result ends the connection, and what has not been sent
 * yet is lost.
 */
typedef int (*rpc_port_stub_received_event_cb)(const char* sender, const char* instance,
                                               rpc_port_h port, void* data);

/** Makes a stub for a port of the calling application, released with rpc_port_stub_destroy. */
int rpc_port_stub_create(rpc_port_stub_h* h, const char* port_name);

/**
 * Ends all connections of the stub and releases it; legal inside any of its own callbacks, none of
 * which is called again.
 */
int rpc_port_stub_destroy(rpc_port_stub_h h);

/**
 * Starts to accept clients of the same user. Returns -5 if the application's port is served already
 * or its socket cannot be made, -13 if the place for it is not this user's own.
 */
int rpc_port_stub_listen(rpc_port_stub_h h);

/* Adding a callback to an event, as for a proxy. */
int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb,
                                         void* data);
int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h,
                                            rpc_port_stub_disconnected_event_cb cb, void* data);
int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h, rpc_port_stub_received_event_cb cb,
                                        void* data);

/** Borrows one of the ports of a connection. Returns -22 if there is no such connection. */
int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e type, const char* instance,
                           rpc_port_h* port);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* RPC_PORT_H */
