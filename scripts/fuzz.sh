#!/usr/bin/env bash
# Fuzzes every target of fuzz/ with libFuzzer (clang, AddressSanitizer and
# UndefinedBehaviorSanitizer) for the given number of seconds each, starting
# from a copy of its seed corpus and its saved regressions (fuzz/pending,
# the findings still waiting for a library fix, is left out). Exits non-zero
# when any target finds a crash, a hang, a leak or undefined behaviour; the
# input that shows it is kept in build/fuzz/run/<target>/ (artifact files).
#
# Usage: scripts/fuzz.sh [-j JOBS] [--log FILE] [seconds per target (default 30)] [target...]
#   -j JOBS     fuzz that many targets at a time (default 1)
#   --log FILE  append one line per target to FILE as it ends (tab-separated:
#               UTC date, commit, target, seconds, executions, corpus files
#               at the end, result); fuzz/runs.tsv keeps the long runs
#
# Every run also writes build/fuzz/summary.tsv with the same columns.
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}" clang libclang-rt-14-dev

usage() { echo "usage: $0 [-j JOBS] [--log FILE] [seconds per target] [target...]" >&2; exit 2; }
jobs=1
log=""
while [ $# -gt 0 ]; do
    case "$1" in
        -j) [ $# -ge 2 ] || usage; jobs="$2"; shift 2 ;;
        --log) [ $# -ge 2 ] || usage; log="$(realpath -m "$2")"; shift 2 ;;
        -*) usage ;;
        *) break ;;
    esac
done
case "$jobs" in ''|*[!0-9]*|0) usage ;; esac
seconds="${1:-30}"
shift || true
case "$seconds" in ''|*[!0-9]*) usage ;; esac

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
commit="$(git rev-parse --short HEAD 2>/dev/null || echo unknown)"

# fuzz_one <target>: runs it; leaves its report in run/<target>/report and
# its summary line in run/<target>/summary; returns non-zero on a finding.
fuzz_one() {
    local t="$1" bin="$build/fuzz/fuzz_$1" run="$build/run/$1" result=ok execs=0
    rm -rf "$run"
    mkdir -p "$run/corpus" "$run/artifacts"
    {
        if [ ! -x "$bin" ]; then
            echo "== no fuzz target $t"
            result="missing"
        else
            for dir in "fuzz/corpus/$t" "fuzz/regressions/$t"; do
                if [ -d "$dir" ]; then cp -r "$dir/." "$run/corpus/"; fi
            done
            if "$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
                    -artifact_prefix="$run/artifacts/" "$run/corpus" >"$run/log" 2>&1; then
                echo "== $t: ${seconds} s: $(grep -E '^stat::number_of_executed_units|^Done ' "$run/log" | tr '\n' ' ')"
            else
                result="FINDING"
                echo "== $t: FINDING (log: $run/log)"
                grep -E 'ERROR:|runtime error:|fuzz check failed|SUMMARY:|Test unit written' "$run/log" | head -8
                for a in "$run"/artifacts/*; do
                    [ -f "$a" ] && echo "   input: $a ($(od -An -tx1 -v "$a" | tr -d ' \n' | cut -c1-160))"
                done
                if [ -d "fuzz/pending/$t" ]; then
                    echo "   (fuzz/pending/$t holds findings of $t that wait for a library fix: see fuzz/pending/README.md)"
                fi
            fi
            execs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$run/log" | tail -1)"
        fi
    } >"$run/report" 2>&1
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$(date -u +%Y-%m-%dT%H:%MZ)" "$commit" "$t" "$seconds" \
        "${execs:-0}" "$(find "$run/corpus" -type f | wc -l)" "$result" >"$run/summary"
    [ "$result" = ok ]
}

# Runs the targets, at most $jobs at a time, each one's report printed as
# it ends.
declare -A running=()
failed=()
finish_one() {  # <pid> <its exit status>
    local t="${running[$1]}"
    if [ "$2" -ne 0 ]; then failed+=("$t"); fi
    cat "$build/run/$t/report"
    if [ -n "$log" ]; then cat "$build/run/$t/summary" >>"$log"; fi
    unset "running[$1]"
}
mkdir -p "$build/run"
for t in "${targets[@]}"; do
    while [ ${#running[@]} -ge "$jobs" ]; do
        status=0
        wait -n -p done_pid || status=$?
        finish_one "$done_pid" "$status"
    done
    echo "== $t: started (${seconds} s)"
    fuzz_one "$t" &
    running[$!]="$t"
done
while [ ${#running[@]} -gt 0 ]; do
    status=0
    wait -n -p done_pid || status=$?
    finish_one "$done_pid" "$status"
done

summary="$build/summary.tsv"
: >"$summary"
for t in "${targets[@]}"; do cat "$build/run/$t/summary" >>"$summary"; done

if [ ${#failed[@]} -ne 0 ]; then
    echo "== fuzzing found problems in: ${failed[*]}"
    exit 1
fi
echo "== fuzzing: no findings in ${#targets[@]} targets"
