/* SPDX-License-Identifier: Apache-2.0 */
#ifndef DLOG_H
#define DLOG_H

/*
 * The platform log.
 *
 * On the desktop records go to standard error, each with one write, or to the end of the file that
 * VELMORA_LOG_FILE names: a regular file or a character device; for anything else, such as a pipe that
 * could hold the process up, standard error stands in. Records for a file are gathered: they are written when a record of error
 * priority or above comes, when 64 KiB have gathered, at the next record after 200 ms, and when the
 * process exits; a forked child never writes those of its parent. What has gathered is lost when the
 * process replaces itself by exec or is killed.
 *
 * No record holds the process up for long. What a sink does not take at once, such as a pipe that nobody
 * reads, is given up after 100 ms, and then every record at once until the sink takes one again. Records
 * that were lost are counted, and the next one that can be written comes after a record that says how
 * many they were. A line that was cut is ended first.
 *
 * VELMORA_LOG_LEVEL is the lowest priority that is written: verbose, debug, info, warn (the default),
 * error, fatal, or silent for none. The environment is read at the first record; a program that runs with
 * more rights than its user has does without it.
 *
 * A record is one line: "TIME PRIORITY TAG PID: MESSAGE", with the time in UTC and the priority as
 * one letter. Newlines at the message's end are dropped. Other control characters, those that reorder
 * a line or have no picture, and bytes that are not UTF-8 are written as "\n" and "\x1b", each byte by its number. The
 * sequence that sets a colour at the format's begin stays, and is undone at the end, if the sink is a
 * terminal, TERM says which and not "dumb", and NO_COLOR is not set, else it is dropped; any other is
 * escaped. Beyond 64 KiB a message is cut, which " [cut]" says.
 */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Priority of a record, rising. DLOG_DEFAULT counts as DLOG_INFO; UNKNOWN and SILENT are for no record. */
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
 * error code: -22 for a null argument, a priority that no record has, or a conversion that fails, -5 if
 * the sink refuses or does not take it in time, -12 when memory is exhausted. errno stays as it was. Callable from any thread.
 */
int dlog_print(log_priority prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* DLOG_H */
