# SPDX-License-Identifier: Apache-2.0
# What the tests that are scripts begin with: source it. A folder that is removed at the end, and words
# for what happens.

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

step() { printf -- '-- %s\n' "$*"; }
die() { printf 'FAILED: %s\n' "$*" >&2; exit 1; }
# What a command prints is shown if it fails; it stays in $work/log until the next one.
quiet() { "$@" >"$work/log" 2>&1 || { cat "$work/log"; die "$*"; }; }
