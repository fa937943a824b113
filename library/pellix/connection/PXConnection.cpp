#include "pellix/connection/PXConnection.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXReplyLook.h"
#include "pellix/protocol/PXParser.h"
#include "pellix/protocol/PXProtocol.h"
#include "pellix/tsan_p.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QMutexLocker>
#include <QTcpSocket>

#include <cstring>

int PXConnection::MGlobalId = 1;
QMap<int, PXConnection*> PXConnection::MGlobalMap;
QMutex PXConnection::MGlobalMutex;

namespace {

constexpr int MaxQueued = 1000;

// Waits on `condition`, which releases and retakes `mutex` inside QtCore.
bool waitOn(QWaitCondition& condition, QMutex& mutex, unsigned long timeout)
{
    pxtsan::beforeWait(&mutex);
    const bool woken = condition.wait(&mutex, QDeadlineTimer(qint64(timeout)));
    pxtsan::afterWait(&mutex);
    return woken;
}

// Looking for a reply before sleeping (PXReplyLook) pays only where another processor can run
// the network thread and the server meanwhile; with one, the look would only delay them.
bool mayLook()
{
    static const bool several = QThread::idealThreadCount() > 1;
    return several;
}

} // namespace

PXConnection::PXConnection()
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
    return socket.load(std::memory_order_acquire) != nullptr;
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

// ---- dispatch (network thread, mapMutex held) ---------------------------------------------------

void PXConnection::readSocketData()
{
    QMutexLocker lock(&dataMutex);
    QTcpSocket* s = socket.load(std::memory_order_relaxed);
    if (!s)
        return;
    const qint64 available = s->bytesAvailable();
    if (available < 1)
        return;
    // The parser keeps the array itself when it holds no partial frame (the usual case), and
    // frames are dispatched from its buffer in place: read data is copied once more, into the
    // caller's buffer.
    parser->feedData(s->read(available));
    int size = 0;
    while (const unsigned char* frame = parser->nextPacket(&size))
        dispatchFrame(frame, size);
}

void PXConnection::completeReply(quint32 flag)
{
    pendingFlags.fetch_and(~flag, std::memory_order_release);
    replyCondition.wakeOne();
}

void PXConnection::dispatchFrame(const unsigned char* bytes, int size)
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
        eventCallback.trigger();
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
        bypassCallback.trigger();
        bypassCondition.wakeOne();
        if (bypassDelayCallback)
            bypassDelayCallback->tigger();
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

// Waits for the reply that clears `flag`, requestMutex and dataMutex held on entry and on
// return. True when the flag was cleared. With `look`, the caller may first look at the flag
// with dataMutex released, for as long as replyLook says.
bool PXConnection::waitReply(quint32 flag, unsigned long timeout, bool look)
{
    QElapsedTimer clock;
    clock.start();
    const qint64 lookFor = look && mayLook() ? replyLook.begin() : 0;
    if (lookFor > 0) {
        dataMutex.unlock();
        while ((pendingFlags.load(std::memory_order_acquire) & flag) &&
               clock.nsecsElapsed() < lookFor)
            QThread::yieldCurrentThread();
        dataMutex.lock();
        const qint64 spent = clock.elapsed();
        timeout = timeout > quint64(spent) ? timeout - (unsigned long)spent : 0;
    }
    if (pendingFlags.load(std::memory_order_relaxed) & flag)
        waitOn(replyCondition, dataMutex, timeout);
    const bool replied = !(pendingFlags.load(std::memory_order_relaxed) & flag);
    if (look)
        replyLook.end(replied, clock.nsecsElapsed());
    return replied;
}

unsigned int PXConnection::genericRead(unsigned int address, bool internal, void* data, int size)
{
    if (size < 1 || (size == 3 && !internal))
        return 13;
    QMutexLocker request(&requestMutex);
    QTcpSocket* s = socket.load(std::memory_order_acquire);
    if (!s)
        return 13;
    QMutexLocker lock(&dataMutex);
    pendingFlags.fetch_or(PendingRead, std::memory_order_relaxed);
    readAddress = address;
    readRemaining = size;
    readBuffer = static_cast<unsigned char*>(data);
    PXClientManager::Instance()->sendSocketPacket(s, pxproto::readRequest(address, internal, size),
                                                  false);
    qint32 last = size;
    for (;;) {
        waitReply(PendingRead, ReplyTimeout, last == size);
        if (readRemaining < 0)
            return 13;
        if (!(pendingFlags.load(std::memory_order_relaxed) & PendingRead))
            return 0;
        if (readRemaining == last) {
            pendingFlags.fetch_and(~quint32(PendingRead), std::memory_order_relaxed);
            return 13;
        }
        last = readRemaining;
    }
}

unsigned int PXConnection::genericWrite(unsigned int address, bool internal, void* data, int size)
{
    if (size < 0 || size > pxproto::MaxWriteData)
        return 13;
    QMutexLocker request(&requestMutex);
    QTcpSocket* s = socket.load(std::memory_order_acquire);
    if (!s)
        return 13;
    // Built before dataMutex is taken: dispatch of other arrivals need not wait for the copy.
    const QByteArray frame = pxproto::writeRequest(address, internal, data, size);
    QMutexLocker lock(&dataMutex);
    pendingFlags.fetch_or(PendingWrite, std::memory_order_relaxed);
    PXClientManager::Instance()->sendSocketPacket(s, frame, false);
    if (waitReply(PendingWrite, ReplyTimeout, true))
        return 0;
    pendingFlags.fetch_and(~quint32(PendingWrite), std::memory_order_relaxed);
    return 13;
}

unsigned int PXConnection::read8(unsigned int address, unsigned char* value)
{
    return genericRead(address, false, value, 1);
}

unsigned int PXConnection::readi8(unsigned int address, unsigned char* value)
{
    return genericRead(address, true, value, 1);
}

unsigned int PXConnection::read16(unsigned int address, unsigned short* value)
{
    return readBlock(address, reinterpret_cast<unsigned char*>(value), 2);
}

unsigned int PXConnection::read32(unsigned int address, unsigned int* value)
{
    return readBlock(address, reinterpret_cast<unsigned char*>(value), 4);
}

unsigned int PXConnection::readBlock(unsigned int address, unsigned char* data, int size)
{
    if (size < 1)
        return 0;
    int remaining = size;
    while (remaining > 1) {
        const int chunk = pxproto::readChunkSize(address, remaining);
        const unsigned int result = genericRead(address, false, data, chunk);
        if (result != 0)
            return result;
        remaining -= chunk;
        if (remaining == 0)
            return 0;
        address += unsigned(chunk);
        data += chunk;
    }
    return genericRead(address, false, data, 1);
}

unsigned int PXConnection::write8(unsigned int address, unsigned char value)
{
    return genericWrite(address, false, &value, 1);
}

unsigned int PXConnection::writei8(unsigned int address, unsigned char value)
{
    return genericWrite(address, true, &value, 1);
}

unsigned int PXConnection::write16(unsigned int address, unsigned short value)
{
    return genericWrite(address, false, &value, 2);
}

unsigned int PXConnection::write32(unsigned int address, unsigned int value)
{
    return genericWrite(address, false, &value, 4);
}

unsigned int PXConnection::writeBlock(unsigned int address, unsigned int* data, int size)
{
    if (size < 1)
        return 0;
    auto* bytes = reinterpret_cast<unsigned char*>(data);
    int remaining = size;
    for (;;) {
        const int chunk = remaining > pxproto::MaxBlockChunk ? pxproto::MaxBlockChunk : remaining;
        const unsigned int result = genericWrite(address, false, bytes, chunk);
        if (result != 0)
            return result;
        remaining -= chunk;
        if (remaining == 0)
            return 0;
        address += unsigned(chunk);
        bytes += chunk;
    }
}

// ---- events -----------------------------------------------------------------------------------

unsigned int PXConnection::enableEvents(bool enable)
{
    QMutexLocker request(&requestMutex);
    bool written = true;
    if (QTcpSocket* s = socket.load(std::memory_order_acquire))
        written = PXClientManager::Instance()->sendSocketPacket(s, pxproto::enableEvents(enable),
                                                                true);
    eventsEnabled.store(enable, std::memory_order_relaxed);
    return written ? 0 : 13;
}

unsigned int PXConnection::popEvent(unsigned int* event)
{
    QMutexLocker lock(&dataMutex);
    if (!eventsEnabled.load(std::memory_order_relaxed))
        return 20;
    if (events.isEmpty())
        return 19;
    *event = events.takeFirst();
    return 0;
}

unsigned int PXConnection::waitEvent(unsigned int* event, unsigned int timeout)
{
    QMutexLocker lock(&dataMutex);
    if (!eventsEnabled.load(std::memory_order_relaxed))
        return 20;
    if (events.isEmpty())
        waitOn(eventCondition, dataMutex, timeout);
    if (events.isEmpty())
        return 19;
    *event = events.takeFirst();
    return 0;
}

unsigned int PXConnection::flushEvents()
{
    QMutexLocker lock(&dataMutex);
    events = QList<unsigned int>();
    return 0;
}

unsigned int PXConnection::setEventCallback(void (*callback)(void*), void* userData)
{
    QMutexLocker request(&requestMutex);
    QMutexLocker lock(&dataMutex);
    eventCallback.reset(callback, userData);
    return 0;
}

// ---- bypass -----------------------------------------------------------------------------------

unsigned int PXConnection::setBypassFlowIds(unsigned char* ids, int count)
{
    QMutexLocker request(&requestMutex);
    bool written = true;
    if (QTcpSocket* s = socket.load(std::memory_order_acquire))
        written = PXClientManager::Instance()->sendSocketPacket(
            s, pxproto::setBypassFlowIds(ids, count), true);
    bypassEnabled.store(true, std::memory_order_relaxed);
    return written ? 0 : 13;
}

unsigned int PXConnection::getBypassPacket(unsigned char* flowId, unsigned char* buffer, int size,
                                           int* length)
{
    QMutexLocker lock(&dataMutex);
    if (bypassPackets.isEmpty()) {
        *length = 0;
        return 8;
    }
    const QByteArray packet = bypassPackets.takeFirst();
    if (packet.size() < 4) {
        *length = 0;
        return 8;
    }
    int n = int(packet.size()) - 4;
    unsigned int result = 0;
    if (n > size) {
        n = size;
        result = 5;
    }
    *length = n;
    *flowId = static_cast<unsigned char>(packet.at(3));
    if (n > 0)
        std::memcpy(buffer, packet.constData() + 4, size_t(n));
    return result;
}

unsigned int PXConnection::getBypassData(unsigned char* buffer, int size, int* length)
{
    QMutexLocker lock(&dataMutex);
    *length = 0;
    if (bypassPackets.isEmpty())
        return 8;
    const QByteArray& packet = bypassPackets.first();
    const int whole = int(packet.size());
    *length = whole;
    if (size < whole)
        return 5;
    if (whole > 0)
        std::memcpy(buffer, packet.constData(), size_t(whole));
    bypassPackets.removeFirst();
    return 0;
}

unsigned int PXConnection::waitBypassPacket(unsigned char* flowId, unsigned char* buffer, int size,
                                            int* length, unsigned int timeout)
{
    QMutexLocker lock(&dataMutex);
    if (bypassPackets.isEmpty())
        waitOn(bypassCondition, dataMutex, timeout);
    if (bypassPackets.isEmpty()) {
        *length = 0;
        return 8;
    }
    const QByteArray packet = bypassPackets.takeFirst();
    const int whole = int(packet.size());
    if (whole < 4) {
        *length = 0;
        return 8;
    }
    const int n = size < whole ? size : whole;
    *length = n;
    *flowId = static_cast<unsigned char>(packet.at(3));
    if (n > 0)
        std::memcpy(buffer, packet.constData(), size_t(n));
    return n < whole ? 5 : 0;
}

unsigned int PXConnection::sendBypassPacket(unsigned char flowId, unsigned char* data, int size)
{
    if (size > pxproto::MaxBypassData)
        return 6;
    return sendCommand(pxproto::bypassSend(flowId, data, size));
}

unsigned int PXConnection::flushBypassPackets()
{
    QMutexLocker lock(&dataMutex);
    bypassPackets = QList<QByteArray>();
    return 0;
}

unsigned int PXConnection::setBypassCallback(void (*callback)(void*), void* userData)
{
    QMutexLocker request(&requestMutex);
    QMutexLocker lock(&dataMutex);
    bypassCallback.reset(callback, userData);
    return 0;
}

unsigned int PXConnection::setBypassDelayCallback(void (*callback)(void*), void* userData,
                                                  unsigned int delay)
{
    QMutexLocker request(&requestMutex);
    // Only open replaces the holder, and requestMutex keeps it out.
    PXDelayCallback* holder = bypassDelayCallback;
    if (!holder)
        return 0;
    // The holder and its timer belong to the network thread: stop, replace and re-arm there,
    // as one step with respect to tigger() and the timer's expiry.
    const bool applied = PXClientManager::Instance()->runOnThread(
        [holder, callback, userData, delay] { holder->reset(callback, userData, delay); });
    return applied ? 0 : 13;
}

// ---- server control ---------------------------------------------------------------------------

unsigned int PXConnection::sendCommand(const QByteArray& request)
{
    QMutexLocker lock(&requestMutex);
    QTcpSocket* s = socket.load(std::memory_order_acquire);
    if (s && !PXClientManager::Instance()->sendSocketPacket(s, request, true))
        return 13;
    return 0;
}

unsigned int PXConnection::runQuery(quint32 flag, const QByteArray& request, unsigned long timeout)
{
    QMutexLocker lock(&requestMutex);
    QTcpSocket* s = socket.load(std::memory_order_acquire);
    if (!s)
        return 13;
    QMutexLocker data(&dataMutex);
    pendingFlags.fetch_or(flag, std::memory_order_relaxed);
    PXClientManager::Instance()->sendSocketPacket(s, request, false);
    if (waitReply(flag, timeout, true))
        return 0;
    pendingFlags.fetch_and(~flag, std::memory_order_relaxed);
    return 13;
}

unsigned int PXConnection::killPellix()
{
    return sendCommand(pxproto::kill());
}

unsigned int PXConnection::cleanPellix()
{
    return sendCommand(pxproto::clean());
}

unsigned int PXConnection::flushPellixFifos()
{
    return sendCommand(pxproto::flushFifos());
}

unsigned int PXConnection::comBreak()
{
    return sendCommand(pxproto::comBreak());
}

unsigned int PXConnection::autoBauding()
{
    return sendCommand(pxproto::autoBauding());
}

unsigned int PXConnection::setFlowMode(PXLFlowMode mode)
{
    return sendCommand(pxproto::setFlowMode(quint32(mode)));
}

unsigned int PXConnection::setBaudRate(int baud)
{
    return sendCommand(pxproto::setBaudRate(baud));
}

unsigned int PXConnection::setUsbId(unsigned short first, unsigned short second)
{
    return sendCommand(pxproto::setUsbId(first, second));
}

unsigned int PXConnection::forcePellixReconnect()
{
    return runQuery(PendingReconnect, pxproto::forceReconnect(), ReconnectTimeout);
}

unsigned int PXConnection::getStatus(unsigned char* status)
{
    QMutexLocker lock(&requestMutex);
    QTcpSocket* s = socket.load(std::memory_order_acquire);
    if (!s)
        return 13;
    QMutexLocker data(&dataMutex);
    pendingFlags.fetch_or(PendingStatus, std::memory_order_relaxed);
    PXClientManager::Instance()->sendSocketPacket(s, pxproto::status(), false);
    if (!waitReply(PendingStatus, ReplyTimeout, true)) {
        pendingFlags.fetch_and(~quint32(PendingStatus), std::memory_order_relaxed);
        return 13;
    }
    if (status)
        *status = statusByte;
    return 0;
}

unsigned int PXConnection::ping()
{
    return runQuery(PendingPing, pxproto::ping(), ReplyTimeout);
}
