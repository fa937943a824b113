#ifndef PELLIX_PXCONNECTION_H
#define PELLIX_PXCONNECTION_H

#include "pellix/connection/PXCallback.h"
#include "pellix/pellix_export.h"
#include "pellix/protocol/PXLTypes.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QWaitCondition>

#include <atomic>
#include <memory>

class PXClientManager;
class PXDelayCallback;
class PXParser;
class PXReplyLook;

// One client's link with the host server: a socket connected by the network thread
// (PXClientManager), a stream parser, the one request that may be in flight, the queues of
// events and bypass packets, and the user's callbacks. Every connection is registered under
// an integer handle (1, 2, 3, ... in construction order, never reused) at construction.
//
// Result codes: 0 success, 5 bypass packet cut or buffer too small, 6 bypass packet too large
// to send, 8 no bypass packet, 13 no (fitting) reply in time or no socket, 19 no event,
// 20 events not enabled. A request whose server does not take its bytes within 5000 ms
// returns 13 (commands included; the rest of the frame goes out before the next one), and
// setting the delayed callback returns 13 when the network thread has not applied it within
// PXClientManager::HandoffTimeout ms; nothing waits longer.
//
// Threads: every operation runs on the caller's thread; any number of threads may use one
// connection. Requests serialise on requestMutex (one in flight); queue operations take only
// dataMutex and may run while a request waits. Lock order: requestMutex, then the client
// manager's mapMutex, then dataMutex.
//
// Requests: the calling thread writes its request to the socket and reads the reply itself,
// under dataMutex; the network thread is neither asked nor woken (it watches the socket only
// while no request runs). A request first looks for its reply for up to 300 us, reading the
// socket without sleeping, and then sleeps in poll() until the socket has data or the time-out
// passes. A local server usually answers within the look, which spares the caller a wake-up.
// A connection whose replies keep coming later than that stops looking (but for a probe every
// 16th request) until one comes in time again (PXReplyLook); on a machine with one processor
// it never looks. Events and bypass packets that arrive during a request are queued by the
// caller, and their callbacks run on the network thread.
//
// A connection without socket (never opened, failed open) refuses requests at once: reads,
// writes and queries return 13 without waiting, commands send nothing and return 0.
//
// Callbacks run on the network thread. The event and bypass callbacks run inside dispatch
// with the manager's mapMutex and this connection's dataMutex held: they must not call any
// operation of this connection that takes dataMutex (queue operations, the callback setters)
// nor any request, open or destruction. The delayed bypass callback runs with no lock held:
// it may use the queues but must not issue requests or open.
//
// A connection must not be destroyed while another thread is inside one of its operations.
class PELLIX_EXPORT PXConnection
{
public:
    enum PendingFlag : quint32 {
        PendingRead = 0x01,
        PendingWrite = 0x02,
        PendingStatus = 0x04,
        PendingPing = 0x08,
        PendingReconnect = 0x10
    };

    // Reply time-outs in milliseconds.
    static constexpr unsigned long ReplyTimeout = 5000;
    static constexpr unsigned long ReconnectTimeout = 10000;

    // Registers the new connection under the next handle. Not connected until open().
    PXConnection();
    // Detaches the socket (waiting for a dispatch in progress on this connection), retires the
    // delayed callback on the network thread (its function is never called after this
    // returns) and unregisters the handle.
    ~PXConnection();

    PXConnection(const PXConnection&) = delete;
    PXConnection& operator=(const PXConnection&) = delete;

    // The live connection with that handle, or null. No ownership; valid until destroyed.
    static PXConnection* GetById(int id);

    int getId() const { return id; }
    // True while the connection holds a socket (a socket whose peer has closed still counts).
    bool isConnected() const;

    // Connects (or reconnects) to the server. An empty host or port 0 reuses the value of the
    // last open of any connection; FORCED_PELLIX_HOST and FORCED_PELLIX_PORT, both set,
    // override both. Drops the old socket first. Blocks up to the 3000 ms connect time-out
    // (plus a running request of this connection). True when connected. Queues, flags and
    // callbacks are kept; the delayed callback must be set again after every open.
    bool open(const QString& host, unsigned short port);

    // Dispatch of arrived bytes; called by the client manager on its thread only.
    void readSocketData();

    // ---- memory access. Block the caller until the reply (0) or 13 ----------------------------

    // One read request of `size` bytes into `data`: a single read for 1, 2, 4 bytes (or the
    // internal space up to 4), a block read above 4. Fails with 13 when 5000 ms pass without
    // progress, when a reply does not fit, for size < 1 and for size 3 outside the internal
    // space.
    unsigned int genericRead(unsigned int address, bool internal, void* data, int size);
    // One write request of `size` bytes (at most 65530) from `data`; 13 when the
    // acknowledgement does not come within 5000 ms.
    unsigned int genericWrite(unsigned int address, bool internal, void* data, int size);
    unsigned int read8(unsigned int address, unsigned char* value);
    unsigned int readi8(unsigned int address, unsigned char* value);
    unsigned int read16(unsigned int address, unsigned short* value);
    unsigned int read32(unsigned int address, unsigned int* value);
    // Reads `size` bytes cut by alignment (8-bit at odd, 16-bit at 2 mod 4 and for tails,
    // 32-bit for 4..7 bytes, block reads of at most 32768 bytes). 0 for size < 1; stops at
    // the first failing request and returns its code.
    unsigned int readBlock(unsigned int address, unsigned char* data, int size);
    unsigned int write8(unsigned int address, unsigned char value);
    unsigned int writei8(unsigned int address, unsigned char value);
    unsigned int write16(unsigned int address, unsigned short value);
    unsigned int write32(unsigned int address, unsigned int value);
    // Writes `size` bytes (not words) in chunks of at most 32768; 0 for size < 1; stops at
    // the first failing chunk.
    unsigned int writeBlock(unsigned int address, unsigned int* data, int size);

    // ---- events ---------------------------------------------------------------------------------

    // Asks the server to start (true) or stop (false) sending events; returns after the
    // request is written. Queued events are kept. 0.
    unsigned int enableEvents(bool enable);
    // Takes the oldest event: 0; 19 queue empty; 20 events not enabled. Does not block.
    unsigned int popEvent(unsigned int* event);
    // As popEvent, waiting once up to `timeout` ms for an event when the queue is empty
    // (0 does not wait; 0xFFFFFFFF is a finite wait). 19 nothing in time or taken by another.
    unsigned int waitEvent(unsigned int* event, unsigned int timeout);
    // Empties the event queue. 0.
    unsigned int flushEvents();
    // Replaces the function called on the network thread for every queued event (null: none).
    unsigned int setEventCallback(void (*callback)(void*), void* userData);

    // ---- bypass flows ---------------------------------------------------------------------------

    // Sends the flow ids to receive and enables reception for the life of the connection. 0;
    // 6 for a count below 0 or above 65531 (more than the request's length field holds):
    // nothing sent, reception unchanged.
    unsigned int setBypassFlowIds(unsigned char* ids, int count);
    // Takes the oldest packet: its flow id and data (bytes after the 4-byte inner header,
    // checksum included). 0; 5 data longer than `size` (cut, packet consumed; a negative size
    // counts as 0); 8 queue empty or stored packet shorter than 4 bytes (discarded), `length`
    // 0. Does not block.
    unsigned int getBypassPacket(unsigned char* flowId, unsigned char* buffer, int size,
                                 int* length);
    // Takes the oldest packet whole (inner header included). 0; 5 buffer too small: nothing
    // copied, packet kept, `length` tells the size needed; 8 queue empty.
    unsigned int getBypassData(unsigned char* buffer, int size, int* length);
    // Waits once up to `timeout` ms for a packet when the queue is empty, then delivers the
    // whole stored packet (inner header included) up to `size` bytes. 0; 5 cut (consumed);
    // 8 nothing in time, or a stored packet shorter than 4 bytes (discarded), `length` 0.
    unsigned int waitBypassPacket(unsigned char* flowId, unsigned char* buffer, int size,
                                  int* length, unsigned int timeout);
    // Sends one packet on `flowId`; returns after it is written. 0; 6 for a size below 0 or
    // above 65530 bytes (nothing sent).
    unsigned int sendBypassPacket(unsigned char flowId, unsigned char* data, int size);
    // Empties the bypass queue. 0.
    unsigned int flushBypassPackets();
    // Replaces the function called on the network thread for every queued packet.
    unsigned int setBypassCallback(void (*callback)(void*), void* userData);
    // Sets the function called once, `delay` ms after the first packet of a burst, on the
    // network thread with no lock held. Applied on the network thread before returning; no
    // effect on a connection that never connected. Must be set again after every open. 0.
    unsigned int setBypassDelayCallback(void (*callback)(void*), void* userData,
                                        unsigned int delay);

    // ---- server control -------------------------------------------------------------------------
    // Commands return 0 once the request is written (0 without sending when not connected; 13
    // when the server takes no bytes within 5000 ms).

    unsigned int killPellix();
    unsigned int cleanPellix();
    unsigned int flushPellixFifos();
    unsigned int comBreak();
    unsigned int autoBauding();
    unsigned int setFlowMode(PXLFlowMode mode);
    unsigned int setBaudRate(int baud);
    unsigned int setUsbId(unsigned short first, unsigned short second);
    // Queries block until the reply: 0, or 13 after 5000 ms (10000 ms for the reconnection).
    // getStatus stores the status byte through a non-null `status` on success.
    unsigned int forcePellixReconnect();
    unsigned int getStatus(unsigned char* status);
    unsigned int ping();

private:
    friend class PXClientManager;

    unsigned int sendCommand(const QByteArray& request);
    unsigned int runQuery(quint32 flag, const QByteArray& request, unsigned long timeout);
    // One request, requestMutex held: sends `frame` and, when `flag` is set, waits up to
    // `timeout` ms for the reply that clears it (a read: for each piece of its data). 0, or 13
    // (no socket for a request with a reply, no reply in time, the frame not taken in time).
    unsigned int call(const QByteArray& frame, quint32 flag, unsigned long timeout);
    // The socket, all under dataMutex. A request begins by taking the socket out of the
    // network thread's watch and ends by putting it back (requestMutex held).
    void beginCall();
    void endCall();
    // Writes a whole frame (what the socket does not take at once waits in `outbox` for the
    // next write) within `timeout` ms, reading what arrives meanwhile. False when the server
    // took not all of it in time.
    bool sendFrame(const QByteArray& frame, unsigned long timeout);
    // Reads what the socket holds and dispatches the frames (the network thread's reading
    // sets `onNetworkThread`: it runs the callbacks itself).
    void readAvailable(bool onNetworkThread);
    bool waitReply(quint32 flag, unsigned long timeout, bool look);
    void dispatchFrame(const unsigned char* bytes, int size, bool onNetworkThread);
    // Dispatch side of a reply: clears the request's pending bit and wakes its waiter.
    void completeReply(quint32 flag);
    // Network thread: a new socket (mapMutex held).
    void attachSocket(int fd);
    // Network thread, mapMutex held: the callbacks of frames that a caller read.
    void runDeferredCallbacks();
    // Caller side, dataMutex held: counts a callback owed; true when the network thread must be
    // asked (once dataMutex is let go) to run the owed callbacks.
    void deferCallbacks(int* counter) { ++*counter; }
    bool takeCallbackPost();

    std::atomic<int> socketFd{-1};
    PXParser* parser;
    QMutex requestMutex;
    QMutex dataMutex;
    QWaitCondition replyCondition;
    QWaitCondition eventCondition;
    QWaitCondition bypassCondition;
    int id = 0;
    std::atomic<quint32> pendingFlags{0};
    std::atomic<bool> eventsEnabled{false};
    std::atomic<bool> bypassEnabled{false};
    quint32 readAddress = 0;
    qint32 readRemaining = 0;
    unsigned char* readBuffer = nullptr;
    quint8 statusByte = 0;
    // How long a waiting request looks for its reply before it sleeps; requestMutex guards it.
    std::unique_ptr<PXReplyLook> replyLook;
    // The socket's state, under dataMutex: a request's caller is reading it; it is in the
    // network thread's watch; the server has closed it (nothing more to read); bytes of a
    // frame that the socket did not take yet; the arrival buffer.
    bool callerReading = false;
    bool armed = false;
    bool peerClosed = false;
    QByteArray outbox;
    QByteArray inbox;
    // Callbacks owed for frames that a caller read, and whether the network thread was asked
    // to run them (dataMutex).
    int deferredEvents = 0;
    int deferredBypass = 0;
    bool callbacksPosted = false;
    QList<unsigned int> events;
    QList<QByteArray> bypassPackets;
    // Network thread only: created, replaced and retired there.
    PXDelayCallback* bypassDelayCallback = nullptr;
    PXCallback eventCallback;
    PXCallback bypassCallback;

    static int MGlobalId;
    static QMap<int, PXConnection*> MGlobalMap;
    static QMutex MGlobalMutex;
};

#endif
