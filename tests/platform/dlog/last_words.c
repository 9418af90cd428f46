/* SPDX-License-Identifier: Apache-2.0
 * A library that ends after the log does, because it is not linked with it, and has something to say. */
#include <dlog.h>

__attribute__((destructor)) static void SayLastWords(void) {
  dlog_print(DLOG_INFO, "TAG", "very last words");
}
