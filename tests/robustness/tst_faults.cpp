// PXConnection and PXNSConnection against servers that break: killed mid-request or
// mid-frame, stalling, promising more than ever comes, answering wrongly, dying with arrivals
// held back. Every call must return within its time-out with the right code, and a reopen
// must give a working connection again (nothing of the broken stream survives).

#include "FakeServer.h"

#include "pellix/connection/PXConnection.h"
#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QElapsedTimer>
#include <QTest>

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace {

using namespace pxproto;

// What the server does once it has seen the request.
enum class Fault {
    CloseAtOnce,  // killed mid-request: closes without a byte
    CloseInFrame, // sends the first half of the reply frame, then closes
    Stall,        // never answers, stays connected
    PromiseMore,  // a reply header whose length promises 60000 bytes; 100 come
    WrongReply    // a reply of another kind (ignored), then silence
};

struct FaultCase
{
    const char* name;
    bool ns;            // PXNSConnection (notices a closed peer) or PXConnection
    unsigned char flow; // the request, by its flow id
    Fault fault;
    int minMs, maxMs; // when the request must end
};

void PrintTo(const FaultCase& c, std::ostream* out)
{
    *out << c.name;
}

template <class Connection>
unsigned int run(Connection& connection, unsigned char flow)
{
    unsigned char block[64];
    unsigned int word = 0;
    switch (flow) {
    case request::Read:
        return connection.read32(0x100, &word);
    case request::BlockRead:
        return connection.readBlock(0x100, block, 64);
    case request::Status:
        return connection.getStatus(block);
    case request::Ping:
        return connection.ping();
    default:
        return connection.comBreak();
    }
}

template <class Connection>
void breakAndReopen(Connection& connection, const FaultCase& c, quint16 port)
{
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), port));
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(run(connection, c.flow), 13u);
    EXPECT_GE(clock.elapsed(), c.minMs);
    EXPECT_LT(clock.elapsed(), c.maxMs);
    if (c.ns && (c.fault == Fault::CloseAtOnce || c.fault == Fault::CloseInFrame)) {
        // The socket is gone: requests and commands refuse at once.
        clock.restart();
        EXPECT_EQ(connection.ping(), 12u);
        EXPECT_EQ(connection.write8(0x100, 1), 12u);
        EXPECT_LT(clock.elapsed(), 100);
    }
    // Reopen: a new socket and a reset parser although the broken stream left a partial frame.
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), port));
    clock.restart();
    EXPECT_EQ(connection.ping(), 0u);
    EXPECT_LT(clock.elapsed(), 2000);
}

class Faults : public ::testing::TestWithParam<FaultCase>
{};

} // namespace

TEST_P(Faults, EndInTimeAndReopenWorks)
{
    const FaultCase c = GetParam();
    FakeServer server;
    server.setResponder([&c](FakeServer& s, int client, const QByteArray& frame) {
        if (client != 0 || flowId(frame) != c.flow) {
            if (flowId(frame) == request::Ping)
                s.send(pingReply(), client); // the healthy second client
            return;
        }
        const QByteArray data(60000, '\x55');
        switch (c.fault) {
        case Fault::CloseInFrame: {
            const QByteArray reply =
                c.flow == request::BlockRead ? readData(0x100, data.constData(), 64) : completion();
            s.send(reply.left(int(reply.size()) / 2), client);
        }
            [[fallthrough]];
        case Fault::CloseAtOnce:
            s.closeClient(client);
            break;
        case Fault::Stall:
            break;
        case Fault::PromiseMore:
            s.send(readData(0x100, data.constData(), int(data.size())).left(100), client);
            break;
        case Fault::WrongReply:
            s.send(c.flow == request::Ping ? statusReply(1) : pingReply(), client);
            break;
        }
    });
    if (c.ns) {
        PXNSConnection connection(nullptr);
        breakAndReopen(connection, c, server.port());
    } else {
        PXConnection connection;
        breakAndReopen(connection, c, server.port());
    }
}

// PXConnection does not notice a closed peer: each fault ends its request with 13 once the
// 5000 ms pass, never earlier and never much later. PXNSConnection ends at once on a close and
// after the request's own time-out otherwise.
INSTANTIATE_TEST_SUITE_P(
    Server, Faults,
    ::testing::Values(
        FaultCase{"BlockReadClosedMidFrame", false, request::BlockRead, Fault::CloseInFrame, 4500,
                  9000},
        FaultCase{"ReadPromisesMore", false, request::Read, Fault::PromiseMore, 4500, 9000},
        FaultCase{"PingGetsWrongReply", false, request::Ping, Fault::WrongReply, 4500, 9000},
        FaultCase{"NSRead32KilledMidRequest", true, request::Read, Fault::CloseAtOnce, 0, 900},
        FaultCase{"NSBlockReadClosedMidFrame", true, request::BlockRead, Fault::CloseInFrame, 0,
                  900},
        FaultCase{"NSStatusKilledMidRequest", true, request::Status, Fault::CloseAtOnce, 0, 450},
        FaultCase{"NSBreakClosedMidFrame", true, request::Break, Fault::CloseInFrame, 0, 1500},
        FaultCase{"NSPingStalls", true, request::Ping, Fault::Stall, 480, 2500},
        FaultCase{"NSReadPromisesMore", true, request::Read, Fault::PromiseMore, 980, 3000}),
    [](const ::testing::TestParamInfo<FaultCase>& p) { return std::string(p.param.name); });

// PXNSConnection: a flood of events and bypass packets held back during a request is still
// signalled, every one in arrival order per kind, when the server dies during that request
// (the last bypass frame cut short).
TEST(NSConnectionFaults, ArrivalsHeldBackSurviveTheServerDying)
{
    constexpr quint32 Events = 5000;
    constexpr quint32 Packets = 2000;
    FakeServer server;
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (flowId(frame) != request::Ping)
            return;
        QByteArray bytes;
        for (quint32 i = 0; i < Events; ++i)
            bytes += event(i);
        for (quint32 i = 0; i < Packets; ++i)
            bytes += bypassFrame(debugPacket(0x21, &i, 4));
        s.send(bytes.left(int(bytes.size()) - 3), client);
        s.closeClient(client);
    });
    PXNSConnection connection(nullptr);
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
    std::vector<quint32> events, packets, wantEvents(Events), wantPackets(Packets - 1);
    QObject::connect(&connection, &PXNSConnection::eventArrived, &connection,
                     [&](qint64, uint32_t id) { events.push_back(id); });
    QObject::connect(&connection, &PXNSConnection::bypassArrived, &connection,
                     [&](qint64, const QByteArray& packet) {
                         EXPECT_EQ(packet.size(), 9);
                         packets.push_back(getLe32(packet.constData() + 4));
                     });
    EXPECT_EQ(connection.ping(), 13u);
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return events.size() >= Events && packets.size() >= Packets - 1; }, 10000));
    std::iota(wantEvents.begin(), wantEvents.end(), 0u);
    std::iota(wantPackets.begin(), wantPackets.end(), 0u);
    EXPECT_EQ(events, wantEvents);
    EXPECT_EQ(packets, wantPackets);
    EXPECT_EQ(connection.ping(), 12u);
}
