// LOD download, verify and dump over a C interface handle, on the caller's thread. Every
// block call (a packet, cut at 1 GiB, or at 64 KiB for the progress variants) resolves the
// handle again and is cut into requests as PXST_WriteBlock and PXST_ReadBlock cut it. A load
// or verification reads a packet's text while the transfer runs: each request goes out as
// soon as its words are known, and the words after them are read while the server answers.
// A dump reads its range with PXST_ReadBlock.

#include "pellix/api/PXLLibraryApi.h"

#include "pellix/api/PXApiFrame_p.h"
#include "pellix/connection/PXWhileWaiting_p.h"
#include "pellix/lod/LODFileLoader.h"
#include "pellix/lod/LODReader_p.h"
#include "pellix/protocol/PXRanges_p.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
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

// The words of the packet being transferred, read from the file ahead of the transfer: the
// packet's bytes from m_base to m_end stand in the window, and m_ended tells whether the packet
// ends at m_end. Offsets count bytes from the packet's start.
class PacketWindow
{
public:
    explicit PacketWindow(pxlod::PacketReader& reader)
        : m_reader(reader), m_words(new (std::nothrow) uint32_t[Capacity])
    {}
    bool isReady() const { return m_words != nullptr; }

    // Starts on the packet the reader has just found.
    void restart()
    {
        m_base = m_end = 0;
        m_ended = false;
    }

    // Reads on until more than one request's worth of bytes stands after `ahead`, or up to the
    // end of the packet, keeping the bytes from `keep` (at most `ahead`) on.
    void fill(uint64_t keep, uint64_t ahead)
    {
        const uint64_t wanted = ahead + pxproto::MaxBlockChunk + 1;
        while (!m_ended && m_end < wanted) {
            if (m_end - m_base == Capacity * 4u) {
                const uint64_t from = keep & ~uint64_t(3);
                std::memmove(m_words.get(), data(from), size_t(m_end - from));
                m_base = from;
            }
            const size_t room = Capacity - size_t(m_end - m_base) / 4u;
            const size_t count = std::min<uint64_t>(room, (wanted - m_end + 3) / 4u);
            const size_t taken = m_reader.takeWords(m_words.get() + (m_end - m_base) / 4u, count);
            m_end += 4u * taken;
            m_ended = taken < count;
        }
    }

    // The bytes from `offset` up to `limit` or the end of the packet, whichever comes first,
    // after fill(offset, offset): exact, or a lower bound above a request's worth (which cuts
    // requests the same way).
    uint64_t remaining(uint64_t offset, uint64_t limit) const
    {
        return std::min(m_end, limit) - offset;
    }
    // Whether the packet goes on after `offset`, after fill(offset, offset).
    bool goesOn(uint64_t offset) const { return m_end > offset; }

    unsigned char* data(uint64_t offset) const
    {
        return reinterpret_cast<unsigned char*>(m_words.get()) + (offset - m_base);
    }

private:
    // Three requests' worth and more: what a request uses, what is read ahead of it, and room
    // to read on before the window moves.
    static constexpr size_t Capacity = 64 * 1024;

    pxlod::PacketReader& m_reader;
    std::unique_ptr<uint32_t[]> m_words;
    uint64_t m_base = 0;
    uint64_t m_end = 0;
    bool m_ended = false;
};

// The block calls over the packet just found: one per transfer.chunk bytes (at least one, so
// that an empty packet costs one), each resolving the handle and calling
// `request(connection, offset, left)` until its bytes are done (one request at `offset` of at
// most `left` bytes, moving `offset` past it; non-zero ends the transfer with that), then
// `callDone()` (non-zero ends it too), then telling the progress.
template <typename Request, typename CallDone>
unsigned int forEachBlockCall(int handle, PacketWindow& window, Transfer& transfer,
                              Request&& request, CallDone&& callDone)
{
    uint64_t offset = 0;
    window.fill(0, 0);
    do {
        const uint64_t start = offset;
        const uint64_t limit = offset + transfer.chunk;
        const unsigned int result = pxapi::withConnection(handle, [&](PXConnection& c) {
            while (const uint64_t left = window.remaining(offset, limit))
                if (const unsigned int failed = request(c, offset, left))
                    return failed;
            return unsigned(PXST_RESULT_OK);
        });
        if (result != PXST_RESULT_OK)
            return result;
        if (const unsigned int done = callDone())
            return done;
        if (!transfer.advance(unsigned(offset - start)))
            return PXST_RESULT_CANCELLED;
    } while (window.goesOn(offset));
    return PXST_RESULT_OK;
}

// Writes the packet just found at `address`.
unsigned int writePacket(int handle, PacketWindow& window, uint32_t address, Transfer& transfer)
{
    const auto write = [&](PXConnection& c, uint64_t& offset, uint64_t left) -> unsigned int {
        const int size = pxrange::nextWriteSize(qint64(left));
        auto readAhead = [&] { window.fill(offset + size, offset + size); };
        const pxconn::WhileWaiting meanwhile(readAhead);
        if (const unsigned int written =
                c.genericWrite(address + uint32_t(offset), false, window.data(offset), size))
            return written;
        offset += unsigned(size);
        window.fill(offset, offset);
        return PXST_RESULT_OK;
    };
    return forEachBlockCall(handle, window, transfer, write,
                            [] { return unsigned(PXST_RESULT_OK); });
}

// Compares the packet just found at `address` with the target's memory. A block call reads
// all its bytes before a difference counts.
unsigned int verifyPacket(int handle, PacketWindow& window, uint32_t address, Transfer& transfer,
                          unsigned char* readBack, unsigned int* failAddress)
{
    bool differs = false;
    uint64_t firstDifference = 0;
    const auto read = [&](PXConnection& c, uint64_t& offset, uint64_t left) -> unsigned int {
        const uint32_t at = address + uint32_t(offset);
        const int size = pxrange::nextReadSize(at, qint64(left));
        auto readAhead = [&] { window.fill(offset, offset + size); };
        const pxconn::WhileWaiting meanwhile(readAhead);
        if (const unsigned int result = c.genericRead(at, false, readBack, size))
            return result;
        window.fill(offset, offset + size);
        const unsigned char* expected = window.data(offset);
        if (!differs && std::memcmp(readBack, expected, size_t(size)) != 0) {
            differs = true;
            firstDifference = offset;
            while (readBack[firstDifference - offset] == expected[firstDifference - offset])
                ++firstDifference;
        }
        offset += unsigned(size);
        return PXST_RESULT_OK;
    };
    return forEachBlockCall(handle, window, transfer, read, [&]() -> unsigned int {
        if (!differs)
            return PXST_RESULT_OK;
        if (failAddress != nullptr)
            *failAddress = address + uint32_t(firstDifference & ~uint64_t(3));
        return PXST_RESULT_MISMATCH;
    });
}

// Calls `packet(address)` for every packet of the file that is not skipped, in file order,
// with the window on that packet; stops at the first non-zero result. 15 at a data line
// outside a packet.
template <typename Packet>
unsigned int forEachPacket(pxlod::PacketReader& file, PacketWindow& window, Packet&& packet)
{
    for (;;) {
        uint32_t address = 0;
        bool found = false;
        if (file.nextPacket(&address, &found) != 0)
            return PXST_RESULT_LOD_FORMAT;
        if (!found)
            return PXST_RESULT_OK;
        if (address == SkippedAddress)
            continue;
        window.restart();
        if (const unsigned int result = packet(address))
            return result;
    }
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
    pxlod::PacketReader file(path);
    if (!file.isOpen())
        return PXST_RESULT_FILE;
    PacketWindow window(file);
    std::unique_ptr<unsigned char[]> readBack(
        new (std::nothrow) unsigned char[pxproto::MaxBlockChunk]);
    if (!window.isReady() || !readBack)
        return PXST_RESULT_FILE;
    if (countTotal && transfer.reportsProgress())
        transfer.total = countTransferBytes(path);
    return forEachPacket(file, window, [&](uint32_t address) {
        return verifyPacket(handle, window, address, transfer, readBack.get(), failAddress);
    });
}

unsigned int loadLod(int handle, const char* path, int verify, unsigned int* failAddress,
                     Transfer& transfer)
{
    if (const unsigned int result = checkHandle(handle))
        return result;
    {
        pxlod::PacketReader file(path);
        if (!file.isOpen())
            return PXST_RESULT_FILE;
        PacketWindow window(file);
        if (!window.isReady())
            return PXST_RESULT_FILE;
        if (transfer.reportsProgress())
            transfer.total = countTransferBytes(path) * (verify != 0 ? 2u : 1u);
        const unsigned int result = forEachPacket(file, window, [&](uint32_t address) {
            return writePacket(handle, window, address, transfer);
        });
        if (result != PXST_RESULT_OK)
            return result;
    }
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
