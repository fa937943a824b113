// PXNSConnection against servers that break. Unlike PXConnection it notices a closed peer:
// a request then ends with 13 at once instead of by its time-out, later requests return 12,
// and a reopen works. Arrivals held back during a failed request are still signalled.

#include "FakeServer.h"

#include "pellix/nsconnection/PXNSConnection.h"
#include "pellix/protocol/PXProtocol.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <gtest/gtest.h>

namespace {

enum class Fault { CloseAtOnce, CloseInFrame, Stall, PromiseMore };
enum class Request { Read32, BlockRead, Status, Ping, Break };

struct FaultCase
{
    const char* name;
    Request request;
    Fault fault;
    int minMs; // the request may not end earlier (its time-out, when it must wait it out)
    int maxMs;
};

QByteArray replyFor(Request request)
{
    const char data[64] = {1, 2, 3, 4};
    switch (request) {
    case Request::Read32:
        return pxproto::readData(0x100, data, 4);
    case Request::BlockRead:
        return pxproto::readData(0x100, data, 64);
    case Request::Status:
        return pxproto::statusReply(1);
    case Request::Ping:
        return pxproto::pingReply();
    case Request::Break:
        return pxproto::completion();
    }
    return {};
}

bool isRequest(const QByteArray& frame)
{
    switch (pxproto::flowId(frame)) {
    case pxproto::request::Read:
    case pxproto::request::BlockRead:
    case pxproto::request::Status:
    case pxproto::request::Ping:
    case pxproto::request::Break:
        return true;
    default:
        return false;
    }
}

unsigned int run(PXNSConnection& connection, Request request)
{
    unsigned char block[64];
    unsigned int word = 0;
    unsigned char status = 0;
    switch (request) {
    case Request::Read32:
        return connection.read32(0x100, &word);
    case Request::BlockRead:
        return connection.readBlock(0x100, block, 64);
    case Request::Status:
        return connection.getStatus(&status);
    case Request::Ping:
        return connection.ping();
    case Request::Break:
        return connection.comBreak();
    }
    return 99;
}

// Names the case in test listings.
void PrintTo(const FaultCase& c, std::ostream* out)
{
    *out << c.name;
}

class NSConnectionFault : public ::testing::TestWithParam<FaultCase>
{};

} // namespace

TEST_P(NSConnectionFault, EndsInTimeAndReopenWorks)
{
    const FaultCase c = GetParam();
    FakeServer server;
    server.setResponder([&c](FakeServer& s, int client, const QByteArray& frame) {
        if (client != 0) {
            if (pxproto::flowId(frame) == pxproto::request::Ping)
                s.send(pxproto::pingReply(), client);
            return;
        }
        if (!isRequest(frame))
            return;
        const QByteArray reply = replyFor(c.request);
        switch (c.fault) {
        case Fault::CloseAtOnce:
            s.closeClient(client);
            break;
        case Fault::CloseInFrame:
            s.send(reply.left(int(reply.size()) / 2), client);
            s.closeClient(client);
            break;
        case Fault::Stall:
            break;
        case Fault::PromiseMore: {
            const QByteArray big(60000, '\x55');
            s.send(pxproto::readData(0x100, big.constData(), int(big.size())).left(100), client);
            break;
        }
        }
    });

    PXNSConnection connection(nullptr);
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(run(connection, c.request), 13u);
    EXPECT_GE(clock.elapsed(), c.minMs);
    EXPECT_LT(clock.elapsed(), c.maxMs);

    if (c.fault == Fault::CloseAtOnce || c.fault == Fault::CloseInFrame) {
        // The socket is gone: requests and commands refuse at once.
        clock.restart();
        EXPECT_EQ(connection.ping(), 12u);
        EXPECT_EQ(connection.write8(0x100, 1), 12u);
        EXPECT_LT(clock.elapsed(), 100);
    }
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
    EXPECT_EQ(connection.ping(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, NSConnectionFault,
    ::testing::Values(
        FaultCase{"Read32KilledMidRequest", Request::Read32, Fault::CloseAtOnce, 0, 900},
        FaultCase{"BlockReadClosedMidFrame", Request::BlockRead, Fault::CloseInFrame, 0, 900},
        FaultCase{"StatusKilledMidRequest", Request::Status, Fault::CloseAtOnce, 0, 450},
        FaultCase{"BreakClosedMidFrame", Request::Break, Fault::CloseInFrame, 0, 1500},
        FaultCase{"PingStalls", Request::Ping, Fault::Stall, 480, 2500},
        FaultCase{"ReadPromisesMore", Request::Read32, Fault::PromiseMore, 980, 3000}),
    [](const ::testing::TestParamInfo<FaultCase>& p) { return std::string(p.param.name); });

// A flood of events and bypass packets during a request: all held back, then every one
// signalled after the request, in arrival order per kind; nothing dropped, lists emptied.
// Then the server dies during a request with arrivals held back: they are still signalled.
TEST(NSConnectionFaults, FloodDuringRequestAndDeathAfterIt)
{
    constexpr int Events = 5000;
    constexpr int Packets = 2000;
    FakeServer server;
    int pings = 0;
    server.setResponder([&pings](FakeServer& s, int client, const QByteArray& frame) {
        if (pxproto::flowId(frame) != pxproto::request::Ping)
            return;
        QByteArray flood;
        for (int i = 0; i < Events; ++i)
            flood += pxproto::event(quint32(i));
        for (int i = 0; i < Packets; ++i) {
            const quint32 n = quint32(i);
            flood += pxproto::bypassFrame(pxproto::debugPacket(0x21, &n, 4));
        }
        if (++pings == 1) {
            s.send(flood + pxproto::pingReply(), client);
        } else {
            s.send(flood.left(int(flood.size()) - 3), client); // last bypass frame cut short
            s.closeClient(client);
        }
    });
    PXNSConnection connection(nullptr);
    ASSERT_TRUE(connection.open(QStringLiteral("127.0.0.1"), server.port()));
    std::vector<quint32> events;
    std::vector<quint32> packets;
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
        const unsigned int result = connection.ping();
        EXPECT_EQ(result, round == 0 ? 0u : 13u);
        const int wantPackets = round == 0 ? Packets : Packets - 1;
        QElapsedTimer clock;
        clock.start();
        while ((events.size() < size_t(Events) || packets.size() < size_t(wantPackets)) &&
               clock.elapsed() < 10000)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        ASSERT_EQ(events.size(), size_t(Events)) << "round " << round;
        ASSERT_EQ(packets.size(), size_t(wantPackets)) << "round " << round;
        for (int i = 0; i < Events; ++i)
            ASSERT_EQ(events[size_t(i)], quint32(i));
        for (int i = 0; i < wantPackets; ++i)
            ASSERT_EQ(packets[size_t(i)], quint32(i));
    }
    EXPECT_EQ(connection.ping(), 12u);
}
