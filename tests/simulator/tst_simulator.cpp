// Drives the real pellix executable over raw sockets: every reply, the simulated target's
// memory and events, bypass echo, several clients, the command line and hostile input.

#include "SimHarness.h"

#include "pellix/protocol/PXProtocol.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QTemporaryFile>
#include <QTest>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

namespace {

constexpr quint32 PXSimDefaultEventRegister = 0xFFFFFF00u;

QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray out;
    for (int v : values)
        out.append(char(v));
    return out;
}

QByteArray payload(const QByteArray& frame)
{
    return frame.mid(pxproto::HeaderSize);
}

QByteArray write32(quint32 address, quint32 value)
{
    unsigned char data[4];
    pxproto::putLe32(data, value);
    return pxproto::writeRequest(address, false, data, 4);
}

// Reads `count` bytes with one block read and checks that the read-data frames follow each
// other without gaps and stay within `frameSize` data bytes each.
QByteArray blockReadAll(SimClient& client, quint32 address, quint32 count, int frameSize,
                        int* frames = nullptr)
{
    client.send(pxproto::blockRead(address, count));
    QByteArray data;
    quint32 expected = address;
    int n = 0;
    while (quint32(data.size()) < count) {
        const QByteArray frame = client.next();
        if (frame.isEmpty() || pxproto::flowId(frame) != pxproto::reply::ReadData)
            break;
        const QByteArray body = payload(frame);
        EXPECT_EQ(pxproto::getLe32(body.constData()), expected);
        EXPECT_LE(body.size() - 4, frameSize);
        EXPECT_GT(body.size(), 4);
        data.append(body.mid(4));
        expected += quint32(body.size() - 4);
        ++n;
    }
    if (frames)
        *frames = n;
    return data;
}

class Simulator : public ::testing::Test
{
protected:
    // Starts a server on a free port with the given extra options.
    void startServer(QStringList extra = {})
    {
        extra << "--port"
              << "0";
        ASSERT_TRUE(server.start(extra)) << server.errorOutput().constData();
    }
    std::unique_ptr<SimClient> connectClient()
    {
        auto client = std::make_unique<SimClient>();
        EXPECT_TRUE(client->connectTo(server.port()));
        return client;
    }
    // Every server ends cleanly: a crash or a sanitizer report in it fails the test.
    void TearDown() override
    {
        if (server.port() == 0)
            return;
        if (server.raw().state() != QProcess::NotRunning)
            server.raw().terminate();
        EXPECT_EQ(server.waitExit(), 0) << server.errorOutput().constData();
    }
    // Polls the server's standard error until it holds `text`, for at most timeoutMs.
    bool waitForLog(const char* text, int timeoutMs = 10000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!server.errorOutput().contains(text)) {
            if (timer.elapsed() > timeoutMs)
                return false;
            QTest::qWait(10);
        }
        return true;
    }

    SimProcess server;
};

// ---- replies to every request ---------------------------------------------------------------

struct ReplyCase
{
    const char* name;
    QByteArray request;
    int replyFlow; // -1: no reply
    QByteArray replyPayload;
};

TEST_F(Simulator, EveryRequestGetsItsReplyOrNone)
{
    startServer({"--verbose"});
    const unsigned char ids[] = {0x10, 0x20};
    const ReplyCase cases[] = {
        {"ping", pxproto::ping(), pxproto::reply::Ping, {}},
        {"status", pxproto::status(), pxproto::reply::Status, bytes({1})},
        {"force reconnect", pxproto::forceReconnect(), pxproto::reply::Completion, {}},
        {"break", pxproto::comBreak(), pxproto::reply::Completion, {}},
        {"write8", pxproto::writeRequest(0x100, false, "\x5A", 1), pxproto::reply::WriteAck, {}},
        {"read8", pxproto::singleRead(pxproto::access::Read8, 0x100), pxproto::reply::ReadData,
         bytes({0x00, 0x01, 0, 0, 0x5A})},
        {"enable events", pxproto::enableEvents(true), -1, {}},
        {"disable events", pxproto::enableEvents(false), -1, {}},
        {"bypass ids", pxproto::setBypassFlowIds(ids, 2), -1, {}},
        {"bypass send, not subscribed", pxproto::bypassSend(0x30, "ab", 2), -1, {}},
        {"baud rate", pxproto::setBaudRate(115200), -1, {}},
        {"flow mode", pxproto::setFlowMode(2), -1, {}},
        {"USB ids", pxproto::setUsbId(0x1234, 0xABCD), -1, {}},
        {"auto-bauding", pxproto::autoBauding(), -1, {}},
        {"client type", pxproto::setClientType(pxl_client_type_t(7)), -1, {}},
        {"persistent", pxproto::setPersistent(true), -1, {}},
        {"clean", pxproto::clean(), -1, {}},
        {"flush FIFOs", pxproto::flushFifos(), -1, {}},
        {"unknown flow", pxproto::emptyFrame(0x55), -1, {}},
        {"reply flow sent as request", pxproto::writeAck(), -1, {}},
        {"block read of 0 bytes", pxproto::blockRead(0x100, 0), -1, {}},
    };
    auto client = connectClient();
    for (const ReplyCase& c : cases) {
        SCOPED_TRACE(c.name);
        client->send(c.request);
        if (c.replyFlow >= 0) {
            const QByteArray reply = client->next();
            ASSERT_FALSE(reply.isEmpty());
            EXPECT_EQ(pxproto::flowId(reply), c.replyFlow);
            EXPECT_EQ(payload(reply), c.replyPayload);
        }
        // Nothing else came before the answer to a ping sent afterwards.
        bool pinged = false;
        EXPECT_TRUE(client->framesBeforePing(&pinged).isEmpty());
        ASSERT_TRUE(pinged);
    }
    // The settings are recorded in the verbose log.
    client->send(pxproto::kill());
    EXPECT_EQ(server.waitExit(), 0);
    const QByteArray log = server.errorOutput();
    for (const char* text :
         {"baud rate 115200", "flow mode 2 (xonxoff)", "USB identifiers 0x1234 0xABCD",
          "client type 7", "persistent on", "auto-bauding", "unknown flow 0x55"})
        EXPECT_TRUE(log.contains(text)) << text << "\n" << log.constData();
}

// Requests whose payload does not fit their flow are skipped without a reply, and the
// connection carries on with the next frame.
TEST_F(Simulator, MalformedRequestsAreSkipped)
{
    startServer();
    const QByteArray cases[] = {
        pxproto::frame(pxproto::request::Status, "x", 1),
        pxproto::frame(pxproto::request::Ping, "x", 1),
        pxproto::frame(pxproto::request::Kill, "x", 1),
        pxproto::frame(pxproto::request::Read, "\x02\x00\x00\x00", 4),
        pxproto::frame(pxproto::request::Read, "\x02\x00\x00\x00\x00\x00", 6),
        pxproto::frame(pxproto::request::Read, "\x07\x00\x00\x00\x00", 5),
        pxproto::writeRequest(0x10, false, "ab", 2).replace(4, 1, "\x80"),  // write8, 2 bytes
        pxproto::writeRequest(0x10, false, "abc", 3).replace(4, 1, "\x82"), // write32, 3 bytes
        pxproto::writeRequest(0x10, false, "abc", 3).replace(4, 1, "\x90"), // unknown code
        pxproto::frame(pxproto::request::BlockRead, "\x02\0\0\0\0\x10\0\0\0", 9),
        pxproto::frame(pxproto::request::EnableEvents, "\x01\x01", 2),
        pxproto::frame(pxproto::request::SetBypassFlowIds, "\x03\0\0\0\x01", 5),
        pxproto::frame(pxproto::request::BypassSend, "\xAD\x00\x05\x01\x02", 5),
        pxproto::frame(pxproto::request::BypassSend, "\xAB\x00\x02\x01\x02\x03", 6),
        pxproto::frame(pxproto::request::SetBaudRate, "\x01\x02", 2),
        pxproto::frame(pxproto::request::SetUsbId, "\x01\x02\x03\x04", 4),
    };
    auto client = connectClient();
    for (const QByteArray& request : cases) {
        SCOPED_TRACE(PXLogBytes(request, 16).constData());
        client->send(request);
        bool pinged = false;
        EXPECT_TRUE(client->framesBeforePing(&pinged).isEmpty());
        ASSERT_TRUE(pinged);
    }
    // The skipped writes left memory untouched.
    client->send(pxproto::singleRead(pxproto::access::Read32, 0x10));
    EXPECT_EQ(payload(client->next()), bytes({0x10, 0, 0, 0, 0, 0, 0, 0}));
}

// ---- memory ----------------------------------------------------------------------------------

TEST_F(Simulator, WritesOfEveryWidthReadBackLittleEndian)
{
    startServer();
    auto client = connectClient();
    const unsigned char w16[] = {0x34, 0x12};
    const unsigned char w32[] = {0xDD, 0xCC, 0xBB, 0xAA};
    const unsigned char block[] = {1, 2, 3};
    for (const QByteArray& request : {pxproto::writeRequest(0x1000, false, "\x7F", 1),
                                      pxproto::writeRequest(0x1002, false, w16, 2),
                                      pxproto::writeRequest(0x1004, false, w32, 4),
                                      pxproto::writeRequest(0x1008, false, block, 3),
                                      pxproto::writeRequest(0x100B, false, nullptr, 0)}) {
        client->send(request);
        const QByteArray ack = client->next();
        ASSERT_FALSE(ack.isEmpty());
        EXPECT_EQ(pxproto::flowId(ack), pxproto::reply::WriteAck);
        EXPECT_EQ(ack.size(), 4);
    }
    struct Read
    {
        unsigned char code;
        quint32 address;
        QByteArray data;
    };
    const Read reads[] = {
        {pxproto::access::Read8, 0x1000, bytes({0x7F})},
        {pxproto::access::Read8, 0x1001, bytes({0x00})},
        {pxproto::access::Read16, 0x1002, bytes({0x34, 0x12})},
        {pxproto::access::Read32, 0x1004, bytes({0xDD, 0xCC, 0xBB, 0xAA})},
        {pxproto::access::Read32, 0x1008, bytes({1, 2, 3, 0})},
        {pxproto::access::Read32, 0x7654320, bytes({0, 0, 0, 0})},
        {pxproto::access::Read16, 0x1005, bytes({0xCC, 0xBB})},
    };
    for (const Read& r : reads) {
        SCOPED_TRACE(r.address);
        client->send(pxproto::singleRead(r.code, r.address));
        const QByteArray frame = client->next();
        ASSERT_FALSE(frame.isEmpty());
        EXPECT_EQ(pxproto::flowId(frame), pxproto::reply::ReadData);
        EXPECT_EQ(pxproto::getLe32(payload(frame).constData()), r.address);
        EXPECT_EQ(payload(frame).mid(4), r.data);
    }
}

// A large read comes back in frames of at most --frame-size bytes that reassemble; a range
// running past 0xFFFFFFFF wraps to address 0.
TEST_F(Simulator, BlockReadArrivesInFramesThatReassemble)
{
    startServer({"--frame-size", "100"});
    auto client = connectClient();
    QByteArray pattern(1000, Qt::Uninitialized);
    for (int i = 0; i < pattern.size(); ++i)
        pattern[i] = char(i * 7 + 3);
    client->send(pxproto::writeRequest(0x20003, false, pattern.constData(), int(pattern.size())));
    ASSERT_EQ(pxproto::flowId(client->next()), pxproto::reply::WriteAck);

    int frames = 0;
    EXPECT_EQ(blockReadAll(*client, 0x20003, 1000, 100, &frames), pattern);
    EXPECT_EQ(frames, 10);
    EXPECT_EQ(blockReadAll(*client, 0x20000, 5, 100), bytes({0, 0, 0, 3, 10}));

    client->send(pxproto::writeRequest(0, false, "\x11\x22", 2));
    ASSERT_EQ(pxproto::flowId(client->next()), pxproto::reply::WriteAck);
    EXPECT_EQ(blockReadAll(*client, 0xFFFFFFFE, 4, 100), bytes({0, 0, 0x11, 0x22}));
}

TEST_F(Simulator, LargeBlockReadOfOneMebibyte)
{
    startServer();
    auto client = connectClient();
    QByteArray pattern(1 << 20, Qt::Uninitialized);
    for (int i = 0; i < pattern.size(); ++i)
        pattern[i] = char(i ^ (i >> 9));
    for (int offset = 0; offset < pattern.size(); offset += pxproto::MaxBlockChunk) {
        client->send(pxproto::writeRequest(0x80000000u + quint32(offset), false,
                                           pattern.constData() + offset, pxproto::MaxBlockChunk));
        ASSERT_EQ(pxproto::flowId(client->next()), pxproto::reply::WriteAck);
    }
    int frames = 0;
    EXPECT_EQ(blockReadAll(*client, 0x80000000u, quint32(pattern.size()), 4096, &frames), pattern);
    EXPECT_EQ(frames, 256);
}

TEST_F(Simulator, InternalSpaceIsSeparateFromMemory)
{
    startServer();
    auto client = connectClient();
    client->send(pxproto::writeRequest(0x10, true, "\xAA\xBB", 2));
    ASSERT_EQ(pxproto::flowId(client->next()), pxproto::reply::WriteAck);
    client->send(pxproto::writeRequest(0x20, false, "\xCC", 1));
    ASSERT_EQ(pxproto::flowId(client->next()), pxproto::reply::WriteAck);

    const struct
    {
        unsigned char code;
        quint32 address;
        int value;
    } reads[] = {
        {pxproto::access::ReadInternal, 0x10, 0xAA}, {pxproto::access::ReadInternal, 0x11, 0xBB},
        {pxproto::access::ReadInternal, 0x20, 0x00}, {pxproto::access::Read8, 0x10, 0x00},
        {pxproto::access::Read8, 0x20, 0xCC},
    };
    for (const auto& r : reads) {
        SCOPED_TRACE(r.address);
        client->send(pxproto::singleRead(r.code, r.address));
        const QByteArray body = payload(client->next());
        ASSERT_EQ(body.size(), 5);
        EXPECT_EQ(pxproto::getLe32(body.constData()), r.address);
        EXPECT_EQ(static_cast<unsigned char>(body[4]), r.value);
    }
}

TEST_F(Simulator, ImagePreloadsMemory)
{
    QTemporaryFile image;
    ASSERT_TRUE(image.open());
    image.write("# boot image\n@00001000\n12345678\n# inside\n0x9ABCDEF0\n\n@F0000000\n1\n"
                "@2000\r\nFF\r\n");
    image.close();
    startServer({"--image", image.fileName()});
    auto client = connectClient();
    EXPECT_EQ(blockReadAll(*client, 0x1000, 12, 4096),
              bytes({0x78, 0x56, 0x34, 0x12, 0xF0, 0xDE, 0xBC, 0x9A, 0, 0, 0, 0}));
    EXPECT_EQ(blockReadAll(*client, 0x2000, 8, 4096), bytes({0xFF, 0, 0, 0, 0, 0, 0, 0}));
    client->send(pxproto::singleRead(pxproto::access::Read32, 0xF0000000u));
    EXPECT_EQ(payload(client->next()).mid(4), bytes({0, 0, 0, 0}));
}

// ---- events ----------------------------------------------------------------------------------

TEST_F(Simulator, EventsReachOnlyEnabledClients)
{
    startServer({"--event-register", "0x4000"});
    auto writer = connectClient();
    auto enabled = connectClient();
    auto disabled = connectClient();
    auto never = connectClient();
    enabled->send(pxproto::enableEvents(true));
    disabled->send(pxproto::enableEvents(true));
    disabled->send(pxproto::enableEvents(false));
    for (SimClient* c : {enabled.get(), disabled.get()}) {
        bool pinged = false;
        c->framesBeforePing(&pinged);
        ASSERT_TRUE(pinged);
    }

    writer->send(write32(0x4000, 0x42));
    EXPECT_EQ(pxproto::flowId(writer->next()), pxproto::reply::WriteAck);
    // A block write covering the register raises the value it holds there.
    const unsigned char block[] = {1, 2, 0xEF, 0xBE, 0xAD, 0xDE, 3};
    writer->send(pxproto::writeRequest(0x3FFE, false, block, 7));
    EXPECT_EQ(pxproto::flowId(writer->next()), pxproto::reply::WriteAck);
    // Writes that miss part of the register raise nothing.
    writer->send(pxproto::writeRequest(0x4001, false, block, 4));
    writer->send(pxproto::writeRequest(0x4000, false, "\x01\x02", 2));
    writer->send(write32(0x4004, 0x99));

    bool pinged = false;
    const QList<QByteArray> frames = enabled->framesBeforePing(&pinged);
    ASSERT_TRUE(pinged);
    ASSERT_EQ(frames.size(), 2);
    EXPECT_EQ(frames[0], bytes({0xBB, 0, 5, 0x41, 0x42, 0, 0, 0, 0}));
    EXPECT_EQ(frames[1], pxproto::event(0xDEADBEEF));
    for (SimClient* c : {writer.get(), disabled.get(), never.get()}) {
        const QList<QByteArray> others = c->framesBeforePing(&pinged);
        ASSERT_TRUE(pinged);
        for (const QByteArray& f : others)
            EXPECT_NE(pxproto::flowId(f), pxproto::reply::Event);
    }
    // The register keeps what was written to it, as memory does.
    writer->send(pxproto::singleRead(pxproto::access::Read32, 0x4000));
    EXPECT_EQ(payload(writer->next()).mid(4), bytes({0x01, 0x02, 0x02, 0xEF}));
}

TEST_F(Simulator, DefaultEventRegister)
{
    startServer();
    auto client = connectClient();
    client->send(pxproto::enableEvents(true));
    client->send(write32(PXSimDefaultEventRegister, 7));
    EXPECT_EQ(pxproto::flowId(client->next()), pxproto::reply::WriteAck);
    EXPECT_EQ(client->next(), pxproto::event(7));
}

// ---- bypass ----------------------------------------------------------------------------------

TEST_F(Simulator, BypassEchoReachesOnlySubscribedClients)
{
    startServer();
    auto a = connectClient();
    auto b = connectClient();
    auto c = connectClient();
    const unsigned char flowsA[] = {5};
    const unsigned char flowsB[] = {5, 7};
    const unsigned char flowsC[] = {7};
    const unsigned char flowsC2[] = {9};
    a->send(pxproto::setBypassFlowIds(flowsA, 1));
    b->send(pxproto::setBypassFlowIds(flowsB, 2));
    c->send(pxproto::setBypassFlowIds(flowsC, 1));
    c->send(pxproto::setBypassFlowIds(flowsC2, 1)); // replaces {7}
    bool pinged = false;
    for (SimClient* s : {a.get(), b.get(), c.get()}) {
        s->framesBeforePing(&pinged);
        ASSERT_TRUE(pinged);
    }

    a->send(pxproto::bypassSend(5, "\x01\x02", 2));
    // A bad checksum is echoed with a good one.
    QByteArray bad = pxproto::bypassSend(7, "xyz", 3);
    bad[bad.size() - 1] = char(bad.at(bad.size() - 1) ^ 0x55);
    a->send(bad);
    c->send(pxproto::bypassSend(9, nullptr, 0));

    const QByteArray echo5 = bytes({0xBB, 0, 7, 0xB5, 0xAD, 0, 3, 5, 1, 2, 6});
    const QByteArray echo7 = pxproto::bypassFrame(pxproto::debugPacket(7, "xyz", 3));
    const QByteArray echo9 = pxproto::bypassFrame(pxproto::debugPacket(9, nullptr, 0));
    // The senders go first: once a sender's ping is answered, its echoes are on their way
    // to every subscriber.
    const struct
    {
        SimClient* client;
        QList<QByteArray> expected;
    } expectations[] = {
        {a.get(), {echo5}},
        {c.get(), {echo9}},
        {b.get(), {echo5, echo7}},
    };
    for (const auto& e : expectations) {
        EXPECT_EQ(e.client->framesBeforePing(&pinged), e.expected);
        EXPECT_TRUE(pinged);
    }
}

// ---- several clients, kill, signals ------------------------------------------------------------

TEST_F(Simulator, ClientsAreServedIndependently)
{
    startServer({"--frame-size", "1000"});
    auto a = connectClient();
    auto b = connectClient();
    auto leaver = connectClient();
    QByteArray patternA(50000, 'a');
    QByteArray patternB(50000, 'b');
    a->send(pxproto::writeRequest(0x100000, false, patternA.constData(), int(patternA.size())));
    b->send(pxproto::writeRequest(0x200000, false, patternB.constData(), int(patternB.size())));
    EXPECT_EQ(pxproto::flowId(a->next()), pxproto::reply::WriteAck);
    EXPECT_EQ(pxproto::flowId(b->next()), pxproto::reply::WriteAck);
    // One client goes away in the middle of a huge read; the others do not notice.
    leaver->send(pxproto::blockRead(0, 0xFFFFFFFFu));
    ASSERT_FALSE(leaver->next().isEmpty());
    leaver->socket.abort();
    a->send(pxproto::blockRead(0x200000, 50000));
    b->send(pxproto::blockRead(0x100000, 50000));
    QByteArray gotA;
    QByteArray gotB;
    while (gotA.size() < 50000 || gotB.size() < 50000) {
        if (gotA.size() < 50000) {
            const QByteArray f = a->next();
            ASSERT_FALSE(f.isEmpty());
            gotA.append(payload(f).mid(4));
        }
        if (gotB.size() < 50000) {
            const QByteArray f = b->next();
            ASSERT_FALSE(f.isEmpty());
            gotB.append(payload(f).mid(4));
        }
    }
    EXPECT_EQ(gotA, patternB);
    EXPECT_EQ(gotB, patternA);
}

TEST_F(Simulator, KillClosesEveryClientAndExitsZero)
{
    startServer();
    auto a = connectClient();
    auto b = connectClient();
    b->send(pxproto::enableEvents(true));
    bool pinged = false;
    b->framesBeforePing(&pinged);
    ASSERT_TRUE(pinged);
    a->send(pxproto::kill());
    EXPECT_TRUE(a->waitClosed());
    EXPECT_TRUE(b->waitClosed());
    EXPECT_EQ(server.waitExit(), 0);
}

TEST_F(Simulator, TerminationSignalsExitZero)
{
    for (int signal : {SIGTERM, SIGINT}) {
        SimProcess process;
        ASSERT_TRUE(process.start({"--port", "0"}));
        SimClient client;
        ASSERT_TRUE(client.connectTo(process.port()));
        ASSERT_EQ(::kill(pid_t(process.pid()), signal), 0);
        EXPECT_EQ(process.waitExit(), 0) << signal;
        EXPECT_TRUE(client.waitClosed());
    }
}

// ---- command line ----------------------------------------------------------------------------

TEST(SimulatorCommandLine, ComPortListensOn7700PlusN)
{
    SimProcess process;
    ASSERT_TRUE(process.start({"COM421", "921600", "hardware"}))
        << process.errorOutput().constData();
    EXPECT_EQ(process.listenLine(), QStringLiteral("pellix: listening on 127.0.0.1:8121"));
    EXPECT_EQ(process.port(), 8121);
    SimClient client;
    ASSERT_TRUE(client.connectTo(8121));
    client.send(pxproto::ping());
    EXPECT_EQ(client.next(), pxproto::pingReply());
}

TEST(SimulatorCommandLine, BadArgumentsExitTwo)
{
    const QStringList cases[] = {
        {},
        {"COM5"},
        {"COM5", "921600"},
        {"COM5", "921600", "none", "extra"},
        {"COMx", "921600", "none"},
        {"5", "921600", "none"},
        {"COM5", "fast", "none"},
        {"COM5", "0", "none"},
        {"COM5", "921600", "rts"},
        {"--port", "65536"},
        {"--port", "-1"},
        {"--port", "0", "--frame-size", "0"},
        {"--port", "0", "--frame-size", "65532"},
        {"--port", "0", "--latency", "soon"},
        {"--port", "0", "--event-register", "0x100000000"},
        {"--port", "0", "--listen", "nowhere"},
        {"--port", "0", "--bogus"},
        {"--port"},
        {"--port", "0", "--image", "/nonexistent/image.lod"},
    };
    for (const QStringList& arguments : cases) {
        SimProcess process;
        EXPECT_EQ(process.run(arguments), 2) << arguments.join(' ').toStdString();
        EXPECT_FALSE(process.errorOutput().isEmpty()) << arguments.join(' ').toStdString();
    }
}

TEST(SimulatorCommandLine, ImageWithDataOutsidePacketIsRejected)
{
    QTemporaryFile image;
    ASSERT_TRUE(image.open());
    image.write("@100\n1\n\n2\n");
    image.close();
    SimProcess process;
    EXPECT_EQ(process.run({"--port", "0", "--image", image.fileName()}), 2);
    EXPECT_TRUE(process.errorOutput().contains("outside a packet"));
}

TEST(SimulatorCommandLine, PortInUseFails)
{
    SimProcess first;
    ASSERT_TRUE(first.start({"--port", "0"}));
    SimProcess second;
    const int code = second.run({"--port", QString::number(first.port())});
    EXPECT_NE(code, 0);
    EXPECT_NE(code, -1);
    EXPECT_TRUE(second.errorOutput().contains("cannot listen")) << second.errorOutput().constData();
}

TEST(SimulatorCommandLine, HelpExitsZero)
{
    SimProcess process;
    EXPECT_EQ(process.run({"--help"}), 0);
    EXPECT_TRUE(process.raw().readAllStandardOutput().contains("--frame-size"));
}

// ---- hostile clients ---------------------------------------------------------------------------

TEST_F(Simulator, RandomBytesDoNotDisturbOtherClients)
{
    startServer();
    auto hostile = connectClient();
    auto good = connectClient();
    QRandomGenerator random(1234);
    QByteArray noise(256 * 1024, Qt::Uninitialized);
    for (int i = 0; i < noise.size(); ++i)
        noise[i] = char(random.bounded(256));
    hostile->send(noise);
    good->send(pxproto::ping());
    EXPECT_EQ(good->next(), pxproto::pingReply());
    hostile->socket.abort();
    good->send(pxproto::status());
    EXPECT_EQ(good->next(), pxproto::statusReply(1));
}

TEST_F(Simulator, StartByteNoiseBeforeRequestIsSkippedOnSameConnection)
{
    startServer();
    auto client = connectClient();
    // Bytes that cannot start a frame are dropped up to the next start byte.
    client->send(bytes({0x00, 0x12, 0xFF, 0x7E}) + pxproto::ping());
    EXPECT_EQ(client->next(), pxproto::pingReply());
    // A frame whose payload is garbage is skipped as a whole.
    client->send(pxproto::frame(0xFF, "\x99\x99\x99\x99\x99\x99\x99", 7) + pxproto::status());
    EXPECT_EQ(client->next(), pxproto::statusReply(1));
}

// A frame that promises more than ever comes is dropped once the client has been silent for
// the parser's stale interval; the connection then works again.
TEST_F(Simulator, TruncatedFrameIsDroppedAfterSilence)
{
    startServer();
    auto client = connectClient();
    auto other = connectClient();
    client->send(bytes({0xBB, 0x01, 0x00, 0xFF, 1, 2, 3}));
    other->send(pxproto::ping());
    EXPECT_EQ(other->next(), pxproto::pingReply());
    QTest::qWait(int(PXParser::StaleInterval) + 300);
    client->send(pxproto::ping());
    EXPECT_EQ(client->next(), pxproto::pingReply());
}

// A client that floods requests and never reads is held back by TCP; the server neither
// stalls the others nor buffers its replies without bound.
TEST_F(Simulator, ClientThatNeverReadsDoesNotStallOthers)
{
    startServer();
    auto sink = connectClient();
    auto good = connectClient();
    sink->socket.setReadBufferSize(1);
    sink->send(pxproto::enableEvents(true));
    sink->send(pxproto::blockRead(0, 0xFFFFFFFFu));
    QByteArray flood;
    for (int i = 0; i < 20000; ++i)
        flood.append(pxproto::ping());
    sink->send(flood);
    good->send(pxproto::enableEvents(true));
    for (quint32 id = 0; id < 2000; ++id) {
        good->send(write32(PXSimDefaultEventRegister, id));
        ASSERT_EQ(pxproto::flowId(good->next()), pxproto::reply::WriteAck) << id;
        ASSERT_EQ(good->next(), pxproto::event(id));
    }
    int frames = 0;
    EXPECT_EQ(blockReadAll(*good, 0x1000, 1 << 20, 4096, &frames), QByteArray(1 << 20, '\0'));
    // The sink still gets the start of its read once it reads.
    sink->socket.setReadBufferSize(0);
    const QByteArray first = sink->next();
    ASSERT_FALSE(first.isEmpty());
    EXPECT_EQ(pxproto::flowId(first), pxproto::reply::ReadData);
    EXPECT_EQ(pxproto::getLe32(payload(first).constData()), 0u);
}

// Event frames for a client whose output is full wait in its queue; clean drops them and
// leaves the client's events enabled.
TEST_F(Simulator, CleanDropsQueuedEventFrames)
{
    startServer({"--verbose"});
    auto sink = connectClient();
    auto other = connectClient();
    sink->socket.setReadBufferSize(1);
    sink->send(pxproto::enableEvents(true));
    sink->send(pxproto::blockRead(0, 0xFFFFFFFFu));
    ASSERT_TRUE(waitForLog("client 1: output full: requests held back"));
    const auto raise = [&](quint32 id) {
        other->send(write32(PXSimDefaultEventRegister, id));
        return pxproto::flowId(other->next()) == pxproto::reply::WriteAck;
    };
    // Until the kernel's socket buffers are full the sink's output still drains now and then,
    // emptying its queue; try again until three marked events were queued when clean came.
    const char* queuedLine = "client 1: output full: event and bypass frames queued";
    quint32 dropped = 0;
    for (quint32 attempt = 1; attempt <= 200 && dropped == 0; ++attempt) {
        const auto queuedBefore = server.errorOutput().count(queuedLine);
        for (quint32 probe = 0; server.errorOutput().count(queuedLine) == queuedBefore; ++probe) {
            ASSERT_LT(probe, 1000u);
            ASSERT_TRUE(raise(0x10000 + probe));
        }
        for (quint32 mark = 1; mark <= 3; ++mark)
            ASSERT_TRUE(raise(attempt * 16 + mark));
        other->send(pxproto::clean());
        bool pinged = false;
        other->framesBeforePing(&pinged);
        ASSERT_TRUE(pinged);
        const QByteArray log = server.errorOutput();
        const int at = int(log.lastIndexOf("clean: "));
        ASSERT_GE(at, 0);
        if (log.mid(at + 7, 12).split(' ').first().toInt() >= 4)
            dropped = attempt * 16;
    }
    ASSERT_NE(dropped, 0u);
    ASSERT_TRUE(raise(99));

    // The sink, reading now, gets only events that were sent before the queueing, then 99.
    sink->socket.setReadBufferSize(0);
    for (;;) {
        const QByteArray frame = sink->next();
        ASSERT_FALSE(frame.isEmpty());
        if (pxproto::flowId(frame) != pxproto::reply::Event)
            continue;
        const quint32 id = pxproto::getLe32(payload(frame).constData());
        if (id == 99)
            break;
        EXPECT_FALSE(id > dropped && id <= dropped + 3) << id;
    }
}

// ---- latency ---------------------------------------------------------------------------------

TEST_F(Simulator, LatencyDelaysEachReply)
{
    startServer({"--latency", "150000"});
    auto client = connectClient();
    client->send(pxproto::enableEvents(true));
    QElapsedTimer timer;
    timer.start();
    client->send(pxproto::ping());
    client->send(pxproto::status());
    EXPECT_EQ(client->next(), pxproto::pingReply());
    EXPECT_EQ(client->next(), pxproto::statusReply(1));
    EXPECT_GE(timer.elapsed(), 300);
}

} // namespace
