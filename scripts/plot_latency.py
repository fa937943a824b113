#!/usr/bin/env python3
"""Plots the latency distribution of read32 for the raw-socket client and each library path
from the per-call samples the benchmark suite writes (PELLIX_BENCH_SAMPLES=<file>).

Usage: plot_latency.py samples.csv out.png [measurement]   (measurement defaults to Read32)"""

import csv
import sys
from collections import defaultdict

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

COLOURS = {"Raw": "black", "Connection": "tab:blue", "CApi": "tab:orange",
           "NSConnection": "tab:green"}


def main():
    source, target = sys.argv[1], sys.argv[2]
    measurement = sys.argv[3] if len(sys.argv) > 3 else "Read32"
    samples = defaultdict(list)
    with open(source) as f:
        for row in csv.DictReader(f):
            parts = row["benchmark"].split("/")
            if parts[0] == measurement and len(parts) == 2:
                samples[parts[1]].append(float(row["us"]))
    if not samples:
        sys.exit(f"no {measurement} samples in {source}")

    everything = sorted(v for values in samples.values() for v in values)
    low = max(everything[0] * 0.9, 1.0)
    high = everything[int(0.995 * (len(everything) - 1))] * 1.2
    bins = [low * (high / low) ** (i / 80) for i in range(81)]

    figure, (hist, cdf) = plt.subplots(1, 2, figsize=(11, 4.2))
    for client in ["Raw", "Connection", "CApi", "NSConnection"]:
        values = sorted(samples.get(client, []))
        if not values:
            continue
        median = values[len(values) // 2]
        label = f"{client}: median {median:.1f} us (n={len(values)})"
        colour = COLOURS[client]
        hist.hist(values, bins=bins, histtype="step", weights=[1 / len(values)] * len(values),
                  color=colour, label=label, linewidth=1.4)
        hist.axvline(median, color=colour, linestyle=":", linewidth=1)
        ys = [(i + 1) / len(values) for i in range(len(values))]
        cdf.plot(values, ys, color=colour, label=client, linewidth=1.4)
    for axis in (hist, cdf):
        axis.set_xscale("log")
        axis.set_xlim(low, high)
        axis.set_xlabel("latency per call (us, log scale)")
        axis.grid(True, which="both", alpha=0.25)
    hist.set_ylabel("fraction of calls per bin")
    hist.set_title(f"{measurement}: distribution of single calls")
    hist.legend(fontsize=8)
    cdf.set_ylabel("fraction of calls at or below")
    cdf.set_title(f"{measurement}: cumulative (up to the 99.5th percentile)")
    cdf.legend(fontsize=8, loc="lower right")
    figure.tight_layout()
    figure.savefig(target, dpi=90)


if __name__ == "__main__":
    main()
