// PXNSConnection under a QCoreApplication. Against the real simulator: every request, events
// and bypass echoes. Against the scripted fake server: time-outs, nesting, hold-back order,
// alignment of reads and replies that a correct server never sends.

#include "FakeServer.h"
#include "RefusedPort.h"
#include "SimulatorProcess.h"

#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <random>
#include <vector>

namespace {

// Every case connects to the address it names: a forced address from the environment is cleared.
[[maybe_unused]] const bool unforced =
    qunsetenv("FORCED_PELLIX_HOST") && qunsetenv("FORCED_PELLIX_PORT");

// Records both arrival signals of a connection in one list, in emission order, so that the
// order across the two kinds can be checked: "E<id>" for an event, "B<hex>" for a bypass
// packet, with the stamps alongside.
struct ArrivalLog
{
    explicit ArrivalLog(PXNSConnection& connection)
    {
        QObject::connect(&connection, &PXNSConnection::eventArrived, &context,
                         [this](qint64 stamp, uint32_t event) {
                             names << QStringLiteral("E%1").arg(event);
                             stamps << stamp;
                         });
        QObject::connect(&connection, &PXNSConnection::bypassArrived, &context,
                         [this](qint64 stamp, const QByteArray& bypass) {
                             names << bypassName(bypass);
                             stamps << stamp;
                         });
    }
    static QString bypassName(const QByteArray& bypass)
    {
        return QStringLiteral("B") + QString::fromLatin1(bypass.toHex());
    }

    QObject context;
    QStringList names;
    QList<qint64> stamps;
};

using pxproto::flowId;
namespace request = pxproto::request;

// A target memory for the responder: byte at address a.
QByteArray memoryBytes(quint32 address, int count)
{
    QByteArray out(count, Qt::Uninitialized);
    for (int i = 0; i < count; ++i)
        out[i] = char((address + quint32(i)) * 7 + 3);
    return out;
}

// Answers single and block reads from memoryBytes(), each with one frame.
void answerReads(FakeServer& server, int client, const QByteArray& frame)
{
    const auto* p = reinterpret_cast<const unsigned char*>(frame.constData());
    const bool block = flowId(frame) == request::BlockRead;
    if (!block && flowId(frame) != request::Read)
        return;
    const quint32 address = pxproto::getLe32(p + 5);
    const int size = block ? int(pxproto::getLe32(p + 9)) : 1 << (p[4] & 3); // 4: readi8
    server.send(pxproto::readData(address, memoryBytes(address, size).constData(), size), client);
}

// A responder that answers every frame of flow `flow` with `reply`.
FakeServer::Responder answer(unsigned char flow, const QByteArray& reply, int delayMs = 0)
{
    return [flow, reply, delayMs](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) == flow)
            s.sendLater(reply, delayMs, client);
    };
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

    FakeServer server;
    PXNSConnection connection;
};

class NSConnectionSim : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(sim.isListening());
        ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), sim.port()));
    }

    SimulatorProcess sim{{"--frame-size", "512", "--verbose"}};
    PXNSConnection connection;
};

} // namespace

TEST_F(NSConnectionSim, MemoryReadsBackWhatWasWritten)
{
    // Aligned reads are checked against the fake server; here one unaligned read32 (8-bit,
    // 16-bit and 8-bit reads) sees all three writes, and the internal space is apart.
    unsigned char internal = 0, outside = 0xFF;
    unsigned int word = 0;
    EXPECT_EQ(connection.write8(0x1001, 0xA5), 0u);
    EXPECT_EQ(connection.write16(0x1002, 0xBEEF), 0u);
    EXPECT_EQ(connection.write32(0x1004, 0x12345678), 0u);
    EXPECT_EQ(connection.writei8(0x20, 0x3C), 0u);
    EXPECT_EQ(connection.read32(0x1001, &word), 0u);
    EXPECT_EQ(connection.readi8(0x20, &internal), 0u);
    EXPECT_EQ(connection.read8(0x20, &outside), 0u);
    EXPECT_EQ(word, 0x78BEEFA5u);
    EXPECT_EQ(internal, 0x3C);
    EXPECT_EQ(outside, 0);

    // 100 KiB + 3 at an odd address: several write frames of 32768 bytes, and reads cut by
    // alignment into block reads answered in frames of 512.
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

TEST_F(NSConnectionSim, QueriesAreAnsweredAndCommandsReachTheServer)
{
    unsigned char status = 0;
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(connection.getStatus(&status), 0u);
    EXPECT_EQ(connection.getStatus(nullptr), 0u);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(connection.comBreak(), 0u);
    EXPECT_EQ(connection.forcePellixReconnect(), 0u);
    EXPECT_EQ(connection.setBaudRate(921600), 0u);
    EXPECT_EQ(connection.setFlowMode(PXL_FLOW_XONXOFF), 0u);
    EXPECT_EQ(connection.setUsbId(0x1234, 0x5678), 0u);
    EXPECT_EQ(connection.autoBauding(), 0u);
    EXPECT_EQ(connection.setClientType(0x1234), 0u);
    EXPECT_EQ(connection.setPersistent(true), 0u);
    EXPECT_EQ(connection.cleanPellix(), 0u);
    EXPECT_EQ(connection.flushPellixFifos(), 0u);
    for (const char* line :
         {"send break (1 so far)", "force reconnection (1 so far)", "baud rate 921600",
          "flow mode 2 (xonxoff)", "USB identifiers 0x1234 0x5678", "auto-bauding (1 so far)",
          "client type 52", "persistent on", "clean:", "flush FIFOs:"})
        EXPECT_TRUE(sim.waitForErrorOutput(QString::fromLatin1(line))) << line;
    EXPECT_FALSE(sim.errorOutput().contains(QStringLiteral("skipped")));
}

TEST_F(NSConnectionSim, EventsOfTheRegisterAreSignalled)
{
    PXNSConnection raiser; // a second connection object shares the last address
    ASSERT_TRUE(raiser.openLast());
    QSignalSpy events(&connection, &PXNSConnection::eventArrived);
    QSignalSpy raiserEvents(&raiser, &PXNSConnection::eventArrived);
    EXPECT_EQ(connection.enableEvents(true), 0u);
    // The ping makes sure the server has taken the enabling before the other client writes.
    EXPECT_EQ(connection.ping(), 0u);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(raiser.write32(0xFFFFFF00, 0xCAFE0001), 0u);
    EXPECT_EQ(raiser.write32(0xFFFFFF00, 0xCAFE0002), 0u);
    ASSERT_TRUE(QTest::qWaitFor([&] { return events.count() == 2; }, 5000));
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
    EXPECT_TRUE(QTest::qWaitFor([&] { return log.names.size() >= 2; }, 5000));
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(log.names,
              (QStringList{ArrivalLog::bypassName(pxproto::debugPacket(0x21, data, sizeof data)),
                           ArrivalLog::bypassName(pxproto::debugPacket(0x21, nullptr, 0))}));
}

TEST_F(NSConnectionSim, KillEndsTheServerAndTheConnection)
{
    EXPECT_EQ(connection.killPellix(), 0u);
    EXPECT_EQ(sim.waitForExit(5000), 0);
    EXPECT_TRUE(QTest::qWaitFor([&] { return connection.ping() == 12u; }, 5000));
}

// One operation per path that checks the state (commands, queries, reads, writes, the
// bypass calls, status): each answers 12 on a connection never opened or failed to open.
TEST(NSConnectionClosed, EveryPathReturns12)
{
    PXNSConnection connection;
    unsigned char byte = 0;
    unsigned int word = 0;
    const std::vector<std::pair<const char*, std::function<unsigned int()>>> operations = {
        {"genericRead size 3", [&] { return connection.genericRead(0, false, &word, 3); }},
        {"read8", [&] { return connection.read8(0, &byte); }},
        {"readBlock", [&] { return connection.readBlock(0, &byte, 1); }},
        {"write8", [&] { return connection.write8(0, 1); }},
        {"writeBlock", [&] { return connection.writeBlock(0, &word, 4); }},
        {"enableEvents", [&] { return connection.enableEvents(true); }},
        {"setBypassFlowIds", [&] { return connection.setBypassFlowIds(&byte, 1); }},
        {"sendBypassPacket too large",
         [&] { return connection.sendBypassPacket(1, &byte, pxproto::MaxBypassData + 1); }},
        {"comBreak", [&] { return connection.comBreak(); }},
        {"getStatus", [&] { return connection.getStatus(&byte); }},
    };
    for (const auto& [name, operation] : operations)
        EXPECT_EQ(operation(), 12u) << name;
    ASSERT_FALSE(connection.open(QStringLiteral("127.0.0.1"), refusedPort()));
    EXPECT_EQ(connection.ping(), 12u);
}

TEST(NSConnectionOpen, EmptyArgumentsAndNegativeNumberReuseTheLastAddress)
{
    FakeServer server;
    ASSERT_GE(server.port(), 7700);
    PXNSConnection connection;
    ASSERT_TRUE(connection.openNum(server.port() - 7700));
    ASSERT_TRUE(server.waitForConnections(1));
    ASSERT_TRUE(connection.open(QString(), 0));
    ASSERT_TRUE(server.waitForConnections(2));
    ASSERT_TRUE(connection.openNum(-1));
    ASSERT_TRUE(server.waitForConnections(3));
    EXPECT_EQ(server.connectionCount(), 3);
}

TEST_F(NSConnectionFake, ReadsAreCutByAlignment)
{
    server.setResponder(answerReads);
    enum Kind { R8, Ri8, R16, R32, Block, Generic };
    const auto r = [](unsigned char code, quint32 a) { return pxproto::singleRead(code, a); };
    const auto b = [](quint32 a, quint32 n) { return pxproto::blockRead(a, n); };
    const struct
    {
        const char* name;
        Kind kind;
        quint32 address;
        int size;
        QList<QByteArray> requests;
    } cases[] = {
        {"read32 aligned", R32, 0x1000, 4, {r(2, 0x1000)}},
        {"read32 at 1 mod 4", R32, 0x1001, 4, {r(0, 0x1001), r(1, 0x1002), r(0, 0x1004)}},
        {"read32 at 2 mod 4", R32, 0x1002, 4, {r(1, 0x1002), r(1, 0x1004)}},
        {"read16 odd", R16, 0x2001, 2, {r(0, 0x2001), r(0, 0x2002)}},
        {"read8", R8, 0x1234, 1, {r(0, 0x1234)}},
        {"readi8", Ri8, 0x1234, 1, {r(4, 0x1234)}},
        {"10 bytes aligned", Block, 0x1000, 10, {b(0x1000, 8), r(1, 0x1008)}},
        {"8 at odd", Block, 0x1001, 8, {r(0, 0x1001), r(1, 0x1002), r(2, 0x1004), r(0, 0x1008)}},
        {"64 KiB", Block, 0, 65536, {b(0, 32768), b(0x8000, 32768)}},
        {"generic read of 64", Generic, 0x1000, 64, {b(0x1000, 64)}},
    };
    for (const auto& c : cases) {
        server.clearReceived();
        QByteArray buffer(c.size, '\0');
        auto* d = reinterpret_cast<unsigned char*>(buffer.data());
        const quint32 a = c.address;
        const unsigned int result =
            c.kind == R8      ? connection.read8(a, d)
            : c.kind == Ri8   ? connection.readi8(a, d)
            : c.kind == R16   ? connection.read16(a, reinterpret_cast<unsigned short*>(d))
            : c.kind == R32   ? connection.read32(a, reinterpret_cast<unsigned int*>(d))
            : c.kind == Block ? connection.readBlock(a, d, c.size)
                              : connection.genericRead(a, false, d, c.size);
        EXPECT_EQ(result, 0u) << c.name;
        EXPECT_EQ(buffer, memoryBytes(c.address, c.size)) << c.name;
        EXPECT_EQ(server.frames(), c.requests) << c.name;
    }
    // Sizes without a request, and bypass data over 65530 bytes, are refused before anything
    // is sent.
    unsigned int word = 0;
    QByteArray big(pxproto::MaxBypassData + 1, 'x');
    auto* bytes = reinterpret_cast<unsigned char*>(big.data());
    server.clearReceived();
    EXPECT_EQ(connection.sendBypassPacket(3, bytes, pxproto::MaxBypassData + 1), 6u);
    EXPECT_EQ(connection.sendBypassPacket(3, bytes, pxproto::MaxBypassData), 0u);
    EXPECT_EQ(connection.genericRead(0x1000, false, &word, 3), 13u);
    EXPECT_EQ(connection.genericRead(0x1000, false, &word, 0), 13u);
    EXPECT_EQ(connection.readBlock(0x1000, reinterpret_cast<unsigned char*>(&word), 0), 0u);
    EXPECT_EQ(connection.writeBlock(0x1000, &word, 0), 0u);
    EXPECT_EQ(connection.flushPellixFifos(), 0u);
    ASSERT_TRUE(server.waitForFrames(2));
    EXPECT_EQ(server.frames(),
              (QList<QByteArray>{pxproto::bypassSend(3, bytes, pxproto::MaxBypassData),
                                 pxproto::flushFifos()}));
}

TEST_F(NSConnectionFake, ReadCompletesFromSeveralFramesAndFailsAtOnceOnAMisfit)
{
    const QByteArray sixteen = memoryBytes(0x3000, 16);
    const char* d = sixteen.constData();
    const auto data = [](quint32 a, const char* p, int n) { return pxproto::readData(a, p, n); };
    const struct
    {
        const char* name;
        int size;
        QByteArray reply;
        unsigned int expected;
    } cases[] = {
        {"two frames of 8", 16, data(0x3000, d, 8) + data(0x3008, d + 8, 8), 0},
        {"ping reply first is ignored", 8, pxproto::pingReply() + data(0x3000, d, 8), 0},
        {"wrong address", 16, data(0x3004, d, 8), 13},
        {"second frame at wrong address", 16, data(0x3000, d, 8) + data(0x3000, d, 8), 13},
        {"12 bytes for 8", 8, data(0x3000, d, 12), 13},
        {"no data bytes", 8, data(0x3000, nullptr, 0), 13},
    };
    for (const auto& c : cases) {
        server.setResponder(answer(request::BlockRead, c.reply));
        QByteArray buffer(c.size, '\0');
        QElapsedTimer timer;
        timer.start();
        auto* bytes = reinterpret_cast<unsigned char*>(buffer.data());
        EXPECT_EQ(connection.readBlock(0x3000, bytes, c.size), c.expected) << c.name;
        // A misfit ends the read when it arrives, well before the 1000 ms time-out.
        EXPECT_LT(timer.elapsed(), 900) << c.name;
        EXPECT_EQ(buffer, c.expected == 0 ? sixteen.left(c.size) : buffer) << c.name;
    }
}

TEST_F(NSConnectionFake, QueriesTimeOutWithoutAMatchingReply)
{
    // Status replies of the wrong size are ignored; pings stay unanswered. A request made
    // from a slot during the ping gives up unsent when the ping's reply never comes.
    server.setResponder(
        answer(request::Status, pxproto::frame(pxproto::reply::Status, "\x01\x02", 2)));
    unsigned char status = 0x55;
    unsigned int word = 0, nested = 99;
    QTimer::singleShot(20, &connection, [&] { nested = connection.getStatus(nullptr); });
    const struct
    {
        const char* name;
        std::function<unsigned int()> query;
        int timeout;
    } cases[] = {
        {"ping", [&] { return connection.ping(); }, 500},
        {"status", [&] { return connection.getStatus(&status); }, 500},
        {"read", [&] { return connection.read32(0, &word); }, 1000},
        {"break", [&] { return connection.comBreak(); }, 2000},
    };
    for (const auto& c : cases) {
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(c.query(), 13u) << c.name;
        EXPECT_GE(timer.elapsed(), c.timeout) << c.name;
        EXPECT_LT(timer.elapsed(), c.timeout + 1500) << c.name;
    }
    EXPECT_EQ(status, 0x55);
    EXPECT_EQ(nested, 13u);
    EXPECT_EQ(server.frames(), (QList<QByteArray>{pxproto::ping(), pxproto::status(),
                                                  pxproto::singleRead(2, 0), pxproto::comBreak()}));
    // The connection is still usable.
    server.setResponder(answer(request::Ping, pxproto::pingReply()));
    EXPECT_EQ(connection.ping(), 0u);
}

TEST_F(NSConnectionFake, ReconnectTimesOutAfterFiveSeconds)
{
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(connection.forcePellixReconnect(), 13u);
    EXPECT_GE(timer.elapsed(), 5000);
    EXPECT_LT(timer.elapsed(), 7000);
}

TEST_F(NSConnectionFake, LateStatusReplyIsDiscarded)
{
    // The status reply comes 700 ms after the request, when getStatus has given up and a
    // ping (answered after 400 ms) is the request in progress.
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        answer(request::Status, pxproto::statusReply(0x77), 700)(s, client, frame);
        answer(request::Ping, pxproto::pingReply(), 400)(s, client, frame);
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
        if (flowId(frame) == request::Ping) {
            QTimer::singleShot(200, [&s, &pingReplied, client] {
                pingReplied = true;
                s.send(pxproto::pingReply(), client);
            });
        } else if (flowId(frame) == request::Status) {
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

TEST_F(NSConnectionFake, CloseFromASlotLetsTheRequestInProgressFinish)
{
    server.setResponder(answer(request::Ping, pxproto::pingReply(), 200));
    QTimer::singleShot(20, &connection, [&] { connection.close(); });
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(connection.ping(), 12u);
}

// The receiver of the last event makes a request. It runs inside the socket's readyRead()
// handling, where Qt signals no further readyRead(): the ping reply must still be taken.
TEST_F(NSConnectionFake, ArrivalsWhileIdleAreSignalledAtOnce)
{
    server.setResponder(answer(request::Ping, pxproto::pingReply()));
    ArrivalLog log(connection);
    unsigned int nested = 99;
    QObject::connect(&connection, &PXNSConnection::eventArrived, &log.context,
                     [&](qint64, uint32_t event) {
                         if (event == 0xFFFFFFFF)
                             nested = connection.ping();
                     });
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    const QByteArray packet = pxproto::debugPacket(0x21, "\x01\x02\x03", 3);
    // An event frame of length 4 is not an event; a 4-byte bypass frame is an empty packet.
    server.send(pxproto::frame(pxproto::reply::Event, "\x09\x00\x00\x00", 4) +
                pxproto::bypassFrame(QByteArray()) + pxproto::event(0x42, 0xEE) +
                pxproto::bypassFrame(packet) + pxproto::writeAck() + pxproto::frame(0x55, "zz", 2) +
                pxproto::event(0xFFFFFFFF));
    EXPECT_TRUE(QTest::qWaitFor([&] { return nested != 99; }, 3000));
    EXPECT_EQ(nested, 0u);
    EXPECT_EQ(log.names, (QStringList{"B", "E66", ArrivalLog::bypassName(packet), "E4294967295"}));
    for (qint64 stamp : log.stamps)
        EXPECT_TRUE(stamp >= before && stamp <= QDateTime::currentMSecsSinceEpoch()) << stamp;
}

TEST_F(NSConnectionFake, ArrivalsDuringARequestAreHeldBackEventsFirst)
{
    const QByteArray b1 = pxproto::debugPacket(1, "a", 1);
    const QByteArray b2 = pxproto::debugPacket(2, "b", 1);
    server.setResponder([&](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) == request::Ping) {
            s.send(pxproto::bypassFrame(b1) + pxproto::event(1), client);
            s.sendLater(pxproto::bypassFrame(b2) + pxproto::event(2), 50, client);
            s.sendLater(pxproto::pingReply(), 100, client);
        }
    });
    ArrivalLog log(connection);
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(connection.ping(), 0u);
    const qint64 returned = QDateTime::currentMSecsSinceEpoch();
    EXPECT_TRUE(log.names.isEmpty());
    EXPECT_TRUE(QTest::qWaitFor([&] { return log.names.size() == 4; }, 3000));
    EXPECT_EQ(log.names,
              (QStringList{"E1", "E2", ArrivalLog::bypassName(b1), ArrivalLog::bypassName(b2)}));
    for (qint64 stamp : log.stamps)
        EXPECT_TRUE(stamp >= before && stamp <= returned) << stamp;
}

TEST_F(NSConnectionFake, ArrivalsDuringDeliveryAreKeptAndStayInOrder)
{
    // A receiver of the first held-back event makes two requests; an event arrives during
    // the first of them and must come after the rest of the held-back ones, not be lost.
    std::atomic<int> pings{0};
    server.setResponder([&](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) != request::Ping)
            return;
        const int n = ++pings;
        s.send((n == 1   ? pxproto::event(1) + pxproto::event(2)
                : n == 2 ? pxproto::event(3)
                         : QByteArray()) +
                   pxproto::pingReply(),
               client);
    });
    ArrivalLog log(connection);
    QList<unsigned int> nested;
    QObject::connect(&connection, &PXNSConnection::eventArrived, &log.context,
                     [&](qint64, uint32_t event) {
                         if (event == 1)
                             nested << connection.ping() << connection.ping();
                     });
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_TRUE(QTest::qWaitFor([&] { return log.names.size() == 3; }, 3000));
    EXPECT_EQ(log.names, (QStringList{"E1", "E2", "E3"}));
    EXPECT_EQ(nested, (QList<unsigned int>{0, 0}));
}

TEST_F(NSConnectionFake, ServerClosingTheSocketEndsTheRequestAndLeavesItClosed)
{
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) == request::Ping)
            s.closeClient(client);
    });
    EXPECT_EQ(connection.ping(), 13u);
    EXPECT_TRUE(QTest::qWaitFor([&] { return connection.enableEvents(true) == 12u; }, 3000));
    unsigned int word;
    EXPECT_EQ(connection.read32(0, &word), 12u);
    // open() brings it back.
    ASSERT_TRUE(connection.openLast());
    server.setResponder(answer(request::Ping, pxproto::pingReply()));
    EXPECT_EQ(connection.ping(), 0u);
}
