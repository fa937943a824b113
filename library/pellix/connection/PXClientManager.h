#ifndef PELLIX_PXCLIENTMANAGER_H
#define PELLIX_PXCLIENTMANAGER_H

#include "pellix/pellix_export.h"

#include <QByteArray>
#include <QEvent>
#include <QMap>
#include <QMutex>
#include <QSemaphore>
#include <QString>
#include <QThread>

#include <atomic>
#include <functional>

class PXConnection;
class QTcpSocket;

// The one network thread of the process. Every socket of every PXConnection is created,
// connected, written, read and deleted on this thread, whatever thread the connection's user
// calls from. Callers hand work over as custom events (QCoreApplication::postEvent) and, where
// they need the outcome, block on a QSemaphore that this thread releases. Bytes arriving on a
// socket are handed, on this thread, to the owning connection's readSocketData().
//
// Created on first use by Instance() and never destroyed; its thread runs an event loop until
// the process ends.
//
// The application object: a QThread's event loop delivers nothing while no QCoreApplication
// exists. When the program has none as the network thread starts, the thread creates one
// itself, before its event loop runs, and keeps it for the life of the process
// (ownsApplication() then reports true). When the program's own application object is
// destroyed while the library is in use, the network thread takes over with one of its own
// before the destruction returns, so that handles keep working afterwards (and may be closed
// later in main, in a static destructor or in an atexit handler). Either way the process's C
// locale is left as it was (QCoreApplication's constructor applies the environment's) and
// Qt's warnings about it stay off stderr. A program must not create an application object
// while the library's own exists.
//
// Waiting: every call that waits for this thread (connectionOpen, sendSocketPacket with wait,
// runOnThread) gives up after HandoffTimeout ms and then reports failure; the work it handed
// over is then either not done at all (a connect) or done later without touching the caller's
// memory (a write, a job).
//
// Locks, always in this order: a connection's requestMutex, then mapMutex, then a connection's
// dataMutex. connectionOpen(), sendSocketPacket(..., true) and runOnThread() block until this
// thread has handled the request; they must never be called on this thread except where said.
class PELLIX_EXPORT PXClientManager : public QThread
{
    Q_OBJECT
public:
    enum EventType {
        ConnectionOpenType = QEvent::User + 1, // 1001
        SendPacketType = QEvent::User + 2,     // 1002
        CallType = QEvent::User + 3            // 1003, internal: runOnThread()
    };

    // How long a caller waits for this thread to handle what it handed over, in ms.
    static constexpr int HandoffTimeout = 30000;

    // Connect `connection` to host:port; `done` is released when the attempt is over.
    class ConnectionOpenEvent : public QEvent
    {
    public:
        ConnectionOpenEvent(const QString& h, quint16 p, PXConnection* c, QSemaphore* d)
            : QEvent(QEvent::Type(ConnectionOpenType)), host(h), port(p), connection(c), done(d)
        {}
        ~ConnectionOpenEvent() override;

        const QString& host; // belongs to the poster, which waits until the event is handled
        quint16 port;
        PXConnection* connection;
        QSemaphore* done;
    };

    // Write `data` to `socket`; `done` (may be null) is released after the write.
    class SendPacketEvent : public QEvent
    {
    public:
        SendPacketEvent(QTcpSocket* s, const QByteArray& d, QSemaphore* sem)
            : QEvent(QEvent::Type(SendPacketType)), socket(s), data(d), done(sem)
        {}
        ~SendPacketEvent() override;

        QTcpSocket* socket;
        QByteArray data;
        QSemaphore* done;
    };

    // Runs `job` on the network thread; `done` is released afterwards.
    class CallEvent : public QEvent
    {
    public:
        CallEvent(std::function<void()> j, QSemaphore* d)
            : QEvent(QEvent::Type(CallType)), job(std::move(j)), done(d)
        {}
        ~CallEvent() override;

        std::function<void()> job;
        QSemaphore* done;
    };

    // The manager, created and its thread started on the first call. Any thread.
    static PXClientManager* Instance();

    // Connects `connection` to host:port on the network thread (3000 ms connect time-out) and
    // blocks until the attempt is over (at most HandoffTimeout ms). True when the connection
    // holds a socket afterwards. Caller's thread, never the network thread.
    bool connectionOpen(const QString& host, quint16 port, PXConnection* connection);

    // Detaches the connection's socket (if any) and has it closed and deleted on the network
    // thread. Waits until a dispatch running on that connection has finished; afterwards no
    // dispatch reaches it. Any thread.
    void connectionClose(PXConnection* connection);

    // Writes `data` to `socket` on the network thread, in posting order. With `wait` true,
    // returns after the write (caller's thread only), false when it was not written within
    // HandoffTimeout ms; with false, returns true at once.
    bool sendSocketPacket(QTcpSocket* socket, const QByteArray& data, bool wait);

    // Runs `job` on the network thread and returns true when it has run; false when it has not
    // run within HandoffTimeout ms. It runs all the same, later: it must hold what it needs by
    // value, never refer to the caller's stack or to an object the caller may destroy. Called
    // on the network thread itself, runs it at once.
    bool runOnThread(std::function<void()> job);

    // Settles the server address of an open, as one step under a process-wide lock: if both
    // FORCED_PELLIX_HOST and FORCED_PELLIX_PORT are set and non-empty, they become MServerHost
    // and MServerPort (the port read as a decimal number, low 16 bits; non-numeric gives 0);
    // otherwise a non-empty `host` becomes MServerHost and a non-zero `port` MServerPort. The
    // resulting pair is returned through the out-parameters (the host as a copy). Any thread.
    static void resolveServerAddress(const QString& host, quint16 port, QString* outHost,
                                     quint16* outPort);

    // True when the network thread created the process's QCoreApplication itself because the
    // program had none when the thread started.
    static bool ownsApplication();

    // The address of the last open that set it, shared by every connection of the process.
    // Read and write them only through resolveServerAddress().
    static QString MServerHost;
    static quint16 MServerPort;

protected:
    void customEvent(QEvent* event) override;
    void run() override;

private slots:
    void onReadyRead();
    // Network thread, called directly by its event dispatcher on every pass of the event
    // loop, also while no application object exists to deliver events.
    void checkApplication();

private:
    PXClientManager();
    ~PXClientManager() override;

    // Posts an event to this manager (caller's thread).
    void post(QEvent* event);
    // Host's thread, while the program's application object is being destroyed: wakes this
    // thread and waits (bounded) until it has taken over.
    void onHostApplicationGone();
    void onConnectionOpen(ConnectionOpenEvent* event);
    void onSendPacket(SendPacketEvent* event);

    QMutex mapMutex;
    QMap<QTcpSocket*, PXConnection*> socketMap;
    // Released once by the thread as its event loop is about to start.
    QSemaphore running{0};
    // Released by the network thread each time it has taken over the application object.
    QSemaphore tookOver{0};
    // Network thread only: the application object whose destruction is watched.
    QObject* watchedApplication = nullptr;

    static std::atomic<PXClientManager*> MInst;
};

#endif
