#ifndef PELLIX_PXSIMSERVER_H
#define PELLIX_PXSIMSERVER_H

#include "PXSimMemory.h"
#include "PXSimOptions.h"

#include "pellix/protocol/PXParser.h"

#include <QByteArray>
#include <QObject>
#include <QTcpServer>

#include <bitset>
#include <vector>

class QTcpSocket;
class QTimer;

// One connected client: its socket, its request parser and what it asked the server for.
// Owned by PXSimServer; deleted with deleteLater() once it has gone.
class PXSimClient : public QObject
{
public:
    PXSimClient(quint64 clientId, QTcpSocket* clientSocket, QObject* parent);

    quint64 id;
    QTcpSocket* socket;
    QTimer* latencyTimer;
    PXParser parser{PXParser::ServerFrames};

    bool eventsEnabled = false;
    std::bitset<256> bypassFlows;
    int clientType = -1;
    bool persistent = false;

    // Block read being answered: next address and bytes still to send.
    quint32 readAddress = 0;
    quint64 readRemaining = 0;

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

// The simulated host server: accepts any number of clients on one listening socket and
// answers their requests from one shared simulated target (memory, internal space, event
// register, bypass echo). Everything runs on the thread that created it (the main thread).
//
// Per-client buffering is bounded: the socket read buffer holds at most ReadBufferLimit
// bytes; requests are taken from a client only while its unsent output is below
// OutputHighWater (a block read is produced piecewise as the socket drains, whatever its
// count); event and bypass frames that find the output full wait in a queue of at most
// AsyncQueueLimit bytes, and frames beyond that are dropped for that client.
class PXSimServer : public QObject
{
    Q_OBJECT
public:
    static constexpr qint64 ReadBufferLimit = 64 * 1024;
    static constexpr qint64 OutputHighWater = 256 * 1024;
    static constexpr int AsyncQueueLimit = 1024 * 1024;
    static constexpr unsigned char StatusLinkUp = 0x01;

    explicit PXSimServer(const PXSimOptions& options, QObject* parent = nullptr);
    ~PXSimServer() override;

    PXSimMemory& memory() { return mainMemory; }

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
    void pump(PXSimClient* client);
    void removeClient(PXSimClient* client);
    void fireDelayed(PXSimClient* client);
    bool repliesTo(const QByteArray& request) const;
    void handleRequest(PXSimClient* client, const QByteArray& request);
    void handleReadOrWrite(PXSimClient* client, const QByteArray& request);
    void handleWrite(PXSimClient* client, unsigned char code, quint32 address,
                     const unsigned char* data, int size);
    void handleBlockRead(PXSimClient* client, const QByteArray& request);
    void handleBypassFlows(PXSimClient* client, const QByteArray& request);
    void handleBypassSend(PXSimClient* client, const QByteArray& request);
    void continueBlockRead(PXSimClient* client);
    void drainAsync(PXSimClient* client);
    // Empties the client's event and bypass queue; returns the number of frames dropped.
    quint64 clearQueue(PXSimClient* client);
    void raiseEvent(quint32 id);
    void deliverAsync(PXSimClient* client, const QByteArray& frame);
    void sendReply(PXSimClient* client, const QByteArray& frame);
    void kill();
    void log(const PXSimClient* client, const char* format, ...) const
#if defined(__GNUC__)
        __attribute__((format(printf, 3, 4)))
#endif
        ;

    PXSimOptions settings;
    QTcpServer tcpServer;
    PXSimMemory mainMemory;
    PXSimMemory internalMemory;
    std::vector<PXSimClient*> clients;
    quint64 nextClientId = 1;
    QByteArray scratch;
    bool stopping = false;

    // Link settings that clients sent; recorded and logged, they change nothing else.
    qint64 baudRate = 0;
    quint32 flowMode = 0;
    quint32 usbFirst = 0;
    quint32 usbSecond = 0;
    quint64 reconnects = 0;
    quint64 breaks = 0;
    quint64 autoBaudings = 0;
};

#endif
