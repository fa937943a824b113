#!/usr/bin/env bash
# The main job, from a fresh machine to a verified firmware round trip over a serial link, the
# way a user with hardware works:
#   1. installs what is missing and builds the library, the pellix server, pellix-target and
#      pxtool (release preset, only those targets),
#   2. generates a 1 MiB sample firmware image (LOD text and the same words as binary),
#   3. starts pellix-target, a simulated chip on a pseudo-terminal moving at most 921600/10
#      bytes per second each way like a real link, and maps serial port 57 to it
#      (PELLIX_DEVICE_COM57),
#   4. with pxtool on serial port 57 (TCP 7757): loads the image with verification, which
#      starts the server beside pxtool on that device, dumps the range back as binary and as
#      LOD text, compares the dump with the image word for word, and stops the server.
# Prints the throughput of each transfer; exits non-zero on any failure or mismatch.
# Usage: scripts/main-job.sh   (PELLIX_PRESET=<preset> builds another preset instead)
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${PELLIX_PRESET:-release}
port=57
address=0x00100000
size=$((1024 * 1024))
words=$((size / 4))

scripts/install-deps.sh
echo "=== build (${preset}): pellix_library pellix pellix-target pxtool"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)" --target pellix_library pellix pellix-target pxtool

bin="build/${preset}/bin"
work="build/${preset}/main-job"
mkdir -p "$work"
rm -f "$work"/dump.*
pxtool=("$bin/pxtool" --port "$port")

# Stops the server of port 57 and waits until nothing answers there any more, so that a
# later start does not find a server on its way out.
stop_server() {
    "${pxtool[@]}" kill --quiet 2>/dev/null || return 0
    for _ in $(seq 100); do
        "${pxtool[@]}" --no-start ping >/dev/null 2>&1 || return 0
        sleep 0.05
    done
    echo "main job: the server on port ${port} did not stop" >&2
    return 1
}
# A server left over from an interrupted run would serve another device: start afresh.
stop_server

echo "=== the target: pellix-target on a pseudo-terminal, ${work}/link, 921600 baud"
"$bin/pellix-target" --pty "$work/link" --baud 921600 >"$work/target.out" &
target_pid=$!
stop_all() {
    stop_server || true
    kill "$target_pid" 2>/dev/null || true
    wait "$target_pid" 2>/dev/null || true
}
trap stop_all EXIT
for _ in $(seq 100); do
    grep -q '^pellix-target: serial device ' "$work/target.out" && break
    sleep 0.05
done
cat "$work/target.out"
export PELLIX_DEVICE_COM${port}="$PWD/$work/link"

echo "=== firmware: ${size} bytes at ${address}"
python3 examples/make-firmware.py --lod "$work/firmware.lod" --bin "$work/firmware.bin" \
    --address "$address" --size "$size"

echo "=== load with verification, dump, compare (port ${port})"
"${pxtool[@]}" load "$work/firmware.lod" --verify
"${pxtool[@]}" dump "$address" "$words" "$work/dump.bin" --binary
"${pxtool[@]}" dump "$address" "$words" "$work/dump.lod"

if ! cmp -s "$work/firmware.bin" "$work/dump.bin"; then
    echo "main job: FAILED: the binary dump differs from the image:" >&2
    cmp "$work/firmware.bin" "$work/dump.bin" >&2 || true
    exit 1
fi
# The LOD dump is one packet: its word lines must be the image's word lines in order.
if ! diff -q <(grep -v -e '^#' -e '^@' -e '^$' "$work/firmware.lod") \
        <(grep -v -e '^@' "$work/dump.lod") >/dev/null; then
    echo "main job: FAILED: the LOD dump differs from the image" >&2
    exit 1
fi
if [[ "$(head -n 1 "$work/dump.lod")" != "@$(printf '%08X' "$address")" ]]; then
    echo "main job: FAILED: the LOD dump does not start at ${address}" >&2
    exit 1
fi

stop_all
trap - EXIT
echo "main job: OK: ${size} bytes loaded, verified and dumped back identically"
