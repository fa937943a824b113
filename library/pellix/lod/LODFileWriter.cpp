// LOD packets and the writer: allocating and freeing packets, and writing them as LOD text or
// as raw words.

#include "pellix/lod/LODFileLoader.h"

#include <cstdio>
#include <cstdlib>

extern "C" void LOD_FreeLodPacket(LodPacket* packet)
{
    std::free(packet->words);
    std::free(packet);
}

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
