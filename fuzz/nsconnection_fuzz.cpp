// PXNSConnection's dispatch fed arbitrary server bytes while a request is outstanding.
//
// Input: byte 0 picks the request, byte 1 the options; the rest is what the server has
// queued on the socket before the request is made, so the request's event processing
// dispatches it. Then either the server's end closes (option bit 0) or the bytes that complete
// any partial frame follow, with a reply that ends the request at once; every input takes
// milliseconds. Checked: the request ends with 0, 12 or 13 well within its time-out; every
// event frame of length 5 and every bypass frame in the stream is signalled exactly once, in
// arrival order per kind (only a prefix of them when the connection goes away early).

#include "FuzzPeer.h"

#include "pellix/nsconnection/PXNSConnection.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

constexpr unsigned int ReadAddress = 0x1000;
constexpr int ReadSizes[] = {1, 2, 4, 8, 16, 64, 300};

[[noreturn]] void fail(const char* what)
{
    std::fprintf(stderr, "nsconnection fuzz: %s\n", what);
    std::abort();
}

void ensureApplication()
{
    static int argc = 1;
    static char name[] = "nsconnection_fuzz";
    static char* argv[] = {name, nullptr};
    if (!QCoreApplication::instance())
        new QCoreApplication(argc, argv);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 60000)
        return 0;
    ensureApplication();
    const int kind = data[0] % 7;
    const int options = data[1];
    const bool closeServer = options & 1;
    const bool closeInReceiver = options & 2;
    const bool writeInReceiver = options & 4;
    const QByteArray stream(reinterpret_cast<const char*>(data + 2), int(size - 2));

    // What the server sends, and the arrivals it must produce.
    QByteArray sent = stream;
    if (!closeServer)
        sent += fuzzpeer::completion(stream);
    QList<quint32> expectedEvents;
    QList<QByteArray> expectedBypass;
    {
        PXParser cutter(PXParser::ServerFrames);
        cutter.feedData(sent);
        for (;;) {
            const QByteArray& frame = cutter.getPacket(false);
            if (frame.isEmpty())
                break;
            if (pxproto::flowId(frame) == pxproto::reply::Event &&
                pxproto::payloadLength(frame) == pxproto::EventLength)
                expectedEvents.append(pxproto::getLe32(frame.constData() + 4));
            else if (pxproto::flowId(frame) == pxproto::reply::Bypass)
                expectedBypass.append(frame.mid(pxproto::HeaderSize));
        }
    }

    int listener = -1;
    const quint16 port = fuzzpeer::listenPort(&listener);
    auto* connection = new PXNSConnection(nullptr);
    if (!connection->open(QStringLiteral("127.0.0.1"), port))
        fail("open");
    fuzzpeer::Peer peer;

    QList<quint32> events;
    QList<QByteArray> bypass;
    QObject::connect(connection, &PXNSConnection::eventArrived, connection,
                     [&](qint64, uint32_t id) {
                         events.append(id);
                         if (closeInReceiver && events.size() == 1)
                             connection->close();
                     });
    QObject::connect(connection, &PXNSConnection::bypassArrived, connection,
                     [&](qint64, const QByteArray& packet) {
                         bypass.append(QByteArray(packet.constData(), packet.size()));
                         if (writeInReceiver)
                             connection->write8(ReadAddress, 1);
                         if (closeInReceiver && bypass.size() == 1)
                             connection->close();
                     });

    unsigned char expectedFlow = 0;
    QByteArray terminator;
    int readSize = ReadSizes[(options >> 4) % 7];
    switch (kind) {
    case 0:
    case 1:
        if (kind == 1 && readSize <= 4)
            readSize = 1;
        expectedFlow = readSize > 4 ? pxproto::request::BlockRead : pxproto::request::Read;
        terminator = pxproto::frame(pxproto::reply::ReadData, nullptr, 0);
        break;
    case 2:
        expectedFlow = pxproto::request::Status;
        terminator = pxproto::statusReply(1);
        break;
    case 3:
        expectedFlow = pxproto::request::Ping;
        terminator = pxproto::pingReply();
        break;
    case 4:
        expectedFlow = pxproto::request::Break;
        terminator = pxproto::completion();
        break;
    case 5:
        expectedFlow = pxproto::request::ForceReconnect;
        terminator = pxproto::completion();
        break;
    default:
        expectedFlow = 0; // no request: arrivals with nothing in progress
        break;
    }
    if (!closeServer)
        sent += terminator;
    peer.send(sent);
    if (closeServer)
        peer.closeGracefully();

    std::vector<unsigned char> buffer(size_t(readSize), 0);
    unsigned char status = 0;
    unsigned int result = 0;
    QElapsedTimer clock;
    clock.start();
    switch (kind) {
    case 0:
        result = connection->genericRead(ReadAddress, false, buffer.data(), readSize);
        break;
    case 1:
        result = connection->genericRead(ReadAddress, true, buffer.data(), readSize);
        break;
    case 2:
        result = connection->getStatus(&status);
        break;
    case 3:
        result = connection->ping();
        break;
    case 4:
        result = connection->comBreak();
        break;
    case 5:
        result = connection->forcePellixReconnect();
        break;
    default:
        break;
    }
    if (clock.elapsed() > 3000)
        fail("request waited for its time-out");
    if (result != 0 && result != 12 && result != 13)
        fail("unexpected result code");
    if (expectedFlow != 0 && !closeServer && !peer.waitForFrame(expectedFlow, 0))
        fail("request not sent");

    // Let the held-back arrivals and whatever came after the request be signalled. When the
    // server's end closes, a request written to it draws a reset that may cut the stream
    // short; then (as after a receiver's close) the arrivals are a prefix of the stream's.
    const bool whole = !closeServer && !closeInReceiver;
    QElapsedTimer settle;
    settle.start();
    while (settle.elapsed() < (whole ? 2000 : 20) &&
           (events.size() < expectedEvents.size() || bypass.size() < expectedBypass.size()))
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    QCoreApplication::processEvents();
    if (events.size() > expectedEvents.size() || bypass.size() > expectedBypass.size() ||
        events != expectedEvents.mid(0, events.size()) ||
        bypass != expectedBypass.mid(0, bypass.size()))
        fail("arrivals duplicated, reordered or made up");
    if (whole && (events.size() != expectedEvents.size() || bypass.size() != expectedBypass.size()))
        fail("arrivals lost");

    delete connection;
    peer.closeAbort();
    return 0;
}
