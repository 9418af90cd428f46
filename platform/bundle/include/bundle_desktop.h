/* SPDX-License-Identifier: Apache-2.0 */
#ifndef BUNDLE_DESKTOP_H
#define BUNDLE_DESKTOP_H

/*
 * What only the desktop has: a bundle as bytes, for the transport of application events.
 * Applications never need it.
 *
 * The bytes are a GVariant of type a{sv}, little-endian, with values of type s, ay and as.
 */

#include <bundle.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/**
 * Writes a bundle out. The caller releases `*bytes` with free; an empty bundle has no bytes, but
 * even then `*bytes` is not null. Returns 0, -22 for a null argument or if a key or a text is not
 * UTF-8, -12 when memory is exhausted.
 */
int bundle_desktop_encode(bundle* b, unsigned char** bytes, size_t* size);

/**
 * Reads a bundle back, released with bundle_free. Null with errno EINVAL if the bytes, which
 * anybody may have sent, are not exactly one bundle; null with errno ENOMEM when memory is
 * exhausted.
 */
bundle* bundle_desktop_decode(const unsigned char* bytes, size_t size);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif /* BUNDLE_DESKTOP_H */
