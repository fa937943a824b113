#include "pellix/lod/LODFileLoader.h"

#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// Size of the line buffer of the reader: a line keeps at most kLineBufferSize - 1 characters.
constexpr int kLineBufferSize = 1027;
constexpr size_t kMaxLineLength = kLineBufferSize - 1;

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
inline uint32_t parseHex32(const char* s, const char* end)
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

// One line as fgetl() gives it: its characters up to the first zero byte, without line end.
struct Line
{
    const char* text;
    long length; // -1 at the end of the file

    bool isBlank() const { return length == 0; }
    char first() const { return text[0]; }
    const char* end() const { return text + length; }
};

// Reads lines exactly as fgetl() with a kLineBufferSize buffer does (fgets, then the end-of-
// line and over-long rules) and counts the bytes taken from the stream, so the caller can step
// back over lines it only looked at. The caller holds the stream's lock.
class LineReader
{
public:
    explicit LineReader(FILE* file) : m_file(file) {}

    uint64_t consumed() const { return m_consumed; }

    // The next line; valid until the next call.
    Line next()
    {
#ifdef __GLIBC__
        // Usual case: the whole line, its LF among the first kMaxLineLength bytes and no zero
        // byte before it, already sits in the stream's buffer. Take it from there, uncopied.
        const char* begin = m_file->_IO_read_ptr;
        const char* available = m_file->_IO_read_end;
        const char* limit =
            available - begin > long(kMaxLineLength) ? begin + kMaxLineLength : available;
        const char* p = begin;
        while (p < limit && *p != '\n' && *p != '\0')
            ++p;
        if (p < limit && *p == '\n') {
            long length = p - begin;
            if (length > 0 && begin[length - 1] == '\r')
                --length;
            m_file->_IO_read_ptr = const_cast<char*>(p + 1);
            m_consumed += uint64_t(p + 1 - begin);
            return {begin, length};
        }
#endif
        return nextByCharacter();
    }

    // Takes the next line if it is a plain data line held whole in the stream's buffer: up to
    // 16 hex digits (not "0x"), anything after them, LF among the first kMaxLineLength bytes,
    // no zero byte. Its word is the digits' value, as parseHex32() would give. Returns false
    // and takes nothing otherwise; next() then reads the line. This is the loop a big file
    // spends its time in, so it scans the line once.
    bool nextPlainWord(uint32_t& word)
    {
#ifdef __GLIBC__
        const char* begin = m_file->_IO_read_ptr;
        const char* available = m_file->_IO_read_end;
        const char* limit =
            available - begin > long(kMaxLineLength) ? begin + kMaxLineLength : available;
        const char* p = begin;
        uint64_t value = 0;
        for (; p < limit && p - begin < 16; ++p) {
            const unsigned digit = kHex.digit[static_cast<unsigned char>(*p)];
            if (digit > 15)
                break;
            value = (value << 4) | digit;
        }
        if (p == begin || p >= limit || kHex.digit[static_cast<unsigned char>(*p)] <= 15)
            return false;
        if (begin[0] == '0' && (begin[1] == 'x' || begin[1] == 'X'))
            return false;
        while (p < limit && *p != '\n' && *p != '\0')
            ++p;
        if (p >= limit || *p != '\n')
            return false;
        word = static_cast<uint32_t>(value);
        m_file->_IO_read_ptr = const_cast<char*>(p + 1);
        m_consumed += uint64_t(p + 1 - begin);
        return true;
#else
        (void)word;
        return false;
#endif
    }

    // Steps the stream back by the last count bytes taken from it.
    void giveBack(uint64_t count)
    {
        if (count == 0)
            return;
        m_consumed -= count;
#ifdef __GLIBC__
        // Usually the bytes are still in the stream's buffer: step back there. fseeko() would
        // do the same but adds a system call to resync the file offset, once per packet.
        if (count <= uint64_t(m_file->_IO_read_ptr - m_file->_IO_read_base)) {
            m_file->_IO_read_ptr -= count;
            m_file->_flags &= ~_IO_EOF_SEEN;
            return;
        }
#endif
        fseeko(m_file, -static_cast<off_t>(count), SEEK_CUR);
    }

private:
    // Any line: fgets() into m_line and fgetl()'s rules, one character at a time.
    Line nextByCharacter()
    {
        size_t n = 0;
        size_t length = kLineBufferSize; // up to the first zero byte
        while (n < kMaxLineLength) {
            const int c = get();
            if (c == EOF)
                break;
            if (c == '\0' && length == kLineBufferSize)
                length = n;
            m_line[n++] = static_cast<char>(c);
            if (c == '\n')
                break;
        }
        if (n == 0)
            return {m_line, -1};
        if (length > n)
            length = n;
        if (length == 0)
            return {m_line, 0};
        if (m_line[length - 1] == '\n') {
            --length;
            if (length > 0 && m_line[length - 1] == '\r')
                --length;
            return {m_line, long(length)};
        }
        int c = get();
        if (c == '\n') {
            if (m_line[length - 1] == '\r')
                --length;
        } else {
            while (c != EOF && c != '\n')
                c = get();
        }
        return {m_line, long(length)};
    }

    int get()
    {
        const int c = getc_unlocked(m_file);
        if (c != EOF)
            ++m_consumed;
        return c;
    }

    FILE* m_file;
    uint64_t m_consumed = 0;
    char m_line[kLineBufferSize];
};

// Word array that grows while a packet is read, so each line is read once.
class WordBuffer
{
public:
    ~WordBuffer() { std::free(m_words); }

    int32_t count() const { return m_count; }

    bool append(uint32_t word)
    {
        if (m_count == m_capacity) {
            const size_t capacity = m_capacity ? size_t(m_capacity) * 2 : 256;
            auto* grown =
                static_cast<uint32_t*>(std::realloc(m_words, capacity * sizeof(uint32_t)));
            if (!grown)
                return false;
            m_words = grown;
            m_capacity = capacity > size_t(INT32_MAX) ? INT32_MAX : int32_t(capacity);
        }
        m_words[m_count++] = word;
        return true;
    }

    // Hands the array over, cut to its exact size; null for no words.
    uint32_t* release()
    {
        uint32_t* words = m_words;
        m_words = nullptr;
        if (!words || m_count == 0) {
            std::free(words);
            return nullptr;
        }
        if (m_count < m_capacity) {
            auto* exact = static_cast<uint32_t*>(std::realloc(words, size_t(m_count) * 4));
            if (exact)
                words = exact;
        }
        return words;
    }

private:
    uint32_t* m_words = nullptr;
    int32_t m_count = 0;
    int32_t m_capacity = 0;
};

// Reads the next packet; the caller holds the stream's lock.
int nextPacketLocked(FILE* file, LodPacket** packet)
{
    LineReader reader(file);
    Line line;
    for (;;) {
        line = reader.next();
        if (line.length < 0)
            return 0;
        if (line.isBlank() || line.first() == '#')
            continue;
        if (line.first() != '@')
            return 1;
        break;
    }
    const uint32_t address = parseHex32(line.text + 1, line.end());

    // The packet ends before a blank line, an address line or the end of the file. Lines
    // looked at after the last word (comments, and the line that ends the packet) are given
    // back, so the stream stands right after the last word as the next call expects.
    WordBuffer words;
    uint64_t afterLastWord = reader.consumed();
    bool outOfMemory = false;
    for (;;) {
        // wordCount is 32-bit: a longer run ends the packet, and the next call reports the
        // rest as a data line outside a packet.
        if (words.count() == INT32_MAX)
            break;
        uint32_t word;
        if (!reader.nextPlainWord(word)) {
            line = reader.next();
            if (line.length <= 0 || line.first() == '@')
                break;
            if (line.first() == '#')
                continue;
            word = parseHex32(line.text, line.end());
        }
        if (!words.append(word)) {
            outOfMemory = true;
            break;
        }
        afterLastWord = reader.consumed();
    }
    reader.giveBack(reader.consumed() - afterLastWord);
    if (outOfMemory)
        return 0;

    auto* made = static_cast<LodPacket*>(std::malloc(sizeof(LodPacket)));
    if (!made)
        return 0;
    made->address = address;
    made->wordCount = words.count();
    made->words = words.release();
    *packet = made;
    return 0;
}

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
    FILE* file = lodFile->file;
    flockfile(file);
    const int result = nextPacketLocked(file, packet);
    funlockfile(file);
    return result;
}

void LOD_FreeLodPacket(LodPacket* packet)
{
    std::free(packet->words);
    std::free(packet);
}

} // extern "C"

LodPacket* LOD_AllocateLodPacket(unsigned int address, unsigned int wordCount)
{
    auto* packet = static_cast<LodPacket*>(std::malloc(sizeof(LodPacket)));
    if (!packet)
        return nullptr;
    packet->address = address;
    packet->wordCount = static_cast<int32_t>(wordCount);
    packet->words = nullptr;
    if (wordCount != 0) {
        packet->words = static_cast<uint32_t*>(std::malloc(size_t(wordCount) * sizeof(uint32_t)));
        if (!packet->words) {
            std::free(packet);
            return nullptr;
        }
    }
    return packet;
}

void LOD_DumpPacketLodFormat(FILE* stream, LodPacket* packet)
{
    std::fprintf(stream, "@%08X\n", packet->address);
    // Same bytes as "%08X\n" per word, formatted in chunks to spare a printf per line.
    static const char kDigits[] = "0123456789ABCDEF";
    constexpr int kChunkWords = 512;
    char text[kChunkWords * 9];
    for (int32_t first = 0; first < packet->wordCount; first += kChunkWords) {
        const int32_t last =
            packet->wordCount - first < kChunkWords ? packet->wordCount : first + kChunkWords;
        char* out = text;
        for (int32_t i = first; i < last; ++i) {
            const uint32_t word = packet->words[i];
            for (int shift = 28; shift >= 0; shift -= 4)
                *out++ = kDigits[(word >> shift) & 0xF];
            *out++ = '\n';
        }
        std::fwrite(text, 1, size_t(out - text), stream);
    }
}

void LOD_DumpPacketBinaryFormat(FILE* stream, LodPacket* packet)
{
    if (packet->wordCount > 0)
        std::fwrite(packet->words, sizeof(uint32_t), size_t(packet->wordCount), stream);
}

char* fgetl(char* buffer, int size, FILE* stream)
{
    if (!std::fgets(buffer, size, stream))
        return nullptr;
    const size_t length = std::strlen(buffer);
    if (length == 0)
        return buffer;
    if (buffer[length - 1] == '\n') {
        buffer[length - 1] = '\0';
        if (length > 1 && buffer[length - 2] == '\r')
            buffer[length - 2] = '\0';
        return buffer;
    }
    int c = std::getc(stream);
    if (c == '\n') {
        if (buffer[length - 1] == '\r')
            buffer[length - 1] = '\0';
    } else {
        while (c != EOF && c != '\n')
            c = std::getc(stream);
    }
    return buffer;
}

int countPacketWords(FILE* stream)
{
    const off_t start = ftello(stream);
    char line[kLineBufferSize];
    int count = 0;
    while (fgetl(line, kLineBufferSize, stream) && line[0] != '\0' && line[0] != '@') {
        if (line[0] != '#')
            ++count;
    }
    fseeko(stream, start, SEEK_SET);
    return count;
}
