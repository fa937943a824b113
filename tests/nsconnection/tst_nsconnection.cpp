// PXNSConnection under a QCoreApplication, against the scripted fake server: the requests it
// writes, time-outs, nesting, hold-back order, replies a correct server never sends, the
// server going away. (Against the real simulator: the churn case of tests/robustness/tst_stress.)

#include "FakeServer.h"
#include "RefusedPort.h"

#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QTimer>
#include <QtTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <functional>
#include <numeric>
#include <vector>

namespace {

// Every case connects to the address it names: a forced address from the environment is cleared.
[[maybe_unused]] const bool unforced =
    qunsetenv("FORCED_PELLIX_HOST") && qunsetenv("FORCED_PELLIX_PORT");

using pxproto::flowId;
namespace request = pxproto::request;

// Both arrival signals in emission order, so that the order across the two kinds can be
// checked: "E<id>" for an event, "B<hex>" for a bypass packet, with the stamps alongside.
struct ArrivalLog
{
    explicit ArrivalLog(PXNSConnection& c)
    {
        QObject::connect(&c, &PXNSConnection::eventArrived, &context,
                         [this](qint64 t, uint32_t e) { add(t, QStringLiteral("E%1").arg(e)); });
        QObject::connect(&c, &PXNSConnection::bypassArrived, &context,
                         [this](qint64 t, const QByteArray& b) { add(t, name(b)); });
    }
    static QString name(const QByteArray& b) { return "B" + QString::fromLatin1(b.toHex()); }
    void add(qint64 stamp, const QString& what)
    {
        names << what;
        stamps << stamp;
    }

    QObject context;
    QStringList names;
    QList<qint64> stamps;
};

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

} // namespace

// Every operation answers 12 on a connection never opened or failed to open, before it
// checks its arguments: one per kind of path (read, block read, write, command, bypass,
// query, status).
TEST(NSConnectionClosed, EveryPathReturns12)
{
    PXNSConnection connection;
    unsigned char byte = 0;
    unsigned int word = 0;
    const unsigned int results[] = {connection.genericRead(0, false, &word, 3),
                                    connection.readBlock(0, &byte, 1),
                                    connection.writeBlock(0, &word, 4),
                                    connection.setBypassFlowIds(&byte, 1),
                                    connection.sendBypassPacket(1, &byte, 65531),
                                    connection.comBreak(),
                                    connection.getStatus(&byte)};
    for (size_t i = 0; i < std::size(results); ++i)
        EXPECT_EQ(results[i], 12u) << "call " << i;
    ASSERT_FALSE(connection.open(QStringLiteral("127.0.0.1"), refusedPort()));
    EXPECT_EQ(connection.ping(), 12u);
}

// Each read as the requests it sends, its result and the bytes it delivers. Block reads are
// answered from FakeServer::memoryBytes(), or with `reply` when given: frames that may not fit the
// read. A misfit ends the read when it arrives, well before the 1000 ms time-out.
TEST_F(NSConnectionFake, ReadsAreCutByAlignmentAndEndAtOnceOnAMisfit)
{
    enum Kind { R8, Ri8, R16, R32, Block };
    const QByteArray m = FakeServer::memoryBytes(0x3000, 16);
    const auto r = [](unsigned char code, quint32 a) { return pxproto::singleRead(code, a); };
    const auto b = [](quint32 a, quint32 n) { return pxproto::blockRead(a, n); };
    const auto data = [&](quint32 a, int n) {
        return pxproto::readData(a, m.constData() + (a - 0x3000), n);
    };
    const struct
    {
        Kind kind;
        quint32 address;
        int size;
        QList<QByteArray> requests;
        QByteArray reply;
        unsigned int result;
    } cases[] = {
        {R32, 0x1000, 4, {r(2, 0x1000)}, {}, 0},
        {R32, 0x1001, 4, {r(0, 0x1001), r(1, 0x1002), r(0, 0x1004)}, {}, 0},
        {R32, 0x1002, 4, {r(1, 0x1002), r(1, 0x1004)}, {}, 0},
        {R16, 0x2001, 2, {r(0, 0x2001), r(0, 0x2002)}, {}, 0},
        {R8, 0x1234, 1, {r(0, 0x1234)}, {}, 0},
        {Ri8, 0x1234, 1, {r(4, 0x1234)}, {}, 0},
        {Block, 0x1000, 10, {b(0x1000, 8), r(1, 0x1008)}, {}, 0},
        {Block, 0x1001, 8, {r(0, 0x1001), r(1, 0x1002), r(2, 0x1004), r(0, 0x1008)}, {}, 0},
        {Block, 0, 65536, {b(0, 32768), b(0x8000, 32768)}, {}, 0},
        {Block, 0x3000, 16, {b(0x3000, 16)}, data(0x3000, 8) + data(0x3008, 8), 0},
        {Block, 0x3000, 8, {b(0x3000, 8)}, pxproto::pingReply() + data(0x3000, 8), 0},
        {Block, 0x3000, 8, {b(0x3000, 8)}, data(0x3004, 8), 13},
        {Block, 0x3000, 8, {b(0x3000, 8)}, data(0x3000, 12), 13},
        {Block, 0x3000, 8, {b(0x3000, 8)}, data(0x3000, 0), 13},
        {Block, 0x3000, 16, {b(0x3000, 16)}, data(0x3000, 8) + data(0x3000, 8), 13},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "kind " << c.kind << " at " << c.address << " "
                                        << c.reply.toHex().constData());
        server.setResponder(c.reply.isEmpty() ? FakeServer::Responder(FakeServer::memoryResponder)
                                              : answer(request::BlockRead, c.reply));
        server.clearReceived();
        QByteArray buffer(c.size, '\0');
        auto* d = reinterpret_cast<unsigned char*>(buffer.data());
        const quint32 a = c.address;
        QElapsedTimer timer;
        timer.start();
        const unsigned int result =
            c.kind == R8    ? connection.read8(a, d)
            : c.kind == Ri8 ? connection.readi8(a, d)
            : c.kind == R16 ? connection.read16(a, reinterpret_cast<unsigned short*>(d))
            : c.kind == R32 ? connection.read32(a, reinterpret_cast<unsigned int*>(d))
                            : connection.readBlock(a, d, c.size);
        EXPECT_EQ(result, c.result);
        EXPECT_LT(timer.elapsed(), 900);
        if (c.result == 0) {
            EXPECT_EQ(buffer, FakeServer::memoryBytes(c.address, c.size));
        }
        EXPECT_EQ(server.frames(), c.requests);
    }
}

// Writes and commands are written at once, unanswered; sizes that no frame carries are
// refused before anything is sent.
TEST_F(NSConnectionFake, WritesAndCommandsAreSentAtOnce)
{
    std::vector<unsigned int> words(16384);
    std::iota(words.begin(), words.end(), 0x5A5A0000u);
    const auto* bytes = reinterpret_cast<const char*>(words.data());
    auto* data = reinterpret_cast<unsigned char*>(words.data());
    for (const unsigned int result :
         {connection.writei8(0x20, 0x3C), connection.writeBlock(0x40001, words.data(), 40000),
          connection.writeBlock(0, nullptr, 0), connection.readBlock(0, data, 0),
          connection.sendBypassPacket(3, data, pxproto::MaxBypassData)})
        EXPECT_EQ(result, 0u);
    for (int size : {pxproto::MaxBypassData + 1, -9, -2, INT_MIN})
        EXPECT_EQ(connection.sendBypassPacket(3, data, size), 6u) << size;
    for (int count : {pxproto::MaxFlowIds + 1, -8, -5, INT_MIN})
        EXPECT_EQ(connection.setBypassFlowIds(data, count), 6u) << count;
    for (int size : {-6, -1, pxproto::MaxWriteData + 1})
        EXPECT_EQ(connection.genericWrite(0x1000, false, data, size), 13u) << size;
    EXPECT_EQ(connection.genericRead(0x1000, false, data, 3), 13u);
    EXPECT_EQ(connection.genericRead(0x1000, false, data, 0), 13u);
    EXPECT_EQ(connection.setFlowMode(static_cast<PXLFlowMode>(0xFFFFFFFFu)), 0u);
    EXPECT_EQ(connection.flushPellixFifos(), 0u);
    const QList<QByteArray> expected = {
        pxproto::writeRequest(0x20, true, "\x3C", 1),
        pxproto::writeRequest(0x40001, false, bytes, 32768),
        pxproto::writeRequest(0x48001, false, bytes + 32768, 40000 - 32768),
        pxproto::bypassSend(3, bytes, pxproto::MaxBypassData),
        pxproto::setFlowMode(0xFFFFFFFFu),
        pxproto::flushFifos()};
    ASSERT_TRUE(server.waitForFrames(int(expected.size())));
    EXPECT_EQ(server.frames(), expected);
}

// Each query waits for its own time-out. Status replies of the wrong size are ignored, and so
// is a right one that comes after getStatus gave up (during the read). A request made from a
// slot during the ping gives up unsent after its own time-out when the ping's reply never
// comes.
TEST_F(NSConnectionFake, QueriesTimeOutWithoutAMatchingReply)
{
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) != request::Status)
            return;
        s.send(pxproto::frame(pxproto::reply::Status, "\x01\x02", 2), client);
        s.sendLater(pxproto::statusReply(0x77), 700, client);
    });
    unsigned char status = 0x55;
    unsigned int word = 0, nested = 99;
    QTimer::singleShot(20, &connection, [&] { nested = connection.getStatus(nullptr); });
    const std::vector<std::pair<int, std::function<unsigned int()>>> cases = {
        {500, [&] { return connection.ping(); }},
        {500, [&] { return connection.getStatus(&status); }},
        {1000, [&] { return connection.read32(0, &word); }},
        {2000, [&] { return connection.comBreak(); }},
        {5000, [&] { return connection.forcePellixReconnect(); }},
    };
    for (const auto& [timeout, query] : cases) {
        QElapsedTimer timer;
        timer.start();
        EXPECT_EQ(query(), 13u) << timeout;
        EXPECT_GE(timer.elapsed(), timeout);
        EXPECT_LT(timer.elapsed(), timeout + 1500);
    }
    EXPECT_EQ(status, 0x55);
    EXPECT_EQ(nested, 13u);
    EXPECT_EQ(server.frames(),
              (QList<QByteArray>{pxproto::ping(), pxproto::status(), pxproto::singleRead(2, 0),
                                 pxproto::comBreak(), pxproto::forceReconnect()}));
    server.setResponder(answer(request::Ping, pxproto::pingReply()));
    EXPECT_EQ(connection.ping(), 0u) << "still usable";
}

// A request made from a slot while a ping waits is sent once the ping's reply is in; close()
// from a slot lets the request in progress finish.
TEST_F(NSConnectionFake, RequestsAndCloseFromASlotWaitForTheRequestInProgress)
{
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) == request::Ping)
            s.sendLater(pxproto::pingReply(), 200, client);
        else if (flowId(frame) == request::Status)
            s.send(pxproto::statusReply(7), client);
    });
    QElapsedTimer clock;
    clock.start();
    unsigned int inner = 99;
    qint64 innerDone = 0;
    unsigned char status = 0;
    QTimer::singleShot(20, &connection, [&] {
        inner = connection.getStatus(&status);
        innerDone = clock.elapsed();
    });
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(inner, 0u);
    EXPECT_EQ(status, 7);
    EXPECT_GE(innerDone, 190) << "the status request went out before the ping's reply";
    EXPECT_EQ(server.frames(), (QList<QByteArray>{pxproto::ping(), pxproto::status()}));
    QTimer::singleShot(20, &connection, [&] { connection.close(); });
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_EQ(connection.ping(), 12u);
}

// Arrivals while idle are signalled at once, from the socket's readyRead() handling; the
// receiver of the last one makes a request there, where Qt signals no further readyRead():
// its reply must still be taken. Arrivals during a request are held back and signalled after
// it, events first, with their arrival stamps. A receiver of the first held-back event makes
// two requests; an event that arrives during the first of them comes after the rest of the
// held-back ones, not lost.
TEST_F(NSConnectionFake, ArrivalsAreSignalledAtOnceOrHeldBackEventsFirst)
{
    const QByteArray b1 = pxproto::debugPacket(1, "a", 1), b2 = pxproto::debugPacket(2, "b", 1);
    int pings = 0; // server thread only
    server.setResponder([&](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) != request::Ping)
            return;
        if (++pings != 2)
            return s.send((pings == 3 ? pxproto::event(3) : QByteArray()) + pxproto::pingReply(),
                          client);
        s.send(pxproto::bypassFrame(b1) + pxproto::event(1), client);
        s.sendLater(pxproto::bypassFrame(b2) + pxproto::event(2), 50, client);
        s.sendLater(pxproto::pingReply(), 100, client);
    });
    ArrivalLog log(connection);
    QList<unsigned int> nested;
    QObject::connect(&connection, &PXNSConnection::eventArrived, &log.context,
                     [&](qint64, uint32_t event) {
                         if (event == 0xFFFFFFFF || event == 1)
                             nested << connection.ping();
                         if (event == 1)
                             nested << connection.ping();
                     });
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    const QByteArray packet = pxproto::debugPacket(0x21, "\x01\x02\x03", 3);
    // An event frame of length 4 is not an event; a 4-byte bypass frame is an empty packet.
    server.send(pxproto::frame(pxproto::reply::Event, "\x09\x00\x00\x00", 4) +
                pxproto::bypassFrame(QByteArray()) + pxproto::event(0x42, 0xEE) +
                pxproto::bypassFrame(packet) + pxproto::writeAck() + pxproto::frame(0x55, "zz", 2) +
                pxproto::event(0xFFFFFFFF));
    ASSERT_TRUE(QTest::qWaitFor([&] { return nested.size() == 1; }, 3000));
    const QStringList idle{"B", "E66", ArrivalLog::name(packet), "E4294967295"};
    EXPECT_EQ(log.names, idle);
    const qint64 requested = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(connection.ping(), 0u);
    const qint64 returned = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(log.names, idle);
    ASSERT_TRUE(QTest::qWaitFor([&] { return log.names.size() == 9; }, 3000));
    const QStringList held{"E1", "E2", ArrivalLog::name(b1), ArrivalLog::name(b2), "E3"};
    EXPECT_EQ(log.names, idle + held);
    EXPECT_EQ(nested, (QList<unsigned int>{0, 0, 0}));
    const auto stampedWithin = [&](int from, int to, qint64 earliest, qint64 latest) {
        return std::all_of(log.stamps.begin() + from, log.stamps.begin() + to,
                           [=](qint64 t) { return t >= earliest && t <= latest; });
    };
    EXPECT_TRUE(stampedWithin(0, 4, before, requested));
    EXPECT_TRUE(stampedWithin(4, 8, requested, returned));
}

// The server closing the socket ends a request at once and leaves the connection closed
// until it is opened again, also through the last address (empty arguments, a negative
// number) or the number of the port.
TEST_F(NSConnectionFake, ServerClosingEndsTheConnectionUntilItIsOpenedAgain)
{
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) == request::Ping)
            s.closeClient(client);
    });
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(connection.ping(), 13u);
    EXPECT_LT(timer.elapsed(), 400);
    EXPECT_TRUE(QTest::qWaitFor([&] { return connection.enableEvents(true) == 12u; }, 3000));
    unsigned int word;
    EXPECT_EQ(connection.read32(0, &word), 12u);
    server.setResponder(answer(request::Ping, pxproto::pingReply()));
    ASSERT_GE(server.port(), 7700);
    for (int opened = 2; opened <= 4; ++opened) {
        ASSERT_TRUE(opened == 2   ? connection.open(QString(), 0)
                    : opened == 3 ? connection.openNum(-1)
                                  : connection.openNum(server.port() - 7700));
        ASSERT_TRUE(server.waitForConnections(opened));
        EXPECT_EQ(connection.ping(), 0u) << opened;
    }
}
