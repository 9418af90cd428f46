#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the build into a folder and builds against what was installed: the library itself a second
# time with the platform found by pkg-config, an application by pkg-config, another by CMake.
set -euo pipefail

# shellcheck source=tests/support/script.sh
. "$(dirname "$(readlink -f "$0")")/../support/script.sh"
prefix=$work/prefix
device=$work/device
export PKG_CONFIG_PATH=$prefix/$LIBDIR/pkgconfig

# Exactly one section of 16 bytes, never loaded: level 11, version 2.3.182.
has_marker() {  # FILE
  local rows offset bytes
  rows=$(readelf -SW "$1" | sed -n 's/^ *\[ *[0-9]*\] \.kyr  *//p')
  # Type, address, offset, 16 bytes, entry size, no flags, link, info, alignment.
  [[ $rows =~ ^PROGBITS\ +0+\ ([0-9a-f]+)\ 000010\ 00\ +0\ +0\ +1$ ]] ||
    die "$1 has these markers: '$rows'"
  offset=$((16#${BASH_REMATCH[1]}))
  bytes=$(od -An -tx1 -j "$offset" -N 16 "$1")
  [ "$bytes" = " 4b 59 52 00 00 00 01 00 0b 00 02 00 03 00 b6 00" ] ||
    die "the marker of $1 is$bytes"
}
needed() { readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'; }

step "installing"
quiet "$CMAKE" --install "$BUILD_DIR" --prefix "$prefix"
test -e "$prefix/include/velmora_svcmgr.h" || die "the public header is not installed"
has_marker "$prefix/$LIBDIR/libvelmora-svcmgr.so"
has_marker "$prefix/bin/svcmgrctl"
quiet "$CMAKE" --install "$BUILD_DIR" --prefix "$work/stripped" --strip
has_marker "$work/stripped/$LIBDIR/libvelmora-svcmgr.so"
has_marker "$work/stripped/bin/svcmgrctl"

step "each file belongs to a component, by which packages are made"
quiet "$CMAKE" --install "$BUILD_DIR" --prefix "$work/unspecified" --component Unspecified
[ ! -e "$work/unspecified" ] || die "these have no component: $(find "$work/unspecified" -type f)"

step "the library against the installed platform"
quiet "$CMAKE" -S "$SOURCE_DIR" -B "$work/build" -DSVCMGR_PLATFORM=installed -DSVCMGR_WERROR=ON -DSVCMGR_CTL=OFF \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$device" \
  -DCMAKE_CXX_FLAGS="-ffunction-sections -fdata-sections" \
  -DCMAKE_SHARED_LINKER_FLAGS=-Wl,--gc-sections
quiet "$CMAKE" --build "$work/build" --target install
library=$device/$LIBDIR/libvelmora-svcmgr.so
test -e "$library" || die "no library was built"
has_marker "$library"

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
has_marker "$work/cmake-app/build/app"

step "an application in C++, with and without exceptions"
cat >"$work/face.cc" <<'C'
#include <iostream>
#include <velmora_svcmgr_glib.hpp>

namespace vs = velmora::svcmgr;

int main() {
  GMainLoop* main = g_main_loop_new(nullptr, FALSE);
  vs::GlibLoop loop;
  vs::Session session(loop);
  vs::ModelWork work;
  const vs::Token listing = session.Models(
      [&](vs::Outcome<vs::ModelList> models) {
        if (!models) std::cout << models.error() << std::endl;
        if (!models) return g_main_loop_quit(main);
        std::cout << models->size() << " models" << std::endl;
        work = session.Update(
            {(*models)[0]}, [](const vs::Progress&) {},
            [&](vs::Outcome<void> end) {
              std::cout << (end ? "done" : end.error().remedy()) << std::endl;
              g_main_loop_quit(main);
            });
      },
      std::chrono::seconds(60));
  g_main_loop_run(main);
  g_main_loop_unref(main);
}
C
expect_face() {  # APPLICATION
  output=$(LD_LIBRARY_PATH=$prefix/$LIBDIR "$prefix/bin/svcmgr-sim" run demo -- "$1")
  [ "$output" = $'4 models\ndone' ] || die "the application $1 printed '$output'"
}
for options in "-std=c++17" "-std=c++20" "-std=c++17 -fno-exceptions -fno-rtti"; do
  # shellcheck disable=SC2046,SC2086
  quiet "$CXX" $options -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror "$work/face.cc" \
    -o "$work/face" $(pkg-config --cflags --libs velmora-svcmgr glib-2.0) -pthread \
    -Wl,-rpath-link,"$prefix/$LIBDIR"
  expect_face "$work/face"
done
mkdir "$work/face-app"
cat >"$work/face-app/CMakeLists.txt" <<'C'
cmake_minimum_required(VERSION 3.25)
project(face CXX)
find_package(velmora-svcmgr 2.3 REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(GLIB REQUIRED IMPORTED_TARGET glib-2.0)
add_executable(face ../face.cc)
target_compile_features(face PRIVATE cxx_std_17)
target_link_libraries(face velmora-svcmgr::velmora-svcmgr PkgConfig::GLIB Threads::Threads)
C
quiet "$CMAKE" -S "$work/face-app" -B "$work/face-app/build" -DCMAKE_PREFIX_PATH="$prefix"
quiet "$CMAKE" --build "$work/face-app/build"
expect_face "$work/face-app/build/face"

step "the client API level of applications"
cat >"$work/level.c" <<'C'
#include <stdio.h>
#include <velmora_svcmgr.h>

int main(void) {
  int level = 0;
  const int result = velmora_svcmgr_get_client_api_level(&level);
  if (result == SVCMGR_ERROR_NONE) printf("level %d\n", level);
  if (result == SVCMGR_ERROR_NOT_SUPPORTED) puts("no marker");
  return 0;
}
C
# The root of each application is a folder that holds nothing but its executable.
expect_level() {  # APPLICATION ANSWER
  local root=$work/root output
  rm -rf "$root"
  mkdir -p "$root/bin" "$root/res"
  cp "$1" "$root/bin/app"
  output=$(LD_LIBRARY_PATH=$prefix/$LIBDIR "$prefix/bin/svcmgr-sim" run demo -- \
    env VELMORA_APP_ROOT="$root" "$root/bin/app")
  [ "$output" = "$2" ] || die "the application $1 answered '$output', not '$2'"
}
link_level() {  # OUTPUT [OBJECT OR OPTION...]
  # shellcheck disable=SC2046
  quiet "$CC" -Wl,--gc-sections -o "$1" "$work/level.c" \
    $(pkg-config --cflags --libs velmora-svcmgr) -Wl,-rpath-link,"$prefix/$LIBDIR" "${@:2}"
}
link_level "$work/unmarked"
expect_level "$work/unmarked" "no marker"
link_level "$work/marked" "$(pkg-config --variable=kyr_marker velmora-svcmgr)"
has_marker "$work/marked"
expect_level "$work/marked" "level 11"
link_level "$work/assembled" "$prefix/share/velmora-svcmgr/kyr-marker.S"
has_marker "$work/assembled"
expect_level "$work/assembled" "level 11"

mkdir "$work/marked-app"
cat >"$work/marked-app/CMakeLists.txt" <<'C'
cmake_minimum_required(VERSION 3.25)
project(level C)
find_package(velmora-svcmgr 2.3 REQUIRED)
add_library(part STATIC ../app.c)
target_link_libraries(part PUBLIC velmora-svcmgr::velmora-svcmgr)
add_executable(level ../level.c)
target_link_libraries(level PRIVATE velmora-svcmgr::velmora-svcmgr part)
add_library(plugin MODULE ../level.c)
target_link_libraries(plugin PRIVATE part velmora-svcmgr::velmora-svcmgr)
C
quiet "$CMAKE" -S "$work/marked-app" -B "$work/marked-app/build" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS="-ffunction-sections -fPIC" \
  -DCMAKE_EXE_LINKER_FLAGS=-Wl,--gc-sections
quiet "$CMAKE" --build "$work/marked-app/build"
has_marker "$work/marked-app/build/level"
has_marker "$work/marked-app/build/libplugin.so"
expect_level "$work/marked-app/build/level" "level 11"
strip "$work/marked-app/build/level"
has_marker "$work/marked-app/build/level"
expect_level "$work/marked-app/build/level" "level 11"

step "tests of an application by CTest"
mkdir "$work/tested-app"
cat >"$work/tested-app/CMakeLists.txt" <<'C'
cmake_minimum_required(VERSION 3.25)
project(tested C)
find_package(velmora-svcmgr 2.3 REQUIRED)
enable_testing()
add_executable(app ../app.c)
target_link_libraries(app velmora-svcmgr::velmora-svcmgr)
svcmgr_sim_test(NAME asks-nothing SCENARIO ./mine.json COMMAND app EXPECT "agent started" "no client connected")
svcmgr_sim_test(NAME asks-nothing-as-expected SCENARIO empty COMMAND app EXPECT "no agent started")
C
echo '{"description": "Mine."}' >"$work/tested-app/mine.json"
quiet "$CMAKE" -S "$work/tested-app" -B "$work/tested-app/build" -DCMAKE_PREFIX_PATH="$prefix"
quiet "$CMAKE" --build "$work/tested-app/build"
if (cd "$work/tested-app/build" && ctest --output-on-failure) >"$work/log"; then
  die "a test whose expectation is wrong has passed"
fi
grep -q 'asks-nothing [ .]*Passed' "$work/log" || { cat "$work/log"; die "a right test has failed"; }
grep -q 'this was not to be: no agent started' "$work/log" || { cat "$work/log"; die "no reason"; }

step "the components of the package"
mkdir "$work/components"
expect_package() {  # yes|no|WORDS, ARGUMENT OF find_package...
  cat >"$work/components/CMakeLists.txt" <<C
cmake_minimum_required(VERSION 3.16)
project(components C)
find_package(velmora-svcmgr ${*:2})
foreach(target IN ITEMS velmora-svcmgr svcmgr-sim svcmgrctl)
  if(TARGET velmora-svcmgr::\${target})
    message(STATUS "there is \${target}")
  endif()
endforeach()
message(STATUS "found: \${velmora-svcmgr_FOUND}")
C
  rm -rf "$work/components/build"
  "$CMAKE" -S "$work/components" -B "$work/components/build" -DCMAKE_PREFIX_PATH="$prefix" \
    >"$work/log" 2>&1 || true
  # The words of an error are wrapped.
  tr -s ' \n' ' ' <"$work/log" | grep -qF -- "$1" || { cat "$work/log"; die "find_package ${*:2}: no '$1'"; }
}
expect_package "there is velmora-svcmgr -- there is svcmgr-sim -- there is svcmgrctl -- found: 1" 2.3 REQUIRED
expect_package "there is velmora-svcmgr -- found: 1" 2.3 REQUIRED COMPONENTS library
expect_package "there is velmora-svcmgr -- there is svcmgrctl -- found: 1" REQUIRED COMPONENTS ctl
expect_package "velmora-svcmgr has no component 'simulator'; it has library, sim and ctl." REQUIRED COMPONENTS sim simulator
expect_package "found: 1" 2.3 COMPONENTS library OPTIONAL_COMPONENTS simulator
expect_package "version: 2.3.182" 3.0 REQUIRED
mv "$prefix/$LIBDIR/cmake/velmora-svcmgr/velmora-svcmgr-sim.cmake" "$work/hidden.cmake"
expect_package "velmora-svcmgr's component 'sim' is not installed." REQUIRED COMPONENTS sim
mv "$work/hidden.cmake" "$prefix/$LIBDIR/cmake/velmora-svcmgr/velmora-svcmgr-sim.cmake"

step "the licence, the guides and the examples"
for file in LICENSE docs/guide/README.md docs/scenarios.md examples/list-models.c; do
  [ -f "$prefix/share/doc/velmora-svcmgr/$file" ] || die "$file is not installed"
done

step "the list of what is installed"
for root in "$prefix" "$device"; do
  python3 -B "$SOURCE_DIR/tests/install/spdx_test.py" "$root" || die "the list of $root is wrong"
done

step "the dissector and the fixtures"
for file in wireshark/velmora_svcmgr.lua pytest/svcmgr_sim.py; do
  [ -f "$prefix/share/velmora-svcmgr/$file" ] || die "$file is not installed"
done

step "the manual pages"
for page in svcmgrctl svcmgr-sim; do
  [ -f "$prefix/share/man/man1/$page.1" ] || die "$page.1 is not installed"
done
[ -f "$prefix/share/man/man5/svcmgr-scenario.5" ] || die "svcmgr-scenario.5 is not installed"

step "completion for shells"
for program in svcmgrctl svcmgr-sim; do
  for file in bash-completion/completions/$program zsh/site-functions/_$program \
    fish/vendor_completions.d/$program.fish; do
    [ -f "$prefix/share/$file" ] || die "$file is not installed"
  done
done

step "the scenarios and their schema"
cmp "$prefix/share/velmora-svcmgr/scenario.schema.json" \
  "$SOURCE_DIR/agent/scenario/scenario.schema.json" || die "the schema is not installed"
"$prefix/bin/svcmgr-sim" check "$prefix"/share/velmora-svcmgr/scenarios/*.json ||
  die "the installed scenarios are wrong"

step "the installed command line"
"$prefix/bin/svcmgr-sim" run demo -- "$prefix/bin/svcmgrctl" models list | grep -q . ||
  die "svcmgrctl listed nothing"
step "all passed"
