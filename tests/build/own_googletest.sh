# SPDX-License-Identifier: Apache-2.0
# What the scripts share that build GoogleTest as they build the tests, because Debian's does not fit
# them: source it.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
jobs=${JOBS:-$(nproc)}

die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

quiet() {  # LOG COMMAND...
  local log=$1
  shift
  "$@" >"$log" 2>&1 || { tail -n 60 "$log" >&2; die "failed: $*"; }
}

# FOLDER is an absolute one, and the same for all three.
build_googletest() {  # FOLDER OPTION-OF-CMAKE...
  local folder=$1
  shift
  quiet "$folder/gtest.log" cmake -S /usr/src/googletest -B "$folder/gtest" -G Ninja "$@" \
    -DCMAKE_INSTALL_PREFIX="$folder/prefix"
  quiet "$folder/gtest.log" cmake --build "$folder/gtest" -j "$jobs" --target install
}

configure_tree() {  # FOLDER OPTION-OF-CMAKE...
  local folder=$1
  shift
  quiet "$folder/configure.log" cmake -S "$root" -B "$folder/tree" -G Ninja "$@" -DCMAKE_BUILD_TYPE=Debug \
    -DSVCMGR_WERROR=ON -DCMAKE_PREFIX_PATH="$folder/prefix" '-DSVCMGR_TEST_FOLDERS=fake_platform;unit'
}

build_tree() {  # FOLDER TARGET...
  local folder=$1
  shift
  quiet "$folder/build.log" cmake --build "$folder/tree" -j "$jobs" --target "$@"
}
