#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite:
#   format   every C and C++ source formatted as .clang-format says (clang-format --dry-run),
#   asan     Qt 6 under AddressSanitizer + UndefinedBehaviorSanitizer (any report fails),
#   qt5      Qt 5.15,
#   tsan     the threaded tests under ThreadSanitizer (Qt 6),
#   install  install into a temporary prefix, build the examples against it and run them,
#   python   the Python package installed with pip into a fresh environment, its pytest tests,
#   fuzz     every libFuzzer target for PELLIX_FUZZ_SECONDS (default 60) with ASan + UBSan.
# Usage: scripts/test.sh [stage ...]   (default: all seven, in that order)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

jobs=$(nproc)
test_jobs=$((jobs * 3))
configs=("$@")
if ((${#configs[@]} == 0)); then
    configs=(format asan qt5 tsan install python fuzz)
fi

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
# Sanitizer reports and Qt warnings must reach the log, never a prompt.
export QT_QPA_PLATFORM=offscreen

status=0
for config in "${configs[@]}"; do
    case "$config" in
    format)
        echo "=== format: clang-format --dry-run --Werror"
        if ! git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format --dry-run --Werror; then
            status=1
        fi
        continue
        ;;
    install)
        echo "=== install: package, examples against it"
        scripts/check-install.sh release || status=1
        continue
        ;;
    python)
        echo "=== python: the package, installed with pip, against the simulator"
        scripts/python-tests.sh || status=1
        continue
        ;;
    fuzz)
        echo "=== fuzz: ${PELLIX_FUZZ_SECONDS:-60} s per target"
        FUZZ_BUILD_JOBS=$jobs scripts/fuzz.sh "${PELLIX_FUZZ_SECONDS:-60}" || status=1
        continue
        ;;
    esac
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
