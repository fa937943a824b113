#ifndef PELLIX_LODLINES_P_H
#define PELLIX_LODLINES_P_H

// Library-internal: the values of plain eight-digit LOD lines ("89ABCDEF\n"), the lines a
// long packet is made of, several at a time. The text rules stay with the reader: these only
// speed up the lines that are known to read as their eight digits.

#include <endian.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace pxlod {

// Bytes of a plain eight-digit line with its LF.
constexpr size_t LineSize = 9;
// convertLines looks at groups of this many lines...
constexpr size_t LineGroup = 8;
constexpr size_t LineGroupBytes = LineGroup * LineSize;
// ...and converts at most this many lines per call.
constexpr size_t LineBatch = 64;

// The value of eight hexadecimal digits at `p`, or false when one of them is none: all eight
// bytes at once, as the lanes of one 64-bit word.
inline bool eightDigits(const unsigned char* p, uint32_t* word)
{
    constexpr uint64_t Ones = 0x0101010101010101u;
    constexpr uint64_t High = 0x8080808080808080u;
    uint64_t x;
    std::memcpy(&x, p, sizeof x);
    x = le64toh(x); // the first digit in the lowest lane
    // In each lane below 0x80, adding 0x80 - c sets the high bit exactly when the byte is at
    // least c. Letters are compared folded to lower case. A lane of 0x80 or more comes out as
    // neither, whatever it carries into the next one, and so the line is refused.
    const uint64_t folded = x | (0x20 * Ones);
    const uint64_t digit = (x + (0x80 - '0') * Ones) & ~(x + (0x80 - ':') * Ones);
    const uint64_t letter = (folded + (0x80 - 'a') * Ones) & ~(folded + (0x80 - 'g') * Ones);
    if (((digit | letter) & High) != High)
        return false;
    // The digits' values, one a lane: the low four bits, plus 9 for a letter.
    uint64_t v = (x & (0x0F * Ones)) + ((letter & High) >> 7) * 9;
    // Pairs of lanes into bytes, then the four bytes into the word, first digit highest.
    v = ((v & 0x000F000F000F000Fu) << 4) | ((v >> 8) & 0x000F000F000F000Fu);
    *word = uint32_t(((v & 0xFF) << 24) | (((v >> 16) & 0xFF) << 16) | (((v >> 32) & 0xFF) << 8) |
                     ((v >> 48) & 0xFF));
    return true;
}

// Converts the plain eight-digit lines at the start of the `available` bytes at `p` into
// `words`, up to `room` and LineBatch of them, in whole groups of LineGroup lines; stops at the
// first group with any other line in it or past the bytes. Returns how many lines it
// converted.
size_t convertLines(const unsigned char* p, size_t available, uint32_t* words, size_t room);

// The same without the wider instructions that convertLines uses where the processor has
// them: what it does elsewhere (tests compare the two).
size_t convertLinesPortable(const unsigned char* p, size_t available, uint32_t* words, size_t room);

} // namespace pxlod

#endif
