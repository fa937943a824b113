#include "pellix/lod/LODFileLoader.h"

#include "pellix/lod/LODText_p.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

// Opening a LOD file and reading it packet by packet, whole (LOD_NextLodPacket), counted
// (countWords) or in pieces (PacketReader); the text itself is read by LODText.cpp.

namespace {

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
    pxlod::StreamLock lock(lodFile->file);
    return pxlod::nextPacket(lodFile->file, packet);
}

} // extern "C"

bool pxlod::countWords(const char* path, uint32_t skippedAddress, uint64_t* words)
{
    *words = 0;
    std::unique_ptr<LodFile, void (*)(LodFile*)> file(LOD_Open(path), LOD_Close);
    if (!file)
        return false;
    FILE* stream = file->file;
    StreamLock lock(stream);
    char line[LineBufferSize];
    unsigned char block[BlockSize];
    ReadAhead ahead{block, sizeof block};
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
    giveBack(m_file, m_ahead);
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
    ArraySink sink{words, size_t(std::min<uint64_t>(count, INT32_MAX - m_taken))};
    StreamLock lock(m_file);
    readPacket(m_file, m_line, sink, m_taken, m_ahead);
    m_taken += sink.n;
    m_ended = sink.n < count;
    return sink.n;
}
