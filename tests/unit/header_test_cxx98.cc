// SPDX-License-Identifier: Apache-2.0
// The C test of the public header as C++98.

#define PROBE(name) header_cxx98_##name
#include "header_test.c"
