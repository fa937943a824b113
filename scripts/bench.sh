#!/usr/bin/env bash
# Builds the benchmark suite with the release preset, runs it in full with several
# repetitions, and writes into build/release/bench/:
#   suite.json         Google Benchmark JSON of every run and its aggregates
#   samples.csv        every latency sample (benchmark,us)
#   summary.md         figures and ratios to the raw-socket client, per target
#   read32-latency.png the latency distribution of read32, raw against the library
# Extra arguments go to the suite (for example --benchmark_filter=Read32).
# PELLIX_BENCH_REPETITIONS sets the repetitions (default 5), PELLIX_BENCH_OUT the output
# folder (default build/release/bench).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

PELLIX_WITH_PLOTS=1 scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build build/release -j2 --target pellix_bench_suite

# The distribution's interpreter, which has the python3-matplotlib package.
python=python3
if [[ -x /usr/bin/python3 ]]; then
    python=/usr/bin/python3
fi

out=${PELLIX_BENCH_OUT:-build/release/bench}
mkdir -p "$out"
PELLIX_BENCH_SAMPLES="$out/samples.csv" build/release/bin/pellix_bench_suite \
    --benchmark_repetitions="${PELLIX_BENCH_REPETITIONS:-5}" \
    --benchmark_min_time=0.3 \
    --benchmark_enable_random_interleaving=true \
    --benchmark_out="$out/suite.json" --benchmark_out_format=json \
    "$@"
"$python" scripts/bench_summary.py "$out/suite.json" >"$out/summary.md"
"$python" scripts/plot_latency.py "$out/samples.csv" "$out/read32-latency.png"
cat "$out/summary.md"
echo "bench: results in $out"
