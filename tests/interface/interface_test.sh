#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Holds the library's interface against its description, and breaks it to see that this would be
# noticed: interface_test.sh TEST OBJECT...
set -euo pipefail

# shellcheck source=tests/support/script.sh
. "$(dirname "$(readlink -f "$0")")/../support/script.sh"
test=$1
objects=("${@:2}")
description=$SOURCE_DIR/src/libvelmora-svcmgr.abi
map=$SOURCE_DIR/src/libvelmora-svcmgr.map

difference() {  # LIBRARY, its headers
  "$ABIDIFF" --no-architecture --drop-private-types --headers-dir2 "$2" "$description" "$1"
}
link() {  # LIBRARY SONAME MAP OBJECT...
  "$CXX" -shared -o "$1" -Wl,-soname,"$2" -Wl,--version-script="$3" "${@:4}"
}
expect_break() {  # WHAT LIBRARY HEADERS WORDS
  local status=0
  difference "$2" "$3" >"$work/report" || status=$?
  # 4: it differs. 8: programs that were built against it break. 1 and 2: abidiff itself failed.
  [ $((status & 4)) = 4 ] && [ $((status & 3)) = 0 ] ||
    { cat "$work/report"; die "$1: abidiff returned $status"; }
  grep -q "$4" "$work/report" || { cat "$work/report"; die "$1: nothing of '$4' is said"; }
}

TheLibraryHasTheInterfaceThatIsDescribed() {
  difference "$LIBRARY" "$SOURCE_DIR/include" ||
    die "the interface is not that of src/libvelmora-svcmgr.abi: see ./dev interface"
}

ABrokenInterfaceIsNoticed() {
  local soname=libvelmora-svcmgr.so.2 headers=$SOURCE_DIR/include
  link "$work/same.so" "$soname" "$map" "${objects[@]}"
  difference "$work/same.so" "$headers" || die "what is linked here differs by itself"

  sed '/_ai_progress_get_count;/d' "$map" >"$work/less.map"
  link "$work/less.so" "$soname" "$work/less.map" "${objects[@]}"
  expect_break "a function is gone" "$work/less.so" "$headers" velmora_svcmgr_ai_progress_get_count

  sed 's/^VELMORA_SVCMGR_2.3/VELMORA_SVCMGR_2.4/' "$map" >"$work/renamed.map"
  link "$work/renamed.so" "$soname" "$work/renamed.map" "${objects[@]}"
  expect_break "another version" "$work/renamed.so" "$headers" velmora_svcmgr_connect

  link "$work/so3.so" libvelmora-svcmgr.so.3 "$map" "${objects[@]}"
  expect_break "another soname" "$work/so3.so" "$headers" SONAME

  mkdir "$work/include"
  sed 's/int\* percentage)/long* percentage)/' "$headers/velmora_svcmgr.h" >"$work/include/velmora_svcmgr.h"
  cmp -s "$headers/velmora_svcmgr.h" "$work/include/velmora_svcmgr.h" && die "the header is unchanged"
  sed 's/int\* percentage)/long* percentage)/' "$SOURCE_DIR/src/service_progress.cc" >"$work/service_progress.cc"
  local includes=() folder others=() object
  for folder in "$SOURCE_DIR"/platform/*/include; do includes+=(-I "$folder"); done
  "$CXX" -std=c++17 -g -fPIC -fvisibility=hidden -DAGENT_PACKAGE_ID='"com.velmora.svcmgr"' \
    -DVENDOR_PACKAGE_PREFIX='"com.velmora."' -I "$work/include" -I "$SOURCE_DIR/src" "${includes[@]}" \
    -c "$work/service_progress.cc" -o "$work/service_progress.o"
  for object in "${objects[@]}"; do
    [[ $object == */service_progress.cc.o ]] || others+=("$object")
  done
  link "$work/long.so" "$soname" "$map" "${others[@]}" "$work/service_progress.o"
  expect_break "another parameter" "$work/long.so" "$work/include" velmora_svcmgr_ai_progress_get_percentage
}

"$test"
