#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build into a folder and builds against what was installed: the library itself a second
# time with the platform found by pkg-config, an application by pkg-config, another by CMake.
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
device=$work/device
export PKG_CONFIG_PATH=$prefix/$LIBDIR/pkgconfig

step() { printf -- '-- %s\n' "$*"; }
die() { printf 'FAILED: %s\n' "$*" >&2; exit 1; }
quiet() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; die "$*"; }; }
needed() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }

step "installing"
quiet "$CMAKE" --install "$BUILD_DIR" --prefix "$prefix"
test -e "$prefix/include/velmora_svcmgr.h" || die "the public header is not installed"

step "the library against the installed platform"
quiet "$CMAKE" -S "$SOURCE_DIR" -B "$work/build" -DSVCMGR_PLATFORM=installed -DSVCMGR_WERROR=ON \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$device"
quiet "$CMAKE" --build "$work/build" --target install
library=$device/$LIBDIR/libvelmora-svcmgr.so
test -e "$library" || die "no library was built"

platform='rpc-port bundle dlog capi-appfw-event capi-appfw-app-common capi-appfw-app-manager'
platform="$platform capi-appfw-package-manager"
for name in $(needed "$library"); do
  case $name in
    libstdc++.so.* | libgcc_s.so.* | libm.so.* | libc.so.* | ld-linux*) continue ;;
  esac
  found=
  for candidate in $platform; do
    [[ $name == "lib$candidate.so."* ]] && found=1
  done
  [ -n "$found" ] || die "the library needs $name"
done
for name in rpc-port dlog capi-appfw-app-common capi-appfw-package-manager; do
  needed "$library" | grep -q "^lib$name\.so" || die "the library does not need lib$name"
done
exports() { nm -D --defined-only "$1" | awk '{ print $3 }' | sort; }
[ "$(exports "$library")" = "$(exports "$BUILD_DIR/lib/libvelmora-svcmgr.so")" ] ||
  die "the two builds export different functions"

step "an application by pkg-config, run with either build of the library"
cat >"$work/app.c" <<'C'
#include <stdio.h>
#include <stdlib.h>
#include <velmora_svcmgr.h>

int main(void) {
  velmora_svcmgr_ai_model_info_h info = NULL;
  char *title = NULL;
  if (velmora_svcmgr_ai_model_info_create(&info) != SVCMGR_ERROR_NONE) return 1;
  if (velmora_svcmgr_ai_model_info_set_title(info, "installed") != SVCMGR_ERROR_NONE) return 2;
  if (velmora_svcmgr_ai_model_info_get_title(info, &title) != SVCMGR_ERROR_NONE) return 3;
  puts(title);
  free(title);
  return velmora_svcmgr_ai_model_info_destroy(info) == SVCMGR_ERROR_NONE ? 0 : 4;
}
C
# shellcheck disable=SC2046
quiet "$CC" -std=c99 -Wall -Wextra -Wpedantic -Werror "$work/app.c" -o "$work/app" \
  $(pkg-config --cflags --libs velmora-svcmgr) -Wl,-rpath-link,"$prefix/$LIBDIR"
for folder in "$prefix/$LIBDIR" "$device/$LIBDIR:$prefix/$LIBDIR"; do
  output=$(LD_LIBRARY_PATH=$folder "$prefix/bin/svcmgr-sim" run demo -- "$work/app")
  [ "$output" = installed ] || die "the application printed '$output'"
done

step "an application by CMake"
mkdir "$work/cmake-app"
cat >"$work/cmake-app/CMakeLists.txt" <<'C'
cmake_minimum_required(VERSION 3.25)
project(app C)
find_package(velmora-svcmgr 2.3 REQUIRED)
add_executable(app ../app.c)
target_link_libraries(app velmora-svcmgr::velmora-svcmgr)
C
quiet "$CMAKE" -S "$work/cmake-app" -B "$work/cmake-app/build" -DCMAKE_PREFIX_PATH="$prefix"
quiet "$CMAKE" --build "$work/cmake-app/build"
output=$("$prefix/bin/svcmgr-sim" run demo -- "$work/cmake-app/build/app")
[ "$output" = installed ] || die "the CMake application printed '$output'"

step "the installed command line"
"$prefix/bin/svcmgr-sim" run demo -- "$prefix/bin/svcmgrctl" models list | grep -q . ||
  die "svcmgrctl listed nothing"
step "all passed"
