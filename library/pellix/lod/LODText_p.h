#ifndef PELLIX_LODTEXT_P_H
#define PELLIX_LODTEXT_P_H

// Library-internal: the packet reader of LODText.cpp and the sinks that the loaders hand it.
// Every function here expects the caller to hold the stream's lock (StreamLock).

#include "pellix/lod/LODLines_p.h"
#include "pellix/lod/LODReader_p.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace pxlod {

// Read-ahead block for a packet read on its own: what a run of plain lines reads ahead of its
// last line is given back with a seek within the stream's own buffer, which a larger read
// would more often have refilled past it.
constexpr size_t BlockSize = 4 * 1024;

// Finds the next packet's address line, skipping blank lines and comments. Returns 0 with
// *found false at the end of the file, 1 at a data line outside a packet.
int findAddress(FILE* stream, char* line, uint32_t* address, bool* found);

// Reads the words of the packet whose lines start at the stream's position into `sink`, which
// says when to stop (memory is short or its count is full) and has:
//   bool put(uint32_t word)          takes one word; false: stop after it
//   uint32_t* space(size_t* room)    where up to *room further words may be written directly
//                                    (*room 0 when none may)
//   bool wrote(size_t n)             takes the n words written there; false: stop after them
// The packet ends before a blank line, an address line or the end of the file; comments in
// it take no word. The stream is left at the start of the line after the last word: the line
// that ended the packet is given back (one character, or by seeking back over comments and
// a CR LF blank line that were looked at). A packet whose reading the sink stopped goes on
// with another call, given the number of words taken from it so far and the same `ahead`,
// which says where long runs of plain lines are read to. Made for the sinks below.
template <typename Sink>
void readPacket(FILE* stream, char* line, Sink& sink, uint64_t wordsBefore, ReadAhead& ahead);

// LOD_NextLodPacket's work, under the stream's lock.
int nextPacket(FILE* stream, LodPacket** packet);

// Puts the stream back at the first byte read ahead and not used, and forgets the rest.
void giveBack(FILE* stream, ReadAhead& ahead);

class StreamLock
{
public:
    explicit StreamLock(FILE* stream) : m_stream(stream) { flockfile(stream); }
    ~StreamLock() { funlockfile(m_stream); }
    StreamLock(const StreamLock&) = delete;
    StreamLock& operator=(const StreamLock&) = delete;

private:
    FILE* m_stream;
};

// Word array that grows while a packet is read, so each line is read once. The first words
// stand in the buffer itself, so a small packet costs one allocation of its exact size.
// Its count is 32-bit: a longer run ends the packet, and the next call reports the rest as a
// data line outside a packet. put is false also when memory is short (the word is lost).
class WordBuffer
{
public:
    WordBuffer() = default;
    WordBuffer(const WordBuffer&) = delete;
    WordBuffer& operator=(const WordBuffer&) = delete;
    ~WordBuffer()
    {
        if (m_words != m_inline)
            std::free(m_words);
    }

    int32_t count() const { return int32_t(m_count); }

    bool put(uint32_t word)
    {
        if (m_count == m_capacity && !grow())
            return false;
        m_words[m_count++] = word;
        return m_count < size_t(INT32_MAX);
    }
    uint32_t* space(size_t* room)
    {
        *room = std::min(m_capacity, size_t(INT32_MAX)) - m_count;
        return m_words + m_count;
    }
    bool wrote(size_t n)
    {
        m_count += n;
        return m_count < size_t(INT32_MAX);
    }

    // Hands the words over in an array of their exact size: null for no words, and null with
    // *failed set when memory is short.
    uint32_t* release(bool* failed)
    {
        *failed = m_outOfMemory;
        if (m_outOfMemory || m_count == 0)
            return nullptr;
        const size_t bytes = m_count * sizeof(uint32_t);
        uint32_t* words = nullptr;
        if (m_words == m_inline) {
            words = static_cast<uint32_t*>(std::malloc(bytes));
            if (words)
                std::memcpy(words, m_inline, bytes);
        } else {
            words = static_cast<uint32_t*>(std::realloc(m_words, bytes));
            if (words)
                m_words = m_inline;
        }
        *failed = words == nullptr;
        return words;
    }

private:
    static constexpr size_t InlineWords = 256;

    bool grow()
    {
        const size_t capacity = m_capacity * 2;
        uint32_t* grown = nullptr;
        if (m_words == m_inline) {
            grown = static_cast<uint32_t*>(std::malloc(capacity * sizeof(uint32_t)));
            if (grown)
                std::memcpy(grown, m_inline, sizeof m_inline);
        } else {
            grown = static_cast<uint32_t*>(std::realloc(m_words, capacity * sizeof(uint32_t)));
        }
        if (!grown) {
            m_outOfMemory = true;
            return false;
        }
        m_words = grown;
        m_capacity = capacity;
        return true;
    }

    uint32_t m_inline[InlineWords];
    uint32_t* m_words = m_inline;
    // size_t, not a 32-bit type, so that the compiler need not reload them after each word
    // stored.
    size_t m_count = 0;
    size_t m_capacity = InlineWords;
    bool m_outOfMemory = false;
};

// Counts the words (up to the 32-bit limit of a packet) without keeping them.
struct WordCounter
{
    uint64_t count = 0;
    uint32_t scratch[LineBatch];

    bool put(uint32_t) { return ++count < uint64_t(INT32_MAX); }
    uint32_t* space(size_t* room)
    {
        *room = size_t(std::min<uint64_t>(LineBatch, INT32_MAX - count));
        return scratch;
    }
    bool wrote(size_t n)
    {
        count += n;
        return count < uint64_t(INT32_MAX);
    }
};

// Fills words[0, room), stopping when it is full.
struct ArraySink
{
    uint32_t* words;
    size_t room;
    size_t n = 0;

    bool put(uint32_t word)
    {
        words[n] = word;
        return wrote(1);
    }
    uint32_t* space(size_t* free)
    {
        *free = room - n;
        return words + n;
    }
    bool wrote(size_t written)
    {
        n += written;
        return n < room;
    }
};

} // namespace pxlod

#endif
