#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# What a client can ask an agent, and have it do, shown with the command line:
# examples/demo.sh SVCMGRCTL
set -eu
ctl=${1:-svcmgrctl}

say() { printf '\n# %s\n' "$*"; }
show() {
  printf '\n$ svcmgrctl %s\n' "$*"
  "$ctl" "$@"
}
# Below svcmgr-sim the agent is a process that can be looked at.
agent() {
  [ -n "${SVCMGR_SIM_CONTROL:-}" ] || return 0
  printf '%s%s, version %s\n' "$1" "$(cat "$(dirname "$SVCMGR_SIM_CONTROL")/agent.pid")" \
    "$(sed -n 's/^Version *= *//p' "$VELMORA_PACKAGE_DIR"/com.velmora.svcmgr.package)"
}

say "Ask the agent"
show status
show api-level
show license
show models list --descriptions
models=$("$ctl" --json models list | sed -n 's/.*"id": *"\([^"]*\)".*/\1/p')
model=$(echo "$models" | sed -n 1p)
other=$(echo "$models" | sed -n 3p)
show models versions "$model"

say "Have the agents updated; this agent updates itself, and the client stays connected"
agent "the agent is process "
show update
agent "the agent is process "

say "Have two models updated, and one of them removed"
show models update "$model" "$other"
show models list
show models uninstall "$model"
show models list

say "Ask which client API level an application was built against: one that ships the library"
app=$(mktemp -d)
trap 'rm -rf "$app"' EXIT
mkdir "$app/lib"
cp "$(ldd "$(command -v "$ctl")" | sed -n 's/.*libvelmora-svcmgr[^ ]* => \([^ ]*\).*/\1/p')" "$app/lib/"
show client-level "$app"
VELMORA_LOG_LEVEL=silent
export VELMORA_LOG_LEVEL
show --verbose client-level "$app"
