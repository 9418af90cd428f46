#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds and tests the tree in many ways, one after the other, whatever fails, and prints a table.
#
#   matrix.sh FOLDER [NAME...]    all that this machine has the tools for, or those named
#   matrix.sh --list
#
# FOLDER gets a build and a log of each. The end is 0 if all passed; what was not tried is told.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
jobs=${JOBS:-$(nproc)}

die() { printf 'matrix.sh: %s\n' "$*" >&2; exit 2; }

# NAME|what is built and tested|command that this needs|preset|configuring, in CMake's words|tests, in ctest's words|environment
# Optimised as a distribution does it, with what its checks add to the C and C++ library.
hardened='-O2 -D_GLIBCXX_ASSERTIONS -D_FORTIFY_SOURCE=3'
# Where g++ 12 optimises more than the presets ask for, it sees ends of std::string overrun that are not.
overrun='-Wno-error=array-bounds -Wno-error=stringop-overflow -Wno-error=stringop-overread'
# The tests' own operator new is to stay theirs, which valgrind would replace as it does the C++ library's.
memcheck='valgrind;--soname-synonyms=somalloc=nouserintercepts;-q;--error-exitcode=99;--leak-check=full;--errors-for-leak-kinds=definite;--show-leak-kinds=definite'
rows=(
  "debug|g++, -O0|g++|dev|-DCMAKE_CXX_FLAGS=-O0||"
  "release|g++, -O3 -DNDEBUG|g++|dev|-DCMAKE_BUILD_TYPE=Release '-DCMAKE_CXX_FLAGS=$overrun'||"
  "lto|g++, -O3 and link-time optimisation|g++|dev|-DCMAKE_BUILD_TYPE=Release -DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON '-DCMAKE_CXX_FLAGS=$overrun'||"
  "hardened|g++, $hardened|g++|dev|-DCMAKE_BUILD_TYPE=None '-DCMAKE_CXX_FLAGS=$hardened $overrun' '-DCMAKE_C_FLAGS=$hardened'||"
  "clang|clang++|clang++|clang|||"
  "asan|AddressSanitizer, UndefinedBehaviorSanitizer, leaks|clang++|asan|||ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1"
  "tsan|ThreadSanitizer; 64 threads and 10,000 connections|clang++|tsan|||TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:atexit_sleep_ms=20 SVCMGR_TEST_CONNECTIONS=10000"
  "valgrind|valgrind, unit tests|valgrind|dev|-DSVCMGR_TEST_FOLDERS='fake_platform;unit' '-DCMAKE_CROSSCOMPILING_EMULATOR=$memcheck'|-L ^unit|"
)
others=(
  "libc++|clang++-19 with LLVM's C++ library, unit tests|clang++-19|tests/build/each_compiler.sh FOLDER/libc++ clang++-19/libc++"
  "msan|MemorySanitizer, unit tests, with a C++ library of its own|clang++-19|tests/build/memory_sanitizer.sh FOLDER/msan"
  "arm64|64-bit ARM, unit tests and a client, by qemu|mmdebstrap|./dev cross arm64"
  "armhf|32-bit ARM, unit tests and a client, by qemu|mmdebstrap|./dev cross armhf"
  "i386|32-bit x86, all but the tests of installed files|mmdebstrap|./dev cross i386"
  "s390x|64 bits, big-endian, unit tests and a client, by qemu|mmdebstrap|./dev cross s390x"
)

list() { printf '%s\n' "${rows[@]}" "${others[@]}" | awk -F'|' '{ printf "%-10s %s\n", $1, $2 }'; }
row_of() { printf '%s\n' "${rows[@]}" "${others[@]}" | grep -m1 "^$1|" || die "there is no '$1'; see matrix.sh --list"; }

build_and_test() {  # NAME PRESET CONFIGURING TESTS ENVIRONMENT
  local -a configuring tests environment
  read -ra environment <<<"$5"
  eval "configuring=($3) tests=($4)"
  # What is built once is built sooner with precompiled headers, which ccache does without. -e does not hold
  # where a status is asked for.
  cmake --fresh --preset "$2" -B "$folder/$1" -DSVCMGR_CCACHE= "${configuring[@]}" &&
    cmake --build "$folder/$1" -j "$jobs" -- -k 0 &&
    env "${environment[@]}" ctest --test-dir "$folder/$1" -j "$((jobs * 2))" --output-on-failure --no-tests=error "${tests[@]}"
}

try() {  # NAME
  local name what needs rest
  IFS='|' read -r name what needs rest < <(row_of "$1")
  if ! command -v "$needs" >/dev/null; then
    results+=("$name|not tried: there is no $needs||$what")
    return
  fi
  printf '==> %s: %s\n' "$name" "$what"
  local begin=$SECONDS status=0 log=$folder/$name.log tests
  if printf '%s\n' "${others[@]}" | grep -q "^$name|"; then
    (cd "$root" && eval "${rest//FOLDER/\"\$folder\"}") >"$log" 2>&1 || status=$?
  else
    local preset configuring arguments environment
    IFS='|' read -r preset configuring arguments environment <<<"$rest"
    (cd "$root" && build_and_test "$name" "$preset" "$configuring" "$arguments" "$environment") >"$log" 2>&1 || status=$?
  fi
  tests=$(sed -n 's/.*tests passed, \([0-9]* tests failed out of [0-9]*\).*/\1/p' "$log" | tail -n 1)
  if [ $status = 0 ]; then
    results+=("$name|passed|${tests#* tests failed out of } tests|$what, $(((SECONDS - begin + 30) / 60)) min")
  else
    failed=1
    tail -n 15 "$log" >&2
    results+=("$name|FAILED|${tests:-not built}|$what: $log")
  fi
}

case ${1:-} in
  --list) list; exit ;;
  '' | -*) sed -n '4,9s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
esac
mkdir -p "$1"
folder=$(cd "$1" && pwd)
shift
[ $# -gt 0 ] || mapfile -t all < <(list | cut -d' ' -f1)
for name in "$@"; do row_of "$name" >/dev/null || exit; done
results=() failed=0
for name in "${@:-${all[@]}}"; do try "$name"; done
printf '%s\n' "${results[@]}" | awk -F'|' '{ printf "%-10s %-10s %-24s %s\n", $1, $2, $3, $4 }'
exit $failed
