#!/usr/bin/env bash
# Runs the whole test suite twice: a normal build, then a build with
# AddressSanitizer and UndefinedBehaviorSanitizer (halting on the first error).
# Both build with -Werror (KOLT_WERROR), as CI does.
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}" "${KOLT_PACKAGING_PACKAGES[@]}"

cd "$KOLT_ROOT"
start=$(date +%s)
# Most tests spend their time waiting on a line or a time-out, not on the
# CPU: twice as many at a time as there are cores.
test_jobs=$(( KOLT_JOBS * 2 ))

echo "== normal build"
kolt_build build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOLT_WERROR=ON
(cd build/release && ctest --output-on-failure -j "$test_jobs" --timeout 180)

echo "== AddressSanitizer + UBSan build"
kolt_build build/asan -DCMAKE_BUILD_TYPE=Debug -DKOLT_SANITIZE=ON -DKOLT_WERROR=ON
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1"
export UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1"
(cd build/asan && ctest --output-on-failure -j "$test_jobs" --timeout 300)

echo "== all tests passed in $(( $(date +%s) - start )) s"
