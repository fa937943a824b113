// Drives the real pellix executable over raw sockets: the replies, the simulated target's
// memory and events, bypass echo, several clients, the command line and signals.

#include "FakeServer.h"
#include "SimulatorProcess.h"

#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"

#include <QDeadlineTimer>
#include <QTcpSocket>
#include <QTemporaryFile>

#include <gtest/gtest.h>

#include <csignal>

namespace {

using namespace pxproto;

const auto hex = [](const char* text) { return QByteArray::fromHex(text); };

// A raw client socket that sends prebuilt frames and cuts the replies with PXParser.
struct SimClient
{
    explicit SimClient(quint16 port)
    {
        socket.connectToHost(QStringLiteral("127.0.0.1"), port);
        EXPECT_TRUE(socket.waitForConnected(5000));
    }
    void send(const QByteArray& frames) { socket.write(frames), socket.flush(); }
    // The next frame from the server, or an empty array when none came within 5 s or the
    // server closed the connection.
    QByteArray next()
    {
        for (const QDeadlineTimer deadline(5000);; parser.feedData(socket.readAll())) {
            if (const QByteArray frame = parser.getPacket(false); !frame.isEmpty())
                return frame;
            if (socket.bytesAvailable() <= 0 &&
                !socket.waitForReadyRead(int(deadline.remainingTime())))
                return QByteArray();
        }
    }
    // Sends a ping and returns the frames that came before its reply (and a note when none
    // came): proves that earlier requests were answered with exactly those frames.
    QList<QByteArray> framesBeforePing()
    {
        send(ping());
        QList<QByteArray> frames;
        QByteArray frame;
        while ((frame = next()) != pingReply() && !frame.isEmpty())
            frames.append(frame);
        return frame.isEmpty() ? frames << "no ping reply" : frames;
    }
    // Reads `count` bytes with one block read; checks that the read-data frames follow each
    // other without gaps and carry `frameSize` data bytes each (the last one the rest).
    QByteArray blockReadAll(quint32 address, quint32 count, int frameSize)
    {
        send(blockRead(address, count));
        QByteArray data;
        for (QByteArray body; quint32(data.size()) < count; data += body.mid(4)) {
            if ((body = next().mid(HeaderSize)).size() <= 4)
                break;
            EXPECT_EQ(getLe32(body.constData()), address + quint32(data.size()));
            EXPECT_EQ(body.size() - 4, qMin<qint64>(frameSize, count - data.size()));
        }
        return data;
    }

    QTcpSocket socket;
    PXParser parser{PXParser::ServerFrames};
};

// Each request gets its reply or none at all; malformed ones are skipped whole. The settings
// and commands without a reply show in the verbose log. Writes of every width read back
// little-endian, apart from the internal space. A large read comes back in frames of
// --frame-size bytes that reassemble; a range running past 0xFFFFFFFF wraps to address 0.
// --image preloads memory.
TEST(Simulator, RequestsGetTheirRepliesAndMemoryReadsBackWhatWasWritten)
{
    QTemporaryFile image;
    const char* lod = "# boot image\n@00003000\n12345678\n# inside\n0x9ABCDEF0\n\n@4000\r\nFF\r\n";
    ASSERT_TRUE(image.open() && image.write(lod) > 0 && image.flush());
    SimulatorProcess server({"--verbose", "--frame-size", "100", "--image", image.fileName()});
    ASSERT_TRUE(server.isListening()) << server.errorOutput().toStdString();
    const unsigned char ids[] = {0x10, 0x20};
    SimClient client(server.port());
    const auto check = [&client](const QByteArray& request, const QList<QByteArray>& replies) {
        client.send(request);
        EXPECT_EQ(client.framesBeforePing(), replies) << PXLogBytes(request, 16).constData();
    };
    // Every check ends with a ping: a ping answered twice or not at all fails the next one.
    check(status(), {statusReply(1)});
    check(forceReconnect(), {completion()});
    check(comBreak(), {completion()});
    check(writeRequest(0x100, false, "\x5A", 1), {writeAck()});
    check(singleRead(access::Read8, 0x100), {readData(0x100, "\x5A", 1)});
    // Requests without a reply; then payloads that do not fit their flow (the last a write32
    // with 3 bytes), garbage before a frame, a garbage payload.
    for (const QByteArray& request :
         {enableEvents(false), setBypassFlowIds(ids, 2), setBaudRate(115200), setFlowMode(2),
          setUsbId(0x1234, 0xABCD), autoBauding(), clean(), flushFifos(),
          setClientType(pxl_client_type_t(7)), setPersistent(true), emptyFrame(0x55),
          blockRead(0x100, 0), frame(request::Status, "x", 1),
          frame(request::Read, "\x02\x00\x00\x00", 4), frame(request::Read, "\x07\0\0\0\0", 5),
          frame(request::BypassSend, "\xAD\x00\x05\x01\x02", 5), hex("00 12 FF 7E"),
          frame(0xFF, "\x99\x99\x99\x99\x99\x99\x99", 7),
          writeRequest(0x10, false, "abc", 3).replace(4, 1, "\x82")})
        check(request, {});
    const QByteArray pattern = FakeServer::memoryBytes(0, 1000);
    client.send(writeRequest(0x1000, false, "\x7F", 1) +
                writeRequest(0x1002, false, "\x34\x12", 2) +
                writeRequest(0x1004, false, "\xDD\xCC\xBB\xAA", 4) +
                writeRequest(0x1008, false, "\1\2\3", 3) + writeRequest(0x100B, false, nullptr, 0) +
                writeRequest(0x10, true, "\xAA\xBB", 2) + writeRequest(0x20, false, "\xCC", 1) +
                writeRequest(0x20003, false, pattern.constData(), int(pattern.size())) +
                writeRequest(0, false, "\x11\x22", 2));
    EXPECT_EQ(client.framesBeforePing().join(), writeAck().repeated(9));
    // "<access code> <address> <data read>"; codes 0: 8-bit, 1: 16-bit, 2: 32-bit, 4: internal.
    // Memory at 0x10 stays 0: neither the skipped write nor the internal one touched it.
    for (const char* line : {"0 1000 7f", "0 1001 00", "1 1002 3412", "1 1005 ccbb",
                             "2 1004 ddccbbaa", "2 1008 01020300", "2 7654320 00000000", "4 10 aa",
                             "4 11 bb", "4 20 00", "2 10 00000000", "0 20 cc"}) {
        const QList<QByteArray> field = QByteArray(line).split(' ');
        const quint32 address = field[1].toUInt(nullptr, 16);
        const QByteArray data = QByteArray::fromHex(field[2]);
        check(singleRead(static_cast<unsigned char>(field[0].toUInt()), address),
              {readData(address, data.constData(), int(data.size()))});
    }
    EXPECT_EQ(client.blockReadAll(0x20003, 1000, 100), pattern);
    EXPECT_EQ(client.blockReadAll(0x20000, 5, 100), hex("000000030A"));
    EXPECT_EQ(client.blockReadAll(0xFFFFFFFE, 4, 100), hex("00001122"));
    EXPECT_EQ(client.blockReadAll(0x3000, 12, 100), hex("78563412F0DEBC9A00000000"));
    EXPECT_EQ(client.blockReadAll(0x4000, 2, 100), hex("FF00"));
    client.send(kill());
    EXPECT_EQ(server.waitForExit(), 0);
    const QString log = server.errorOutput();
    for (const char* text :
         {"baud rate 115200", "flow mode 2 (xonxoff)", "USB identifiers 0x1234 0xABCD",
          "client type 7", "persistent on", "auto-bauding", "unknown flow 0x55",
          "clean: 0 queued frame(s) dropped", "flush FIFOs: 0 queued frame(s) dropped", "kill"})
        EXPECT_TRUE(log.contains(QLatin1String(text))) << text << "\n" << log.toStdString();
}

// Events go to the clients that enabled them, bypass echoes to the clients that chose the
// packet's flow (the sender included). Meanwhile a client that floods requests and never reads
// is held back by TCP; the server neither stalls the others nor buffers its replies without
// bound. A 1 MiB read comes in frames of 4096 bytes by default.
TEST(Simulator, ClientsGetWhatTheyChoseAndOneThatNeverReadsStallsNoOne)
{
    SimulatorProcess server({"--event-register", "0x4000"});
    ASSERT_TRUE(server.isListening()) << server.errorOutput().toStdString();
    SimClient sink(server.port()), a(server.port()), b(server.port()), c(server.port());
    sink.socket.setReadBufferSize(1);
    sink.send(enableEvents(true) + blockRead(0, 0xFFFFFFFFu) + ping().repeated(20000));
    const unsigned char flowsA[] = {5}, flowsB[] = {5, 7}, flowsC[] = {7}, flowsC2[] = {9};
    a.send(setBypassFlowIds(flowsA, 1));
    b.send(setBypassFlowIds(flowsB, 2) + enableEvents(true));
    // {9} replaces {7}; the events go off again.
    c.send(setBypassFlowIds(flowsC, 1) + setBypassFlowIds(flowsC2, 1) + enableEvents(true) +
           enableEvents(false));
    for (SimClient* s : {&a, &b, &c})
        EXPECT_TRUE(s->framesBeforePing().isEmpty());

    // A 32-bit write to the register, or a block write covering it, raises the value written
    // there; writes that miss part of the register raise nothing.
    const unsigned char block[] = {1, 2, 0xEF, 0xBE, 0xAD, 0xDE, 3};
    a.send(writeRequest(0x4000, false, "\x42\0\0\0", 4) + writeRequest(0x3FFE, false, block, 7) +
           writeRequest(0x4001, false, block, 4) + writeRequest(0x4000, false, "\x01\x02", 2) +
           writeRequest(0x4004, false, "\x42\0\0\0", 4) + singleRead(access::Read32, 0x4000));
    // The register keeps what was written to it, as memory does.
    EXPECT_EQ(a.framesBeforePing().join(),
              writeAck().repeated(5) + readData(0x4000, "\x01\x02\x02\xEF", 4));

    // A bad checksum is echoed with a good one.
    QByteArray bad = bypassSend(7, "xyz", 3);
    bad[bad.size() - 1] = char(bad.at(bad.size() - 1) ^ 0x55);
    a.send(bypassSend(5, "\x01\x02", 2) + bad);
    c.send(bypassSend(9, nullptr, 0));
    const QByteArray echo5 = hex("BB 00 07 B5 AD 00 03 05 01 02 06");
    // The senders go first: once a sender's ping is answered, its echoes are on their way
    // to every subscriber.
    EXPECT_EQ(a.framesBeforePing(), QList<QByteArray>{echo5});
    EXPECT_EQ(c.framesBeforePing(), QList<QByteArray>{bypassFrame(debugPacket(9, nullptr, 0))});
    EXPECT_EQ(b.framesBeforePing(),
              (QList<QByteArray>{hex("BB 00 05 41 42 00 00 00 00"), event(0xDEADBEEF), echo5,
                                 bypassFrame(debugPacket(7, "xyz", 3))}));

    // All the while the sink has held no one up: 2000 more events, each after its write's
    // reply, then a 1 MiB read past the register. The value goes out in host order
    // (little-endian). The default register, 0xFFFFFF00, raises the events in tst_tool.
    for (quint32 id = 0; id < 2000; ++id) {
        b.send(writeRequest(0x4000, false, &id, 4));
        ASSERT_EQ(b.framesBeforePing(), (QList<QByteArray>{writeAck(), event(id)})) << id;
    }
    EXPECT_EQ(b.blockReadAll(0x10000, 1 << 20, 4096), QByteArray(1 << 20, '\0'));
    // The sink still gets the start of its read once it reads.
    sink.socket.setReadBufferSize(0);
    EXPECT_EQ(sink.next(), readData(0, QByteArray(4096, '\0').constData(), 4096));
    // SIGTERM ends the server cleanly although the sink's replies are still held back.
    ASSERT_EQ(::kill(server.pid(), SIGTERM), 0);
    EXPECT_EQ(server.waitForExit(10000), 0) << server.errorOutput().toStdString();
}

// Listening on 7700 + N for COMN is checked through the library's PXST_Open (tst_api, the
// tool tests), its --version and --help in tst_tool beside pxtool's. With the positional
// arguments only and no device configured for the port, the server serves the simulation and
// says so.
TEST(SimulatorCommandLine, OptionsAndBadArguments)
{
    SimulatorProcess hardware =
        SimulatorProcess::withArguments({"COM421", "921600", "hardware", "--port", "0"});
    ASSERT_TRUE(hardware.isListening());
    EXPECT_TRUE(hardware.errorOutput().contains("no serial device configured for COM421"));

    const auto check = [](const QStringList& arguments, int code, const char* message) {
        SimulatorProcess process = SimulatorProcess::withArguments(arguments);
        EXPECT_EQ(process.waitForExit(10000), code) << arguments.join(' ').toStdString();
        const QString log = process.errorOutput();
        EXPECT_TRUE(!log.isEmpty() && log.contains(QLatin1String(message))) << log.toStdString();
    };
    for (const char* line :
         {"", "COM5", "COM5 921600", "COM5 921600 none extra", "COMx 921600 none", "5 921600 none",
          "COM5 fast none", "COM5 0 none", "COM5 921600 rts", "--port 65536", "--port -1", "--port",
          "--port 0 --frame-size 0", "--port 0 --frame-size 65532", "--port 0 --latency soon",
          "--port 0 --event-register 0x100000000", "--port 0 --listen nowhere", "--port 0 --bogus",
          "--port 0 --image /nonexistent/image.lod"})
        check(QString::fromLatin1(line).split(' ', Qt::SkipEmptyParts), 2, "");
    QTemporaryFile image;
    ASSERT_TRUE(image.open() && image.write("@100\n1\n\n2\n") > 0 && image.flush());
    check({"--port", "0", "--image", image.fileName()}, 2, "outside a packet");
    check({"--port", QString::number(hardware.port())}, 1, "cannot listen");

    // --latency delays each reply: the status's and the ping's after it.
    SimulatorProcess slow({"--latency", "150000"});
    SimClient client(slow.port());
    const QDeadlineTimer twoReplies(300);
    client.send(status());
    EXPECT_EQ(client.framesBeforePing(), QList<QByteArray>{statusReply(1)});
    EXPECT_TRUE(twoReplies.hasExpired()) << twoReplies.remainingTime() << " ms too early";
    // SIGINT ends the server with a client connected as cleanly (status 0, no sanitizer report)
    // as SIGTERM (the case above) and a kill request (the first case) do.
    ASSERT_EQ(::kill(slow.pid(), SIGINT), 0);
    EXPECT_EQ(slow.waitForExit(), 0);
}

} // namespace
