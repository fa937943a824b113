// LOD download, verify and dump over a C interface handle. The transfers run on the caller's
// thread and use the block calls PXST_WriteBlock and PXST_ReadBlock, so every block resolves
// the handle again. One packet (and one read-back buffer) is in memory at a time.

#include "pellix/api/PXLLibraryApi.h"

#include "pellix/api/PXApiFrame_p.h"
#include "pellix/lod/LODCount_p.h"
#include "pellix/lod/LODFileLoader.h"
#include "pellix/protocol/PXRanges_p.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <memory>
#include <new>

namespace {

// Packets at this address are read from the file but neither written nor compared.
constexpr unsigned int SkippedAddress = 0xF0000000u;

// Bytes per block call. The plain calls move a packet in one block call; only a packet of more
// than 1 GiB is cut, so that the byte count always fits the block calls' int size. The progress
// variants cut at 64 KiB so that the progress moves.
constexpr unsigned int WholePacketChunk = 1u << 30;
constexpr unsigned int ProgressChunk = 64u * 1024u;

struct LodFileCloser
{
    void operator()(LodFile* file) const { LOD_Close(file); }
};
using LodFilePtr = std::unique_ptr<LodFile, LodFileCloser>;

struct LodPacketFreer
{
    void operator()(LodPacket* packet) const { LOD_FreeLodPacket(packet); }
};
using LodPacketPtr = std::unique_ptr<LodPacket, LodPacketFreer>;

struct FileCloser
{
    void operator()(FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// How a transfer cuts its block calls and whom it tells about them.
struct Transfer
{
    unsigned int chunk = WholePacketChunk;
    PXST_ProgressCallback callback = nullptr;
    void* userData = nullptr;
    unsigned long long done = 0;
    unsigned long long total = 0;

    static Transfer plain() { return Transfer{}; }
    static Transfer withProgress(PXST_ProgressCallback callback, void* userData)
    {
        Transfer transfer;
        transfer.chunk = ProgressChunk;
        transfer.callback = callback;
        transfer.userData = userData;
        return transfer;
    }

    bool reportsProgress() const { return chunk == ProgressChunk; }

    // Counts the bytes just moved and tells the callback; false when it asks to stop.
    bool advance(unsigned int bytes)
    {
        done += bytes;
        return callback == nullptr || callback(done, total, userData) == 0;
    }
};

unsigned long long packetBytes(const LodPacket& packet)
{
    return packet.wordCount > 0 ? static_cast<unsigned long long>(packet.wordCount) * 4u : 0u;
}

// Resolves the handle as every PXST_ call does: 0, 3 or 12.
unsigned int checkHandle(int handle)
{
    return pxapi::withConnection(handle, [](PXConnection&) { return PXST_RESULT_OK; });
}

// Bytes a load or verify of the file moves: the words of every packet that is not skipped, up
// to the end or the first data line outside a packet. The file is walked without holding its
// words.
unsigned long long countTransferBytes(const char* path)
{
    uint64_t words = 0;
    pxlod::countWords(path, SkippedAddress, &words);
    return words * 4u;
}

// Calls `block(offset, bytes)` for consecutive pieces of `bytes` of at most transfer.chunk
// bytes, at least once (a packet without words costs one call of size 0), telling the
// progress after each. Stops at the first non-zero result, or with PXST_RESULT_CANCELLED when
// the progress callback asks to stop.
template <typename Block>
unsigned int forEachChunk(Transfer& transfer, unsigned long long bytes, Block&& block)
{
    return pxrange::forEachPiece(
        bytes, transfer.chunk, [&](unsigned long long offset, unsigned int piece) {
            const unsigned int result = block(offset, piece);
            if (result != PXST_RESULT_OK)
                return result;
            return transfer.advance(piece) ? unsigned(PXST_RESULT_OK)
                                           : unsigned(PXST_RESULT_CANCELLED);
        });
}

// `countTotal`: a verification of its own, which learns its progress total from the file; a
// load's verification goes on with the load's total.
unsigned int verifyLod(int handle, const char* path, unsigned int* failAddress, Transfer& transfer,
                       bool countTotal)
{
    if (failAddress != nullptr)
        *failAddress = 0;
    if (const unsigned int result = checkHandle(handle))
        return result;
    LodFilePtr file(LOD_Open(path));
    if (!file)
        return PXST_RESULT_FILE;
    if (countTotal && transfer.reportsProgress())
        transfer.total = countTransferBytes(path);

    for (;;) {
        LodPacket* next = nullptr;
        if (LOD_NextLodPacket(file.get(), &next) != 0)
            return PXST_RESULT_LOD_FORMAT;
        if (next == nullptr)
            return PXST_RESULT_OK;
        LodPacketPtr packet(next);
        if (packet->address == SkippedAddress)
            continue;

        const unsigned long long bytes = packetBytes(*packet);
        const auto bufferWords =
            static_cast<size_t>(std::min<unsigned long long>(bytes, transfer.chunk) / 4u);
        std::unique_ptr<unsigned int[]> readBack(new (std::nothrow) unsigned int[bufferWords]);
        if (!readBack)
            return PXST_RESULT_FILE;

        const unsigned int result = forEachChunk(
            transfer, bytes, [&](unsigned long long offset, unsigned int piece) -> unsigned int {
                const auto address = static_cast<unsigned int>(packet->address + offset);
                const unsigned int read = PXST_ReadBlock(handle, address, readBack.get(), piece);
                if (read != PXST_RESULT_OK)
                    return read;
                const unsigned int* expected = packet->words + offset / 4u;
                for (unsigned int i = 0; i < piece / 4u; ++i) {
                    if (readBack[i] != expected[i]) {
                        if (failAddress != nullptr)
                            *failAddress = address + 4u * i;
                        return PXST_RESULT_MISMATCH;
                    }
                }
                return PXST_RESULT_OK;
            });
        if (result != PXST_RESULT_OK)
            return result;
    }
}

unsigned int loadLod(int handle, const char* path, int verify, unsigned int* failAddress,
                     Transfer& transfer)
{
    if (const unsigned int result = checkHandle(handle))
        return result;
    LodFilePtr file(LOD_Open(path));
    if (!file)
        return PXST_RESULT_FILE;
    if (transfer.reportsProgress())
        transfer.total = countTransferBytes(path) * (verify != 0 ? 2u : 1u);

    for (;;) {
        LodPacket* next = nullptr;
        if (LOD_NextLodPacket(file.get(), &next) != 0)
            return PXST_RESULT_LOD_FORMAT;
        if (next == nullptr)
            break;
        LodPacketPtr packet(next);
        if (packet->address == SkippedAddress)
            continue;
        const unsigned int result = forEachChunk(
            transfer, packetBytes(*packet), [&](unsigned long long offset, unsigned int piece) {
                return PXST_WriteBlock(handle, static_cast<unsigned int>(packet->address + offset),
                                       packet->words + offset / 4u, piece);
            });
        if (result != PXST_RESULT_OK)
            return result;
    }
    file.reset();
    if (verify == 0)
        return PXST_RESULT_OK;
    return verifyLod(handle, path, failAddress, transfer, false);
}

unsigned int dumpLod(int handle, const char* path, unsigned int address, unsigned int wordCount,
                     int binary, Transfer& transfer)
{
    if (const unsigned int result = checkHandle(handle))
        return result;
    // A LOD packet counts its words in a signed 32-bit field.
    if (wordCount > unsigned(INT_MAX))
        return PXST_RESULT_TIMEOUT;
    FilePtr file(std::fopen(path, "wb"));
    if (!file)
        return PXST_RESULT_FILE;
    LodPacketPtr packet(LOD_AllocateLodPacket(address, wordCount));
    if (!packet)
        return PXST_RESULT_FILE;

    const unsigned long long bytes = packetBytes(*packet);
    transfer.total = bytes;
    const unsigned int result =
        forEachChunk(transfer, bytes, [&](unsigned long long offset, unsigned int piece) {
            return PXST_ReadBlock(handle, static_cast<unsigned int>(address + offset),
                                  packet->words + offset / 4u, piece);
        });
    if (result != PXST_RESULT_OK)
        return result;
    if (binary != 0)
        LOD_DumpPacketBinaryFormat(file.get(), packet.get());
    else
        LOD_DumpPacketLodFormat(file.get(), packet.get());
    return PXST_RESULT_OK;
}

} // namespace

extern "C" unsigned int PXST_LoadLod(int handle, const char* path, int verify,
                                     unsigned int* failAddress)
{
    Transfer transfer = Transfer::plain();
    return loadLod(handle, path, verify, failAddress, transfer);
}

extern "C" unsigned int PXST_VerifyLod(int handle, const char* path, unsigned int* failAddress)
{
    Transfer transfer = Transfer::plain();
    return verifyLod(handle, path, failAddress, transfer, true);
}

extern "C" unsigned int PXST_DumpLod(int handle, const char* path, unsigned int address,
                                     unsigned int wordCount, int binary)
{
    Transfer transfer = Transfer::plain();
    return dumpLod(handle, path, address, wordCount, binary, transfer);
}

extern "C" unsigned int PXST_LoadLodProgress(int handle, const char* path, int verify,
                                             unsigned int* failAddress,
                                             PXST_ProgressCallback callback, void* userData)
{
    Transfer transfer = Transfer::withProgress(callback, userData);
    return loadLod(handle, path, verify, failAddress, transfer);
}

extern "C" unsigned int PXST_VerifyLodProgress(int handle, const char* path,
                                               unsigned int* failAddress,
                                               PXST_ProgressCallback callback, void* userData)
{
    Transfer transfer = Transfer::withProgress(callback, userData);
    return verifyLod(handle, path, failAddress, transfer, true);
}

extern "C" unsigned int PXST_DumpLodProgress(int handle, const char* path, unsigned int address,
                                             unsigned int wordCount, int binary,
                                             PXST_ProgressCallback callback, void* userData)
{
    Transfer transfer = Transfer::withProgress(callback, userData);
    return dumpLod(handle, path, address, wordCount, binary, transfer);
}
