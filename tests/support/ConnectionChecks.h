#ifndef PELLIX_TESTS_CONNECTIONCHECKS_H
#define PELLIX_TESTS_CONNECTIONCHECKS_H

// Checks that PXConnection and PXNSConnection must both pass against FakeServer, run by the
// tests of each: how reads are forwarded and assembled, which read-data replies end a read,
// which sizes are refused before anything is sent, how writes go out. Also the fixture both
// use, and the callback record of the PXConnection tests.

#include "FakeServer.h"

#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QElapsedTimer>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <numeric>
#include <tuple>
#include <vector>

// Answers pings only, so that a ping round trip proves that everything the server sent before
// it has been dispatched (the server's bytes arrive in order on one socket).
inline void answerPings(FakeServer& server, int client, const QByteArray& frame)
{
    if (pxproto::flowId(frame) == pxproto::request::Ping)
        server.send(pxproto::pingReply(), client);
}

// A connection of either class opened to a fake server that answers pings.
template <class Connection>
class Connected : public ::testing::Test
{
protected:
    void SetUp() override
    {
        server.setResponder(answerPings);
        ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
        // send() addresses the most recent client: it must have been accepted.
        ASSERT_TRUE(server.waitForConnections(1));
    }
    // Everything the server sent so far has been dispatched once this returns.
    void sync() { ASSERT_EQ(connection.ping(), 0u); }
    void arrive(const QByteArray& bytes)
    {
        server.send(bytes);
        sync();
    }
    // Takes every queued event, in order (PXConnection).
    std::vector<unsigned int> popEvents()
    {
        std::vector<unsigned int> events;
        for (unsigned int e = 0; connection.popEvent(&e) == 0;)
            events.push_back(e);
        return events;
    }

    FakeServer server;
    Connection connection;
};

// Callback user data for PXConnection: how often, and on which thread, the callback ran. With
// `take` set (for the delayed callback only: it holds no lock) it first takes every queued
// packet.
struct Calls
{
    PXConnection* take = nullptr;
    std::atomic<int> count{0}, taken{0};
    std::atomic<QThread*> thread{nullptr};
};

inline void record(void* data)
{
    auto* calls = static_cast<Calls*>(data);
    unsigned char flow, buffer[16];
    int length;
    while (calls->take && calls->take->getBypassPacket(&flow, buffer, 16, &length) == 0)
        ++calls->taken;
    calls->thread = QThread::currentThread();
    ++calls->count;
}

// Each read as the requests it sends, its result and what it delivers: the target's bytes
// (FakeServer::memoryBytes), and never a byte past the caller's buffer. The cuts themselves are
// tested in tests/protocol; these rows check that every call goes through them and that each
// piece lands at its offset. Block reads at 0x3000 get `reply` (and `tail` 50 ms later): data
// may come in several frames, cut anywhere; a frame that does not fit what the read still
// expects ends it with 13 when it comes, long before the time-out.
template <class Connection>
void checkReads(FakeServer& server, Connection& connection)
{
    enum Kind { R8, Ri8, R16, R32, Block };
    const QByteArray m = FakeServer::memoryBytes(0x3000, 32);
    const auto r = [](unsigned char code, quint32 a) { return pxproto::singleRead(code, a); };
    const auto b = [](quint32 a, quint32 n) { return pxproto::blockRead(a, n); };
    const auto data = [&](quint32 a, int n) {
        return pxproto::readData(a, m.constData() + (a - 0x3000), n);
    };
    const QByteArray second = data(0x3004, 4), b8 = b(0x3000, 8), b16 = b(0x3000, 16);
    using Row =
        std::tuple<Kind, quint32, int, QList<QByteArray>, QByteArray, QByteArray, unsigned int>;
    const Row cases[] = {
        // clang-format off
        {R8, 0x1234, 1, {r(0, 0x1234)}, {}, {}, 0},
        {Ri8, 0x33, 1, {r(4, 0x33)}, {}, {}, 0},
        {R16, 0x2001, 2, {r(0, 0x2001), r(0, 0x2002)}, {}, {}, 0},
        {R32, 0x1002, 4, {r(1, 0x1002), r(1, 0x1004)}, {}, {}, 0},
        {Block, 0x1001, 8, {r(0, 0x1001), r(1, 0x1002), r(2, 0x1004), r(0, 0x1008)}, {}, {}, 0},
        {Block, 0, 65536, {b(0, 32768), b(0x8000, 32768)}, {}, {}, 0},
        {Block, 0x3000, 8, {b8}, data(0x3000, 4) + second.left(5), second.mid(5), 0},
        {Block, 0x3000, 16, {b16}, pxproto::pingReply() + data(0x3000, 8) + data(0x3008, 8), {}, 0},
        {Block, 0x3000, 8, {b8}, data(0x3004, 4), {}, 13},                   // wrong address
        {Block, 0x3000, 8, {b8}, data(0x3000, 9), {}, 13},                   // one byte more
        {Block, 0x3000, 16, {b16}, data(0x3000, 8) + data(0x3008, 9), {}, 13}, // one more, later
        {Block, 0x3000, 16, {b16}, data(0x3000, 8) + data(0x3000, 8), {}, 13}, // repeated
        {Block, 0x3000, 8, {b8}, data(0x3000, 0), {}, 13},                   // no data
        {Block, 0x3000, 8, {b8}, pxproto::frame(pxproto::reply::ReadData, "ABC", 3), {}, 13},
        // clang-format on
    };
    std::vector<unsigned char> in(65536 + 1);
    for (const auto& [kind, address, size, requests, reply, tail, expected] : cases) {
        SCOPED_TRACE(testing::Message()
                     << "kind " << kind << " at " << address << " " << reply.toHex().constData());
        server.setResponder(
            [reply = reply, tail = tail](FakeServer& s, int client, const QByteArray& frame) {
                if (reply.isEmpty())
                    return FakeServer::memoryResponder(s, client, frame);
                s.send(reply, client);
                if (!tail.isEmpty())
                    s.sendLater(tail, 50, client);
            });
        server.clearReceived();
        std::fill(in.begin(), in.end(), 0xEE);
        auto* d = in.data();
        QElapsedTimer clock;
        clock.start();
        const unsigned int result =
            kind == R8    ? connection.read8(address, d)
            : kind == Ri8 ? connection.readi8(address, d)
            : kind == R16 ? connection.read16(address, reinterpret_cast<unsigned short*>(d))
            : kind == R32 ? connection.read32(address, reinterpret_cast<unsigned int*>(d))
                          : connection.readBlock(address, d, size);
        EXPECT_EQ(result, expected);
        EXPECT_LT(clock.elapsed(), 900);
        EXPECT_EQ(server.frames(), requests);
        if (expected == 0) {
            EXPECT_EQ(QByteArray(reinterpret_cast<char*>(d), size),
                      FakeServer::memoryBytes(address, size));
        }
        EXPECT_EQ(in[size_t(size)], 0xEE) << "wrote past the buffer";
    }
    server.setResponder(FakeServer::memoryResponder);
}

// Sizes and counts that no frame carries are refused before anything is sent: 6 for bypass
// packets and flow id lists (negative ones would write header bytes outside the frame,
// oversized ones wrap its 16-bit length field), 13 for reads and writes; the largest that fit
// are sent, a read or write of 0 bytes is no request, and a flow mode travels as a 32-bit
// value, named or not. Writes go out as given (writes wait for the acknowledgement that
// memoryResponder sends, where the class waits at all), a block write cut into pieces of at
// most 32768 bytes whatever the alignment.
template <class Connection>
void checkSizesAndWrites(FakeServer& server, Connection& connection)
{
    std::vector<unsigned int> words(16384);
    std::iota(words.begin(), words.end(), 0x5A5A0000u);
    auto* d = reinterpret_cast<unsigned char*>(words.data());
    server.setResponder(FakeServer::memoryResponder);
    server.clearReceived();
    for (int size : {-9, -2, -1, INT_MIN, pxproto::MaxBypassData + 1, INT_MAX})
        EXPECT_EQ(connection.sendBypassPacket(1, d, size), 6u) << size;
    for (int count : {-8, -5, -1, INT_MIN, pxproto::MaxFlowIds + 1, INT_MAX})
        EXPECT_EQ(connection.setBypassFlowIds(d, count), 6u) << count;
    for (int size : {-1, -6, INT_MIN, pxproto::MaxWriteData + 1})
        EXPECT_EQ(connection.genericWrite(0, false, d, size), 13u) << size;
    for (int size : {0, -1, 3})
        EXPECT_EQ(connection.genericRead(0, false, d, size), 13u) << size;
    for (const unsigned int result :
         {connection.readBlock(0, d, 0), connection.writeBlock(0, nullptr, 0),
          connection.sendBypassPacket(3, d, pxproto::MaxBypassData),
          connection.setFlowMode(static_cast<PXLFlowMode>(0x12345678u)),
          connection.writei8(0x20, 0x3C), connection.writeBlock(0x40001, words.data(), 40000),
          connection.flushPellixFifos()})
        EXPECT_EQ(result, 0u);
    QList<QByteArray> expected{pxproto::bypassSend(3, d, pxproto::MaxBypassData)};
    expected << pxproto::setFlowMode(0x12345678u) << pxproto::writeRequest(0x20, true, "\x3C", 1)
             << pxproto::writeRequest(0x40001, false, d, 32768)
             << pxproto::writeRequest(0x48001, false, d + 32768, 40000 - 32768)
             << pxproto::flushFifos();
    ASSERT_TRUE(server.waitForFrames(int(expected.size())));
    EXPECT_EQ(server.frames(), expected);
}

#endif
