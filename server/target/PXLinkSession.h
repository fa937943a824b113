#ifndef PELLIX_PXLINKSESSION_H
#define PELLIX_PXLINKSESSION_H

#include "PXTarget.h"

#include "pellix/protocol/PXParser.h"

#include <QByteArray>
#include <QObject>
#include <QTimer>

#include <deque>
#include <functional>
#include <memory>

// The host's side of the debug link, apart from the device: turns the server's reads, writes
// and bypass packets into debug packets, keeps several in flight so that the link never idles,
// matches the chip's replies to them in order, and tells events and bypass packets from the
// chip apart. The bytes go out through the `send` function given at construction and come in
// through feed().
//
// On the link (every packet framed as the library's encoders frame it: 0xAD, length, flow,
// data, XOR checksum; every byte escaped and unescaped under XON/XOFF):
//
//   host to chip                                  chip to host
//   read 8/16/32, internal 8 (flow 0xFF,          reply: flow 0xFF, command 0, four data bytes
//     commands 0x00/0x01/0x02/0x04)                 (the value little-endian, zero-filled)
//   write 8/16/32, block, internal 8 (flow 0xFF,  reply as above, data 0: the write is done
//     commands 0x80/0x81/0x82/0x83/0x84)
//   bypass packet on a client's flow, unchanged   packets on any flow but 0xFF and 0xFE: bypass
//                                                 flow 0xFE, 4 bytes: an event's identifier
//
// Every request gets exactly one reply, in the order sent. A reply that does not come in time,
// or one that is not a well-formed reply, puts the match out of doubt: every request in flight
// and waiting is dropped (requestsDropped), input is ignored until the link has been quiet for
// a moment, and the chip counts as silent until it answers again.
class PXLinkSession : public QObject
{
    Q_OBJECT
public:
    // Requests in flight at once, and bytes of them not yet answered.
    static constexpr int MaxInFlight = 32;
    static constexpr int MaxInFlightBytes = 2 * 65540;
    // Data bytes of one block-write packet.
    static constexpr int MaxBlockPacket = 65529;
    // A reply is late after this much beyond the time its bytes take on the link.
    static constexpr int ReplySlackMs = 500;
    // After a lost match, input is ignored until the link has been quiet this long.
    static constexpr int QuietMs = 200;

    explicit PXLinkSession(std::function<void(const QByteArray&)> send, QObject* parent = nullptr);

    // XON/XOFF escaping on both directions.
    void setEscaped(bool escaped);
    // The link's speed, for the reply time-outs.
    void setBytesPerSecond(qint64 rate);
    // How long the link must be quiet after a lost match (QuietMs unless changed).
    void setQuietMs(int ms) { quietTimer.setInterval(ms); }

    void read(bool internal, quint32 address, int size, PXTarget::Data data);
    void readBlock(quint32 address, int size, PXTarget::Data data);
    void write(bool internal, int width, quint32 address, const QByteArray& bytes,
               PXTarget::Done done);
    void sendBypass(const QByteArray& packet);
    // A read of 32 bits at 0 that tells whether the chip answers.
    void probe(PXTarget::Done answered);

    // Bytes from the device.
    void feed(const QByteArray& bytes);
    // Forgets every request (the device closed, its buffers were cleared, a reply was lost).
    void drop(const char* reason);

    bool answering() const { return chipAnswers; }
    bool idle() const { return inFlight.empty() && waiting.empty(); }

signals:
    void eventRaised(quint32 id);
    void bypassArrived(const QByteArray& packet);
    void requestsDropped();
    void answeringChanged(bool answering);
    void note(const QString& text);

private:
    struct Request
    {
        QByteArray packet;
        // The reply's data bytes for the caller (a read), else 0.
        int size = 0;
        PXTarget::Data data;
    };

    void enqueue(QByteArray packet, int size, PXTarget::Data data);
    void sendWaiting();
    void handle(const QByteArray& packet);
    void handleReply(const QByteArray& packet);
    void armTimer();
    void setAnswering(bool answers);

    std::function<void(const QByteArray&)> sendBytes;
    PXParser parser{PXParser::DebugPackets};
    bool escape = false;
    qint64 bytesPerSecond = 11520;
    std::deque<Request> waiting;
    std::deque<Request> inFlight;
    qint64 inFlightBytes = 0;
    QTimer replyTimer;
    // Runs while input is ignored after a lost match; every byte that comes restarts it.
    QTimer quietTimer;
    bool chipAnswers = false;
};

#endif
