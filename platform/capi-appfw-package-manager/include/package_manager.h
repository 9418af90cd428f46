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
typedef bool (*package_manager_package_info_cb)(package_info_h package_info, void *user_data);

/** Calls `callback` for each installed package, ordered by package ID. */
int package_manager_foreach_package_info(package_manager_package_info_cb callback, void *user_data);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* PACKAGE_MANAGER_H */
