#!/usr/bin/env bash
# The long soak: 10,000 teller operations against the simulated reader, each
# with a fault of the reader drawn at random (fixed seed), in the release
# build. The report goes to $KOLT_REPORT_DIR/soak.md when that is set.
#   scripts/soak.sh [--ops N] [--seed S] [--report FILE]
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}"

cd "$KOLT_ROOT"
build=build/release
cmake -S "$KOLT_ROOT" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$KOLT_JOBS" --target kolt-soak
KOLT_TEST_SOURCE_DIR="$KOLT_ROOT" "$build/tests/kolt-soak" --ops 10000 "$@"
