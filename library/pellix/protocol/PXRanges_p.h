#ifndef PELLIX_PXRANGES_P_H
#define PELLIX_PXRANGES_P_H

// How a range of target memory is cut into requests: the one place for these rules, used by
// both connection classes (block reads and writes), the C interface (masked reads) and the
// LOD transfers (pieces of a packet). Each function calls `request(address, offset, size)`
// for every request in order, where `offset` is the position in the caller's buffer, and
// stops at the first call that returns non-zero, returning that; 0 when all succeeded.

#include "pellix/protocol/PXFrames_p.h"

#include <QtGlobal>

namespace pxrange {

// The size of the next read when `remaining` (>= 1) bytes are left at `address`: single bytes
// at odd addresses and for a last byte, 16 bits at addresses 2 mod 4 and for a tail of 2 or 3
// bytes, and from an aligned address the rest rounded down to a multiple of 4, at most
// MaxBlockChunk. A transfer that does not know its whole size yet may pass any lower bound
// above MaxBlockChunk: the answer is the same for all of them.
inline int nextReadSize(quint32 address, qint64 remaining)
{
    if (remaining == 1 || (address & 1))
        return 1;
    if ((address & 3) == 2 || remaining < 4)
        return 2;
    return int(qMin<qint64>(remaining, pxproto::MaxBlockChunk) & ~3);
}

// The size of the next write when `remaining` (>= 1) bytes are left: pieces of MaxBlockChunk
// bytes, whatever the alignment. Any lower bound above MaxBlockChunk gives the same answer.
inline int nextWriteSize(qint64 remaining)
{
    return int(qMin<qint64>(remaining, pxproto::MaxBlockChunk));
}

// The reads of `size` bytes at `address` (none for size < 1), cut by alignment.
template <typename Request>
unsigned int forEachRead(quint32 address, int size, Request&& request)
{
    int offset = 0;
    while (offset < size) {
        const int chunk = nextReadSize(address, size - offset);
        if (const unsigned int result = request(address, offset, chunk))
            return result;
        offset += chunk;
        address += quint32(chunk);
    }
    return 0;
}

// The writes of `size` bytes at `address` (none for size < 1).
template <typename Request>
unsigned int forEachWrite(quint32 address, int size, Request&& request)
{
    for (int offset = 0; offset < size;) {
        const int chunk = nextWriteSize(size - offset);
        if (const unsigned int result = request(address + quint32(offset), offset, chunk))
            return result;
        offset += chunk;
    }
    return 0;
}

// A block read and a block write through a connection's one-request calls (genericRead and
// genericWrite of either connection class).
template <typename Connection>
unsigned int readBlock(Connection& connection, quint32 address, unsigned char* data, int size)
{
    return forEachRead(address, size, [&](quint32 at, int offset, int chunk) {
        return connection.genericRead(at, false, data + offset, chunk);
    });
}

template <typename Connection>
unsigned int writeBlock(Connection& connection, quint32 address, unsigned int* data, int size)
{
    auto* bytes = reinterpret_cast<unsigned char*>(data);
    return forEachWrite(address, size, [&](quint32 at, int offset, int chunk) {
        return connection.genericWrite(at, false, bytes + offset, chunk);
    });
}

// A masked read's next width at `address`, where `mask[0]` selects the byte and `remaining`
// (at least 1) bytes are left: 1, 2, 4, or the run of selected bytes rounded down to a
// multiple of 4 (at least 8, at most 1 GiB) as one block read. Every byte a width covers is
// selected.
inline unsigned int maskedReadWidth(quint32 address, const unsigned char* mask,
                                    unsigned int remaining)
{
    constexpr unsigned char Selected = 0xFF;
    constexpr unsigned int LongestRun = 1u << 30;
    if (remaining == 1 || mask[1] != Selected || (address & 1u) != 0)
        return 1;
    if (remaining < 4 || mask[2] != Selected || mask[3] != Selected || (address & 3u) == 2)
        return 2;
    if (remaining == 4 || mask[4] != Selected)
        return 4;
    unsigned int run = 5;
    while (run < remaining && run < LongestRun && mask[run] == Selected)
        ++run;
    return run & ~3u;
}

// The reads of the bytes of [address, address + size) whose mask byte is 0xFF, each with the
// widest access its run and alignment allow; unselected bytes are never read.
template <typename Request>
unsigned int forEachMaskedRead(quint32 address, const unsigned char* mask, unsigned int size,
                               Request&& request)
{
    unsigned int offset = 0;
    while (offset < size) {
        if (mask[offset] != 0xFF) {
            ++offset;
            continue;
        }
        const unsigned int width = maskedReadWidth(address + offset, mask + offset, size - offset);
        if (const unsigned int result = request(address + offset, offset, int(width)))
            return result;
        offset += width;
    }
    return 0;
}

// Pieces of at most `chunk` bytes of `bytes` bytes: at least one (a range of 0 bytes is one
// piece of 0, so that an empty packet still costs one call).
template <typename Piece>
unsigned int forEachPiece(unsigned long long bytes, unsigned int chunk, Piece&& piece)
{
    unsigned long long offset = 0;
    do {
        const unsigned long long left = bytes - offset;
        const unsigned int size = left < chunk ? static_cast<unsigned int>(left) : chunk;
        if (const unsigned int result = piece(offset, size))
            return result;
        offset += size;
    } while (offset < bytes);
    return 0;
}

} // namespace pxrange

// The width calls and the block calls of a connection class, defined once for both classes:
// `PXRANGE_DEFINE_MEMORY_CALLS(PXConnection)` in a class's source file defines its read8 to
// writeBlock on top of its genericRead and genericWrite (one request each) and the cutting
// above. A 16- or 32-bit read is a block read, so that an unaligned one is cut like any other.
#define PXRANGE_DEFINE_MEMORY_CALLS(Class)                                                         \
    unsigned int Class::read8(unsigned int address, unsigned char* value)                          \
    {                                                                                              \
        return genericRead(address, false, value, 1);                                              \
    }                                                                                              \
    unsigned int Class::readi8(unsigned int address, unsigned char* value)                         \
    {                                                                                              \
        return genericRead(address, true, value, 1);                                               \
    }                                                                                              \
    unsigned int Class::read16(unsigned int address, unsigned short* value)                        \
    {                                                                                              \
        return readBlock(address, reinterpret_cast<unsigned char*>(value), 2);                     \
    }                                                                                              \
    unsigned int Class::read32(unsigned int address, unsigned int* value)                          \
    {                                                                                              \
        return readBlock(address, reinterpret_cast<unsigned char*>(value), 4);                     \
    }                                                                                              \
    unsigned int Class::readBlock(unsigned int address, unsigned char* data, int size)             \
    {                                                                                              \
        return pxrange::readBlock(*this, address, data, size);                                     \
    }                                                                                              \
    unsigned int Class::write8(unsigned int address, unsigned char value)                          \
    {                                                                                              \
        return genericWrite(address, false, &value, 1);                                            \
    }                                                                                              \
    unsigned int Class::writei8(unsigned int address, unsigned char value)                         \
    {                                                                                              \
        return genericWrite(address, true, &value, 1);                                             \
    }                                                                                              \
    unsigned int Class::write16(unsigned int address, unsigned short value)                        \
    {                                                                                              \
        return genericWrite(address, false, &value, 2);                                            \
    }                                                                                              \
    unsigned int Class::write32(unsigned int address, unsigned int value)                          \
    {                                                                                              \
        return genericWrite(address, false, &value, 4);                                            \
    }                                                                                              \
    unsigned int Class::writeBlock(unsigned int address, unsigned int* data, int size)             \
    {                                                                                              \
        return pxrange::writeBlock(*this, address, data, size);                                    \
    }

#endif
