#ifndef PELLIX_PXNSCONNECTION_H
#define PELLIX_PXNSCONNECTION_H

#include "pellix/pellix_export.h"
#include "pellix/protocol/PXLTypes.h"

#include <QByteArray>
#include <QList>
#include <QObject>

#include <cstdint>

class PXParser;
class QTcpSocket;

// A connection to the host server with a socket of its own, for programs that run a Qt event
// loop. It is not entered in the PXConnection registry and does not use the client manager's
// network thread: requests are written straight to the socket, a request that needs a reply
// waits by running the thread's event loop, and target events and bypass packets are reported
// through the signals eventArrived() and bypassArrived().
//
// Thread contract
//   The object belongs to the thread it lives on (its creator's). Every function must be
//   called on that thread, and that thread must have a Qt event dispatcher (the main thread
//   of a QCoreApplication, or a QThread running its event loop). There are no locks.
//
// Waiting
//   A request with a reply (the reads, getStatus, ping, comBreak, forcePellixReconnect) runs
//   QCoreApplication::processEvents() until its reply is in or its time-out has passed. Other
//   slots, timers and posted events of the thread therefore run INSIDE such a call. Such a
//   slot may use this connection again:
//     - another request with a reply first waits until the reply of the one in progress has
//       arrived (at most its own time-out; when that passes it fails with 13 unsent), then
//       sends; each reply completes the innermost request only;
//     - commands and writes are written at once;
//     - close() waits until the reply of the request in progress has arrived, at most
//       CloseWaitLimit ms, then closes.
//   The wait also dispatches bytes that the socket holds without having signalled them, so a
//   receiver connected directly to eventArrived()/bypassArrived() may make requests too.
//   Do not delete the object from inside one of its requests or signals; use deleteLater().
//
// Arrivals
//   Every event frame and bypass frame the server sends is signalled, whatever enableEvents()
//   or setBypassFlowIds() asked for (those only tell the server what to send). With no
//   request in progress and nothing of the kind held back, the signal is emitted at once from
//   the socket's readyRead() handling. Otherwise the arrival is held back with its time stamp
//   and signalled from the event loop after the request has returned: all held-back events
//   first, then all held-back bypass packets, each kind in arrival order. Time stamps are
//   those of arrival (milliseconds since 1970-01-01 UTC). Nothing is ever dropped.
//
// Result codes
//   0 success, 6 bypass packet too large, 12 not connected (no socket), 13 no reply within
//   the time-out, a reply that does not fit the read, or a request that cannot be framed.
//   Every operation returns 12 without a socket before anything else is checked.
//
// The server address of open() is shared with PXConnection: PXClientManager::MServerHost and
// PXClientManager::MServerPort, the address of the last open of any connection.
class PELLIX_EXPORT PXNSConnection : public QObject
{
    Q_OBJECT
public:
    // Request tags on the request stack; below zero while the request waits.
    static constexpr int ReadTag = int(0x80000001u);
    static constexpr int WriteTag = int(0x80000002u); // never pushed: writes do not wait
    static constexpr int CompletionTag = int(0x80000003u);
    static constexpr int StatusTag = int(0x80000004u);
    static constexpr int PingTag = int(0x80000005u);
    // Final values of a stack entry.
    static constexpr int RequestDone = 1;
    static constexpr int RequestFailed = 2;

    // Time-outs in milliseconds.
    static constexpr int ConnectTimeout = 500;
    static constexpr int ReadTimeout = 1000;
    static constexpr int StatusTimeout = 500;
    static constexpr int PingTimeout = 500;
    static constexpr int ReconnectTimeout = 5000;
    static constexpr int BreakTimeout = 2000;
    // Longest wait of close() for the reply of a request in progress (the longest time-out).
    static constexpr int CloseWaitLimit = ReconnectTimeout;

    // A closed connection with its own parser.
    explicit PXNSConnection(QObject* parent = nullptr);
    // close(), then releases the parser.
    ~PXNSConnection() override;

    PXNSConnection(const PXNSConnection&) = delete;
    PXNSConnection& operator=(const PXNSConnection&) = delete;

    // ---- lifecycle ------------------------------------------------------------------------

    // Closes any earlier socket, settles the server address (FORCED_PELLIX_HOST and
    // FORCED_PELLIX_PORT when both are set and non-empty; otherwise `host` unless empty and
    // `port` unless 0, the previous values standing in for empty or 0), resets the parser and
    // connects. Blocks for at most 500 ms (plus a host name lookup). True when connected.
    bool open(const QString& host, unsigned short port);
    // open("127.0.0.1", 7700 + number); a negative number keeps the port of the last open.
    bool openNum(int number);
    // Reconnects to the address of the last open of any connection of the process.
    bool openLast();
    // Flushes the socket (at most 500 ms), waits for a request in progress further up the
    // call stack (see the class comment) and deletes the socket. Does nothing when closed.
    void close();

    // ---- register access ------------------------------------------------------------------
    // Reads wait up to 1000 ms per request: 0, 12, or 13 (time-out, or a read-data reply for
    // another address or with more bytes than expected, which fails the read at once; bytes
    // already copied stay in the buffer).

    // One read request: a single read of 1, 2 or 4 bytes (internal: the internal 8-bit read),
    // or a block read of 5 bytes and more. A size below 1, or 3 outside the internal space,
    // has no request and gives 13 without sending.
    unsigned int genericRead(unsigned int address, bool internal, void* data, int size);
    unsigned int readi8(unsigned int address, unsigned char* value);
    unsigned int read8(unsigned int address, unsigned char* value);
    // Through readBlock: an unaligned address gives several smaller reads.
    unsigned int read16(unsigned int address, unsigned short* value);
    unsigned int read32(unsigned int address, unsigned int* value);
    // Reads `size` bytes cut by alignment: single bytes at odd addresses, 16-bit reads at
    // addresses 2 mod 4 and for tails of 2 or 3 bytes, block reads of multiples of 4 (at most
    // 32768 bytes each) otherwise. Returns the first failing request's code; 0 for size < 1.
    unsigned int readBlock(unsigned int address, unsigned char* data, int size);

    // Writes are one frame each and are not acknowledged: they return at once with 0 or 12
    // (13 for a genericWrite of a negative size or of more than 65530 bytes, which no frame
    // can hold; nothing is sent).
    unsigned int genericWrite(unsigned int address, bool internal, void* data, int size);
    unsigned int writei8(unsigned int address, unsigned char value);
    unsigned int write8(unsigned int address, unsigned char value);
    unsigned int write16(unsigned int address, unsigned short value);
    unsigned int write32(unsigned int address, unsigned int value);
    // Writes `size` bytes in frames of at most 32768 bytes; 0 for size < 1.
    unsigned int writeBlock(unsigned int address, unsigned int* data, int size);

    // ---- commands: written at once, no reply; 0 or 12 ------------------------------------

    unsigned int enableEvents(bool enable);
    // Sends the low 8 bits of `type`.
    unsigned int setClientType(pxl_client_type_t type);
    // 6 (nothing sent) for a count below 0 or above 65531 (the frame cannot hold them), as
    // PXConnection and PXST_BypassEnable.
    unsigned int setBypassFlowIds(unsigned char* ids, int count);
    unsigned int killPellix();
    unsigned int cleanPellix();
    unsigned int flushPellixFifos();
    unsigned int setFlowMode(PXLFlowMode mode);
    unsigned int setBaudRate(int baud);
    unsigned int setPersistent(bool persistent);
    unsigned int setUsbId(unsigned short first, unsigned short second);
    // Sends `size` bytes on target flow `flowId`; 6 (nothing sent) for a size below 0 or
    // above 65530.
    unsigned int sendBypassPacket(unsigned char flowId, unsigned char* data, int size);
    unsigned int autoBauding();

    // ---- queries: 0, 12, or 13 when no reply came in time --------------------------------

    // Waits up to 5000 ms for the completion frame.
    unsigned int forcePellixReconnect();
    // Waits up to 2000 ms for the completion frame.
    unsigned int comBreak();
    // Waits up to 500 ms for a status reply; stores its byte through `status` unless null.
    unsigned int getStatus(unsigned char* status);
    // Waits up to 500 ms for the ping reply.
    unsigned int ping();

    // The synchronous request: waits (at most `timeout` ms) for a request in progress further
    // up the call stack, pushes `tag`, writes `packet` and runs the event loop until the reply
    // completes the tag or `timeout` ms have passed since the write. Returns RequestDone,
    // RequestFailed, or `tag` itself when the time ran out, nothing was sent, or the server
    // closed the connection meanwhile. Schedules checkAsyncArrived() when a request was sent.
    // The caller has checked that the connection is open.
    int blockSendPacket(const QByteArray& packet, int tag, int timeout);

signals:
    // One target event, with its arrival time.
    void eventArrived(qint64 stamp, uint32_t event);
    // One bypass packet as the nested debug packet (0xAD, length, target flow id, data,
    // checksum; nothing of it checked), with its arrival time.
    void bypassArrived(qint64 stamp, const QByteArray& bypass);

private slots:
    // The server closed the connection: the socket goes (deleteLater), requests give 12.
    void socketDisconnected();
    // Reads everything available and dispatches every complete frame.
    void readSocketData();
    // Signals the arrivals held back so far: events first, then bypass packets.
    void checkAsyncArrived();

private:
    bool outerRequestWaiting() const;
    unsigned int sendCommand(const QByteArray& frame);
    unsigned int query(const QByteArray& frame, int tag, int timeout);
    void writeFrame(const QByteArray& frame);
    void dispatch(const QByteArray& frame);
    void dispatchReadData(const QByteArray& frame);
    bool holdingBack() const;

    QTcpSocket* socket = nullptr;
    PXParser* parser;
    QList<unsigned int> events;
    QList<QByteArray> bypassPackets;
    QList<qint64> eventStamps;
    QList<qint64> bypassStamps;
    QList<int> requestStack;
    quint32 readAddress = 0;
    qint32 readRemaining = 0;
    unsigned char* readBuffer = nullptr;
    unsigned char* statusBuffer = nullptr;
    // Depth of readSocketData() on the call stack: close() inside it must not delete the
    // socket whose readyRead() is being emitted.
    int dispatchDepth = 0;
    // checkAsyncArrived() is emitting: new arrivals queue behind what it has taken.
    bool delivering = false;
};

#endif
