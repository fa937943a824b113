// The calls of PXConnection built on its request path (PXConnection.cpp): memory access by
// width and by block, events, bypass flows and server control.

#include "pellix/connection/PXConnection.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/tsan_p.h"
#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXRanges_p.h"

#include <QMutexLocker>

#include <cstring>

PXRANGE_DEFINE_MEMORY_CALLS(PXConnection)

// ---- events -----------------------------------------------------------------------------------

unsigned int PXConnection::enableEvents(bool enable)
{
    QMutexLocker request(&requestMutex);
    const unsigned int result = call(pxproto::enableEvents(enable), 0, 0);
    eventsEnabled.store(enable, std::memory_order_relaxed);
    return result;
}

unsigned int PXConnection::popEvent(unsigned int* event)
{
    QMutexLocker lock(&dataMutex);
    if (!eventsEnabled.load(std::memory_order_relaxed))
        return PXST_RESULT_EVENTS_DISABLED;
    if (events.isEmpty())
        return PXST_RESULT_NO_EVENT;
    *event = events.takeFirst();
    return PXST_RESULT_OK;
}

unsigned int PXConnection::waitEvent(unsigned int* event, unsigned int timeout)
{
    QMutexLocker lock(&dataMutex);
    if (!eventsEnabled.load(std::memory_order_relaxed))
        return PXST_RESULT_EVENTS_DISABLED;
    if (events.isEmpty())
        pxtsan::waitOn(eventCondition, dataMutex, timeout);
    if (events.isEmpty())
        return PXST_RESULT_NO_EVENT;
    *event = events.takeFirst();
    return PXST_RESULT_OK;
}

unsigned int PXConnection::flushEvents()
{
    QMutexLocker lock(&dataMutex);
    events = QList<unsigned int>();
    return PXST_RESULT_OK;
}

unsigned int PXConnection::setEventCallback(void (*callback)(void*), void* userData)
{
    QMutexLocker request(&requestMutex);
    QMutexLocker lock(&dataMutex);
    eventCallback.reset(callback, userData);
    return PXST_RESULT_OK;
}

// ---- bypass -----------------------------------------------------------------------------------

unsigned int PXConnection::setBypassFlowIds(unsigned char* ids, int count)
{
    if (count < 0 || count > pxproto::MaxFlowIds)
        return PXST_RESULT_PACKET_TOO_LARGE;
    QMutexLocker request(&requestMutex);
    const unsigned int result = call(pxproto::setBypassFlowIds(ids, count), 0, 0);
    bypassEnabled.store(true, std::memory_order_relaxed);
    return result;
}

unsigned int PXConnection::getBypassPacket(unsigned char* flowId, unsigned char* buffer, int size,
                                           int* length)
{
    if (size < 0)
        size = 0;
    QMutexLocker lock(&dataMutex);
    if (bypassPackets.isEmpty()) {
        *length = 0;
        return PXST_RESULT_NO_PACKET;
    }
    const QByteArray packet = bypassPackets.takeFirst();
    if (packet.size() < 4) {
        *length = 0;
        return PXST_RESULT_NO_PACKET;
    }
    int n = int(packet.size()) - 4;
    unsigned int result = 0;
    if (n > size) {
        n = size;
        result = PXST_RESULT_BUFFER_TOO_SMALL;
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
        return PXST_RESULT_NO_PACKET;
    const QByteArray& packet = bypassPackets.first();
    const int whole = int(packet.size());
    *length = whole;
    if (size < whole)
        return PXST_RESULT_BUFFER_TOO_SMALL;
    if (whole > 0)
        std::memcpy(buffer, packet.constData(), size_t(whole));
    bypassPackets.removeFirst();
    return PXST_RESULT_OK;
}

unsigned int PXConnection::waitBypassPacket(unsigned char* flowId, unsigned char* buffer, int size,
                                            int* length, unsigned int timeout)
{
    if (size < 0)
        size = 0;
    QMutexLocker lock(&dataMutex);
    if (bypassPackets.isEmpty())
        pxtsan::waitOn(bypassCondition, dataMutex, timeout);
    if (bypassPackets.isEmpty()) {
        *length = 0;
        return PXST_RESULT_NO_PACKET;
    }
    const QByteArray packet = bypassPackets.takeFirst();
    const int whole = int(packet.size());
    if (whole < 4) {
        *length = 0;
        return PXST_RESULT_NO_PACKET;
    }
    const int n = size < whole ? size : whole;
    *length = n;
    *flowId = static_cast<unsigned char>(packet.at(3));
    if (n > 0)
        std::memcpy(buffer, packet.constData(), size_t(n));
    return n < whole ? PXST_RESULT_BUFFER_TOO_SMALL : PXST_RESULT_OK;
}

unsigned int PXConnection::sendBypassPacket(unsigned char flowId, unsigned char* data, int size)
{
    if (size < 0 || size > pxproto::MaxBypassData)
        return PXST_RESULT_PACKET_TOO_LARGE;
    return sendCommand(pxproto::bypassSend(flowId, data, size));
}

unsigned int PXConnection::flushBypassPackets()
{
    QMutexLocker lock(&dataMutex);
    bypassPackets = QList<QByteArray>();
    return PXST_RESULT_OK;
}

unsigned int PXConnection::setBypassCallback(void (*callback)(void*), void* userData)
{
    QMutexLocker request(&requestMutex);
    QMutexLocker lock(&dataMutex);
    bypassCallback.reset(callback, userData);
    return PXST_RESULT_OK;
}

unsigned int PXConnection::setBypassDelayCallback(void (*callback)(void*), void* userData,
                                                  unsigned int delay)
{
    QMutexLocker request(&requestMutex);
    // Only open replaces the holder, and requestMutex keeps it out.
    PXDelayCallback* holder = bypassDelayCallback;
    if (!holder)
        return PXST_RESULT_OK;
    // The holder and its timer belong to the network thread: stop, replace and re-arm there,
    // as one step with respect to tigger() and the timer's expiry.
    const bool applied = PXClientManager::Instance()->runOnThread(
        [holder, callback, userData, delay] { holder->reset(callback, userData, delay); });
    return applied ? PXST_RESULT_OK : PXST_RESULT_TIMEOUT;
}

// ---- server control ---------------------------------------------------------------------------

unsigned int PXConnection::sendCommand(const QByteArray& request)
{
    QMutexLocker lock(&requestMutex);
    return call(request, 0, 0);
}

unsigned int PXConnection::runQuery(quint32 flag, const QByteArray& request, unsigned long timeout)
{
    QMutexLocker lock(&requestMutex);
    return call(request, flag, timeout);
}

PXPROTO_DEFINE_SERVER_COMMANDS(PXConnection)

unsigned int PXConnection::comBreak()
{
    return sendCommand(pxproto::comBreak());
}

unsigned int PXConnection::forcePellixReconnect()
{
    return runQuery(PendingReconnect, pxproto::forceReconnect(), ReconnectTimeout);
}

unsigned int PXConnection::getStatus(unsigned char* status)
{
    QMutexLocker lock(&requestMutex);
    const unsigned int result = call(pxproto::status(), PendingStatus, ReplyTimeout);
    if (result == 0 && status) {
        QMutexLocker data(&dataMutex);
        *status = statusByte;
    }
    return result;
}

unsigned int PXConnection::ping()
{
    return runQuery(PendingPing, pxproto::ping(), ReplyTimeout);
}
