#!/usr/bin/env python3
"""Writes a deterministic sample firmware image: a LOD text file and, optionally, the same
words as raw little-endian binary (what `pxtool dump --binary` gives back).

The image is SIZE bytes of pseudo-random 32-bit words (xorshift32 from SEED) placed from
ADDRESS upwards, cut into packets of PACKET_WORDS words that follow each other without gaps,
so a dump of the whole range reads back exactly the binary file.

    examples/make-firmware.py --lod firmware.lod --bin firmware.bin
"""
import argparse
import struct
import sys


def number(text):
    return int(text, 0)


def words(seed, count):
    state = seed & 0xFFFFFFFF or 1
    out = []
    for _ in range(count):
        state ^= (state << 13) & 0xFFFFFFFF
        state ^= state >> 17
        state ^= (state << 5) & 0xFFFFFFFF
        out.append(state)
    return out


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--lod", required=True, help="LOD text file to write")
    parser.add_argument("--bin", help="raw little-endian words to write as well")
    parser.add_argument("--address", type=number, default=0x00100000,
                        help="address of the first word (default 0x00100000)")
    parser.add_argument("--size", type=number, default=1 << 20,
                        help="image size in bytes, a multiple of 4 (default 1 MiB)")
    parser.add_argument("--packet-words", type=number, default=4096,
                        help="words per LOD packet (default 4096)")
    parser.add_argument("--seed", type=number, default=0x5EED1234, help="generator seed")
    args = parser.parse_args()
    if args.size % 4 or args.size <= 0 or args.packet_words <= 0:
        sys.exit("make-firmware: --size must be a positive multiple of 4, --packet-words positive")
    if args.address % 4 or args.address + args.size > 1 << 32:
        sys.exit("make-firmware: the image must be word-aligned and fit below 4 GiB")

    image = words(args.seed, args.size // 4)
    lines = [
        "# pellix sample firmware: %d bytes at 0x%08X, seed 0x%08X"
        % (args.size, args.address, args.seed),
        "",
    ]
    for first in range(0, len(image), args.packet_words):
        lines.append("@%08X" % (args.address + 4 * first))
        lines.extend("%08X" % word for word in image[first:first + args.packet_words])
        lines.append("")
    with open(args.lod, "w", newline="\n") as lod:
        lod.write("\n".join(lines))
    if args.bin:
        with open(args.bin, "wb") as binary:
            binary.write(struct.pack("<%dI" % len(image), *image))


if __name__ == "__main__":
    main()
