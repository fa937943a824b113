// The C interface against the real simulator, run with --verbose so that its log shows every
// memory access a call makes, and against a scripted fake server for status bytes and failing
// reads. One forwarding check per family of calls; the interface's own logic (handle checks,
// masked reads, LOD transfers, progress) in full. The cases that open by serial port number use
// their own in 100..149 (TCP 7800..7849), the area of these tests.

#include "FakeServer.h"
#include "RefusedPort.h"
#include "SimulatorProcess.h"

#include "pellix/api/PXLLibraryApi.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXRanges_p.h"

#include <QFile>
#include <QRegularExpression>
#include <QSemaphore>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

// Writes `lines`, each ended by a line feed, to `path`; returns the path in local encoding.
QByteArray writeLines(const QString& path, const QStringList& lines)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(lines.join('\n').toLatin1() + '\n');
    return QFile::encodeName(path);
}

QByteArray readFile(const QByteArray& path)
{
    QFile file(QFile::decodeName(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// A read as the simulator logs it: a plain read of 1, 2 or 4 bytes or a block read of any
// other size. (It logs a write of any size as "write 0x<address>, <size> byte(s)".)
QString read(quint32 address, quint32 size)
{
    if (size == 1 || size == 2 || size == 4)
        return QString::asprintf("read%u 0x%08X", size * 8, address);
    return QString::asprintf("block read 0x%08X, %u byte(s)", address, size);
}

std::vector<quint32> sequence(int count, quint32 seed)
{
    std::vector<quint32> words(static_cast<size_t>(count));
    std::generate(words.begin(), words.end(), [&seed] { return seed++ * 2654435761u; });
    return words;
}

const auto release = [](void* semaphore) { static_cast<QSemaphore*>(semaphore)->release(); };

// The packets of mixedImage() that a transfer moves, as (address, words): longer than a
// request at addresses 1 and 2 past a word boundary, of exactly one and two requests, one that
// crosses a 64 KiB progress chunk, an empty one.
constexpr std::pair<quint32, int> MixedPackets[] = {
    {0x1001, 8195}, {0x100002, 16384 + 5}, {0x200000, 8192}, {0x300000, 0}, {0x400000, 3}};

// A file of those packets after a skipped one, read by a transfer while it sends. The skipped
// packet is long: the transfer must read past all of its words to find the next packet. (The
// reader itself on lines that are not eight plain digits inside long packets and on comments
// there: the LOD fuzz target, whose replay runs its corpus, and tests/lod.)
QStringList mixedImage()
{
    QStringList lines{"# mixed", "@F0000000"};
    for (quint32 word : sequence(10000, 0))
        lines << QString::asprintf("%08X", word);
    for (const auto& [address, words] : MixedPackets) {
        lines << QString::asprintf("@%08X", address);
        for (quint32 word : sequence(words, address))
            lines << QString::asprintf("%08X", word);
    }
    return lines;
}

// The requests that block calls of at most `chunk` bytes over each packet of MixedPackets make,
// cut as the connection cuts a block; up to the packet at `lastAddress`.
QStringList blockCalls(bool writes, unsigned int chunk, quint32 lastAddress = 0xFFFFFFFF)
{
    QStringList out;
    const auto note = [&](quint32 at, int, quint32 n) {
        out << (writes ? QString::asprintf("write 0x%08X, %u byte(s)", at, n) : read(at, n));
        return 0u;
    };
    for (const auto& [address, words] : MixedPackets) {
        for (int offset = 0; offset < 4 * words; offset += int(chunk)) {
            const int size = std::min(int(chunk), 4 * words - offset);
            const quint32 at = address + quint32(offset);
            writes ? pxrange::forEachWrite(at, size, note) : pxrange::forEachRead(at, size, note);
        }
        if (address == lastAddress)
            break;
    }
    return out;
}

using Steps = std::vector<unsigned long long>;

// Progress as (done, total) pairs; asks to stop once `stopAfter` pairs came (never when 0).
struct Progress
{
    Steps steps;
    size_t stopAfter = 0;
};

int logProgress(unsigned long long done, unsigned long long total, void* userData)
{
    auto* progress = static_cast<Progress*>(userData);
    progress->steps.insert(progress->steps.end(), {done, total});
    return progress->steps.size() == 2 * progress->stopAfter ? 1 : 0;
}

// Each case has a simulator of its own and a handle to it.
class Api : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(simulator.isListening() && dir.isValid());
        ASSERT_EQ(PXST_OpenSocket("127.0.0.1", simulator.port(), &handle), PXST_RESULT_OK);
    }
    void TearDown() override { PXST_Close(handle); }
    QByteArray path(const char* name) const { return QFile::encodeName(dir.filePath(name)); }

    // The requests the simulator logged since the last call, without its connection notes.
    QStringList requests()
    {
        const QString log = simulator.errorOutput();
        static const QRegularExpression request(
            QStringLiteral("^pellix: client \\d+: (?!connected|disconnected)(.*)$"),
            QRegularExpression::MultilineOption);
        QStringList out;
        for (auto it = request.globalMatch(log, seen); it.hasNext();)
            out << it.next().captured(1);
        seen = log.size();
        return out;
    }

    SimulatorProcess simulator{{"--verbose"}};
    QTemporaryDir dir;
    int handle = 0, seen = 0;
};

} // namespace

// Failed opens (11, handle -1) are checked by tst_api_noapp, the open-fault tests in
// tests/robustness and the C header check.
TEST(ApiNoServer, ResultTexts)
{
    const std::string unknown = "unknown result code";
    std::set<std::string> texts{unknown};
    for (unsigned int code : {0, 3, 5, 6, 8, 11, 12, 13, 15, 16, 17, 19, 20, 21, 30})
        EXPECT_TRUE(texts.insert(PXST_ResultText(code)).second) << code << " shares its text";
    for (unsigned int code : {1u, 2u, 4u, 14u, 18u, 22u, 31u, 0xFFFFFFFFu})
        EXPECT_EQ(PXST_ResultText(code), unknown) << code;
}

// A bypass open, then on the handle it gave, closed again, and on others: 3 for a handle never
// given out and for a closed one, 12 for a known handle whose connection lost its socket,
// before anything else; out parameters stay as they were, except the verify fail address,
// which is zeroed. One call per family, and every call that resolves the handle on a path of
// its own (the LOD transfers, the masked read, the pointer handle).
// (The ping by the name PXST_PingPellix, for a handle never given out: the C header check.)
TEST_F(Api, OpenPingsAndCallsCheckTheHandleAndTheSocketFirst)
{
    const QByteArray lod = writeLines(dir.filePath("ok.lod"), {"@1000", "1"}),
                     dump = path("dump.bin");
    std::vector<unsigned char> buffer(16, 0xEE), mask(16, 0xFF);
    unsigned int word = 77, fail = 77;
    int length = 0, closed = 0, unplugged = 0;

    // clang-format off
    const std::pair<const char*, std::function<unsigned int(int)>> calls[] = {
        {"PellixStatus", [&](int h) { return PXST_PellixStatus(h, &word); }},
        {"ForcePellixReconnection", [](int h) { return PXST_ForcePellixReconnection(&h); }},
        {"WaitEvent", [&](int h) { return PXST_WaitEvent(h, &word, 10); }},
        {"BypassGetData", [&](int h) { return PXST_BypassGetData(h, buffer.data(), 16, &length); }},
        {"Read32", [&](int h) { return PXST_Read32(h, 0x1000, &word); }},
        {"ReadBlockMasked", [&](int h) { return PXST_ReadBlockMasked(h, 0x1000, buffer.data(), 16, mask.data()); }},
        {"LoadLod", [&](int h) { return PXST_LoadLod(h, lod, 1, &word); }},
        {"VerifyLod", [&](int h) { return PXST_VerifyLod(h, lod, &fail); }},
        {"DumpLodProgress", [&](int h) { return PXST_DumpLodProgress(h, dump, 0x1000, 4, 1, nullptr, nullptr); }},
    };
    // clang-format on

    // PXST_BypassOpen goes through PXST_Open, which, unlike PXST_OpenSocket (the fixture's
    // open), pings the server it reached (here a forced one); then it subscribes. The flow id a
    // packet is sent on is cut to 8 bits: 0x122 goes out on flow 0x22.
    unsigned char ids[] = {0x21, 0x22}, hi[] = {'h', 'i'}, packet[16] = {};
    qputenv("FORCED_PELLIX_HOST", "127.0.0.1");
    qputenv("FORCED_PELLIX_PORT", QByteArray::number(simulator.port()));
    ASSERT_EQ(PXST_BypassOpen(140, -1, PXL_FLOW_NONE, ids, 2, &closed), PXST_RESULT_OK);
    qunsetenv("FORCED_PELLIX_HOST");
    qunsetenv("FORCED_PELLIX_PORT");
    QSemaphore arrived;
    ASSERT_EQ(PXST_BypassSetCallback(closed, release, &arrived), PXST_RESULT_OK);
    for (int flowId : {0x21, 0x122})
        ASSERT_EQ(PXST_BypassSendPacket(closed, flowId, hi, 2), PXST_RESULT_OK);
    ASSERT_TRUE(arrived.tryAcquire(2, 5000));
    EXPECT_EQ(requests().mid(0, 2), (QStringList{"ping", "bypass flow ids: 2 id(s)"}));
    // Whole packets in arrival order.
    for (const char id : {0x21, 0x22}) {
        ASSERT_EQ(PXST_BypassGetData(closed, packet, 16, &length), PXST_RESULT_OK);
        EXPECT_EQ(QByteArray(reinterpret_cast<char*>(packet), length),
                  QByteArray("\xAD\x00\x03", 3) + id + "hi" + char(id ^ 'h' ^ 'i'));
    }
    ASSERT_EQ(PXST_Close(closed), PXST_RESULT_OK);
    ASSERT_EQ(PXST_OpenSocket("127.0.0.1", simulator.port(), &unplugged), PXST_RESULT_OK);
    // The socket can go missing only through a failed reopen of the C++ object.
    ASSERT_FALSE(PXConnection::GetById(unplugged)->open("127.0.0.1", refusedPort()));
    requests();

    for (const auto& [name, call] : calls) {
        for (int h : {0, -1, 987654, closed, unplugged}) {
            fail = 77;
            EXPECT_EQ(call(h),
                      h == unplugged ? PXST_RESULT_NOT_CONNECTED : PXST_RESULT_UNKNOWN_HANDLE)
                << name << " " << h;
            EXPECT_EQ(fail, std::string(name) == "VerifyLod" ? 0u : 77u) << name;
        }
    }
    EXPECT_EQ(word, 77u);
    EXPECT_EQ(buffer[0], 0xEE);
    // Nothing reached the server, and the dump never created its file.
    EXPECT_EQ(requests(), QStringList());
    EXPECT_FALSE(QFile::exists(QFile::decodeName(dump)));

    for (int h : {unplugged, closed, 987654})
        EXPECT_EQ(PXST_HandleStatus(h), 0) << h;
    EXPECT_EQ(PXST_Close(unplugged), PXST_RESULT_OK);

    // The fixture's handle outlives a forced reconnection and the server.
    const int copy = handle;
    EXPECT_EQ(PXST_ForcePellixReconnection(&handle), PXST_RESULT_OK);
    EXPECT_EQ(handle, copy) << "a forced reconnection keeps the handle";
    // The server leaves on PXST_KillPellix; the handle's socket stays set.
    EXPECT_EQ(PXST_KillPellix(handle), PXST_RESULT_OK);
    EXPECT_EQ(simulator.waitForExit(), 0);
    EXPECT_EQ(PXST_HandleStatus(handle), 1);
}

// Each event written to the event register is announced; a flush empties the queue. (Waiting
// for and taking events through the C interface: the Python tests and pxtool's events
// follower.) Values written are cut to the width of the access (every width read and written:
// the Python tests and pxtool's CommandsPrintTheirResults); the batch read; a masked read uses
// the widest access each run allows.
TEST_F(Api, EventsAreAnnouncedAndMemoryCallsCutValuesAndReadMasked)
{
    unsigned int word = 0;
    unsigned char internal = 0;
    QSemaphore announced;
    ASSERT_EQ(PXST_EventSetCallback(handle, release, &announced), PXST_RESULT_OK);
    ASSERT_EQ(PXST_EnableEvents(handle, 1), PXST_RESULT_OK);
    for (unsigned int value : {0x12345678u, 0x9ABCu, 7u})
        ASSERT_EQ(PXST_Write32(handle, 0xFFFFFF00u, value), PXST_RESULT_OK);
    EXPECT_TRUE(announced.tryAcquire(3, 5000));
    EXPECT_EQ(PXST_FlushEvents(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_PopEvent(handle, &word), PXST_RESULT_NO_EVENT);

    ASSERT_EQ(PXST_Write16(handle, 0x20004, 0x1BEEF), PXST_RESULT_OK);
    ASSERT_EQ(PXST_Write8(handle, 0x20006, 0x1A5), PXST_RESULT_OK);
    ASSERT_EQ(PXST_WriteInternal(handle, 0x40, 0x15A), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Read32(handle, 0x20004, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 0x00A5BEEFu);
    EXPECT_EQ(PXST_ReadInternal(handle, 0x40, &internal), PXST_RESULT_OK);
    EXPECT_EQ(internal, 0x5A);

    std::vector<quint32> pattern = sequence(12000, 3);
    const auto* memory = reinterpret_cast<const unsigned char*>(pattern.data());
    ASSERT_EQ(PXST_WriteBlock(handle, 0x1000, pattern.data(), 48000), PXST_RESULT_OK);
    // The batch read (a call of its own beside PXST_ReadBlock).
    std::vector<unsigned char> bytes(999);
    ASSERT_EQ(PXST_BatchRead(handle, 0x1001, bytes.data(), 999), PXST_RESULT_OK);
    EXPECT_EQ(std::memcmp(bytes.data(), memory + 1, 999), 0);
    requests();
    // An unselected byte (never read, 0 in the buffer) after the first, then a run longer than a
    // block read may be, read as one request.
    std::vector<unsigned char> mask(40004, 0xFF), buffer(mask.size() + 1, 0xEE);
    mask[1] = 0x00;
    EXPECT_EQ(PXST_ReadBlockMasked(handle, 0x1000, &buffer[0], 40004, &mask[0]), PXST_RESULT_OK);
    EXPECT_EQ(requests(), (QStringList{read(0x1000, 1), read(0x1002, 2), read(0x1004, 40000)}));
    for (size_t i = 0; i < mask.size(); ++i)
        ASSERT_EQ(buffer[i], i == 1 ? 0 : memory[i]) << i;
    EXPECT_EQ(buffer[mask.size()], 0xEE) << "wrote past the buffer";
}

// LOD transfers one after another on one simulator: result, fail address, the accesses in
// order, and what a dump wrote; a load leaves its file alone (a verification too, which shows
// in the transfers that follow each other over the mixed file below, which also has the
// skipped packet at 0xF0000000). The fail address is zeroed before anything else: the handle
// checks.
TEST_F(Api, LodTransfersSendWhatBlockCallsWouldAndReportProgress)
{
    const QStringList lines{"# stray", "@3000", "12345678", "9ABCDEF0", "", "3"};
    const QByteArray stray = writeLines(dir.filePath("stray.lod"), lines);
    const QByteArray missing = path("missing/x"), text = path("dump.lod"), raw = path("dump.bin");
    unsigned int fail = 77;
    // A data line outside a packet: a load writes the packets before it (and a verify, below,
    // reads them).
    EXPECT_EQ(PXST_LoadLod(handle, stray, 0, &fail), PXST_RESULT_LOD_FORMAT);
    EXPECT_EQ(requests(), QStringList{"write 0x00003000, 8 byte(s)"});
    EXPECT_EQ(fail, 77u) << "a load without verification leaves the fail address alone";
    EXPECT_EQ(readFile(stray), lines.join('\n').toLatin1() + '\n');
    // A missing file, a missing folder for a dump.
    EXPECT_EQ(PXST_VerifyLod(handle, missing, &fail), PXST_RESULT_FILE);
    EXPECT_EQ(PXST_DumpLod(handle, missing, 0x3000, 2, 0), PXST_RESULT_FILE);
    EXPECT_EQ(requests(), QStringList());
    EXPECT_EQ(PXST_VerifyLod(handle, stray, &fail), PXST_RESULT_LOD_FORMAT);
    EXPECT_EQ(requests(), QStringList{read(0x3000, 8)});
    // The last (here the only) call of a dump reports its progress too.
    Progress dumped;
    EXPECT_EQ(PXST_DumpLodProgress(handle, text, 0x3000, 2, 0, logProgress, &dumped),
              PXST_RESULT_OK);
    EXPECT_EQ(dumped.steps, (Steps{8, 8}));
    EXPECT_EQ(PXST_DumpLod(handle, raw, 0x3000, 2, 1), PXST_RESULT_OK);
    EXPECT_EQ(requests(), (QStringList{read(0x3000, 8), read(0x3000, 8)}));
    EXPECT_EQ(readFile(text), QByteArray("@00003000\n12345678\n9ABCDEF0\n"));
    EXPECT_EQ(readFile(raw), QByteArray::fromHex("78563412F0DEBC9A"));

    // Over the mixed file, progress comes after every block call of at most 64 KiB as (done,
    // total) pairs: an empty packet reports once more, a skipped one never, and a load's
    // verification goes on from the written total. A callback that asks to stop ends each
    // transfer after the call just made; a cancelled dump leaves an empty file. (Here first,
    // while the memory still matches the file.)
    const QByteArray file = writeLines(dir.filePath("mixed.lod"), mixedImage());
    const QByteArray dump = path("cancelled.bin");
    // A verification of its own counts its total from the file, a dump its words: 50000 words
    // here, 200000 bytes. (The cut into calls: Ranges in tests/protocol.)
    const Steps stopped[] = {{32780, 262232, 98316, 262232},
                             {32780, 131116, 98316, 131116},
                             {65536, 200000, 131072, 200000}};
    for (int transfer = 0; transfer < 3; ++transfer) {
        Progress stop{{}, 2};
        EXPECT_EQ(transfer == 0 ? PXST_LoadLodProgress(handle, file, 1, &fail, logProgress, &stop)
                  : transfer == 1
                      ? PXST_VerifyLodProgress(handle, file, &fail, logProgress, &stop)
                      : PXST_DumpLodProgress(handle, dump, 0x100000, 50000, 0, logProgress, &stop),
                  PXST_RESULT_CANCELLED);
        EXPECT_EQ(stop.steps, stopped[transfer]) << transfer;
    }
    EXPECT_EQ(readFile(dump).size(), 0);

    // A load and a verification send exactly what block calls over whole packets would, with
    // or without progress (whose calls are 64 KiB), and a difference found in a request's data
    // still lets its block call read to its end. The packets' calls with progress: 32780 bytes;
    // 65536 and 20; 32768; 0; 12.
    const Steps loaded = {32780,  262232, 98316,  262232, 98336,  262232, 131104, 262232,
                          131104, 262232, 131116, 262232, 163896, 262232, 229432, 262232,
                          229452, 262232, 262220, 262232, 262220, 262232, 262232, 262232};
    requests();
    for (const bool progress : {false, true}) {
        SCOPED_TRACE(progress ? "with progress" : "plain");
        const unsigned int chunk = progress ? 65536 : 1u << 30;
        Progress log;
        ASSERT_EQ(progress ? PXST_LoadLodProgress(handle, file, 1, &fail, logProgress, &log)
                           : PXST_LoadLod(handle, file, 1, &fail),
                  PXST_RESULT_OK);
        EXPECT_EQ(fail, 0u);
        EXPECT_EQ(requests(), blockCalls(true, chunk) + blockCalls(false, chunk));
        EXPECT_EQ(log.steps, progress ? loaded : Steps());

        // Word 6000 of the packet at 0x00001001 differs in its last byte.
        const quint32 differing = 0x1001 + 4 * 6000;
        ASSERT_EQ(PXST_Write8(handle, differing + 3, 0x5A), PXST_RESULT_OK);
        requests();
        EXPECT_EQ(progress ? PXST_VerifyLodProgress(handle, file, &fail, nullptr, nullptr)
                           : PXST_VerifyLod(handle, file, &fail),
                  PXST_RESULT_MISMATCH);
        EXPECT_EQ(fail, differing);
        EXPECT_EQ(requests(), blockCalls(false, chunk, 0x1001));
    }
}

// A server that answers status requests with a chosen byte (none when negative) and every
// other request with read data for another address, which fails a read at once.
TEST(ApiFake, StatusBytesAndFailingReads)
{
    FakeServer fake;
    std::atomic<int> status{0};
    fake.setResponder([&status](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) != pxproto::request::Status)
            server.send(pxproto::readData(0xDEAD0000, "x", 1), client);
        else if (status >= 0)
            server.send(pxproto::statusReply(static_cast<unsigned char>(status)), client);
    });
    int handle = 0, length = 0;
    ASSERT_EQ(PXST_OpenSocket("127.0.0.1", fake.port(), &handle), PXST_RESULT_OK);
    for (int byte : {5, 1, 0xFF, 0, -1}) {
        status = byte;
        unsigned int up = 77;
        EXPECT_EQ(PXST_PellixStatus(handle, &up), byte < 0 ? PXST_RESULT_TIMEOUT : PXST_RESULT_OK);
        EXPECT_EQ(up, byte > 0 ? 1u : 0u) << byte;
    }
    // A failing read ends each call with its code: the masked read's buffer is zeroed first,
    // the verify's fail address stays 0, the dump leaves an empty file.
    unsigned char mask[] = {0x00, 0xFF, 0xFF}, buffer[] = {1, 2, 3};
    EXPECT_EQ(PXST_ReadBlockMasked(handle, 0x2000, buffer, 3, mask), PXST_RESULT_TIMEOUT);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(buffer), 3), QByteArray(3, 0));
    QTemporaryDir dir;
    const QByteArray lod = writeLines(dir.filePath("x.lod"), {"@2000", "1"});
    unsigned int fail = 77, words[2] = {};
    EXPECT_EQ(PXST_VerifyLod(handle, lod, &fail), PXST_RESULT_TIMEOUT);
    EXPECT_EQ(fail, 0u);
    EXPECT_EQ(PXST_DumpLod(handle, lod, 0x2000, 4, 0), PXST_RESULT_TIMEOUT);
    EXPECT_EQ(readFile(lod), QByteArray()) << "a failed dump leaves it empty";
    // A wait takes a packet still to come, and gives up with 8 at its time-out.
    unsigned char id = 0x21, packet[8];
    ASSERT_EQ(PXST_BypassEnable(handle, &id, 1), PXST_RESULT_OK);
    fake.sendLater(pxproto::bypassFrame(pxproto::debugPacket(0x21, "a", 1)), 100);
    EXPECT_EQ(PXST_BypassWaitPacket(handle, &id, packet, 8, &length, 5000), PXST_RESULT_OK);
    EXPECT_EQ(PXST_BypassWaitPacket(handle, &id, packet, 8, &length, 50), PXST_RESULT_NO_PACKET);

    // Sizes the interface takes but no request carries: refused before anything is sent or
    // touched (the buffers here are far smaller than the sizes named).
    fake.clearReceived();
    for (unsigned int size : {0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(PXST_ReadBlock(handle, 0, words, size), PXST_RESULT_TIMEOUT);
        EXPECT_EQ(PXST_WriteBlock(handle, 0, words, size), PXST_RESULT_TIMEOUT);
        EXPECT_EQ(PXST_BatchRead(handle, 0, buffer, size), PXST_RESULT_TIMEOUT);
        EXPECT_EQ(PXST_DumpLod(handle, lod, 0, size, 1), PXST_RESULT_TIMEOUT);
    }
    // A flow id list no request carries opens nothing (the lists and packets themselves:
    // checkSizes in tests/support, run by the connection tests).
    for (int n : {-8, -5, -1, 65532, INT_MIN}) {
        int opened = 0;
        EXPECT_EQ(PXST_BypassOpen(149, -1, 0, buffer, n, &opened), PXST_RESULT_PACKET_TOO_LARGE);
        EXPECT_EQ(opened, -1);
    }
    // A flow mode outside the named ones is carried unchanged.
    EXPECT_EQ(PXST_ChangeFlowMode(handle, static_cast<PXLFlowMode>(0x12345678u)), PXST_RESULT_OK);
    EXPECT_EQ(PXST_ChangeBaudRate(handle, 115200), PXST_RESULT_OK);
    ASSERT_TRUE(fake.waitForFrames(2));
    EXPECT_EQ(fake.frames(),
              (QList<QByteArray>{pxproto::setFlowMode(0x12345678u), pxproto::setBaudRate(115200)}));
    EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
}
