#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What is built against installed platform libraries, as for a device, has the command line, and nothing
# of the desktop.
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
device=$work/device
export PKG_CONFIG_PATH=$prefix/$LIBDIR/pkgconfig
die() { printf 'FAILED: %s\n' "$*" >&2; exit 1; }
quiet() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; die "$*"; }; }

quiet "$CMAKE" --install "$BUILD_DIR" --prefix "$prefix"
quiet "$CMAKE" -S "$SOURCE_DIR" -B "$work/build" -DSVCMGR_PLATFORM=installed -DSVCMGR_WERROR=KNOWN \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$device"
quiet "$CMAKE" --build "$work/build" --target install

models=$("$prefix/bin/svcmgr-sim" run demo -- env LD_LIBRARY_PATH="$device/$LIBDIR:$prefix/$LIBDIR" \
  "$device/bin/svcmgrctl" models list)
grep -q speech.wake-word <<<"$models" || die "the device's svcmgrctl lists '$models'"
for file in share/man/man1/svcmgrctl.1 share/doc/velmora-svcmgr/docs/guide/README.md share/doc/velmora-svcmgr/LICENSE; do
  [ -f "$device/$file" ] || die "$file is not installed"
done
[ ! -e "$device/bin/svcmgr-sim" ] || die "a device has a simulated agent"
[ ! -e "$device/$LIBDIR/librpc-port.so" ] || die "a device has the desktop's platform"
python3 -B "$SOURCE_DIR/tests/install/spdx_test.py" "$device" || die "the list of what is installed is wrong"
