#!/usr/bin/env bash
# The whole fault matrix: every device flow under every reader fault, on the
# local port and behind every teller terminal type, the library's log off
# and on (the ctest run covers a share of it). Takes a while: faults that
# leave the library waiting wait out the real time-outs (up to 20 s each).
# The report goes to $KOLT_REPORT_DIR/fault_matrix.md (default: build/report).
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}"

cd "$KOLT_ROOT"
build=build/release
cmake -S "$KOLT_ROOT" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$KOLT_JOBS" --target fault_matrix_exec_test
export KOLT_REPORT_DIR="${KOLT_REPORT_DIR:-$KOLT_ROOT/build/report}"
mkdir -p "$KOLT_REPORT_DIR"
KOLT_FAULT_MATRIX=full KOLT_TEST_SOURCE_DIR="$KOLT_ROOT" \
    "$build/tests/fault_matrix_exec_test" --gtest_filter='FaultMatrix.Full' --gtest_brief=1
echo "report: $KOLT_REPORT_DIR/fault_matrix.md"
