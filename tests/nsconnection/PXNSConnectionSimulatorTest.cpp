// PXNSConnection against the real simulator: every request, events and bypass echoes.

#include "NSConnectionTestSupport.h"
#include "SimulatorProcess.h"

#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <QSignalSpy>
#include <QtTest>

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

constexpr quint32 EventRegister = 0xFFFFFF00;

class NSConnectionSim : public ::testing::Test
{
protected:
    void SetUp() override
    {
        qunsetenv("FORCED_PELLIX_HOST");
        qunsetenv("FORCED_PELLIX_PORT");
        ASSERT_TRUE(sim.isListening());
        ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), sim.port()));
    }

    SimulatorProcess sim{
        {QStringLiteral("--frame-size"), QStringLiteral("512"), QStringLiteral("--verbose")}};
    PXNSConnection connection;
};

} // namespace

TEST_F(NSConnectionSim, MemoryReadsBackWhatWasWritten)
{
    EXPECT_EQ(connection.write8(0x1001, 0xA5), 0u);
    EXPECT_EQ(connection.write16(0x1002, 0xBEEF), 0u);
    EXPECT_EQ(connection.write32(0x1004, 0x12345678), 0u);
    EXPECT_EQ(connection.writei8(0x20, 0x3C), 0u);

    unsigned char byte = 0;
    unsigned short half = 0;
    unsigned int word = 0;
    EXPECT_EQ(connection.read8(0x1001, &byte), 0u);
    EXPECT_EQ(byte, 0xA5);
    EXPECT_EQ(connection.read16(0x1002, &half), 0u);
    EXPECT_EQ(half, 0xBEEF);
    EXPECT_EQ(connection.read32(0x1004, &word), 0u);
    EXPECT_EQ(word, 0x12345678u);
    // Unaligned: 8-bit, 16-bit and 8-bit reads assembled in order.
    EXPECT_EQ(connection.read32(0x1001, &word), 0u);
    EXPECT_EQ(word, 0x78BEEFA5u);
    EXPECT_EQ(connection.readi8(0x20, &byte), 0u);
    EXPECT_EQ(byte, 0x3C);
    // The internal space is apart from memory.
    EXPECT_EQ(connection.read8(0x20, &byte), 0u);
    EXPECT_EQ(byte, 0);
}

TEST_F(NSConnectionSim, BlocksLargerThanOneRequestRoundTrip)
{
    // 100 KiB + 3 at an odd address: several write frames, and reads cut by alignment into
    // block reads of 32768 bytes answered in frames of 512.
    const int size = 100 * 1024 + 3;
    std::vector<unsigned int> words(size_t(size / 4 + 1));
    std::mt19937 random(7);
    for (unsigned int& w : words)
        w = random();
    EXPECT_EQ(connection.writeBlock(0x40001, words.data(), size), 0u);
    QByteArray back(size, '\0');
    EXPECT_EQ(connection.readBlock(0x40001, reinterpret_cast<unsigned char*>(back.data()), size),
              0u);
    EXPECT_EQ(back, QByteArray(reinterpret_cast<const char*>(words.data()), size));
}

TEST_F(NSConnectionSim, QueriesAreAnswered)
{
    unsigned char status = 0;
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(connection.getStatus(&status), 0u);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(connection.comBreak(), 0u);
    EXPECT_EQ(connection.forcePellixReconnect(), 0u);
    EXPECT_TRUE(sim.waitForErrorOutput(QStringLiteral("send break (1 so far)")));
    EXPECT_TRUE(sim.waitForErrorOutput(QStringLiteral("force reconnection (1 so far)")));
}

TEST_F(NSConnectionSim, CommandsReachTheServer)
{
    EXPECT_EQ(connection.setBaudRate(921600), 0u);
    EXPECT_EQ(connection.setFlowMode(PXL_FLOW_XONXOFF), 0u);
    EXPECT_EQ(connection.setUsbId(0x1234, 0x5678), 0u);
    EXPECT_EQ(connection.autoBauding(), 0u);
    EXPECT_EQ(connection.setClientType(0x1234), 0u);
    EXPECT_EQ(connection.setPersistent(true), 0u);
    EXPECT_EQ(connection.cleanPellix(), 0u);
    EXPECT_EQ(connection.flushPellixFifos(), 0u);
    for (const char* line :
         {"baud rate 921600", "flow mode 2 (xonxoff)", "USB identifiers 0x1234 0x5678",
          "auto-bauding (1 so far)", "client type 52", "persistent on", "clean:", "flush FIFOs:"})
        EXPECT_TRUE(sim.waitForErrorOutput(QString::fromLatin1(line))) << line;
    EXPECT_FALSE(sim.errorOutput().contains(QStringLiteral("skipped")));
}

TEST_F(NSConnectionSim, EventsOfTheRegisterAreSignalled)
{
    PXNSConnection raiser;
    ASSERT_TRUE(raiser.openLast());
    QSignalSpy events(&connection, &PXNSConnection::eventArrived);
    QSignalSpy raiserEvents(&raiser, &PXNSConnection::eventArrived);
    EXPECT_EQ(connection.enableEvents(true), 0u);
    // The ping makes sure the server has taken the enabling before the other client writes.
    EXPECT_EQ(connection.ping(), 0u);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(raiser.write32(EventRegister, 0xCAFE0001), 0u);
    EXPECT_EQ(raiser.write32(EventRegister, 0xCAFE0002), 0u);
    EXPECT_TRUE(QTest::qWaitFor([&] { return events.count() == 2; }, 5000));
    ASSERT_EQ(events.count(), 2);
    EXPECT_EQ(events[0][1].value<uint32_t>(), 0xCAFE0001u);
    EXPECT_EQ(events[1][1].value<uint32_t>(), 0xCAFE0002u);
    EXPECT_GE(events[0][0].toLongLong(), before);
    EXPECT_LE(events[1][0].toLongLong(), QDateTime::currentMSecsSinceEpoch());
    // The raiser never enabled events.
    EXPECT_EQ(raiser.ping(), 0u);
    EXPECT_EQ(raiserEvents.count(), 0);
}

TEST_F(NSConnectionSim, BypassPacketsAreEchoedOnSubscribedFlows)
{
    unsigned char ids[] = {0x21};
    EXPECT_EQ(connection.setBypassFlowIds(ids, 1), 0u);
    ArrivalLog log(connection);
    unsigned char data[] = {0x10, 0x11, 0x13, 0x5C, 0xAD, 0xBB};
    // Flow 0x22 is not subscribed: its echo does not come back.
    EXPECT_EQ(connection.sendBypassPacket(0x22, data, 3), 0u);
    EXPECT_EQ(connection.sendBypassPacket(0x21, data, sizeof data), 0u);
    EXPECT_EQ(connection.sendBypassPacket(0x21, nullptr, 0), 0u);
    EXPECT_TRUE(QTest::qWaitFor([&] { return log.entries.size() >= 2; }, 5000));
    EXPECT_EQ(connection.ping(), 0u);
    const QByteArray first = pxproto::debugPacket(0x21, data, sizeof data);
    const QByteArray second = pxproto::debugPacket(0x21, nullptr, 0);
    EXPECT_EQ(log.names(), (QStringList{"B" + QString::fromLatin1(first.toHex()),
                                        "B" + QString::fromLatin1(second.toHex())}));
}

TEST_F(NSConnectionSim, KillEndsTheServerAndTheConnection)
{
    EXPECT_EQ(connection.killPellix(), 0u);
    EXPECT_EQ(sim.waitForExit(5000), 0);
    EXPECT_TRUE(QTest::qWaitFor([&] { return connection.ping() == 12u; }, 5000));
}
