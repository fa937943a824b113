// PXConnection against the scripted fake server: how requests are cut, replies split,
// delayed, misfit or missing, the event and bypass queues and their caps, reopening, and the
// resolution of the server address. (Every request against a server that dies or stalls:
// tests/robustness/tst_faults. Handle numbering: tests/api/tst_api_noapp.)

#include "ConnectionChecks.h"
#include "FakeServer.h"
#include "RefusedPort.h"
#include "WaitUntil.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <tuple>
#include <vector>

using ConnectionFake = Connected<PXConnection>;

// Without a socket requests fail at once and commands return 0. With one: reads, sizes and
// writes as checkReads and checkSizesAndWrites tell.
TEST_F(ConnectionFake, RequestsWithoutSocketAndCutByAlignmentAndSize)
{
    PXConnection lone;
    QElapsedTimer clock;
    clock.start();
    EXPECT_FALSE(lone.open("127.0.0.1", refusedPort()));
    unsigned char byte = 0, ids[] = {1};
    QList<unsigned int> results{lone.read8(0, &byte), lone.write32(0, 1), lone.getStatus(&byte)};
    results << lone.ping() << lone.forcePellixReconnect() << lone.enableEvents(true)
            << lone.setBypassFlowIds(ids, 1) << lone.comBreak()
            << lone.sendBypassPacket(1, &byte, 1);
    EXPECT_EQ(results, (QList<unsigned int>{13, 13, 13, 13, 13, 0, 0, 0, 0}));
    EXPECT_LT(clock.elapsed(), 2500);
    checkReads(server, connection);
    checkSizesAndWrites(server, connection);
}

// Waits out the 5000 ms time-out once. A late acknowledgement finds no write pending and is
// dropped: the next write still waits for its own. A reply stream that keeps progressing is
// waited for however long it takes in all: 16 bytes in four frames, 1800 ms apart, 7.2 s in
// all, never 5 s without progress.
TEST_F(ConnectionFake, TimeOutCountsFromTheLastProgress)
{
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(connection.write32(0x10, 0xAABBCCDD), 13u);
    EXPECT_GE(clock.elapsed(), 4900);
    arrive(pxproto::writeAck());
    server.setResponder([](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) == pxproto::request::Write)
            return server.sendLater(pxproto::writeAck(), 50, client);
        for (int i = 0; i < 4; ++i)
            server.sendLater(pxproto::readData(0x100 + 4 * i, "abcd", 4), 1800 * (i + 1), client);
    });
    clock.restart();
    EXPECT_EQ(connection.write8(0x10, 1), 0u);
    EXPECT_GE(clock.elapsed(), 40);
    unsigned char data[16] = {};
    clock.restart();
    EXPECT_EQ(connection.genericRead(0x100, false, data, 16), 0u);
    EXPECT_GE(clock.elapsed(), 5500); // longer than one time-out (timers may fire 5% early)
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(data), 16), QByteArray("abcdabcdabcdabcd"));
}

// Events: 20 while not enabled (arrivals then are dropped; disabling keeps the queue for the
// next enable), 19 for an empty queue, also after a wait (a waiter woken by an arrival:
// tst_connection_threads); event frames of the wrong length are dropped.
// Bypass packets are queued only once flow ids were set (a refused list sets none). The three
// takes as "result/length": getBypassPacket gives data and checksum, cut (and consumed) to the
// buffer, nothing for a negative size; getBypassData the whole packet, or nothing when it does
// not fit (kept); waitBypassPacket the whole packet, cut and consumed. Stored packets shorter
// than their inner header are dropped. Both callbacks run on the network thread.
TEST_F(ConnectionFake, EventAndBypassQueues)
{
    Calls events, packets;
    connection.setEventCallback(record, &events);
    unsigned int e = 0;
    arrive(pxproto::event(1));
    EXPECT_EQ(connection.popEvent(&e), 20u);
    EXPECT_EQ(connection.waitEvent(&e, 0), 20u);
    ASSERT_EQ(connection.enableEvents(true), 0u);
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(connection.waitEvent(&e, 200), 19u);
    EXPECT_GE(clock.elapsed(), 190);
    arrive(pxproto::frame(pxproto::reply::Event, "\x11\x00\x00\x00", 4) + pxproto::event(3) +
           pxproto::frame(pxproto::reply::Event, "\x12\x00\x00\x00\x00\x00", 6) +
           pxproto::event(4));
    ASSERT_EQ(connection.enableEvents(false), 0u);
    EXPECT_EQ(connection.popEvent(&e), 20u);
    ASSERT_EQ(connection.enableEvents(true), 0u);
    EXPECT_EQ(popEvents(), (std::vector<unsigned int>{3, 4}));
    arrive(pxproto::event(5));
    EXPECT_EQ(connection.flushEvents(), 0u);
    EXPECT_EQ(connection.popEvent(&e), 19u);

    const QByteArray packet = pxproto::debugPacket(0x21, "\x01\x02\x03\x04\x05\x06", 6);
    const QByteArray p = pxproto::bypassFrame(packet);
    unsigned char flow = 0, buffer[64], ids[] = {0x21};
    ASSERT_EQ(connection.setBypassFlowIds(ids, -1), 6u);
    arrive(p);
    int length = -1;
    auto take = [&](unsigned int result) {
        return std::to_string(result) + "/" + std::to_string(length);
    };
    auto got = [&](int n) { return QByteArray(reinterpret_cast<char*>(buffer), n); };
    EXPECT_EQ(take(connection.getBypassPacket(&flow, buffer, 64, &length)), "8/0");
    connection.setBypassCallback(record, &packets);
    ASSERT_EQ(connection.setBypassFlowIds(ids, 1), 0u);
    server.sendLater(p, 100);
    EXPECT_EQ(take(connection.waitBypassPacket(&flow, buffer, 64, &length, 5000)), "0/11");
    EXPECT_EQ(flow, 0x21);
    EXPECT_EQ(got(11), packet);
    arrive(pxproto::bypassFrame(QByteArray("\xAD\x00\x01", 3)) + p.repeated(5) +
           pxproto::bypassFrame("\xAD") + p);
    EXPECT_EQ(take(connection.getBypassPacket(&flow, buffer, 64, &length)), "8/0"); // too short
    EXPECT_EQ(take(connection.getBypassPacket(&flow, buffer, 16, &length)), "0/7");
    EXPECT_EQ(got(7), packet.mid(4));
    EXPECT_EQ(take(connection.getBypassPacket(&flow, buffer, 4, &length)), "5/4");
    EXPECT_EQ(take(connection.getBypassPacket(&flow, buffer, -1, &length)), "5/0");
    EXPECT_EQ(take(connection.getBypassData(buffer, 10, &length)), "5/11");
    EXPECT_EQ(take(connection.getBypassData(buffer, 11, &length)), "0/11");
    EXPECT_EQ(got(11), packet);
    EXPECT_EQ(take(connection.waitBypassPacket(&flow, buffer, 5, &length, 1000)), "5/5");
    EXPECT_EQ(got(5), packet.left(5));
    EXPECT_EQ(take(connection.waitBypassPacket(&flow, buffer, 64, &length, 0)), "8/0"); // too short
    EXPECT_EQ(connection.flushBypassPackets(), 0u);
    EXPECT_EQ(take(connection.getBypassData(buffer, 64, &length)), "8/0");
    EXPECT_EQ(events.count.load(), 3);
    EXPECT_EQ(packets.count.load(), 9);
    for (const Calls* calls : {&events, &packets})
        EXPECT_EQ(calls->thread.load(), PXClientManager::Instance());
}

// A queue holding 1001 entries is emptied before the next one is appended: 1001 arrivals are
// all kept, the 1002nd leaves only itself. Both queues follow the rule.
TEST_F(ConnectionFake, QueuesAreCappedAt1001)
{
    unsigned char ids[] = {0x21}, flow = 0, buffer[16];
    connection.enableEvents(true);
    connection.setBypassFlowIds(ids, 1);
    for (const int count : {1001, 1002}) {
        QByteArray stream;
        for (int i = 0; i < count; ++i) {
            const char id = char(i & 0x7F);
            stream += pxproto::event(quint32(count * 10 + i)) +
                      pxproto::bypassFrame(pxproto::debugPacket(0x21, &id, 1));
        }
        arrive(stream);
        const std::vector<unsigned int> events = popEvents();
        std::vector<int> packets;
        int length = 0;
        while (connection.getBypassPacket(&flow, buffer, 16, &length) == 0)
            packets.push_back(buffer[0]);
        const size_t kept = count == 1001 ? 1001 : 1;
        ASSERT_EQ(events.size(), kept) << count;
        ASSERT_EQ(packets.size(), kept) << count;
        EXPECT_EQ(events.back(), unsigned(count * 10 + count - 1)) << count;
        EXPECT_EQ(packets.back(), (count - 1) & 0x7F) << count;
    }
}

// A second open drops the old socket and connects anew: queued events stay, a frame cut short
// on the old socket is forgotten (well within the 2 s after which the parser would drop it by
// itself: it would swallow the reply to the ping after the open), nothing of the old set-up is sent
// again, and the delayed callback must be set again. Once set, it is called once per burst, after
// the burst; it holds no lock and may take the packets itself.
TEST_F(ConnectionFake, ReopenKeepsQueuesAndTheDelayedCallbackCoalescesBursts)
{
    connection.enableEvents(true);
    unsigned char ids[] = {0x21};
    connection.setBypassFlowIds(ids, 1);
    Calls delayed, before;
    delayed.take = &connection;
    connection.setBypassDelayCallback(record, &delayed, 1);
    connection.setEventCallback(record, &before);
    server.send(pxproto::event(7) + pxproto::event(8) + pxproto::event(9).left(4));
    ASSERT_TRUE(waitUntil([&] { return before.count.load() == 2; }));
    ASSERT_TRUE(connection.open("127.0.0.1", server.port()));
    ASSERT_TRUE(server.waitForConnections(2));
    server.clearReceived();
    sync();
    EXPECT_EQ(server.frames(), QList<QByteArray>{pxproto::ping()});
    server.send(pxproto::event(99), 0); // the old socket: reaches nobody
    const QByteArray packet = pxproto::bypassFrame(pxproto::debugPacket(0x21, "a", 1));
    arrive(packet); // queued; no delayed call
    EXPECT_EQ(popEvents(), (std::vector<unsigned int>{7, 8}));
    unsigned int event = 0;
    // Waits 50 ms: a delayed callback that survived the open would have fired for "a" by now.
    EXPECT_EQ(connection.waitEvent(&event, 50), 19u);
    connection.setBypassDelayCallback(record, &delayed, 200);
    // Bursts of 10 and 3 packets: one call each, which takes the packets queued so far.
    for (const auto& [burst, calls, taken] : {std::tuple{10, 1, 11}, std::tuple{3, 2, 14}}) {
        server.send(packet.repeated(burst));
        ASSERT_TRUE(waitUntil([&, calls = calls] { return delayed.count.load() == calls; }));
        EXPECT_EQ(delayed.taken.load(), taken);
    }
}

// An empty host or port 0 keeps the last value. FORCED_PELLIX_HOST and FORCED_PELLIX_PORT
// override both arguments when both are set and non-empty (the port's low 16 bits); one
// alone counts as neither. Each row: forced host and port, arguments, then what is used.
TEST(ConnectionAddress, ServerAddressResolution)
{
    using Row = std::tuple<const char*, const char*, const char*, quint16, const char*, quint16>;
    for (const auto& [forcedHost, forcedPort, host, port, usedHost, usedPort] :
         {Row{"", "", "127.0.0.1", 7701, "127.0.0.1", 7701},
          Row{"", "", "", 7702, "127.0.0.1", 7702},
          Row{"", "7705", "h.invalid", 0, "h.invalid", 7702},
          Row{"10.1.2.3", "70000", "", 0, "10.1.2.3", 4464}}) {
        qputenv("FORCED_PELLIX_HOST", forcedHost);
        qputenv("FORCED_PELLIX_PORT", forcedPort);
        QString resolvedHost;
        quint16 resolvedPort = 1;
        PXClientManager::resolveServerAddress(host, port, &resolvedHost, &resolvedPort);
        EXPECT_EQ(resolvedHost, usedHost) << host;
        EXPECT_EQ(resolvedPort, usedPort) << host;
    }
    qunsetenv("FORCED_PELLIX_HOST");
    qunsetenv("FORCED_PELLIX_PORT");
}
