#include "pellix/lod/LODFileLoader.h"

#include "pellix/lod/LODText_p.h"

#include <sys/types.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// The rules of the text, each written once: the line (readLine), the number (parseHex32), the
// class of a line (classify) and the packet (readPacket). Standard I/O only (POSIX's unlocked
// getc under the stream's lock, ungetc, ftello/fseeko).

namespace {

constexpr int kLineBufferSize = pxlod::LineBufferSize;

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

} // namespace

int pxlod::findAddress(FILE* stream, char* line, uint32_t* address, bool* found)
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

template <typename Sink>
void pxlod::readPacket(FILE* stream, char* line, Sink& sink, uint64_t wordsBefore, ReadAhead& ahead)
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

void pxlod::giveBack(FILE* stream, ReadAhead& ahead)
{
    BulkWords(stream, ahead).giveBack();
}

int pxlod::nextPacket(FILE* stream, LodPacket** packet)
{
    char line[LineBufferSize];
    uint32_t address = 0;
    bool found = false;
    if (findAddress(stream, line, &address, &found) != 0)
        return 1;
    if (!found)
        return 0;
    WordBuffer words;
    unsigned char block[BlockSize];
    ReadAhead ahead{block, sizeof block};
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

template void pxlod::readPacket(FILE*, char*, pxlod::WordCounter&, uint64_t, pxlod::ReadAhead&);
template void pxlod::readPacket(FILE*, char*, pxlod::ArraySink&, uint64_t, pxlod::ReadAhead&);

char* fgetl(char* buffer, int size, FILE* stream)
{
    pxlod::StreamLock lock(stream);
    return readLine(stream, buffer, size) < 0 ? nullptr : buffer;
}

int countPacketWords(FILE* stream)
{
    pxlod::StreamLock lock(stream);
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
