#include "pellix/lod/LODFileLoader.h"

#include <sys/types.h>

#include <climits>
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

// The low 32 bits of strtoul(text, NULL, 16) with a 64-bit unsigned long: white space,
// optional sign, optional 0x prefix, digits up to the first non-digit; a value beyond 64 bits
// gives ULONG_MAX, sign or not. text is zero-terminated.
uint32_t parseHex32(const char* text)
{
    const char* s = text;
    while (isCSpace(*s))
        ++s;
    bool negative = false;
    if (*s == '+' || *s == '-') {
        negative = *s == '-';
        ++s;
    }
    if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X'))
        s += 2;
    uint64_t value = 0;
    bool overflow = false;
    for (;; ++s) {
        const unsigned digit = kHex.digit[static_cast<unsigned char>(*s)];
        if (digit > 15)
            break;
        if (value >> 60)
            overflow = true;
        value = (value << 4) | digit;
    }
    if (overflow)
        return 0xFFFFFFFFu;
    return static_cast<uint32_t>(negative ? 0 - value : value);
}

// Reads lines exactly as fgetl() with a kLineBufferSize buffer does (fgets, then the end-of-
// line and over-long rules), but character by character with getc_unlocked(), and counts the
// bytes taken from the stream so the caller can step back over lines it looked at. The caller
// holds the stream's lock.
class LineReader
{
public:
    explicit LineReader(FILE* file) : m_file(file) {}

    uint64_t consumed() const { return m_consumed; }

    // Stores the next line, zero-terminated, in line (kLineBufferSize bytes) and returns its
    // length up to the first zero byte; -1 at the end of the file.
    long next(char* line)
    {
        size_t n = 0;
        while (n < kMaxLineLength) {
            const int c = get();
            if (c == EOF)
                break;
            line[n++] = static_cast<char>(c);
            if (c == '\n')
                break;
        }
        if (n == 0)
            return -1;
        line[n] = '\0';
        const void* zero = std::memchr(line, '\0', n);
        size_t length = zero ? static_cast<size_t>(static_cast<const char*>(zero) - line) : n;
        if (length == 0)
            return 0;
        if (line[length - 1] == '\n') {
            line[--length] = '\0';
            if (length > 0 && line[length - 1] == '\r')
                line[--length] = '\0';
            return static_cast<long>(length);
        }
        int c = get();
        if (c == '\n') {
            if (line[length - 1] == '\r')
                line[--length] = '\0';
        } else {
            while (c != EOF && c != '\n')
                c = get();
        }
        return static_cast<long>(length);
    }

private:
    int get()
    {
        const int c = getc_unlocked(m_file);
        if (c != EOF)
            ++m_consumed;
        return c;
    }

    FILE* m_file;
    uint64_t m_consumed = 0;
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
    char line[kLineBufferSize];
    long length;
    for (;;) {
        length = reader.next(line);
        if (length < 0)
            return 0;
        if (length == 0 || line[0] == '#')
            continue;
        if (line[0] != '@')
            return 1;
        break;
    }
    const uint32_t address = parseHex32(line + 1);

    // The packet ends before a blank line, an address line or the end of the file. Lines
    // looked at after the last word (comments, and the line that ends the packet) are given
    // back, so the stream stands right after the last word as the next call expects.
    WordBuffer words;
    uint64_t afterLastWord = reader.consumed();
    bool outOfMemory = false;
    while ((length = reader.next(line)) > 0 && line[0] != '@') {
        if (line[0] == '#')
            continue;
        if (words.count() == INT32_MAX)
            break;
        if (!words.append(parseHex32(line))) {
            outOfMemory = true;
            break;
        }
        afterLastWord = reader.consumed();
    }
    if (reader.consumed() > afterLastWord)
        fseeko(file, -static_cast<off_t>(reader.consumed() - afterLastWord), SEEK_CUR);
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
