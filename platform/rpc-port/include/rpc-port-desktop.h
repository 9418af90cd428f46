/* SPDX-License-Identifier: Apache-2.0 */
#ifndef RPC_PORT_DESKTOP_H
#define RPC_PORT_DESKTOP_H

/*
 * What only the desktop has: control over who is served, and access below the parcels for tests and
 * for simulated faults. Return values as in rpc-port.h.
 */

#include <rpc-port.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Decides whether a client is served; false rejects it. Called on the main context. */
typedef bool (*rpc_port_desktop_admission_cb)(const char* sender, const char* instance, void* data);

/** Sets what decides about new clients of a stub; without a callback, all are served. */
int rpc_port_desktop_stub_set_admission_cb(rpc_port_stub_h h, rpc_port_desktop_admission_cb cb,
                                           void* data);

/**
 * Ends one connection of a stub; its disconnected callback is not called. Returns -22 if there is
 * no such connection.
 */
int rpc_port_desktop_stub_disconnect(rpc_port_stub_h h, const char* instance);

/**
 * Sends bytes on a port as they stand, with no length prefix; otherwise like rpc_port_parcel_send.
 */
int rpc_port_desktop_send_bytes(rpc_port_h port, const void* bytes, size_t size);

/** Borrows the content of a parcel, without its length prefix, until the parcel is changed. */
int rpc_port_desktop_parcel_get_bytes(rpc_port_parcel_h h, const void** bytes, size_t* size);

/**
 * Replaces the content of a parcel with a copy of `bytes`; reading starts at the front. Returns -12
 * if they exceed what a parcel holds.
 */
int rpc_port_desktop_parcel_set_bytes(rpc_port_parcel_h h, const void* bytes, size_t size);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* RPC_PORT_DESKTOP_H */
