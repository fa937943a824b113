#ifndef PELLIX_PXSERVER_H
#define PELLIX_PXSERVER_H

#include "../PXServerOptions.h"

#include "pellix/protocol/PXParser.h"

#include <QByteArray>
#include <QObject>
#include <QTcpServer>

#include <bitset>
#include <functional>
#include <vector>

class PXTarget;
class QTcpSocket;
class QTimer;

// One connected client: its socket, its request parser and what it asked the server for.
// Owned by PXServer; deleted with deleteLater() once it has gone. Completions of the target
// that outlive it find it gone (or deleted) and are dropped.
class PXServerClient : public QObject
{
public:
    PXServerClient(quint64 clientId, QTcpSocket* clientSocket, QObject* parent);

    quint64 id;
    QTcpSocket* socket;
    QTimer* latencyTimer;
    PXParser parser{PXParser::ServerFrames};

    bool eventsEnabled = false;
    std::bitset<256> bypassFlows;
    int clientType = -1;
    bool persistent = false;

    // Block read being answered: next address and bytes still to send; a piece of it asked of
    // the target and not answered yet.
    quint32 readAddress = 0;
    quint64 readRemaining = 0;
    bool piecePending = false;
    // A request handed to the target and not answered yet: the client's next requests wait,
    // so that its replies keep their order.
    bool waiting = false;

    // Event and bypass frames waiting for room in the socket's write buffer.
    QByteArray asyncQueue;
    quint64 queuedFrames = 0;
    quint64 droppedFrames = 0;

    // Request held back by --latency until latencyTimer fires.
    QByteArray delayedRequest;

    bool gone = false;
    bool pumping = false;
    // Unsent output at or above the high-water mark when last looked at (for the log).
    bool outputFull = false;
};

// The server's TCP front: accepts any number of clients on one listening socket, cuts their
// requests and answers them through one shared target (PXTarget: the simulated chip, or a
// chip on a serial debug link). Everything runs on the thread that created it (the main
// thread).
//
// Per-client buffering is bounded: the socket read buffer holds at most ReadBufferLimit
// bytes; requests are taken from a client only while its unsent output is below
// OutputHighWater (a block read is produced piecewise as the socket drains, whatever its
// count); event and bypass frames that find the output full wait in a queue of at most
// AsyncQueueLimit bytes, and frames beyond that are dropped for that client.
class PXServer : public QObject
{
    Q_OBJECT
public:
    static constexpr qint64 ReadBufferLimit = 64 * 1024;
    static constexpr qint64 OutputHighWater = 256 * 1024;
    static constexpr int AsyncQueueLimit = 1024 * 1024;

    PXServer(const PXServerOptions& options, PXTarget& target, QObject* parent = nullptr);
    ~PXServer() override;

    // Starts listening on the configured address and port. Returns false with a reason in
    // `error` when the socket cannot be bound.
    bool listen(QString* error);
    QHostAddress serverAddress() const { return tcpServer.serverAddress(); }
    quint16 serverPort() const { return tcpServer.serverPort(); }

signals:
    // A client asked the server to stop (kill request); every client is closed by then.
    void killRequested();

private slots:
    void onNewConnection();

private:
    void pump(PXServerClient* client);
    void removeClient(PXServerClient* client);
    void fireDelayed(PXServerClient* client);
    bool repliesTo(const QByteArray& request) const;
    void handleRequest(PXServerClient* client, const QByteArray& request);
    void handleReadOrWrite(PXServerClient* client, const QByteArray& request);
    void handleWrite(PXServerClient* client, unsigned char code, quint32 address,
                     const unsigned char* data, int size);
    // Marks the client as waiting for the target; the returned completion (run once the
    // target answered) sends `reply(data)` unless the client has gone, and goes on.
    std::function<void(const QByteArray&)>
    answer(PXServerClient* client, std::function<QByteArray(const QByteArray&)> reply);
    void onBypassArrived(const QByteArray& packet);
    void onRequestsDropped();
    void handleBlockRead(PXServerClient* client, const QByteArray& request);
    void handleBypassFlows(PXServerClient* client, const QByteArray& request);
    void handleBypassSend(PXServerClient* client, const QByteArray& request);
    void continueBlockRead(PXServerClient* client);
    void drainAsync(PXServerClient* client);
    // Empties the client's event and bypass queue; returns the number of frames dropped.
    quint64 clearQueue(PXServerClient* client);
    void raiseEvent(quint32 id);
    void deliverAsync(PXServerClient* client, const QByteArray& frame);
    void sendReply(PXServerClient* client, const QByteArray& frame);
    void kill();
    void log(const PXServerClient* client, const char* format, ...) const
#if defined(__GNUC__)
        __attribute__((format(printf, 3, 4)))
#endif
        ;

    PXServerOptions settings;
    PXTarget& target;
    QTcpServer tcpServer;
    std::vector<PXServerClient*> clients;
    quint64 nextClientId = 1;
    bool stopping = false;

    // Link requests that clients sent, counted for the log.
    quint64 reconnects = 0;
    quint64 breaks = 0;
    quint64 autoBaudings = 0;
};

#endif
