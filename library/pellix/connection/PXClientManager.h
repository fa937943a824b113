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

// The one network thread of the process. It connects every socket of every PXConnection,
// watches the idle ones and dispatches what arrives on them, runs the immediate callbacks and
// the delayed callback's timer, and closes nothing behind a caller's back.
//
// Requests do not go through this thread: the caller that holds a connection's requestMutex
// writes its request to the socket itself and reads the reply itself (both under the
// connection's dataMutex, so no socket is used by two threads at once). Meanwhile the socket
// is taken out of this thread's watch, so that a reply does not wake it; when the request is
// over the socket is watched again, and whatever arrives while no request runs (events, bypass
// packets) is read and dispatched here. Frames that a caller reads on the way to its reply are
// queued by the caller, and the callbacks they call for are run here (postCallbacks()).
//
// Sockets are watched through one epoll set (one-shot entries, armed and disarmed from any
// thread), which a QSocketNotifier of this thread watches in turn.
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
// Waiting: every call that waits for this thread (connectionOpen, runOnThread) gives up after
// HandoffTimeout ms and then reports failure; the work it handed over is then either not done
// at all (a connect) or done later without touching the caller's memory (a job).
//
// Locks, always in this order: a connection's requestMutex, then mapMutex, then a connection's
// dataMutex. connectionOpen() and runOnThread() block until this thread has handled the
// request; they must never be called on this thread except where said.
class PELLIX_EXPORT PXClientManager : public QThread
{
    Q_OBJECT
public:
    enum EventType {
        ConnectionOpenType = QEvent::User + 1, // 1001
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

    // Runs `job` on the network thread; `done` (null when nobody waits) is released afterwards.
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

    // Detaches and closes the connection's socket (if any). Waits until a dispatch running on
    // that connection has finished; afterwards no dispatch reaches it. Any thread, while no
    // request of the connection runs.
    void connectionClose(PXConnection* connection);

    // Takes the socket out of the watch (a request is about to read it) or puts it back; any
    // thread. Watching is one-shot: once something has arrived the socket stays unwatched
    // until it is armed again.
    void disarmSocket(int fd);
    void armSocket(int fd);

    // Has the callbacks that a caller's reading left to run (PXConnection::runDeferredCallbacks)
    // run on this thread, if the connection still holds socket `fd` by then; with `wait`,
    // returns when they have run (bounded as runOnThread). Caller's thread.
    void postCallbacks(PXConnection* connection, int fd, bool wait);

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
    // The epoll set has ready sockets: read and dispatch each one's arrivals.
    void onSocketsReady();
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

    QMutex mapMutex;
    // Every connected socket (its descriptor) and the connection that owns it.
    QMap<int, PXConnection*> socketMap;
    // The epoll set of every connected socket.
    int epollFd = -1;
    // Released once by the thread as its event loop is about to start.
    QSemaphore running{0};
    // Released by the network thread each time it has taken over the application object.
    QSemaphore tookOver{0};
    // Network thread only: the application object whose destruction is watched.
    QObject* watchedApplication = nullptr;

    static std::atomic<PXClientManager*> MInst;
};

#endif
