#ifndef PELLIX_PXTARGET_H
#define PELLIX_PXTARGET_H

#include <QByteArray>
#include <QObject>
#include <QString>

#include <functional>

// What the server's TCP front reaches its target through: the simulated chip in the server's
// own process (PXSimTarget) or a chip at the far end of a serial debug link (PXSerialTarget).
//
// Every operation that the front answers takes a completion. A target calls it once, with the
// data for a read, when the target has answered; when the target never answers (the link is
// gone, the chip is silent) it is never called and the client times out, as with any silent
// server. A completion may run before the call returns (the simulated target answers at once)
// or later from the event loop. Events and bypass packets from the target come as signals.
//
// Everything runs on the server's one (main) thread.
class PXTarget : public QObject
{
    Q_OBJECT
public:
    using Data = std::function<void(const QByteArray& data)>;
    using Done = std::function<void()>;

    static constexpr unsigned char StatusDown = 0x00;
    static constexpr unsigned char StatusUp = 0x01;

    using QObject::QObject;

    // A single read of `size` (1, 2 or 4) bytes of memory, or of one byte of the internal
    // space with `internal`.
    virtual void read(bool internal, quint32 address, int size, Data data) = 0;
    // `size` bytes of memory from `address` upwards: one piece of a block read.
    virtual void readBlock(quint32 address, int size, Data data) = 0;
    // Stores `bytes` at `address` (internal space with `internal`); `done` once the chip has
    // them. `width` is 1, 2 or 4 for the writes of one width, 0 for a block write.
    virtual void write(bool internal, int width, quint32 address, const QByteArray& bytes,
                       Done done) = 0;
    // A debug packet from a client, for the chip as it stands.
    virtual void sendBypass(const QByteArray& packet) = 0;

    // 1 while the chip is reachable and answers, else 0.
    virtual unsigned char status() const = 0;
    virtual void setBaudRate(qint64 baud) = 0;
    virtual void setFlowMode(quint32 mode) = 0;
    virtual void setUsbIds(quint16 vendor, quint16 product) = 0;
    virtual void autoBaud() = 0;
    // Empties what waits in the link's buffers.
    virtual void flush() = 0;
    virtual void sendBreak(Done done) = 0;
    // Closes and opens the link again; `done` once it has tried.
    virtual void reconnect(Done done) = 0;

signals:
    // An event that the chip raised.
    void eventRaised(quint32 id);
    // A debug packet that the chip sent on a flow of its own (not a reply).
    void bypassArrived(const QByteArray& packet);
    // Every request handed over and not answered yet is forgotten: their completions will
    // not run (the link went, or its buffers were cleared).
    void requestsDropped();
    // A line for the server's verbose log.
    void note(const QString& text);
};

#endif
