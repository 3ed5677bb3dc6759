#!/usr/bin/env bash
# Fuzzes every target of fuzz/ with libFuzzer (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) for the given number of seconds each, starting
# from a copy of its seed corpus and its saved regressions (fuzz/pending,
# the findings still waiting for a library fix, is left out). Exits non-zero
# when any target finds a crash, a hang, a leak or undefined behaviour; the
# input that shows it is kept in build/fuzz/run/<target>/ (artifact files).
#
# Usage: scripts/fuzz.sh [seconds per target (default 30)] [target...]
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}" clang libclang-rt-14-dev

seconds="${1:-30}"
shift || true
case "$seconds" in ''|*[!0-9]*) echo "usage: $0 [seconds per target] [target...]" >&2; exit 2 ;; esac

cd "$KOLT_ROOT"
build=build/fuzz
echo "== fuzz build (clang, libFuzzer, ASan + UBSan) in $build"
cmake -S . -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOLT_FUZZ=ON -DKOLT_TESTS=OFF >/dev/null
cmake --build "$build" -j "$KOLT_JOBS" --target kolt_fuzz

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    for src in fuzz/targets/*.cpp; do targets+=("$(basename "$src" .cpp)"); done
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"
failed=()
for t in "${targets[@]}"; do
    bin="$build/fuzz/fuzz_$t"
    if [ ! -x "$bin" ]; then
        echo "== no fuzz target $t" >&2
        failed+=("$t")
        continue
    fi
    run="$build/run/$t"
    rm -rf "$run"
    mkdir -p "$run/corpus" "$run/artifacts"
    for dir in "fuzz/corpus/$t" "fuzz/regressions/$t"; do
        if [ -d "$dir" ]; then cp -r "$dir/." "$run/corpus/"; fi
    done
    echo "== $t: ${seconds} s"
    if "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
            -artifact_prefix="$run/artifacts/" "$run/corpus" >"$run/log" 2>&1; then
        grep -E '^stat::number_of_executed_units|^Done ' "$run/log" | tr '\n' ' '
        echo
    else
        echo "== $t: FINDING (log: $run/log)"
        grep -E 'ERROR:|runtime error:|fuzz check failed|SUMMARY:|Test unit written' "$run/log" | head -8
        for a in "$run"/artifacts/*; do
            [ -f "$a" ] && echo "   input: $a ($(od -An -tx1 -v "$a" | tr -d ' \n' | cut -c1-160))"
        done
        if [ -d "fuzz/pending/$t" ]; then
            echo "   (fuzz/pending/$t holds findings of $t that wait for a library fix: see fuzz/pending/README.md)"
        fi
        failed+=("$t")
    fi
done

if [ ${#failed[@]} -ne 0 ]; then
    echo "== fuzzing found problems in: ${failed[*]}"
    exit 1
fi
echo "== fuzzing: no findings in ${#targets[@]} targets"
