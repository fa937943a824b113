// PXNSConnection under a QCoreApplication, against the scripted fake server: the requests it
// writes, time-outs, nesting, hold-back order, replies a correct server never sends, the
// server going away. (Against the real simulator: the churn case of tests/robustness/tst_stress.)

#include "ConnectionChecks.h"
#include "FakeServer.h"
#include "RefusedPort.h"

#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QTimer>
#include <QtTest>

#include <gtest/gtest.h>

#include <functional>
#include <vector>

// Every case connects to the address it names: a forced address from the environment is cleared.
[[maybe_unused]] const bool unforced =
    qunsetenv("FORCED_PELLIX_HOST") && qunsetenv("FORCED_PELLIX_PORT");

using pxproto::flowId;
namespace request = pxproto::request;

using NSConnectionFake = Connected<PXNSConnection>;

// Reads, sizes and writes: see checkReads (the time-out here is 1000 ms) and
// checkSizesAndWrites (writes and commands are written at once, unanswered).
TEST_F(NSConnectionFake, ReadsWritesAndCommands)
{
    checkReads(server, connection);
    checkSizesAndWrites(server, connection);
}

// Each query waits for its own time-out. Status replies of the wrong size are ignored, and so
// is a right one that comes after getStatus gave up (during the read). A request made from a
// slot while a ping waits is sent once the ping's reply is in, and gives up unsent after its
// own time-out when that reply never comes; close() from a slot lets the request in progress
// finish.
TEST_F(NSConnectionFake, QueriesTimeOutAndRequestsFromASlotWaitForTheRequestInProgress)
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

    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) == request::Ping)
            s.sendLater(pxproto::pingReply(), 200, client);
        else if (flowId(frame) == request::Status)
            s.send(pxproto::statusReply(7), client);
    });
    server.clearReceived();
    QElapsedTimer clock;
    clock.start();
    qint64 nestedDone = 0;
    QTimer::singleShot(20, &connection, [&] {
        nested = connection.getStatus(&status);
        nestedDone = clock.elapsed();
    });
    EXPECT_EQ(connection.ping(), 0u) << "still usable";
    EXPECT_EQ(nested, 0u);
    EXPECT_EQ(status, 7);
    EXPECT_GE(nestedDone, 190) << "the status request went out before the ping's reply";
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
    // Both arrival signals in emission order, so that the order across the two kinds shows:
    // "E<id>" for an event, "B<hex>" for a bypass packet, with the stamps alongside.
    QStringList names;
    QList<qint64> stamps;
    QList<unsigned int> nested;
    const auto bypass = [](const QByteArray& b) { return "B" + QString::fromLatin1(b.toHex()); };
    const auto add = [&](qint64 t, const QString& name) {
        names << name;
        stamps << t;
    };
    QObject::connect(&connection, &PXNSConnection::bypassArrived, &connection,
                     [&](qint64 t, const QByteArray& b) { add(t, bypass(b)); });
    QObject::connect(&connection, &PXNSConnection::eventArrived, &connection,
                     [&](qint64 t, uint32_t event) {
                         add(t, QStringLiteral("E%1").arg(event));
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
    const QStringList idle{"B", "E66", bypass(packet), "E4294967295"};
    EXPECT_EQ(names, idle);
    const qint64 requested = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(connection.ping(), 0u);
    const qint64 returned = QDateTime::currentMSecsSinceEpoch();
    EXPECT_EQ(names, idle);
    ASSERT_TRUE(QTest::qWaitFor([&] { return names.size() == 9; }, 3000));
    const QStringList held{"E1", "E2", bypass(b1), bypass(b2), "E3"};
    EXPECT_EQ(names, idle + held);
    EXPECT_EQ(nested, (QList<unsigned int>{0, 0, 0}));
    for (int i = 0; i < 8; ++i) {
        EXPECT_GE(stamps[i], i < 4 ? before : requested) << i;
        EXPECT_LE(stamps[i], i < 4 ? requested : returned) << i;
    }
}

// The server closing the socket ends a request at once and leaves the connection closed
// until it is opened again, also through the last address (empty arguments, a negative
// number) or the number of the port. Every operation answers 12 on a connection so closed,
// never opened or failed to open, before it checks its arguments: one per kind of path (read,
// block read, write, command, bypass, query, status).
TEST_F(NSConnectionFake, ServerClosingEndsTheConnectionUntilItIsOpenedAgain)
{
    const auto everyPathReturns12 = [](PXNSConnection& c) {
        unsigned char byte = 0;
        unsigned int word = 0;
        QVector<unsigned int> results{c.genericRead(0, false, &word, 3), c.readBlock(0, &byte, 1)};
        results << c.writeBlock(0, &word, 4) << c.setBypassFlowIds(&byte, 1) << c.comBreak()
                << c.sendBypassPacket(1, &byte, 65531) << c.getStatus(&byte) << c.ping();
        EXPECT_EQ(results, QVector<unsigned int>(8, 12u));
    };
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) == request::Ping)
            s.closeClient(client);
    });
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(connection.ping(), 13u);
    EXPECT_LT(timer.elapsed(), 400);
    EXPECT_TRUE(QTest::qWaitFor([&] { return connection.enableEvents(true) == 12u; }, 3000));
    PXNSConnection other;
    everyPathReturns12(connection);
    everyPathReturns12(other);
    server.setResponder(answerPings);
    ASSERT_GE(server.port(), 7700);
    for (int opened = 2; opened <= 4; ++opened) {
        ASSERT_TRUE(opened == 2   ? connection.open(QString(), 0)
                    : opened == 3 ? connection.openNum(-1)
                                  : connection.openNum(server.port() - 7700));
        ASSERT_TRUE(server.waitForConnections(opened));
        EXPECT_EQ(connection.ping(), 0u) << opened;
    }
    ASSERT_FALSE(other.open(QStringLiteral("127.0.0.1"), refusedPort()));
    everyPathReturns12(other);
}
