#!/bin/sh
# Records the sessions of this directory again: each library flow of
# tests/common/session_flows.cpp runs through a proxy in front of the
# simulated reader, and is written here only when a replay of it gives the
# library the same results. Only the times change from one run to the next
# (the flows send no date and no random number).
#
#   sim/sessions/record.sh [BUILD_DIR [NAME ...]]    (default build/dev)
set -eu
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
build=${1:-$root/build/dev}
[ $# -gt 0 ] && shift
cmake --build "$build" -j2 --target kolt-record-sessions
KOLT_TEST_SOURCE_DIR=$root "$build/tests/kolt-record-sessions" "$here" "$@"
