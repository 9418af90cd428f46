// SPDX-License-Identifier: Apache-2.0
#ifndef SVCMGR_PLATFORM_LOG_H_
#define SVCMGR_PLATFORM_LOG_H_

#include <dlog.h>

// A device's header may not have the attribute; with it the compiler holds each record's arguments
// against its message.
extern "C" int dlog_print(log_priority prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

#endif  // SVCMGR_PLATFORM_LOG_H_
