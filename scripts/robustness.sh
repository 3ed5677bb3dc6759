#!/usr/bin/env bash
# Writes docs/robustness.md: the evidence that the library survives bad
# devices, bad arguments and long use. It runs
#   - the bad-argument cases of every exported function, in a build with
#     AddressSanitizer and UndefinedBehaviorSanitizer,
#   - the fault matrix in full (every flow under every device fault, local
#     and auxiliary-port modes, logging off and on; scripts/fault_matrix.sh),
#   - the soak (10,000 operations with injected faults by default),
# the last two in the normal build, and optionally fuzzes every target; the
# fuzz section lists the runs kept in fuzz/runs.tsv.
#
# Usage: scripts/robustness.sh [--fuzz-seconds N] [--fuzz-jobs J] [--soak-ops N] [--output FILE]
#        scripts/robustness.sh --report-only [--output FILE]
#   --fuzz-seconds N  fuzz every target N seconds first, logged to
#                     fuzz/runs.tsv (default 0: report the runs logged there)
#   --fuzz-jobs J     targets fuzzed at a time (default: the cores)
#   --soak-ops N      operations of the soak (default 10000)
#   --output FILE     where the report goes (default docs/robustness.md)
#   --report-only     writes the report again from the parts of the last run
#                     (build/robustness/) and the fuzz runs logged since
# Exits non-zero when any part fails; the report is written all the same.
source "$(dirname "$0")/common.sh"
kolt_ensure_packages "${KOLT_BUILD_PACKAGES[@]}"

usage() { echo "usage: $0 [--fuzz-seconds N] [--fuzz-jobs J] [--soak-ops N] [--output FILE] [--report-only]" >&2; exit 2; }
fuzz_seconds=0
fuzz_jobs="$KOLT_JOBS"
soak_ops=10000
output="$KOLT_ROOT/docs/robustness.md"
report_only=0
while [ $# -gt 0 ]; do
    if [ "$1" = --report-only ]; then
        report_only=1
        shift
        continue
    fi
    [ $# -ge 2 ] || usage
    case "$1" in
        --fuzz-seconds) fuzz_seconds="$2" ;;
        --fuzz-jobs) fuzz_jobs="$2" ;;
        --soak-ops) soak_ops="$2" ;;
        --output) output="$(realpath -m "$2")" ;;
        *) usage ;;
    esac
    shift 2
done
for n in "$fuzz_seconds" "$fuzz_jobs" "$soak_ops"; do
    case "$n" in ''|*[!0-9]*) usage ;; esac
done

cd "$KOLT_ROOT"
start=$(date +%s)
report=build/robustness
failed=()

# part <name> <command...>: runs one part, its output kept in
# build/robustness/<name>.log; a failure is remembered, not fatal.
part() {
    local name="$1"; shift
    echo "== $name"
    local t0=$(date +%s)
    if "$@" >"$report/$name.log" 2>&1; then
        echo "   passed in $(( $(date +%s) - t0 )) s"
    else
        echo "   FAILED (log: $report/$name.log)"
        : >"$report/$name.failed"
        tail -20 "$report/$name.log" | sed 's/^/   | /'
        failed+=("$name")
    fi
}

if [ "$report_only" = 1 ]; then
    [ -d "$report" ] || { echo "no earlier run in $report" >&2; exit 1; }
    for f in "$report"/*.failed; do
        if [ -e "$f" ]; then failed+=("$(basename "$f" .failed)"); fi
    done
else
    rm -rf "$report"
    mkdir -p "$report"
    echo "== AddressSanitizer + UBSan build"
    kolt_build build/asan -DCMAKE_BUILD_TYPE=Debug -DKOLT_SANITIZE=ON -DKOLT_WERROR=ON
    echo "== normal build"
    kolt_build build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKOLT_WERROR=ON

    export KOLT_REPORT_DIR="$KOLT_ROOT/$report"
    export KOLT_TEST_SOURCE_DIR="$KOLT_ROOT"
    sanitized=(env "ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1"
        "UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1")
    part bad_arguments "${sanitized[@]}" build/asan/tests/bad_arguments_test
    part fault_matrix ./scripts/fault_matrix.sh
    part soak build/release/tests/kolt-soak --ops "$soak_ops" --report "$KOLT_ROOT/$report/soak.md"
    if [ "$fuzz_seconds" -gt 0 ]; then
        part fuzz ./scripts/fuzz.sh -j "$fuzz_jobs" --log fuzz/runs.tsv "$fuzz_seconds"
    fi
fi

# --- the report ------------------------------------------------------------

# section <file> <title>: a part's own section, or a line saying it is missing.
section() {
    if [ -s "$report/$1" ]; then
        cat "$report/$1"
    else
        printf '## %s\n\nNot produced: see %s.\n' "$2" "$report/${1%.md}.log"
    fi
    echo
}

# The fuzz targets with their longest logged run (the latest of equal ones).
fuzz_section() {
    echo "## Fuzzing"
    echo
    echo "Every decoder of outside input has a libFuzzer target in \`fuzz/targets/\` (clang, ASan and UBSan)."
    echo "\`scripts/fuzz.sh\` runs them; CI gives each 30 s. Long runs are logged in \`fuzz/runs.tsv\`; the table shows"
    echo "each target's longest run (executions and corpus files at its end; the corpus starts from \`fuzz/corpus\`"
    echo "and \`fuzz/regressions\`, which the test suite replays)."
    echo
    echo "| Target | Longest run | Executions | Corpus files | Result | When (UTC) | Commit | Runs logged |"
    echo "|---|---:|---:|---:|---|---|---|---:|"
    local src t line short=0
    for src in fuzz/targets/*.cpp; do
        t="$(basename "$src" .cpp)"
        line="$(awk -F'\t' -v t="$t" '$3 == t && $1 !~ /^#/ {
                    n++; if ($4 + 0 >= best) { best = $4 + 0; row = $0 } }
                END { if (n) print row "\t" n }' fuzz/runs.tsv 2>/dev/null || true)"
        if [ -z "$line" ]; then
            echo "| \`$t\` | not run | | | | | | 0 |"
            short=$((short + 1))
            continue
        fi
        IFS=$'\t' read -r when commit _ secs execs corpus result runs <<<"$line"
        [ "$secs" -ge 600 ] || short=$((short + 1))
        echo "| \`$t\` | $secs s | $execs | $corpus | $result | $when | $commit | $runs |"
    done
    echo
    if [ "$short" -eq 0 ]; then
        echo "Every target has run at least 10 minutes."
    else
        echo "$short target(s) have not yet run 10 minutes: \`scripts/fuzz.sh -j 2 --log fuzz/runs.tsv 600 <target>...\`."
    fi
    echo
    echo "Open findings (inputs waiting for a library fix in \`fuzz/pending/\`): $(find fuzz/pending -mindepth 2 -type f | wc -l)."
    echo
}

# What the header leaves to the caller: the room of buffers it names.
caller_section() {
    echo "## Left to the caller"
    echo
    echo "The library cannot know the size of a buffer a caller passes by pointer alone. Where a function takes an"
    echo "output buffer without its length, the header states the room the caller must give, and the library never"
    echo "writes past that room, whatever the device, a file or the network sends. Giving less room is a caller's"
    echo "error the library cannot detect. From \`include/kolt/kolt.h\`:"
    echo
    echo "| Function | What the caller gives |"
    echo "|---|---|"
    grep -E '^KOLT_API' include/kolt/kolt.h |
        grep -E '/\*.*(needs|room|caller gives|caller frees|KOLT_[A-Z0-9_]+_MAX)' |
        sed -E 's/^KOLT_API [^(]*[ *]([A-Za-z_0-9]+)\(.*\/\* *(.*[^ ]) *\*\/.*$/| `\1` | \2 |/'
    echo
    echo "The fixed rooms these refer to:"
    echo
    echo "| Name | Bytes | Meaning |"
    echo "|---|---:|---|"
    awk -f scripts/header_rooms.awk include/kolt/kolt.h
    echo
}

{
    echo "# Robustness"
    echo
    echo "Generated by \`scripts/robustness.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC'), commit $(kolt_commit_text)."
    echo "Machine: $(kolt_machine)."
    echo
    echo "The bad-argument cases ran in the AddressSanitizer + UndefinedBehaviorSanitizer build (any report fails"
    echo "the run). The full fault matrix and the soak ran in the normal build, where time and memory figures mean"
    echo "something; the test suite runs the matrix's covering share and a 1,000-operation soak in both builds."
    if [ ${#failed[@]} -eq 0 ]; then
        echo "Every part passed."
    else
        echo "**Failed parts: ${failed[*]}** (logs in \`$report/\`)."
    fi
    echo
    fuzz_section
    section fault_matrix.md "Fault matrix"
    section bad_arguments.md "Bad arguments"
    section soak.md "Soak"
    caller_section
} >"$output"

echo "== report written to $output in $(( $(date +%s) - start )) s"
if [ ${#failed[@]} -ne 0 ]; then
    echo "== failed: ${failed[*]}"
    exit 1
fi
