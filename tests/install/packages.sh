#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the Debian packages that ./dev package has made, uses, upgrades and removes them:
#
#     tests/install/packages.sh [FOLDER]      build/package, if no folder is given
#
# This changes the machine that it runs on: run it as root in a container, or another root that is bare.
# Of the tree it needs tests/ alone.
set -euo pipefail

# shellcheck source=tests/support/script.sh
tests=$(dirname "$(dirname "$(readlink -f "$0")")")
. "$tests/support/script.sh"
tree=$(dirname "$tests")
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
status=0
svcmgrctl doctor >"$work/log" 2>&1 || status=$?
if [ "$status" != 5 ] || ! grep -q 'svcmgr-sim run' "$work/log"; then
  cat "$work/log"
  die "without an agent svcmgrctl doctor returns $status"
fi

step "what a developer installs"
mapfile -t all < <(files "$folder" "${names[@]}")
install "${all[@]}" g++ cmake make pkg-config libglib2.0-dev man-db python3 dpkg-dev bash-completion zsh fish
quiet dpkg --verify "${names[@]}"
[ ! -s "$work/log" ] || { cat "$work/log"; die "files are not as in their packages"; }
for library in /usr/lib/*/libvelmora-svcmgr.so.2 /usr/lib/*/librpc-port.so.1; do
  ! ldd "$library" | grep -q 'not found' || die "$library misses: $(ldd "$library")"
done
for page in 1/svcmgrctl 1/svcmgr-sim 3/velmora_svcmgr_connect 5/svcmgr-scenario 7/velmora_svcmgr; do
  man -w "${page%/*}" "${page#*/}" >/dev/null || die "there is no manual page ${page#*/}(${page%/*})"
done
[[ $(man velmora_svcmgr | head -n 1) == 'VELMORA_SVCMGR(7)'* ]] || die "man velmora_svcmgr shows something else"
[ -f /usr/share/doc/velmora-svcmgr/html/index.html ] || die "there is no HTML manual"
quiet svcmgr-sim run demo -- svcmgrctl doctor

step "completion"
completed() { [ "$2" = "uninstall update" ] || die "$1 completes 'models u' to '$2'"; }
completed bash "$(bash --norc -c '
  source /usr/share/bash-completion/bash_completion
  _completion_loader svcmgrctl
  COMP_WORDS=(svcmgrctl models u) COMP_CWORD=2
  function=$(complete -p svcmgrctl | sed "s/.*-F \([^ ]*\) .*/\1/")
  "$function" && echo $(printf "%s\n" "${COMPREPLY[@]}" | sort)')"
completed zsh "$(zsh -f -c '
  autoload -Uz compinit && compinit -u -D
  compadd() { shift; print -r -- ${(o)@} }
  words=(svcmgrctl models u) CURRENT=3
  $_comps[svcmgrctl]')"
completed fish "$(fish -c "complete -C 'svcmgrctl models u'" | sort | xargs)"

step "the guide's first application, in C and C++"
# What was installed in a home folder there has the same layout as the system's.
mkdir "$work/home"
ln -s /usr "$work/home/.local"
SOURCE_DIR=/usr/share/doc/velmora-svcmgr BUILD_DIR=/nonexistent PROGRAMS=/usr/bin WORK_DIR=$work/guide HOME=$work/home \
  quiet python3 -B "$tests/guide/guide_test.py" /usr/share/doc/velmora-svcmgr/docs/guide/first-application.md

step "the packages' own tests"
quiet dpkg-source -x "$folder"/velmora-svcmgr_*.dsc "$work/source"
for name in $(sed -n 's/^Tests: //p' "$work/source/debian/tests/control"); do
  mkdir -p "$work/tests/$name"
  AUTOPKGTEST_TMP=$work/tests/$name quiet sh "$work/source/debian/tests/$name"
done
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
