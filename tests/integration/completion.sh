#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# completion.sh SHELL FOLDER SVCMGRCTL SVCMGR_SIM: completes command lines in that shell, as it does for a
# person, from the completion in FOLDER; and with an agent that does not answer.
set -eu
shell=$1 folder=$2 ctl=$3 sim=$4
PATH=$(dirname "$ctl"):$(dirname "$sim"):$PATH
export PATH
# Where a shell would find names of files, there are none that matter.
cd "$(dirname "$SVCMGR_SIM_CONTROL")"

# What the shell proposes for a command line with the cursor at its end, in one line.
proposals() { # PROGRAM LINE
  case $shell in
    bash)
      bash --norc -c '
        source "$1"
        read -ra COMP_WORDS <<<"$2"
        [[ $2 != *" " ]] || COMP_WORDS+=("")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMPREPLY=()
        function=$(complete -p "${COMP_WORDS[0]}" | sed "s/.*-F \([^ ]*\) .*/\1/")
        "$function" && echo "${COMPREPLY[@]}"' bash "$folder/bash/$1" "$2"
      ;;
    zsh)
      zsh -f -c '
        compadd() { shift; print -r -- "$@" }
        _files() { print files }
        words=("${(@s: :)2}")
        CURRENT=$#words
        source "$1"' zsh "$folder/zsh/$1" "$2" || true
      ;;
    fish)
      fish --no-config -c "source '$folder/fish/$1'; complete -C '$2'" | tr '\n' ' ' | sed 's/ $//'
      echo
      ;;
  esac
}

check() { # PROGRAM LINE EXPECTED
  found=$(proposals "$1" "$2")
  [ "$(echo "$found" | tr ' ' '\n' | sort | xargs)" = "$3" ] || {
    printf '%s: "%s" is completed to "%s", not to "%s"\n' "$shell" "$2" "$found" "$3" >&2
    exit 1
  }
}

check svcmgrctl 'svcmgrctl sta' status
check svcmgrctl 'svcmgrctl models u' 'uninstall update'
check svcmgrctl 'svcmgrctl status --ti' --timeout
check svcmgrctl 'svcmgrctl --color a' 'always auto'
check svcmgrctl 'svcmgrctl --timeout 3 mod' models
check svcmgrctl 'svcmgrctl models list --fields ver' version
check svcmgrctl 'svcmgrctl models list --fields id,ti' id,title
check svcmgrctl 'svcmgrctl updating --format ' 'json updating'
check svcmgrctl 'svcmgrctl watch m' model
check svcmgrctl 'svcmgrctl help models ver' versions
check svcmgrctl 'svcmgrctl explain SVCMGR_ERROR_NO_' SVCMGR_ERROR_NO_SPACE
check svcmgrctl 'svcmgrctl models update vision.' 'vision.segment vision.upscale'
check svcmgrctl 'svcmgrctl models uninstall speech' speech.wake-word
check svcmgrctl 'svcmgrctl update com.velmora.sv' com.velmora.svcmgr
check svcmgr-sim 'svcmgr-sim che' check
check svcmgr-sim 'svcmgr-sim run de' demo
check svcmgr-sim 'svcmgr-sim run demo --tr' --trace
check svcmgr-sim 'svcmgr-sim help rec' record
check svcmgr-sim 'svcmgr-sim send rest' restart
kill -STOP "$(cat "$VELMORA_RUNTIME_DIR/../agent.pid")"
check svcmgrctl 'svcmgrctl models update vision.' ''
kill -CONT "$(cat "$VELMORA_RUNTIME_DIR/../agent.pid")"
