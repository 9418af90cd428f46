/* SPDX-License-Identifier: Apache-2.0 */
#ifndef PACKAGE_DESKTOP_H
#define PACKAGE_DESKTOP_H

/*
 * What only the desktop has: writing the folder of installed packages, and asking which clients a
 * package admits. Applications never need it; a device has its package manager instead.
 *
 * The folder is $VELMORA_PACKAGE_DIR, else velmora/packages below the user's data folder
 * ($XDG_DATA_HOME, else ~/.local/share); a process chooses it at its first look-up. It need not
 * exist: there are no packages then. It holds one key file for each package, PACKAGE_ID.package:
 *
 *     [Package]
 *     Version=2.3.182
 *     # Applications, by ID with * and ?, that may connect to the package's ports; by default all.
 *     Clients=com.example.*;org.example.notes
 *
 *     [Application com.velmora.notes]
 *     # Each key is one metadata entry of the application.
 *     ai-agent-category=text
 *
 * A key file is a regular file of at most 1 MiB. One that is broken is left out, with one record in
 * the log. A section without an ID or of another name is ignored. Of two packages that have the
 * same application, the first by ID counts.
 *
 * What the functions below do is seen by the next look-up of every process. For that they also
 * change the file .generation in the folder, which look-ups have mapped; where the file system has
 * no room for it there is none.
 *
 * Anybody may change the folder by hand, too. Where there is no .generation, the next look-up sees
 * it; where there is one, look-ups are quicker, but ask the kernel only every 10 ms (by its coarse
 * clock), so that a change by hand may take that long to be seen. The kernel tells nobody of a key
 * file that is written through a memory mapping or, where a second hard link was made after the
 * file was read, through that link; of another folder that is mounted over this one or over one
 * above it; nor of what another machine does to a network file system. A folder with key files that
 * have more than one hard link is read by every look-up.
 *
 * Nothing else may write .generation; to be rid of it, remove it. Truncating it ends, by SIGBUS, a
 * process that looks a package up before those 10 ms have passed.
 *
 * All functions return 0 on success and a negative error code otherwise, and may be called from any
 * thread.
 */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Installs or replaces a package in the folder `dir`, which is made if it is missing. `key_file` is
 * the text of the package's key file. Readers see either the old or the new package, never a part,
 * and see the new one from their next look-up on.
 *
 * Returns -22 if the text is not a valid package description or the ID cannot be a file name, -5 if
 * the folder cannot be written.
 */
int package_desktop_install(const char* dir, const char* package_id, const char* key_file);

/** Removes a package from the folder `dir`. Returns -22 if it is not there. */
int package_desktop_remove(const char* dir, const char* package_id);

/**
 * Asks whether the application `client` may connect to the ports of the application `server`.
 * Returns -22 if no such server application is installed, -13 if it does not admit the client. A
 * package without application groups has one application, whose ID is the package's.
 */
int package_desktop_check_client(const char* server, const char* client);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* PACKAGE_DESKTOP_H */
