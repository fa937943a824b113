// The LOD reader on arbitrary file contents: LOD_Open on an in-memory file holding the input,
// LOD_NextLodPacket until the end or result 1. Every packet read must come back unchanged
// when written with LOD_DumpPacketLodFormat and read again, and its binary dump must be
// exactly its words. The reader of the LOD transfers (pxlod::PacketReader), taking each
// packet in pieces of sizes drawn from the input and leaving some packets half read, must
// find the same packets, words and ending, and pxlod::countWords the same number of words.

#include "FuzzPeer.h"

#include "pellix/lod/LODFileLoader.h"
#include "pellix/lod/LODReader_p.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using fuzzpeer::fail;

// An anonymous in-memory file holding `bytes`; its /proc path opens like any file.
struct MemoryFile
{
    MemoryFile(const void* bytes, size_t size)
    {
        if (fd < 0 || (size && ::write(fd, bytes, size) != ssize_t(size)))
            fail("memfd");
    }
    ~MemoryFile() { ::close(fd); }
    int fd = memfd_create("lod", MFD_CLOEXEC);
    std::string path = "/proc/self/fd/" + std::to_string(fd);
};

struct Packet
{
    uint32_t address;
    std::vector<uint32_t> words;
    bool operator==(const Packet& other) const
    {
        return address == other.address && words == other.words;
    }
};

// What `dump` writes for `packet`.
template <class Dump>
std::string dumped(Dump dump, LodPacket* packet)
{
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    dump(out, packet);
    std::fclose(out);
    std::string result(text, size);
    std::free(text);
    return result;
}

// The packets LOD_NextLodPacket reads from `file` (of `size` bytes), each checked for its
// shape and its binary dump, and appended to `text` as LOD text; `stray` tells whether the
// reading ended on a data line outside a packet (result 1).
std::vector<Packet> readAll(const MemoryFile& file, size_t size, bool* stray, std::string* text)
{
    LodFile* lod = LOD_Open(file.path.c_str());
    if (!lod)
        fail("open");
    std::vector<Packet> seen;
    for (;;) {
        LodPacket* packet = reinterpret_cast<LodPacket*>(uintptr_t(1));
        const int result = LOD_NextLodPacket(lod, &packet);
        if ((result != 0 && result != 1) || (result == 1 && packet))
            fail("result other than 0, or 1 with a packet");
        *stray = result == 1;
        if (!packet)
            break;
        // A word array exactly when there are words, never more words than the file has bytes.
        if (packet->wordCount < 0 || (packet->wordCount == 0) != (packet->words == nullptr) ||
            size_t(packet->wordCount) > size)
            fail("packet shape");
        seen.push_back({packet->address, {packet->words, packet->words + packet->wordCount}});
        const auto* words = reinterpret_cast<const char*>(packet->words);
        if (dumped(LOD_DumpPacketBinaryFormat, packet) !=
            std::string(words, size_t(packet->wordCount) * 4))
            fail("binary dump differs from the words");
        *text += dumped(LOD_DumpPacketLodFormat, packet);
        LOD_FreeLodPacket(packet);
        // A file of n bytes holds at most n / 2 + 1 packets (each needs "@" and a line end).
        if (seen.size() > size / 2 + 2)
            fail("more packets than the file can hold");
    }
    LOD_Close(lod);
    return seen;
}

// The packets `expected` (then the end, or a data line outside a packet when `stray`) read
// again by PacketReader in pieces.
void checkPieces(const std::string& path, const std::vector<Packet>& expected, bool stray,
                 uint32_t seed)
{
    pxlod::PacketReader reader(path.c_str());
    if (!reader.isOpen())
        fail("PacketReader cannot open");
    const auto nextRandom = [&seed] {
        seed ^= seed << 13, seed ^= seed >> 17, seed ^= seed << 5;
        return seed;
    };
    for (size_t i = 0;; ++i) {
        uint32_t address = 0;
        bool found = false;
        const int result = reader.nextPacket(&address, &found);
        if (result != 0 || !found) {
            if (i != expected.size() || (result == 1) != stray || result > 1)
                fail("PacketReader ends differently");
            return;
        }
        if (i >= expected.size() || address != expected[i].address)
            fail("PacketReader finds another packet");
        const bool halfRead = nextRandom() % 4 == 0;
        std::vector<uint32_t> words;
        for (;;) {
            // Pieces of 1 to 20000 words, most of them small.
            const size_t want = 1 + (nextRandom() % 2 ? nextRandom() % 20 : nextRandom() % 20000);
            const size_t had = words.size();
            words.resize(had + want);
            const size_t taken = reader.takeWords(words.data() + had, want);
            words.resize(had + taken);
            if (taken < want || halfRead)
                break;
        }
        const std::vector<uint32_t>& all = expected[i].words;
        if (words.size() > all.size() || (!halfRead && words.size() != all.size()) ||
            !std::equal(words.begin(), words.end(), all.begin()))
            fail("PacketReader reads other words");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    MemoryFile file(data, size);
    bool stray = false, strayAgain = false;
    std::string text, textAgain;
    const std::vector<Packet> seen = readAll(file, size, &stray, &text);
    // Every packet written back as LOD text reads back unchanged, and nothing else.
    MemoryFile copy(text.data(), text.size());
    if (readAll(copy, text.size(), &strayAgain, &textAgain) != seen || strayAgain)
        fail("the dumped packets read back differently");

    uint32_t seed = 2463534242u;
    for (size_t i = 0; i < size && i < 8; ++i)
        seed = seed * 31u + data[i];
    checkPieces(file.path, seen, stray, seed | 1u);
    constexpr uint32_t Skipped = 0xF0000000u;
    uint64_t counted = 0, words = 0;
    for (const Packet& packet : seen)
        words += packet.address == Skipped ? 0 : packet.words.size();
    if (!pxlod::countWords(file.path.c_str(), Skipped, &counted) || counted != words)
        fail("countWords counts differently");
    return 0;
}
