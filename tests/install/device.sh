#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What is built against installed platform libraries, as for a device, has the command line, and nothing
# of the desktop.
set -euo pipefail

# shellcheck source=tests/support/script.sh
. "$(dirname "$(readlink -f "$0")")/../support/script.sh"
prefix=$work/prefix
device=$work/device
export PKG_CONFIG_PATH=$prefix/$LIBDIR/pkgconfig

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
