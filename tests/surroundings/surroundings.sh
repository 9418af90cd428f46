#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# surroundings.sh CASE: runs the programs of a build in other surroundings.
#
# Without a test: SOURCE_DIR=. BIN=build/release/bin tests/surroundings/surroundings.sh container
set -euo pipefail
: "${SOURCE_DIR:?}" "${BIN:?}"
BIN=$(cd "$BIN" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export LC_ALL=C

die() { printf 'FAILED: %s\n' "$*" >&2; exit 1; }
skip() { printf 'skipped: %s\n' "$*"; exit 77; }
sim() { "$BIN/svcmgr-sim" run "$@"; }
# Text in front of what it must be part of.
holds() { [[ $2 == *"$1"* ]] || die "'$1' is not in: $2"; }

time_zones() {
  local zone offset line
  # The first three are told by themselves; the others need the data of zones.
  while read -r zone offset; do
    [[ $zone == *[0-9]* ]] || [ -e "/usr/share/zoneinfo/$zone" ] || continue
    line=$(TZ=$zone sim demo --time-scale 0 -- "$BIN/svcmgrctl" --timeout 60 update --json | head -n 1)
    [[ $line =~ \"time\":\"[0-9-]{10}T[0-9:.]{12}$offset\" ]] || die "in $zone: $line"
  done <<'TXT'
<+0530>-5:30 \+05:30
NST3:30 -03:30
<+0545>-5:45 \+05:45
Asia/Kolkata \+05:30
Pacific/Chatham \+1[23]:45
TXT
  # Logs and traces are in UTC, wherever they are written.
  TZ='<+0530>-5:30' VELMORA_LOG_LEVEL=info VELMORA_LOG_FILE=$work/log \
    sim demo --trace "$work/trace" -- "$BIN/list-models" >/dev/null
  [ -s "$work/log" ] || die "there is no log"
  ! grep -Ev '[0-9-]{10}T[0-9:.]{12}Z' "$work/log" || die "a record without its time in UTC"
  holds "$(date -u +%Y-%m-%dT)" "$(tail -n 1 "$work/log")$(date -u +%Y-%m-%dT)"
  ! grep -Ev '^\{"time":"[0-9-]{10}T[0-9:.]{15}Z"' "$work/trace" || die "a trace without its time in UTC"
}

odd_folders() {
  local home="$work/John Ö. Doe; 100%,=#&"
  mkdir -p "$home/run" "$home/.local/share/velmora/packages" "$home/app/res"
  printf '[Package]\nVersion=2.3.182\n' >"$home/.local/share/velmora/packages/com.velmora.svcmgr.package"
  # Found below the home folder; nobody listens there.
  local said
  said=$(env -i HOME="$home" PATH="$PATH" XDG_RUNTIME_DIR="$home/run" "$BIN/svcmgrctl" status 2>&1) &&
    die "there is an agent"
  holds "the agent is not running" "$said"
  # The world, its bus and its ports lie there, too.
  cp "$SOURCE_DIR/agent/scenario/shipped/demo.json" "$home/my demo.json"
  said=$(cd "$home" && HOME=$home TMPDIR=$home sim "./my demo.json" --time-scale 0 --trace "$home/the trace" \
    --capture "$home/the capture" --app-root "$home/app" -- bash -euc '
      [[ $VELMORA_RUNTIME_DIR == "$HOME"/* ]]
      VELMORA_LOG_LEVEL=info VELMORA_LOG_FILE=$HOME/"the log" "$1/svcmgrctl" --timeout 60 models list
      "$1/svcmgrctl" --timeout 60 update' _ "$BIN")
  holds "vision.segment" "$said"
  holds "SVCMGR_UPDATE_STATUS_COMPLETED" "$said"
  [ -s "$home/the trace" ] && [ -s "$home/the capture" ] || die "no trace, or no capture"
  [ -z "$(find "$home" -name 'svcmgr-sim-*')" ] || die "something of the world is left"
}

no_bus() {
  cat >"$work/no-bus.json" <<'TXT'
{ "bus": false, "timeScale": 0,
  "models": [{ "id": "a", "versions": ["1"], "available": ["2"] }] }
TXT
  # Neither an address nor a folder in which there could be a bus.
  sim "$work/no-bus.json" -- env -u DBUS_SESSION_BUS_ADDRESS -u XDG_RUNTIME_DIR -u HOME bash -euc '
    "$1/svcmgrctl" --timeout 60 status
    "$1/svcmgrctl" --timeout 60 models list
    "$1/svcmgrctl" --timeout 60 models update a
    "$1/svcmgrctl" --timeout 60 models list
    "$1/svcmgrctl" --timeout 60 --verbose updating' _ "$BIN" >"$work/said" 2>"$work/log" ||
    { cat "$work/said" "$work/log"; die "something other than events does not work"; }
  grep -q '^Connection  *connected' "$work/said" || die "no connection"
  grep -q '^a  *2 ' "$work/said" || { cat "$work/said"; die "the model was not updated"; }
  # That there are no events is told, in the log, and is no failure.
  grep -Eiq 'event|subscri' "$work/log" || { cat "$work/log"; die "nobody says that there are no events"; }
}

no_bus_daemon() {
  local said
  said=$(PATH=$work sim demo -- "$BIN/svcmgrctl" status 2>&1) && die "there is a bus"
  holds 'dbus-daemon' "$said"
  holds '"bus": false' "$said"
  echo '{"bus": false}' >"$work/no-bus.json"
  holds "connected" "$(PATH=$work sim "$work/no-bus.json" -- "$BIN/svcmgrctl" --timeout 60 status)"
}

no_bus_files() {
  printf '#!/bin/sh\ncase "$*" in *libsystemd*) exit 1 ;; esac\nexec pkg-config "$@"\n' >"$work/pkg-config"
  chmod +x "$work/pkg-config"
  if PKG_CONFIG=$work/pkg-config "${CMAKE:-cmake}" -S "$SOURCE_DIR" -B "$work/build" -DBUILD_TESTING=OFF >"$work/said" 2>&1; then
    die "it was configured without libsystemd"
  fi
  holds "libsystemd-dev" "$(tr -s ' \n' ' ' <"$work/said")"
  holds "SVCMGR_PLATFORM=installed" "$(tr -s ' \n' ' ' <"$work/said")"
}

languages() {
  command -v localedef >/dev/null && [ -e /usr/share/i18n/locales/tr_TR ] || skip "there are no sources of locales"
  # What an application does that speaks its user's language, and these programs do not.
  cat >"$work/speak.c" <<'C'
#include <ctype.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
__attribute__((constructor)) static void speak(void) {
  if (!setlocale(LC_ALL, "") || strcmp(localeconv()->decimal_point, ",") != 0) abort();
}
C
  "${CC:-cc}" -shared -fPIC -o "$work/speak.so" "$work/speak.c"
  local name program plain
  for name in de_DE tr_TR; do
    localedef -i "$name" -f UTF-8 "$work/$name.UTF-8"
    (
      export LOCPATH=$work
      export LC_ALL=$name.UTF-8
      sim demo --time-scale 0.5 -- bash -euc '
        "$1/svcmgrctl" --timeout 60.5 --json models update vision.segment
        "$1/svcmgr-sim" expect --timeout 60.5 "RequestToUpdate at 40 percent"' _ "$BIN" >"$work/$name.json"
      ! grep -E '[0-9],[0-9]' "$work/$name.json" || die "a comma in a number"
      grep -Eq '"elapsed":[0-9]+\.[0-9]+' "$work/$name.json" || die "no fraction"
      # The library, in applications.
      for program in list-models progress-bar follow-update; do
        case $program in progress-bar) set -- vision.segment ;; *) set -- ;; esac
        plain=$(LC_ALL=C sim demo --time-scale 0 -- "$BIN/$program" "$@")
        [ "$(sim demo --time-scale 0 -- env LD_PRELOAD="$work/speak.so" "$BIN/$program" "$@")" = "$plain" ] ||
          die "$program says something else in $name"
      done
    )
  done
}

container() {
  command -v bwrap >/dev/null || skip "there is no bwrap here (Debian: bubblewrap)"
  printf 'somebody:x:12345:12345::/nonexistent:/bin/sh\n' >"$work/passwd"
  local box=(bwrap --ro-bind / / --ro-bind "$work/passwd" /etc/passwd --proc /proc --dev /dev --unshare-all
    --die-with-parent --gid 12345 --clearenv --setenv PATH "$PATH" --setenv BIN "$BIN" --uid)
  "${box[@]}" 12345 true 2>/dev/null || skip "this machine makes no containers"
  # No home, no runtime folder; what can be written is /tmp alone.
  # shellcheck disable=SC2016
  "${box[@]}" 12345 --tmpfs /tmp --ro-bind "$BIN" "$BIN" bash -euc '
    ! touch /var/tmp/here 2>/dev/null || { echo "the root can be written" >&2; exit 1; }
    [ "$(id -u)" = 12345 ]
    "$BIN/svcmgr-sim" run demo --time-scale 0 -- sh -euc "
      $BIN/svcmgrctl --timeout 60 status
      $BIN/svcmgrctl --timeout 60 models update vision.segment
      $BIN/svcmgrctl --timeout 60 update
      $BIN/list-models"
    find /tmp -name "svcmgr-sim-*"' >"$work/said" 2>&1 || { cat "$work/said"; die "it does not work in a container"; }
  grep -q 'SVCMGR_UPDATE_STATUS_COMPLETED' "$work/said" || { cat "$work/said"; die "no update"; }
  [ "$(tail -n 1 "$work/said")" = "text.summary.small" ] || { cat "$work/said"; die "something is left in /tmp"; }
  # A user whom the machine does not know: no events, which is said.
  "${box[@]}" 23456 --tmpfs /tmp --ro-bind "$BIN" "$BIN" "$BIN/svcmgr-sim" run demo -- \
    "$BIN/svcmgrctl" --timeout 60 models update vision.segment >"$work/said" 2>&1 ||
    { cat "$work/said"; die "models need no events"; }
  holds "user 23456 has no entry in the password database" "$(cat "$work/said")"
  # Where nothing at all can be written, it is said, and nothing hangs.
  if "${box[@]}" 12345 "$BIN/svcmgr-sim" run demo -- true >"$work/said" 2>&1; then die "a world without a folder"; fi
  holds "svcmgr-sim: " "$(cat "$work/said")"
  holds "ead-only" "$(cat "$work/said")"
  if "${box[@]}" 12345 "$BIN/svcmgrctl" --timeout 60 status >"$work/said" 2>&1; then die "an agent in an empty container"; fi
  holds "the agent is not installed" "$(cat "$work/said")"
}

case ${1:-} in
  time_zones | odd_folders | no_bus | no_bus_daemon | no_bus_files | languages | container) "$1" ;;
  *) sed -n '3,5s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
esac
