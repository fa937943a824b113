#include "pellix/connection/PXClientManager.h"

#include "pellix/connection/PXCallback.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/tsan_p.h"

#include <QCoreApplication>
#include <QMutexLocker>
#include <QSemaphore>
#include <QTcpSocket>

QString PXClientManager::MServerHost;
quint16 PXClientManager::MServerPort = 0;
std::atomic<PXClientManager*> PXClientManager::MInst{nullptr};

namespace {

// Guards MServerHost and MServerPort.
QBasicMutex serverAddressMutex;

std::atomic<bool> applicationCreatedHere{false};

// Deletes a detached socket on the network thread, which owns it. Posted by the library
// itself rather than through QObject::deleteLater(), whose event QtCore allocates unseen by
// ThreadSanitizer: this one carries the hand-off hints that every posted event of the
// manager carries.
class SocketDisposalEvent : public QEvent
{
public:
    static constexpr int Type = QEvent::User + 4; // 1004

    explicit SocketDisposalEvent(QTcpSocket* s) : QEvent(QEvent::Type(Type)), socket(s) {}
    ~SocketDisposalEvent() override = default;

    QTcpSocket* socket;
};

// Serialises the library's posts. QCoreApplication::postEvent appends to the target thread's
// event list under a mutex inside QtCore that ThreadSanitizer cannot see; this one it sees.
QBasicMutex postMutex;

// Qt warns when an application object is created off the main thread; the library creates one
// on its network thread on purpose, so that one message is kept from the caller's stderr.
QtMessageHandler previousMessageHandler = nullptr;

void quietApplicationHandler(QtMsgType type, const QMessageLogContext& context,
                             const QString& message)
{
    if (type == QtWarningMsg &&
        message == QLatin1String("WARNING: QApplication was not created in the main() thread."))
        return;
    if (previousMessageHandler)
        previousMessageHandler(type, context, message);
}

} // namespace

PXClientManager::ConnectionOpenEvent::~ConnectionOpenEvent() = default;
PXClientManager::SendPacketEvent::~SendPacketEvent() = default;
PXClientManager::CallEvent::~CallEvent() = default;

void PXClientManager::post(QEvent* event)
{
    QMutexLocker lock(&postMutex);
    pxtsan::release(event);
    QCoreApplication::postEvent(this, event);
}

PXClientManager* PXClientManager::Instance()
{
    PXClientManager* manager = MInst.load(std::memory_order_acquire);
    if (manager)
        return manager;
    static QSemaphore sema(1);
    sema.acquire();
    pxtsan::acquire(&sema);
    manager = MInst.load(std::memory_order_acquire);
    if (!manager) {
        manager = new PXClientManager;
        manager->start(QThread::InheritPriority);
        // Published only once the thread runs: its event dispatcher (and the application
        // object it may create) exist before any caller posts to it.
        manager->running.acquire();
        pxtsan::acquire(&manager->running);
        MInst.store(manager, std::memory_order_release);
    }
    pxtsan::release(&sema);
    sema.release();
    return manager;
}

PXClientManager::PXClientManager() : QThread(nullptr)
{
    moveToThread(this);
}

PXClientManager::~PXClientManager() = default;

bool PXClientManager::ownsApplication()
{
    return applicationCreatedHere.load(std::memory_order_acquire);
}

void PXClientManager::run()
{
    // Runs on the network thread before its event loop. A QThread's event loop delivers
    // nothing without an application object, and plain C callers create none.
    if (!QCoreApplication::instance()) {
        static int argc = 1;
        static char name[] = "pellix_library";
        static char* argv[] = {name, nullptr};
        previousMessageHandler = qInstallMessageHandler(quietApplicationHandler);
        new QCoreApplication(argc, argv); // kept for the life of the process
        qInstallMessageHandler(previousMessageHandler);
        applicationCreatedHere.store(true, std::memory_order_release);
    }
    pxtsan::release(&running);
    running.release();
    exec();
}

void PXClientManager::resolveServerAddress(const QString& host, quint16 port, QString* outHost,
                                           quint16* outPort)
{
    QMutexLocker lock(&serverAddressMutex);
    const QByteArray forcedHost = qgetenv("FORCED_PELLIX_HOST");
    const QByteArray forcedPort = qgetenv("FORCED_PELLIX_PORT");
    if (!forcedHost.isEmpty() && !forcedPort.isEmpty()) {
        MServerHost = QString::fromLocal8Bit(forcedHost);
        MServerPort = quint16(forcedPort.toInt(nullptr, 10));
    } else {
        if (!host.isEmpty())
            MServerHost = host;
        if (port != 0)
            MServerPort = port;
    }
    // A deep copy: the caller hands it to another thread while later opens change the static.
    *outHost = QString(MServerHost.constData(), MServerHost.size());
    *outPort = MServerPort;
}

bool PXClientManager::connectionOpen(const QString& host, quint16 port, PXConnection* connection)
{
    QSemaphore done(0);
    auto* event = new ConnectionOpenEvent(host, port, connection, &done);
    post(event);
    done.acquire();
    pxtsan::acquire(&done);
    return connection->socket.load(std::memory_order_acquire) != nullptr;
}

void PXClientManager::connectionClose(PXConnection* connection)
{
    QTcpSocket* socket;
    {
        QMutexLocker lock(&mapMutex);
        socket = connection->socket.load(std::memory_order_relaxed);
        if (!socket)
            return;
        socketMap.remove(socket);
        connection->socket.store(nullptr, std::memory_order_release);
    }
    // The socket belongs to this thread's event loop: close and delete it there, after the
    // packets already posted for it. Posted after mapMutex is released: posting takes the
    // post lock, which the network thread holds before mapMutex in ThreadSanitizer builds.
    post(new SocketDisposalEvent(socket));
}

void PXClientManager::sendSocketPacket(QTcpSocket* socket, const QByteArray& data, bool wait)
{
    if (!wait) {
        auto* event = new SendPacketEvent(socket, data, nullptr);
        post(event);
        return;
    }
    QSemaphore done(0);
    auto* event = new SendPacketEvent(socket, data, &done);
    post(event);
    done.acquire();
    pxtsan::acquire(&done);
}

void PXClientManager::runOnThread(const std::function<void()>& job)
{
    if (QThread::currentThread() == this) {
        job();
        return;
    }
    QSemaphore done(0);
    auto* event = new CallEvent(job, &done);
    post(event);
    done.acquire();
    pxtsan::acquire(&done);
}

void PXClientManager::customEvent(QEvent* event)
{
    // Pairs with the release before postEvent: the event's fields were written by the poster.
    pxtsan::acquire(event);
    switch (int(event->type())) {
    case ConnectionOpenType:
        onConnectionOpen(static_cast<ConnectionOpenEvent*>(event));
        break;
    case SendPacketType:
        onSendPacket(static_cast<SendPacketEvent*>(event));
        break;
    case CallType: {
        auto* call = static_cast<CallEvent*>(event);
        {
            const pxtsan::PostScope scope(&postMutex);
            call->job();
        }
        pxtsan::release(call->done);
        call->done->release();
        break;
    }
    case SocketDisposalEvent::Type: {
        const pxtsan::PostScope scope(&postMutex);
        delete static_cast<SocketDisposalEvent*>(event)->socket;
        break;
    }
    default:
        QThread::customEvent(event);
        break;
    }
}

void PXClientManager::onConnectionOpen(ConnectionOpenEvent* event)
{
    QTcpSocket* socket;
    {
        // Taken before mapMutex, never inside it (lock order in ThreadSanitizer builds).
        const pxtsan::PostScope scope(&postMutex);
        socket = new QTcpSocket(this);
        socket->connectToHost(event->host, event->port, QIODevice::ReadWrite);
        if (!socket->waitForConnected(3000)) {
            delete socket;
            pxtsan::release(event->done);
            event->done->release();
            return;
        }
        // Replies are a few bytes: without this, Nagle and delayed acknowledgements stall
        // request/reply exchanges by tens of milliseconds.
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    }
    PXDelayCallback* retired;
    {
        QMutexLocker lock(&mapMutex);
        PXConnection* connection = event->connection;
        retired = connection->bypassDelayCallback;
        connection->bypassDelayCallback = new PXDelayCallback(nullptr);
        connection->socket.store(socket, std::memory_order_release);
        socketMap.insert(socket, connection);
        connect(socket, &QTcpSocket::readyRead, this, &PXClientManager::onReadyRead);
    }
    // The holder of the previous socket is retired here, on the thread that owns it; no
    // dispatch or timer of it can be running while this handler runs.
    delete retired;
    pxtsan::release(event->done);
    event->done->release();
}

void PXClientManager::onSendPacket(SendPacketEvent* event)
{
    if (event->socket) {
        const pxtsan::PostScope scope(&postMutex);
        event->socket->write(event->data);
        // Hand the bytes to the kernel now rather than on the next pass of the event loop.
        event->socket->flush();
    }
    if (event->done) {
        pxtsan::release(event->done);
        event->done->release();
    }
}

void PXClientManager::onReadyRead()
{
    auto* socket = qobject_cast<QTcpSocket*>(sender());
    if (!socket)
        return;
    QMutexLocker lock(&mapMutex);
    PXConnection* connection = socketMap.value(socket, nullptr);
    if (connection)
        connection->readSocketData();
}
