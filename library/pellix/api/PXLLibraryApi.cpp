// The exported C functions: handle resolution, the open family with the server launch, and
// the calls that forward to a PXConnection. Everything runs on the caller's thread; the C
// layer keeps no table and takes no lock of its own (the registry's mutex guards lookups).

#include "pellix/api/PXLLibraryApi.h"

#include "pellix/api/PXApiFrame_p.h"
#include "pellix/connection/PXClientManager.h"
#include "pellix/connection/PXConnection.h"
#include "pellix/protocol/PXFrames_p.h"
#include "pellix/protocol/PXRanges_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTcpSocket>

#include <atomic>
#include <climits>
#include <cstring>

namespace {

// Baud rate passed to a server that PXST_Open starts when its caller gives -1.
std::atomic<int> gDefaultBaud{921600};

constexpr const char* ServerHost = "127.0.0.1";
constexpr const char* ServerProgram = "pellix";
constexpr int ServerBasePort = 7700;
constexpr qint64 ServerStartWait = 10000;
constexpr int ProbeTimeout = 2000;

struct ResultText
{
    unsigned int code;
    const char* text;
};

constexpr ResultText ResultTexts[] = {
    {PXST_RESULT_OK, "success"},
    {PXST_RESULT_UNKNOWN_HANDLE, "unknown handle"},
    {PXST_RESULT_BUFFER_TOO_SMALL, "bypass packet larger than the buffer"},
    {PXST_RESULT_PACKET_TOO_LARGE, "bypass packet too large to send"},
    {PXST_RESULT_NO_PACKET, "no bypass packet"},
    {PXST_RESULT_NO_CONNECTION, "no connection could be made"},
    {PXST_RESULT_NOT_CONNECTED, "not connected"},
    {PXST_RESULT_TIMEOUT, "no reply in time, or a reply that does not fit"},
    {PXST_RESULT_LOD_FORMAT, "LOD file has a data line outside a packet"},
    {PXST_RESULT_FILE, "file cannot be opened"},
    {PXST_RESULT_MISMATCH, "target memory differs from the LOD file"},
    {PXST_RESULT_NO_EVENT, "no event"},
    {PXST_RESULT_EVENTS_DISABLED, "events are not enabled"},
    {PXST_RESULT_CANCELLED, "the transfer was cancelled"},
    {PXST_RESULT_UNSUPPORTED, "operation not supported"},
};

// The folder of the server program: the application's folder, or the current folder when
// the library had to create the QCoreApplication itself (the host program made none).
QString serverPath()
{
    const bool ownApplication =
        QCoreApplication::instance() == nullptr || PXClientManager::ownsApplication();
    const QDir folder =
        ownApplication ? QDir::current() : QDir(QCoreApplication::applicationDirPath());
    return folder.absoluteFilePath(QLatin1String(ServerProgram));
}

// Tries to connect to the server until it listens or ServerStartWait ms have passed. The
// probe sockets live on the calling thread and need no event loop; they never carry data.
void waitForServer(quint16 port)
{
    QElapsedTimer timer;
    timer.start();
    while (!timer.hasExpired(ServerStartWait)) {
        QTcpSocket probe;
        probe.connectToHost(QLatin1String(ServerHost), port, QIODevice::ReadWrite);
        if (probe.waitForConnected(ProbeTimeout)) {
            probe.disconnectFromHost();
            return;
        }
    }
}

// Creates a connection and opens it with `open`; destroys it again when that fails.
template <typename Open>
unsigned int openConnection(int* handle, Open&& open)
{
    *handle = -1;
    auto* connection = new PXConnection;
    if (!open(*connection)) {
        delete connection;
        return PXST_RESULT_NO_CONNECTION;
    }
    *handle = connection->getId();
    return PXST_RESULT_OK;
}

} // namespace

// ---- result codes ------------------------------------------------------------------------------

extern "C" const char* PXST_ResultText(unsigned int code)
{
    for (const ResultText& entry : ResultTexts) {
        if (entry.code == code)
            return entry.text;
    }
    return "unknown result code";
}

// ---- opening and closing
// -------------------------------------------------------------------------

extern "C" unsigned int PXST_Open(int port, int baud, int flowMode, int* handle)
{
    return openConnection(handle, [&](PXConnection& connection) {
        const auto tcpPort = static_cast<quint16>(port + ServerBasePort);
        const QString host = QLatin1String(ServerHost);
        if (!connection.open(host, tcpPort)) {
            const int rate = baud == -1 ? gDefaultBaud.load(std::memory_order_relaxed) : baud;
            const QStringList arguments{
                QStringLiteral("COM") + QString::number(port), QString::number(rate),
                QLatin1String(pxproto::flowModeWord(static_cast<quint32>(flowMode)))};
            QProcess::startDetached(serverPath(), arguments);
            waitForServer(tcpPort);
            if (!connection.open(host, tcpPort))
                return false;
        }
        connection.ping();
        return true;
    });
}

extern "C" unsigned int PXST_OpenSocket(const char* host, int port, int* handle)
{
    return openConnection(handle, [&](PXConnection& connection) {
        return connection.open(QString::fromLatin1(host), static_cast<unsigned short>(port));
    });
}

extern "C" unsigned int PXST_OpenDefault(int* handle)
{
    return openConnection(handle,
                          [](PXConnection& connection) { return connection.open(QString(), 0); });
}

extern "C" unsigned int PXST_RawOpen(int, int, int, int* handle)
{
    *handle = -1;
    return PXST_RESULT_NO_CONNECTION;
}

extern "C" unsigned int PXST_USBOpen(int, int* handle)
{
    *handle = -1;
    return PXST_RESULT_NO_CONNECTION;
}

extern "C" unsigned int PXST_BirchOpen(int, int, int* handle)
{
    *handle = -1;
    return PXST_RESULT_NO_CONNECTION;
}

extern "C" unsigned int PXST_USBBypassOpen(int, unsigned char*, int, int* handle)
{
    *handle = -1;
    return PXST_RESULT_NO_CONNECTION;
}

extern "C" unsigned int PXST_Close(int handle)
{
    PXConnection* connection = PXConnection::GetById(handle);
    if (connection == nullptr)
        return PXST_RESULT_UNKNOWN_HANDLE;
    delete connection;
    return PXST_RESULT_OK;
}

extern "C" int PXST_HandleStatus(int handle)
{
    PXConnection* connection = PXConnection::GetById(handle);
    return connection != nullptr && connection->isConnected() ? 1 : 0;
}

extern "C" unsigned int PXST_SetDefaultBaud(int baud)
{
    gDefaultBaud.store(baud, std::memory_order_relaxed);
    return PXST_RESULT_OK;
}

// ---- server control
// -------------------------------------------------------------------------------

using pxapi::withConnection;

unsigned int PXST_Ping(int handle)
{
    return withConnection(handle, [](PXConnection& c) { return c.ping(); });
}

extern "C" unsigned int PXST_PingPellix(int handle)
{
    return PXST_Ping(handle);
}

extern "C" unsigned int PXST_ChangeBaudRate(int handle, int baud)
{
    return withConnection(handle, [&](PXConnection& c) { return c.setBaudRate(baud); });
}

extern "C" unsigned int PXST_LaunchTargetAutoBauding(int handle)
{
    return withConnection(handle, [](PXConnection& c) { return c.autoBauding(); });
}

extern "C" unsigned int PXST_KillPellix(int handle)
{
    return withConnection(handle, [](PXConnection& c) {
        c.killPellix();
        return PXST_RESULT_OK;
    });
}

extern "C" unsigned int PXST_ChangeFlowMode(int handle, PXLFlowMode flowMode)
{
    return withConnection(handle, [&](PXConnection& c) {
        c.setFlowMode(flowMode);
        return PXST_RESULT_OK;
    });
}

extern "C" unsigned int PXST_ComBreak(int handle)
{
    return withConnection(handle, [](PXConnection& c) {
        c.comBreak();
        return PXST_RESULT_OK;
    });
}

extern "C" unsigned int PXST_PellixStatus(int handle, unsigned int* status)
{
    return withConnection(handle, [&](PXConnection& c) {
        unsigned char byte = 0;
        const unsigned int result = c.getStatus(&byte);
        *status = result == PXST_RESULT_OK && byte != 0 ? 1 : 0;
        return result;
    });
}

extern "C" unsigned int PXST_SpecifyUSBIdPolicy(int handle, int firstId, int secondId)
{
    return withConnection(handle, [&](PXConnection& c) {
        return c.setUsbId(static_cast<unsigned short>(firstId),
                          static_cast<unsigned short>(secondId));
    });
}

extern "C" unsigned int PXST_PellixClean(int handle)
{
    return withConnection(handle, [](PXConnection& c) { return c.cleanPellix(); });
}

extern "C" unsigned int PXST_PellixFlushFifos(int handle)
{
    return withConnection(handle, [](PXConnection& c) { return c.flushPellixFifos(); });
}

extern "C" unsigned int PXST_ForcePellixReconnection(int* handle)
{
    return withConnection(*handle, [](PXConnection& c) { return c.forcePellixReconnect(); });
}

// ---- events
// ----------------------------------------------------------------------------------------

extern "C" unsigned int PXST_EnableEvents(int handle, int enable)
{
    return withConnection(handle, [&](PXConnection& c) { return c.enableEvents(enable != 0); });
}

extern "C" unsigned int PXST_PopEvent(int handle, unsigned int* event)
{
    return withConnection(handle, [&](PXConnection& c) { return c.popEvent(event); });
}

extern "C" unsigned int PXST_WaitEvent(int handle, unsigned int* event, unsigned int timeout)
{
    return withConnection(handle, [&](PXConnection& c) { return c.waitEvent(event, timeout); });
}

extern "C" unsigned int PXST_FlushEvents(int handle)
{
    return withConnection(handle, [](PXConnection& c) { return c.flushEvents(); });
}

extern "C" unsigned int PXST_EventSetCallback(int handle, void (*callback)(void*), void* userData)
{
    return withConnection(handle,
                          [&](PXConnection& c) { return c.setEventCallback(callback, userData); });
}

// ---- bypass flows
// -----------------------------------------------------------------------------------

extern "C" unsigned int PXST_BypassOpen(int port, int baud, int flowMode, unsigned char* flowIds,
                                        int count, int* handle)
{
    // A list no request can carry opens nothing.
    if (count < 0 || count > pxproto::MaxFlowIds) {
        *handle = -1;
        return PXST_RESULT_PACKET_TOO_LARGE;
    }
    const unsigned int result = PXST_Open(port, baud, flowMode, handle);
    if (result != PXST_RESULT_OK)
        return result;
    if (PXConnection* connection = PXConnection::GetById(*handle))
        connection->setBypassFlowIds(flowIds, count);
    return PXST_RESULT_OK;
}

extern "C" unsigned int PXST_BypassEnable(int handle, unsigned char* flowIds, int count)
{
    return withConnection(handle,
                          [&](PXConnection& c) { return c.setBypassFlowIds(flowIds, count); });
}

extern "C" unsigned int PXST_BypassGetPacket(int handle, unsigned char* flowId,
                                             unsigned char* buffer, int size, int* length)
{
    return withConnection(
        handle, [&](PXConnection& c) { return c.getBypassPacket(flowId, buffer, size, length); });
}

extern "C" unsigned int PXST_BypassGetData(int handle, unsigned char* buffer, int size, int* length)
{
    return withConnection(handle,
                          [&](PXConnection& c) { return c.getBypassData(buffer, size, length); });
}

extern "C" unsigned int PXST_BypassWaitPacket(int handle, unsigned char* flowId,
                                              unsigned char* buffer, int size, int* length,
                                              unsigned int timeout)
{
    return withConnection(handle, [&](PXConnection& c) {
        return c.waitBypassPacket(flowId, buffer, size, length, timeout);
    });
}

extern "C" unsigned int PXST_BypassSendPacket(int handle, int flowId, unsigned char* data,
                                              int length)
{
    return withConnection(handle, [&](PXConnection& c) {
        return c.sendBypassPacket(static_cast<unsigned char>(flowId), data, length);
    });
}

extern "C" unsigned int PXST_BypassFlushPackets(int handle)
{
    return withConnection(handle, [](PXConnection& c) { return c.flushBypassPackets(); });
}

extern "C" unsigned int PXST_BypassSetCallback(int handle, void (*callback)(void*), void* userData)
{
    return withConnection(handle,
                          [&](PXConnection& c) { return c.setBypassCallback(callback, userData); });
}

extern "C" unsigned int PXST_BypassSetDelayCallback(int handle, void (*callback)(void*),
                                                    void* userData, unsigned int delay)
{
    return withConnection(handle, [&](PXConnection& c) {
        return c.setBypassDelayCallback(callback, userData, delay);
    });
}

// ---- target memory
// ---------------------------------------------------------------------------------

extern "C" unsigned int PXST_ReadInternal(int handle, unsigned int address, unsigned char* value)
{
    return withConnection(handle, [&](PXConnection& c) { return c.readi8(address, value); });
}

extern "C" unsigned int PXST_Read8(int handle, unsigned int address, unsigned char* value)
{
    return withConnection(handle, [&](PXConnection& c) { return c.read8(address, value); });
}

extern "C" unsigned int PXST_Read16(int handle, unsigned int address, unsigned short* value)
{
    return withConnection(handle, [&](PXConnection& c) { return c.read16(address, value); });
}

extern "C" unsigned int PXST_Read32(int handle, unsigned int address, unsigned int* value)
{
    return withConnection(handle, [&](PXConnection& c) { return c.read32(address, value); });
}

extern "C" unsigned int PXST_ReadBlock(int handle, unsigned int address, void* buffer,
                                       unsigned int size)
{
    return withConnection(handle, [&](PXConnection& c) -> unsigned int {
        if (size > unsigned(INT_MAX))
            return PXST_RESULT_TIMEOUT;
        return c.readBlock(address, static_cast<unsigned char*>(buffer), static_cast<int>(size));
    });
}

extern "C" unsigned int PXST_WriteInternal(int handle, unsigned int address, unsigned int value)
{
    return withConnection(handle, [&](PXConnection& c) {
        return c.writei8(address, static_cast<unsigned char>(value));
    });
}

extern "C" unsigned int PXST_Write8(int handle, unsigned int address, unsigned int value)
{
    return withConnection(handle, [&](PXConnection& c) {
        return c.write8(address, static_cast<unsigned char>(value));
    });
}

extern "C" unsigned int PXST_Write16(int handle, unsigned int address, unsigned int value)
{
    return withConnection(handle, [&](PXConnection& c) {
        return c.write16(address, static_cast<unsigned short>(value));
    });
}

extern "C" unsigned int PXST_Write32(int handle, unsigned int address, unsigned int value)
{
    return withConnection(handle, [&](PXConnection& c) { return c.write32(address, value); });
}

extern "C" unsigned int PXST_WriteBlock(int handle, unsigned int address, unsigned int* data,
                                        unsigned int size)
{
    return withConnection(handle, [&](PXConnection& c) -> unsigned int {
        if (size > unsigned(INT_MAX))
            return PXST_RESULT_TIMEOUT;
        return c.writeBlock(address, data, static_cast<int>(size));
    });
}

// ---- masked and batch reads
// -----------------------------------------------------------------------

unsigned int PXST_BatchRead(int handle, unsigned int address, unsigned char* buffer,
                            unsigned int size)
{
    return withConnection(handle, [&](PXConnection& c) -> unsigned int {
        if (size > unsigned(INT_MAX))
            return PXST_RESULT_TIMEOUT;
        return c.readBlock(address, buffer, static_cast<int>(size));
    });
}

unsigned int PXST_ReadBlockUSB(int, unsigned int, unsigned char*, unsigned int)
{
    return PXST_RESULT_UNSUPPORTED;
}

extern "C" unsigned int PXST_ReadBlockMasked(int handle, unsigned int address,
                                             unsigned char* buffer, unsigned int size,
                                             unsigned char* mask)
{
    return withConnection(handle, [&](PXConnection& c) {
        std::memset(buffer, 0, size);
        return pxrange::forEachMaskedRead(
            address, mask, size, [&](quint32 at, unsigned int offset, int width) {
                return c.genericRead(at, false, buffer + offset, width);
            });
    });
}

// ---- unsupported raw data calls
// --------------------------------------------------------------------

extern "C" unsigned int PXST_RawSendData(int, unsigned char*, int)
{
    return PXST_RESULT_UNSUPPORTED;
}

extern "C" unsigned int PXST_RawGetData(int, unsigned char*, int, int*)
{
    return PXST_RESULT_UNSUPPORTED;
}

extern "C" unsigned int PXST_RawFlushData(int)
{
    return PXST_RESULT_UNSUPPORTED;
}
