#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, AddressSanitizer + UndefinedBehavior-
# Sanitizer) and runs each for a bounded time, starting from its checked-in corpus.
#
#   scripts/fuzz.sh [seconds-per-target] [target...]
#
# Default: 60 seconds for every target (parser connection nsconnection lod firmware simulator
# link).
# New inputs that widen coverage are written to build/fuzz/corpus/<target>/, not into the
# checked-in corpus; a crash leaves its input in build/fuzz/findings/<target>/ and makes the
# script exit non-zero after the remaining targets have run. Copy a crash input into
# fuzz/corpus/<target>/ once the fault is fixed, so the ordinary test run replays it.
#
# Environment: FUZZ_BUILD_JOBS (build parallelism, default 2); FUZZ_FLAGS (extra libFuzzer
# flags, e.g. "-fork=2" to use two cores per target).
set -euo pipefail

cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
    targets=(parser connection nsconnection lod firmware simulator link)
fi

cmake --preset fuzz >/dev/null
cmake --build build/fuzz -j "${FUZZ_BUILD_JOBS:-2}" --target "${targets[@]/%/_fuzzer}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

status=0
for target in "${targets[@]}"; do
    work=build/fuzz/corpus/$target
    findings=build/fuzz/findings/$target
    mkdir -p "$work" "$findings"
    # libFuzzer's own log (thousands of lines) goes to a file; one summary line per target
    # is printed, and the log's end when a fault is found.
    log=build/fuzz/$target.log
    # Inputs are bounded by the targets themselves; -timeout catches an input that hangs
    # (the slowest legitimate input takes well under a second).
    if build/fuzz/bin/${target}_fuzzer "$work" "fuzz/corpus/$target" \
        -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -max_len=70000 \
        -artifact_prefix="$findings/" -print_final_stats=1 ${FUZZ_FLAGS:-} >"$log" 2>&1; then
        stat() { sed -n "s/^stat::$1: *//p" "$log" | tail -n 1; }
        echo "fuzz $target: ${seconds} s, $(stat number_of_executed_units) runs" \
            "($(stat average_exec_per_sec)/s), $(stat new_units_added) new inputs, no fault"
    else
        tail -n 60 "$log" >&2
        echo "!! fuzz $target: fault found, input in $findings/, log in $log" >&2
        status=1
    fi
done
exit $status
