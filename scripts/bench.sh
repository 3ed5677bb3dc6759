#!/usr/bin/env bash
# Builds kolt-bench (Google Benchmark, against the simulated reader) and
# runs it; extra arguments go to the program (e.g. --benchmark_filter=Stripe).
# With --flow first, runs kolt-flow-bench instead (the teller operations on a
# paced line; e.g. --flow --runs 5 --markdown flow.md).
# The results worth keeping go to docs/performance.md.
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}" libbenchmark-dev

cd "$KOLT_ROOT"
build=build/bench
kolt_build "$build" -DCMAKE_BUILD_TYPE=Release -DKOLT_TESTS=OFF -DKOLT_BENCH=ON
if [[ "${1:-}" == --flow ]]; then
    shift
    exec "$build/bench/kolt-flow-bench" "$@"
fi
"$build/bench/kolt-bench" "$@"
