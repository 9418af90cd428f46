/* SPDX-License-Identifier: Apache-2.0 */
#ifndef RPC_PORT_H
#define RPC_PORT_H

/*
 * RPC ports: parcels over a connection of two streams.
 *
 * On the main port the client sends requests and, blocking, reads replies. On the callback port the
 * server pushes messages. All event callbacks run on the default GLib main context.
 *
 * Every function returns 0 on success and a negative error code otherwise: -22 invalid parameter,
 * -12 out of memory, -5 I/O error, -13 permission denied.
 */

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

typedef void *rpc_port_h;
typedef void *rpc_port_proxy_h;
typedef void *rpc_port_stub_h;
typedef void *rpc_port_parcel_h;

/** The two streams of a connection. */
typedef enum { RPC_PORT_PORT_MAIN, RPC_PORT_PORT_CALLBACK } rpc_port_port_type_e;

/*
 * Parcels: an ordered byte record, written at the end, read from the front, with no type tags. A
 * parcel is not thread-safe.
 */

/** Makes an empty parcel, released with rpc_port_parcel_destroy. */
int rpc_port_parcel_create(rpc_port_parcel_h *h);

/** Blocks for one whole message and makes a parcel of it; fails when the peer is gone. */
int rpc_port_parcel_create_from_port(rpc_port_parcel_h *h, rpc_port_h port);

/** Sends the parcel as one whole message. */
int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port);

/** Releases a parcel. */
int rpc_port_parcel_destroy(rpc_port_parcel_h h);

int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i);
int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b);
int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char *str);
int rpc_port_parcel_write_array_count(rpc_port_parcel_h h, int count);
int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int *i);
int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool *b);
/** The text is a copy that the caller releases with free. */
int rpc_port_parcel_read_string(rpc_port_parcel_h h, char **str);
int rpc_port_parcel_read_array_count(rpc_port_parcel_h h, int *count);

/* Client side. */

/** Both streams stand; `port` is the main port. */
typedef void (*rpc_port_proxy_connected_event_cb)(const char *endpoint, const char *port_name,
                                                  rpc_port_h port, void *data);
/** The server is gone; comes once. */
typedef void (*rpc_port_proxy_disconnected_event_cb)(const char *endpoint, const char *port_name,
                                                     void *data);
/** The server refused the client. */
typedef void (*rpc_port_proxy_rejected_event_cb)(const char *endpoint, const char *port_name,
                                                 void *data);
/** A message waits on the callback port. */
typedef void (*rpc_port_proxy_received_event_cb)(const char *endpoint, const char *port_name,
                                                 void *data);

int rpc_port_proxy_create(rpc_port_proxy_h *h);

/** Legal inside any of the proxy's own callbacks. The proxy's ports end with it. */
int rpc_port_proxy_destroy(rpc_port_proxy_h h);

/** Starts connecting; the outcome comes as an event. */
int rpc_port_proxy_connect(rpc_port_proxy_h h, const char *appid, const char *port);

int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_connected_event_cb cb,
                                          void *data);
int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h h,
                                             rpc_port_proxy_disconnected_event_cb cb, void *data);
int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_rejected_event_cb cb,
                                         void *data);
int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h h, rpc_port_proxy_received_event_cb cb,
                                         void *data);

/** Borrows one of the proxy's ports. */
int rpc_port_proxy_get_port(rpc_port_proxy_h h, rpc_port_port_type_e type, rpc_port_h *port);

/* Server side. `sender` is the client's application ID, `instance` names one connection. */

typedef void (*rpc_port_stub_connected_event_cb)(const char *sender, const char *instance,
                                                 void *data);
typedef void (*rpc_port_stub_disconnected_event_cb)(const char *sender, const char *instance,
                                                    void *data);
/** A request waits on the main port; a non-zero result ends the connection. */
typedef int (*rpc_port_stub_received_event_cb)(const char *sender, const char *instance,
                                               rpc_port_h port, void *data);

int rpc_port_stub_create(rpc_port_stub_h *h, const char *port_name);

/** Ends all connections of the stub; legal inside any of its own callbacks. */
int rpc_port_stub_destroy(rpc_port_stub_h h);

/** Starts to accept clients. */
int rpc_port_stub_listen(rpc_port_stub_h h);

int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb,
                                         void *data);
int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h,
                                            rpc_port_stub_disconnected_event_cb cb, void *data);
int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h, rpc_port_stub_received_event_cb cb,
                                        void *data);

/** Borrows one of the ports of a connection. */
int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e type, const char *instance,
                           rpc_port_h *port);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* RPC_PORT_H */
