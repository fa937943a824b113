// The C interface end to end with the real simulator, which every case starts through
// PXST_Open itself (from this binary's folder, where the build puts "pellix") and stops with
// PXST_KillPellix. Each case uses its own serial port in 120..139 so that cases can run in
// parallel.

#include "pellix/api/PXLLibraryApi.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSemaphore>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <vector>

namespace {

constexpr int BasePort = 7700;

bool waitUntilNothingListens(quint16 port, int timeoutMs = 10000)
{
    QElapsedTimer timer;
    timer.start();
    while (!timer.hasExpired(timeoutMs)) {
        QTcpSocket probe;
        probe.connectToHost(QStringLiteral("127.0.0.1"), port);
        if (!probe.waitForConnected(1000))
            return true;
        probe.abort();
        QThread::msleep(20);
    }
    return false;
}

class ApiSimulator : public ::testing::Test
{
protected:
    void start(int serialPort)
    {
        port = serialPort;
        ASSERT_TRUE(dir.isValid());
        ASSERT_EQ(PXST_Open(serialPort, -1, PXL_FLOW_NONE, &handle), PXST_RESULT_OK);
        ASSERT_GT(handle, 0);
    }

    void TearDown() override
    {
        if (handle <= 0)
            return;
        EXPECT_EQ(PXST_KillPellix(handle), PXST_RESULT_OK);
        EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
        EXPECT_TRUE(waitUntilNothingListens(quint16(BasePort + port)));
    }

    QByteArray path(const char* name) const { return dir.filePath(name).toLocal8Bit(); }

    QByteArray writeLod(const char* name,
                        const QList<QPair<quint32, std::vector<quint32>>>& packets)
    {
        QByteArray text;
        for (const auto& [address, words] : packets) {
            text += QByteArray("@") + QByteArray::number(address, 16).rightJustified(8, '0') + '\n';
            for (quint32 word : words)
                text += QByteArray::number(word, 16).toUpper().rightJustified(8, '0') + '\n';
            text += '\n';
        }
        QFile file(dir.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
        return path(name);
    }

    QTemporaryDir dir;
    int port = 0;
    int handle = 0;
};

std::vector<quint32> sequence(int count, quint32 seed)
{
    std::vector<quint32> words(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i)
        words[size_t(i)] = (quint32(i) + seed) * 2654435761u;
    return words;
}

void releaseSemaphore(void* semaphore)
{
    static_cast<QSemaphore*>(semaphore)->release();
}

} // namespace

TEST_F(ApiSimulator, MemoryAndQueriesRoundTrip)
{
    start(120);
    EXPECT_EQ(PXST_HandleStatus(handle), 1);
    EXPECT_EQ(PXST_Ping(handle), PXST_RESULT_OK);
    unsigned int status = 77;
    EXPECT_EQ(PXST_PellixStatus(handle, &status), PXST_RESULT_OK);
    EXPECT_EQ(status, 1u);

    ASSERT_EQ(PXST_Write32(handle, 0x1000, 0x11223344), PXST_RESULT_OK);
    ASSERT_EQ(PXST_Write16(handle, 0x1004, 0xBEEF), PXST_RESULT_OK);
    ASSERT_EQ(PXST_Write8(handle, 0x1006, 0x1A5), PXST_RESULT_OK);
    unsigned int word = 0;
    unsigned short half = 0;
    unsigned char byte = 0;
    EXPECT_EQ(PXST_Read32(handle, 0x1000, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 0x11223344u);
    EXPECT_EQ(PXST_Read32(handle, 0x1002, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 0xBEEF1122u);
    EXPECT_EQ(PXST_Read16(handle, 0x1004, &half), PXST_RESULT_OK);
    EXPECT_EQ(half, 0xBEEF);
    EXPECT_EQ(PXST_Read8(handle, 0x1006, &byte), PXST_RESULT_OK);
    EXPECT_EQ(byte, 0xA5);
    ASSERT_EQ(PXST_WriteInternal(handle, 0x40, 0x5A), PXST_RESULT_OK);
    EXPECT_EQ(PXST_ReadInternal(handle, 0x40, &byte), PXST_RESULT_OK);
    EXPECT_EQ(byte, 0x5A);

    std::vector<quint32> words = sequence(25000, 1);
    ASSERT_EQ(PXST_WriteBlock(handle, 0x20000, words.data(), 100000), PXST_RESULT_OK);
    std::vector<quint32> back(words.size());
    ASSERT_EQ(PXST_ReadBlock(handle, 0x20000, back.data(), 100000), PXST_RESULT_OK);
    EXPECT_EQ(back, words);
    std::vector<unsigned char> bytes(1001);
    ASSERT_EQ(PXST_BatchRead(handle, 0x20001, bytes.data(), 1001), PXST_RESULT_OK);
    EXPECT_EQ(std::memcmp(bytes.data(), reinterpret_cast<unsigned char*>(words.data()) + 1, 1001),
              0);

    // Masked: every third byte left out reads back as 0, the others as written.
    std::vector<unsigned char> mask(1000);
    for (size_t i = 0; i < mask.size(); ++i)
        mask[i] = i % 3 == 2 ? 0x00 : 0xFF;
    std::vector<unsigned char> masked(mask.size(), 0xEE);
    ASSERT_EQ(PXST_ReadBlockMasked(handle, 0x20003, masked.data(), 1000, mask.data()),
              PXST_RESULT_OK);
    const auto* source = reinterpret_cast<unsigned char*>(words.data()) + 3;
    for (size_t i = 0; i < mask.size(); ++i)
        ASSERT_EQ(masked[i], mask[i] == 0xFF ? source[i] : 0) << i;
}

TEST_F(ApiSimulator, EventsAreQueuedAnnouncedAndSwitchedOff)
{
    start(121);
    unsigned int event = 0;
    EXPECT_EQ(PXST_PopEvent(handle, &event), PXST_RESULT_EVENTS_DISABLED);
    QSemaphore announced;
    ASSERT_EQ(PXST_EventSetCallback(handle, releaseSemaphore, &announced), PXST_RESULT_OK);
    ASSERT_EQ(PXST_EnableEvents(handle, 1), PXST_RESULT_OK);
    EXPECT_EQ(PXST_PopEvent(handle, &event), PXST_RESULT_NO_EVENT);

    ASSERT_EQ(PXST_Write32(handle, 0xFFFFFF00u, 0x12345678), PXST_RESULT_OK);
    ASSERT_EQ(PXST_Write32(handle, 0xFFFFFF00u, 0x9ABC), PXST_RESULT_OK);
    EXPECT_TRUE(announced.tryAcquire(2, 5000));
    EXPECT_EQ(PXST_WaitEvent(handle, &event, 5000), PXST_RESULT_OK);
    EXPECT_EQ(event, 0x12345678u);
    EXPECT_EQ(PXST_PopEvent(handle, &event), PXST_RESULT_OK);
    EXPECT_EQ(event, 0x9ABCu);
    EXPECT_EQ(PXST_WaitEvent(handle, &event, 50), PXST_RESULT_NO_EVENT);

    ASSERT_EQ(PXST_Write32(handle, 0xFFFFFF00u, 7), PXST_RESULT_OK);
    EXPECT_TRUE(announced.tryAcquire(1, 5000));
    EXPECT_EQ(PXST_FlushEvents(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_PopEvent(handle, &event), PXST_RESULT_NO_EVENT);
    ASSERT_EQ(PXST_EnableEvents(handle, 0), PXST_RESULT_OK);
    EXPECT_EQ(PXST_PopEvent(handle, &event), PXST_RESULT_EVENTS_DISABLED);
    EXPECT_EQ(PXST_EventSetCallback(handle, nullptr, nullptr), PXST_RESULT_OK);
}

TEST_F(ApiSimulator, BypassPacketsComeBackOnTheSubscribedFlows)
{
    port = 122;
    unsigned char ids[] = {0x21, 0x22};
    ASSERT_EQ(PXST_BypassOpen(port, -1, PXL_FLOW_NONE, ids, 2, &handle), PXST_RESULT_OK);

    unsigned char hello[] = {'h', 'e', 'l', 'l', 'o'};
    ASSERT_EQ(PXST_BypassSendPacket(handle, 0x21, hello, 5), PXST_RESULT_OK);
    unsigned char flow = 0;
    unsigned char buffer[64] = {};
    int length = 0;
    ASSERT_EQ(PXST_BypassWaitPacket(handle, &flow, buffer, 64, &length, 5000), PXST_RESULT_OK);
    EXPECT_EQ(flow, 0x21);
    const unsigned char whole[] = {0xAD, 0x00, 0x06, 0x21, 'h',
                                   'e',  'l',  'l',  'o',  0x21 ^ 'h' ^ 'e' ^ 'l' ^ 'l' ^ 'o'};
    ASSERT_EQ(length, int(sizeof whole));
    EXPECT_EQ(std::memcmp(buffer, whole, sizeof whole), 0);

    QSemaphore arrived;
    ASSERT_EQ(PXST_BypassSetCallback(handle, releaseSemaphore, &arrived), PXST_RESULT_OK);
    unsigned char hi[] = {'h', 'i'};
    ASSERT_EQ(PXST_BypassSendPacket(handle, 0x122, hi, 2), PXST_RESULT_OK);
    ASSERT_TRUE(arrived.tryAcquire(1, 5000));
    ASSERT_EQ(PXST_BypassGetPacket(handle, &flow, buffer, 64, &length), PXST_RESULT_OK);
    EXPECT_EQ(flow, 0x22);
    ASSERT_EQ(length, 3);
    EXPECT_EQ(buffer[0], 'h');
    EXPECT_EQ(buffer[1], 'i');
    EXPECT_EQ(buffer[2], 0x22 ^ 'h' ^ 'i');

    // Not subscribed: nothing comes back.
    ASSERT_EQ(PXST_BypassSendPacket(handle, 0x30, hi, 2), PXST_RESULT_OK);
    EXPECT_EQ(PXST_BypassWaitPacket(handle, &flow, buffer, 64, &length, 200),
              PXST_RESULT_NO_PACKET);

    // One delayed call for a burst.
    QSemaphore delayed;
    ASSERT_EQ(PXST_BypassSetCallback(handle, nullptr, nullptr), PXST_RESULT_OK);
    ASSERT_EQ(PXST_BypassSetDelayCallback(handle, releaseSemaphore, &delayed, 100), PXST_RESULT_OK);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(PXST_BypassSendPacket(handle, 0x21, hi, 2), PXST_RESULT_OK);
    EXPECT_TRUE(delayed.tryAcquire(1, 5000));
    ASSERT_EQ(PXST_BypassGetData(handle, buffer, 4, &length), PXST_RESULT_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 7);
    EXPECT_EQ(PXST_BypassFlushPackets(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_BypassGetData(handle, buffer, 64, &length), PXST_RESULT_NO_PACKET);
}

TEST_F(ApiSimulator, LoadWithVerifyPutsEveryPacketButTheSkippedOneIntoMemory)
{
    start(123);
    const std::vector<quint32> big = sequence(3000, 7);
    const QByteArray file =
        writeLod("image.lod", {{0x10000, big}, {0xF0000000u, {0xDEADBEEF}}, {0x30000, {1, 2, 3}}});
    unsigned int fail = 77;
    ASSERT_EQ(PXST_LoadLod(handle, file.constData(), 1, &fail), PXST_RESULT_OK);
    EXPECT_EQ(fail, 0u);
    std::vector<quint32> back(big.size());
    ASSERT_EQ(PXST_ReadBlock(handle, 0x10000, back.data(), 12000), PXST_RESULT_OK);
    EXPECT_EQ(back, big);
    unsigned int word = 1;
    ASSERT_EQ(PXST_Read32(handle, 0xF0000000u, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 0u) << "the skipped packet was written";
    ASSERT_EQ(PXST_Read32(handle, 0x30008, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 3u);
}

TEST_F(ApiSimulator, VerifyFindsTheFirstChangedWord)
{
    start(124);
    const QByteArray file = writeLod("image.lod", {{0x10000, sequence(1000, 3)}});
    ASSERT_EQ(PXST_LoadLod(handle, file.constData(), 0, nullptr), PXST_RESULT_OK);
    ASSERT_EQ(PXST_Write32(handle, 0x10000 + 4 * 700, 0), PXST_RESULT_OK);
    ASSERT_EQ(PXST_Write8(handle, 0x10000 + 4 * 500 + 3, 0x5A), PXST_RESULT_OK);
    unsigned int fail = 0;
    EXPECT_EQ(PXST_VerifyLod(handle, file.constData(), &fail), PXST_RESULT_MISMATCH);
    EXPECT_EQ(fail, 0x10000u + 4 * 500);
    EXPECT_EQ(PXST_LoadLod(handle, file.constData(), 1, &fail), PXST_RESULT_OK);
    EXPECT_EQ(fail, 0u);
}

TEST_F(ApiSimulator, DumpWritesLodTextAndRawWords)
{
    start(125);
    unsigned int words[] = {0x00000001, 0x00ABCDEF, 0xFFFFFFFF};
    ASSERT_EQ(PXST_WriteBlock(handle, 0x1000, words, sizeof words), PXST_RESULT_OK);

    const QByteArray text = path("dump.lod");
    ASSERT_EQ(PXST_DumpLod(handle, text.constData(), 0x1000, 3, 0), PXST_RESULT_OK);
    QFile lod(QString::fromLocal8Bit(text));
    ASSERT_TRUE(lod.open(QIODevice::ReadOnly));
    EXPECT_EQ(lod.readAll(), QByteArray("@00001000\n00000001\n00ABCDEF\nFFFFFFFF\n"));

    const QByteArray binary = path("dump.bin");
    ASSERT_EQ(PXST_DumpLod(handle, binary.constData(), 0x1000, 2, 1), PXST_RESULT_OK);
    QFile raw(QString::fromLocal8Bit(binary));
    ASSERT_TRUE(raw.open(QIODevice::ReadOnly));
    EXPECT_EQ(raw.readAll(), QByteArray("\x01\x00\x00\x00\xEF\xCD\xAB\x00", 8));

    // What a dump writes loads back.
    ASSERT_EQ(PXST_Write32(handle, 0x1004, 0), PXST_RESULT_OK);
    unsigned int fail = 0;
    EXPECT_EQ(PXST_VerifyLod(handle, text.constData(), &fail), PXST_RESULT_MISMATCH);
    EXPECT_EQ(fail, 0x1004u);
    EXPECT_EQ(PXST_LoadLod(handle, text.constData(), 1, &fail), PXST_RESULT_OK);
}

TEST_F(ApiSimulator, ServerControlCallsSucceedAndKillStopsTheServer)
{
    start(126);
    EXPECT_EQ(PXST_ChangeFlowMode(handle, PXL_FLOW_HARDWARE), PXST_RESULT_OK);
    EXPECT_EQ(PXST_ComBreak(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_SpecifyUSBIdPolicy(handle, 0x1234, 0xABCD), PXST_RESULT_OK);
    EXPECT_EQ(PXST_PellixClean(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_PellixFlushFifos(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_LaunchTargetAutoBauding(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_ForcePellixReconnection(&handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Ping(handle), PXST_RESULT_OK);

    // A second open of the same port finds the running server.
    int second = 0;
    ASSERT_EQ(PXST_Open(port, -1, PXL_FLOW_NONE, &second), PXST_RESULT_OK);
    EXPECT_EQ(second, handle + 1);
    EXPECT_EQ(PXST_Close(second), PXST_RESULT_OK);

    EXPECT_EQ(PXST_KillPellix(handle), PXST_RESULT_OK);
    EXPECT_TRUE(waitUntilNothingListens(quint16(BasePort + port)));
    // The socket stays set after the server has gone: requests time out, commands succeed.
    EXPECT_EQ(PXST_HandleStatus(handle), 1);
    EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
    handle = 0;
}

namespace {

struct Progress
{
    std::atomic<int> calls{0};
    unsigned long long last = 0;
    unsigned long long total = 0;
    bool monotonic = true;
};

void recordProgress(unsigned long long done, unsigned long long total, void* userData)
{
    auto* p = static_cast<Progress*>(userData);
    p->monotonic = p->monotonic && done >= p->last && done <= total;
    p->last = done;
    p->total = total;
    ++p->calls;
}

} // namespace

TEST_F(ApiSimulator, ProgressOfALoadWithVerifyRunsToTheTotal)
{
    start(127);
    const QByteArray file = writeLod("image.lod", {{0x100000, sequence(262144, 9)}}); // 1 MiB
    Progress progress;
    unsigned int fail = 77;
    ASSERT_EQ(PXST_LoadLodProgress(handle, file.constData(), 1, &fail, recordProgress, &progress),
              PXST_RESULT_OK);
    EXPECT_EQ(fail, 0u);
    EXPECT_TRUE(progress.monotonic);
    EXPECT_EQ(progress.total, 2u * 1024 * 1024);
    EXPECT_EQ(progress.last, progress.total);
    EXPECT_EQ(progress.calls.load(), 32);
}
