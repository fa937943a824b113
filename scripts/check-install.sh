#!/usr/bin/env bash
# Checks the installed package the way a user meets it: builds a preset, installs it into a
# temporary prefix, then configures and builds each example in examples/ as a standalone
# project against that prefix (find_package(pellix), and pkg-config for the C example), and
# runs every example, and the installed pxtool, against a pellix simulator.
# Usage: scripts/check-install.sh [preset]   (default: release)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

preset=${1:-release}
build="build/${preset}"
echo "=== build (${preset})"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)" --target pellix_library pellix pellix-target pxtool pellix_man_pages

work=$(mktemp -d)
simulator_pid=""
cleanup() {
    if [[ -n "$simulator_pid" ]]; then
        kill "$simulator_pid" 2>/dev/null || true
        wait "$simulator_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT

prefix="$work/prefix"
echo "=== install into ${prefix}"
cmake --install "$build" --prefix "$prefix" >/dev/null
package_dir=$(dirname "$(find "$prefix" -name pellixConfig.cmake | head -n 1)")
pkgconfig_dir=$(dirname "$(find "$prefix" -name pellix.pc | head -n 1)")
[[ -f "$package_dir/pellixConfig.cmake" ]] || { echo "no CMake package installed" >&2; exit 1; }
[[ -f "$pkgconfig_dir/pellix.pc" ]] || { echo "no pkg-config file installed" >&2; exit 1; }

# The installed server, as an installed program would start it.
simulator="$prefix/bin/pellix"
[[ -x "$simulator" ]] || { echo "pellix was not installed" >&2; exit 1; }
[[ -x "$prefix/bin/pellix-target" ]] || { echo "pellix-target was not installed" >&2; exit 1; }
"$simulator" COM0 921600 none --port 0 >"$work/simulator.out" 2>"$work/simulator.err" &
simulator_pid=$!
port=""
for _ in $(seq 100); do
    port=$(sed -n 's/^pellix: listening on .*:\([0-9]*\)$/\1/p' "$work/simulator.out")
    [[ -n "$port" ]] && break
    sleep 0.1
done
[[ -n "$port" ]] || { echo "the simulator did not start" >&2; cat "$work/simulator.err" >&2; exit 1; }
echo "=== simulator listening on 127.0.0.1:${port}"

status=0
run_example() {
    local name=$1
    shift
    echo "--- ${name}"
    if ! "$@" 127.0.0.1 "$port"; then
        echo "FAILED: ${name}" >&2
        status=1
    fi
}

for example in c cpp qt; do
    echo "=== example ${example}: configure and build against the installed package"
    cmake -S "$root/examples/$example" -B "$work/$example" -G Ninja \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build "$work/$example" >/dev/null
    run_example "pellix-example-${example}" "$work/$example/pellix-example-${example}"
done

echo "=== example c: built with pkg-config"
# The .pc file finds its prefix relative to itself, wherever the install put it.
pkg_flags=$(PKG_CONFIG_PATH="$pkgconfig_dir" pkg-config --cflags --libs pellix)
# Qt stays private: a C program links the library alone. (pkg-config still passes the
# include folders of private requirements with --cflags, by design; they are harmless to C.)
pkg_libs=$(PKG_CONFIG_PATH="$pkgconfig_dir" pkg-config --libs pellix)
if [[ "$pkg_libs" == *Qt* || "$pkg_libs" != *-lpellix_library* ]]; then
    echo "FAILED: pkg-config --libs gives a C program more than the library: ${pkg_libs}" >&2
    status=1
fi
cc "$root/examples/c/main.c" -o "$work/pellix-example-c-pkgconfig" $pkg_flags
run_example "pellix-example-c (pkg-config)" "$work/pellix-example-c-pkgconfig"

echo "=== installed pxtool, its man pages and bash completion"
"$prefix/bin/pxtool" --version || status=1
"$prefix/bin/pxtool" --host 127.0.0.1 --tcp-port "$port" ping || status=1
for program in pxtool pellix; do
    for file in "share/man/man1/${program}.1" "share/bash-completion/completions/${program}"; do
        [[ -s "$prefix/$file" ]] || { echo "FAILED: ${file} not installed" >&2; status=1; }
    done
done
if ! man -l "$prefix/share/man/man1/pxtool.1" 2>/dev/null | grep -q "bypass-listen"; then
    echo "FAILED: the man page of pxtool lacks its commands" >&2
    status=1
fi

if ((status == 0)); then
    echo "check-install: OK"
else
    echo "check-install: FAILED" >&2
fi
exit $status
