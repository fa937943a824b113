// PXConnection against the scripted fake server: replies a correct server never produces,
// replies split or delayed, silence, and the connection's own bookkeeping (handles, address).

#include "FakeServer.h"
#include "WaitUntil.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <vector>

namespace {

// Answers pings, so that a ping round trip proves that everything sent before it has been
// dispatched (the server's bytes arrive in order on one socket).
void answerPings(FakeServer& server, int client, const QByteArray& frame)
{
    if (pxproto::flowId(frame) == pxproto::request::Ping)
        server.send(pxproto::pingReply(), client);
}

// Answers requests with flow id `flow` with `reply`, pings as above.
FakeServer::Responder answer(int flow, const QByteArray& reply, int delayMs = 0)
{
    return [=](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) == flow)
            server.sendLater(reply, delayMs, client);
        answerPings(server, client, frame);
    };
}

struct Connected
{
    Connected()
    {
        server.setResponder(answerPings);
        EXPECT_TRUE(connection.open("127.0.0.1", server.port()));
        EXPECT_TRUE(server.waitForConnections(1));
    }
    // Everything the server sent so far has been dispatched once this returns.
    void sync() { ASSERT_EQ(connection.ping(), 0u); }

    FakeServer server;
    PXConnection connection;
};

// A small target: reads answered with as many bytes as asked (0xA5), writes acknowledged.
void memoryResponder(FakeServer& server, int client, const QByteArray& frame)
{
    const auto* p = reinterpret_cast<const unsigned char*>(frame.constData());
    const int flow = pxproto::flowId(frame);
    if (flow == pxproto::request::Read && p[4] >= pxproto::access::Write8)
        return server.send(pxproto::writeAck(), client);
    if (flow != pxproto::request::Read && flow != pxproto::request::BlockRead)
        return;
    const int count = flow == pxproto::request::BlockRead ? int(pxproto::getLe32(p + 9))
                      : p[4] == pxproto::access::Read16   ? 2
                      : p[4] == pxproto::access::Read32   ? 4
                                                          : 1;
    const QByteArray data(count, '\xA5');
    server.send(pxproto::readData(pxproto::getLe32(p + 5), data.constData(), count), client);
}

} // namespace

TEST(ConnectionFake, ReadAssembledFromSeveralFrames)
{
    Connected c;
    c.server.setResponder([](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) != pxproto::request::BlockRead)
            return;
        // Second frame split across two writes: dispatch must wait for its rest.
        const QByteArray f2 = pxproto::readData(0x1008, "89abcdef", 8);
        server.send(pxproto::readData(0x1000, "01234567", 8) + f2.left(5), client);
        server.sendLater(f2.mid(5), 50, client);
    });
    unsigned char data[16] = {};
    EXPECT_EQ(c.connection.genericRead(0x1000, false, data, 16), 0u);
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(data), 16), QByteArray("0123456789abcdef"));
}

// Each rule for a read-data reply that does not fit the running read ends the read with 13 at
// once instead of letting it run into its 5000 ms time-out.
TEST(ConnectionFake, NonFittingReadDataFailsAtOnce)
{
    const char eight[] = "ABCDEFGH";
    const std::vector<std::pair<const char*, QByteArray>> cases = {
        {"wrong address", pxproto::readData(0x2004, eight, 4)},
        {"more bytes than asked", pxproto::readData(0x2000, eight, 8)},
        {"no data bytes (length 4)", pxproto::readData(0x2000, eight, 0)},
        {"length below 4", pxproto::frame(pxproto::reply::ReadData, eight, 3)},
        {"fits (the connection still works)", pxproto::readData(0x2000, "wxyz", 4)},
    };
    Connected c;
    unsigned char value[5] = {};
    for (size_t i = 0; i < cases.size(); ++i) {
        const auto& [what, reply] = cases[i];
        c.server.setResponder(answer(pxproto::request::Read, reply));
        QElapsedTimer clock;
        clock.start();
        const bool fits = i + 1 == cases.size();
        EXPECT_EQ(c.connection.genericRead(0x2000, false, value, 4), fits ? 0u : 13u) << what;
        EXPECT_LT(clock.elapsed(), 2000) << what;
    }
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(value)), "wxyz");
}

// Waits out the 5000 ms time-out twice: a write never acknowledged, a status reply of the
// wrong size.
TEST(ConnectionFake, WriteWithoutAckAndStatusOfWrongSizeTimeOut)
{
    Connected c;
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(c.connection.write32(0x10, 0xAABBCCDD), 13u);
    EXPECT_GE(clock.elapsed(), 4900);
    // A late acknowledgement finds no write pending and is dropped: the next write still
    // waits for its own, which the server sends 300 ms late.
    c.server.send(pxproto::writeAck());
    c.sync();
    c.server.setResponder(answer(pxproto::request::Write, pxproto::writeAck(), 300));
    clock.restart();
    EXPECT_EQ(c.connection.write8(0x10, 1), 0u);
    EXPECT_GE(clock.elapsed(), 250);

    c.server.setResponder(
        answer(pxproto::request::Status, pxproto::frame(pxproto::reply::Status, "\x01\x02", 2)));
    unsigned char status = 0x55;
    EXPECT_EQ(c.connection.getStatus(&status), 13u);
    EXPECT_EQ(status, 0x55);
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

// Event frames of the wrong length and stored bypass packets shorter than their inner header
// are dropped without a trace; the valid ones around them are queued.
TEST(ConnectionFake, MalformedEventsAndShortBypassPacketsAreDropped)
{
    Connected c;
    std::atomic<int> calls{0};
    c.connection.setEventCallback([](void* p) { ++*static_cast<std::atomic<int>*>(p); }, &calls);
    EXPECT_EQ(c.connection.enableEvents(true), 0u);
    unsigned char ids[] = {0x21};
    c.connection.setBypassFlowIds(ids, 1);
    c.server.send(pxproto::frame(pxproto::reply::Event, "\x11\x00\x00\x00", 4) +
                  pxproto::frame(pxproto::reply::Event, "\x12\x00\x00\x00\x00\x00", 6) +
                  pxproto::event(0x13) + pxproto::bypassFrame(QByteArray("\xAD\x00\x01", 3)) +
                  pxproto::bypassFrame(QByteArray("\xAD", 1)));
    c.sync();
    unsigned int event = 0;
    EXPECT_EQ(c.connection.popEvent(&event), 0u);
    EXPECT_EQ(event, 0x13u);
    EXPECT_EQ(c.connection.popEvent(&event), 19u);
    EXPECT_EQ(calls.load(), 1);
    unsigned char flow = 0x99, buffer[16];
    int length = 77;
    EXPECT_EQ(c.connection.getBypassPacket(&flow, buffer, 16, &length), 8u);
    EXPECT_EQ(length, 0);
    length = 77;
    EXPECT_EQ(c.connection.waitBypassPacket(&flow, buffer, 16, &length, 0), 8u);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(flow, 0x99);
    c.server.send(pxproto::bypassFrame(pxproto::debugPacket(0x21, "ok", 2)));
    c.sync();
    EXPECT_EQ(c.connection.getBypassPacket(&flow, buffer, 16, &length), 0u);
    EXPECT_EQ(flow, 0x21);
    EXPECT_EQ(length, 3);
}

// With more than 1000 entries queued, the next arrival empties the queue first.
TEST(ConnectionFake, QueuesAreCappedAt1001)
{
    Connected c;
    unsigned char ids[] = {0x21};
    c.connection.enableEvents(true);
    c.connection.setBypassFlowIds(ids, 1);
    const QByteArray packet = pxproto::bypassFrame(pxproto::debugPacket(0x21, "x", 1));
    for (const int count : {1001, 1002}) {
        QByteArray stream;
        for (int i = 0; i < count; ++i)
            stream += pxproto::event(quint32(count * 10 + i)) + packet;
        c.server.send(stream);
        c.sync();
        std::vector<unsigned int> events;
        unsigned int e;
        while (c.connection.popEvent(&e) == 0)
            events.push_back(e);
        int packets = 0;
        unsigned char flow, buffer[16];
        int length;
        while (c.connection.getBypassPacket(&flow, buffer, 16, &length) == 0)
            ++packets;
        const int kept = count == 1001 ? 1001 : 1;
        ASSERT_EQ(events.size(), size_t(kept)) << count;
        EXPECT_EQ(events.back(), unsigned(count * 10 + count - 1));
        EXPECT_EQ(packets, kept) << count;
    }
}

TEST(ConnectionFake, ForcedHostAndPortOverrideBothArguments)
{
    FakeServer forced;
    FakeServer named;
    const QByteArray forcedPort = QByteArray::number(forced.port());
    struct Case
    {
        QByteArray host, port;
        FakeServer* reached;
    };
    // Only one of the two set counts as neither set.
    for (const Case& c : {Case{"127.0.0.1", forcedPort, &forced}, Case{"", forcedPort, &named}}) {
        qputenv("FORCED_PELLIX_HOST", c.host);
        qputenv("FORCED_PELLIX_PORT", c.port);
        if (c.host.isEmpty())
            qunsetenv("FORCED_PELLIX_HOST");
        PXConnection connection;
        EXPECT_TRUE(connection.open(c.host.isEmpty() ? "127.0.0.1" : "host.invalid", named.port()));
        EXPECT_TRUE(c.reached->waitForConnections(1));
    }
    EXPECT_EQ(forced.connectionCount() + named.connectionCount(), 2);
    qputenv("FORCED_PELLIX_HOST", "10.1.2.3");
    for (const auto& [port, expected] :
         {std::pair<QByteArray, quint16>{"70000", 4464}, {"abc", 0}, {"7705", 7705}}) {
        qputenv("FORCED_PELLIX_PORT", port);
        QString usedHost;
        quint16 usedPort = 1;
        PXClientManager::resolveServerAddress("127.0.0.1", 7701, &usedHost, &usedPort);
        EXPECT_EQ(usedHost, QString("10.1.2.3")) << port.constData();
        EXPECT_EQ(usedPort, expected) << port.constData();
    }
    qunsetenv("FORCED_PELLIX_HOST");
    qunsetenv("FORCED_PELLIX_PORT");
}

TEST(ConnectionFake, EmptyHostAndPortReuseTheLastOpen)
{
    if (PXClientManager::MServerHost.isEmpty()) {
        // Fresh process: nothing to reuse yet.
        PXConnection connection;
        EXPECT_FALSE(connection.open("", 0));
    }
    FakeServer first;
    FakeServer second;
    PXConnection a, b, c;
    ASSERT_TRUE(a.open("127.0.0.1", first.port()));
    ASSERT_TRUE(b.open("", 0));
    EXPECT_TRUE(first.waitForConnections(2));
    // A new port alone keeps the last host.
    ASSERT_TRUE(c.open("", second.port()));
    EXPECT_TRUE(second.waitForConnections(1));
}

TEST(ConnectionFake, HandlesAreGivenInOrderAndNeverReused)
{
    static bool firstInProcess = true;
    auto* a = new PXConnection;
    if (firstInProcess) {
        EXPECT_EQ(a->getId(), 1);
    }
    firstInProcess = false;
    PXConnection b;
    EXPECT_EQ(b.getId(), a->getId() + 1);
    const int gone = a->getId();
    delete a;
    EXPECT_EQ(PXConnection::GetById(gone), nullptr);
    PXConnection c;
    EXPECT_EQ(c.getId(), gone + 2);
    EXPECT_EQ(PXConnection::GetById(c.getId()), &c);
    EXPECT_EQ(PXConnection::GetById(0), nullptr);
    EXPECT_EQ(PXConnection::GetById(-1), nullptr);
}

// A second open drops the old socket and connects anew; queued events stay, the delayed
// callback must be set again.
TEST(ConnectionFake, ReopenKeepsQueuesAndDropsTheDelayedCallback)
{
    Connected c;
    c.connection.enableEvents(true);
    unsigned char ids[] = {0x21};
    c.connection.setBypassFlowIds(ids, 1);
    std::atomic<int> delayed{0};
    auto count = [](void* p) { ++*static_cast<std::atomic<int>*>(p); };
    c.connection.setBypassDelayCallback(count, &delayed, 1);
    c.server.send(pxproto::event(7) + pxproto::event(8));
    c.sync();
    ASSERT_TRUE(c.connection.open("127.0.0.1", c.server.port()));
    ASSERT_TRUE(c.server.waitForConnections(2));
    // Nothing of the old connection's set-up is sent again over the new socket.
    c.server.clearReceived();
    c.sync();
    EXPECT_EQ(c.server.frames(-1), QList<QByteArray>{pxproto::ping()});
    // The old socket is gone: its late bytes reach nobody.
    c.server.send(pxproto::event(99), 0);
    // A bypass packet on the new socket: queued, but the fresh delayed callback has no function.
    c.server.send(pxproto::bypassFrame(pxproto::debugPacket(0x21, "a", 1)));
    c.sync();
    unsigned int event = 0;
    for (unsigned int expected : {7u, 8u}) {
        EXPECT_EQ(c.connection.popEvent(&event), 0u);
        EXPECT_EQ(event, expected);
    }
    EXPECT_EQ(c.connection.popEvent(&event), 19u);
    // Set again, the delayed callback fires for the next burst.
    c.connection.setBypassDelayCallback(count, &delayed, 1);
    c.server.send(pxproto::bypassFrame(pxproto::debugPacket(0x21, "b", 1)));
    EXPECT_TRUE(waitUntil([&] { return delayed.load() == 1; }));
}

// How block operations cut a range into requests: "flow.code@address:count" per request
// (count: block read count or data bytes written).
TEST(ConnectionFake, BlockOperationsSplitByAlignmentAndSize)
{
    auto describe = [](const QByteArray& f) {
        const auto* p = reinterpret_cast<const unsigned char*>(f.constData());
        const int flow = pxproto::flowId(f);
        const int count = flow == pxproto::request::BlockRead ? int(pxproto::getLe32(p + 9))
                          : p[4] >= 0x80                      ? pxproto::payloadLength(f) - 5
                                                              : 0;
        return QString::asprintf("%x.%x@%x:%d ", flow, p[4], pxproto::getLe32(p + 5), count);
    };
    Connected c;
    c.server.setResponder(memoryResponder);
    std::vector<unsigned char> buffer(65536 + 8);
    auto* x = &c.connection;
    auto* data = buffer.data();
    auto* words = reinterpret_cast<unsigned int*>(data);
    auto* halves = reinterpret_cast<unsigned short*>(data);
    const std::vector<std::pair<std::function<unsigned int()>, QString>> cases = {
        {[=] { return x->readBlock(0x1000, data, 10); }, "fe.3@1000:8 ff.1@1008:0 "},
        {[=] { return x->readBlock(0x1001, data, 8); },
         "ff.0@1001:0 ff.1@1002:0 ff.2@1004:0 ff.0@1008:0 "},
        {[=] { return x->readBlock(0x2000, data, 3); }, "ff.1@2000:0 ff.0@2002:0 "},
        {[=] { return x->readBlock(0x4000, data, 65536); }, "fe.3@4000:32768 fe.3@c000:32768 "},
        {[=] { return x->read32(0x1002, words); }, "ff.1@1002:0 ff.1@1004:0 "},
        {[=] { return x->read32(0x1000, words); }, "ff.2@1000:0 "},
        {[=] { return x->read16(0x1001, halves); }, "ff.0@1001:0 ff.0@1002:0 "},
        {[=] { return x->readi8(0x33, data); }, "ff.4@33:0 "},
        {[=] { return x->writei8(0x33, 1); }, "ff.84@33:1 "},
        {[=] { return x->writeBlock(0x100, words, 40000); }, "ff.83@100:32768 ff.83@8100:7232 "},
        {[=] { return x->writeBlock(0x100, words, 4); }, "ff.82@100:4 "},
        {[=] { return x->writeBlock(0x101, words, 3); }, "ff.83@101:3 "},
    };
    for (const auto& [call, expected] : cases) {
        c.server.clearReceived();
        EXPECT_EQ(call(), 0u) << expected.toStdString();
        QString got;
        for (const QByteArray& frame : c.server.frames())
            got += describe(frame);
        EXPECT_EQ(got, expected);
    }
}
