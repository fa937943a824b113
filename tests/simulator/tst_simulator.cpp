// Drives the real pellix executable over raw sockets: every reply, the simulated target's
// memory and events, bypass echo, several clients, the command line and hostile input.

#include "SimulatorProcess.h"

#include "pellix/protocol/PXParser.h"
#include "pellix/protocol/PXProtocol.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QTcpSocket>
#include <QTemporaryFile>
#include <QTest>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

namespace {

using namespace pxproto;

QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray out;
    for (int v : values)
        out.append(char(v));
    return out;
}

QByteArray payload(const QByteArray& frame)
{
    return frame.mid(HeaderSize);
}

QByteArray write32(quint32 address, quint32 value)
{
    unsigned char data[4];
    putLe32(data, value);
    return writeRequest(address, false, data, 4);
}

// A raw client socket that sends prebuilt frames and cuts the replies with PXParser.
struct SimClient
{
    explicit SimClient(quint16 port)
    {
        socket.connectToHost(QStringLiteral("127.0.0.1"), port);
        EXPECT_TRUE(socket.waitForConnected(5000));
    }
    void send(const QByteArray& frame) { socket.write(frame), socket.flush(); }
    // The next frame from the server, or an empty array when none came within 5 s.
    QByteArray next()
    {
        QDeadlineTimer deadline(5000);
        for (;;) {
            const QByteArray frame = parser.getPacket(false);
            if (!frame.isEmpty())
                return frame;
            if (socket.bytesAvailable() <= 0 &&
                (deadline.hasExpired() || socket.state() != QAbstractSocket::ConnectedState ||
                 !socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime())))) &&
                socket.bytesAvailable() <= 0)
                return QByteArray();
            parser.feedData(socket.readAll());
        }
    }
    // True when the server closed the connection (frames before the end are discarded).
    bool waitClosed()
    {
        while (!next().isEmpty()) {
        }
        return socket.state() != QAbstractSocket::ConnectedState;
    }
    // Sends a ping and returns the frames that came before its reply, which must come.
    // Proves that earlier requests were answered with exactly those frames.
    QList<QByteArray> framesBeforePing()
    {
        send(ping());
        QList<QByteArray> frames;
        for (QByteArray frame = next(); frame != pingReply(); frame = next()) {
            if (frame.isEmpty()) {
                ADD_FAILURE() << "no ping reply";
                break;
            }
            frames.append(frame);
        }
        return frames;
    }
    // Reads `count` bytes with one block read (sent here unless already sent); checks that the
    // read-data frames follow each other without gaps and carry at most `frameSize` data bytes.
    QByteArray blockReadAll(quint32 address, quint32 count, int frameSize, int* frames = nullptr,
                            bool alreadySent = false)
    {
        if (!alreadySent)
            send(blockRead(address, count));
        QByteArray data;
        int n = 0;
        while (quint32(data.size()) < count) {
            const QByteArray body = payload(next());
            if (body.size() <= 4)
                break;
            EXPECT_EQ(getLe32(body.constData()), address + quint32(data.size()));
            EXPECT_LE(body.size() - 4, frameSize);
            data.append(body.mid(4));
            ++n;
        }
        if (frames)
            *frames = n;
        return data;
    }

    QTcpSocket socket;
    PXParser parser{PXParser::ServerFrames};
};

class Simulator : public ::testing::Test
{
protected:
    // Starts a server on a free port with the given extra options.
    void startServer(const QStringList& extra = {})
    {
        server = std::make_unique<SimulatorProcess>(extra);
        ASSERT_TRUE(server->isListening()) << server->errorOutput().toStdString();
    }
    std::unique_ptr<SimClient> connectClient()
    {
        return std::make_unique<SimClient>(server->port());
    }
    // Every server ends cleanly: a crash or a sanitizer report in it fails the test.
    void TearDown() override
    {
        if (server->pid() > 0) // every test starts one
            ::kill(server->pid(), SIGTERM);
        EXPECT_EQ(server->waitForExit(10000), 0) << server->errorOutput().toStdString();
    }

    std::unique_ptr<SimulatorProcess> server;
};

// ---- replies to every request, malformed requests and noise ---------------------------------

TEST_F(Simulator, EveryRequestGetsItsReplyOrNone)
{
    startServer({"--verbose"});
    const unsigned char ids[] = {0x10, 0x20};
    // Requests and their reply; an empty reply: none at all.
    const std::pair<QByteArray, QByteArray> cases[] = {
        {ping(), pingReply()},
        {status(), statusReply(1)},
        {forceReconnect(), completion()},
        {comBreak(), completion()},
        {writeRequest(0x100, false, "\x5A", 1), writeAck()},
        {singleRead(access::Read8, 0x100), readData(0x100, "\x5A", 1)},
        {enableEvents(true), {}},
        {enableEvents(false), {}},
        {setBypassFlowIds(ids, 2), {}},
        {bypassSend(0x30, "ab", 2), {}},
        {setBaudRate(115200), {}},
        {setFlowMode(2), {}},
        {setUsbId(0x1234, 0xABCD), {}},
        {autoBauding(), {}},
        {clean(), {}},
        {flushFifos(), {}},
        {setClientType(pxl_client_type_t(7)), {}},
        {setPersistent(true), {}},
        {emptyFrame(0x55), {}},
        {writeAck(), {}},
        {blockRead(0x100, 0), {}},
        // Requests whose payload does not fit their flow are skipped without a reply.
        {frame(request::Status, "x", 1), {}},
        {frame(request::Ping, "x", 1), {}},
        {frame(request::Kill, "x", 1), {}},
        {frame(request::Read, "\x02\x00\x00\x00", 4), {}},
        {frame(request::Read, "\x02\x00\x00\x00\x00\x00", 6), {}},
        {frame(request::Read, "\x07\x00\x00\x00\x00", 5), {}},
        {writeRequest(0x10, false, "ab", 2).replace(4, 1, "\x80"), {}},  // write8, 2 bytes
        {writeRequest(0x10, false, "abc", 3).replace(4, 1, "\x82"), {}}, // write32, 3 bytes
        {writeRequest(0x10, false, "abc", 3).replace(4, 1, "\x90"), {}}, // unknown code
        {frame(request::BlockRead, "\x02\0\0\0\0\x10\0\0\0", 9), {}},
        {frame(request::EnableEvents, "\x01\x01", 2), {}},
        {frame(request::SetBypassFlowIds, "\x03\0\0\0\x01", 5), {}},
        {frame(request::BypassSend, "\xAD\x00\x05\x01\x02", 5), {}},
        {frame(request::BypassSend, "\xAB\x00\x02\x01\x02\x03", 6), {}},
        {frame(request::SetBaudRate, "\x01\x02", 2), {}},
        {frame(request::SetUsbId, "\x01\x02\x03\x04", 4), {}},
        // Bytes that cannot start a frame are dropped up to the next start byte; a frame
        // whose payload is garbage is skipped as a whole.
        {bytes({0x00, 0x12, 0xFF, 0x7E}), {}},
        {frame(0xFF, "\x99\x99\x99\x99\x99\x99\x99", 7), {}}};
    SimClient client(server->port());
    for (const auto& [request, reply] : cases) {
        SCOPED_TRACE(PXLogBytes(request, 16).constData());
        client.send(request);
        if (!reply.isEmpty()) {
            EXPECT_EQ(client.next(), reply);
        }
        // Nothing else came before the answer to a ping sent afterwards.
        EXPECT_TRUE(client.framesBeforePing().isEmpty());
    }
    // The skipped writes left memory untouched.
    client.send(singleRead(access::Read32, 0x10));
    EXPECT_EQ(payload(client.next()), bytes({0x10, 0, 0, 0, 0, 0, 0, 0}));
    // The settings are recorded in the verbose log.
    client.send(kill());
    EXPECT_EQ(server->waitForExit(), 0);
    const QString log = server->errorOutput();
    for (const char* text :
         {"baud rate 115200", "flow mode 2 (xonxoff)", "USB identifiers 0x1234 0xABCD",
          "client type 7", "persistent on", "auto-bauding", "unknown flow 0x55"})
        EXPECT_TRUE(log.contains(QLatin1String(text))) << text << "\n" << log.toStdString();
}

// ---- memory ----------------------------------------------------------------------------------

TEST_F(Simulator, WritesOfEveryWidthReadBackLittleEndianApartFromTheInternalSpace)
{
    startServer();
    auto client = connectClient();
    const unsigned char w16[] = {0x34, 0x12}, w32[] = {0xDD, 0xCC, 0xBB, 0xAA}, block[] = {1, 2, 3};
    for (const QByteArray& request :
         {writeRequest(0x1000, false, "\x7F", 1), writeRequest(0x1002, false, w16, 2),
          writeRequest(0x1004, false, w32, 4), writeRequest(0x1008, false, block, 3),
          writeRequest(0x100B, false, nullptr, 0), writeRequest(0x10, true, "\xAA\xBB", 2),
          writeRequest(0x20, false, "\xCC", 1)}) {
        client->send(request);
        EXPECT_EQ(client->next(), writeAck());
    }
    // "<access code> <address> <data read>"; codes 0: 8-bit, 1: 16-bit, 2: 32-bit, 4: internal.
    for (const char* line : {"0 1000 7f", "0 1001 00", "1 1002 3412", "1 1005 ccbb",
                             "2 1004 ddccbbaa", "2 1008 01020300", "2 7654320 00000000", "4 10 aa",
                             "4 11 bb", "4 20 00", "0 10 00", "0 20 cc"}) {
        const QList<QByteArray> field = QByteArray(line).split(' ');
        const quint32 address = field[1].toUInt(nullptr, 16);
        const QByteArray data = QByteArray::fromHex(field[2]);
        client->send(singleRead(static_cast<unsigned char>(field[0].toUInt()), address));
        EXPECT_EQ(client->next(), readData(address, data.constData(), int(data.size()))) << line;
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
    client->send(writeRequest(0x20003, false, pattern.constData(), int(pattern.size())));
    ASSERT_EQ(client->next(), writeAck());
    int frames = 0;
    EXPECT_EQ(client->blockReadAll(0x20003, 1000, 100, &frames), pattern);
    EXPECT_EQ(frames, 10);
    EXPECT_EQ(client->blockReadAll(0x20000, 5, 100), bytes({0, 0, 0, 3, 10}));
    client->send(writeRequest(0, false, "\x11\x22", 2));
    ASSERT_EQ(client->next(), writeAck());
    EXPECT_EQ(client->blockReadAll(0xFFFFFFFE, 4, 100), bytes({0, 0, 0x11, 0x22}));
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
    EXPECT_EQ(client->blockReadAll(0x1000, 12, 4096),
              bytes({0x78, 0x56, 0x34, 0x12, 0xF0, 0xDE, 0xBC, 0x9A, 0, 0, 0, 0}));
    EXPECT_EQ(client->blockReadAll(0x2000, 8, 4096), bytes({0xFF, 0, 0, 0, 0, 0, 0, 0}));
    client->send(singleRead(access::Read32, 0xF0000000u));
    EXPECT_EQ(payload(client->next()).mid(4), bytes({0, 0, 0, 0}));
}

// ---- events and bypass -----------------------------------------------------------------------

TEST_F(Simulator, EventsReachOnlyEnabledClients)
{
    startServer({"--event-register", "0x4000"});
    auto writer = connectClient(), enabled = connectClient(), disabled = connectClient(),
         never = connectClient();
    enabled->send(enableEvents(true));
    disabled->send(enableEvents(true));
    disabled->send(enableEvents(false));
    EXPECT_TRUE(enabled->framesBeforePing().isEmpty());
    EXPECT_TRUE(disabled->framesBeforePing().isEmpty());

    writer->send(write32(0x4000, 0x42));
    EXPECT_EQ(writer->next(), writeAck());
    // A block write covering the register raises the value it holds there.
    const unsigned char block[] = {1, 2, 0xEF, 0xBE, 0xAD, 0xDE, 3};
    writer->send(writeRequest(0x3FFE, false, block, 7));
    EXPECT_EQ(writer->next(), writeAck());
    // Writes that miss part of the register raise nothing.
    writer->send(writeRequest(0x4001, false, block, 4));
    writer->send(writeRequest(0x4000, false, "\x01\x02", 2));
    writer->send(write32(0x4004, 0x99));

    EXPECT_EQ(enabled->framesBeforePing(),
              (QList<QByteArray>{bytes({0xBB, 0, 5, 0x41, 0x42, 0, 0, 0, 0}), event(0xDEADBEEF)}));
    for (SimClient* c : {writer.get(), disabled.get(), never.get()})
        for (const QByteArray& f : c->framesBeforePing())
            EXPECT_NE(flowId(f), reply::Event);
    // The register keeps what was written to it, as memory does.
    writer->send(singleRead(access::Read32, 0x4000));
    EXPECT_EQ(payload(writer->next()).mid(4), bytes({0x01, 0x02, 0x02, 0xEF}));
}

TEST_F(Simulator, BypassEchoReachesOnlySubscribedClients)
{
    startServer();
    auto a = connectClient(), b = connectClient(), c = connectClient();
    const unsigned char flowsA[] = {5}, flowsB[] = {5, 7}, flowsC[] = {7}, flowsC2[] = {9};
    a->send(setBypassFlowIds(flowsA, 1));
    b->send(setBypassFlowIds(flowsB, 2));
    c->send(setBypassFlowIds(flowsC, 1));
    c->send(setBypassFlowIds(flowsC2, 1)); // replaces {7}
    for (SimClient* s : {a.get(), b.get(), c.get()})
        EXPECT_TRUE(s->framesBeforePing().isEmpty());

    a->send(bypassSend(5, "\x01\x02", 2));
    // A bad checksum is echoed with a good one.
    QByteArray bad = bypassSend(7, "xyz", 3);
    bad[bad.size() - 1] = char(bad.at(bad.size() - 1) ^ 0x55);
    a->send(bad);
    c->send(bypassSend(9, nullptr, 0));

    const QByteArray echo5 = bytes({0xBB, 0, 7, 0xB5, 0xAD, 0, 3, 5, 1, 2, 6});
    const QByteArray echo7 = bypassFrame(debugPacket(7, "xyz", 3));
    const QByteArray echo9 = bypassFrame(debugPacket(9, nullptr, 0));
    // The senders go first: once a sender's ping is answered, its echoes are on their way
    // to every subscriber.
    EXPECT_EQ(a->framesBeforePing(), QList<QByteArray>{echo5});
    EXPECT_EQ(c->framesBeforePing(), QList<QByteArray>{echo9});
    EXPECT_EQ(b->framesBeforePing(), (QList<QByteArray>{echo5, echo7}));
}

// ---- several clients, kill, signals ------------------------------------------------------------

TEST_F(Simulator, ClientsAreServedIndependently)
{
    startServer({"--frame-size", "1000"});
    auto a = connectClient(), b = connectClient(), leaver = connectClient();
    const QByteArray patternA(50000, 'a'), patternB(50000, 'b');
    a->send(writeRequest(0x100000, false, patternA.constData(), int(patternA.size())));
    b->send(writeRequest(0x200000, false, patternB.constData(), int(patternB.size())));
    EXPECT_EQ(a->next(), writeAck());
    EXPECT_EQ(b->next(), writeAck());
    // One client goes away in the middle of a huge read; the others do not notice.
    leaver->send(blockRead(0, 0xFFFFFFFFu));
    ASSERT_FALSE(leaver->next().isEmpty());
    leaver->socket.abort();
    a->send(blockRead(0x200000, 50000));
    b->send(blockRead(0x100000, 50000));
    EXPECT_EQ(a->blockReadAll(0x200000, 50000, 1000, nullptr, true), patternB);
    EXPECT_EQ(b->blockReadAll(0x100000, 50000, 1000, nullptr, true), patternA);
}

TEST_F(Simulator, KillClosesEveryClientAndExitsZero)
{
    startServer();
    auto a = connectClient(), b = connectClient();
    b->send(enableEvents(true));
    EXPECT_TRUE(b->framesBeforePing().isEmpty());
    a->send(kill());
    EXPECT_TRUE(a->waitClosed());
    EXPECT_TRUE(b->waitClosed());
    EXPECT_EQ(server->waitForExit(), 0);
}

// SIGTERM is what every test here ends with.
TEST_F(Simulator, SigintExitsZeroAndClosesClients)
{
    startServer();
    auto client = connectClient();
    ASSERT_EQ(::kill(server->pid(), SIGINT), 0);
    EXPECT_EQ(server->waitForExit(), 0);
    EXPECT_TRUE(client->waitClosed());
}

// ---- command line ----------------------------------------------------------------------------

TEST(SimulatorCommandLine, ComPortListensOn7700PlusNAndHelpExitsZero)
{
    const QString pellix = SimulatorProcess::binaryFolder() + QStringLiteral("/pellix");
    QProcess process;
    process.start(pellix, {"COM421", "921600", "hardware"});
    ASSERT_TRUE(process.waitForReadyRead(15000));
    EXPECT_EQ(process.readLine(), QByteArray("pellix: listening on 127.0.0.1:8121\n"));
    SimClient client(8121);
    client.send(ping());
    EXPECT_EQ(client.next(), pingReply());
    process.terminate();
    EXPECT_TRUE(process.waitForFinished(10000));
    EXPECT_EQ(process.exitCode(), 0);

    process.start(pellix, {"--help"});
    EXPECT_TRUE(process.waitForFinished(10000));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_TRUE(process.readAllStandardOutput().contains("--frame-size"));
}

TEST(SimulatorCommandLine, BadArgumentsFailWithAMessage)
{
    const auto check = [](const QStringList& arguments, int code, const char* message) {
        SCOPED_TRACE(arguments.join(' ').toStdString());
        SimulatorProcess process = SimulatorProcess::withArguments(arguments);
        EXPECT_EQ(process.waitForExit(10000), code);
        EXPECT_TRUE(process.errorOutput().contains(QLatin1String(message)));
        EXPECT_FALSE(process.errorOutput().isEmpty());
    };
    for (const char* line :
         {"", "COM5", "COM5 921600", "COM5 921600 none extra", "COMx 921600 none", "5 921600 none",
          "COM5 fast none", "COM5 0 none", "COM5 921600 rts", "--port 65536", "--port -1", "--port",
          "--port 0 --frame-size 0", "--port 0 --frame-size 65532", "--port 0 --latency soon",
          "--port 0 --event-register 0x100000000", "--port 0 --listen nowhere", "--port 0 --bogus",
          "--port 0 --image /nonexistent/image.lod"})
        check(QString::fromLatin1(line).split(' ', Qt::SkipEmptyParts), 2, "");
    QTemporaryFile image;
    ASSERT_TRUE(image.open());
    image.write("@100\n1\n\n2\n");
    image.close();
    check({"--port", "0", "--image", image.fileName()}, 2, "outside a packet");
    SimulatorProcess first;
    check({"--port", QString::number(first.port())}, 1, "cannot listen");
}

// ---- hostile clients ---------------------------------------------------------------------------

TEST_F(Simulator, RandomBytesDoNotDisturbOtherClients)
{
    startServer();
    auto hostile = connectClient(), good = connectClient();
    QRandomGenerator random(1234);
    QByteArray noise(256 * 1024, Qt::Uninitialized);
    for (char& c : noise)
        c = char(random.bounded(256));
    hostile->send(noise);
    good->send(ping());
    EXPECT_EQ(good->next(), pingReply());
    hostile->socket.abort();
    good->send(status());
    EXPECT_EQ(good->next(), statusReply(1));
}

// A frame that promises more than ever comes is dropped once the client has been silent for
// the parser's stale interval; the connection then works again.
TEST_F(Simulator, TruncatedFrameIsDroppedAfterSilence)
{
    startServer();
    auto client = connectClient(), other = connectClient();
    client->send(bytes({0xBB, 0x01, 0x00, 0xFF, 1, 2, 3}));
    other->send(ping());
    EXPECT_EQ(other->next(), pingReply());
    QTest::qWait(int(PXParser::StaleInterval) + 300);
    client->send(ping());
    EXPECT_EQ(client->next(), pingReply());
}

// A client that floods requests and never reads is held back by TCP; the server neither
// stalls the others nor buffers its replies without bound. A 1 MiB read comes in frames of
// 4096 bytes by default.
TEST_F(Simulator, ClientThatNeverReadsDoesNotStallOthers)
{
    startServer();
    auto sink = connectClient(), good = connectClient();
    sink->socket.setReadBufferSize(1);
    sink->send(enableEvents(true));
    sink->send(blockRead(0, 0xFFFFFFFFu));
    QByteArray flood;
    for (int i = 0; i < 20000; ++i)
        flood.append(ping());
    sink->send(flood);
    good->send(enableEvents(true));
    for (quint32 id = 0; id < 2000; ++id) {
        good->send(write32(0xFFFFFF00u, id)); // the default event register
        ASSERT_EQ(good->next(), writeAck()) << id;
        ASSERT_EQ(good->next(), event(id));
    }
    int frames = 0;
    EXPECT_EQ(good->blockReadAll(0x1000, 1 << 20, 4096, &frames), QByteArray(1 << 20, '\0'));
    EXPECT_EQ(frames, 256);
    // The sink still gets the start of its read once it reads.
    sink->socket.setReadBufferSize(0);
    const QByteArray first = sink->next();
    ASSERT_EQ(flowId(first), reply::ReadData);
    EXPECT_EQ(getLe32(payload(first).constData()), 0u);
}

TEST_F(Simulator, LatencyDelaysEachReply)
{
    startServer({"--latency", "150000"});
    auto client = connectClient();
    client->send(enableEvents(true));
    QElapsedTimer timer;
    timer.start();
    client->send(ping());
    client->send(status());
    EXPECT_EQ(client->next(), pingReply());
    EXPECT_EQ(client->next(), statusReply(1));
    EXPECT_GE(timer.elapsed(), 300);
}

} // namespace
