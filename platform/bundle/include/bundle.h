/* SPDX-License-Identifier: Apache-2.0 */
#ifndef BUNDLE_H
#define BUNDLE_H

/* Key-value records that travel with application events. */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * A set of keys, each with a typed value. A bundle is not thread-safe.
 *
 * The functions that return int return 0 on success and a negative error code otherwise. A get
 * under a key that is absent or holds another type fails and leaves the outputs untouched. What a
 * get hands out is borrowed from the bundle: it is valid until the bundle is changed or freed.
 *
 * Codes: -22 for a null argument, an empty key, or a value of another type than asked for; -126 if
 * the key is absent; -17 if the key to be added exists; -12 when memory is exhausted.
 */
typedef struct _bundle_t bundle;

/** Makes an empty bundle, released with bundle_free; null when memory is exhausted. */
bundle* bundle_create(void);

/** Releases a bundle and all that it holds. */
int bundle_free(bundle* b);

/** Adds a copy of a text. Fails if the key exists. */
int bundle_add_str(bundle* b, const char* key, const char* str);

/** Borrows the text under a key. */
int bundle_get_str(bundle* b, const char* key, char** str);

/** Adds a copy of `size` bytes, which may be none. Fails if the key exists. */
int bundle_add_byte(bundle* b, const char* key, const void* byte, const size_t size);

/** Borrows the bytes under a key, never null; `size` receives their number. */
int bundle_get_byte(bundle* b, const char* key, void** byte, size_t* size);

/**
 * Adds a copy of an array of `len` texts, which may be empty. Fails with -22 if `len` is negative
 * or an element null, and if the key exists.
 */
int bundle_add_str_array(bundle* b, const char* key, const char** str_array, const int len);

/** Borrows the array of texts under a key; null, with `len` untouched, if there is none. */
const char** bundle_get_str_array(bundle* b, const char* key, int* len);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* BUNDLE_H */
