// PXConnection and PXNSConnection against servers that break: killed mid-request or
// mid-frame, stalling, promising more than ever comes, answering wrongly, flooding. Every call
// must return within its time-out with the right code, the queues must stay within their caps,
// and a reopen must give a working connection again (nothing of the broken stream survives).

#include "FakeServer.h"

#include "pellix/connection/PXConnection.h"
#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

// What the server does once it has seen the request.
enum class Fault {
    CloseAtOnce,        // killed mid-request: closes without a byte
    CloseInFrame,       // sends the first half of the reply frame, then closes
    Stall,              // never answers, stays connected
    PromiseMore,        // a reply header whose length promises 60000 bytes; 100 come
    WrongReplyThenStall // a reply of another kind (ignored), then silence
};
enum class Request { Read32, BlockRead, Write, Status, Ping, Break };

struct FaultCase
{
    const char* name;
    bool ns; // PXNSConnection (notices a closed peer) or PXConnection (waits out its time-out)
    Request request;
    Fault fault;
    int minMs, maxMs; // when the request must end
};

// The flow id of the request, and the reply a correct server gives.
std::pair<unsigned char, QByteArray> exchange(Request request)
{
    const char data[64] = {1, 2, 3, 4};
    switch (request) {
    case Request::Read32:
        return {pxproto::request::Read, pxproto::readData(0x100, data, 4)};
    case Request::BlockRead:
        return {pxproto::request::BlockRead, pxproto::readData(0x100, data, 64)};
    case Request::Write:
        return {pxproto::request::Write, pxproto::writeAck()};
    case Request::Status:
        return {pxproto::request::Status, pxproto::statusReply(1)};
    case Request::Ping:
        return {pxproto::request::Ping, pxproto::pingReply()};
    default:
        return {pxproto::request::Break, pxproto::completion()};
    }
}

template <class Connection>
unsigned int run(Connection& connection, Request request)
{
    unsigned char block[64];
    unsigned int word = 0;
    switch (request) {
    case Request::Read32:
        return connection.read32(0x100, &word);
    case Request::BlockRead:
        return connection.readBlock(0x100, block, 64);
    case Request::Write:
        return connection.write32(0x100, 0xA5A5A5A5);
    case Request::Status:
        return connection.getStatus(block);
    case Request::Ping:
        return connection.ping();
    case Request::Break:
        return connection.comBreak();
    }
    return 99;
}

template <class Connection>
void breakAndReopen(Connection& connection, const FaultCase& c, quint16 port)
{
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), port));
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(run(connection, c.request), 13u);
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

// Names the case in test listings.
void PrintTo(const FaultCase& c, std::ostream* out)
{
    *out << c.name;
}

// `events` events and `packets` bypass packets (flow 0x21) numbered from 0, each packet's
// number in its 4 data bytes.
QByteArray flood(int events, int packets)
{
    QByteArray out;
    for (quint32 i = 0; i < quint32(events); ++i)
        out += pxproto::event(i);
    for (quint32 i = 0; i < quint32(packets); ++i)
        out += pxproto::bypassFrame(pxproto::debugPacket(0x21, &i, 4));
    return out;
}

class Faults : public ::testing::TestWithParam<FaultCase>
{};

} // namespace

TEST_P(Faults, EndInTimeAndReopenWorks)
{
    const FaultCase c = GetParam();
    FakeServer server;
    server.setResponder([&c](FakeServer& s, int client, const QByteArray& frame) {
        const auto [flow, reply] = exchange(c.request);
        if (client != 0 || pxproto::flowId(frame) != flow) {
            if (pxproto::flowId(frame) == pxproto::request::Ping)
                s.send(pxproto::pingReply(), client); // the healthy second client
            return;
        }
        const QByteArray big(60000, '\x55');
        switch (c.fault) {
        case Fault::CloseInFrame:
            s.send(reply.left(int(reply.size()) / 2), client);
            [[fallthrough]];
        case Fault::CloseAtOnce:
            s.closeClient(client);
            break;
        case Fault::Stall:
            break;
        case Fault::PromiseMore:
            s.send(pxproto::readData(0x100, big.constData(), int(big.size())).left(100), client);
            break;
        case Fault::WrongReplyThenStall:
            s.send(c.request == Request::Ping ? pxproto::statusReply(1) : pxproto::pingReply(),
                   client);
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
        FaultCase{"Read32KilledMidRequest", false, Request::Read32, Fault::CloseAtOnce, 4500, 9000},
        FaultCase{"BlockReadClosedMidFrame", false, Request::BlockRead, Fault::CloseInFrame, 4500,
                  9000},
        FaultCase{"WriteClosedMidFrame", false, Request::Write, Fault::CloseInFrame, 4500, 9000},
        FaultCase{"StatusStalls", false, Request::Status, Fault::Stall, 4500, 9000},
        FaultCase{"ReadPromisesMore", false, Request::Read32, Fault::PromiseMore, 4500, 9000},
        FaultCase{"PingGetsWrongReply", false, Request::Ping, Fault::WrongReplyThenStall, 4500,
                  9000},
        FaultCase{"NSRead32KilledMidRequest", true, Request::Read32, Fault::CloseAtOnce, 0, 900},
        FaultCase{"NSBlockReadClosedMidFrame", true, Request::BlockRead, Fault::CloseInFrame, 0,
                  900},
        FaultCase{"NSStatusKilledMidRequest", true, Request::Status, Fault::CloseAtOnce, 0, 450},
        FaultCase{"NSBreakClosedMidFrame", true, Request::Break, Fault::CloseInFrame, 0, 1500},
        FaultCase{"NSPingStalls", true, Request::Ping, Fault::Stall, 480, 2500},
        FaultCase{"NSReadPromisesMore", true, Request::Read32, Fault::PromiseMore, 980, 3000}),
    [](const ::testing::TestParamInfo<FaultCase>& p) { return std::string(p.param.name); });

// A server that floods events and bypass packets while nobody takes them: both queues stay
// within 1001 entries by emptying themselves, the newest entries survive, and a ping sent
// during the flood still gets its reply.
TEST(ConnectionFaults, FloodWhileNobodyReadsKeepsQueuesCapped)
{
    constexpr int Events = 5000;
    constexpr int Packets = 3000;
    FakeServer server;
    server.setResponder([](FakeServer& s, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) == pxproto::request::Ping)
            s.send(flood(Events, Packets) + pxproto::pingReply(), client);
    });
    PXConnection connection;
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
    connection.enableEvents(true);
    unsigned char ids[] = {0x21};
    connection.setBypassFlowIds(ids, 1);
    ASSERT_EQ(connection.ping(), 0u);

    // Arrival n (counting from 1) finds n - 1 queued; every 1002nd arrival finds 1001 and
    // empties the queue first, so the queue ends with the last n % 1001 arrivals.
    std::vector<unsigned int> events, packets;
    unsigned int event = 0;
    while (connection.popEvent(&event) == 0)
        events.push_back(event);
    unsigned char flow = 0, buffer[16];
    int length = 0;
    while (connection.getBypassPacket(&flow, buffer, int(sizeof buffer), &length) == 0) {
        ASSERT_EQ(length, 5); // data and checksum
        packets.push_back(pxproto::getLe32(buffer));
    }
    for (const auto& [got, sent] : {std::pair{&events, Events}, std::pair{&packets, Packets}}) {
        ASSERT_EQ(got->size(), size_t(sent % 1001));
        EXPECT_EQ(got->front(), unsigned(sent - sent % 1001));
        EXPECT_EQ(got->back(), unsigned(sent - 1));
    }
}

// PXNSConnection: a flood of events and bypass packets during a request is held back, then
// every one signalled after the request, in arrival order per kind; nothing dropped. Then the
// server dies during a request with arrivals held back: they are still signalled.
TEST(NSConnectionFaults, FloodDuringRequestAndDeathAfterIt)
{
    constexpr int Events = 5000;
    constexpr int Packets = 2000;
    FakeServer server;
    int pings = 0;
    server.setResponder([&pings](FakeServer& s, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) != pxproto::request::Ping)
            return;
        const QByteArray bytes = flood(Events, Packets);
        if (++pings == 1) {
            s.send(bytes + pxproto::pingReply(), client);
        } else {
            s.send(bytes.left(int(bytes.size()) - 3), client); // last bypass frame cut short
            s.closeClient(client);
        }
    });
    PXNSConnection connection(nullptr);
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
    std::vector<quint32> events, packets;
    QObject::connect(&connection, &PXNSConnection::eventArrived, &connection,
                     [&](qint64, uint32_t id) { events.push_back(id); });
    QObject::connect(&connection, &PXNSConnection::bypassArrived, &connection,
                     [&](qint64, const QByteArray& packet) {
                         ASSERT_EQ(packet.size(), 9);
                         packets.push_back(pxproto::getLe32(packet.constData() + 4));
                     });
    for (int round = 0; round < 2; ++round) {
        events.clear();
        packets.clear();
        EXPECT_EQ(connection.ping(), round == 0 ? 0u : 13u);
        const size_t wantPackets = round == 0 ? Packets : Packets - 1;
        QElapsedTimer clock;
        clock.start();
        while ((events.size() < size_t(Events) || packets.size() < wantPackets) &&
               clock.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        ASSERT_EQ(events.size(), size_t(Events)) << "round " << round;
        ASSERT_EQ(packets.size(), wantPackets) << "round " << round;
        for (size_t i = 0; i < events.size(); ++i)
            ASSERT_EQ(events[i], quint32(i));
        for (size_t i = 0; i < packets.size(); ++i)
            ASSERT_EQ(packets[i], quint32(i));
    }
    EXPECT_EQ(connection.ping(), 12u);
}
