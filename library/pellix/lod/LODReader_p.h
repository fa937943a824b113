#ifndef PELLIX_LODREADER_P_H
#define PELLIX_LODREADER_P_H

// Library-internal: reading a LOD file without holding a whole packet, by the same rules as
// LOD_NextLodPacket.

#include "pellix/lod/LODFileLoader.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

namespace pxlod {

// Size of the reader's line buffer: of a longer line only the first LineBufferSize - 1
// characters count.
constexpr int LineBufferSize = 1027;

// What a walk of a whole LOD file found: the words of every packet, apart from the packets at
// `skippedAddress`, up to the end of the file or the first data line outside a packet. Reads
// the file once and allocates no word array. False if the file cannot be opened.
bool countWords(const char* path, uint32_t skippedAddress, uint64_t* words);

// Where the reader reads long runs of plain lines ahead of the stream: `size` bytes at `data`,
// of which [position, length) are read and not used yet; `atEnd` once the file has given
// everything. With `keep`, a run that the consumer stopped leaves what it read ahead for the
// next one (the stream's position then lies after it, until it is given back).
struct ReadAhead
{
    unsigned char* data = nullptr;
    size_t size = 0;
    size_t position = 0;
    size_t length = 0;
    bool atEnd = false;
    bool keep = false;

    bool held() const { return length != 0 || atEnd; }
};

// A LOD file read packet by packet, each packet's words handed out in pieces as the text is
// read: the same packets and words as LOD_NextLodPacket gives (a packet ends after INT32_MAX
// words there too), with at most a piece in memory.
class PacketReader
{
public:
    explicit PacketReader(const char* path);
    ~PacketReader();
    PacketReader(const PacketReader&) = delete;
    PacketReader& operator=(const PacketReader&) = delete;

    // False when the file cannot be opened (or memory is short).
    bool isOpen() const { return m_file != nullptr; }

    // Finds the next packet, passing over what is left of the current one. Returns 1 at a data
    // line outside a packet, 0 otherwise: with *found set and *address its address when a
    // packet follows, with *found false at the end of the file.
    int nextPacket(uint32_t* address, bool* found);

    // Takes up to `count` (> 0) of the current packet's next words into `words` and returns
    // how many it took: fewer than `count` when the packet has ended.
    size_t takeWords(uint32_t* words, size_t count);

private:
    // The stream reads with a small buffer of its own: long runs of plain lines are read
    // straight into the larger read-ahead block, without a copy through the stream's buffer.
    static constexpr size_t StreamBufferSize = 4 * 1024;
    static constexpr size_t ReadAheadSize = 64 * 1024;

    std::unique_ptr<unsigned char[]> m_buffers; // the stream's buffer, then the read-ahead
    FILE* m_file = nullptr;
    ReadAhead m_ahead;
    uint64_t m_taken = 0; // words of the current packet taken so far
    bool m_ended = true;  // the current packet has no more words
    char m_line[LineBufferSize];
};

} // namespace pxlod

#endif
