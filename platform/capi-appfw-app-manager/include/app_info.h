/* SPDX-License-Identifier: Apache-2.0 */
#ifndef APP_INFO_H
#define APP_INFO_H

/*
 * Installed applications and their metadata.
 *
 * All functions return 0 on success and -22 for a null argument, and may be called from any thread;
 * a handle may be used by several threads, and is released once.
 */

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * What is known of one installed application; a snapshot that later installations do not change.
 */
typedef struct app_info_s* app_info_h;

/** Called for each metadata entry; the texts are borrowed. False ends the iteration. */
typedef bool (*app_info_metadata_cb)(const char* metadata_key, const char* metadata_value,
                                     void* user_data);

/**
 * Looks an application up; the caller releases the handle with app_info_destroy. Every installation
 * or removal that came before the call is seen.
 *
 * Returns -22 if no such application is installed, -12 when memory is exhausted, another negative
 * code if the installed packages cannot be read; the handle is then left untouched.
 */
int app_info_create(const char* app_id, app_info_h* app_info);

/** Releases a handle. */
int app_info_destroy(app_info_h app_info);

/**
 * Calls `callback` for each metadata entry of the application, in its stored order. The callback
 * must not let an exception out.
 */
int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback, void* user_data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* APP_INFO_H */
