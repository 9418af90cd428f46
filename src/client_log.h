// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_CLIENT_LOG_H_
#define SVCMGR_CLIENT_LOG_H_

// Log records of the client layer: coloured, under the client's tag. The message stands as a
// literal at the call, so that a search for a record's text finds the line that wrote it. The _F
// forms take arguments for the message's conversions, the _AT forms log in the name of another call
// site.

#include "call_site.h"
#include "platform_log.h"

#define SVCMGR_CLIENT_TAG "SERVICE_MANAGER_CLIENT"
#define SVCMGR_INFO_FORMAT(message) "\033[0;32m %s: %s(%d) > " message "\033[0;m"
#define SVCMGR_ERROR_FORMAT(message) "\033[0;31m %s: %s(%d) > " message "\033[0;m"

#define CLIENT_INFO(message)                                                              \
  dlog_print(DLOG_INFO, SVCMGR_CLIENT_TAG, SVCMGR_INFO_FORMAT(message), SVCMGR_FILE_NAME, \
             __func__, __LINE__)
#define CLIENT_INFO_F(message, ...)                                                       \
  dlog_print(DLOG_INFO, SVCMGR_CLIENT_TAG, SVCMGR_INFO_FORMAT(message), SVCMGR_FILE_NAME, \
             __func__, __LINE__, __VA_ARGS__)
#define CLIENT_ERROR(message)                                                               \
  dlog_print(DLOG_ERROR, SVCMGR_CLIENT_TAG, SVCMGR_ERROR_FORMAT(message), SVCMGR_FILE_NAME, \
             __func__, __LINE__)
#define CLIENT_ERROR_F(message, ...)                                                        \
  dlog_print(DLOG_ERROR, SVCMGR_CLIENT_TAG, SVCMGR_ERROR_FORMAT(message), SVCMGR_FILE_NAME, \
             __func__, __LINE__, __VA_ARGS__)
#define CLIENT_ERROR_AT(site, message)                                                 \
  dlog_print(DLOG_ERROR, SVCMGR_CLIENT_TAG, SVCMGR_ERROR_FORMAT(message), (site).file, \
             (site).function, (site).line)
#define CLIENT_ERROR_F_AT(site, message, ...)                                          \
  dlog_print(DLOG_ERROR, SVCMGR_CLIENT_TAG, SVCMGR_ERROR_FORMAT(message), (site).file, \
             (site).function, (site).line, __VA_ARGS__)

#endif  // SVCMGR_CLIENT_LOG_H_
