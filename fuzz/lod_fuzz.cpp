// The LOD reader on arbitrary file contents: LOD_Open on an in-memory file holding the input,
// LOD_NextLodPacket until the end or result 1. Every packet read must come back unchanged
// when written with LOD_DumpPacketLodFormat and read again, and its binary dump must be
// exactly its words.

#include "FuzzPeer.h"

#include "pellix/lod/LODFileLoader.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using fuzzpeer::fail;

// An anonymous in-memory file holding `bytes`; its /proc path opens like any file.
struct MemoryFile
{
    MemoryFile(const void* bytes, size_t size)
    {
        fd = memfd_create("lod", MFD_CLOEXEC);
        if (fd < 0 || (size && ::write(fd, bytes, size) != ssize_t(size)))
            fail("memfd");
        path = "/proc/self/fd/" + std::to_string(fd);
    }
    ~MemoryFile() { ::close(fd); }
    int fd = -1;
    std::string path;
};

bool samePacket(const LodPacket* a, const LodPacket* b)
{
    if (a->address != b->address || a->wordCount != b->wordCount)
        return false;
    if (a->wordCount == 0)
        return a->words == nullptr && b->words == nullptr;
    return std::memcmp(a->words, b->words, size_t(a->wordCount) * 4) == 0;
}

void checkRoundTrip(LodPacket* packet)
{
    char* text = nullptr;
    size_t textSize = 0;
    FILE* out = open_memstream(&text, &textSize);
    LOD_DumpPacketLodFormat(out, packet);
    std::fclose(out);
    MemoryFile copy(text, textSize);
    std::free(text);
    LodFile* again = LOD_Open(copy.path.c_str());
    if (!again)
        fail("cannot reopen the dump");
    LodPacket* back = nullptr;
    if (LOD_NextLodPacket(again, &back) != 0 || !back || !samePacket(packet, back))
        fail("a dumped packet reads back differently");
    LOD_FreeLodPacket(back);
    back = nullptr;
    if (LOD_NextLodPacket(again, &back) != 0 || back)
        fail("a dump of one packet holds more");
    LOD_Close(again);

    char* binary = nullptr;
    size_t binarySize = 0;
    out = open_memstream(&binary, &binarySize);
    LOD_DumpPacketBinaryFormat(out, packet);
    std::fclose(out);
    if (binarySize != size_t(packet->wordCount) * 4 ||
        (binarySize && std::memcmp(binary, packet->words, binarySize) != 0))
        fail("binary dump differs from the words");
    std::free(binary);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    MemoryFile file(data, size);
    LodFile* lod = LOD_Open(file.path.c_str());
    if (!lod)
        fail("open");
    // A file of n bytes holds at most n / 2 + 1 packets (each needs "@" and a line end).
    const size_t limit = size / 2 + 2;
    size_t packets = 0;
    for (;;) {
        LodPacket* packet = reinterpret_cast<LodPacket*>(uintptr_t(1));
        const int result = LOD_NextLodPacket(lod, &packet);
        if (result == 1) {
            if (packet)
                fail("result 1 with a packet");
            break;
        }
        if (result != 0)
            fail("result other than 0 and 1");
        if (!packet)
            break;
        if (packet->wordCount < 0 || (packet->wordCount == 0) != (packet->words == nullptr) ||
            size_t(packet->wordCount) > size)
            fail("packet shape");
        checkRoundTrip(packet);
        LOD_FreeLodPacket(packet);
        if (++packets > limit)
            fail("more packets than the file can hold");
    }
    LOD_Close(lod);
    return 0;
}
