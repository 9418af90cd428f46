#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# An application whose build has this tree as a part builds and installs the library, and nothing else
# that it has not asked for.
set -euo pipefail

# shellcheck source=tests/support/script.sh
. "$(dirname "$(readlink -f "$0")")/../support/script.sh"
here=$(dirname "$(readlink -f "$0")")
configure() {  # FOLDER [OPTION...]
  quiet "$CMAKE" -S "$here/subdirectory" -B "$work/$1" -DSVCMGR_SOURCE_DIR="$SOURCE_DIR" \
    -DCMAKE_INSTALL_PREFIX="$work/$1-prefix" -DCMAKE_BUILD_TYPE=Release "${@:2}"
}

configure plain
configure asked -DSVCMGR_CTL=ON -DSVCMGR_SIM=ON -DTARGETS_ASKED_FOR="svcmgrctl;svcmgr-sim"
[ "${1:-}" = --build ] || exit 0

quiet "$CMAKE" --build "$work/plain" --target install
cd "$work/plain-prefix"
installed=$(find . -type f -o -type l | sed 's|^\./||' | sort)
for file in include/velmora_svcmgr.h "$LIBDIR/libvelmora-svcmgr.so" "$LIBDIR/pkgconfig/velmora-svcmgr.pc"; do
  grep -qxF "$file" <<<"$installed" || die "$file is not installed"
done
others=$(grep -v -E "^(include/|$LIBDIR/|share/velmora-svcmgr/kyr-marker\.S|share/doc/velmora-svcmgr/LICENSE)" <<<"$installed" || true)
[ -z "$others" ] || die "these are installed, too: $others"
mkdir -p "$work/root/bin" "$work/root/res"
cp "$work/plain/app" "$work/root/bin"
output=$("$BUILD_DIR/bin/svcmgr-sim" run demo -- env VELMORA_APP_ROOT="$work/root" "$work/root/bin/app")
[ "$output" = 11 ] || die "the application says '$output'"

configure quiet -DSVCMGR_INSTALL=OFF
quiet "$CMAKE" --build "$work/quiet"
quiet "$CMAKE" --install "$work/quiet"
[ ! -e "$work/quiet-prefix" ] || die "something is installed: $(find "$work/quiet-prefix" -type f)"
