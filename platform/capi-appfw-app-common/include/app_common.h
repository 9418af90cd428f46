/* SPDX-License-Identifier: Apache-2.0 */
#ifndef APP_COMMON_H
#define APP_COMMON_H

/*
 * The calling application itself, and the texts of the platform's error codes.
 *
 * On the desktop an application says who it is by VELMORA_APP_ID, VELMORA_APP_VERSION and
 * VELMORA_APP_ROOT; an empty variable counts as absent. Without them its ID is "org.desktop."
 * followed by its executable's name (characters other than letters, digits and '_' become '_'), its
 * version "0.0.0", and its root the folder that holds its executable, or the parent of that folder
 * if that is named "bin".
 *
 * All functions may be called from any thread, as long as none changes the environment meanwhile.
 */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * The calling application's ID; the caller releases the text with free. Returns -22 for a null
 * argument, -12 when memory is exhausted.
 */
int app_get_id(char** id);

/** The calling application's version; ownership and errors as for app_get_id. */
int app_get_version(char** version);

/**
 * The folder of the calling application's resources, which ends in "/res/" and need not exist; the
 * caller releases the text with free. Null when memory is exhausted; and, unless VELMORA_APP_ROOT
 * names a folder, when the executable's folder is unknown, or the application's root would be the
 * root of the file system.
 */
char* app_get_resource_path(void);

/**
 * The text of a platform error code, "Unknown error" for a code that has none: static, never null,
 * not to be written to or released.
 */
char* get_error_message(int code);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* APP_COMMON_H */
