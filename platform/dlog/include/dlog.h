/* SPDX-License-Identifier: Apache-2.0 */
#ifndef DLOG_H
#define DLOG_H

/*
 * The platform log.
 *
 * On the desktop records go to standard error, each with one write, or to the end of the file that
 * VELMORA_LOG_FILE names: a regular file or a character device; for anything else, such as a pipe,
 * which could block the process, standard error is used. Records for a file are buffered: they are
 * written when a record of error priority or above comes, when 64 KiB have accumulated, at the next
 * record after 200 ms, and when the process exits; a forked child never writes those of its parent.
 * What is still buffered is lost when the process replaces itself by exec or is killed.
 *
 * No record blocks the process for long. What a sink, such as a pipe that nobody reads, does not
 * take is given up after 100 ms, and then every record at once until the sink takes one again.
 * Records that were lost are counted, and the next one that can be written comes after a record
 * that says how many they were. A line that was cut is ended first.
 *
 * VELMORA_LOG_LEVEL is the lowest priority that is written: verbose, debug, info, warn (the
 * default), error, fatal, or silent for none. The environment is read at the first record; a
 * program that runs with more rights than its user has ignores it.
 *
 * A record is one line: "TIME PRIORITY TAG PID: MESSAGE", with the time in UTC and the priority as
 * one letter. Newlines at the message's end are dropped. Other control characters except tabs,
 * characters that reorder a line or are invisible, and bytes that are not UTF-8 are written like
 * "\n" and "\x1b", each byte by its number. A colour sequence at the start of the format stays, and
 * is undone at the end, if the sink is a terminal, TERM is set but not to "dumb", and NO_COLOR is
 * unset or empty; otherwise it is dropped. Any other sequence is escaped. A message beyond 64 KiB
 * is cut, and " [cut]" says so.
 */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Priority of a record, ascending. DLOG_DEFAULT counts as DLOG_INFO; no record has DLOG_UNKNOWN or
 * DLOG_SILENT.
 */
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
 * Returns 0 or more on success, even when the record's priority is filtered out, otherwise a
 * negative error code: -22 for a null argument, a priority that no record has, or a conversion that
 * fails, -5 if the sink refuses or does not take it in time, -12 when memory is exhausted. errno
 * stays as it was. Callable from any thread.
 */
int dlog_print(log_priority prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* DLOG_H */
