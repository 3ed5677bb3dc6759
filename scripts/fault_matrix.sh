#!/usr/bin/env bash
# The whole fault matrix: every device flow under every reader fault, on the
# local port and behind every teller terminal type, the library's log off
# and on, and the clerk server's misbehaviours (the ctest run covers a share
# of it). Faults that leave the library waiting wait out the real time-outs
# (3 to 10 s, 20 s for the clerk server), so the modes run side by side, one
# process each; their cells are gathered into one report:
# $KOLT_REPORT_DIR/fault_matrix.md (default: build/report).
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}"

cd "$KOLT_ROOT"
build=build/release
cmake -S "$KOLT_ROOT" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$KOLT_JOBS" --target fault_matrix_exec_test kolt-clerkd
report="${KOLT_REPORT_DIR:-$KOLT_ROOT/build/report}"
mkdir -p "$report"
rm -rf "$report/rows" && mkdir -p "$report/rows"
program="$build/tests/fault_matrix_exec_test"
start=$(date +%s)
pids=()
for mode in "local" "aux type 1" "aux type 2" "aux type 3" "aux type 4" "aux type 5" "aux type 51"; do
    slug=${mode// /_}
    env -u KOLT_REPORT_DIR KOLT_FAULT_MATRIX=full KOLT_FAULT_MATRIX_MODE="$mode" \
        KOLT_FAULT_MATRIX_ROWS_OUT="$report/rows/$slug.tsv" KOLT_TEST_SOURCE_DIR="$KOLT_ROOT" \
        "$program" --gtest_filter='FaultMatrix.Full' --gtest_brief=1 >"$report/$slug.log" 2>&1 &
    pids+=($!)
done
status=0
for pid in "${pids[@]}"; do wait "$pid" || status=1; done
KOLT_REPORT_DIR="$report" KOLT_FAULT_MATRIX=report "$program" --gtest_filter='FaultMatrix.Report' --gtest_brief=1 || status=1
echo "full matrix: $(( $(date +%s) - start )) s; report: $report/fault_matrix.md"
exit $status
