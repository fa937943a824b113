#include "pellix/nsconnection/PXNSConnection.h"

#include "pellix/connection/PXClientManager.h"
#include "pellix/log/PXFrameTrace_p.h"
#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXParser.h"
#include "pellix/protocol/PXRanges_p.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QMetaType>
#include <QTcpSocket>
#include <QTimer>

#include <algorithm>

namespace {

// Result codes.

constexpr int FlushTimeout = 500;
// Slice of event processing while an inner call waits for an outer request's reply.
constexpr int NestedSlice = 100;
constexpr int MaxFlowIds = pxproto::MaxFlowIds;

// Counts the readSocketData() calls on the stack for the lifetime of one call.
class DepthGuard
{
public:
    explicit DepthGuard(int& depth) : counter(depth) { ++counter; }
    ~DepthGuard() { --counter; }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;

private:
    int& counter;
};

} // namespace

PXNSConnection::PXNSConnection(QObject* parent)
    : QObject(parent), parser(new PXParser(PXParser::ServerFrames))
{
    // Lets receivers connect through queued connections under Qt 5 as well, where the
    // signal's parameter is known by this name only after registration.
    static const int registered = qRegisterMetaType<uint32_t>("uint32_t");
    Q_UNUSED(registered);
}

PXNSConnection::~PXNSConnection()
{
    close();
    delete parser;
}

// ---- lifecycle ----------------------------------------------------------------------------

bool PXNSConnection::open(const QString& host, unsigned short port)
{
    close();

    QString serverHost;
    quint16 serverPort = 0;
    PXClientManager::resolveServerAddress(host, port, &serverHost, &serverPort);

    parser->reset();

    socket = new QTcpSocket(this);
    socket->connectToHost(serverHost, serverPort, QIODevice::ReadWrite);
    if (!socket->waitForConnected(ConnectTimeout)) {
        socket->deleteLater();
        socket = nullptr;
        return false;
    }
    // Requests are small and answered one by one: send them without coalescing delay.
    socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    connect(socket, &QTcpSocket::readyRead, this, &PXNSConnection::readSocketData);
    connect(socket, &QTcpSocket::disconnected, this, &PXNSConnection::socketDisconnected);
    return true;
}

bool PXNSConnection::openNum(int number)
{
    // Port 0 keeps the port of the last open, taken under the same lock that settles it.
    const quint16 port = number < 0 ? 0 : quint16(7700 + number);
    return open(QStringLiteral("127.0.0.1"), port);
}

bool PXNSConnection::openLast()
{
    // An empty host and port 0 keep both values of the last open.
    return open(QString(), 0);
}

void PXNSConnection::close()
{
    if (socket && socket->bytesToWrite() > 0)
        socket->waitForBytesWritten(FlushTimeout);

    // Called from a slot inside a request of this connection: let that request's reply come
    // in first, so the request is not cut off by the socket going away.
    if (outerRequestWaiting()) {
        QElapsedTimer waited;
        waited.start();
        while (outerRequestWaiting() && waited.elapsed() < CloseWaitLimit && socket) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, NestedSlice);
            if (socket && socket->bytesAvailable() > 0)
                readSocketData();
        }
    }

    QTcpSocket* closing = socket;
    if (!closing)
        return;
    socket = nullptr;
    disconnect(closing, nullptr, this, nullptr);
    if (dispatchDepth > 0) {
        // Inside the socket's own readyRead() emission: deleting it now would pull it from
        // under Qt's signal code.
        closing->abort();
        closing->deleteLater();
    } else {
        delete closing;
    }
}

void PXNSConnection::socketDisconnected()
{
    if (!socket)
        return;
    disconnect(socket, nullptr, this, nullptr);
    socket->deleteLater();
    socket = nullptr;
}

// ---- the synchronous request --------------------------------------------------------------

bool PXNSConnection::outerRequestWaiting() const
{
    return !requestStack.isEmpty() && requestStack.last() < 0;
}

int PXNSConnection::blockSendPacket(const QByteArray& packet, int tag, int timeout)
{
    // A request further up the call stack still waits for its reply, which would otherwise
    // complete this request. Wait for it first, at most this request's own time-out.
    if (outerRequestWaiting()) {
        QElapsedTimer waited;
        waited.start();
        while (outerRequestWaiting()) {
            const qint64 remaining = timeout - waited.elapsed();
            if (remaining < 0 || !socket)
                return tag;
            QCoreApplication::processEvents(QEventLoop::AllEvents,
                                            int(std::min<qint64>(remaining, NestedSlice)));
            if (socket && socket->bytesAvailable() > 0)
                readSocketData();
        }
    }
    if (!socket)
        return tag;

    requestStack.append(tag);
    writeFrame(packet);
    QElapsedTimer elapsed;
    elapsed.start();
    while (requestStack.last() < 0 && socket) {
        const qint64 remaining = timeout - elapsed.elapsed();
        if (remaining < 0)
            break;
        QCoreApplication::processEvents(QEventLoop::AllEvents, int(remaining));
        // Qt does not emit readyRead() again while a readyRead() handler runs (as when a
        // receiver of an immediate signal makes this request): take such bytes here.
        if (socket && socket->bytesAvailable() > 0)
            readSocketData();
    }
    const int result = requestStack.takeLast();
    // Signal what was held back once control is back in the event loop. With nothing held
    // back the call would find empty lists, so the timer is spared.
    if (!events.isEmpty() || !bypassPackets.isEmpty())
        QTimer::singleShot(0, this, &PXNSConnection::checkAsyncArrived);
    return result;
}

void PXNSConnection::writeFrame(const QByteArray& frame)
{
    PX_TRACE_FRAME(0, true, frame.constData(), frame.size()); // no handle: 0
    socket->write(frame);
    socket->flush();
}

unsigned int PXNSConnection::sendCommand(const QByteArray& frame)
{
    if (!socket)
        return PXST_RESULT_NOT_CONNECTED;
    writeFrame(frame);
    return PXST_RESULT_OK;
}

unsigned int PXNSConnection::query(const QByteArray& frame, int tag, int timeout)
{
    if (!socket)
        return PXST_RESULT_NOT_CONNECTED;
    return blockSendPacket(frame, tag, timeout) == RequestDone ? PXST_RESULT_OK
                                                               : PXST_RESULT_TIMEOUT;
}

// ---- register access ----------------------------------------------------------------------

unsigned int PXNSConnection::genericRead(unsigned int address, bool internal, void* data, int size)
{
    if (!socket)
        return PXST_RESULT_NOT_CONNECTED;
    const QByteArray request = pxproto::readRequest(address, internal, size);
    if (request.isEmpty())
        return PXST_RESULT_TIMEOUT;
    readAddress = address;
    readRemaining = size;
    readBuffer = static_cast<unsigned char*>(data);
    const int result = blockSendPacket(request, ReadTag, ReadTimeout);
    readBuffer = nullptr;
    return result == RequestDone ? PXST_RESULT_OK : PXST_RESULT_TIMEOUT;
}

unsigned int PXNSConnection::genericWrite(unsigned int address, bool internal, void* data, int size)
{
    if (!socket)
        return PXST_RESULT_NOT_CONNECTED;
    if (size < 0 || size > pxproto::MaxWriteData)
        return PXST_RESULT_TIMEOUT;
    writeFrame(pxproto::writeRequest(address, internal, data, size));
    return PXST_RESULT_OK;
}

PXRANGE_DEFINE_MEMORY_CALLS(PXNSConnection)

// ---- commands -----------------------------------------------------------------------------

PXPROTO_DEFINE_SERVER_COMMANDS(PXNSConnection)

unsigned int PXNSConnection::enableEvents(bool enable)
{
    return sendCommand(pxproto::enableEvents(enable));
}

unsigned int PXNSConnection::setClientType(pxl_client_type_t type)
{
    return sendCommand(pxproto::setClientType(type));
}

unsigned int PXNSConnection::setBypassFlowIds(unsigned char* ids, int count)
{
    if (!socket)
        return PXST_RESULT_NOT_CONNECTED;
    if (count < 0 || count > MaxFlowIds)
        return PXST_RESULT_PACKET_TOO_LARGE;
    return sendCommand(pxproto::setBypassFlowIds(ids, count));
}

unsigned int PXNSConnection::setPersistent(bool persistent)
{
    return sendCommand(pxproto::setPersistent(persistent));
}

unsigned int PXNSConnection::sendBypassPacket(unsigned char flowId, unsigned char* data, int size)
{
    if (!socket)
        return PXST_RESULT_NOT_CONNECTED;
    if (size < 0 || size > pxproto::MaxBypassData)
        return PXST_RESULT_PACKET_TOO_LARGE;
    return sendCommand(pxproto::bypassSend(flowId, data, size));
}

// ---- queries ------------------------------------------------------------------------------

unsigned int PXNSConnection::forcePellixReconnect()
{
    return query(pxproto::forceReconnect(), CompletionTag, ReconnectTimeout);
}

unsigned int PXNSConnection::comBreak()
{
    return query(pxproto::comBreak(), CompletionTag, BreakTimeout);
}

unsigned int PXNSConnection::getStatus(unsigned char* status)
{
    if (!socket)
        return PXST_RESULT_NOT_CONNECTED;
    statusBuffer = status;
    const unsigned int result = query(pxproto::status(), StatusTag, StatusTimeout);
    statusBuffer = nullptr;
    return result;
}

unsigned int PXNSConnection::ping()
{
    return query(pxproto::ping(), PingTag, PingTimeout);
}

// ---- arrivals -----------------------------------------------------------------------------

bool PXNSConnection::holdingBack() const
{
    return !requestStack.isEmpty() || delivering;
}

void PXNSConnection::readSocketData()
{
    if (!socket)
        return;
    const qint64 available = socket->bytesAvailable();
    if (available < 1)
        return;
    parser->feedData(socket->read(available));

    DepthGuard depth(dispatchDepth);
    // A receiver may close the connection, or make a request that dispatches further frames
    // from the same parser: take a copy of each frame before handling it.
    while (socket) {
        const QByteArray frame = parser->getPacket(false);
        if (frame.isEmpty())
            break;
        PX_TRACE_FRAME(0, false, frame.constData(), frame.size());
        dispatch(frame);
    }
}

void PXNSConnection::dispatch(const QByteArray& frame)
{
    const unsigned char flow = pxproto::flowId(frame);
    const int top = requestStack.isEmpty() ? 0 : requestStack.last();
    switch (flow) {
    case pxproto::reply::Event: {
        if (pxproto::payloadLength(frame) != pxproto::EventLength)
            return;
        const quint32 id = pxproto::getLe32(frame.constData() + pxproto::HeaderSize);
        const qint64 stamp = QDateTime::currentMSecsSinceEpoch();
        if (!holdingBack() && events.isEmpty()) {
            emit eventArrived(stamp, id);
        } else {
            eventStamps.append(stamp);
            events.append(id);
        }
        return;
    }
    case pxproto::reply::Bypass: {
        const qint64 stamp = QDateTime::currentMSecsSinceEpoch();
        const QByteArray bypass = frame.mid(pxproto::HeaderSize);
        if (!holdingBack() && bypassPackets.isEmpty()) {
            emit bypassArrived(stamp, bypass);
        } else {
            bypassStamps.append(stamp);
            bypassPackets.append(bypass);
        }
        return;
    }
    case pxproto::reply::ReadData:
        if (top == ReadTag)
            dispatchReadData(frame);
        return;
    case pxproto::reply::Status:
        if (top == StatusTag && frame.size() == pxproto::StatusFrameSize) {
            if (statusBuffer)
                *statusBuffer = static_cast<unsigned char>(frame.at(4));
            requestStack.last() = RequestDone;
        }
        return;
    case pxproto::reply::Completion:
        if (top == CompletionTag)
            requestStack.last() = RequestDone;
        return;
    case pxproto::reply::Ping:
        if (top == PingTag)
            requestStack.last() = RequestDone;
        return;
    default:
        // Write acknowledgements (no write waits) and unknown flows.
        return;
    }
}

void PXNSConnection::dispatchReadData(const QByteArray& frame)
{
    const int count =
        pxproto::readDataCount(reinterpret_cast<const unsigned char*>(frame.constData()),
                               int(frame.size()), readAddress, readRemaining);
    if (count < 0) {
        requestStack.last() = RequestFailed;
        return;
    }
    if (readBuffer) {
        std::copy_n(reinterpret_cast<const unsigned char*>(frame.constData()) + 8, count,
                    readBuffer);
        readBuffer += count;
    }
    readAddress += quint32(count);
    readRemaining -= count;
    if (readRemaining == 0)
        requestStack.last() = RequestDone;
}

void PXNSConnection::checkAsyncArrived()
{
    // An outer call is still emitting what it took: it owns the front of the lists, and
    // schedules another call for whatever arrives meanwhile.
    if (delivering)
        return;
    delivering = true;
    // Only what is held back now; later arrivals queue behind and go in the next call.
    const int eventCount = int(events.size());
    const int bypassCount = int(bypassPackets.size());
    for (int i = 0; i < eventCount; ++i) {
        const qint64 stamp = eventStamps.takeFirst();
        const unsigned int id = events.takeFirst();
        emit eventArrived(stamp, id);
    }
    for (int i = 0; i < bypassCount; ++i) {
        const qint64 stamp = bypassStamps.takeFirst();
        const QByteArray bypass = bypassPackets.takeFirst();
        emit bypassArrived(stamp, bypass);
    }
    delivering = false;
    if (!events.isEmpty() || !bypassPackets.isEmpty())
        QTimer::singleShot(0, this, &PXNSConnection::checkAsyncArrived);
}
