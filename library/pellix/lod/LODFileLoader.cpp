#include "pellix/lod/LODFileLoader.h"

#include "pellix/lod/LODLines_p.h"
#include "pellix/lod/LODReader_p.h"

#include <sys/types.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

// The reader uses standard I/O only (POSIX's unlocked getc under the stream's lock, ungetc,
// ftello/fseeko). Every rule of the text format lives once below: the line (readLine), the
// number (parseHex32), the class of a line (classify) and the packet (readPacket).

namespace {

constexpr int kLineBufferSize = pxlod::LineBufferSize;

// Stream buffer given to every file opened by LOD_Open; larger than the stdio default so a
// big file is read with few system calls.
constexpr size_t kStreamBufferSize = 128 * 1024;

// What LOD_Open allocates: the public record first, so a LodFile* is the record's address and
// LOD_Close frees it with free() whether it came from here or from a caller's malloc().
struct LodFileRecord
{
    LodFile lodFile;
    char streamBuffer[kStreamBufferSize];
};

// 0..15 for hexadecimal digits, 0xFF for everything else.
struct HexTable
{
    unsigned char digit[256];
    constexpr HexTable() : digit()
    {
        for (int i = 0; i < 256; ++i)
            digit[i] = 0xFF;
        for (int i = 0; i < 10; ++i)
            digit['0' + i] = static_cast<unsigned char>(i);
        for (int i = 0; i < 6; ++i) {
            digit['a' + i] = static_cast<unsigned char>(10 + i);
            digit['A' + i] = static_cast<unsigned char>(10 + i);
        }
    }
};
constexpr HexTable kHex;

inline bool isCSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The low 32 bits of strtoul(text, NULL, 16) with a 64-bit unsigned long, for the text in
// [s, end): white space, optional sign, optional 0x prefix, digits up to the first non-digit;
// a value beyond 64 bits gives ULONG_MAX, sign or not.
uint32_t parseHex32(const char* s, const char* end)
{
    while (s < end && isCSpace(*s))
        ++s;
    bool negative = false;
    if (s < end && (*s == '+' || *s == '-')) {
        negative = *s == '-';
        ++s;
    }
    if (end - s >= 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
        s += 2;
    uint64_t value = 0;
    bool overflow = false;
    for (; s < end; ++s) {
        const unsigned digit = kHex.digit[static_cast<unsigned char>(*s)];
        if (digit > 15)
            break;
        overflow |= (value >> 60) != 0;
        value = (value << 4) | digit;
    }
    if (overflow)
        return 0xFFFFFFFFu;
    return static_cast<uint32_t>(negative ? 0 - value : value);
}

// Reads one line as fgets(buffer, size, stream) followed by fgetl's end-of-line rules does:
// up to size - 1 characters or through the first LF; the text counts up to its first zero
// byte; a kept LF, and a CR right before it, are dropped; a text that does not end in LF is
// followed by one more character from the stream: an LF there ends the line (dropping a CR
// kept last), the end of the file changes nothing, anything else is skipped through the next
// LF. The first `taken` characters (none of them an LF, fewer than size - 1) were read by the
// caller and stand in the buffer already. Returns the text's length, or -1 at the end of the
// file. The caller holds the stream's lock.
long readLine(FILE* stream, char* buffer, int size, long taken = 0)
{
    if (size <= 0)
        return -1;
    const long capacity = size - 1;
    long n = taken;
    bool zero = std::memchr(buffer, '\0', size_t(taken)) != nullptr;
    while (n < capacity) {
        const int c = getc_unlocked(stream);
        if (c == EOF)
            break;
        buffer[n++] = static_cast<char>(c);
        if (c == '\n')
            break;
        zero |= c == '\0';
    }
    buffer[n] = '\0';
    if (n == 0 && capacity > 0)
        return -1;
    long length = zero ? static_cast<long>(std::strlen(buffer)) : n;
    if (length == 0)
        return 0;
    if (buffer[length - 1] == '\n') {
        buffer[--length] = '\0';
        if (length > 0 && buffer[length - 1] == '\r')
            buffer[--length] = '\0';
        return length;
    }
    int c = getc_unlocked(stream);
    if (c == '\n') {
        if (buffer[length - 1] == '\r')
            buffer[--length] = '\0';
    } else {
        while (c != EOF && c != '\n')
            c = getc_unlocked(stream);
    }
    return length;
}

enum class LineClass { Blank, Comment, Address, Data };

inline LineClass classify(const char* text, long length)
{
    if (length == 0)
        return LineClass::Blank;
    if (text[0] == '#')
        return LineClass::Comment;
    return text[0] == '@' ? LineClass::Address : LineClass::Data;
}

// Can a line that starts with `c` be anything but a data line? A line starting with CR may
// still be blank (CR LF) and one starting with a zero byte is blank; both are looked at
// closely like comments, so that the packet can end before them.
inline bool mayEndOrSkip(int c)
{
    return c == '#' || c == '\r' || c == '\0';
}

// The line whose first character `first` was just taken, when it is a plain data line: at
// most 16 hexadecimal digits (so no prefix, sign or space) and its LF or the end of the file.
// Then the word is its value and true is returned. Otherwise false, with the characters taken
// so far in `line` and their count in *taken, for readLine to go on with (digits come back in
// upper case, which reads the same). This is the loop a big file spends its time in: it looks
// at each character once and stores nothing but the value.
inline bool plainWord(FILE* stream, int first, char* line, long* taken, uint32_t* word)
{
    unsigned digit = kHex.digit[static_cast<unsigned char>(first)];
    if (digit > 15) {
        line[0] = static_cast<char>(first);
        *taken = 1;
        return false;
    }
    long n = 1;
    uint64_t value = digit;
    int c;
    for (;;) {
        c = getc_unlocked(stream);
        if (c == EOF)
            break;
        digit = kHex.digit[static_cast<unsigned char>(c)];
        if (digit > 15 || n == 16)
            break;
        ++n;
        value = (value << 4) | digit;
    }
    if (c == '\n' || c == EOF) {
        *word = static_cast<uint32_t>(value);
        return true;
    }
    static const char upper[] = "0123456789ABCDEF";
    for (long i = 0; i < n; ++i)
        line[i] = upper[(value >> (4 * (n - 1 - i))) & 0xF];
    line[n] = static_cast<char>(c);
    *taken = n + 1;
    return false;
}

// Plain data lines of a long packet taken from the stream in blocks instead of a character at
// a time. It accepts exactly the lines plainWord accepts (1 to 16 hexadecimal digits, then LF
// or the end of the file); at any other line it stops and puts the stream back at that line's
// start, for the character-wise reader to go on with under every rule.
class BulkWords
{
public:
    BulkWords(FILE* stream, pxlod::ReadAhead& ahead) : m_stream(stream), m_ahead(ahead) {}

    // Hands the words of the plain lines from here to `sink` (see readPacket), going on from
    // what an earlier run kept read ahead, if any. Returns true when the packet ended here:
    // the end of the file, or the sink stopped it (then, with ahead.keep, what was read ahead
    // stays for the next run). False when the next line needs the character-wise reader, and
    // on a stream that cannot seek back over what was read ahead (a pipe), which is read a
    // character at a time. Not inlined: the character-wise loop that short packets spend
    // their time in stays tight.
    template <typename Sink>
    __attribute__((noinline)) bool run(Sink& sink)
    {
        if (!m_ahead.held() && ftello(m_stream) < 0)
            return false;
        pxlod::ReadAhead& a = m_ahead;
        bool ended = false;
        for (;;) {
            if (a.length - a.position < Lookahead && !a.atEnd)
                refill();
            if (a.position == a.length) {
                ended = true; // end of the file
                break;
            }
            const unsigned char* line = a.data + a.position;
            const size_t available = a.length - a.position;
            size_t room = 0;
            uint32_t* out = sink.space(&room);
            if (const size_t lines = pxlod::convertLines(line, available, out, room)) {
                a.position += lines * pxlod::LineSize;
                if (!sink.wrote(lines)) {
                    ended = true;
                    break;
                }
                continue;
            }
            uint32_t word = 0;
            size_t used = 0;
            if (available >= pxlod::LineSize && line[8] == '\n' && pxlod::eightDigits(line, &word))
                used = pxlod::LineSize;
            else if ((used = plainLine(line, available, &word)) == 0)
                break;
            a.position += used;
            if (!sink.put(word)) {
                ended = true;
                break;
            }
        }
        if (!ended || !a.keep)
            giveBack();
        return ended;
    }

    // Puts the stream back at the first byte read ahead and not used (the stream's buffer
    // usually still holds it) and forgets the rest.
    void giveBack()
    {
        if (!m_ahead.held())
            return;
        fseeko(m_stream, -off_t(m_ahead.length - m_ahead.position), SEEK_CUR);
        m_ahead.position = m_ahead.length = 0;
        m_ahead.atEnd = false;
    }

    // Small blocks: what a run reads ahead of its last line is given back with a seek within
    // the stream's own buffer, which a larger read would more often have refilled past it.
    static constexpr size_t BlockSize = 4 * 1024;

private:
    // Bytes kept in view ahead of the next line: what convertLines takes at once, and at least
    // the longest plain line (16 digits and the LF).
    static constexpr size_t Lookahead = pxlod::LineGroupBytes;

    // A plain line of any length at `line`: the bytes it takes (its LF included), or 0.
    size_t plainLine(const unsigned char* line, size_t available, uint32_t* word) const
    {
        uint64_t value = 0;
        size_t n = 0;
        for (; n < available && n < 16; ++n) {
            const unsigned digit = kHex.digit[line[n]];
            if (digit > 15)
                break;
            value = (value << 4) | digit;
        }
        *word = static_cast<uint32_t>(value);
        if (n == 0)
            return 0;
        if (n < available)
            return line[n] == '\n' ? n + 1 : 0;
        return m_ahead.atEnd ? n : 0;
    }

    void refill()
    {
        pxlod::ReadAhead& a = m_ahead;
        const size_t rest = a.length - a.position;
        std::memmove(a.data, a.data + a.position, rest);
        a.position = 0;
        a.length = rest;
        while (a.length < a.size && !a.atEnd) {
            const size_t n = fread_unlocked(a.data + a.length, 1, a.size - a.length, m_stream);
            a.length += n;
            a.atEnd = n == 0;
        }
    }

    FILE* m_stream;
    pxlod::ReadAhead& m_ahead;
};

// Finds the next packet's address line, skipping blank lines and comments. Returns 0 with
// *found false at the end of the file, 1 at a data line outside a packet.
int findAddress(FILE* stream, char* line, uint32_t* address, bool* found)
{
    *found = false;
    for (;;) {
        const int c = getc_unlocked(stream);
        if (c == EOF)
            return 0;
        if (c == '\n')
            continue;
        long taken = 1;
        line[0] = static_cast<char>(c);
        if (c == '@') {
            // Usually the address is plain digits right after the '@'.
            const int next = getc_unlocked(stream);
            if (next == '\n' || next == EOF) {
                *address = 0;
                *found = true;
                return 0;
            }
            uint32_t word = 0;
            if (plainWord(stream, next, line + 1, &taken, &word)) {
                *address = word;
                *found = true;
                return 0;
            }
            taken += 1;
        }
        const long length = readLine(stream, line, kLineBufferSize, taken);
        switch (classify(line, length)) {
        case LineClass::Blank:
        case LineClass::Comment:
            continue;
        case LineClass::Data:
            return 1;
        case LineClass::Address:
            *address = parseHex32(line + 1, line + length);
            *found = true;
            return 0;
        }
    }
}

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
// which says where long runs of plain lines are read to. The caller holds the stream's lock.
template <typename Sink>
void readPacket(FILE* stream, char* line, Sink& sink, uint64_t wordsBefore, pxlod::ReadAhead& ahead)
{
    if (ahead.held() && BulkWords(stream, ahead).run(sink))
        return;
    off_t lookedAtFrom = -1; // start of the lines read since the last word, when any
    // A packet that has gone on this long is likely long: its plain lines are then taken in
    // blocks, until a line needs this loop; after this many more words, in blocks again.
    constexpr unsigned BulkAfterWords = 256;
    unsigned words = unsigned(std::min<uint64_t>(wordsBefore, BulkAfterWords - 1));
    for (;;) {
        const int c = getc_unlocked(stream);
        if (c == EOF)
            break;
        if (c == '@' || c == '\n') {
            ungetc(c, stream);
            break;
        }
        if (mayEndOrSkip(c) && lookedAtFrom < 0)
            lookedAtFrom = ftello(stream) - 1;
        uint32_t word = 0;
        long taken = 0;
        if (!plainWord(stream, c, line, &taken, &word)) {
            const long length = readLine(stream, line, kLineBufferSize, taken);
            const LineClass kind = classify(line, length);
            if (kind == LineClass::Comment)
                continue;
            if (kind == LineClass::Blank)
                break;
            word = parseHex32(line, line + length);
        }
        lookedAtFrom = -1;
        if (!sink.put(word))
            break;
        if (++words == BulkAfterWords) {
            words = 0;
            if (BulkWords(stream, ahead).run(sink))
                return;
        }
    }
    if (lookedAtFrom >= 0)
        fseeko(stream, lookedAtFrom, SEEK_SET);
}

// Word array that grows while a packet is read, so each line is read once. The first words
// stand in the buffer itself, so a small packet costs one allocation of its exact size.
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

    // The reader's sink (see readPacket). wordCount is 32-bit: a longer run ends the packet,
    // and the next call reports the rest as a data line outside a packet. put is false also
    // when memory is short (the word is lost).
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

// Reads the next packet; the caller holds the stream's lock.
int nextPacketLocked(FILE* stream, LodPacket** packet)
{
    char line[kLineBufferSize];
    uint32_t address = 0;
    bool found = false;
    if (findAddress(stream, line, &address, &found) != 0)
        return 1;
    if (!found)
        return 0;
    WordBuffer words;
    unsigned char block[BulkWords::BlockSize];
    pxlod::ReadAhead ahead{block, sizeof block};
    readPacket(stream, line, words, 0, ahead);
    bool failed = false;
    uint32_t* array = words.release(&failed);
    if (failed)
        return 0;
    auto* made = static_cast<LodPacket*>(std::malloc(sizeof(LodPacket)));
    if (!made) {
        std::free(array);
        return 0;
    }
    made->address = address;
    made->wordCount = words.count();
    made->words = array;
    *packet = made;
    return 0;
}

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

} // namespace

extern "C" {

LodFile* LOD_Open(const char* path)
{
    FILE* file = std::fopen(path, "rb");
    if (!file)
        return nullptr;
    auto* record = static_cast<LodFileRecord*>(std::malloc(sizeof(LodFileRecord)));
    if (!record) {
        std::fclose(file);
        return nullptr;
    }
    setvbuf(file, record->streamBuffer, _IOFBF, sizeof(record->streamBuffer));
    record->lodFile.file = file;
    return &record->lodFile;
}

void LOD_Close(LodFile* lodFile)
{
    if (!lodFile)
        return;
    if (lodFile->file)
        std::fclose(lodFile->file);
    lodFile->file = nullptr;
    std::free(lodFile);
}

int LOD_NextLodPacket(LodFile* lodFile, LodPacket** packet)
{
    *packet = nullptr;
    StreamLock lock(lodFile->file);
    return nextPacketLocked(lodFile->file, packet);
}

} // extern "C"

char* fgetl(char* buffer, int size, FILE* stream)
{
    StreamLock lock(stream);
    return readLine(stream, buffer, size) < 0 ? nullptr : buffer;
}

int countPacketWords(FILE* stream)
{
    StreamLock lock(stream);
    const off_t start = ftello(stream);
    char line[kLineBufferSize];
    int count = 0;
    for (;;) {
        const long length = readLine(stream, line, kLineBufferSize);
        if (length < 0)
            break;
        const LineClass kind = classify(line, length);
        if (kind == LineClass::Blank || kind == LineClass::Address)
            break;
        if (kind == LineClass::Data)
            ++count;
    }
    fseeko(stream, start, SEEK_SET);
    return count;
}

namespace {

// A sink for readPacket that only counts the words (up to the 32-bit limit of a packet).
struct WordCounter
{
    uint64_t count = 0;
    uint32_t scratch[pxlod::LineBatch];

    bool put(uint32_t) { return ++count < uint64_t(INT32_MAX); }
    uint32_t* space(size_t* room)
    {
        *room = size_t(std::min<uint64_t>(pxlod::LineBatch, INT32_MAX - count));
        return scratch;
    }
    bool wrote(size_t n)
    {
        count += n;
        return count < uint64_t(INT32_MAX);
    }
};

} // namespace

bool pxlod::countWords(const char* path, uint32_t skippedAddress, uint64_t* words)
{
    *words = 0;
    std::unique_ptr<LodFile, void (*)(LodFile*)> file(LOD_Open(path), LOD_Close);
    if (!file)
        return false;
    FILE* stream = file->file;
    StreamLock lock(stream);
    char line[kLineBufferSize];
    unsigned char block[BulkWords::BlockSize];
    pxlod::ReadAhead ahead{block, sizeof block};
    for (;;) {
        uint32_t address = 0;
        bool found = false;
        if (findAddress(stream, line, &address, &found) != 0 || !found)
            return true;
        WordCounter counter;
        readPacket(stream, line, counter, 0, ahead);
        if (address != skippedAddress)
            *words += counter.count;
    }
}

pxlod::PacketReader::PacketReader(const char* path)
    : m_buffers(new (std::nothrow) unsigned char[StreamBufferSize + ReadAheadSize])
{
    if (!m_buffers)
        return;
    m_ahead.data = m_buffers.get() + StreamBufferSize;
    m_ahead.size = ReadAheadSize;
    m_ahead.keep = true;
    m_file = std::fopen(path, "rb");
    if (m_file)
        setvbuf(m_file, reinterpret_cast<char*>(m_buffers.get()), _IOFBF, StreamBufferSize);
}

pxlod::PacketReader::~PacketReader()
{
    if (m_file)
        std::fclose(m_file);
}

int pxlod::PacketReader::nextPacket(uint32_t* address, bool* found)
{
    *found = false;
    uint32_t rest[1024];
    while (!m_ended)
        takeWords(rest, sizeof rest / sizeof rest[0]);
    StreamLock lock(m_file);
    BulkWords(m_file, m_ahead).giveBack();
    if (findAddress(m_file, m_line, address, found) != 0)
        return 1;
    m_taken = 0;
    m_ended = !*found;
    return 0;
}

size_t pxlod::PacketReader::takeWords(uint32_t* words, size_t count)
{
    if (m_ended)
        return 0;
    // Fills words[0, count), stopping there or at the 32-bit limit of a packet.
    struct Sink
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
    } sink{words, size_t(std::min<uint64_t>(count, INT32_MAX - m_taken))};
    StreamLock lock(m_file);
    readPacket(m_file, m_line, sink, m_taken, m_ahead);
    m_taken += sink.n;
    m_ended = sink.n < count;
    return sink.n;
}
