/* SPDX-License-Identifier: Apache-2.0 */
#ifndef PACKAGE_INFO_H
#define PACKAGE_INFO_H

/* One installed package. */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** What is known of one installed package; a snapshot that later installations do not change. */
typedef struct package_info_s *package_info_h;

/**
 * Looks a package up; the caller releases the handle with package_info_destroy. 0xFEEB0071, as a
 * 32-bit value, says that no such package is installed.
 */
int package_info_create(const char *package, package_info_h *package_info);

/** Releases a handle. */
int package_info_destroy(package_info_h package_info);

/** The package's ID; the caller releases the text with free. */
int package_info_get_package(package_info_h package_info, char **package);

/** The package's version; the caller releases the text with free. */
int package_info_get_version(package_info_h package_info, char **version);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* PACKAGE_INFO_H */
