#!/usr/bin/env python3
"""Flashes a LOD firmware file with verification, showing a progress bar.

    PELLIX_LIBRARY=build/release/bin/libpellix_library.so \\
        python3 examples/python/flash.py firmware.lod --port 57

Starts the pellix server for serial port --port (TCP 7700 + port) when none answers. Exits 0
when the target holds the file, 1 on any library error (its code and text are printed)."""

import argparse
import sys
import time

import pellix


def bar(done: int, total: int, started: float) -> None:
    width = 40
    share = done / total if total else 1.0
    filled = int(share * width)
    rate = done / max(time.monotonic() - started, 1e-6) / 1e6
    sys.stderr.write(f"\r[{'#' * filled}{'.' * (width - filled)}] {share:6.1%} {rate:6.1f} MB/s")
    sys.stderr.flush()


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("firmware", help="LOD file to load")
    parser.add_argument("--port", type=int, default=57, help="serial port number (default 57)")
    parser.add_argument("--kill", action="store_true", help="stop the server afterwards")
    arguments = parser.parse_args()
    try:
        with pellix.open(arguments.port) as target:
            started = time.monotonic()
            target.load(arguments.firmware, verify=True,
                        progress=lambda done, total: bar(done, total, started))
            sys.stderr.write("\n")
            print(f"{arguments.firmware}: loaded and verified in "
                  f"{time.monotonic() - started:.2f} s")
            if arguments.kill:
                target.kill()
    except pellix.VerifyMismatch as error:
        sys.stderr.write(f"\nthe target differs from the file at 0x{error.address:08X}\n")
        return 1
    except pellix.PellixError as error:
        sys.stderr.write(f"\n{error}\n")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
