// SPDX-License-Identifier: Apache-2.0
#ifndef RPC_PORT_CODES_H_
#define RPC_PORT_CODES_H_

#include <new>

namespace rpc_port_desktop {

// The platform's error codes: negated errno constants, with the same values everywhere.
enum Code : int {
  kOk = 0,
  kIoError = -5,
  kOutOfMemory = -12,
  kPermissionDenied = -13,
  kInvalidParameter = -22,
};

// Runs the body of an exported function. Only what memory shortage throws is caught: a thread that
// is cancelled inside a blocking call unwinds through here and must not be stopped.
template <typename Body>
int Guarded(Body body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return kOutOfMemory;
  }
}

}  // namespace rpc_port_desktop

#endif  // RPC_PORT_CODES_H_
