#include "pellix/connection/PXClientManager.h"

#include "pellix/connection/PXCallback.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/connection/tsan_p.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QMutexLocker>
#include <QSemaphore>
#include <QSocketNotifier>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

QString PXClientManager::MServerHost;
quint16 PXClientManager::MServerPort = 0;
std::atomic<PXClientManager*> PXClientManager::MInst{nullptr};

namespace {

// Guards MServerHost and MServerPort.
QBasicMutex serverAddressMutex;

std::atomic<bool> applicationCreatedHere{false};

// How long the destruction of the program's application object waits for the network thread
// to take over, in ms: longer than a connect in progress on that thread.
constexpr int TakeOverTimeout = 5000;

// Connects a non-blocking TCP socket to host:port within `timeout` ms; -1 when no address of
// the host answers in time.
int connectSocket(const QString& host, quint16 port, int timeout)
{
    const QDeadlineTimer deadline(timeout);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    char service[8];
    std::snprintf(service, sizeof service, "%u", unsigned(port));
    addrinfo* addresses = nullptr;
    if (::getaddrinfo(host.toUtf8().constData(), service, &hints, &addresses) != 0)
        return -1;
    int connected = -1;
    for (addrinfo* a = addresses; a && connected < 0 && !deadline.hasExpired(); a = a->ai_next) {
        const int fd = ::socket(a->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (fd < 0)
            continue;
        int error = ::connect(fd, a->ai_addr, a->ai_addrlen) == 0 ? 0 : errno;
        if (error == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            int ready;
            do
                ready = ::poll(&p, 1, int(deadline.remainingTime()));
            while (ready < 0 && errno == EINTR);
            socklen_t length = sizeof error;
            if (ready != 1 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
                error = ETIMEDOUT;
        }
        if (error == 0)
            connected = fd;
        else
            ::close(fd);
    }
    ::freeaddrinfo(addresses);
    if (connected >= 0) {
        // Replies are a few bytes: without this, Nagle and delayed acknowledgements stall
        // request/reply exchanges by tens of milliseconds.
        const int one = 1;
        ::setsockopt(connected, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    return connected;
}

// Serialises the library's posts. QCoreApplication::postEvent appends to the target thread's
// event list under a mutex inside QtCore that ThreadSanitizer cannot see; this one it sees.
QBasicMutex postMutex;

// The completion of a hand-off to the network thread, which the waiting side may give up on.
// It is shared by the waiter and the posted event (whose destructor drops its share, also when
// Qt discards the event undelivered), so it outlives whichever side leaves first. A connect
// decides under `mutex` whether its waiter is still there and leaves the connection alone if
// not; a job holds what it needs by value and may run after its waiter has gone. What the
// handler needs of the request lives here or in the event, never on the waiter's stack.
class Handoff : public QSemaphore
{
public:
    QMutex mutex;
    bool abandoned = false; // the waiter gave up; guarded by mutex
    bool finished = false;  // the handler acted; guarded by mutex
    QString host;           // the host of a connect (ConnectionOpenEvent refers to it)

    static Handoff* of(QSemaphore* done) { return static_cast<Handoff*>(done); }

    // Handler side, once it has acted (or decided not to).
    void signal()
    {
        pxtsan::release(this);
        release();
    }

    // Waiter side: waits up to `timeout` ms; true when the handler acted. Gives up otherwise,
    // so that the handler will not act any more. Drops the waiter's share.
    bool await(int timeout)
    {
        if (tryAcquire(1, timeout))
            pxtsan::acquire(this);
        bool acted;
        {
            QMutexLocker lock(&mutex);
            abandoned = !finished;
            acted = finished;
        }
        drop();
        return acted;
    }

    void drop()
    {
        if (shares.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }

private:
    std::atomic<int> shares{2};
};

// Every locale category, so that what QCoreApplication's constructor changes can be undone.
constexpr int LocaleCategories[] = {
    LC_CTYPE, LC_NUMERIC, LC_TIME,    LC_COLLATE,   LC_MONETARY,    LC_MESSAGES,
#ifdef LC_PAPER
    LC_PAPER, LC_NAME,    LC_ADDRESS, LC_TELEPHONE, LC_MEASUREMENT, LC_IDENTIFICATION,
#endif
};

// Qt writes warnings while an application object is created off the main thread (that it was,
// and on some versions that the locale is not UTF-8). The library creates one there on
// purpose: those of the creating thread are kept from the program's stderr, any other thread's
// go where they went before.
QtMessageHandler previousMessageHandler = nullptr;
thread_local bool creatingApplication = false;

void quietApplicationHandler(QtMsgType type, const QMessageLogContext& context,
                             const QString& message)
{
    if (creatingApplication)
        return;
    if (previousMessageHandler)
        previousMessageHandler(type, context, message);
}

// Creates the application object that the network thread needs to deliver events, kept for
// the life of the process, and leaves the process's locale as it was.
void createApplication()
{
    std::string locales[std::size(LocaleCategories)];
    for (size_t i = 0; i < std::size(LocaleCategories); ++i) {
        const char* name = std::setlocale(LocaleCategories[i], nullptr);
        locales[i] = name ? name : "";
    }
    static int argc = 1;
    static char name[] = "pellix_library";
    static char* argv[] = {name, nullptr};
    creatingApplication = true;
    previousMessageHandler = qInstallMessageHandler(quietApplicationHandler);
    new QCoreApplication(argc, argv);
    qInstallMessageHandler(previousMessageHandler);
    creatingApplication = false;
    for (size_t i = 0; i < std::size(LocaleCategories); ++i) {
        const char* now = std::setlocale(LocaleCategories[i], nullptr);
        if (!locales[i].empty() && (!now || locales[i] != now))
            std::setlocale(LocaleCategories[i], locales[i].c_str());
    }
}

} // namespace

// The library posts these with a Handoff as `done` (or none); the event holds one share.
PXClientManager::ConnectionOpenEvent::~ConnectionOpenEvent()
{
    Handoff::of(done)->drop();
}

PXClientManager::CallEvent::~CallEvent()
{
    if (done)
        Handoff::of(done)->drop();
}

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
    epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    moveToThread(this);
}

PXClientManager::~PXClientManager() = default;

bool PXClientManager::ownsApplication()
{
    return applicationCreatedHere.load(std::memory_order_acquire);
}

void PXClientManager::run()
{
    // Runs on the network thread before its event loop.
    if (!QCoreApplication::instance()) {
        createApplication();
        applicationCreatedHere.store(true, std::memory_order_release);
    }
    // The dispatcher calls these directly, without the application object that event delivery
    // needs: they see that object go and take over (checkApplication()).
    QAbstractEventDispatcher* dispatcher = eventDispatcher();
    auto* notifier = new QSocketNotifier(epollFd, QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &PXClientManager::onSocketsReady);
    connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this,
            &PXClientManager::checkApplication, Qt::DirectConnection);
    connect(dispatcher, &QAbstractEventDispatcher::awake, this, &PXClientManager::checkApplication,
            Qt::DirectConnection);
    checkApplication();
    pxtsan::release(&running);
    running.release();
    exec();
}

void PXClientManager::checkApplication()
{
    QCoreApplication* application = QCoreApplication::instance();
    if (application == watchedApplication)
        return;
    if (!application) {
        // The program's application object is gone: without one, every event of this thread
        // (posted requests, socket notifications, timers) would be discarded undelivered.
        createApplication();
        watchedApplication = QCoreApplication::instance();
        pxtsan::release(&tookOver);
        tookOver.release();
        return;
    }
    watchedApplication = application;
    if (application->thread() != this) {
        connect(application, &QObject::destroyed, this, &PXClientManager::onHostApplicationGone,
                Qt::DirectConnection);
    }
}

void PXClientManager::onHostApplicationGone()
{
    // The object is half destroyed (QCoreApplication::instance() is null already): wake the
    // network thread, whose dispatcher then finds no application object, and wait for it to
    // have its own, so that what the program does next is delivered.
    if (QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance(this))
        dispatcher->wakeUp();
    if (tookOver.tryAcquire(1, TakeOverTimeout))
        pxtsan::acquire(&tookOver);
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
    auto* handoff = new Handoff;
    handoff->host = host;
    post(new ConnectionOpenEvent(handoff->host, port, connection, handoff));
    if (!handoff->await(HandoffTimeout))
        return false;
    return connection->socketFd.load(std::memory_order_acquire) >= 0;
}

void PXClientManager::connectionClose(PXConnection* connection)
{
    QMutexLocker lock(&mapMutex);
    const int fd = connection->socketFd.load(std::memory_order_relaxed);
    if (fd < 0)
        return;
    socketMap.remove(fd);
    connection->socketFd.store(-1, std::memory_order_release);
    ::epoll_ctl(epollFd, EPOLL_CTL_DEL, fd, nullptr);
    ::close(fd);
}

void PXClientManager::disarmSocket(int fd)
{
    epoll_event event{};
    event.data.fd = fd;
    ::epoll_ctl(epollFd, EPOLL_CTL_MOD, fd, &event);
}

void PXClientManager::armSocket(int fd)
{
    epoll_event event{};
    event.events = EPOLLIN | EPOLLONESHOT;
    event.data.fd = fd;
    ::epoll_ctl(epollFd, EPOLL_CTL_MOD, fd, &event);
}

void PXClientManager::postCallbacks(PXConnection* connection, int fd, bool wait)
{
    auto job = [this, connection, fd] {
        QMutexLocker lock(&mapMutex);
        if (socketMap.value(fd, nullptr) == connection)
            connection->runDeferredCallbacks();
    };
    if (wait)
        runOnThread(std::move(job));
    else
        post(new CallEvent(std::move(job), nullptr));
}

bool PXClientManager::runOnThread(std::function<void()> job)
{
    if (QThread::currentThread() == this) {
        job();
        return true;
    }
    auto* handoff = new Handoff;
    post(new CallEvent(std::move(job), handoff));
    return handoff->await(HandoffTimeout);
}

void PXClientManager::customEvent(QEvent* event)
{
    // Pairs with the release before postEvent: the event's fields were written by the poster.
    pxtsan::acquire(event);
    switch (int(event->type())) {
    case ConnectionOpenType:
        onConnectionOpen(static_cast<ConnectionOpenEvent*>(event));
        break;
    case CallType: {
        auto* call = static_cast<CallEvent*>(event);
        {
            const pxtsan::PostScope scope(&postMutex);
            call->job();
        }
        if (call->done) {
            Handoff* handoff = Handoff::of(call->done);
            {
                QMutexLocker lock(&handoff->mutex);
                handoff->finished = true;
            }
            handoff->signal();
        }
        break;
    }
    default:
        QThread::customEvent(event);
        break;
    }
}

void PXClientManager::onConnectionOpen(ConnectionOpenEvent* event)
{
    Handoff* handoff = Handoff::of(event->done);
    {
        QMutexLocker lock(&handoff->mutex);
        if (handoff->abandoned) {
            lock.unlock();
            handoff->signal();
            return;
        }
    }
    int fd;
    {
        // Taken before mapMutex, never inside it (lock order in ThreadSanitizer builds).
        const pxtsan::PostScope scope(&postMutex);
        fd = connectSocket(event->host, event->port, 3000);
    }
    PXDelayCallback* retired = nullptr;
    bool installed = false;
    {
        QMutexLocker lock(&handoff->mutex);
        // A caller that gave up waiting may have destroyed the connection: leave it alone.
        installed = fd >= 0 && !handoff->abandoned;
        if (installed) {
            QMutexLocker map(&mapMutex);
            PXConnection* connection = event->connection;
            retired = connection->bypassDelayCallback;
            connection->bypassDelayCallback = new PXDelayCallback(nullptr);
            connection->attachSocket(fd);
            socketMap.insert(fd, connection);
            epoll_event watch{};
            watch.events = EPOLLIN | EPOLLONESHOT;
            watch.data.fd = fd;
            ::epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &watch);
        }
        handoff->finished = true;
    }
    if (fd >= 0 && !installed)
        ::close(fd);
    // The holder of the previous socket is retired here, on the thread that owns it; no
    // dispatch or timer of it can be running while this handler runs.
    delete retired;
    handoff->signal();
}

void PXClientManager::onSocketsReady()
{
    epoll_event ready[64];
    int count;
    do
        count = ::epoll_wait(epollFd, ready, 64, 0);
    while (count < 0 && errno == EINTR);
    for (int i = 0; i < count; ++i) {
        QMutexLocker lock(&mapMutex);
        if (PXConnection* connection = socketMap.value(ready[i].data.fd, nullptr))
            connection->readSocketData();
    }
}
