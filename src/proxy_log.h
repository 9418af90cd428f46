// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_PROXY_LOG_H_
#define SVCMGR_PROXY_LOG_H_

// Log records of the port proxy: plain, under a tag of their own.

#include <cstring>

#include "call_site.h"
#include "platform_log.h"

#define SVCMGR_PROXY_TAG "RPC_PORT_PROXY"
#define SVCMGR_PROXY_FORMAT(message) "%s: %s(%d) > " message

// The whole path, unlike SVCMGR_HERE: this layer looks for the base name when it logs.
#define PROXY_HERE (svcmgr::CallSite{__FILE__, __func__, __LINE__})

#define PROXY_ERROR_AT(site, message)                                                           \
  dlog_print(DLOG_ERROR, SVCMGR_PROXY_TAG, SVCMGR_PROXY_FORMAT(message), basename((site).file), \
             (site).function, (site).line)
#define PROXY_ERROR_F_AT(site, message, ...)                                                    \
  dlog_print(DLOG_ERROR, SVCMGR_PROXY_TAG, SVCMGR_PROXY_FORMAT(message), basename((site).file), \
             (site).function, (site).line, __VA_ARGS__)
#define PROXY_ERROR(message) PROXY_ERROR_AT(PROXY_HERE, message)

#endif  // SVCMGR_PROXY_LOG_H_
