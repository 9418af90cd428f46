#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that ./dev package has made, uses, upgrades and removes them:
#
#     tests/install/packages.sh [FOLDER]      build/package, if no folder is given
#
# This changes the machine that it runs on: run it as root in a container, or another root that is bare.
set -euo pipefail

# shellcheck source=tests/support/script.sh
. "$(dirname "$(readlink -f "$0")")/../support/script.sh"
tree=$(cd "$(dirname "$0")/../.." && pwd)
folder=$(cd "${1:-$tree/build/package}" && pwd)
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
names=(libvelmora-svcmgr2 libvelmora-svcmgr-platform1 libvelmora-svcmgr-dev libvelmora-svcmgr-platform-dev
  velmora-svcmgr-desktop svcmgrctl libvelmora-svcmgr-doc)

files() {  # FOLDER NAME...: the packages' files
  local name
  for name in "${@:2}"; do
    compgen -G "$1/${name}_*.deb" || die "there is no package $name in $1"
  done
}
install() { quiet apt-get install -y -qq --no-install-recommends "$@"; }
version_of() { dpkg-query -W -f '${Version}' "$1"; }
left() {  # what there is of the packages, but for what apt and dpkg remember
  find / -xdev \( -path /proc -o -path /sys -o -path /var/cache -o -path /var/log -o -path "$work" -o -path "$tree" \
    -o -path "$folder" -o -path /home -o -path /root -o -path /var/lib/apt -o -path /work \) -prune \
    -o \( -name '*velmora*svcmgr*' -o -name 'svcmgr[-c]*' -o -name 'librpc-port*' \) -print
}

[ "$(id -u)" = 0 ] || die "this needs root"
[ -z "$(left)" ] || die "something of the library is here already: $(left)"
quiet apt-get update -qq

step "what a device's user installs"
mapfile -t first < <(files "$folder" libvelmora-svcmgr2 libvelmora-svcmgr-platform1 svcmgrctl)
install "${first[@]}"
version=$(version_of svcmgrctl)
[[ $(svcmgrctl --version) == "svcmgrctl $version "* ]] || die "svcmgrctl says $(svcmgrctl --version)"
[ ! -e /usr/include/velmora_svcmgr.h ] || die "the command line brings headers"
status=0
svcmgrctl models list >"$work/log" 2>&1 || status=$?
[ "$status" = 5 ] || { cat "$work/log"; die "without an agent svcmgrctl returns $status"; }

step "what a developer installs"
mapfile -t all < <(files "$folder" "${names[@]}")
install "${all[@]}" g++ cmake make pkg-config libglib2.0-dev man-db
quiet dpkg --verify "${names[@]}"
[ ! -s "$work/log" ] || { cat "$work/log"; die "files are not as in their packages"; }
for library in /usr/lib/*/libvelmora-svcmgr.so.2 /usr/lib/*/librpc-port.so.1; do
  ! ldd "$library" | grep -q 'not found' || die "$library misses: $(ldd "$library")"
done
for page in 1/svcmgrctl 1/svcmgr-sim 5/svcmgr-scenario; do
  man -w "${page%/*}" "${page#*/}" >/dev/null || die "there is no manual page ${page#*/}(${page%/*})"
done
mkdir "$work/tests"
AUTOPKGTEST_TMP=$work/tests quiet sh "$tree/debian/tests/examples"
cat >"$work/app.c" <<'C'
#include <stdio.h>
#include <velmora_svcmgr.h>

int main(void) {
  velmora_svcmgr_ai_model_info_h info = NULL;
  if (velmora_svcmgr_ai_model_info_create(&info) != SVCMGR_ERROR_NONE) return 1;
  puts("works");
  return velmora_svcmgr_ai_model_info_destroy(info) == SVCMGR_ERROR_NONE ? 0 : 2;
}
C
# shellcheck disable=SC2046
quiet cc "$work/app.c" -o "$work/app" $(pkg-config --cflags --libs velmora-svcmgr)
expect_works() { [ "$(svcmgr-sim run demo -- "$work/app")" = works ] || die "the application does not work"; }
expect_works

step "upgrading"
mkdir "$work/later"
later=$version+later
for package in "${all[@]}"; do
  rm -rf "$work/unpacked"
  dpkg-deb -R "$package" "$work/unpacked"
  sed -i "s/^Version: .*/Version: $later/; s/(= $version)/(= $later)/g" "$work/unpacked/DEBIAN/control"
  quiet dpkg-deb --root-owner-group -b "$work/unpacked" "$work/later"
done
mapfile -t newer < <(files "$work/later" "${names[@]}")
install "${newer[@]}"
for name in "${names[@]}"; do
  [ "$(version_of "$name")" = "$later" ] || die "$name has not been upgraded: $(version_of "$name")"
done
expect_works

step "removing"
quiet apt-get purge -y -qq "${names[@]}"
[ -z "$(left)" ] || die "these stay behind: $(left)"
status=0
"$work/app" >"$work/log" 2>&1 || status=$?
[ "$status" = 127 ] || die "without the library the application returns $status"
step "all passed"
