#include "pellix/lod/LODFileLoader.h"

#include "pellix/lod/LODCount_p.h"

#include <endian.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

// The reader uses standard I/O only (POSIX's unlocked getc under the stream's lock, ungetc,
// ftello/fseeko). Every rule of the text format lives once below: the line (readLine), the
// number (parseHex32), the class of a line (classify) and the packet (readPacket).

namespace {

// Size of the line buffer of the reader: a line keeps at most kLineBufferSize - 1 characters.
constexpr int kLineBufferSize = 1027;

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

// The value of eight hexadecimal digits at `p`, or false when one of them is none: all eight
// bytes at once, as the lanes of one 64-bit word (the line of a long packet, nearly always).
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

// Plain data lines of a long packet taken from the stream in blocks instead of a character at
// a time. It accepts exactly the lines plainWord accepts (1 to 16 hexadecimal digits, then LF
// or the end of the file); at any other line it stops and puts the stream back at that line's
// start, for the character-wise reader to go on with under every rule.
class BulkWords
{
public:
    explicit BulkWords(FILE* stream) : m_stream(stream) {}

    // Hands the words of the plain lines from here to `take` (which returns false to stop).
    // Returns true when the packet ended here: the end of the file, or `take` stopped it.
    // False when the next line needs the character-wise reader, and on a stream that cannot
    // seek back over what was read ahead (a pipe), which is read a character at a time.
    // Not inlined: the character-wise loop that short packets spend their time in stays tight.
    template <typename Take>
    __attribute__((noinline)) bool run(Take&& take)
    {
        if (ftello(m_stream) < 0)
            return false;
        bool ended = false;
        for (;;) {
            if (m_length - m_position < LongestLine && !m_atEnd)
                refill();
            if (m_position == m_length) {
                ended = true; // end of the file
                break;
            }
            const unsigned char* line = m_buffer + m_position;
            const size_t available = m_length - m_position;
            uint32_t word = 0;
            size_t used = 0;
            if (available >= 9 && line[8] == '\n' && eightDigits(line, &word))
                used = 9;
            else if ((used = plainLine(line, available, &word)) == 0)
                break;
            m_position += used;
            if (!take(word)) {
                ended = true;
                break;
            }
        }
        // Back over what was read ahead: the stream's buffer usually still holds it.
        fseeko(m_stream, -off_t(m_length - m_position), SEEK_CUR);
        return ended;
    }

private:
    // Small blocks: what a run reads ahead of its last line is given back with a seek within
    // the stream's own buffer, which a larger read would more often have refilled past it.
    static constexpr size_t BlockSize = 4 * 1024;
    static constexpr size_t LongestLine = 17; // 16 digits and the LF

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
        return m_atEnd ? n : 0;
    }

    void refill()
    {
        const size_t rest = m_length - m_position;
        std::memmove(m_buffer, m_buffer + m_position, rest);
        m_position = 0;
        m_length = rest;
        while (m_length < BlockSize && !m_atEnd) {
            const size_t n = fread_unlocked(m_buffer + m_length, 1, BlockSize - m_length, m_stream);
            m_length += n;
            m_atEnd = n == 0;
        }
    }

    FILE* m_stream;
    unsigned char m_buffer[BlockSize];
    size_t m_position = 0;
    size_t m_length = 0;
    bool m_atEnd = false;
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

// Reads the words of the packet whose lines start at the stream's position, handing each to
// `take(word)` (which returns false to stop: memory is short or the count is full). The
// packet ends before a blank line, an address line or the end of the file; comments in it
// take no word. The stream is left at the start of the line after the last word: the line
// that ended the packet is given back (one character, or by seeking back over comments and
// a CR LF blank line that were looked at). The caller holds the stream's lock.
template <typename Take>
void readPacket(FILE* stream, char* line, Take&& take)
{
    off_t lookedAtFrom = -1; // start of the lines read since the last word, when any
    // A packet that has gone on this long is likely long: its plain lines are then taken in
    // blocks, until a line needs this loop; after this many more words, in blocks again.
    constexpr unsigned BulkAfterWords = 256;
    unsigned words = 0;
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
        if (!take(word))
            break;
        if (++words == BulkAfterWords) {
            words = 0;
            if (BulkWords(stream).run(take))
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

    // wordCount is 32-bit: a longer run ends the packet, and the next call reports the rest
    // as a data line outside a packet. False also when memory is short (the word is lost).
    bool append(uint32_t word)
    {
        if (m_count == m_capacity && !grow())
            return false;
        m_words[m_count++] = word;
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
    readPacket(stream, line, [&](uint32_t word) { return words.append(word); });
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

bool pxlod::countWords(const char* path, uint32_t skippedAddress, uint64_t* words)
{
    *words = 0;
    std::unique_ptr<LodFile, void (*)(LodFile*)> file(LOD_Open(path), LOD_Close);
    if (!file)
        return false;
    FILE* stream = file->file;
    StreamLock lock(stream);
    char line[kLineBufferSize];
    for (;;) {
        uint32_t address = 0;
        bool found = false;
        if (findAddress(stream, line, &address, &found) != 0 || !found)
            return true;
        uint64_t count = 0;
        readPacket(stream, line, [&](uint32_t) { return ++count < uint64_t(INT32_MAX); });
        if (address != skippedAddress)
            *words += count;
    }
}
