/* SPDX-License-Identifier: Apache-2.0 */
#ifndef SVCMGR_CONNECTION_SUPPORT_H_
#define SVCMGR_CONNECTION_SUPPORT_H_

/* The states of the connection, for tests of what is asked over it. */

#include <velmora_svcmgr.h>

#include "fake_platform.h"

namespace connection {

inline void Ignore(int, int, void*) {}

/** Starts connecting; the connected event has not come. */
inline void Start() {
  fake::AllowHeldConnection();
  EXPECT_EQ(velmora_svcmgr_connect(Ignore, nullptr), SVCMGR_ERROR_NONE);
  fake::ClearRecord();
}

/** Connects. */
inline void Stand() {
  Start();
  fake::Proxy().FireConnected();
  fake::ClearRecord();
}

/** Connected, but without a proxy: the event comes inside an attempt that fails all the same. */
inline void StandWithoutProxy() {
  fake::AllowHeldConnection();
  fake::Next("rpc_port_proxy_connect",
             fake::Fail(fake::kIoError).Entering([] { fake::Proxy().FireConnected(); }));
  EXPECT_EQ(velmora_svcmgr_connect(Ignore, nullptr), SVCMGR_ERROR_CONNECTION_FAILED);
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kProxy), 0);
  fake::ClearRecord();
}

}  // namespace connection

#endif  // SVCMGR_CONNECTION_SUPPORT_H_
