/* SPDX-License-Identifier: Apache-2.0 */
#ifndef APP_COMMON_H
#define APP_COMMON_H

/* The calling application itself, and the texts of the platform's error codes. */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** The calling application's ID; the caller releases the text with free. */
int app_get_id(char **id);

/** The calling application's version; the caller releases the text with free. */
int app_get_version(char **version);

/**
 * The folder of the calling application's resources, which ends in "res/"; the caller releases the
 * text with free. Null on failure.
 */
char *app_get_resource_path(void);

/** The text of a platform error code: static, never null. */
char *get_error_message(int code);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* APP_COMMON_H */
