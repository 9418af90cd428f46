#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# What a client can ask an agent, shown with the command line: examples/demo.sh SVCMGRCTL
set -eu
ctl=${1:-svcmgrctl}

show() {
  printf '\n$ svcmgrctl %s\n' "$*"
  "$ctl" "$@"
}

show status
show api-level
show license
show models list --descriptions
model=$("$ctl" --json models list | sed -n 's/.*"id": *"\([^"]*\)".*/\1/p' | head -n 1)
show models versions "$model"
