/* SPDX-License-Identifier: Apache-2.0 */
#ifndef PACKAGE_INFO_H
#define PACKAGE_INFO_H

/*
 * One installed package.
 *
 * All functions return 0 on success, -22 for a null argument and -12 when memory is exhausted, and
 * may be called from any thread; a handle may be used by several threads, and is released once.
 */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/** What is known of one installed package; a snapshot that later installations do not change. */
typedef struct package_info_s* package_info_h;

/**
 * Looks a package up; the caller releases the handle with package_info_destroy. Every installation,
 * upgrade or removal that came before the call is seen; on the desktop, what is changed by hand in
 * a folder that the desktop's tools write, too, is seen within 10 ms (package_desktop.h).
 *
 * Returns 0xFEEB0071, as a 32-bit value, if no such package is installed, another negative code if
 * the installed packages cannot be read; the handle is then left untouched.
 */
int package_info_create(const char* package, package_info_h* package_info);

/** Releases a handle. */
int package_info_destroy(package_info_h package_info);

/** The package's ID; the caller releases the text with free. */
int package_info_get_package(package_info_h package_info, char** package);

/** The package's version; the caller releases the text with free. */
int package_info_get_version(package_info_h package_info, char** version);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* PACKAGE_INFO_H */
