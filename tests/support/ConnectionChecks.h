#ifndef PELLIX_TESTS_CONNECTIONCHECKS_H
#define PELLIX_TESTS_CONNECTIONCHECKS_H

// Checks that PXConnection and PXNSConnection must both pass against FakeServer, run by the
// tests of each: how reads are forwarded and assembled, which read-data replies end a read,
// and which sizes are refused before anything is sent.

#include "FakeServer.h"

#include "pellix/protocol/PXFrames_p.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <climits>
#include <vector>

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
    const struct
    {
        Kind kind;
        quint32 address;
        int size;
        QList<QByteArray> requests;
        QByteArray reply, tail;
        unsigned int result;
    } cases[] = {
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
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "kind " << c.kind << " at " << c.address << " "
                                        << c.reply.toHex().constData());
        server.setResponder(
            [reply = c.reply, tail = c.tail](FakeServer& s, int client, const QByteArray& frame) {
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
            c.kind == R8    ? connection.read8(c.address, d)
            : c.kind == Ri8 ? connection.readi8(c.address, d)
            : c.kind == R16 ? connection.read16(c.address, reinterpret_cast<unsigned short*>(d))
            : c.kind == R32 ? connection.read32(c.address, reinterpret_cast<unsigned int*>(d))
                            : connection.readBlock(c.address, d, c.size);
        EXPECT_EQ(result, c.result);
        EXPECT_LT(clock.elapsed(), 900);
        EXPECT_EQ(server.frames(), c.requests);
        if (c.result == 0) {
            EXPECT_EQ(QByteArray(reinterpret_cast<char*>(d), c.size),
                      FakeServer::memoryBytes(c.address, c.size));
        }
        EXPECT_EQ(in[size_t(c.size)], 0xEE) << "wrote past the buffer";
    }
    server.setResponder(FakeServer::memoryResponder);
}

// Sizes and counts that no frame carries are refused before anything is sent: 6 for bypass
// packets and flow id lists (negative ones would write header bytes outside the frame,
// oversized ones wrap its 16-bit length field), 13 for reads and writes; the largest that fit
// are sent, a read of 0 bytes is no request, and a flow mode travels as a 32-bit value, named
// or not.
template <class Connection>
void checkSizes(FakeServer& server, Connection& connection)
{
    std::vector<unsigned char> bytes(pxproto::MaxPayloadLength);
    auto* d = bytes.data();
    server.clearReceived();
    for (int size : {-9, -2, -1, INT_MIN, pxproto::MaxBypassData + 1, INT_MAX})
        EXPECT_EQ(connection.sendBypassPacket(1, d, size), 6u) << size;
    for (int count : {-8, -5, -1, INT_MIN, pxproto::MaxFlowIds + 1, INT_MAX})
        EXPECT_EQ(connection.setBypassFlowIds(d, count), 6u) << count;
    for (int size : {-1, -6, INT_MIN, pxproto::MaxWriteData + 1})
        EXPECT_EQ(connection.genericWrite(0, false, d, size), 13u) << size;
    for (int size : {0, -1, 3})
        EXPECT_EQ(connection.genericRead(0, false, d, size), 13u) << size;
    EXPECT_EQ(connection.readBlock(0, d, 0), 0u);
    EXPECT_EQ(connection.sendBypassPacket(3, d, pxproto::MaxBypassData), 0u);
    EXPECT_EQ(connection.setFlowMode(static_cast<PXLFlowMode>(0x12345678u)), 0u);
    ASSERT_TRUE(server.waitForFrames(2));
    EXPECT_EQ(server.frames(), (QList<QByteArray>{pxproto::bypassSend(3, d, pxproto::MaxBypassData),
                                                  pxproto::setFlowMode(0x12345678u)}));
}

#endif
