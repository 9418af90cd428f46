#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs many worlds at once, each with an application of its own, until all are there; then each
# application asks, and each trace must show that one application alone.
#
# usage: side_by_side.sh SVCMGR-SIM SVCMGRCTL COUNT
set -euo pipefail
export SIM=$1 CTL=$2
count=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export work TMPDIR=$work/worlds
mkdir "$TMPDIR"

# shellcheck disable=SC2016
one() {  # NUMBER
  "$SIM" run demo --time-scale 0 --trace "$work/$1.jsonl" --app-id "org.example.n$1" -- bash -euc '
    echo here >>"$work/there"
    until [ -e "$work/go" ]; do sleep 0.05; done
    "$CTL" --timeout 300 models update speech.wake-word >/dev/null
    "$SIM" send self-update
    "$CTL" --timeout 300 api-level >/dev/null
    "$SIM" expect --timeout 300 "RequestToUpdate of speech.wake-word asked by org.example.n'"$1"'" \
      "event COMPLETED" "agent ended" "agent started" "get_agent_api_level answered" "no client connected"
  ' || echo "world $1 failed" >>"$work/failures"
}
: >"$work/there"
: >"$work/failures"
for ((i = 0; i < count; ++i)); do one "$i" & done
until [ "$(wc -l <"$work/there")" = "$count" ] || [ -s "$work/failures" ]; do sleep 0.1; done
: >"$work/go"
wait

cat "$work/failures"
[ ! -s "$work/failures" ]
for ((i = 0; i < count; ++i)); do
  others=$(grep -o '"app":"org[^"]*"' "$work/$i.jsonl" | sort -u | grep -vx "\"app\":\"org.example.n$i\"" || true)
  [ -z "$others" ] || { echo "world $i has met $others"; exit 1; }
  [ "$(grep -c '"what":"connect"' "$work/$i.jsonl")" -ge 2 ] || { echo "world $i is not whole"; exit 1; }
done
[ -z "$(ls "$TMPDIR")" ] || { echo "worlds were left behind"; exit 1; }
