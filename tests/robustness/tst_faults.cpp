// PXConnection and PXNSConnection against servers that break: killed mid-request or
// mid-frame, promising more than ever comes, answering wrongly, dying with arrivals
// held back. Every call must return within its time-out with the right code, and a reopen
// must give a working connection again (nothing of the broken stream survives).

#include "ConnectionChecks.h"
#include "FakeServer.h"

#include "pellix/connection/PXConnection.h"
#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXFrames_p.h"

#include <QElapsedTimer>
#include <QTest>

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <vector>

namespace {

using namespace pxproto;

// What the server does once it has seen the request. CloseAtOnce: killed mid-request, closes
// without a byte. CloseInFrame: sends the first half of the reply frame, then closes.
// PromiseMore: a reply header whose length promises 60000 bytes; 100 come, then silence.
// WrongReply: a reply of another kind (ignored), then silence. (A server that never answers
// at all: the time-out table of tests/nsconnection and tests/connection's time-out case.)
enum Fault { CloseAtOnce, CloseInFrame, PromiseMore, WrongReply };

struct FaultCase
{
    const char* name;
    bool ns;            // PXNSConnection (notices a closed peer) or PXConnection
    unsigned char flow; // the request, by its flow id
    Fault fault;
    int minMs, maxMs; // when the request must end
};

// The case's name, also in the names ctest gives the cases (the default would print the
// object's bytes, pointers included, which change from build to build).
void PrintTo(const FaultCase& c, std::ostream* out)
{
    *out << c.name;
}

using Faults = ::testing::TestWithParam<FaultCase>;
using NSConnectionFaults = Connected<PXNSConnection>;

} // namespace

TEST_P(Faults, EndInTimeAndReopenWorks)
{
    const FaultCase c = GetParam();
    FakeServer server;
    server.setResponder([&c](FakeServer& s, int client, const QByteArray& frame) {
        if (client != 0 || flowId(frame) != c.flow)
            return answerPings(s, client, frame); // the healthy second client
        const QByteArray data(60000, '\x55');
        const QByteArray reply =
            c.flow == request::BlockRead ? readData(0x100, data.constData(), 64) : completion();
        if (c.fault == CloseInFrame)
            s.send(reply.left(int(reply.size()) / 2), client);
        if (c.fault == CloseInFrame || c.fault == CloseAtOnce)
            s.closeClient(client);
        else if (c.fault == PromiseMore)
            s.send(readData(0x100, data.constData(), int(data.size())).left(100), client);
        else if (c.fault == WrongReply)
            s.send(c.flow == request::Ping ? statusReply(1) : pingReply(), client);
    });
    const auto breakAndReopen = [&](auto& connection) {
        ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
        unsigned char block[64];
        unsigned int word = 0;
        QElapsedTimer clock;
        clock.start();
        EXPECT_EQ(c.flow == request::Read        ? connection.read32(0x100, &word)
                  : c.flow == request::BlockRead ? connection.readBlock(0x100, block, 64)
                  : c.flow == request::Status    ? connection.getStatus(block)
                  : c.flow == request::Ping      ? connection.ping()
                                                 : connection.comBreak(),
                  13u);
        EXPECT_GE(clock.elapsed(), c.minMs);
        EXPECT_LT(clock.elapsed(), c.maxMs);
        // Reopen: a new socket and a reset parser although the broken stream left a partial
        // frame.
        ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
        clock.restart();
        EXPECT_EQ(connection.ping(), 0u);
        EXPECT_LT(clock.elapsed(), 2000);
    };
    if (c.ns)
        breakAndReopen(*std::make_unique<PXNSConnection>(nullptr));
    else
        breakAndReopen(*std::make_unique<PXConnection>());
}

// PXConnection does not notice a closed peer: each fault ends its request with 13 once the
// 5000 ms pass, never earlier and never much later. PXNSConnection ends at once on a close and
// after the request's own time-out otherwise.
INSTANTIATE_TEST_SUITE_P(
    Server, Faults,
    ::testing::Values(
        FaultCase{"BlockReadClosedMidFrame", false, request::BlockRead, CloseInFrame, 4500, 9000},
        FaultCase{"ReadPromisesMore", false, request::Read, PromiseMore, 4500, 9000},
        FaultCase{"PingGetsWrongReply", false, request::Ping, WrongReply, 4500, 9000},
        FaultCase{"NSRead32KilledMidRequest", true, request::Read, CloseAtOnce, 0, 900},
        FaultCase{"NSBlockReadClosedMidFrame", true, request::BlockRead, CloseInFrame, 0, 900},
        FaultCase{"NSStatusKilledMidRequest", true, request::Status, CloseAtOnce, 0, 450},
        FaultCase{"NSBreakClosedMidFrame", true, request::Break, CloseInFrame, 0, 1500},
        FaultCase{"NSReadPromisesMore", true, request::Read, PromiseMore, 980, 3000}),
    [](const auto& p) { return std::string(p.param.name); });

// PXNSConnection: a flood of events and bypass packets held back during a request is still
// signalled, every one in arrival order per kind, when the server dies during that request
// (the last bypass frame cut short).
TEST_F(NSConnectionFaults, ArrivalsHeldBackSurviveTheServerDying)
{
    constexpr quint32 Events = 5000, Packets = 2000;
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
    std::vector<quint32> events, packets, want(Events);
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
    std::iota(want.begin(), want.end(), 0u);
    EXPECT_EQ(events, want);
    want.resize(Packets - 1); // the last one was cut short
    EXPECT_EQ(packets, want);
    // The socket is gone: requests and commands refuse at once (every call's 12:
    // tests/nsconnection).
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(connection.ping(), 12u);
    EXPECT_EQ(connection.write8(0x100, 1), 12u);
    EXPECT_LT(clock.elapsed(), 100);
}
