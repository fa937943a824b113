#include "PXServer.h"

#include "../target/PXTarget.h"

#include "pellix/protocol/PXFrames_p.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

// Bytes taken from a client socket per read; bounded by the socket's read buffer anyway.
constexpr qint64 ReadChunk = 64 * 1024;
} // namespace

PXServerClient::PXServerClient(quint64 clientId, QTcpSocket* clientSocket, QObject* parent)
    : QObject(parent), id(clientId), socket(clientSocket), latencyTimer(new QTimer(this))
{
    socket->setParent(this);
    latencyTimer->setSingleShot(true);
    latencyTimer->setTimerType(Qt::PreciseTimer);
}

PXServer::PXServer(const PXServerOptions& options, PXTarget& linkTarget, QObject* parent)
    : QObject(parent), settings(options), target(linkTarget)
{
    connect(&tcpServer, &QTcpServer::newConnection, this, &PXServer::onNewConnection);
    connect(&target, &PXTarget::eventRaised, this, &PXServer::raiseEvent);
    connect(&target, &PXTarget::bypassArrived, this, &PXServer::onBypassArrived);
    connect(&target, &PXTarget::requestsDropped, this, &PXServer::onRequestsDropped);
    connect(&target, &PXTarget::note, this,
            [this](const QString& text) { log(nullptr, "%s", qPrintable(text)); });
}

PXServer::~PXServer()
{
    for (PXServerClient* client : clients)
        delete client;
}

bool PXServer::listen(QString* error)
{
    if (tcpServer.listen(settings.listenAddress, settings.port))
        return true;
    *error = QStringLiteral("cannot listen on %1:%2: %3")
                 .arg(settings.listenAddress.toString())
                 .arg(settings.port)
                 .arg(tcpServer.errorString());
    return false;
}

void PXServer::log(const PXServerClient* client, const char* format, ...) const
{
    if (!settings.verbose)
        return;
    char text[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (client)
        std::fprintf(stderr, "pellix: client %llu: %s\n",
                     static_cast<unsigned long long>(client->id), text);
    else
        std::fprintf(stderr, "pellix: %s\n", text);
}

void PXServer::onNewConnection()
{
    while (QTcpSocket* socket = tcpServer.nextPendingConnection()) {
        if (stopping) {
            socket->abort();
            socket->deleteLater();
            continue;
        }
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        socket->setReadBufferSize(ReadBufferLimit);
        auto* client = new PXServerClient(nextClientId++, socket, this);
        clients.push_back(client);
        log(client, "connected from %s:%u", qPrintable(socket->peerAddress().toString()),
            unsigned(socket->peerPort()));
        connect(socket, &QTcpSocket::readyRead, client, [this, client] { pump(client); });
        connect(socket, &QTcpSocket::bytesWritten, client, [this, client] { pump(client); });
        connect(socket, &QTcpSocket::disconnected, client, [this, client] {
            // Requests that arrived before the close still take effect (a write, a kill).
            pump(client);
            removeClient(client);
        });
        connect(client->latencyTimer, &QTimer::timeout, client,
                [this, client] { fireDelayed(client); });
        // Bytes may have arrived before the signals were connected.
        QTimer::singleShot(0, client, [this, client] { pump(client); });
    }
}

void PXServer::removeClient(PXServerClient* client)
{
    if (client->gone)
        return;
    client->gone = true;
    log(client, "disconnected (%llu event or bypass frame(s) dropped)",
        static_cast<unsigned long long>(client->droppedFrames));
    clients.erase(std::remove(clients.begin(), clients.end(), client), clients.end());
    client->socket->disconnect(client);
    client->latencyTimer->stop();
    client->deleteLater();
}

// Runs on every arrival and every drained write: answers as many buffered requests as the
// client's output allows. Reading stops while the output is above the high-water mark, so a
// client that never reads is pushed back by TCP instead of growing our buffers.
void PXServer::pump(PXServerClient* client)
{
    if (client->gone || client->pumping || stopping)
        return;
    client->pumping = true;
    while (!client->gone && !stopping) {
        drainAsync(client);
        if (client->readRemaining > 0) {
            continueBlockRead(client);
            if (client->readRemaining > 0)
                break;
        }
        if (client->waiting || client->socket->bytesToWrite() >= OutputHighWater ||
            client->latencyTimer->isActive())
            break;
        const QByteArray request = client->parser.getPacket(false);
        if (!request.isEmpty()) {
            if (settings.latencyMicroseconds > 0 && repliesTo(request)) {
                client->delayedRequest = request;
                client->latencyTimer->start(int((settings.latencyMicroseconds + 999) / 1000));
                break;
            }
            handleRequest(client, request);
            continue;
        }
        if (client->socket->bytesAvailable() <= 0)
            break;
        const QByteArray chunk = client->socket->read(ReadChunk);
        if (chunk.isEmpty())
            break;
        client->parser.feedData(chunk);
    }
    client->pumping = false;
    const bool full = !client->gone && client->socket->bytesToWrite() >= OutputHighWater;
    if (full != client->outputFull) {
        client->outputFull = full;
        log(client, full ? "output full: requests held back" : "output drained: requests resumed");
    }
}

void PXServer::fireDelayed(PXServerClient* client)
{
    if (client->gone || stopping)
        return;
    const QByteArray request = client->delayedRequest;
    client->delayedRequest.clear();
    client->pumping = true;
    handleRequest(client, request);
    client->pumping = false;
    pump(client);
}

bool PXServer::repliesTo(const QByteArray& request) const
{
    switch (pxproto::flowId(request)) {
    case pxproto::request::Read: // and write: both are answered
    case pxproto::request::BlockRead:
    case pxproto::request::Ping:
    case pxproto::request::Status:
    case pxproto::request::ForceReconnect:
    case pxproto::request::Break:
        return true;
    default:
        return false;
    }
}

void PXServer::sendReply(PXServerClient* client, const QByteArray& frame)
{
    client->socket->write(frame);
}

std::function<void(const QByteArray&)>
PXServer::answer(PXServerClient* client, std::function<QByteArray(const QByteArray&)> reply)
{
    client->waiting = true;
    return [this, guard = QPointer<PXServerClient>(client), reply](const QByteArray& data) {
        PXServerClient* waiter = guard.data();
        if (!waiter || waiter->gone)
            return;
        waiter->waiting = false;
        sendReply(waiter, reply(data));
        pump(waiter);
    };
}

// The target forgot what it was asked: the clients that waited for it go on with their next
// requests (the forgotten ones get no reply, as from a silent server).
void PXServer::onRequestsDropped()
{
    const std::vector<PXServerClient*> waiters = clients;
    for (PXServerClient* client : waiters) {
        client->waiting = false;
        client->piecePending = false;
        client->readRemaining = 0;
    }
    for (PXServerClient* client : waiters)
        QTimer::singleShot(0, client, [this, client] { pump(client); });
}

// A packet from the target on a bypass flow goes to every client that has chosen that flow.
void PXServer::onBypassArrived(const QByteArray& packet)
{
    if (packet.size() < 5)
        return;
    const auto flow = static_cast<unsigned char>(packet[3]);
    const QByteArray frame = pxproto::bypassFrame(packet);
    for (PXServerClient* other : clients) {
        if (other->bypassFlows.test(flow))
            deliverAsync(other, frame);
    }
}

void PXServer::raiseEvent(quint32 id)
{
    const QByteArray frame = pxproto::event(id);
    int delivered = 0;
    for (PXServerClient* other : clients) {
        if (other->eventsEnabled) {
            deliverAsync(other, frame);
            ++delivered;
        }
    }
    log(nullptr, "event 0x%08X raised for %d client(s)", id, delivered);
}

void PXServer::deliverAsync(PXServerClient* client, const QByteArray& frame)
{
    if (client->gone)
        return;
    if (client->asyncQueue.isEmpty() && client->socket->bytesToWrite() < OutputHighWater) {
        client->socket->write(frame);
        return;
    }
    if (client->asyncQueue.size() + frame.size() > AsyncQueueLimit) {
        ++client->droppedFrames;
        return;
    }
    if (client->asyncQueue.isEmpty())
        log(client, "output full: event and bypass frames queued");
    client->asyncQueue.append(frame);
    ++client->queuedFrames;
}

quint64 PXServer::clearQueue(PXServerClient* client)
{
    const quint64 dropped = client->queuedFrames;
    client->asyncQueue.clear();
    client->queuedFrames = 0;
    return dropped;
}

void PXServer::drainAsync(PXServerClient* client)
{
    if (client->asyncQueue.isEmpty() || client->socket->bytesToWrite() >= OutputHighWater)
        return;
    client->socket->write(client->asyncQueue);
    client->asyncQueue.clear();
    client->queuedFrames = 0;
}

void PXServer::kill()
{
    stopping = true;
    tcpServer.close();
    for (PXServerClient* client : clients) {
        client->gone = true;
        client->socket->disconnect(client);
        client->socket->flush();
        client->socket->abort();
    }
    emit killRequested();
}
