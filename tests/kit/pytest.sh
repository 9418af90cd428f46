#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tests of pytest's fixtures from a prefix.
#
# usage: pytest.sh CMAKE BUILD-FOLDER LIBDIR
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$1" --install "$2" --prefix "$work/prefix" >"$work/log"
PYTHONPATH=$(PKG_CONFIG_PATH=$work/prefix/$3/pkgconfig pkg-config --variable=pytest_dir velmora-svcmgr)
export PYTHONPATH PYTHONDONTWRITEBYTECODE=1 SVCMGRCTL=$work/prefix/bin/svcmgrctl
unset SVCMGR_SIM
pytest-3 -q -p no:cacheprovider -p pytester --basetemp "$work/pytest" "$(dirname "$0")"
