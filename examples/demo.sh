#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# What the library does for an application, shown with the command line:
# svcmgr-sim run demo -- examples/demo.sh [SVCMGRCTL [SVCMGR_SIM]]
set -eu
ctl=${1:-svcmgrctl}
sim=${2:-svcmgr-sim}
notes=$(mktemp -d)
watcher=
trap 'rm -rf "$notes"; [ -z "$watcher" ] || kill "$watcher" 2>/dev/null' EXIT

bold= plain=
if [ -t 1 ] && [ -z "${NO_COLOR:-}" ] && [ "${TERM:-dumb}" != dumb ]; then
  bold=$(printf '\033[1m')
  plain=$(printf '\033[0m')
fi
say() { printf '\n%s# %s%s\n' "$bold" "$*" "$plain"; }
run() {
  printf '\n$ svcmgrctl %s\n' "$*"
  "$ctl" "$@"
}

say "An agent of some version"
run status

say "It replaces itself by a new version, under a client that stays connected"
printf '\n$ svcmgrctl watch connection >heard &\n'
: >"$notes/heard"
"$ctl" watch connection >"$notes/heard" 2>/dev/null &
watcher=$!
until grep -q CONNECTED "$notes/heard"; do
  kill -0 "$watcher"
  sleep 0.05
done
run update
printf '\n$ cat heard\n'
cat "$notes/heard"
kill "$watcher"
wait "$watcher" || true
watcher=

say "Not a word of a loss. The new agent answers"
run status

say "Two models are updated"
run models update vision.segment speech.wake-word
run models list

say "The agent dies in the middle of the work: the client knows what it does not know"
"$sim" expect --timeout 60 "RequestToUpdate asked 2 times" "RequestToUpdate at 40 percent" &&
  "$sim" send kill &
killer=$!
status=0
run models update vision.segment@1.1.0 2>&1 || status=$?
printf '\n$ echo $?\n%s\n' "$status"
wait "$killer"

say "Your turn"
cat <<END

What the command line can do:
$ $sim run demo -- $ctl --help

Agents that are old, silent or broken, to try it with:
$ $sim list

Your first application, in C and in C++:
$ less $(dirname "$(dirname "$0")")/docs/guide/first-application.md
END
