/* SPDX-License-Identifier: Apache-2.0 */
/* The least that makes a program, an object and a library of its own. */

int main(void) { return 0; }
