// PXNSConnection's dispatch fed arbitrary server bytes while a request is outstanding.
//
// Input: byte 0 picks the request, byte 1 the options; the rest is what the server has queued
// on the socket before the request is made, so the request's event processing dispatches it. Then
// either the server's end closes (option bit 0) or the bytes that complete any partial frame
// follow, with a reply that ends the request at once; every input takes milliseconds. Checked: the
// request ends with 0, 12 or 13 well within its time-out; every event frame of length 5 and every
// bypass frame in the stream is signalled exactly once, in arrival order per kind (only a prefix of
// them when the connection goes away early).

#include "FuzzPeer.h"

#include "pellix/nsconnection/PXNSConnection.h"

#include <QCoreApplication>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using fuzzpeer::fail;
    if (size < 2 || size > 60000)
        return 0;
    fuzzpeer::ensureApplication();
    const char op = "RISPBC-"[data[0] % 7];
    const int options = data[1];
    const bool closeServer = options & 1;
    const bool closeInReceiver = options & 2;
    const bool writeInReceiver = options & 4;
    const QByteArray stream(reinterpret_cast<const char*>(data + 2), int(size - 2));
    const auto request = fuzzpeer::request<PXNSConnection>(op, options >> 4);

    // What the server sends, and the arrivals it must produce.
    const QByteArray sent =
        closeServer ? stream : stream + fuzzpeer::completion(stream) + request.terminator;
    QList<quint32> expectedEvents;
    QList<QByteArray> expectedBypass;
    for (const QByteArray& frame : fuzzpeer::frames(sent)) {
        if (pxproto::flowId(frame) == pxproto::reply::Event &&
            pxproto::payloadLength(frame) == pxproto::EventLength)
            expectedEvents.append(pxproto::getLe32(frame.constData() + 4));
        else if (pxproto::flowId(frame) == pxproto::reply::Bypass)
            expectedBypass.append(frame.mid(pxproto::HeaderSize));
    }

    auto* connection = new PXNSConnection(nullptr);
    if (!connection->open(QStringLiteral("127.0.0.1"), fuzzpeer::listener().port()))
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
                             connection->write8(fuzzpeer::ReadAddress, 1);
                         if (closeInReceiver && bypass.size() == 1)
                             connection->close();
                     });
    peer.send(sent);
    if (closeServer)
        peer.close(false);

    const QDeadlineTimer deadline(3000);
    fuzzpeer::checkEnded(deadline, request.call(*connection), true);
    if (request.flow != 0 && !closeServer && !peer.waitForFrame(request.flow, false))
        fail("request not sent");

    // Let the held-back arrivals and whatever came after the request be signalled. When the
    // server's end closes, a request written to it draws a reset that may cut the stream
    // short; then (as after a receiver's close) the arrivals are a prefix of the stream's.
    const bool whole = !closeServer && !closeInReceiver;
    const QDeadlineTimer settle(whole ? 2000 : 20);
    while (!settle.hasExpired() &&
           (events.size() < expectedEvents.size() || bypass.size() < expectedBypass.size()))
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    QCoreApplication::processEvents();
    // mid() clamps: more arrivals than expected differ from the expected list too.
    if (events != expectedEvents.mid(0, events.size()) ||
        bypass != expectedBypass.mid(0, bypass.size()))
        fail("arrivals duplicated, reordered or made up");
    if (whole && (events.size() != expectedEvents.size() || bypass.size() != expectedBypass.size()))
        fail("arrivals lost");

    delete connection;
    return 0;
}
