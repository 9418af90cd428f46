/* SPDX-License-Identifier: Apache-2.0 */
#ifndef DLOG_H
#define DLOG_H

/* The platform log. */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Priority of a record, rising. */
typedef enum {
  DLOG_UNKNOWN,
  DLOG_DEFAULT,
  DLOG_VERBOSE,
  DLOG_DEBUG,
  DLOG_INFO,
  DLOG_WARN,
  DLOG_ERROR,
  DLOG_FATAL,
  DLOG_SILENT
} log_priority;

/**
 * Writes one record, formatted as by printf. The texts are copied before the call returns.
 *
 * Returns 0 or more on success, also when the record's priority is filtered out, else a negative
 * error code. Callable from any thread.
 */
int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* DLOG_H */
