#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the unit tests under MemorySanitizer.
#
#   memory_sanitizer.sh FOLDER
#
# It takes all memory for uninitialised that others than what it compiled have written: so LLVM's C++
# library and GoogleTest are built with it first, the one from the source package of Debian's compiler.
set -euo pipefail
. "$(dirname "$(readlink -f "$0")")/own_googletest.sh"
[ $# -eq 1 ] || { sed -n '4,8s/^# \{0,1\}//p' "$0" >&2; exit 2; }
mkdir -p "$1"
folder=$(cd "$1" && pwd)
version=19

# This machine's sources of packages need not name those of sources.
fetch_sources() {
  local lists=$folder/lists options
  mkdir -p "$lists/partial"
  apt-get indextargets --format '$(SITE) $(CODENAME) $(COMPONENT) $(ORIGIN)' 'Created-By: Packages' |
    awk '$4 ~ /Debian/ { print "deb-src", $1, $2, $3 }' | sort -u >"$folder/sources.list"
  options=(-o Dir::Etc::sourcelist="$folder/sources.list" -o Dir::Etc::sourceparts=/dev/null
    -o Dir::State::lists="$lists" -o APT::Sandbox::User=root)
  quiet "$folder/fetch.log" apt-get "${options[@]}" update
  (cd "$folder" && quiet "$folder/fetch.log" apt-get "${options[@]}" source \
    --download-only "llvm-toolchain-$version")
}

build_library() {
  quiet "$folder/unpack.log" tar -C "$folder" -xf "$folder"/llvm-toolchain-$version*.orig.tar.xz \
    --strip-components=1 --wildcards --exclude='*/test/*' \
    '*/libcxx/*' '*/libcxxabi/*' '*/libunwind/*' '*/runtimes/*' '*/cmake/*' '*/llvm/utils/*'
  quiet "$folder/library.log" cmake -S "$folder/runtimes" -B "$folder/library" -G Ninja \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$folder/prefix" \
    -DCMAKE_C_COMPILER=clang-$version -DCMAKE_CXX_COMPILER=clang++-$version \
    '-DLLVM_ENABLE_RUNTIMES=libcxx;libcxxabi' -DLLVM_USE_SANITIZER=MemoryWithOrigins -DLLVM_INCLUDE_TESTS=OFF \
    -DLIBCXX_INCLUDE_TESTS=OFF -DLIBCXX_INCLUDE_BENCHMARKS=OFF -DLIBCXXABI_INCLUDE_TESTS=OFF \
    -DLIBCXXABI_USE_LLVM_UNWINDER=OFF
  quiet "$folder/library.log" ninja -C "$folder/library" -j "$jobs" install-cxx install-cxxabi
}

[ -n "$(compgen -G "$folder/llvm-toolchain-$version*.orig.tar.xz")" ] || fetch_sources
[ -e "$folder/prefix/lib/libc++.so" ] || build_library

flags="-fsanitize=memory -fsanitize-memory-track-origins"
options=("-DCMAKE_C_COMPILER=clang-$version" "-DCMAKE_CXX_COMPILER=clang++-$version"
  "-DCMAKE_C_FLAGS=$flags" "-DCMAKE_CXX_FLAGS=$flags -nostdinc++ -isystem $folder/prefix/include/c++/v1")
for kind in EXE SHARED; do
  options+=("-DCMAKE_${kind}_LINKER_FLAGS=-stdlib=libc++ -L$folder/prefix/lib -Wl,-rpath,$folder/prefix/lib")
done
build_googletest "$folder" "${options[@]}"
configure_tree "$folder" "${options[@]}" -DSVCMGR_SANITIZE=memory
build_tree "$folder" tests/fake_platform/all tests/unit/all
ctest --test-dir "$folder/tree/tests" -j "$jobs" --output-on-failure --no-tests=error
