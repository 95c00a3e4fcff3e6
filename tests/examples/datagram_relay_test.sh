#!/usr/bin/env bash
# What datagram_relay promises; datagram_relay_test.py says what.
#
#   datagram_relay_test.sh WORK_FOLDER COMMAND...
set -euo pipefail
shift # it writes no file
exec python3 -B "$(dirname "$0")/datagram_relay_test.py" "$@"
