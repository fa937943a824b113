#include "pellix/connection/PXConnection.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXReplyLook_p.h"
#include "pellix/connection/PXWhileWaiting_p.h"
#include "pellix/connection/tsan_p.h"
#include "pellix/log/PXFrameTrace_p.h"
#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"
#include "pellix/protocol/PXRanges_p.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QMutexLocker>

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

int PXConnection::MGlobalId = 1;
QMap<int, PXConnection*> PXConnection::MGlobalMap;
QMutex PXConnection::MGlobalMutex;

namespace {

constexpr int MaxQueued = 1000;

// Looking for a reply before sleeping (PXReplyLook) pays only where another processor can run
// the server meanwhile; on a machine with one, the look would only delay it. (The machine's
// processors count, not the ones this process may use: a client confined to one processor
// still has a server running beside it.)
bool mayLook()
{
    static const bool several = ::sysconf(_SC_NPROCESSORS_ONLN) > 1;
    return several;
}

// What one read of the socket takes at most: a 32 KiB block reply with its frame headers.
constexpr int InboxSize = 64 * 1024;

// Waits until `fd` is ready for `events` or `timeout` ms pass.
void pollSocket(int fd, short events, qint64 timeout)
{
    pollfd p{fd, events, 0};
    const int ms = timeout > 0x7fffffff ? 0x7fffffff : int(timeout);
    if (::poll(&p, 1, ms) < 0 && errno != EINTR)
        QThread::msleep(1);
}

} // namespace

PXConnection::PXConnection() : replyLook(new PXReplyLook)
{
    {
        QMutexLocker lock(&MGlobalMutex);
        id = MGlobalId++;
        MGlobalMap.insert(id, this);
    }
    parser = new PXParser(PXParser::ServerFrames);
}

PXConnection::~PXConnection()
{
    PXClientManager* manager = PXClientManager::Instance();
    manager->connectionClose(this);
    // Retire the delayed callback on the thread that owns its timer; once this returns, its
    // function is not called any more. (No open runs now: the pointer is the one the last
    // open set, and it is read here only to be handed back to that thread.)
    if (PXDelayCallback* holder = bypassDelayCallback) {
        bypassDelayCallback = nullptr;
        manager->runOnThread([holder] { delete holder; });
    }
    {
        QMutexLocker lock(&MGlobalMutex);
        MGlobalMap.remove(id);
    }
    delete parser;
}

PXConnection* PXConnection::GetById(int id)
{
    QMutexLocker lock(&MGlobalMutex);
    return MGlobalMap.value(id, nullptr);
}

bool PXConnection::isConnected() const
{
    return socketFd.load(std::memory_order_acquire) >= 0;
}

bool PXConnection::open(const QString& host, unsigned short port)
{
    QMutexLocker request(&requestMutex);
    QString serverHost;
    quint16 serverPort = 0;
    PXClientManager::resolveServerAddress(host, port, &serverHost, &serverPort);
    PXClientManager* manager = PXClientManager::Instance();
    manager->connectionClose(this);
    {
        // No dispatch runs on this connection now; the lock orders the reset before the
        // parser's next use on the network thread.
        QMutexLocker data(&dataMutex);
        parser->reset();
    }
    if (serverHost.isEmpty())
        return false;
    return manager->connectionOpen(serverHost, serverPort, this);
}

// ---- the socket ---------------------------------------------------------------------------------

void PXConnection::attachSocket(int fd)
{
    QMutexLocker lock(&dataMutex);
    socketFd.store(fd, std::memory_order_release);
    callerReading = false;
    armed = true;
    peerClosed = false;
    outbox.clear();
}

void PXConnection::readSocketData()
{
    QMutexLocker lock(&dataMutex);
    // The watch fired once and is off now; it is armed again unless a request has the socket.
    armed = false;
    const int fd = socketFd.load(std::memory_order_relaxed);
    // A request that has the socket reads it itself (it may be asleep in poll() on it: taking
    // its reply here would leave it sleeping); it arms the watch again when it is done.
    if (fd < 0 || callerReading)
        return;
    readAvailable(true);
    if (!peerClosed) {
        PXClientManager::Instance()->armSocket(fd);
        armed = true;
    }
}

void PXConnection::readAvailable(bool onNetworkThread)
{
    const int fd = socketFd.load(std::memory_order_relaxed);
    if (fd < 0 || peerClosed)
        return;
    for (;;) {
        // The parser keeps the array itself when it holds no partial frame (the usual case),
        // and frames are dispatched from its buffer in place: read data is copied once more,
        // into the caller's buffer. The array is reused when the parser has let it go.
        if (!inbox.isDetached() || inbox.capacity() < InboxSize)
            inbox = QByteArray(InboxSize, Qt::Uninitialized);
        inbox.resize(InboxSize);
        const ssize_t n = ::recv(fd, inbox.data(), size_t(InboxSize), MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            // 0: the server closed its end; an error other than "nothing there": it is gone.
            // The socket stays the connection's; requests end by their time-out.
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
                peerClosed = true;
            return;
        }
        inbox.resize(int(n));
        parser->feedData(inbox);
        int size = 0;
        while (const unsigned char* frame = parser->nextPacket(&size)) {
            PX_TRACE_FRAME(id, false, frame, size);
            dispatchFrame(frame, size, onNetworkThread);
        }
        if (n < InboxSize)
            return;
    }
}

bool PXConnection::sendFrame(const QByteArray& frame, unsigned long timeout)
{
    PX_TRACE_FRAME(id, true, frame.constData(), frame.size());
    const QDeadlineTimer deadline{qint64(timeout)};
    const char* bytes = frame.constData();
    qsizetype left = frame.size();
    if (!outbox.isEmpty()) {
        // A frame that an earlier write left unfinished goes first, whole.
        outbox.append(frame);
        bytes = outbox.constData();
        left = outbox.size();
    }
    qsizetype sent = 0;
    const bool inOutbox = !outbox.isEmpty();
    for (;;) {
        const int fd = socketFd.load(std::memory_order_relaxed);
        if (fd < 0 || peerClosed) {
            // A socket whose server has gone takes every write and delivers nothing, as a
            // write into a closed connection does: the request ends by its time-out.
            outbox.clear();
            return true;
        }
        const ssize_t n =
            ::send(fd, bytes + sent, size_t(left - sent), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n > 0) {
            sent += n;
            if (sent == left) {
                outbox.clear();
                return true;
            }
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            peerClosed = true;
            continue;
        }
        if (deadline.hasExpired()) {
            // Keep what is left, so that the stream stays in step: it goes out before the
            // next frame.
            if (inOutbox)
                outbox.remove(0, sent);
            else
                outbox = frame.mid(sent);
            return false;
        }
        // The server takes no more for now; it may be waiting for us to read.
        dataMutex.unlock();
        pollSocket(fd, POLLOUT | POLLIN, deadline.remainingTime());
        dataMutex.lock();
        readAvailable(false);
    }
}

void PXConnection::beginCall()
{
    callerReading = true;
    const int fd = socketFd.load(std::memory_order_relaxed);
    if (armed && fd >= 0) {
        PXClientManager::Instance()->disarmSocket(fd);
        armed = false;
    }
}

void PXConnection::endCall()
{
    callerReading = false;
    const int fd = socketFd.load(std::memory_order_relaxed);
    if (!armed && !peerClosed && fd >= 0) {
        PXClientManager::Instance()->armSocket(fd);
        armed = true;
    }
}

void PXConnection::runDeferredCallbacks()
{
    QMutexLocker lock(&dataMutex);
    const int eventCount = deferredEvents;
    const int bypassCount = deferredBypass;
    deferredEvents = 0;
    deferredBypass = 0;
    callbacksPosted = false;
    for (int i = 0; i < eventCount; ++i)
        eventCallback.trigger();
    for (int i = 0; i < bypassCount; ++i)
        bypassCallback.trigger();
    if (bypassCount > 0 && bypassDelayCallback)
        bypassDelayCallback->tigger();
}

// ---- dispatch (under dataMutex: the network thread with mapMutex held, or a request's caller) ---

void PXConnection::completeReply(quint32 flag)
{
    pendingFlags.fetch_and(~flag, std::memory_order_release);
    replyCondition.wakeOne();
}

void PXConnection::dispatchFrame(const unsigned char* bytes, int size, bool onNetworkThread)
{
    if (size < pxproto::HeaderSize)
        return;
    const int length = pxproto::getBe16(bytes + 1);
    const quint32 pending = pendingFlags.load(std::memory_order_relaxed);

    switch (bytes[3]) {
    case pxproto::reply::Event:
        if (!eventsEnabled.load(std::memory_order_relaxed) || length != pxproto::EventLength ||
            size < pxproto::HeaderSize + pxproto::EventLength)
            return;
        if (events.size() > MaxQueued)
            events = QList<unsigned int>();
        events.append(pxproto::getLe32(bytes + 4));
        if (onNetworkThread)
            eventCallback.trigger();
        else if (eventCallback.callback)
            deferCallbacks(&deferredEvents);
        eventCondition.wakeOne();
        return;

    case pxproto::reply::ReadData: {
        if (!(pending & PendingRead))
            return;
        const int n = pxproto::readDataCount(bytes, size, readAddress, readRemaining);
        if (n < 0) {
            readRemaining = -1;
            completeReply(PendingRead);
            return;
        }
        if (readBuffer) {
            std::memcpy(readBuffer, bytes + 8, size_t(n));
            readBuffer += n;
        }
        readAddress += quint32(n);
        readRemaining -= n;
        if (readRemaining == 0) {
            completeReply(PendingRead);
        }
        return;
    }

    case pxproto::reply::Bypass:
        if (!bypassEnabled.load(std::memory_order_relaxed))
            return;
        if (bypassPackets.size() > MaxQueued)
            bypassPackets = QList<QByteArray>();
        bypassPackets.append(QByteArray(reinterpret_cast<const char*>(bytes) + pxproto::HeaderSize,
                                        size - pxproto::HeaderSize));
        if (onNetworkThread) {
            bypassCallback.trigger();
            if (bypassDelayCallback)
                bypassDelayCallback->tigger();
        } else {
            // The delayed callback's holder belongs to the network thread: it is started there
            // too, with the callbacks.
            deferCallbacks(&deferredBypass);
        }
        bypassCondition.wakeOne();
        return;

    case pxproto::reply::WriteAck:
        if (!(pending & PendingWrite))
            return;
        completeReply(PendingWrite);
        return;

    case pxproto::reply::Status:
        if (!(pending & PendingStatus) || size != pxproto::StatusFrameSize)
            return;
        statusByte = bytes[4];
        completeReply(PendingStatus);
        return;

    case pxproto::reply::Completion:
        if (!(pending & PendingReconnect))
            return;
        completeReply(PendingReconnect);
        return;

    case pxproto::reply::Ping:
        if (!(pending & PendingPing))
            return;
        completeReply(PendingPing);
        return;

    default:
        return;
    }
}

// ---- requests ---------------------------------------------------------------------------------

bool PXConnection::takeCallbackPost()
{
    if ((deferredEvents == 0 && deferredBypass == 0) || callbacksPosted)
        return false;
    callbacksPosted = true;
    return true;
}

// Waits for the reply that clears `flag`, reading the socket; requestMutex and dataMutex held
// on entry and on return (dataMutex is let go while the caller yields or sleeps). True when the
// flag was cleared within `timeout` ms. With `look`, the caller first looks for the reply
// without sleeping, for as long as replyLook says.
bool PXConnection::waitReply(quint32 flag, unsigned long timeout, bool look)
{
    QElapsedTimer clock;
    clock.start();
    const qint64 lookFor = look && mayLook() ? replyLook->begin() : 0;
    const qint64 timeoutNs = qint64(timeout) * 1000000;
    for (;;) {
        readAvailable(false);
        if (!(pendingFlags.load(std::memory_order_relaxed) & flag))
            break;
        const qint64 elapsed = clock.nsecsElapsed();
        if (elapsed >= timeoutNs)
            break;
        const qint64 remainingMs = (timeoutNs - elapsed + 999999) / 1000000;
        const int fd = socketFd.load(std::memory_order_relaxed);
        if (fd < 0 || peerClosed) {
            // Nothing more can arrive: wait out the time-out.
            pxtsan::waitOn(replyCondition, dataMutex, (unsigned long)remainingMs);
            continue;
        }
        const bool post = takeCallbackPost();
        dataMutex.unlock();
        if (post)
            PXClientManager::Instance()->postCallbacks(this, fd, false);
        if (elapsed < lookFor)
            QThread::yieldCurrentThread();
        else
            pollSocket(fd, POLLIN, remainingMs);
        dataMutex.lock();
    }
    const bool replied = !(pendingFlags.load(std::memory_order_relaxed) & flag);
    if (look)
        replyLook->end(replied, clock.nsecsElapsed());
    return replied;
}

unsigned int PXConnection::call(const QByteArray& frame, quint32 flag, unsigned long timeout)
{
    const int fd = socketFd.load(std::memory_order_acquire);
    if (fd < 0)
        return flag ? PXST_RESULT_TIMEOUT : PXST_RESULT_OK;
    unsigned int result = PXST_RESULT_OK;
    bool owed;
    {
        QMutexLocker lock(&dataMutex);
        beginCall();
        pendingFlags.fetch_or(flag, std::memory_order_relaxed);
        const bool sent = sendFrame(frame, ReplyTimeout);
        if (flag && sent) {
            dataMutex.unlock();
            pxconn::WhileWaiting::runCurrent();
            dataMutex.lock();
        }
        if (!flag) {
            result = sent ? PXST_RESULT_OK : PXST_RESULT_TIMEOUT;
        } else if (flag == PendingRead) {
            // A read fails when a whole time-out passes without any of its data arriving.
            qint32 last = readRemaining;
            bool look = true;
            for (;;) {
                waitReply(PendingRead, timeout, look);
                look = false;
                if (readRemaining < 0) {
                    result = PXST_RESULT_TIMEOUT;
                    break;
                }
                if (!(pendingFlags.load(std::memory_order_relaxed) & PendingRead))
                    break;
                if (readRemaining == last) {
                    pendingFlags.fetch_and(~quint32(PendingRead), std::memory_order_relaxed);
                    result = PXST_RESULT_TIMEOUT;
                    break;
                }
                last = readRemaining;
            }
        } else if (!waitReply(flag, timeout, true)) {
            pendingFlags.fetch_and(~flag, std::memory_order_relaxed);
            result = PXST_RESULT_TIMEOUT;
        }
        endCall();
        // Callbacks owed for events and packets read on the way have run by the time the
        // request returns, as they would have had the network thread read them.
        owed = deferredEvents > 0 || deferredBypass > 0 || callbacksPosted;
        callbacksPosted = callbacksPosted || owed;
    }
    if (owed)
        PXClientManager::Instance()->postCallbacks(this, fd, true);
    return result;
}

unsigned int PXConnection::genericRead(unsigned int address, bool internal, void* data, int size)
{
    if (size < 1 || (size == 3 && !internal))
        return PXST_RESULT_TIMEOUT;
    QMutexLocker request(&requestMutex);
    {
        QMutexLocker lock(&dataMutex);
        readAddress = address;
        readRemaining = size;
        readBuffer = static_cast<unsigned char*>(data);
    }
    return call(pxproto::readRequest(address, internal, size), PendingRead, ReplyTimeout);
}

unsigned int PXConnection::genericWrite(unsigned int address, bool internal, void* data, int size)
{
    if (size < 0 || size > pxproto::MaxWriteData)
        return PXST_RESULT_TIMEOUT;
    QMutexLocker request(&requestMutex);
    if (!isConnected())
        return PXST_RESULT_TIMEOUT;
    return call(pxproto::writeRequest(address, internal, data, size), PendingWrite, ReplyTimeout);
}
