#!/usr/bin/env bash
# The picture of a pool, drawn from inputs known by heart and from what a program writes.
#
#   gvview_test.sh SOURCE_DIR WORK_FOLDER PROGRAM
#
# PROGRAM writes a dump and a report into the folder that it is given.
set -euo pipefail
rm -rf "$2"
mkdir -p "$2"
"$3" "$2"
PYTHONDONTWRITEBYTECODE=1 python3 "$1/tests/gvview/gvview_test.py" "$1/tools/gvview" "$1/tests/gvview" "$2/dump" "$2/report"
rm -rf "$2"
