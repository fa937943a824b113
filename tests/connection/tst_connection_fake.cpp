// PXConnection against the scripted fake server: how requests are cut, replies split,
// delayed, misfit or missing, the event and bypass queues, reopening, and the resolution of the
// server address. (Queue caps under a flood, and every request against a server that dies
// or stalls: tests/robustness/tst_faults. Handle numbering: tests/api/tst_api_noapp.)

#include "FakeServer.h"
#include "RefusedPort.h"
#include "WaitUntil.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <string>
#include <vector>

namespace {

// Answers requests with flow id `flow` with `reply`, and a `tail` 50 ms later. Answers pings
// too, so that a ping round trip proves that everything sent before it has been dispatched
// (the server's bytes arrive in order on one socket).
FakeServer::Responder answer(int flow = -1, const QByteArray& reply = {},
                             const QByteArray& tail = {})
{
    return [=](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) == pxproto::request::Ping)
            server.send(pxproto::pingReply(), client);
        if (pxproto::flowId(frame) != flow)
            return;
        server.send(reply, client);
        if (!tail.isEmpty())
            server.sendLater(tail, 50, client);
    };
}

struct Connected
{
    Connected()
    {
        server.setResponder(answer());
        EXPECT_TRUE(connection.open("127.0.0.1", server.port()));
        EXPECT_TRUE(server.waitForConnections(1));
    }
    // Everything the server sent so far has been dispatched once this returns.
    void sync() { ASSERT_EQ(connection.ping(), 0u); }

    FakeServer server;
    PXConnection connection;
};

// Callback user data: how often, and on which thread, the callback ran. With `take` set (for
// the delayed callback only: it holds no lock) it first takes every queued packet.
struct Calls
{
    PXConnection* take = nullptr;
    std::atomic<int> count{0}, taken{0};
    std::atomic<QThread*> thread{nullptr};
};

void record(void* data)
{
    auto* calls = static_cast<Calls*>(data);
    unsigned char flow, buffer[16];
    int length;
    while (calls->take && calls->take->getBypassPacket(&flow, buffer, 16, &length) == 0)
        ++calls->taken;
    calls->thread = QThread::currentThread();
    ++calls->count;
}

} // namespace

// Without a socket requests fail at once and commands return 0; with one, sizes that no
// request carries send nothing.
TEST(ConnectionFake, RequestsWithoutSocketOrWithInvalidSizesSendNothing)
{
    PXConnection lone;
    QElapsedTimer clock;
    clock.start();
    EXPECT_FALSE(lone.open("127.0.0.1", refusedPort()));
    unsigned char byte = 0, ids[] = {1};
    unsigned int word = 0;
    for (unsigned int result : {lone.read8(0, &byte), lone.write32(0, 1), lone.getStatus(&byte),
                                lone.ping(), lone.forcePellixReconnect()})
        EXPECT_EQ(result, 13u);
    for (unsigned int result : {lone.enableEvents(true), lone.setBypassFlowIds(ids, 1),
                                lone.comBreak(), lone.sendBypassPacket(1, &byte, 1)})
        EXPECT_EQ(result, 0u);
    EXPECT_LT(clock.elapsed(), 2500);

    Connected c;
    std::vector<unsigned char> big(pxproto::MaxFlowIds + 1);
    for (int size : {0, -1, 3})
        EXPECT_EQ(c.connection.genericRead(0, false, &word, size), 13u) << size;
    for (int size : {-1, -6, INT_MIN, pxproto::MaxWriteData + 1})
        EXPECT_EQ(c.connection.genericWrite(0, false, big.data(), size), 13u) << size;
    EXPECT_EQ(c.connection.readBlock(0, &byte, 0), 0u);
    // Sizes and counts that no frame carries (negative ones would write header bytes outside
    // the frame, oversized ones wrap its 16-bit length field) are refused with 6.
    for (int size : {-9, -2, -1, INT_MIN, pxproto::MaxBypassData + 1, INT_MAX})
        EXPECT_EQ(c.connection.sendBypassPacket(1, big.data(), size), 6u) << size;
    for (int count : {-8, -5, -1, INT_MIN, pxproto::MaxFlowIds + 1, INT_MAX})
        EXPECT_EQ(c.connection.setBypassFlowIds(big.data(), count), 6u) << count;
    int length = 5;
    EXPECT_EQ(c.connection.getBypassPacket(&byte, big.data(), -1, &length), 8u);
    // The flow mode travels as a 32-bit value, named or not.
    EXPECT_EQ(c.connection.setFlowMode(static_cast<PXLFlowMode>(0x12345678u)), 0u);
    c.sync();
    EXPECT_EQ(c.server.frames(),
              (QList<QByteArray>{pxproto::setFlowMode(0x12345678u), pxproto::ping()}));
    // Bypass reception was not switched on by a refused flow id list.
    c.server.send(pxproto::bypassFrame(pxproto::debugPacket(1, "x", 1)));
    c.sync();
    EXPECT_EQ(c.connection.getBypassData(big.data(), 64, &length), 8u);
}

// Each call as the requests it sends and its result; successful reads deliver exactly the
// target's bytes, assembled in order from the pieces, and nothing past the end. Block reads
// are answered from FakeServer::memoryBytes(), or with `reply` (and `tail` 50 ms later) when given.
// A read-data reply that does not fit the running read ends the read with 13 at once instead of at
// its 5000 ms time-out; one that fits may come in several frames, cut anywhere.
TEST(ConnectionFake, ReadsAndWritesAreCutByAlignmentAndSize)
{
    Connected c;
    std::vector<unsigned char> out(40000), in(65536 + 1);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<unsigned char>(i * 13 + i / 256);
    enum Kind { Ri8, R16, R32, Block, WriteBlock };
    const QByteArray m = FakeServer::memoryBytes(0x2000, 12);
    const auto r = [](unsigned char code, quint32 a) { return pxproto::singleRead(code, a); };
    const auto b = [](quint32 a, quint32 n) { return pxproto::blockRead(a, n); };
    const auto w = [&](quint32 a, int n, int from = 0) {
        return pxproto::writeRequest(a, false, &out[size_t(from)], n);
    };
    const auto data = [&](quint32 a, int n) {
        return pxproto::readData(a, m.constData() + (a - 0x2000), n);
    };
    const QByteArray second = data(0x2004, 4);
    const struct
    {
        Kind kind;
        quint32 address;
        int size;
        QList<QByteArray> requests;
        QByteArray reply, tail;
        unsigned int result;
    } cases[] = {
        {Block, 0x1000, 10, {b(0x1000, 8), r(1, 0x1008)}, {}, {}, 0},
        {Block, 0x1001, 8, {r(0, 0x1001), r(1, 0x1002), r(2, 0x1004), r(0, 0x1008)}, {}, {}, 0},
        {Block, 0x2000, 3, {r(1, 0x2000), r(0, 0x2002)}, {}, {}, 0},
        {Block, 0x4000, 65536, {b(0x4000, 32768), b(0xC000, 32768)}, {}, {}, 0},
        {R32, 0x1002, 4, {r(1, 0x1002), r(1, 0x1004)}, {}, {}, 0},
        {R32, 0x1000, 4, {r(2, 0x1000)}, {}, {}, 0},
        {R16, 0x1001, 2, {r(0, 0x1001), r(0, 0x1002)}, {}, {}, 0},
        {Ri8, 0x33, 1, {r(4, 0x33)}, {}, {}, 0},
        {WriteBlock, 0x100, 40000, {w(0x100, 32768), w(0x8100, 7232, 32768)}, {}, {}, 0},
        {WriteBlock, 0x101, 3, {w(0x101, 3)}, {}, {}, 0},
        {Block, 0x2000, 8, {b(0x2000, 8)}, data(0x2000, 4) + second.left(5), second.mid(5), 0},
        {Block, 0x2000, 8, {b(0x2000, 8)}, data(0x2004, 4), {}, 13},  // wrong address
        {Block, 0x2000, 8, {b(0x2000, 8)}, data(0x2000, 12), {}, 13}, // more than asked
        {Block, 0x2000, 8, {b(0x2000, 8)}, data(0x2000, 9), {}, 13},  // one byte more
        {Block, 0x2000, 8, {b(0x2000, 8)}, data(0x2000, 0), {}, 13},  // no data (length 4)
        {Block,
         0x2000,
         8,
         {b(0x2000, 8)},
         pxproto::frame(pxproto::reply::ReadData, "ABC", 3),
         {},
         13}, // length below 4
    };
    for (const auto& t : cases) {
        SCOPED_TRACE(testing::Message() << "kind " << t.kind << " at " << t.address << " "
                                        << t.reply.toHex().constData());
        c.server.setResponder(t.reply.isEmpty()
                                  ? FakeServer::Responder(FakeServer::memoryResponder)
                                  : answer(pxproto::request::BlockRead, t.reply, t.tail));
        c.server.clearReceived();
        std::fill(in.begin(), in.end(), 0xEE);
        auto* d = in.data();
        const quint32 a = t.address;
        QElapsedTimer clock;
        clock.start();
        const unsigned int result =
            t.kind == Ri8   ? c.connection.readi8(a, d)
            : t.kind == R16 ? c.connection.read16(a, reinterpret_cast<unsigned short*>(d))
            : t.kind == R32 ? c.connection.read32(a, reinterpret_cast<unsigned int*>(d))
            : t.kind == Block
                ? c.connection.readBlock(a, d, t.size)
                : c.connection.writeBlock(a, reinterpret_cast<unsigned int*>(&out[0]), t.size);
        EXPECT_EQ(result, t.result);
        EXPECT_LT(clock.elapsed(), 2000);
        EXPECT_EQ(c.server.frames(), t.requests);
        if (t.kind != WriteBlock && t.result == 0) {
            EXPECT_EQ(QByteArray(reinterpret_cast<char*>(d), t.size),
                      FakeServer::memoryBytes(a, t.size));
        }
        if (t.kind != WriteBlock) {
            EXPECT_EQ(in[size_t(t.size)], 0xEE) << "wrote past the end";
        }
    }
}

// Waits out the 5000 ms time-out once. A late acknowledgement finds no write pending and is
// dropped: the next write still waits for its own.
TEST(ConnectionFake, WriteWithoutAckTimesOutAndALateAckIsDropped)
{
    Connected c;
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(c.connection.write32(0x10, 0xAABBCCDD), 13u);
    EXPECT_GE(clock.elapsed(), 4900);
    c.server.send(pxproto::writeAck());
    c.sync();
    c.server.setResponder(answer(pxproto::request::Write, {}, pxproto::writeAck()));
    clock.restart();
    EXPECT_EQ(c.connection.write8(0x10, 1), 0u);
    EXPECT_GE(clock.elapsed(), 40);
}

TEST(ConnectionFake, SlowReplyStreamThatKeepsProgressingSucceeds)
{
    Connected c;
    c.server.setResponder([](FakeServer& server, int client, const QByteArray& frame) {
        // 16 bytes in four frames, 1800 ms apart: 7.2 s in all, never 5 s without progress.
        for (int i = 0; pxproto::flowId(frame) == pxproto::request::BlockRead && i < 4; ++i)
            server.sendLater(pxproto::readData(0x100 + 4 * i, "abcd", 4), 1800 * (i + 1), client);
    });
    unsigned char data[16] = {};
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(c.connection.genericRead(0x100, false, data, 16), 0u);
    EXPECT_GE(clock.elapsed(), 5500); // longer than one time-out (timers may fire 5% early)
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(data), 16), QByteArray("abcdabcdabcdabcd"));
}

// 20 while not enabled (arrivals then are dropped; disabling keeps the queue for the next
// enable), 19 for an empty queue, also after a wait; a waiter wakes for an arrival; event
// frames of the wrong length are dropped. The callback runs on the network thread.
TEST(ConnectionFake, EventQueue)
{
    Connected c;
    PXConnection& x = c.connection;
    Calls calls;
    x.setEventCallback(record, &calls);
    unsigned int e = 0;
    c.server.send(pxproto::event(1));
    c.sync();
    EXPECT_EQ(x.popEvent(&e), 20u);
    EXPECT_EQ(x.waitEvent(&e, 0), 20u);
    ASSERT_EQ(x.enableEvents(true), 0u);
    EXPECT_EQ(x.popEvent(&e), 19u);
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(x.waitEvent(&e, 200), 19u);
    EXPECT_GE(clock.elapsed(), 190);
    c.server.sendLater(pxproto::event(2), 100);
    EXPECT_EQ(x.waitEvent(&e, 5000), 0u);
    EXPECT_EQ(e, 2u);
    c.server.send(pxproto::frame(pxproto::reply::Event, "\x11\x00\x00\x00", 4) + pxproto::event(3) +
                  pxproto::frame(pxproto::reply::Event, "\x12\x00\x00\x00\x00\x00", 6) +
                  pxproto::event(4));
    c.sync();
    ASSERT_EQ(x.enableEvents(false), 0u);
    EXPECT_EQ(x.popEvent(&e), 20u);
    ASSERT_EQ(x.enableEvents(true), 0u);
    for (unsigned int expected : {3u, 4u}) {
        EXPECT_EQ(x.popEvent(&e), 0u);
        EXPECT_EQ(e, expected);
    }
    EXPECT_EQ(x.popEvent(&e), 19u);
    c.server.send(pxproto::event(5));
    c.sync();
    EXPECT_EQ(x.flushEvents(), 0u);
    EXPECT_EQ(x.popEvent(&e), 19u);
    EXPECT_EQ(calls.count.load(), 4);
    EXPECT_EQ(calls.thread.load(), PXClientManager::Instance());
}

// Packets are queued only once flow ids were set. The three takes as "result/length":
// getBypassPacket gives data and checksum, cut (and consumed) to the buffer; getBypassData
// the whole packet, or nothing when it does not fit (kept); waitBypassPacket the whole
// packet, cut and consumed. Stored packets shorter than their inner header are dropped.
// The callback runs on the network thread.
TEST(ConnectionFake, BypassQueue)
{
    Connected c;
    PXConnection& x = c.connection;
    const QByteArray packet = pxproto::debugPacket(0x21, "\x01\x02\x03\x04\x05\x06", 6);
    c.server.send(pxproto::bypassFrame(packet));
    c.sync();
    unsigned char flow = 0, buffer[64];
    int length = -1;
    auto take = [&](unsigned int result) {
        return std::to_string(result) + "/" + std::to_string(length);
    };
    auto got = [&](int n) { return QByteArray(reinterpret_cast<char*>(buffer), n); };
    EXPECT_EQ(take(x.getBypassPacket(&flow, buffer, 64, &length)), "8/0");
    Calls calls;
    x.setBypassCallback(record, &calls);
    unsigned char ids[] = {0x21};
    ASSERT_EQ(x.setBypassFlowIds(ids, 1), 0u);
    c.server.sendLater(pxproto::bypassFrame(packet), 100);
    EXPECT_EQ(take(x.waitBypassPacket(&flow, buffer, 64, &length, 5000)), "0/11");
    EXPECT_EQ(flow, 0x21);
    EXPECT_EQ(got(11), packet);
    const QByteArray p = pxproto::bypassFrame(packet);
    c.server.send(pxproto::bypassFrame(QByteArray("\xAD\x00\x01", 3)) + p + p + p + p +
                  pxproto::bypassFrame("\xAD") + p);
    c.sync();
    EXPECT_EQ(take(x.getBypassPacket(&flow, buffer, 64, &length)), "8/0"); // too short
    EXPECT_EQ(take(x.getBypassPacket(&flow, buffer, 16, &length)), "0/7");
    EXPECT_EQ(got(7), packet.mid(4));
    EXPECT_EQ(take(x.getBypassPacket(&flow, buffer, 4, &length)), "5/4");
    EXPECT_EQ(take(x.getBypassData(buffer, 10, &length)), "5/11");
    EXPECT_EQ(take(x.getBypassData(buffer, 11, &length)), "0/11");
    EXPECT_EQ(got(11), packet);
    EXPECT_EQ(take(x.waitBypassPacket(&flow, buffer, 5, &length, 1000)), "5/5");
    EXPECT_EQ(got(5), packet.left(5));
    EXPECT_EQ(take(x.waitBypassPacket(&flow, buffer, 64, &length, 0)), "8/0"); // too short
    EXPECT_EQ(x.flushBypassPackets(), 0u);
    EXPECT_EQ(take(x.getBypassData(buffer, 64, &length)), "8/0");
    EXPECT_EQ(calls.count.load(), 8);
    EXPECT_EQ(calls.thread.load(), PXClientManager::Instance());
}

// A queue holding 1001 entries is emptied before the next one is appended: 1001 arrivals are
// all kept, the 1002nd leaves only itself. Both queues follow the rule.
TEST(ConnectionFake, QueuesAreCappedAt1001)
{
    Connected c;
    unsigned char ids[] = {0x21};
    c.connection.enableEvents(true);
    c.connection.setBypassFlowIds(ids, 1);
    for (const int count : {1001, 1002}) {
        QByteArray stream;
        for (int i = 0; i < count; ++i) {
            const char id = char(i & 0x7F);
            stream += pxproto::event(quint32(count * 10 + i)) +
                      pxproto::bypassFrame(pxproto::debugPacket(0x21, &id, 1));
        }
        c.server.send(stream);
        c.sync();
        std::vector<unsigned int> events;
        unsigned int e = 0;
        while (c.connection.popEvent(&e) == 0)
            events.push_back(e);
        std::vector<int> packets;
        unsigned char flow = 0, buffer[16];
        int length = 0;
        while (c.connection.getBypassPacket(&flow, buffer, 16, &length) == 0)
            packets.push_back(buffer[0]);
        const size_t kept = count == 1001 ? 1001 : 1;
        ASSERT_EQ(events.size(), kept) << count;
        ASSERT_EQ(packets.size(), kept) << count;
        EXPECT_EQ(events.back(), unsigned(count * 10 + count - 1)) << count;
        EXPECT_EQ(packets.back(), (count - 1) & 0x7F) << count;
    }
}

// A second open drops the old socket and connects anew: queued events stay, nothing of the
// old set-up is sent again, and the delayed callback must be set again. Once set, it is
// called once per burst, after the burst; it holds no lock and may take the packets itself.
TEST(ConnectionFake, ReopenKeepsQueuesAndTheDelayedCallbackCoalescesBursts)
{
    Connected c;
    PXConnection& x = c.connection;
    x.enableEvents(true);
    unsigned char ids[] = {0x21};
    x.setBypassFlowIds(ids, 1);
    Calls delayed;
    delayed.take = &x;
    x.setBypassDelayCallback(record, &delayed, 1);
    c.server.send(pxproto::event(7) + pxproto::event(8));
    c.sync();
    ASSERT_TRUE(x.open("127.0.0.1", c.server.port()));
    ASSERT_TRUE(c.server.waitForConnections(2));
    c.server.clearReceived();
    c.sync();
    EXPECT_EQ(c.server.frames(-1), QList<QByteArray>{pxproto::ping()});
    c.server.send(pxproto::event(99), 0); // the old socket: reaches nobody
    const QByteArray packet = pxproto::bypassFrame(pxproto::debugPacket(0x21, "a", 1));
    c.server.send(packet); // queued; no delayed call
    c.sync();
    unsigned int event = 0;
    for (unsigned int expected : {7u, 8u}) {
        EXPECT_EQ(x.popEvent(&event), 0u);
        EXPECT_EQ(event, expected);
    }
    // Waits 50 ms: a delayed callback that survived the open would have fired for "a" by now.
    EXPECT_EQ(x.waitEvent(&event, 50), 19u);
    x.setBypassDelayCallback(record, &delayed, 200);
    struct Burst
    {
        int packets, calls, taken;
    };
    for (const Burst& burst : {Burst{10, 1, 11}, Burst{3, 2, 14}}) {
        c.server.send(packet.repeated(burst.packets));
        ASSERT_TRUE(waitUntil([&] { return delayed.count.load() == burst.calls; }));
        EXPECT_EQ(delayed.taken.load(), burst.taken);
    }
}

// An empty host or port 0 keeps the last value. FORCED_PELLIX_HOST and FORCED_PELLIX_PORT
// override both arguments when both are set and non-empty (the port's low 16 bits); one
// alone counts as neither.
TEST(ConnectionFake, ServerAddressResolution)
{
    const struct
    {
        const char *forcedHost, *forcedPort, *host;
        quint16 port;
        QString usedHost;
        quint16 usedPort;
    } cases[] = {{"", "", "127.0.0.1", 7701, "127.0.0.1", 7701},
                 {"", "", "", 7702, "127.0.0.1", 7702},
                 {"", "7705", "h.invalid", 0, "h.invalid", 7702},
                 {"10.1.2.3", "70000", "", 0, "10.1.2.3", 4464}};
    for (const auto& t : cases) {
        qputenv("FORCED_PELLIX_HOST", t.forcedHost);
        qputenv("FORCED_PELLIX_PORT", t.forcedPort);
        QString host;
        quint16 port = 1;
        PXClientManager::resolveServerAddress(t.host, t.port, &host, &port);
        EXPECT_EQ(host, t.usedHost) << t.host;
        EXPECT_EQ(port, t.usedPort) << t.host;
    }
    qunsetenv("FORCED_PELLIX_HOST");
    qunsetenv("FORCED_PELLIX_PORT");
}
