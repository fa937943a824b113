// PXNSConnection against the scripted fake server: framing, time-outs, nesting, hold-back
// order and replies that a correct server never sends.

#include "FakeServer.h"
#include "NSConnectionTestSupport.h"
#include "RefusedPort.h"

#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <QElapsedTimer>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <vector>

namespace {

QByteArray hex(const char* text)
{
    return QByteArray::fromHex(text);
}

unsigned char flowOf(const QByteArray& frame)
{
    return pxproto::flowId(frame);
}

// Clears FORCED_PELLIX_HOST/PORT for the test and restores a clean state afterwards.
class ForcedAddress
{
public:
    ForcedAddress()
    {
        qunsetenv("FORCED_PELLIX_HOST");
        qunsetenv("FORCED_PELLIX_PORT");
    }
    ~ForcedAddress()
    {
        qunsetenv("FORCED_PELLIX_HOST");
        qunsetenv("FORCED_PELLIX_PORT");
    }
};

// A target memory for the responder: byte at address a.
unsigned char memoryByte(quint32 address)
{
    return static_cast<unsigned char>(address * 7 + 3);
}

QByteArray memoryBytes(quint32 address, int count)
{
    QByteArray out(count, Qt::Uninitialized);
    for (int i = 0; i < count; ++i)
        out[i] = char(memoryByte(address + quint32(i)));
    return out;
}

// Answers single and block reads from memoryByte(), block reads in frames of 4096 bytes.
void answerReads(FakeServer& server, int client, const QByteArray& frame)
{
    const auto* p = reinterpret_cast<const unsigned char*>(frame.constData());
    if (flowOf(frame) == pxproto::request::Read && frame.size() == 9) {
        const quint32 address = pxproto::getLe32(p + 5);
        const int size = p[4] == 1 ? 2 : p[4] == 2 ? 4 : 1;
        const QByteArray data = memoryBytes(address, size);
        server.send(pxproto::readData(address, data.constData(), size), client);
    } else if (flowOf(frame) == pxproto::request::BlockRead) {
        const quint32 address = pxproto::getLe32(p + 5);
        const int count = int(pxproto::getLe32(p + 9));
        QByteArray reply;
        for (int offset = 0; offset < count; offset += 4096) {
            const int n = std::min(4096, count - offset);
            const QByteArray data = memoryBytes(address + quint32(offset), n);
            reply += pxproto::readData(address + quint32(offset), data.constData(), n);
        }
        server.send(reply, client);
    }
}

class NSConnectionFake : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
        // send() addresses the most recent client: it must have been accepted.
        ASSERT_TRUE(server.waitForConnections(1));
    }

    ForcedAddress clean;
    FakeServer server;
    PXNSConnection connection;
};

} // namespace

TEST(NSConnectionMeta, SignalsAndSlotsInDeclaredOrder)
{
    const QMetaObject& meta = PXNSConnection::staticMetaObject;
    EXPECT_STREQ(meta.className(), "PXNSConnection");
    ASSERT_EQ(meta.methodCount() - meta.methodOffset(), 5);
    const struct
    {
        const char* signature;
        QMetaMethod::MethodType type;
        QMetaMethod::Access access;
        QList<QByteArray> names;
    } expected[] = {
        {"eventArrived(qint64,uint32_t)",
         QMetaMethod::Signal,
         QMetaMethod::Public,
         {"stamp", "event"}},
        {"bypassArrived(qint64,QByteArray)",
         QMetaMethod::Signal,
         QMetaMethod::Public,
         {"stamp", "bypass"}},
        {"socketDisconnected()", QMetaMethod::Slot, QMetaMethod::Private, {}},
        {"readSocketData()", QMetaMethod::Slot, QMetaMethod::Private, {}},
        {"checkAsyncArrived()", QMetaMethod::Slot, QMetaMethod::Private, {}},
    };
    for (int i = 0; i < 5; ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        // Looked up as SIGNAL()/SLOT() strings are (moc records qint64 as "qlonglong").
        EXPECT_EQ(meta.indexOfMethod(expected[i].signature), meta.methodOffset() + i) << i;
        EXPECT_EQ(method.methodType(), expected[i].type) << i;
        EXPECT_EQ(method.access(), expected[i].access) << i;
        EXPECT_EQ(method.parameterNames(), expected[i].names) << i;
    }
}

TEST(NSConnectionClosed, EveryOperationReturns12)
{
    PXNSConnection connection;
    unsigned char byte = 0;
    unsigned short half = 0;
    unsigned int word = 0;
    unsigned char ids[1] = {1};
    const std::vector<std::pair<const char*, std::function<unsigned int()>>> operations = {
        {"genericRead", [&] { return connection.genericRead(0, false, &word, 4); }},
        {"genericRead size 3", [&] { return connection.genericRead(0, false, &word, 3); }},
        {"readi8", [&] { return connection.readi8(0, &byte); }},
        {"read8", [&] { return connection.read8(0, &byte); }},
        {"read16", [&] { return connection.read16(0, &half); }},
        {"read32", [&] { return connection.read32(0, &word); }},
        {"readBlock", [&] { return connection.readBlock(0, &byte, 1); }},
        {"genericWrite", [&] { return connection.genericWrite(0, false, &word, 4); }},
        {"writei8", [&] { return connection.writei8(0, 1); }},
        {"write8", [&] { return connection.write8(0, 1); }},
        {"write16", [&] { return connection.write16(0, 1); }},
        {"write32", [&] { return connection.write32(0, 1); }},
        {"writeBlock", [&] { return connection.writeBlock(0, &word, 4); }},
        {"enableEvents", [&] { return connection.enableEvents(true); }},
        {"setClientType", [&] { return connection.setClientType(1); }},
        {"setBypassFlowIds", [&] { return connection.setBypassFlowIds(ids, 1); }},
        {"killPellix", [&] { return connection.killPellix(); }},
        {"cleanPellix", [&] { return connection.cleanPellix(); }},
        {"flushPellixFifos", [&] { return connection.flushPellixFifos(); }},
        {"setFlowMode", [&] { return connection.setFlowMode(PXL_FLOW_HARDWARE); }},
        {"setBaudRate", [&] { return connection.setBaudRate(115200); }},
        {"setPersistent", [&] { return connection.setPersistent(true); }},
        {"setUsbId", [&] { return connection.setUsbId(1, 2); }},
        {"sendBypassPacket", [&] { return connection.sendBypassPacket(1, ids, 1); }},
        {"sendBypassPacket too large",
         [&] { return connection.sendBypassPacket(1, ids, pxproto::MaxBypassData + 1); }},
        {"autoBauding", [&] { return connection.autoBauding(); }},
        {"forcePellixReconnect", [&] { return connection.forcePellixReconnect(); }},
        {"comBreak", [&] { return connection.comBreak(); }},
        {"getStatus", [&] { return connection.getStatus(&byte); }},
        {"ping", [&] { return connection.ping(); }},
    };
    for (const auto& [name, operation] : operations)
        EXPECT_EQ(operation(), 12u) << name;
    connection.close();
    EXPECT_EQ(connection.ping(), 12u);
}

TEST(NSConnectionOpen, FailsWithoutListenerAndStaysClosed)
{
    ForcedAddress clean;
    PXNSConnection connection;
    EXPECT_FALSE(connection.open(QStringLiteral("127.0.0.1"), refusedPort()));
    EXPECT_EQ(connection.ping(), 12u);
}

TEST(NSConnectionOpen, EmptyArgumentsNegativeNumberAndOpenLastReuseTheLastAddress)
{
    ForcedAddress clean;
    FakeServer server;
    ASSERT_GE(server.port(), 7700);
    PXNSConnection connection;

    ASSERT_TRUE(connection.openNum(server.port() - 7700));
    ASSERT_TRUE(server.waitForConnections(1));
    ASSERT_TRUE(connection.open(QString(), 0));
    ASSERT_TRUE(server.waitForConnections(2));
    ASSERT_TRUE(connection.openNum(-1));
    ASSERT_TRUE(server.waitForConnections(3));

    // Another connection object shares the last address.
    PXNSConnection other;
    ASSERT_TRUE(other.openLast());
    ASSERT_TRUE(server.waitForConnections(4));
    EXPECT_EQ(server.connectionCount(), 4);
}

TEST(NSConnectionOpen, ForcedAddressNeedsBothVariables)
{
    ForcedAddress clean;
    FakeServer forced;
    FakeServer argument;
    const struct
    {
        const char* name;
        bool setHost;
        bool setPort;
        FakeServer* expected;
    } cases[] = {
        {"both set", true, true, &forced},
        {"host only", true, false, &argument},
        {"port only", false, true, &argument},
    };
    int forcedCount = 0;
    int argumentCount = 0;
    for (const auto& c : cases) {
        qunsetenv("FORCED_PELLIX_HOST");
        qunsetenv("FORCED_PELLIX_PORT");
        if (c.setHost)
            qputenv("FORCED_PELLIX_HOST", "127.0.0.1");
        if (c.setPort)
            qputenv("FORCED_PELLIX_PORT", QByteArray::number(forced.port()));
        PXNSConnection connection;
        ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), argument.port())) << c.name;
        (c.expected == &forced ? forcedCount : argumentCount) += 1;
        EXPECT_TRUE(forced.waitForConnections(forcedCount, 2000)) << c.name;
        EXPECT_TRUE(argument.waitForConnections(argumentCount, 2000)) << c.name;
        EXPECT_EQ(forced.connectionCount(), forcedCount) << c.name;
        EXPECT_EQ(argument.connectionCount(), argumentCount) << c.name;
    }
}

TEST_F(NSConnectionFake, CommandsAndWritesSendExactFramesWithoutWaiting)
{
    unsigned char ids[] = {0x10, 0x20};
    unsigned char bypass[] = {0x01, 0x02};
    unsigned char three[] = {1, 2, 3};
    const std::vector<std::tuple<const char*, std::function<unsigned int()>, QByteArray>> cases = {
        {"enable events", [&] { return connection.enableEvents(true); }, hex("BB0001C001")},
        {"disable events", [&] { return connection.enableEvents(false); }, hex("BB0001C000")},
        {"bypass ids", [&] { return connection.setBypassFlowIds(ids, 2); },
         hex("BB0006B0020000001020")},
        {"bypass send", [&] { return connection.sendBypassPacket(0x05, bypass, 2); },
         hex("BB0007B5AD000305010206")},
        {"empty bypass send", [&] { return connection.sendBypassPacket(0x07, nullptr, 0); },
         hex("BB0005B5AD00010707")},
        {"usb ids", [&] { return connection.setUsbId(0x1234, 0x5678); },
         hex("BB0008B83412000078560000")},
        {"baud", [&] { return connection.setBaudRate(921600); }, hex("BB0004A000100E00")},
        {"flow mode", [&] { return connection.setFlowMode(PXL_FLOW_XONXOFF); },
         hex("BB0004A302000000")},
        {"client type", [&] { return connection.setClientType(0x1234); }, hex("BB00018234")},
        {"persistent", [&] { return connection.setPersistent(true); }, hex("BB0001B901")},
        {"not persistent", [&] { return connection.setPersistent(false); }, hex("BB0001B900")},
        {"kill", [&] { return connection.killPellix(); }, hex("BB0000B1")},
        {"clean", [&] { return connection.cleanPellix(); }, hex("BB0000B4")},
        {"flush", [&] { return connection.flushPellixFifos(); }, hex("BB0000B7")},
        {"auto-bauding", [&] { return connection.autoBauding(); }, hex("BB0000A1")},
        {"write32", [&] { return connection.write32(0x10, 0xAABBCCDD); },
         hex("BB0009FF8210000000DDCCBBAA")},
        {"write16", [&] { return connection.write16(0x2000, 0x1122); },
         hex("BB0007FF81002000002211")},
        {"write8", [&] { return connection.write8(0x1234, 0xAB); }, hex("BB0006FF8034120000AB")},
        {"writei8", [&] { return connection.writei8(0x1234, 0xAB); }, hex("BB0006FF8434120000AB")},
        {"write 3 bytes", [&] { return connection.genericWrite(0x40, false, three, 3); },
         hex("BB0008FF8340000000010203")},
    };
    for (const auto& [name, operation, expected] : cases)
        EXPECT_EQ(operation(), 0u) << name;
    ASSERT_TRUE(server.waitForFrames(int(cases.size())));
    const QList<QByteArray> frames = server.frames();
    ASSERT_EQ(frames.size(), int(cases.size()));
    for (size_t i = 0; i < cases.size(); ++i)
        EXPECT_EQ(frames[int(i)].toHex(), std::get<2>(cases[i]).toHex()) << std::get<0>(cases[i]);
}

TEST_F(NSConnectionFake, WriteBlockCutsAt32768AndAdvancesTheAddress)
{
    std::vector<unsigned int> words(10000);
    for (size_t i = 0; i < words.size(); ++i)
        words[i] = unsigned(i * 2654435761u);
    EXPECT_EQ(connection.writeBlock(0x100, words.data(), 0), 0u);
    EXPECT_EQ(connection.writeBlock(0x100, words.data(), 40000), 0u);
    ASSERT_TRUE(server.waitForFrames(2));
    const QList<QByteArray> frames = server.frames();
    ASSERT_EQ(frames.size(), 2);
    const QByteArray all(reinterpret_cast<const char*>(words.data()), 40000);
    EXPECT_EQ(frames[0], pxproto::writeRequest(0x100, false, all.constData(), 32768));
    EXPECT_EQ(frames[1],
              pxproto::writeRequest(0x100 + 32768, false, all.constData() + 32768, 40000 - 32768));
}

TEST_F(NSConnectionFake, BypassSendRefusesMoreThan65530Bytes)
{
    QByteArray data(pxproto::MaxBypassData + 1, 'x');
    auto* bytes = reinterpret_cast<unsigned char*>(data.data());
    EXPECT_EQ(connection.sendBypassPacket(3, bytes, pxproto::MaxBypassData + 1), 6u);
    EXPECT_EQ(connection.sendBypassPacket(3, bytes, pxproto::MaxBypassData), 0u);
    ASSERT_TRUE(server.waitForFrames(1));
    const QList<QByteArray> frames = server.frames();
    ASSERT_EQ(frames.size(), 1);
    EXPECT_EQ(frames[0].size(), pxproto::MaxFrameSize);
    // Length 65535, nested length 65531, flow 3, the data, and 3 as the checksum (an even
    // number of equal data bytes XORs to 0).
    EXPECT_EQ(frames[0].left(8).toHex(), QByteArray("bbffffb5adfffb03"));
    EXPECT_EQ(frames[0].mid(8, pxproto::MaxBypassData), data.left(pxproto::MaxBypassData));
    EXPECT_EQ(frames[0].back(), '\x03');
}

TEST_F(NSConnectionFake, ReadsAreCutByAlignment)
{
    server.setResponder(answerReads);
    const struct
    {
        const char* name;
        std::function<unsigned int(unsigned char*)> read;
        quint32 address;
        int size;
        QList<QByteArray> requests;
    } cases[] = {
        {"read32 aligned",
         [&](unsigned char* d) {
             return connection.read32(0x1000, reinterpret_cast<unsigned int*>(d));
         },
         0x1000,
         4,
         {pxproto::singleRead(2, 0x1000)}},
        {"read32 at 1 mod 4",
         [&](unsigned char* d) {
             return connection.read32(0x1001, reinterpret_cast<unsigned int*>(d));
         },
         0x1001,
         4,
         {pxproto::singleRead(0, 0x1001), pxproto::singleRead(1, 0x1002),
          pxproto::singleRead(0, 0x1004)}},
        {"read32 at 2 mod 4",
         [&](unsigned char* d) {
             return connection.read32(0x1002, reinterpret_cast<unsigned int*>(d));
         },
         0x1002,
         4,
         {pxproto::singleRead(1, 0x1002), pxproto::singleRead(1, 0x1004)}},
        {"read16 odd",
         [&](unsigned char* d) {
             return connection.read16(0x2001, reinterpret_cast<unsigned short*>(d));
         },
         0x2001,
         2,
         {pxproto::singleRead(0, 0x2001), pxproto::singleRead(0, 0x2002)}},
        {"read8",
         [&](unsigned char* d) { return connection.read8(0x1234, d); },
         0x1234,
         1,
         {hex("BB0005FF0034120000")}},
        {"readi8",
         [&](unsigned char* d) { return connection.readi8(0x1234, d); },
         0x1234,
         1,
         {hex("BB0005FF0434120000")}},
        {"10 bytes aligned",
         [&](unsigned char* d) { return connection.readBlock(0x1000, d, 10); },
         0x1000,
         10,
         {pxproto::blockRead(0x1000, 8), pxproto::singleRead(1, 0x1008)}},
        {"8 bytes at odd",
         [&](unsigned char* d) { return connection.readBlock(0x1001, d, 8); },
         0x1001,
         8,
         {pxproto::singleRead(0, 0x1001), pxproto::singleRead(1, 0x1002),
          pxproto::singleRead(2, 0x1004), pxproto::singleRead(0, 0x1008)}},
        {"64 KiB",
         [&](unsigned char* d) { return connection.readBlock(0x0, d, 65536); },
         0x0,
         65536,
         {pxproto::blockRead(0x0, 32768), pxproto::blockRead(0x8000, 32768)}},
        {"block read of 64 bytes",
         [&](unsigned char* d) { return connection.genericRead(0x1000, false, d, 64); },
         0x1000,
         64,
         {hex("BB0009FE030010000040000000")}},
    };
    for (const auto& c : cases) {
        server.clearReceived();
        QByteArray buffer(c.size, '\0');
        EXPECT_EQ(c.read(reinterpret_cast<unsigned char*>(buffer.data())), 0u) << c.name;
        EXPECT_EQ(buffer, memoryBytes(c.address, c.size)) << c.name;
        EXPECT_EQ(server.frames(), c.requests) << c.name;
    }
    // Sizes without a request are refused before anything is sent.
    unsigned int word = 0;
    server.clearReceived();
    EXPECT_EQ(connection.genericRead(0x1000, false, &word, 3), 13u);
    EXPECT_EQ(connection.genericRead(0x1000, false, &word, 0), 13u);
    EXPECT_EQ(connection.readBlock(0x1000, reinterpret_cast<unsigned char*>(&word), 0), 0u);
    EXPECT_EQ(connection.flushPellixFifos(), 0u);
    ASSERT_TRUE(server.waitForFrames(1));
    EXPECT_EQ(server.frames(), QList<QByteArray>{pxproto::flushFifos()});
}

TEST_F(NSConnectionFake, ReadCompletesFromSeveralFramesAndFailsAtOnceOnAMisfit)
{
    const QByteArray sixteen = memoryBytes(0x3000, 16);
    const struct
    {
        const char* name;
        int size;
        QByteArray reply;
        unsigned int expected;
    } cases[] = {
        {"two frames of 8", 16,
         pxproto::readData(0x3000, sixteen.constData(), 8) +
             pxproto::readData(0x3008, sixteen.constData() + 8, 8),
         0},
        {"one frame of 8", 8, pxproto::readData(0x3000, sixteen.constData(), 8), 0},
        {"wrong address", 16, pxproto::readData(0x3004, sixteen.constData(), 8), 13},
        {"second frame at wrong address", 16,
         pxproto::readData(0x3000, sixteen.constData(), 8) +
             pxproto::readData(0x3000, sixteen.constData(), 8),
         13},
        {"12 bytes for 8", 8, pxproto::readData(0x3000, sixteen.constData(), 12), 13},
        {"no data bytes", 8, pxproto::readData(0x3000, nullptr, 0), 13},
    };
    for (const auto& c : cases) {
        const QByteArray reply = c.reply;
        server.setResponder([reply](FakeServer& s, int client, const QByteArray& frame) {
            if (flowOf(frame) == pxproto::request::BlockRead)
                s.send(reply, client);
        });
        QByteArray buffer(c.size, '\0');
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(
            connection.readBlock(0x3000, reinterpret_cast<unsigned char*>(buffer.data()), c.size),
            c.expected)
            << c.name;
        // A misfit ends the read when it arrives, well before the 1000 ms time-out.
        EXPECT_LT(timer.elapsed(), 900) << c.name;
        if (c.expected == 0) {
            EXPECT_EQ(buffer, sixteen.left(c.size)) << c.name;
        }
    }
}

TEST_F(NSConnectionFake, PingReplyDuringReadIsIgnoredAndTheReadKeepsWaiting)
{
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) != pxproto::request::Read)
            return;
        s.send(pxproto::pingReply(), client);
        const unsigned int value = 0x12345678;
        s.sendLater(pxproto::readData(0x40, &value, 4), 100, client);
    });
    unsigned int value = 0;
    EXPECT_EQ(connection.read32(0x40, &value), 0u);
    EXPECT_EQ(value, 0x12345678u);
}

TEST_F(NSConnectionFake, QueriesTimeOutWithoutAMatchingReply)
{
    // Status replies of the wrong size are ignored; pings stay unanswered.
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) == pxproto::request::Status)
            s.send(pxproto::frame(pxproto::reply::Status, "\x01\x02", 2), client);
    });
    const struct
    {
        const char* name;
        std::function<unsigned int()> query;
        int timeout;
    } cases[] = {
        {"ping", [&] { return connection.ping(); }, 500},
        {"status",
         [&] {
             unsigned char status = 0x55;
             const unsigned int result = connection.getStatus(&status);
             EXPECT_EQ(status, 0x55);
             return result;
         },
         500},
        {"read",
         [&] {
             unsigned int word = 0;
             return connection.read32(0, &word);
         },
         1000},
    };
    for (const auto& c : cases) {
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(c.query(), 13u) << c.name;
        EXPECT_GE(timer.elapsed(), c.timeout) << c.name;
        EXPECT_LT(timer.elapsed(), c.timeout + 1500) << c.name;
    }
    // The connection is still usable.
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) == pxproto::request::Ping)
            s.send(pxproto::pingReply(), client);
    });
    EXPECT_EQ(connection.ping(), 0u);
}

TEST_F(NSConnectionFake, BreakTimesOutAfterTwoSeconds)
{
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(connection.comBreak(), 13u);
    EXPECT_GE(timer.elapsed(), 2000);
    EXPECT_LT(timer.elapsed(), 4000);
}

TEST_F(NSConnectionFake, ReconnectTimesOutAfterFiveSeconds)
{
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(connection.forcePellixReconnect(), 13u);
    EXPECT_GE(timer.elapsed(), 5000);
    EXPECT_LT(timer.elapsed(), 7000);
}

TEST_F(NSConnectionFake, QueriesCompleteOnTheirReply)
{
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        switch (flowOf(frame)) {
        case pxproto::request::Status:
            s.send(pxproto::statusReply(0x5A), client);
            break;
        case pxproto::request::Ping:
            s.send(pxproto::pingReply(), client);
            break;
        case pxproto::request::Break:
        case pxproto::request::ForceReconnect:
            s.send(pxproto::completion(), client);
            break;
        default:
            break;
        }
    });
    unsigned char status = 0;
    EXPECT_EQ(connection.getStatus(&status), 0u);
    EXPECT_EQ(status, 0x5A);
    EXPECT_EQ(connection.getStatus(nullptr), 0u);
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(connection.comBreak(), 0u);
    EXPECT_EQ(connection.forcePellixReconnect(), 0u);
    const QList<QByteArray> expected = {pxproto::status(), pxproto::status(), pxproto::ping(),
                                        pxproto::comBreak(), pxproto::forceReconnect()};
    EXPECT_EQ(server.frames(), expected);
}

TEST_F(NSConnectionFake, LateStatusReplyIsDiscarded)
{
    // The status reply comes 700 ms after the request, when getStatus has given up and a
    // ping (answered after 400 ms) is the request in progress.
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) == pxproto::request::Status)
            s.sendLater(pxproto::statusReply(0x77), 700, client);
        else if (flowOf(frame) == pxproto::request::Ping)
            s.sendLater(pxproto::pingReply(), 400, client);
    });
    unsigned char status = 0;
    EXPECT_EQ(connection.getStatus(&status), 13u);
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(status, 0);
}

TEST_F(NSConnectionFake, RequestFromASlotDuringPingIsSentAfterThePingReply)
{
    std::atomic<bool> pingReplied{false};
    std::atomic<bool> statusAfterPingReply{false};
    server.setResponder([&](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) == pxproto::request::Ping) {
            QTimer::singleShot(200, [&s, &pingReplied, client] {
                pingReplied = true;
                s.send(pxproto::pingReply(), client);
            });
        } else if (flowOf(frame) == pxproto::request::Status) {
            statusAfterPingReply = pingReplied.load();
            s.send(pxproto::statusReply(7), client);
        }
    });
    unsigned int inner = 99;
    unsigned char status = 0;
    QTimer::singleShot(20, &connection, [&] { inner = connection.getStatus(&status); });
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(inner, 0u);
    EXPECT_EQ(status, 7);
    EXPECT_TRUE(statusAfterPingReply.load());
    EXPECT_EQ(server.frames(), (QList<QByteArray>{pxproto::ping(), pxproto::status()}));
}

TEST_F(NSConnectionFake, NestedRequestGivesUpUnsentWhenTheOuterReplyNeverComes)
{
    unsigned int inner = 99;
    QTimer::singleShot(20, &connection, [&] { inner = connection.getStatus(nullptr); });
    EXPECT_EQ(connection.ping(), 13u);
    EXPECT_EQ(inner, 13u);
    EXPECT_EQ(server.frames(), QList<QByteArray>{pxproto::ping()});
}

TEST_F(NSConnectionFake, CloseFromASlotLetsTheRequestInProgressFinish)
{
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) == pxproto::request::Ping)
            s.sendLater(pxproto::pingReply(), 200, client);
    });
    QTimer::singleShot(20, &connection, [&] { connection.close(); });
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(connection.ping(), 12u);
}

TEST_F(NSConnectionFake, ReceiverOfAnImmediateEventMayMakeARequest)
{
    // The receiver runs inside the socket's readyRead() handling, where Qt signals no
    // further readyRead(): the ping reply must still be taken.
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) == pxproto::request::Ping)
            s.send(pxproto::pingReply(), client);
    });
    unsigned int nested = 99;
    QObject context;
    QObject::connect(&connection, &PXNSConnection::eventArrived, &context,
                     [&](qint64, uint32_t event) {
                         if (event == 5)
                             nested = connection.ping();
                     });
    server.send(pxproto::event(5));
    EXPECT_TRUE(QTest::qWaitFor([&] { return nested != 99; }, 3000));
    EXPECT_EQ(nested, 0u);
}

TEST_F(NSConnectionFake, ArrivalsWhileIdleAreSignalledAtOnce)
{
    ArrivalLog log(connection);
    QSignalSpy events(&connection, &PXNSConnection::eventArrived);
    QSignalSpy bypasses(&connection, &PXNSConnection::bypassArrived);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    const QByteArray nested = pxproto::debugPacket(0x21, "\x01\x02\x03", 3);
    // An event frame of length 4 is not an event; a 4-byte bypass frame is an empty packet.
    server.send(pxproto::frame(pxproto::reply::Event, "\x09\x00\x00\x00", 4) +
                pxproto::bypassFrame(QByteArray()) + pxproto::event(0x42, 0xEE) +
                pxproto::bypassFrame(nested) + pxproto::writeAck() + pxproto::frame(0x55, "zz", 2) +
                pxproto::event(0xFFFFFFFF));
    EXPECT_TRUE(QTest::qWaitFor([&] { return events.count() == 2; }, 3000));
    const qint64 after = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(log.names(), (QStringList{QStringLiteral("B"), QStringLiteral("E66"),
                                        QStringLiteral("B") + QString::fromLatin1(nested.toHex()),
                                        QStringLiteral("E4294967295")}));
    ASSERT_EQ(bypasses.count(), 2);
    EXPECT_TRUE(bypasses[0][1].toByteArray().isEmpty());
    EXPECT_EQ(events[0][1].value<uint32_t>(), 0x42u);
    for (const auto& entry : log.entries) {
        EXPECT_GE(entry.stamp, before);
        EXPECT_LE(entry.stamp, after);
    }
}

TEST_F(NSConnectionFake, ArrivalsDuringARequestAreHeldBackEventsFirst)
{
    const QByteArray b1 = pxproto::debugPacket(1, "a", 1);
    const QByteArray b2 = pxproto::debugPacket(2, "b", 1);
    server.setResponder([&](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) == pxproto::request::Ping) {
            s.send(pxproto::bypassFrame(b1) + pxproto::event(1), client);
            s.sendLater(pxproto::bypassFrame(b2) + pxproto::event(2), 50, client);
            s.sendLater(pxproto::pingReply(), 100, client);
        }
    });
    ArrivalLog log(connection);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(connection.ping(), 0u);
    const qint64 returned = QDateTime::currentMSecsSinceEpoch();
    EXPECT_TRUE(log.entries.isEmpty());
    EXPECT_TRUE(QTest::qWaitFor([&] { return log.entries.size() == 4; }, 3000));
    EXPECT_EQ(log.names(), (QStringList{QStringLiteral("E1"), QStringLiteral("E2"),
                                        "B" + QString::fromLatin1(b1.toHex()),
                                        "B" + QString::fromLatin1(b2.toHex())}));
    for (const auto& entry : log.entries) {
        EXPECT_GE(entry.stamp, before);
        EXPECT_LE(entry.stamp, returned);
    }
    // Stamps are those of arrival: the second pair came about 50 ms after the first.
    ASSERT_EQ(log.entries.size(), 4);
    EXPECT_LE(log.entries[0].stamp, log.entries[1].stamp);
    EXPECT_LE(log.entries[2].stamp, log.entries[3].stamp);
}

TEST_F(NSConnectionFake, ArrivalsDuringDeliveryAreKeptAndStayInOrder)
{
    // A receiver of the first held-back event makes two requests; an event arrives during
    // the first of them and must come after the rest of the held-back ones, not be lost.
    std::atomic<int> pings{0};
    server.setResponder([&](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) != pxproto::request::Ping)
            return;
        const int n = ++pings;
        if (n == 1)
            s.send(pxproto::event(1) + pxproto::event(2) + pxproto::pingReply(), client);
        else if (n == 2)
            s.send(pxproto::event(3) + pxproto::pingReply(), client);
        else
            s.send(pxproto::pingReply(), client);
    });
    QList<uint32_t> order;
    QList<unsigned int> nested;
    QObject context;
    QObject::connect(&connection, &PXNSConnection::eventArrived, &context,
                     [&](qint64, uint32_t event) {
                         order.append(event);
                         if (event == 1) {
                             nested.append(connection.ping());
                             nested.append(connection.ping());
                         }
                     });
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_TRUE(QTest::qWaitFor([&] { return order.size() == 3; }, 3000));
    EXPECT_EQ(order, (QList<uint32_t>{1, 2, 3}));
    EXPECT_EQ(nested, (QList<unsigned int>{0, 0}));
}

TEST_F(NSConnectionFake, ServerClosingTheSocketEndsTheRequestAndLeavesItClosed)
{
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) == pxproto::request::Ping)
            s.closeClient(client);
    });
    EXPECT_EQ(connection.ping(), 13u);
    EXPECT_TRUE(QTest::qWaitFor([&] { return connection.enableEvents(true) == 12u; }, 3000));
    EXPECT_EQ(connection.ping(), 12u);
    unsigned int word;
    EXPECT_EQ(connection.read32(0, &word), 12u);
    // open() brings it back.
    ASSERT_TRUE(connection.openLast());
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowOf(frame) == pxproto::request::Ping)
            s.send(pxproto::pingReply(), client);
    });
    EXPECT_EQ(connection.ping(), 0u);
}
