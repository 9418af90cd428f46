/* SPDX-License-Identifier: Apache-2.0 */
#ifndef PACKAGE_MANAGER_H
#define PACKAGE_MANAGER_H

/* The set of installed packages. */

#include <package_info.h>
#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** Called for each package; the handle is borrowed. False ends the iteration. */
typedef bool (*package_manager_package_info_cb)(package_info_h package_info, void* user_data);

/**
 * Calls `callback` for each package that is installed when the call begins, ordered by package ID.
 * The callback may install and remove packages, and must not let an exception out.
 *
 * Returns 0, -22 for a null callback, -12 when memory is exhausted, another negative code if the
 * installed packages cannot be read. May be called from any thread.
 */
int package_manager_foreach_package_info(package_manager_package_info_cb callback, void* user_data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* PACKAGE_MANAGER_H */
