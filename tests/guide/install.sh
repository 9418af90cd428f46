#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# install.sh PREFIX PROGRAMS: installs the build, and builds the installed examples, as they stand.
set -eu
"$CMAKE" --install "$BUILD_DIR" --prefix "$1"
make -C "$1/share/doc/velmora-svcmgr/examples" BUILD="$2"
