// The C interface end to end with the real simulator, which every case starts through
// PXST_Open itself (from this binary's folder, where the build puts "pellix") and stops with
// PXST_KillPellix. Each case uses its own serial port in 120..139 so that cases can run in
// parallel.

#include "ApiTestSupport.h"

#include "pellix/api/PXLLibraryApi.h"

#include <QFile>
#include <QSemaphore>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace apitest;

namespace {

class ApiSimulator : public ::testing::Test
{
protected:
    void start(int serialPort)
    {
        port = serialPort;
        ASSERT_EQ(PXST_Open(serialPort, -1, PXL_FLOW_NONE, &handle), PXST_RESULT_OK);
    }
    void TearDown() override
    {
        if (handle <= 0)
            return;
        EXPECT_EQ(PXST_KillPellix(handle), PXST_RESULT_OK);
        EXPECT_TRUE(waitUntilNothingListens(quint16(7700 + port)));
        EXPECT_EQ(PXST_HandleStatus(handle), 1) << "the socket stays set after the server left";
        EXPECT_EQ(PXST_Close(handle), PXST_RESULT_OK);
    }
    // A LOD file of one packet of `words` at `address`, with further packets in `more`.
    QByteArray lod(const char* name, quint32 address, const std::vector<quint32>& words,
                   const QStringList& more = {})
    {
        QStringList lines{QStringLiteral("@%1").arg(address, 8, 16, QLatin1Char('0'))};
        for (quint32 word : words)
            lines << QStringLiteral("%1").arg(word, 8, 16, QLatin1Char('0'));
        return writeLines(dir.filePath(name), lines + more);
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

TEST_F(ApiSimulator, MemoryCallsAndStatusRoundTrip)
{
    start(120);
    unsigned int status = 77, word = 0;
    EXPECT_EQ(PXST_PellixStatus(handle, &status), PXST_RESULT_OK);
    EXPECT_EQ(status, 1u);
    // Single accesses of every width; the tool's end-to-end cases go through each of them too.
    ASSERT_EQ(PXST_Write32(handle, 0x1000, 0x11223344), PXST_RESULT_OK);
    ASSERT_EQ(PXST_Write16(handle, 0x1004, 0xBEEF), PXST_RESULT_OK);
    unsigned char internal = 0;
    ASSERT_EQ(PXST_WriteInternal(handle, 0x40, 0x5A), PXST_RESULT_OK);
    EXPECT_EQ(PXST_Read32(handle, 0x1002, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 0xBEEF1122u);
    EXPECT_EQ(PXST_ReadInternal(handle, 0x40, &internal), PXST_RESULT_OK);
    EXPECT_EQ(internal, 0x5A);
    std::vector<quint32> words = sequence(25000, 1);
    const auto* source = reinterpret_cast<unsigned char*>(words.data());
    ASSERT_EQ(PXST_WriteBlock(handle, 0x20000, words.data(), 100000), PXST_RESULT_OK);
    std::vector<quint32> back(words.size());
    ASSERT_EQ(PXST_ReadBlock(handle, 0x20000, back.data(), 100000), PXST_RESULT_OK);
    EXPECT_EQ(back, words);
    std::vector<unsigned char> bytes(1001);
    ASSERT_EQ(PXST_BatchRead(handle, 0x20001, bytes.data(), 1001), PXST_RESULT_OK);
    EXPECT_EQ(std::memcmp(bytes.data(), source + 1, 1001), 0);
    // Masked: every third byte left out reads back as 0, the others as written.
    std::vector<unsigned char> mask(1000), masked(1000, 0xEE);
    for (size_t i = 0; i < mask.size(); ++i)
        mask[i] = i % 3 == 2 ? 0x00 : 0xFF;
    ASSERT_EQ(PXST_ReadBlockMasked(handle, 0x20003, masked.data(), 1000, mask.data()),
              PXST_RESULT_OK);
    for (size_t i = 0; i < mask.size(); ++i)
        ASSERT_EQ(masked[i], mask[i] == 0xFF ? source[i + 3] : 0) << i;
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
    for (unsigned int value : {0x12345678u, 0x9ABCu, 7u})
        ASSERT_EQ(PXST_Write32(handle, 0xFFFFFF00u, value), PXST_RESULT_OK);
    EXPECT_TRUE(announced.tryAcquire(3, 5000));
    EXPECT_EQ(PXST_WaitEvent(handle, &event, 5000), PXST_RESULT_OK);
    EXPECT_EQ(event, 0x12345678u);
    EXPECT_EQ(PXST_PopEvent(handle, &event), PXST_RESULT_OK);
    EXPECT_EQ(event, 0x9ABCu);
    EXPECT_EQ(PXST_FlushEvents(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_WaitEvent(handle, &event, 50), PXST_RESULT_NO_EVENT);
    ASSERT_EQ(PXST_EnableEvents(handle, 0), PXST_RESULT_OK);
    EXPECT_EQ(PXST_PopEvent(handle, &event), PXST_RESULT_EVENTS_DISABLED);
    EXPECT_EQ(PXST_EventSetCallback(handle, nullptr, nullptr), PXST_RESULT_OK);
}

TEST_F(ApiSimulator, BypassPacketsComeBackOnTheSubscribedFlows)
{
    port = 122;
    unsigned char ids[] = {0x21, 0x22}, hello[] = {'h', 'e', 'l', 'l', 'o'}, hi[] = {'h', 'i'};
    ASSERT_EQ(PXST_BypassOpen(port, -1, PXL_FLOW_NONE, ids, 2, &handle), PXST_RESULT_OK);
    ASSERT_EQ(PXST_BypassSendPacket(handle, 0x21, hello, 5), PXST_RESULT_OK);
    unsigned char flow = 0, buffer[64] = {};
    int length = 0;
    ASSERT_EQ(PXST_BypassWaitPacket(handle, &flow, buffer, 64, &length, 5000), PXST_RESULT_OK);
    EXPECT_EQ(flow, 0x21);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(buffer), length),
              QByteArray("\xAD\x00\x06\x21hello", 9) + char(0x21 ^ 'h' ^ 'e' ^ 'l' ^ 'l' ^ 'o'));

    QSemaphore arrived;
    ASSERT_EQ(PXST_BypassSetCallback(handle, releaseSemaphore, &arrived), PXST_RESULT_OK);
    ASSERT_EQ(PXST_BypassSendPacket(handle, 0x122, hi, 2), PXST_RESULT_OK);
    ASSERT_TRUE(arrived.tryAcquire(1, 5000));
    ASSERT_EQ(PXST_BypassGetPacket(handle, &flow, buffer, 64, &length), PXST_RESULT_OK);
    EXPECT_EQ(flow, 0x22);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(buffer), length),
              QByteArray("hi") + char(0x22 ^ 'h' ^ 'i'));
    // Not subscribed: nothing comes back.
    ASSERT_EQ(PXST_BypassSendPacket(handle, 0x30, hi, 2), PXST_RESULT_OK);
    EXPECT_EQ(PXST_BypassWaitPacket(handle, &flow, buffer, 64, &length, 200),
              PXST_RESULT_NO_PACKET);

    // The data call takes a packet whole, header included, or tells the size it needs.
    ASSERT_EQ(PXST_BypassSendPacket(handle, 0x21, hi, 2), PXST_RESULT_OK);
    ASSERT_TRUE(arrived.tryAcquire(1, 5000));
    ASSERT_EQ(PXST_BypassGetData(handle, buffer, 4, &length), PXST_RESULT_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 7);
    EXPECT_EQ(PXST_BypassFlushPackets(handle), PXST_RESULT_OK);
    EXPECT_EQ(PXST_BypassGetData(handle, buffer, 64, &length), PXST_RESULT_NO_PACKET);
}

TEST_F(ApiSimulator, LoadVerifyAndDumpInBothFormats)
{
    start(123);
    const std::vector<quint32> big = sequence(3000, 7);
    const QByteArray file = lod("image.lod", 0x10000, big, {"@F0000000", "DEADBEEF"});
    unsigned int fail = 77, word = 1;
    ASSERT_EQ(PXST_LoadLod(handle, file.constData(), 1, &fail), PXST_RESULT_OK);
    EXPECT_EQ(fail, 0u);
    std::vector<quint32> back(big.size());
    ASSERT_EQ(PXST_ReadBlock(handle, 0x10000, back.data(), 12000), PXST_RESULT_OK);
    EXPECT_EQ(back, big);
    ASSERT_EQ(PXST_Read32(handle, 0xF0000000u, &word), PXST_RESULT_OK);
    EXPECT_EQ(word, 0u) << "the skipped packet was written";

    ASSERT_EQ(PXST_Write32(handle, 0x10000 + 4 * 700, 0), PXST_RESULT_OK);
    ASSERT_EQ(PXST_Write8(handle, 0x10000 + 4 * 500 + 3, 0x5A), PXST_RESULT_OK);
    EXPECT_EQ(PXST_VerifyLod(handle, file.constData(), &fail), PXST_RESULT_MISMATCH);
    EXPECT_EQ(fail, 0x10000u + 4 * 500);

    unsigned int words[] = {0x00000001, 0x00ABCDEF, 0xFFFFFFFF};
    ASSERT_EQ(PXST_WriteBlock(handle, 0x1000, words, sizeof words), PXST_RESULT_OK);
    const QString text = dir.filePath("dump.lod"), binary = dir.filePath("dump.bin");
    ASSERT_EQ(PXST_DumpLod(handle, QFile::encodeName(text), 0x1000, 3, 0), PXST_RESULT_OK);
    EXPECT_EQ(readFile(text), QByteArray("@00001000\n00000001\n00ABCDEF\nFFFFFFFF\n"));
    ASSERT_EQ(PXST_DumpLod(handle, QFile::encodeName(binary), 0x1000, 2, 1), PXST_RESULT_OK);
    EXPECT_EQ(readFile(binary), QByteArray("\x01\x00\x00\x00\xEF\xCD\xAB\x00", 8));
    // What a dump writes verifies.
    EXPECT_EQ(PXST_VerifyLod(handle, QFile::encodeName(text), &fail), PXST_RESULT_OK);
}
