#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite:
#   1. Qt 6 under AddressSanitizer + UndefinedBehaviorSanitizer (any report fails the run),
#   2. Qt 5.15,
#   3. the threaded tests under ThreadSanitizer (Qt 6).
# Usage: scripts/test.sh [asan|qt5|tsan ...]   (default: all three)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc)
test_jobs=$((jobs * 3))
configs=("$@")
if ((${#configs[@]} == 0)); then
    configs=(asan qt5 tsan)
fi

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
# Sanitizer reports and Qt warnings must reach the log, never a prompt.
export QT_QPA_PLATFORM=offscreen

status=0
for config in "${configs[@]}"; do
    echo "=== ${config}: configure and build"
    cmake --preset "$config" >/dev/null
    cmake --build --preset "$config" -j "$jobs"
    echo "=== ${config}: test"
    label_args=()
    if [[ "$config" == tsan ]]; then
        label_args=(-L threaded)
    fi
    if ! ctest --test-dir "build/$config" -j "$test_jobs" --output-on-failure \
            --timeout 300 "${label_args[@]}"; then
        status=1
    fi
done
exit $status
