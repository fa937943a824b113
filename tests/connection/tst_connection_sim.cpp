// PXConnection against the real simulator: everything a correct server does.

#include "SimulatorProcess.h"
#include "WaitUntil.h"

#include "pellix/connection/PXConnection.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr unsigned int EventRegister = 0xFFFFFF00u;

struct Simulated
{
    explicit Simulated(const QStringList& extra = {}) : simulator(extra)
    {
        EXPECT_TRUE(simulator.isListening());
        EXPECT_TRUE(connection.open("127.0.0.1", simulator.port()));
    }
    SimulatorProcess simulator;
    PXConnection connection;
};

std::vector<unsigned char> pattern(int size, unsigned seed)
{
    std::vector<unsigned char> out(size_t(size) + 4);
    for (int i = 0; i < size; ++i)
        out[size_t(i)] = static_cast<unsigned char>((unsigned(i) * 131u + seed) >> 3);
    return out;
}

} // namespace

TEST(ConnectionSim, EveryWidthReadsBackWhatWasWritten)
{
    Simulated s;
    PXConnection& c = s.connection;
    unsigned char b = 0, internal = 0;
    unsigned short h = 0, unalignedH = 0;
    unsigned int w = 0, unalignedW = 0;
    // Braced lists evaluate in order: the writes come first. Unaligned 16- and 32-bit reads
    // are assembled from smaller reads.
    for (unsigned int result :
         {c.write8(0x1001, 0xA5), c.write16(0x1002, 0xBEEF), c.write32(0x1004, 0xDEADBEEF),
          c.writei8(0x1001, 0x3C), c.read8(0x1001, &b), c.read16(0x1002, &h), c.read32(0x1004, &w),
          c.readi8(0x1001, &internal), c.read32(0x1002, &unalignedW),
          c.read16(0x1001, &unalignedH)})
        EXPECT_EQ(result, 0u);
    EXPECT_EQ(b, 0xA5); // the internal space is apart from memory
    EXPECT_EQ(internal, 0x3C);
    EXPECT_EQ(h, 0xBEEF);
    EXPECT_EQ(w, 0xDEADBEEFu);
    EXPECT_EQ(unalignedW, 0xBEEFu | (0xEFu << 16) | (0xBEu << 24));
    EXPECT_EQ(unalignedH, 0xA5 | (0xEF << 8));
}

TEST(ConnectionSim, LargeAndUnalignedBlocks)
{
    struct Case
    {
        unsigned int address;
        int size;
    };
    Simulated s({"--frame-size", "1000"});
    for (const Case& test : {Case{0x20000, 1 << 20}, Case{0x300001, 70001}, Case{0x400002, 7},
                             Case{0x500003, 1}, Case{0x600000, 32769}}) {
        std::vector<unsigned char> out = pattern(test.size, test.address);
        ASSERT_EQ(s.connection.writeBlock(test.address, reinterpret_cast<unsigned int*>(out.data()),
                                          test.size),
                  0u);
        std::vector<unsigned char> in(size_t(test.size) + 4, 0xEE);
        ASSERT_EQ(s.connection.readBlock(test.address, in.data(), test.size), 0u);
        EXPECT_EQ(std::memcmp(in.data(), out.data(), size_t(test.size)), 0) << test.address;
        EXPECT_EQ(in[size_t(test.size)], 0xEE) << "wrote past the end";
    }
}

TEST(ConnectionSim, StatusPingAndReconnect)
{
    Simulated s;
    unsigned char status = 0;
    EXPECT_EQ(s.connection.getStatus(&status), 0u);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(s.connection.ping(), 0u);
    EXPECT_EQ(s.connection.forcePellixReconnect(), 0u);
    // Reopening gives a working socket again.
    ASSERT_TRUE(s.connection.open("", 0));
    EXPECT_EQ(s.connection.ping(), 0u);
}

TEST(ConnectionSim, EventsInOrderOnlyWhileEnabled)
{
    Simulated s;
    PXConnection& c = s.connection;
    unsigned int e = 0;
    EXPECT_EQ(c.popEvent(&e), 20u);
    EXPECT_EQ(c.waitEvent(&e, 1000), 20u);
    // Not enabled: raised but not taken.
    c.write32(EventRegister, 0x99);
    ASSERT_EQ(c.enableEvents(true), 0u);
    EXPECT_EQ(c.popEvent(&e), 19u);
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(c.waitEvent(&e, 0), 19u);
    EXPECT_EQ(c.waitEvent(&e, 200), 19u);
    EXPECT_GE(clock.elapsed(), 190);
    for (unsigned int id : {0xA1u, 0xB2u, 0xC3u})
        c.write32(EventRegister, id);
    for (unsigned int id : {0xA1u, 0xB2u, 0xC3u}) {
        EXPECT_EQ(c.waitEvent(&e, 5000), 0u);
        EXPECT_EQ(e, id);
    }
    // Two queued, then disabled: unreachable until enabled again, then they come first.
    c.write32(EventRegister, 1);
    c.write32(EventRegister, 2);
    c.ping();
    ASSERT_EQ(c.enableEvents(false), 0u);
    EXPECT_EQ(c.popEvent(&e), 20u);
    c.write32(EventRegister, 3); // not sent by the server now
    ASSERT_EQ(c.enableEvents(true), 0u);
    c.write32(EventRegister, 4);
    for (unsigned int id : {1u, 2u, 4u}) {
        EXPECT_EQ(c.waitEvent(&e, 5000), 0u);
        EXPECT_EQ(e, id);
    }
    EXPECT_EQ(c.popEvent(&e), 19u);
    c.write32(EventRegister, 5);
    c.ping();
    EXPECT_EQ(c.flushEvents(), 0u);
    EXPECT_EQ(c.popEvent(&e), 19u);
}

TEST(ConnectionSim, BypassOnlyAfterFlowIdsAndTheThreeTakes)
{
    Simulated s;
    PXConnection& c = s.connection;
    unsigned char data[] = {1, 2, 3, 4, 5, 6};
    unsigned char flow = 0, buffer[64];
    int length = -1;
    // Not subscribed: the echo never comes.
    c.sendBypassPacket(0x21, data, 6);
    c.ping();
    EXPECT_EQ(c.getBypassPacket(&flow, buffer, 64, &length), 8u);
    EXPECT_EQ(length, 0);
    unsigned char ids[] = {0x21};
    ASSERT_EQ(c.setBypassFlowIds(ids, 1), 0u);
    // Stored packet: AD 00 07 21, the six data bytes, checksum: 11 bytes.
    const unsigned char checksum = 0x21 ^ 1 ^ 2 ^ 3 ^ 4 ^ 5 ^ 6;
    for (int i = 0; i < 5; ++i)
        c.sendBypassPacket(0x21, data, 6);

    // Each take as "result/length".
    auto take = [&](unsigned int result) {
        return std::to_string(result) + "/" + std::to_string(length);
    };
    EXPECT_EQ(take(c.waitBypassPacket(&flow, buffer, 64, &length, 5000)), "0/11");
    EXPECT_EQ(flow, 0x21);
    const unsigned char whole[] = {0xAD, 0, 7, 0x21, 1, 2, 3, 4, 5, 6, checksum};
    EXPECT_EQ(std::memcmp(buffer, whole, 11), 0);
    c.ping(); // the other four echoes are queued by now

    EXPECT_EQ(take(c.getBypassPacket(&flow, buffer, 16, &length)), "0/7"); // data and checksum
    EXPECT_EQ(std::memcmp(buffer, whole + 4, 7), 0);
    EXPECT_EQ(take(c.getBypassPacket(&flow, buffer, 4, &length)), "5/4"); // cut, consumed
    EXPECT_EQ(take(c.getBypassData(buffer, 8, &length)), "5/11");         // too small, kept
    EXPECT_EQ(take(c.getBypassData(buffer, 11, &length)), "0/11");
    EXPECT_EQ(std::memcmp(buffer, whole, 11), 0);
    EXPECT_EQ(take(c.waitBypassPacket(&flow, buffer, 5, &length, 1000)), "5/5"); // cut, consumed
    EXPECT_EQ(take(c.waitBypassPacket(&flow, buffer, 64, &length, 0)), "8/0");
    EXPECT_EQ(take(c.getBypassData(buffer, 64, &length)), "8/0");
}

TEST(ConnectionSim, LargestBypassPacketAndOneByteMore)
{
    Simulated s;
    PXConnection& c = s.connection;
    unsigned char ids[] = {0x05};
    c.setBypassFlowIds(ids, 1);
    std::vector<unsigned char> data = pattern(65531, 7);
    EXPECT_EQ(c.sendBypassPacket(0x05, data.data(), 65531), 6u);
    EXPECT_EQ(c.sendBypassPacket(0x05, data.data(), 65530), 0u);
    std::vector<unsigned char> in(70000);
    unsigned char flow = 0;
    int length = 0;
    ASSERT_EQ(c.waitBypassPacket(&flow, in.data(), int(in.size()), &length, 5000), 0u);
    EXPECT_EQ(length, 65535);
    EXPECT_EQ(std::memcmp(in.data() + 4, data.data(), 65530), 0);
    // Nothing else was sent: the refused packet did not go out.
    EXPECT_EQ(c.ping(), 0u);
    EXPECT_EQ(c.getBypassData(in.data(), int(in.size()), &length), 8u);
    // An empty packet is legal.
    EXPECT_EQ(c.sendBypassPacket(0x05, nullptr, 0), 0u);
    ASSERT_EQ(c.waitBypassPacket(&flow, in.data(), int(in.size()), &length, 5000), 0u);
    EXPECT_EQ(length, 5);
}

// A burst of packets within the delay gives one delayed call; the next burst another. The
// delayed callback holds no lock: it may take the packets itself.
TEST(ConnectionSim, DelayedCallbackCoalescesABurst)
{
    Simulated s;
    PXConnection& c = s.connection;
    unsigned char ids[] = {0x30}, byte = 1;
    c.setBypassFlowIds(ids, 1);
    static std::atomic<int> calls{0}, taken{0};
    auto onDelay = [](void* p) {
        unsigned char flow, buffer[16];
        int length;
        while (static_cast<PXConnection*>(p)->getBypassPacket(&flow, buffer, 16, &length) == 0)
            ++taken;
        ++calls;
    };
    ASSERT_EQ(c.setBypassDelayCallback(onDelay, &c, 300), 0u);
    struct Burst
    {
        int packets, calls, taken;
    };
    for (const Burst& b : {Burst{10, 1, 10}, Burst{3, 2, 13}}) {
        for (int i = 0; i < b.packets; ++i)
            c.sendBypassPacket(0x30, &byte, 1);
        ASSERT_TRUE(waitUntil([&] { return calls.load() == b.calls; }));
        EXPECT_EQ(taken.load(), b.taken);
    }
}
