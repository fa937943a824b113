// The requests of PXServer's clients: each checked against its flow's layout and answered
// through the target (memory, events, bypass) or by the front itself (server control).

#include "PXServer.h"

#include "../target/PXTarget.h"

#include "pellix/protocol/PXFrames_p.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>

namespace {

// A block read is asked of the target, and written as read-data frames, in pieces of this
// many bytes.
constexpr int BlockBatch = 64 * 1024;

const unsigned char* payloadOf(const QByteArray& frame)
{
    return reinterpret_cast<const unsigned char*>(frame.constData()) + pxproto::HeaderSize;
}

int payloadSize(const QByteArray& frame)
{
    return int(frame.size()) - pxproto::HeaderSize;
}

} // namespace

void PXServer::handleRequest(PXServerClient* client, const QByteArray& request)
{
    const unsigned char flow = pxproto::flowId(request);
    const int size = payloadSize(request);
    const unsigned char* payload = payloadOf(request);
    switch (flow) {
    case pxproto::request::Read: // also Write: the access code tells them apart
        handleReadOrWrite(client, request);
        return;
    case pxproto::request::BlockRead:
        handleBlockRead(client, request);
        return;
    case pxproto::request::EnableEvents:
        if (size != 1)
            break;
        client->eventsEnabled = payload[0] != 0;
        log(client, "events %s", client->eventsEnabled ? "enabled" : "disabled");
        return;
    case pxproto::request::SetBypassFlowIds:
        handleBypassFlows(client, request);
        return;
    case pxproto::request::BypassSend:
        handleBypassSend(client, request);
        return;
    case pxproto::request::Ping:
        if (size != 0)
            break;
        log(client, "ping");
        sendReply(client, pxproto::pingReply());
        return;
    case pxproto::request::Status:
        if (size != 0)
            break;
        log(client, "status -> %u", unsigned(target.status()));
        sendReply(client, pxproto::statusReply(target.status()));
        return;
    case pxproto::request::ForceReconnect:
        if (size != 0)
            break;
        ++reconnects;
        log(client, "force reconnection (%llu so far)",
            static_cast<unsigned long long>(reconnects));
        target.reconnect([done = answer(client, [](const QByteArray&) {
                              return pxproto::completion();
                          })] { done(QByteArray()); });
        return;
    case pxproto::request::Break:
        if (size != 0)
            break;
        ++breaks;
        log(client, "send break (%llu so far)", static_cast<unsigned long long>(breaks));
        target.sendBreak([done = answer(client, [](const QByteArray&) {
                              return pxproto::completion();
                          })] { done(QByteArray()); });
        return;
    case pxproto::request::Kill:
        if (size != 0)
            break;
        log(client, "kill");
        kill();
        return;
    case pxproto::request::Clean:
        if (size != 0)
            break;
        {
            // Cleaning empties the queues of every client; flushing only the caller's.
            quint64 dropped = 0;
            for (PXServerClient* other : clients)
                dropped += clearQueue(other);
            log(client, "clean: %llu queued frame(s) dropped",
                static_cast<unsigned long long>(dropped));
            return;
        }
    case pxproto::request::FlushFifos:
        if (size != 0)
            break;
        log(client, "flush FIFOs: %llu queued frame(s) dropped",
            static_cast<unsigned long long>(clearQueue(client)));
        target.flush();
        return;
    case pxproto::request::SetBaudRate:
        if (size != 4)
            break;
        log(client, "baud rate %d", int(qint32(pxproto::getLe32(payload))));
        target.setBaudRate(qint32(pxproto::getLe32(payload)));
        return;
    case pxproto::request::SetFlowMode:
        if (size != 4)
            break;
        log(client, "flow mode %u (%s)", pxproto::getLe32(payload),
            pxproto::flowModeWord(pxproto::getLe32(payload)));
        target.setFlowMode(pxproto::getLe32(payload));
        return;
    case pxproto::request::SetUsbId:
        if (size != 8)
            break;
        log(client, "USB identifiers 0x%04X 0x%04X", pxproto::getLe32(payload),
            pxproto::getLe32(payload + 4));
        target.setUsbIds(quint16(pxproto::getLe32(payload)),
                         quint16(pxproto::getLe32(payload + 4)));
        return;
    case pxproto::request::AutoBauding:
        if (size != 0)
            break;
        ++autoBaudings;
        log(client, "auto-bauding (%llu so far)", static_cast<unsigned long long>(autoBaudings));
        target.autoBaud();
        return;
    case pxproto::request::SetClientType:
        if (size != 1)
            break;
        client->clientType = payload[0];
        log(client, "client type %d", client->clientType);
        return;
    case pxproto::request::SetPersistent:
        if (size != 1)
            break;
        client->persistent = payload[0] != 0;
        log(client, "persistent %s", client->persistent ? "on" : "off");
        return;
    default:
        log(client, "unknown flow 0x%02X (length %d) skipped", unsigned(flow), size);
        return;
    }
    log(client, "flow 0x%02X with bad length %d skipped", unsigned(flow), size);
}

void PXServer::handleReadOrWrite(PXServerClient* client, const QByteArray& request)
{
    const int size = payloadSize(request);
    const unsigned char* payload = payloadOf(request);
    if (size < 5) {
        log(client, "read/write with bad length %d skipped", size);
        return;
    }
    const unsigned char code = payload[0];
    const quint32 address = pxproto::getLe32(payload + 1);
    if (code >= pxproto::access::Write8) {
        handleWrite(client, code, address, payload + 5, size - 5);
        return;
    }
    if (size != pxproto::SingleReadLength) {
        log(client, "read with bad length %d skipped", size);
        return;
    }
    int count = 0;
    switch (code) {
    case pxproto::access::Read8:
    case pxproto::access::ReadInternal:
        count = 1;
        break;
    case pxproto::access::Read16:
        count = 2;
        break;
    case pxproto::access::Read32:
        count = 4;
        break;
    default:
        log(client, "read with unknown access code 0x%02X skipped", unsigned(code));
        return;
    }
    const bool internal = code == pxproto::access::ReadInternal;
    if (internal)
        log(client, "read internal 0x%08X", address);
    else
        log(client, "read%d 0x%08X", count * 8, address);
    target.read(internal, address, count, answer(client, [address](const QByteArray& data) {
                    return pxproto::readData(address, data.constData(), int(data.size()));
                }));
}

void PXServer::handleWrite(PXServerClient* client, unsigned char code, quint32 address,
                           const unsigned char* data, int size)
{
    int expected = -1;
    switch (code) {
    case pxproto::access::Write8:
        expected = 1;
        break;
    case pxproto::access::Write16:
        expected = 2;
        break;
    case pxproto::access::Write32:
        expected = 4;
        break;
    case pxproto::access::WriteBlock:
    case pxproto::access::WriteInternal:
        break;
    default:
        log(client, "write with unknown code 0x%02X skipped", unsigned(code));
        return;
    }
    if (expected >= 0 && size != expected) {
        log(client, "write code 0x%02X with %d data bytes skipped", unsigned(code), size);
        return;
    }
    const bool internal = code == pxproto::access::WriteInternal;
    log(client, internal ? "write internal 0x%08X, %d byte(s)" : "write 0x%08X, %d byte(s)",
        address, size);
    target.write(internal, expected > 0 ? expected : 0, address,
                 QByteArray(reinterpret_cast<const char*>(data), size),
                 [done = answer(client, [](const QByteArray&) { return pxproto::writeAck(); })] {
                     done(QByteArray());
                 });
}

void PXServer::handleBlockRead(PXServerClient* client, const QByteArray& request)
{
    const int size = payloadSize(request);
    const unsigned char* payload = payloadOf(request);
    if (size != pxproto::BlockReadLength || payload[0] != pxproto::access::BlockRead) {
        log(client, "block read with bad length %d or code skipped", size);
        return;
    }
    const quint32 address = pxproto::getLe32(payload + 1);
    const quint32 count = pxproto::getLe32(payload + 5);
    log(client, "block read 0x%08X, %u byte(s)", address, count);
    if (count == 0)
        return;
    client->readAddress = address;
    client->readRemaining = count;
    continueBlockRead(client);
}

// Asks the target for the client's block read piece by piece while its output has room, and
// writes each piece as read-data frames of at most the frame size.
void PXServer::continueBlockRead(PXServerClient* client)
{
    if (client->socket->state() != QAbstractSocket::ConnectedState) {
        client->readRemaining = 0;
        return;
    }
    while (client->readRemaining > 0 && !client->piecePending &&
           client->socket->bytesToWrite() < OutputHighWater) {
        const int size = int(std::min<quint64>(client->readRemaining, quint64(BlockBatch)));
        const quint32 address = client->readAddress;
        client->piecePending = true;
        target.readBlock(
            address, size,
            [this, guard = QPointer<PXServerClient>(client), address](const QByteArray& data) {
                PXServerClient* reader = guard.data();
                if (!reader || reader->gone)
                    return;
                QByteArray batch;
                batch.reserve(int(data.size()) + (int(data.size()) / settings.frameSize + 1) * 8);
                for (int offset = 0; offset < data.size(); offset += settings.frameSize) {
                    const int n = std::min(settings.frameSize, int(data.size()) - offset);
                    batch.append(
                        pxproto::readData(address + quint32(offset), data.constData() + offset, n));
                }
                reader->socket->write(batch);
                reader->readAddress = address + quint32(data.size());
                reader->readRemaining -= quint64(data.size());
                reader->piecePending = false;
                if (!reader->pumping)
                    pump(reader);
            });
    }
}

void PXServer::handleBypassFlows(PXServerClient* client, const QByteArray& request)
{
    const int size = payloadSize(request);
    const unsigned char* payload = payloadOf(request);
    if (size < 4 || pxproto::getLe32(payload) != quint32(size - 4)) {
        log(client, "bypass flow ids with bad count skipped");
        return;
    }
    client->bypassFlows.reset();
    for (int i = 4; i < size; ++i)
        client->bypassFlows.set(payload[i]);
    log(client, "bypass flow ids: %d id(s)", size - 4);
}

// The simulated target echoes every bypass packet on its own flow; the server forwards the
// echo to every client that has chosen that flow id.
void PXServer::handleBypassSend(PXServerClient* client, const QByteArray& request)
{
    const int size = payloadSize(request);
    const unsigned char* nested = payloadOf(request);
    if (size < 5 || nested[0] != pxproto::DebugStart || pxproto::getBe16(nested + 1) != size - 4) {
        log(client, "bypass send with malformed nested packet (length %d) skipped", size);
        return;
    }
    const unsigned char flow = nested[3];
    const int dataSize = size - 5;
    if (settings.verbose &&
        CalcHostCrc(nested + 3, static_cast<unsigned long>(dataSize + 1)) != nested[size - 1])
        log(client, "bypass send on flow 0x%02X has a bad checksum", unsigned(flow));
    log(client, "bypass send on flow 0x%02X, %d byte(s)", unsigned(flow), dataSize);
    target.sendBypass(QByteArray(reinterpret_cast<const char*>(nested), size));
}
