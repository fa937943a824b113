// PXConnection against the scripted fake server: replies a correct server never produces,
// replies split or delayed, silence, and the connection's own bookkeeping (handles, address).

#include "FakeServer.h"
#include "MemoryResponder.h"
#include "RefusedPort.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace {

// Answers pings, so that a ping round trip proves that everything sent before it has been
// dispatched (the server's bytes arrive in order on one socket).
void answerPings(FakeServer& server, int client, const QByteArray& frame)
{
    if (pxproto::flowId(frame) == pxproto::request::Ping)
        server.send(pxproto::pingReply(), client);
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

QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray out;
    for (int v : values)
        out.append(char(v));
    return out;
}

qint64 elapsedMs(const QElapsedTimer& t)
{
    return t.elapsed();
}

} // namespace

TEST(ConnectionFake, ReadAssembledFromSeveralFrames)
{
    Connected c;
    c.server.setResponder([](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) != pxproto::request::BlockRead)
            return;
        const char first[] = "01234567";
        const char second[] = "89abcdef";
        // Second frame split across two writes: dispatch must wait for its rest.
        const QByteArray f2 = pxproto::readData(0x1008, second, 8);
        server.send(pxproto::readData(0x1000, first, 8) + f2.left(5), client);
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
    struct Case
    {
        const char* what;
        QByteArray reply;
    };
    const char eight[] = "ABCDEFGH";
    const std::vector<Case> cases = {
        {"wrong address", pxproto::readData(0x2004, eight, 4)},
        {"more bytes than asked", pxproto::readData(0x2000, eight, 8)},
        {"no data bytes (length 4)", pxproto::readData(0x2000, eight, 0)},
        {"length below 4", pxproto::frame(pxproto::reply::ReadData, eight, 3)},
    };
    Connected c;
    for (const Case& test : cases) {
        const QByteArray reply = test.reply;
        c.server.setResponder([reply](FakeServer& server, int client, const QByteArray& frame) {
            if (pxproto::flowId(frame) == pxproto::request::Read)
                server.send(reply, client);
        });
        unsigned char value[4] = {};
        QElapsedTimer clock;
        clock.start();
        EXPECT_EQ(c.connection.genericRead(0x2000, false, value, 4), 13u) << test.what;
        EXPECT_LT(elapsedMs(clock), 2000) << test.what;
    }
    // The connection is still usable afterwards.
    c.server.setResponder([](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) == pxproto::request::Read)
            server.send(pxproto::readData(0x2000, "wxyz", 4), client);
    });
    unsigned int word = 0;
    EXPECT_EQ(c.connection.read32(0x2000, &word), 0u);
    EXPECT_EQ(word, pxproto::getLe32("wxyz"));
}

TEST(ConnectionFake, RequestsWithoutSocketFailAtOnceAndSendNothing)
{
    FakeServer server;
    PXConnection connection; // never opened
    EXPECT_FALSE(connection.isConnected());
    QElapsedTimer clock;
    clock.start();
    unsigned char byte = 0;
    unsigned int word = 0;
    unsigned char status = 0;
    EXPECT_EQ(connection.read8(0, &byte), 13u);
    EXPECT_EQ(connection.read32(0, &word), 13u);
    EXPECT_EQ(connection.write32(0, 1), 13u);
    EXPECT_EQ(connection.getStatus(&status), 13u);
    EXPECT_EQ(connection.ping(), 13u);
    EXPECT_EQ(connection.forcePellixReconnect(), 13u);
    EXPECT_EQ(connection.killPellix(), 0u);
    EXPECT_EQ(connection.setBaudRate(115200), 0u);
    EXPECT_EQ(connection.enableEvents(true), 0u);
    unsigned char ids[] = {1};
    EXPECT_EQ(connection.setBypassFlowIds(ids, 1), 0u);
    EXPECT_EQ(connection.setBypassDelayCallback([](void*) {}, nullptr, 10), 0u);
    EXPECT_LT(elapsedMs(clock), 1000);
    EXPECT_EQ(server.connectionCount(), 0);

    // A failed open leaves the connection registered and without socket.
    EXPECT_FALSE(connection.open("127.0.0.1", refusedPort()));
    EXPECT_EQ(PXConnection::GetById(connection.getId()), &connection);
    EXPECT_EQ(connection.ping(), 13u);
}

TEST(ConnectionFake, InvalidReadSizesAreRefused)
{
    Connected c;
    unsigned char data[4] = {};
    EXPECT_EQ(c.connection.genericRead(0, false, data, 0), 13u);
    EXPECT_EQ(c.connection.genericRead(0, false, data, -1), 13u);
    EXPECT_EQ(c.connection.genericRead(0, false, data, 3), 13u);
    c.sync();
    // Only the ping of sync() reached the server.
    EXPECT_EQ(c.server.frames().size(), 1);
    EXPECT_EQ(c.connection.readBlock(0, data, 0), 0u);
    EXPECT_EQ(c.connection.writeBlock(0, nullptr, -5), 0u);
}

// Waits out the 5000 ms write time-out once.
TEST(ConnectionFake, WriteWithoutAcknowledgementTimesOutAndLateAckIsIgnored)
{
    Connected c;
    c.server.setResponder(nullptr);
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(c.connection.write32(0x10, 0xAABBCCDD), 13u);
    EXPECT_GE(elapsedMs(clock), 4900);
    // A late acknowledgement finds no write pending and is dropped: the next write still
    // waits for its own, which the server sends 300 ms late.
    c.server.send(pxproto::writeAck());
    c.server.setResponder(answerPings);
    c.sync();
    c.server.setResponder([](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) == pxproto::request::Write)
            server.sendLater(pxproto::writeAck(), 300, client);
    });
    clock.restart();
    EXPECT_EQ(c.connection.write8(0x10, 1), 0u);
    EXPECT_GE(elapsedMs(clock), 250);
}

// Waits out the 5000 ms status time-out once.
TEST(ConnectionFake, StatusReplyOfWrongSizeIsIgnored)
{
    Connected c;
    c.server.setResponder([](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) == pxproto::request::Status)
            server.send(pxproto::frame(pxproto::reply::Status, "\x01\x02", 2), client);
    });
    unsigned char status = 0x55;
    EXPECT_EQ(c.connection.getStatus(&status), 13u);
    EXPECT_EQ(status, 0x55);
}

TEST(ConnectionFake, StatusAndCommands)
{
    Connected c;
    c.server.setResponder([](FakeServer& server, int client, const QByteArray& frame) {
        switch (pxproto::flowId(frame)) {
        case pxproto::request::Status:
            server.send(pxproto::statusReply(0x7A), client);
            break;
        case pxproto::request::ForceReconnect:
            server.send(pxproto::completion(), client);
            break;
        case pxproto::request::Ping:
            server.send(pxproto::pingReply(), client);
            break;
        default:
            break;
        }
    });
    unsigned char status = 0;
    EXPECT_EQ(c.connection.getStatus(&status), 0u);
    EXPECT_EQ(status, 0x7A);
    EXPECT_EQ(c.connection.getStatus(nullptr), 0u);
    EXPECT_EQ(c.connection.forcePellixReconnect(), 0u);
    c.server.clearReceived();
    EXPECT_EQ(c.connection.killPellix(), 0u);
    EXPECT_EQ(c.connection.cleanPellix(), 0u);
    EXPECT_EQ(c.connection.flushPellixFifos(), 0u);
    EXPECT_EQ(c.connection.comBreak(), 0u);
    EXPECT_EQ(c.connection.autoBauding(), 0u);
    EXPECT_EQ(c.connection.setFlowMode(PXL_FLOW_XONXOFF), 0u);
    EXPECT_EQ(c.connection.setBaudRate(115200), 0u);
    EXPECT_EQ(c.connection.setUsbId(0x1234, 0xABCD), 0u);
    ASSERT_TRUE(c.server.waitForFrames(8));
    const QList<QByteArray> frames = c.server.frames();
    const QList<QByteArray> expected = {
        bytes({0xBB, 0, 0, 0xB1}),
        bytes({0xBB, 0, 0, 0xB4}),
        bytes({0xBB, 0, 0, 0xB7}),
        bytes({0xBB, 0, 0, 0xB2}),
        bytes({0xBB, 0, 0, 0xA1}),
        bytes({0xBB, 0, 4, 0xA3, 2, 0, 0, 0}),
        bytes({0xBB, 0, 4, 0xA0, 0x00, 0xC2, 0x01, 0x00}),
        bytes({0xBB, 0, 8, 0xB8, 0x34, 0x12, 0, 0, 0xCD, 0xAB, 0, 0}),
    };
    EXPECT_EQ(frames, expected);
}

TEST(ConnectionFake, SlowReplyStreamThatKeepsProgressingSucceeds)
{
    Connected c;
    c.server.setResponder([](FakeServer& server, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) != pxproto::request::BlockRead)
            return;
        // 16 bytes in four frames, 1800 ms apart: 7.2 s in all, never 5 s without progress.
        for (int i = 0; i < 4; ++i)
            server.sendLater(pxproto::readData(0x100 + 4 * i, "abcd", 4), 1800 * (i + 1), client);
    });
    unsigned char data[16] = {};
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(c.connection.genericRead(0x100, false, data, 16), 0u);
    EXPECT_GE(elapsedMs(clock), 5500); // longer than one time-out (timers may fire 5% early)
    EXPECT_EQ(QByteArray(reinterpret_cast<char*>(data), 16), QByteArray("abcdabcdabcdabcd"));
}

TEST(ConnectionFake, EventFramesOfWrongLengthAreIgnored)
{
    Connected c;
    std::atomic<int> calls{0};
    c.connection.setEventCallback([](void* p) { ++*static_cast<std::atomic<int>*>(p); }, &calls);
    EXPECT_EQ(c.connection.enableEvents(true), 0u);
    c.server.send(pxproto::frame(pxproto::reply::Event, "\x11\x00\x00\x00", 4));
    c.server.send(pxproto::frame(pxproto::reply::Event, "\x12\x00\x00\x00\x00\x00", 6));
    c.server.send(pxproto::event(0x13));
    c.sync();
    unsigned int event = 0;
    EXPECT_EQ(c.connection.popEvent(&event), 0u);
    EXPECT_EQ(event, 0x13u);
    EXPECT_EQ(c.connection.popEvent(&event), 19u);
    EXPECT_EQ(calls.load(), 1);
}

// With more than 1000 entries queued, the next arrival empties the queue first.
TEST(ConnectionFake, QueuesAreCappedAt1001)
{
    Connected c;
    unsigned char ids[] = {0x21};
    c.connection.enableEvents(true);
    c.connection.setBypassFlowIds(ids, 1);
    const QByteArray packet = pxproto::bypassFrame(pxproto::debugPacket(0x21, "x", 1));
    auto burst = [&](int count, quint32 firstId) {
        QByteArray stream;
        for (int i = 0; i < count; ++i)
            stream += pxproto::event(firstId + quint32(i)) + packet;
        c.server.send(stream);
        c.sync();
    };
    auto drainEvents = [&](std::vector<unsigned int>* out) {
        unsigned int e;
        while (c.connection.popEvent(&e) == 0)
            out->push_back(e);
    };
    auto drainPackets = [&] {
        int n = 0;
        unsigned char flow, buffer[16];
        int length;
        while (c.connection.getBypassPacket(&flow, buffer, 16, &length) == 0)
            ++n;
        return n;
    };

    burst(1001, 0);
    std::vector<unsigned int> events;
    drainEvents(&events);
    EXPECT_EQ(events.size(), 1001u);
    EXPECT_EQ(drainPackets(), 1001);

    burst(1002, 5000);
    events.clear();
    drainEvents(&events);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], 5000u + 1001u);
    EXPECT_EQ(drainPackets(), 1);
}

TEST(ConnectionFake, StoredBypassPacketShorterThanItsHeaderIsDiscarded)
{
    Connected c;
    unsigned char ids[] = {0x21};
    c.connection.setBypassFlowIds(ids, 1);
    c.server.send(pxproto::bypassFrame(bytes({0xAD, 0x00, 0x01})));
    c.server.send(pxproto::bypassFrame(bytes({0xAD})));
    c.server.send(pxproto::bypassFrame(pxproto::debugPacket(0x21, "ok", 2)));
    c.sync();
    unsigned char flow = 0x99, buffer[16];
    int length = 77;
    EXPECT_EQ(c.connection.getBypassPacket(&flow, buffer, 16, &length), 8u);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(flow, 0x99);
    length = 77;
    EXPECT_EQ(c.connection.waitBypassPacket(&flow, buffer, 16, &length, 0), 8u);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(flow, 0x99);
    EXPECT_EQ(c.connection.getBypassPacket(&flow, buffer, 16, &length), 0u);
    EXPECT_EQ(flow, 0x21);
    EXPECT_EQ(length, 3);
}

namespace {

// Sets an environment variable for one scope (each ctest entry is its own process, but the
// binary may also run all cases in one).
struct ScopedEnv
{
    ScopedEnv(const char* n, const QByteArray& value) : name(n) { qputenv(name, value); }
    ~ScopedEnv() { qunsetenv(name); }
    const char* name;
};

} // namespace

TEST(ConnectionFake, ForcedHostAndPortOverrideBothArguments)
{
    FakeServer forced;
    FakeServer named;
    {
        ScopedEnv host("FORCED_PELLIX_HOST", "127.0.0.1");
        ScopedEnv port("FORCED_PELLIX_PORT", QByteArray::number(forced.port()));
        PXConnection connection;
        EXPECT_TRUE(connection.open("localhost.invalid", named.port()));
        EXPECT_TRUE(forced.waitForConnections(1));
        EXPECT_EQ(named.connectionCount(), 0);
    }
    {
        // Only one of the two set counts as neither set.
        ScopedEnv port("FORCED_PELLIX_PORT", QByteArray::number(forced.port()));
        PXConnection connection;
        EXPECT_TRUE(connection.open("127.0.0.1", named.port()));
        EXPECT_TRUE(named.waitForConnections(1));
        EXPECT_EQ(forced.connectionCount(), 1);
    }
    struct Case
    {
        QByteArray port;
        quint16 expected;
    };
    for (const Case& c : {Case{"70000", 4464}, Case{"abc", 0}, Case{"7705", 7705}}) {
        ScopedEnv host("FORCED_PELLIX_HOST", "10.1.2.3");
        ScopedEnv port("FORCED_PELLIX_PORT", c.port);
        QString usedHost;
        quint16 usedPort = 1;
        PXClientManager::resolveServerAddress("127.0.0.1", 7701, &usedHost, &usedPort);
        EXPECT_EQ(usedHost, QString("10.1.2.3")) << c.port.constData();
        EXPECT_EQ(usedPort, c.expected) << c.port.constData();
    }
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
    PXConnection a;
    ASSERT_TRUE(a.open("127.0.0.1", first.port()));
    PXConnection b;
    ASSERT_TRUE(b.open("", 0));
    EXPECT_TRUE(first.waitForConnections(2));
    // A new port alone keeps the last host.
    PXConnection c;
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
    auto* b = new PXConnection;
    EXPECT_EQ(b->getId(), a->getId() + 1);
    const int gone = a->getId();
    delete a;
    EXPECT_EQ(PXConnection::GetById(gone), nullptr);
    PXConnection c;
    EXPECT_EQ(c.getId(), gone + 2);
    EXPECT_EQ(PXConnection::GetById(c.getId()), &c);
    EXPECT_EQ(PXConnection::GetById(0), nullptr);
    EXPECT_EQ(PXConnection::GetById(-1), nullptr);
    delete b;
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
    EXPECT_EQ(c.connection.isConnected(), true);
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
    EXPECT_EQ(c.connection.popEvent(&event), 0u);
    EXPECT_EQ(event, 7u);
    EXPECT_EQ(c.connection.popEvent(&event), 0u);
    EXPECT_EQ(event, 8u);
    EXPECT_EQ(c.connection.popEvent(&event), 19u);
    // Set again, the delayed callback fires for the next burst.
    c.connection.setBypassDelayCallback(count, &delayed, 1);
    c.server.send(pxproto::bypassFrame(pxproto::debugPacket(0x21, "b", 1)));
    QElapsedTimer clock;
    clock.start();
    while (delayed.load() == 0 && clock.elapsed() < 5000)
        QThread::yieldCurrentThread();
    EXPECT_EQ(delayed.load(), 1);
}

TEST(ConnectionFake, OpenFailsWhenNothingListens)
{
    PXConnection connection;
    QElapsedTimer clock;
    clock.start();
    EXPECT_FALSE(connection.open("127.0.0.1", refusedPort()));
    EXPECT_LT(clock.elapsed(), 2500);
    EXPECT_FALSE(connection.isConnected());
}

// How block operations cut a range into requests: (flow, code, address, count) per request.
TEST(ConnectionFake, BlockOperationsSplitByAlignmentAndSize)
{
    struct Request
    {
        int flow;
        int code;
        quint32 address;
        int count; // block read: its count; write: data bytes; single read: 0
    };
    auto decode = [](const QByteArray& f) {
        const auto* p = reinterpret_cast<const unsigned char*>(f.constData());
        const int flow = pxproto::flowId(f);
        const int count = flow == pxproto::request::BlockRead ? int(pxproto::getLe32(p + 9))
                          : p[4] >= 0x80                      ? pxproto::payloadLength(f) - 5
                                                              : 0;
        return Request{flow, p[4], pxproto::getLe32(p + 5), count};
    };
    Connected c;
    c.server.setResponder(memoryResponder);
    std::vector<unsigned char> buffer(65536 + 8);
    struct Case
    {
        const char* what;
        std::function<unsigned int()> call;
        std::vector<Request> expected;
    };
    auto* con = &c.connection;
    auto* data = buffer.data();
    auto* words = reinterpret_cast<unsigned int*>(buffer.data());
    const std::vector<Case> cases = {
        {"10 bytes aligned",
         [=] { return con->readBlock(0x1000, data, 10); },
         {{0xFE, 3, 0x1000, 8}, {0xFF, 1, 0x1008, 0}}},
        {"8 bytes at odd address",
         [=] { return con->readBlock(0x1001, data, 8); },
         {{0xFF, 0, 0x1001, 0}, {0xFF, 1, 0x1002, 0}, {0xFF, 2, 0x1004, 0}, {0xFF, 0, 0x1008, 0}}},
        {"3 bytes aligned",
         [=] { return con->readBlock(0x2000, data, 3); },
         {{0xFF, 1, 0x2000, 0}, {0xFF, 0, 0x2002, 0}}},
        {"65536 bytes",
         [=] { return con->readBlock(0x4000, data, 65536); },
         {{0xFE, 3, 0x4000, 32768}, {0xFE, 3, 0xC000, 32768}}},
        {"read32 at 2 mod 4",
         [=] { return con->read32(0x1002, reinterpret_cast<unsigned int*>(data)); },
         {{0xFF, 1, 0x1002, 0}, {0xFF, 1, 0x1004, 0}}},
        {"read32 aligned",
         [=] { return con->read32(0x1000, reinterpret_cast<unsigned int*>(data)); },
         {{0xFF, 2, 0x1000, 0}}},
        {"read16 odd",
         [=] { return con->read16(0x1001, reinterpret_cast<unsigned short*>(data)); },
         {{0xFF, 0, 0x1001, 0}, {0xFF, 0, 0x1002, 0}}},
        {"readi8", [=] { return con->readi8(0x33, data); }, {{0xFF, 4, 0x33, 0}}},
        {"writei8", [=] { return con->writei8(0x33, 1); }, {{0xFF, 0x84, 0x33, 1}}},
        {"writeBlock 40000",
         [=] { return con->writeBlock(0x100, words, 40000); },
         {{0xFF, 0x83, 0x100, 32768}, {0xFF, 0x83, 0x100 + 32768, 7232}}},
        {"writeBlock 4",
         [=] { return con->writeBlock(0x100, words, 4); },
         {{0xFF, 0x82, 0x100, 4}}},
        {"writeBlock 3",
         [=] { return con->writeBlock(0x101, words, 3); },
         {{0xFF, 0x83, 0x101, 3}}},
    };
    for (const Case& test : cases) {
        c.server.clearReceived();
        EXPECT_EQ(test.call(), 0u) << test.what;
        const QList<QByteArray> frames = c.server.frames();
        ASSERT_EQ(size_t(frames.size()), test.expected.size()) << test.what;
        for (size_t i = 0; i < test.expected.size(); ++i) {
            const Request got = decode(frames[int(i)]);
            const Request& want = test.expected[i];
            EXPECT_EQ(got.flow, want.flow) << test.what << " #" << i;
            EXPECT_EQ(got.code, want.code) << test.what << " #" << i;
            EXPECT_EQ(got.address, want.address) << test.what << " #" << i;
            EXPECT_EQ(got.count, want.count) << test.what << " #" << i;
        }
    }
    // The reads delivered the target's bytes in place.
    EXPECT_EQ(con->readBlock(0x1001, data, 8), 0u);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(data[i], patternAt(0x1001 + quint32(i)));
}
