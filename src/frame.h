// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_FRAME_H_
#define SVCMGR_FRAME_H_

// The vocabulary of the exported functions. Each reads as the list of its rules, in the order in
// which they apply. The checks are macros because their log records name the exported function and
// the line of the check in it.
//
//     int velmora_svcmgr_example(int* out) try {
//       RETURN_IF_AGENT_MISSING();
//       RETURN_IF_NULL(out, "parameter is NULL!!");
//       RETURN_IF_NOT_CONNECTED();
//       ...
//       return SVCMGR_ERROR_NONE;
//     }
//     RETURN_ON_EXCEPTION(SVCMGR_ERROR_INVALID_OPERATION);

#include <velmora_svcmgr.h>

#include "agent_package.h"
#include "client_log.h"
#include "thread_exit.h"

#define RETURN_ERROR_IF(condition, message, code) \
  do {                                            \
    if (condition) {                              \
      CLIENT_ERROR(message);                      \
      return code;                                \
    }                                             \
  } while (false)

#define RETURN_IF_AGENT_MISSING() \
  RETURN_ERROR_IF(svcmgr::IsAgentMissing(), "Not supported", SVCMGR_ERROR_NOT_SUPPORTED)

#define RETURN_IF_AGENT_BELOW(level)                                                   \
  do {                                                                                 \
    if (svcmgr::AgentLevel() < (level)) return SVCMGR_ERROR_UNSUPPORTED_AGENT_VERSION; \
  } while (false)

#define RETURN_IF_NULL(pointer, message) \
  RETURN_ERROR_IF((pointer) == nullptr, message, SVCMGR_ERROR_INVALID_PARAMETER)

// For units that include SvcMgrAppProxyHandler.h.
#define RETURN_IF_NOT_CONNECTED()                              \
  do {                                                         \
    if (!SvcMgrAppProxyHandler::GetInstance().IsConnected()) { \
      CLIENT_INFO("not initialized");                          \
      return SVCMGR_ERROR_NOT_CONNECTED;                       \
    }                                                          \
  } while (false)

// Closes a function's try block: nothing that is thrown leaves the library. A semicolon follows, so
// that ctags, which does not expand macros, sees the function after it.
#define RETURN_ON_EXCEPTION(code)      \
  LET_THREAD_EXIT_PASS                 \
  catch (...) {                        \
    CLIENT_ERROR("Unknown Exception"); \
    return code;                       \
  }

#endif  // SVCMGR_FRAME_H_
